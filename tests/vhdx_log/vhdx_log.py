#!/usr/bin/env python3
"""Turns a clean VHDX into one that was not closed cleanly: the current
state of some block allocation table sectors lives only in the log, and the
file holds stale or junk bytes there. Written from the published format
(MS-VHDX), independently of the reader under test.

  vhdx_log.py IN OUT CASE     CASE: one-entry, two-entries, garbage
"""
import os
import struct
import sys

SECTOR = 4096


def crc32c(data, crc=0):
    crc ^= 0xFFFFFFFF
    for b in data:
        crc ^= b
        for _ in range(8):
            crc = (crc >> 1) ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def with_crc(buf, at):
    buf[at:at + 4] = b"\0\0\0\0"
    buf[at:at + 4] = struct.pack("<I", crc32c(bytes(buf)))
    return buf


def main():
    src, dst, case = sys.argv[1:4]
    f = bytearray(open(src, "rb").read())
    heads = [64 << 10, 128 << 10]
    seqs = [struct.unpack_from("<Q", f, h + 8)[0] for h in heads]
    cur = heads[seqs.index(max(seqs))]
    log_len, log_off = struct.unpack_from("<IQ", f, cur + 68)
    # The BAT region, from region table 1.
    bat_off = None
    count = struct.unpack_from("<I", f, (192 << 10) + 8)[0]
    for i in range(count):
        e = (192 << 10) + 16 + 32 * i
        if f[e:e + 16] == bytes.fromhex("6677c22d23f600429d64115e9bfd4a08"):
            bat_off = struct.unpack_from("<Q", f, e + 16)[0]
    assert bat_off is not None, "no BAT region"
    first, second = bat_off, bat_off + SECTOR
    good1, good2 = bytes(f[first:first + SECTOR]), bytes(f[second:second + SECTOR])
    # Stale and junk where the log holds the truth: every entry of the first
    # sector not present, the second full of a reserved state.
    f[first:first + SECTOR] = bytes(SECTOR)
    f[second:second + SECTOR] = struct.pack("<Q", 4) * (SECTOR // 8)
    guid = os.urandom(16)
    size = len(f)

    def entry(seq, tail, descriptors):
        """descriptors: ("zero", offset, length) or ("data", offset, 4 KiB)."""
        data = [d for d in descriptors if d[0] == "data"]
        head = bytearray(SECTOR)
        struct.pack_into("<4sIIIQII16sQQ", head, 0, b"loge", 0, SECTOR * (1 + len(data)), tail, seq,
                         len(descriptors), 0, guid, size // (1 << 20) * (1 << 20), size)
        sectors = []
        for i, d in enumerate(descriptors):
            at = 64 + 32 * i
            if d[0] == "zero":
                struct.pack_into("<4sIQQQ", head, at, b"zero", 0, d[2], d[1], seq)
            else:
                payload = d[2]
                struct.pack_into("<4s4s8sQQ", head, at, b"desc", payload[-4:], payload[:8], d[1], seq)
                s = bytearray(SECTOR)
                struct.pack_into("<4sI", s, 0, b"data", seq >> 32)
                s[8:SECTOR - 4] = payload[8:SECTOR - 4]
                struct.pack_into("<I", s, SECTOR - 4, seq & 0xFFFFFFFF)
                sectors.append(bytes(s))
        whole = bytearray(bytes(head) + b"".join(sectors))
        return bytes(with_crc(whole, 4))

    log = bytearray(log_len)
    if case == "one-entry":
        e = entry(5, 0, [("zero", second, SECTOR), ("data", first, good1), ("data", second, good2)])
        log[0:len(e)] = e
    elif case == "two-entries":
        # The first zeroes the junk, the second (whose tail is the first)
        # writes both sectors; an older entry of another log lies after them.
        e1 = entry(7, 0, [("zero", second, SECTOR)])
        e2 = entry(8, 0, [("data", first, good1), ("data", second, good2)])
        log[0:len(e1)] = e1
        log[len(e1):len(e1) + len(e2)] = e2
        saved = guid
        guid = os.urandom(16)
        stale = entry(9, len(e1) + len(e2), [("zero", first, SECTOR)])
        guid = saved
        at = len(e1) + len(e2)
        log[at:at + len(stale)] = stale
    elif case == "garbage":
        log[0:8] = b"loge\0\0\0\0"
    else:
        sys.exit("unknown case " + case)
    f[log_off:log_off + log_len] = log
    for h in heads:
        f[h + 48:h + 64] = guid
        hb = bytearray(f[h:h + SECTOR])
        f[h:h + SECTOR] = with_crc(hb, 4)
    open(dst, "wb").write(f)


main()
