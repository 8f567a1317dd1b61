#!/usr/bin/env python3
"""Named mutants of VHDX files, written from Microsoft's published format
(MS-VHDX) with a parser of its own, for the corruption test of import.

vhdx_mutate.py child DYNAMIC PARENT OUT
    Turns a dynamic VHDX (qemu-img's, the same size and block size as
    PARENT) into a differencing file of PARENT: a parent locator naming
    PARENT's DataWriteGuid, a sector bitmap block, block 2 partially present
    (its first 256 KiB held, the rest from the parent), block 5 ZERO (hides
    the parent), blocks never written left to the parent.
vhdx_mutate.py read FILE PARENT_RAW OUT
    What FILE reads as (a differencing FILE over PARENT_RAW, the parent's
    disk): the reference for mutants whose change is legal content.
vhdx_mutate.py locate FILE payload|bitmap|bat|headers
    The file offset of the first present block's data, of the sector bitmap
    of block 2, of the first present block's BAT entry, of the current header.
vhdx_mutate.py sectors4k IN OUT
    IN with 4096-byte logical and physical sectors: the same disk.
vhdx_mutate.py mutants OUTDIR DYNAMIC FIXED CHILD CHILD4K PARENT_RAW [NAME]
    Writes one mutant at a time to OUTDIR/mutant.vhdx, prints a line for it,
    NAME SOURCE JUDGE, and waits for a line on standard input before the next
    (with NAME: that mutant alone, no waiting). SOURCE is dyn, fixed, child
    or child4k (CHILD4K: a child as CHILD of 4096-byte sectors over a parent
    of the same disk; a child goes on top of its parent, the others in as a
    new disk). JUDGE:
    "qemu" (qemu-img's reading is the truth, whether it refuses or reads),
    "refuse" (no reader may take it), "ref" (it must read as
    OUTDIR/mutant.ref, computed here from the format) or "qemu|ref" (either).
Structures with a CRC-32C (headers, region tables, log entries) are mutated
with the checksum recomputed, so the reader's field checks are reached and
not only its checksums, and where one header is changed also with it left
wrong (NAME.raw, NAME.crc). Files with a log to replay are written here too:
entries that rewrite a sector of the BAT, whole, torn or stale.
"""
import struct
import sys
import uuid

from vhdx_format import (BAT_GUID, FULLY, ITEM, KB, MB, META_GUID, NOT_PRESENT, PARTIAL, UNDEFINED, UNMAPPED, ZERO,
                          Vhdx, fix_crc, make_child, put, read_disk, u)

UNKNOWN = uuid.UUID("5d1c0f2e-9a7b-4c3d-8e6f-0a1b2c3d4e5f").bytes_le


def hdr(v, which):
    return v.cur if which == "cur" else v.old


def set_hdr(field, value, which="cur"):
    at = {"sig": (0, "4s"), "seq": (8, "Q"), "logguid": (48, "16s"), "logver": (64, "H"), "ver": (66, "H"),
          "loglen": (68, "I"), "logoff": (72, "Q"), "filewrite": (16, "16s")}[field]
    return lambda d, v: put(d, hdr(v, which) + at[0], at[1], value(v) if callable(value) else value)


def old_current(*more):
    """The older header made current (a sequence number above the other's), with other values."""
    def f(d, v):
        put(d, v.old + 8, "Q", u(d, v.cur + 8, "Q") + 1)
        for m in more:
            m(d, v)
    return f


def region(guid, field, value):
    """A field of a region's entry, in both region tables."""
    def f(d, v):
        off = v.regions[guid][0]
        for t in v.TABLES:
            at = t + off + {"guid": 0, "offset": 16, "length": 24, "required": 28}[field]
            put(d, at, "16s" if field == "guid" else "Q" if field == "offset" else "I", value(v) if callable(value) else value)
    return f


def tables(at, fmt, value, which=Vhdx.TABLES):
    def f(d, v):
        for t in which:
            put(d, t + at, fmt, value(v) if callable(value) else value)
    return f


def add_region(required):
    def f(d, v):
        for t in v.TABLES:
            n = u(d, t + 8, "I")
            d[t + 16 + 32 * n:t + 48 + 32 * n] = UNKNOWN + struct.pack("<QII", 4 * MB, MB, required)
            put(d, t + 8, "I", n + 1)
    return f


def item(name, field, value):
    """A metadata table entry's field, or (field "value") the item's own bytes."""
    def f(d, v):
        e, off, _ = v.items[ITEM[name]]
        val = value(v) if callable(value) else value
        if field == "value":
            d[v.meta + off:v.meta + off + len(val)] = val
        else:
            put(d, e + {"guid": 0, "offset": 16, "length": 20, "flags": 24}[field], "16s" if field == "guid" else "I", val)
    return f


def add_item(flags):
    def f(d, v):
        e = v.meta + 32 + 32 * v.count
        d[e:e + 32] = UNKNOWN + struct.pack("<IIII", 128 * KB, 8, flags, 0)
        put(d, v.meta + 10, "H", v.count + 1)
    return f


def bat(block, state=None, offset=None):
    """A payload entry: its state and/or file offset (a function of the source)."""
    def f(d, v):
        b = block(v) if callable(block) else block
        s, at = v.entry(b)
        s = s if state is None else state
        at = at if offset is None else offset(v) if callable(offset) else offset
        put(d, v.entry_at(b), "Q", at | s)
    return f


def sb(state=None, offset=None):
    def f(d, v):
        e = u(d, v.sb_entry_at(0), "Q")
        s, at = (e & 7 if state is None else state), (e >> 20 << 20 if offset is None else offset(v))
        put(d, v.sb_entry_at(0), "Q", at | s)
    return f


def xor(at, mask=0xFF, n=1):
    def f(d, v):
        a = at(v) if callable(at) else at
        for k in range(a, a + n):
            d[k] ^= mask
    return f


def truncate(at):
    def f(d, v):
        del d[at(v):]
    return f


def locator(fn):
    """A change to the parent locator item (its bytes and its position)."""
    def f(d, v):
        fn(d, v.item("locator"), v)
    return f


def loc_value(old, new):
    def f(d, at, v):
        i = d.find(old.encode("utf-16-le"), at)
        d[i:i + len(new) * 2] = new.encode("utf-16-le")
    return f


def other_guid(d, at, v):
    """parent_linkage naming another disk: its first hex digit changed."""
    i = d.find("{".encode("utf-16-le"), at) + 2
    d[i] = ord("0123456789abcdef"[(int(chr(d[i]), 16) + 1) % 16])


def end_mb(v):
    return (len(v.d) + MB - 1) // MB * MB


def payload(v, block=None):
    return v.entry(v.present()[0] if block is None else block)[1]


def both(*fs):
    def f(d, v):
        for g in fs:
            g(d, v)
    return f


LOG_GUID = uuid.UUID("3c1e5a7b-2d4f-4e6a-8b9c-0d1e2f3a4b5c").bytes_le


def log_entry(v, seq, tail, updates, zeros=(), guid=LOG_GUID, flushed=None):
    """One log entry: a descriptor sector (header, data and zero descriptors),
    then a data sector per update (file offset, 4 KiB), checksum over it all."""
    flushed = end_mb(v) if flushed is None else flushed
    desc = bytearray(4 * KB)
    struct.pack_into("<4sIIIQII16sQQ", desc, 0, b"loge", 0, 4 * KB * (1 + len(updates)), tail, seq,
                     len(updates) + len(zeros), 0, guid, flushed, end_mb(v))
    sectors = b""
    for i, (at, data) in enumerate(updates):
        struct.pack_into("<4s4s8sQQ", desc, 64 + 32 * i, b"desc", data[4092:], data[:8], at, seq)
        sectors += b"data" + struct.pack("<I", seq >> 32) + data[8:4092] + struct.pack("<I", seq & 0xFFFFFFFF)
    for i, (at, length) in enumerate(zeros):
        struct.pack_into("<4sIQQQ", desc, 64 + 32 * (len(updates) + i), b"zero", 0, length, at, seq)
    entry = bytearray(desc + sectors)
    fix_crc(entry, 0, len(entry))
    return entry


def bat_sector(d, v, *states):
    """The BAT's first 4 KiB with the given (block, state) changes."""
    sector = bytearray(d[v.bat:v.bat + 4 * KB])
    for b, state in states:
        put(sector, 8 * b, "Q", v.entry(b)[1] | state)
    return bytes(sector)


def with_log(*entries, damage=None):
    """A log to replay in the current header's log: entries (functions of the
    file, each giving a list of entries laid one after another), a damage to
    them, and what the file reads as once the good ones are replayed."""
    def f(d, v):
        put(d, v.cur + 48, "16s", LOG_GUID)
        fix_crc(d, v.cur, 4 * KB)
        at, log = u(d, v.cur + 72, "Q"), b""
        replayed = bytearray(d)
        for make, good in entries:
            entry = make(replayed, v)
            if good:  # laid over the file as replay would
                n = u(entry, 16, "I")
                for i in range(n):
                    sig, length_or_trail, lead, off = struct.unpack_from("<4s4s8sQ", entry, 64 + 32 * i)
                    if sig == b"desc":
                        k = 4 * KB * (1 + i)
                        replayed[off:off + 4 * KB] = lead + entry[k + 8:k + 4092] + length_or_trail
                    else:
                        length = u(entry, 64 + 32 * i + 8, "Q")
                        replayed[off:off + length] = bytes(length)
            log += entry
        d[at:at + len(log)] = log
        if damage:
            damage(d, at)
        return replayed
    return f


def data_sequence(d, at):
    """The first entry's data sector with another sequence number, its checksum recomputed."""
    d[at + 8 * KB - 1] ^= 1
    fix_crc(d, at, 8 * KB)


# name: (source, judge, mutation, flavours). BOTH: NAME.raw (the checksums
# left as the change leaves them) and NAME.crc (recomputed), for a change to
# one header, whose checksum decides whether the other one is read; CRC:
# recomputed only, for a change to both copies of a structure (rt-both and
# hdr-both have the checksums left wrong); ONE: nothing to recompute.
Q, R, REF = "qemu", "refuse", "ref"
BOTH, CRC, ONE = ("raw", "crc"), ("crc",), ("",)
MUTANTS = {
    "ident-signature": ("dyn", Q, xor(0, 0x01), ONE),
    "ident-creator": ("dyn", Q, xor(8, 0x5A, 16), ONE),
    "hdr-current": ("dyn", Q, xor(lambda v: v.cur + 20), ONE),
    "hdr-older": ("dyn", Q, xor(lambda v: v.old + 20), ONE),
    "hdr-both": ("dyn", Q, both(xor(lambda v: v.cur + 20), xor(lambda v: v.old + 20)), ONE),
    "hdr-both-signature": ("dyn", Q, both(set_hdr("sig", b"hea\0"), set_hdr("sig", b"hea\0", "old")), CRC),
    "seq-older-current": ("dyn", Q, old_current(set_hdr("filewrite", UNKNOWN, "old")), BOTH),
    "seq-older-current-version": ("dyn", Q, old_current(set_hdr("ver", 2, "old")), BOTH),
    "seq-older-current-log": ("dyn", Q, old_current(set_hdr("logguid", UNKNOWN, "old")), BOTH),
    "seq-equal": ("dyn", Q, set_hdr("seq", lambda v: u(v.d, v.cur + 8, "Q"), "old"), BOTH),
    "seq-older-bad-version": ("dyn", Q, set_hdr("ver", 2, "old"), BOTH),
    "version": ("dyn", Q, set_hdr("ver", 2), BOTH),
    "version-both": ("dyn", Q, both(set_hdr("ver", 0), set_hdr("ver", 0, "old")), CRC),
    "log-version-empty-log": ("dyn", Q, both(set_hdr("logver", 1), set_hdr("logver", 1, "old")), CRC),
    "log-guid": ("dyn", Q, set_hdr("logguid", UNKNOWN), BOTH),
    "log-guid-both": ("dyn", Q, both(set_hdr("logguid", UNKNOWN), set_hdr("logguid", UNKNOWN, "old")), CRC),
    "log-offset-past-end": ("dyn", Q, both(set_hdr("logoff", lambda v: end_mb(v) + 64 * MB),
                                          set_hdr("logoff", lambda v: end_mb(v) + 64 * MB, "old")), CRC),
    "log-offset-unaligned": ("dyn", Q, both(set_hdr("logoff", MB + 4 * KB), set_hdr("logoff", MB + 4 * KB, "old")), CRC),
    "log-length-huge": ("dyn", Q, both(set_hdr("loglen", 0xFFF00000), set_hdr("loglen", 0xFFF00000, "old")), CRC),
    "log-on-bat": ("dyn", Q, both(set_hdr("logoff", lambda v: v.bat), set_hdr("logoff", lambda v: v.bat, "old")), CRC),
    "log-replay": ("dyn", REF, with_log((lambda d, v: log_entry(v, 1, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))]), 1)), ONE),
    "log-replay-two": ("dyn", REF, with_log((lambda d, v: log_entry(v, 7, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))]), 1),
                                            (lambda d, v: log_entry(v, 8, 0, [(v.bat, bat_sector(d, v, (2, ZERO)))]), 1)), ONE),
    "log-replay-torn-second": ("dyn", REF, with_log(
        (lambda d, v: log_entry(v, 7, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))]), 1),
        (lambda d, v: log_entry(v, 8, 0, [(v.bat, bat_sector(d, v, (2, ZERO)))]), 0),
        damage=lambda d, at: d.__setitem__(at + 8 * KB + 4, d[at + 8 * KB + 4] ^ 1)), ONE),
    "log-replay-zero-descriptor": ("dyn", REF, with_log((lambda d, v: log_entry(v, 1, 0, [], [(v.bat, 4 * KB)]), 1)), ONE),
    "log-replay-checksum": ("dyn", R, with_log((lambda d, v: log_entry(v, 1, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))]), 0),
                                               damage=lambda d, at: d.__setitem__(at + 4, d[at + 4] ^ 1)), ONE),
    "log-replay-other-guid": ("dyn", R, with_log((lambda d, v: log_entry(v, 1, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))],
                                                                   guid=UNKNOWN), 0)), ONE),
    "log-replay-data-sequence": ("dyn", R, with_log((lambda d, v: log_entry(v, 1, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))]), 0),
                                                    damage=data_sequence), ONE),
    "log-replay-file-cut": ("dyn", R, with_log((lambda d, v: log_entry(v, 1, 0, [(v.bat, bat_sector(d, v, (0, ZERO)))],
                                                                 flushed=end_mb(v) + MB), 0)), ONE),
    "rt1-alone": ("dyn", Q, xor(192 * KB + 40), ONE),
    "rt2-alone": ("dyn", Q, xor(256 * KB + 40), ONE),
    "rt-both": ("dyn", Q, both(xor(192 * KB + 40), xor(256 * KB + 40)), ONE),
    "rt-signature": ("dyn", Q, tables(0, "4s", b"regj"), CRC),
    "rt-count-0": ("dyn", Q, tables(8, "I", 0), CRC),
    "rt-count-1": ("dyn", Q, tables(8, "I", 1), CRC),
    "rt-count-2048": ("dyn", Q, tables(8, "I", 2048), CRC),
    "rt-bat-unaligned": ("dyn", Q, region(BAT_GUID, "offset", lambda v: v.bat + 4 * KB), CRC),
    "rt-bat-past-end": ("dyn", Q, region(BAT_GUID, "offset", lambda v: end_mb(v) + 64 * MB), CRC),
    "rt-bat-in-header": ("dyn", Q, region(BAT_GUID, "offset", 0), CRC),
    "rt-bat-on-metadata": ("dyn", Q, region(BAT_GUID, "offset", lambda v: v.meta), CRC),
    "rt-bat-length-0": ("dyn", Q, region(BAT_GUID, "length", 0), CRC),
    "rt-bat-length-unaligned": ("dyn", Q, region(BAT_GUID, "length", 4 * KB), CRC),
    "rt-bat-missing": ("dyn", Q, region(BAT_GUID, "guid", UNKNOWN), CRC),
    "rt-meta-past-end": ("dyn", Q, region(META_GUID, "offset", lambda v: end_mb(v) + 64 * MB), CRC),
    "rt-meta-unaligned": ("dyn", Q, region(META_GUID, "offset", lambda v: v.meta + 512), CRC),
    "rt-meta-length-huge": ("dyn", Q, region(META_GUID, "length", 0xFFF00000), CRC),
    "rt-meta-missing": ("dyn", Q, region(META_GUID, "guid", UNKNOWN), CRC),
    "rt-unknown-required": ("dyn", Q, add_region(1), CRC),
    "rt-unknown-optional": ("dyn", Q, add_region(0), CRC),
    "md-signature": ("dyn", Q, xor(lambda v: v.meta, 0x01), ONE),
    "md-count-0": ("dyn", Q, lambda d, v: put(d, v.meta + 10, "H", 0), ONE),
    "md-count-2048": ("dyn", Q, lambda d, v: put(d, v.meta + 10, "H", 2048), ONE),
    "md-item-past-region": ("dyn", Q, item("size", "offset", lambda v: v.regions[META_GUID][2] - 4), ONE),
    "md-item-in-table": ("dyn", Q, item("size", "offset", 512), ONE),
    "md-item-too-long": ("dyn", Q, item("diskid", "length", 2 * MB), ONE),
    "md-items-overlap": ("dyn", Q, item("lss", "offset", lambda v: v.items[ITEM["pss"]][1]), ONE),
    "md-unknown-required": ("dyn", Q, add_item(4), ONE),
    "md-unknown-optional": ("dyn", Q, add_item(0), ONE),
    "md-missing-size": ("dyn", Q, both(item("size", "guid", UNKNOWN), item("size", "flags", 0)), ONE),
    "md-missing-params": ("dyn", Q, both(item("params", "guid", UNKNOWN), item("params", "flags", 0)), ONE),
    "md-missing-lss": ("dyn", Q, both(item("lss", "guid", UNKNOWN), item("lss", "flags", 0)), ONE),
    "block-size-0": ("dyn", Q, item("params", "value", struct.pack("<I", 0)), ONE),
    "block-size-3m": ("dyn", Q, item("params", "value", struct.pack("<I", 3 * MB)), ONE),
    "block-size-512k": ("dyn", Q, item("params", "value", struct.pack("<I", 512 * KB)), ONE),
    "block-size-512m": ("dyn", Q, item("params", "value", struct.pack("<I", 512 * MB)), ONE),
    "params-has-parent": ("dyn", Q, item("params", "value", struct.pack("<II", MB, 2)), ONE),
    "params-reserved": ("dyn", Q, item("params", "value", struct.pack("<II", MB, 1 << 7)), ONE),
    "size-0": ("dyn", Q, item("size", "value", struct.pack("<Q", 0)), ONE),
    "size-unaligned": ("dyn", Q, item("size", "value", struct.pack("<Q", 8 * MB - 100)), ONE),
    "size-huge": ("dyn", Q, item("size", "value", struct.pack("<Q", 1 << 50)), ONE),
    "size-smaller": ("dyn", Q, item("size", "value", struct.pack("<Q", 5 * MB + 512)), ONE),
    "size-larger": ("dyn", Q, item("size", "value", struct.pack("<Q", 12 * MB)), ONE),
    "lss-1024": ("dyn", Q, item("lss", "value", struct.pack("<I", 1024)), ONE),
    "lss-0": ("dyn", Q, item("lss", "value", struct.pack("<I", 0)), ONE),
    "lss-4096": ("dyn", REF, item("lss", "value", struct.pack("<I", 4096)), ONE),
    "pss-1024": ("dyn", Q, item("pss", "value", struct.pack("<I", 1024)), ONE),
    "pss-4096": ("dyn", Q, item("pss", "value", struct.pack("<I", 4096)), ONE),
    "bat-state-4": ("dyn", Q, bat(0, 4), ONE),
    "bat-state-5": ("dyn", Q, bat(0, 5), ONE),
    "bat-partial-no-parent": ("dyn", Q, bat(0, PARTIAL), ONE),
    "bat-past-end": ("dyn", Q, bat(0, offset=lambda v: end_mb(v) + 16 * MB), ONE),
    "bat-in-header": ("dyn", Q, bat(0, offset=0), ONE),
    "bat-in-log": ("dyn", Q, bat(0, offset=MB), ONE),
    "bat-in-bat": ("dyn", Q, bat(0, offset=lambda v: v.bat), ONE),
    "bat-in-metadata": ("dyn", Q, bat(0, offset=lambda v: v.meta), ONE),
    "bat-two-at-one": ("dyn", Q, bat(lambda v: v.present()[1], offset=lambda v: payload(v)), ONE),
    "bat-reserved-bits": ("dyn", Q, bat(0, offset=lambda v: payload(v) | 1 << 12), ONE),
    "bat-zero": ("dyn", Q, bat(0, ZERO), ONE),
    "bat-unmapped": ("dyn", "qemu|ref", bat(0, UNMAPPED), ONE),
    "bat-undefined": ("dyn", "qemu|ref", bat(0, UNDEFINED), ONE),
    "bat-not-present": ("dyn", "qemu|ref", bat(0, NOT_PRESENT), ONE),
    "bat-new-block": ("dyn", Q, bat(1, FULLY, 4 * MB), ONE),
    "payload-flip": ("dyn", Q, xor(lambda v: payload(v) + 4097, 0x5A, 700), ONE),
    "trunc-header": ("dyn", Q, truncate(lambda v: 100 * KB), ONE),
    "trunc-bat": ("dyn", Q, truncate(lambda v: v.bat + 4 * KB), ONE),
    "trunc-metadata": ("dyn", Q, truncate(lambda v: v.meta + 64 * KB + 12), ONE),
    "trunc-last-block": ("dyn", Q, truncate(lambda v: len(v.d) - 512 * KB), ONE),
    "trunc-last-mib": ("dyn", Q, truncate(lambda v: len(v.d) - MB), ONE),
    "fixed-payload-flip": ("fixed", Q, xor(lambda v: payload(v, 1) + 512, 0xA5, 3000), ONE),
    "fixed-bat-zero": ("fixed", Q, bat(1, ZERO), ONE),
    "fixed-bat-past-end": ("fixed", Q, bat(3, offset=lambda v: end_mb(v)), ONE),
    "fixed-trunc-last-block": ("fixed", Q, truncate(lambda v: len(v.d) - 300 * KB), ONE),
    "child-clean": ("child", REF, lambda d, v: None, ONE),
    "child-bitmap-clear": ("child", REF, xor(lambda v: sb_at(v) + 2 * v.block // v.lss // 8 + 3, 0x0F), ONE),
    "child-bitmap-set": ("child", REF, xor(lambda v: sb_at(v) + (2 * v.block + 256 * KB) // v.lss // 8 + 2, 0xF0, 3), ONE),
    "child-bitmap-unused-block": ("child", REF, xor(lambda v: sb_at(v) + 4 * v.block // v.lss // 8, 0xFF, 8), ONE),
    "child-payload-flip": ("child", REF, xor(lambda v: payload(v, 2) + 1000, 0x3C, 100), ONE),
    "child-zero-unmapped": ("child", REF, bat(5, UNMAPPED), ONE),
    "child-undefined": ("child", REF, bat(4, UNDEFINED), ONE),
    "child-sb-missing": ("child", R, sb(NOT_PRESENT, lambda v: 0), ONE),
    "child-sb-past-end": ("child", R, sb(offset=lambda v: end_mb(v) + 8 * MB), ONE),
    "child-sb-reserved-state": ("child", R, sb(state=7), ONE),
    "child-sb-on-bat": ("child", R, sb(offset=lambda v: v.bat), ONE),
    "child-partial-past-end": ("child", R, bat(2, offset=lambda v: end_mb(v) + 8 * MB), ONE),
    "child-trunc-bitmap": ("child", R, truncate(lambda v: len(v.d) - 512 * KB), ONE),
    "child-locator-type": ("child", R, locator(lambda d, at, v: d.__setitem__(slice(at, at + 16), UNKNOWN)), ONE),
    "child-locator-no-linkage": ("child", R, locator(loc_value("parent_linkage", "parent_linkagX")), ONE),
    "child-locator-bad-guid": ("child", R, locator(loc_value("{", "{zz")), ONE),
    "child-locator-other-guid": ("child", R, locator(other_guid), ONE),
    "child-locator-key-past": ("child", R, locator(lambda d, at, v: put(d, at + 20, "I", 1 << 20)), ONE),
    "child-locator-missing": ("child", R, lambda d, v: put(d, v.meta + 10, "H", v.count - 1), ONE),
    "child-no-parent-bit": ("child", R, item("params", "value", struct.pack("<II", MB, 0)), ONE),
    "child-size-not-parents": ("child", R, item("size", "value", struct.pack("<Q", 12 * MB)), ONE),
}
# A chain of 4096-byte logical sectors: one bit of the bitmap per 4 KiB.
for _n in ("child-clean", "child-bitmap-clear", "child-bitmap-set", "child-payload-flip"):
    MUTANTS[_n.replace("child", "child4k")] = ("child4k",) + MUTANTS[_n][1:]


def sb_at(v):
    return u(v.d, v.sb_entry_at(0), "Q") >> 20 << 20


def write_sparse(path, d):
    """Zero runs of 64 KiB left as holes: a mutant costs what its source holds."""
    with open(path, "wb") as f:
        for at in range(0, len(d), 64 * KB):
            piece = d[at:at + 64 * KB]
            if piece.count(0) == len(piece):
                f.seek(len(piece), 1)
            else:
                f.write(piece)
        f.truncate(len(d))


def main():
    cmd = sys.argv[1]
    rd = lambda p: bytearray(open(p, "rb").read())
    if cmd == "child":
        write_sparse(sys.argv[4], make_child(rd(sys.argv[2]), rd(sys.argv[3])))
    elif cmd == "read":
        open(sys.argv[4], "wb").write(read_disk(rd(sys.argv[2]), rd(sys.argv[3])))
    elif cmd == "sectors4k":
        # The same disk with 4096-byte logical and physical sectors (its
        # blocks are addressed in bytes, so it reads as before).
        d = rd(sys.argv[2])
        v = Vhdx(d)
        put(d, v.item("lss"), "I", 4096)
        put(d, v.item("pss"), "I", 4096)
        write_sparse(sys.argv[3], d)
    elif cmd == "locate":
        # Where to damage a stored copy: the first byte of a structure.
        v, what = Vhdx(rd(sys.argv[2])), sys.argv[3]
        print({"payload": lambda: payload(v), "bitmap": lambda: sb_at(v) + 2 * v.block // v.lss // 8,
               "bat": lambda: v.entry_at(v.present()[0]), "headers": lambda: v.cur}[what]())
    elif cmd == "mutants":
        out, srcs = sys.argv[2], {k: rd(p) for k, p in zip(("dyn", "fixed", "child", "child4k"), sys.argv[3:7])}
        parent_raw, views = rd(sys.argv[7]), {k: Vhdx(d) for k, d in srcs.items()}
        only = sys.argv[8] if len(sys.argv) > 8 else None
        for name, (src, judge, fn, flavours) in MUTANTS.items():
            for flavour in flavours:
                full = name + (f".{flavour}" if len(flavours) > 1 else "")
                if only and full != only:
                    continue
                d = bytearray(srcs[src])
                replayed = fn(d, views[src])  # a file with a log: what replay makes of it
                if flavour == "crc":
                    for at in Vhdx.HEADERS:
                        fix_crc(d, at, 4 * KB)
                    for at in Vhdx.TABLES:
                        fix_crc(d, at, 64 * KB)
                if d == srcs[src] and not name.endswith("-clean"):
                    sys.exit(f"mutant {full} changes nothing")
                # One mutant on disk at a time: the caller reads its line,
                # tests it, and answers with a line of its own for the next.
                write_sparse(f"{out}/mutant.vhdx", d)
                if judge in (REF, "qemu|ref"):
                    parent = parent_raw if src.startswith("child") else bytes(len(parent_raw))
                    open(f"{out}/mutant.ref", "wb").write(read_disk(replayed or d, parent))
                print(full, src, judge, flush=True)
                if not only and not sys.stdin.readline():
                    return
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main()
