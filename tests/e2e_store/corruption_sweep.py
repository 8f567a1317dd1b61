#!/usr/bin/env python3
"""Mutates VHD images and checks how `zxblk import` takes each one.

corruption_sweep.py ZXBLK MAKE_VHD_CHAIN TAMPER_PY COUNT SEED WORKDIR [ONLY]

Sources: a dynamic and a fixed VHD made by qemu-img from a small random raw
disk with zero runs, and a chain (a dynamic base and two differencing
children) from the test tree's chain writer. Each mutant goes into a fresh
copy of a clean store (the chain's earlier snapshots already imported for a
child) and must either be refused (exit non-zero, exactly one line on stderr,
the store byte for byte as before) or be accepted and export exactly the disk
an independent reference reads:
  - qemu-img convert of the mutant, for the qemu-made images, where it reads
    the mutant and agrees on the disk size;
  - the clean image's disk, when the mutation is in bytes that cannot change
    the disk (one footer copy while the other is intact, ids, geometry,
    locators of a disk without a parent, cut-off or appended bytes);
  - for the writer's images, its plan (snapN.raw) when no data or bitmap
    byte changed, or the plan with exactly the changed sectors redone from
    the mutant's own bytes (data flips, bitmap flips, a block unallocated).
Anything else accepted counts as "no reference". A crash, a hang, a
sanitizer report, two or more lines of error, or a changed store after a
refusal is always a failure.

Every mutant draws from its own generator seeded by (SEED, number), so
`ONLY=N` rebuilds and runs mutant N alone and keeps its files in WORKDIR.
"""
import hashlib
import os
import random
import shutil
import struct
import subprocess
import sys

zxblk, chain_tool, tamper, count, seed, work = sys.argv[1:7]
count, seed = int(count), int(seed)
only = int(sys.argv[7]) if len(sys.argv) > 7 else None
TIMEOUT = 60
SANITIZER = ("AddressSanitizer", "UndefinedBehaviorSanitizer", "LeakSanitizer", "runtime error:", "ThreadSanitizer")


def run(cmd, **kw):
    """(returncode or 'hang', stdout, stderr) of a command under a time limit."""
    try:
        p = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT, **kw)
        return p.returncode, p.stdout, p.stderr.decode(errors="replace")
    except subprocess.TimeoutExpired as e:
        return "hang", b"", (e.stderr or b"").decode(errors="replace")


def must(cmd):
    rc, out, err = run(cmd)
    if rc != 0:
        sys.exit(f"setup failed: {' '.join(cmd)}: {err.strip()}")
    return out


def read(path):
    with open(path, "rb") as f:
        return f.read()


def write(path, data):
    with open(path, "wb") as f:
        f.write(data)


def be32(b, at):
    return struct.unpack(">I", b[at:at + 4])[0]


def be64(b, at):
    return struct.unpack(">Q", b[at:at + 8])[0]


def fix_checksum(buf, at, length, field):
    buf[at + field:at + field + 4] = b"\0\0\0\0"
    buf[at + field:at + field + 4] = struct.pack(">I", ~sum(buf[at:at + length]) & 0xFFFFFFFF)


# ---------------------------------------------------------------- the sources

class Source:
    """A clean image, what it reads as, and where its structures are."""

    def __init__(self, name, path, clean_ref, store, disk, qemu, parent_ref=None):
        self.name, self.path, self.store, self.disk, self.qemu = name, path, store, disk, qemu
        self.data = read(path)
        self.clean_ref = read(clean_ref)
        # What a sector not held by this image reads as: the parent's disk, or zeros.
        self.parent_ref = read(parent_ref) if parent_ref else bytes(len(self.clean_ref))
        d = self.data
        self.size = len(d)
        self.footer_at = self.size - 512
        self.type = be32(d, self.footer_at + 60)
        self.blocks = []  # (index, sector of its bitmap)
        if self.type in (3, 4):
            self.header_at = be64(d, self.footer_at + 16)
            self.table_at = be64(d, self.header_at + 16)
            self.entries = be32(d, self.header_at + 28)
            self.block_size = be32(d, self.header_at + 32)
            self.bitmap_bytes = ((self.block_size // 512 + 7) // 8 + 511) // 512 * 512
            for i in range(self.entries):
                e = be32(d, self.table_at + 4 * i)
                if e != 0xFFFFFFFF:
                    self.blocks.append((i, e))
            self.table_bytes = (self.entries * 4 + 511) // 512 * 512

    def block_at(self, offset):
        """(index, bitmap start) of the allocated block holding a file offset, or None."""
        for i, sector in self.blocks:
            start = sector * 512
            if start <= offset < start + self.bitmap_bytes + self.block_size:
                return i, start
        return None


def setup():
    rng = random.Random(seed)
    os.makedirs(work + "/src", exist_ok=True)
    # A raw disk of 8 MiB: random bytes with zero runs of several lengths,
    # one of them a whole 2 MiB block so the dynamic image leaves it out.
    disk = bytearray(rng.randbytes(8 << 20))
    disk[4 << 20:6 << 20] = bytes(2 << 20)
    for _ in range(6):
        at = rng.randrange(0, 8 << 20) // 512 * 512
        n = rng.choice([512, 4096, 65536, 300 * 1024])
        disk[at:at + n] = bytes(min(n, len(disk) - at))
    write(work + "/src/disk.raw", disk)
    for sub in ("dynamic", "fixed"):
        must(["qemu-img", "convert", "-q", "-f", "raw", "-O", "vpc", "-o", f"subformat={sub},force_size=on",
              work + "/src/disk.raw", f"{work}/src/{sub}.vhd"])
        must(["qemu-img", "convert", "-q", "-f", "vpc", "-O", "raw", f"{work}/src/{sub}.vhd", f"{work}/src/{sub}.ref"])
        if read(f"{work}/src/{sub}.ref") != bytes(disk):
            sys.exit(f"setup failed: qemu-img does not read back its own {sub} VHD as the raw disk")
    must([chain_tool, work + "/src", str(4 << 20), str(256 << 10), "2", str(seed % 1000003 + 1)])

    # Clean stores: A holds the chain's base (disk "c"), B its base and first child.
    must([zxblk, "import", "--store", work + "/storeA", "--disk", "c", work + "/src/snap0.vhd"])
    must([zxblk, "import", "--store", work + "/storeB", "--disk", "c", work + "/src/snap0.vhd", work + "/src/snap1.vhd"])
    must([zxblk, "import", "--store", work + "/storeE", "--disk", "z", work + "/src/disk.raw"])
    s = work + "/src/"
    return [
        Source("qemu-dynamic", s + "dynamic.vhd", s + "dynamic.ref", "storeA", "m", True),
        Source("qemu-fixed", s + "fixed.vhd", s + "fixed.ref", "storeA", "m", True),
        Source("chain-base", s + "snap0.vhd", s + "snap0.raw", "storeE", "m", False),
        Source("chain-child1", s + "snap1.vhd", s + "snap1.raw", "storeA", "c", False, s + "snap0.raw"),
        Source("chain-child2", s + "snap2.vhd", s + "snap2.raw", "storeB", "c", False, s + "snap1.raw"),
    ]


# ---------------------------------------------------------------- mutations

FOOTER_FIELDS = {  # name: (offset, length, changes the disk when edited in every copy)
    "cookie": (0, 8, False), "features": (8, 4, False), "data offset": (16, 8, True),
    "current size": (48, 8, True), "disk geometry": (56, 4, False), "type": (60, 4, True),
    "checksum": (64, 4, False), "unique id": (68, 16, False),
}
HEADER_FIELDS = {
    "cookie": (0, 8), "table offset": (16, 8), "max table entries": (28, 4), "block size": (32, 4),
    "checksum": (36, 4), "parent unique id": (40, 16), "parent name": (64, 512),
}


class Mutant:
    def __init__(self, src, data):
        self.src = src
        self.data = bytearray(data)
        self.what = []
        self.inert = False        # no accepting reader may present another disk
        self.must_refuse = False  # no reader may accept it
        self.delta = None         # changed file offsets whose sectors a reference redoes
        self.unallocate = None    # a block made unallocated
        self.bitmap_dynamic = False


def field_value(rng, src, name, old, length):
    """A plausible or hostile new value for a footer or header field."""
    choices = [rng.randbytes(length), bytes(length), b"\xff" * length]
    v = int.from_bytes(old, "big")
    n = [v ^ (1 << rng.randrange(8 * length)), v + 1, v - 1 if v else 1, v * 2, v // 2, v + 512, v - 512 if v >= 512 else 512]
    if name == "current size":
        n += [v + (1 << 20), v - (1 << 20), 1 << 40, v + 1]
    if name == "type":
        n += [2, 3, 4, 5, 0]
    if name in ("table offset", "data offset"):
        n += [0, 512, 1024, src.size - 512, src.size + 512, src.size * 4, 1 << 62]
    if name == "max table entries":
        n += [0, 1, 0xFFFFFFFF, v * 4096, 1 << 24]
    if name == "block size":
        n += [0, 512, 4096, 3 << 20, 1 << 31, 0x80000000, src.block_size * 2 if src.type in (3, 4) else 1 << 21]
    choices += [(x % (1 << (8 * length))).to_bytes(length, "big") for x in n]
    return rng.choice(choices)


def mutate_footer(m, rng):
    src = m.src
    copies = ["tail"] if src.type == 2 else rng.choice([["tail"], ["head"], ["head", "tail"]])
    name = rng.choice(list(FOOTER_FIELDS))
    off, length, shapes = FOOTER_FIELDS[name]
    value = field_value(rng, src, name, bytes(src.data[src.footer_at + off:src.footer_at + off + length]), length)
    fix = name != "checksum" and rng.random() < 0.7
    for c in copies:
        at = src.footer_at if c == "tail" else 0
        m.data[at + off:at + off + length] = value
        if fix:
            fix_checksum(m.data, at, 512, 64)
    m.what.append(f"footer {'+'.join(copies)} {name}={value.hex()}{' checksum fixed' if fix else ''}")
    m.inert = len(copies) == 1 and src.type != 2 or not shapes


def flip_footer_byte(m, rng):
    src = m.src
    copies = ["tail"] if src.type == 2 else rng.choice([["tail"], ["head"], ["head", "tail"]])
    off = rng.choice([rng.randrange(512), rng.randrange(85)])
    bit = 1 << rng.randrange(8)
    for c in copies:
        m.data[(src.footer_at if c == "tail" else 0) + off] ^= bit
    m.what.append(f"footer {'+'.join(copies)} byte {off} ^= {bit:#x}")
    shapes = any(o <= off < o + n and s for o, n, s in FOOTER_FIELDS.values())
    m.inert = len(copies) == 1 and src.type != 2 or not shapes


def mutate_header(m, rng):
    src = m.src
    h = src.header_at
    if rng.random() < 0.3:  # a parent locator entry
        i = rng.randrange(8)
        at = h + 576 + 24 * i
        sub = rng.choice([("code", 0, 4), ("data space", 4, 4), ("data length", 8, 4), ("offset", 16, 8)])
        name, off, length = f"locator {i} {sub[0]}", sub[1], sub[2]
        old = bytes(m.data[at + off:at + off + length])
        value = rng.choice([rng.randbytes(length), b"\xff" * length, bytes(length),
                            (src.size + 512).to_bytes(length, "big")[-length:],
                            (512).to_bytes(length, "big"), (1536).to_bytes(length, "big"),
                            (int.from_bytes(old, "big") ^ (1 << rng.randrange(8 * length))).to_bytes(length, "big"),
                            b"W2ru" if length == 4 else old, b"W2ku" if length == 4 else old])
        m.data[at + off:at + off + length] = value
        content = False
    else:
        name = rng.choice(list(HEADER_FIELDS))
        off, length = HEADER_FIELDS[name]
        at = h
        old = bytes(m.data[at + off:at + off + length])
        if name == "parent name":
            i = rng.randrange(0, 512, 2)
            value = bytearray(old)
            value[i:i + 2] = rng.randbytes(2)
            value = bytes(value)
        else:
            value = field_value(rng, src, name, old, length)
        m.data[at + off:at + off + length] = value
        content = name in ("table offset", "max table entries", "block size")
        if name == "parent unique id" and src.type == 4 and value != old:
            m.must_refuse = True  # a child of another disk than the one it follows
    fix = name != "checksum" and rng.random() < 0.7
    if fix:
        fix_checksum(m.data, h, 1024, 36)
    m.what.append(f"header {name}={value.hex()[:40]}{' checksum fixed' if fix else ''}")
    m.inert = not content


def mutate_table(m, rng):
    src = m.src
    if not src.blocks:
        return mutate_header(m, rng)
    i, sector = rng.choice(src.blocks)
    other = rng.choice(src.blocks)[1]
    unalloc = [k for k in range(src.entries) if k not in dict(src.blocks)]
    span = (src.bitmap_bytes + src.block_size) // 512
    kinds = {
        "past the end": src.size // 512 + rng.randrange(1, 64),
        "straddling the end": src.size // 512 - rng.randrange(1, span),
        "into the header": rng.randrange(0, 3),
        "into the table": src.table_at // 512 + rng.randrange(src.table_bytes // 512),
        "overlapping another": other + rng.randrange(-span + 1, span),
        "duplicate": other,
        "one sector off": sector + rng.choice([-1, 1]),
        "unallocated": 0xFFFFFFFF,
        "random": rng.getrandbits(32),
        "zero": 0,
    }
    kind = rng.choice(list(kinds))
    entry = i
    if kind == "duplicate" and unalloc and rng.random() < 0.5:
        entry = rng.choice(unalloc)  # an unallocated block made to share another's data
    if kind == "random" and rng.random() < 0.3:  # an entry past max table entries, in the table's padding
        pad = src.table_bytes // 4 - src.entries
        if pad > 0:
            entry = src.entries + rng.randrange(pad)
            kind = "padding entry"
    value = kinds.get(kind, rng.getrandbits(32)) & 0xFFFFFFFF
    m.data[src.table_at + 4 * entry:src.table_at + 4 * entry + 4] = struct.pack(">I", value)
    m.what.append(f"table entry {entry} ({kind}) = {value:#x}")
    m.inert = kind == "padding entry"
    if kind == "unallocated":
        m.unallocate = entry


def mutate_bitmap(m, rng):
    src = m.src
    if not src.blocks:
        return mutate_data(m, rng)
    i, sector = rng.choice(src.blocks)
    start = sector * 512
    used = (src.block_size // 512 + 7) // 8
    how = rng.choice(["bit", "bit", "byte", "zero", "ones", "padding"])
    if how == "padding" and src.bitmap_bytes > used:
        at = start + rng.randrange(used, src.bitmap_bytes)
        m.data[at] ^= 0xFF
        m.what.append(f"bitmap padding of block {i} byte {at - start}")
        m.inert = True
        return
    changed = []
    if how in ("bit", "byte", "padding"):
        at = start + rng.randrange(used)
        m.data[at] ^= (1 << rng.randrange(8)) if how != "byte" else rng.randrange(1, 256)
        changed = [at]
    else:
        lo = rng.randrange(used)
        hi = min(used, lo + rng.randrange(1, 64))
        m.data[start + lo:start + hi] = (b"\0" if how == "zero" else b"\xff") * (hi - lo)
        changed = list(range(start + lo, start + hi))
    m.what.append(f"bitmap of block {i} ({how}) at bytes {changed[0] - start}..{changed[-1] - start}")
    m.delta = changed
    m.bitmap_dynamic = src.type == 3


def mutate_data(m, rng):
    src = m.src
    if src.type == 2:
        lo, hi = 0, src.size - 512
    elif src.blocks:
        i, sector = rng.choice(src.blocks)
        lo = sector * 512 + src.bitmap_bytes
        hi = lo + src.block_size
    else:
        return mutate_footer(m, rng)
    at = rng.randrange(lo, hi)
    n = rng.choice([1, 1, 4, 512, 3000])
    changed = []
    for k in range(at, min(at + n, hi)):
        m.data[k] ^= rng.randrange(1, 256) if n > 1 else 1 << rng.randrange(8)
        changed.append(k)
    m.what.append(f"data bytes {at}..{changed[-1]} flipped")
    m.delta = changed


def truncate(m, rng):
    src = m.src
    cut = rng.choice([src.size - 512, src.size - 1, src.size - rng.randrange(1, 1024), rng.randrange(0, src.size),
                      rng.randrange(0, 2048), src.size - 512 - rng.randrange(1, 600000)])
    cut = max(0, min(cut, src.size - 1))
    del m.data[cut:]
    m.what.append(f"truncated to {cut} bytes")
    m.inert = True


def append(m, rng):
    src = m.src
    extra = rng.choice([rng.randbytes(rng.randrange(1, 4096)), bytes(512), bytes(rng.randrange(1, 70000)),
                        bytes(src.data[-512:]), rng.randbytes(512)])
    m.data += extra
    m.what.append(f"{len(extra)} bytes appended")
    m.inert = True


def tamper_mode(m, rng, path):
    modes = ["checksum", "checksum-both", "head-zero", "tail-size", "bat-past", "overlap", "blocksize", "truncate"]
    if m.src.type == 4:
        modes.append("parent")
    mode = rng.choice(modes)
    clean = path + ".clean"
    write(clean, m.src.data)
    rc, _, err = run([sys.executable, tamper, mode, clean, path])
    os.unlink(clean)
    if rc != 0:
        sys.exit(f"{tamper} {mode} failed: {err.strip()}")
    m.data = bytearray(read(path))
    m.what.append(f"vhd_tamper {mode}")
    m.inert = mode in ("checksum", "head-zero", "tail-size", "truncate")
    m.must_refuse = mode == "parent"


def make_mutant(sources, number, path):
    rng = random.Random(f"{seed}:{number}")
    src = rng.choices(sources, weights=[30, 12, 10, 20, 28])[0]
    m = Mutant(src, src.data)
    if src.type == 2:
        ops = [(mutate_footer, 4), (flip_footer_byte, 3), (mutate_data, 2), (truncate, 2), (append, 2)]
    else:
        ops = [(mutate_footer, 5), (flip_footer_byte, 3), (mutate_header, 5), (mutate_table, 6), (mutate_bitmap, 3),
               (mutate_data, 3), (truncate, 2), (append, 1.5), (tamper_mode, 1.5)]
    op = rng.choices([o for o, _ in ops], weights=[w for _, w in ops])[0]
    if op is tamper_mode:
        tamper_mode(m, rng, path)
    else:
        op(m, rng)
    write(path, m.data)
    return m


# ---------------------------------------------------------------- references

def sector_redone(m, ref, changed):
    """`ref` with every sector touched by the changed file offsets read again
    from the mutant: held sectors from its data, the others from the parent."""
    src, out = m.src, bytearray(ref)
    for o in changed:
        hit = src.block_at(o)
        if hit is None:
            continue
        index, start = hit
        base = index * src.block_size
        if o < start + src.bitmap_bytes:  # a bitmap byte: its 8 sectors
            first = (o - start) * 8
            sectors = range(first, first + 8)
        else:
            sectors = [(o - start - src.bitmap_bytes) // 512]
        for s in sectors:
            at = base + s * 512
            if at >= len(out):
                continue
            held = m.data[start + s // 8] & (0x80 >> (s % 8))
            data_at = start + src.bitmap_bytes + s * 512
            out[at:at + 512] = m.data[data_at:data_at + 512] if held else src.parent_ref[at:at + 512]
    return bytes(out)


def references(m, path, mdir):
    """Candidate disks an accepting reader may present, each named."""
    src, refs = m.src, []
    if src.qemu:
        rc, _, _ = run(["qemu-img", "convert", "-q", "-f", "vpc", "-O", "raw", path, mdir + "/qemu.raw"])
        if rc == 0:
            refs.append(("qemu-img", read(mdir + "/qemu.raw")))
    if m.inert:
        refs.append(("clean image", src.clean_ref))
    if m.bitmap_dynamic:
        # qemu-img reads a dynamic block whole, whatever its bitmap says; a
        # reader may also take a clear bit of a disk without a parent as a
        # sector of zeros. Either reading passes, nothing else.
        refs.append(("bitmap read, clear bits as zeros", sector_redone(m, src.clean_ref, m.delta)))
        if not src.qemu:
            refs.append(("bitmap ignored", src.clean_ref))
    elif m.delta is not None and src.type in (3, 4) and not src.qemu:
        refs.append(("plan with changed sectors redone", sector_redone(m, src.clean_ref, m.delta)))
    if m.unallocate is not None and not src.qemu:
        out = bytearray(src.clean_ref)
        lo = m.unallocate * src.block_size
        out[lo:lo + src.block_size] = src.parent_ref[lo:lo + src.block_size]
        refs.append(("plan with the block left to the parent", bytes(out)))
    if not src.qemu and m.delta is None and m.unallocate is None and not m.inert:
        refs.append(("writer's plan", src.clean_ref))
    return refs


# ---------------------------------------------------------------- the sweep

def store_state(store):
    rows = []
    for root, dirs, files in os.walk(store):
        for d in dirs:
            rows.append(("d", os.path.relpath(os.path.join(root, d), store)))
        for f in files:
            p = os.path.join(root, f)
            rows.append(("f", os.path.relpath(p, store), os.path.getsize(p), hashlib.sha256(read(p)).hexdigest()))
    return sorted(rows)


def check(sources, number, mdir):
    """None when the mutant was handled well, else why not; plus its class."""
    shutil.rmtree(mdir, ignore_errors=True)
    os.makedirs(mdir)
    path = mdir + "/mutant.vhd"
    m = make_mutant(sources, number, path)
    desc = f"{m.src.name}: {'; '.join(m.what)}"
    store = mdir + "/store"
    shutil.copytree(f"{work}/{m.src.store}", store, symlinks=True)
    before = store_state(store)
    rc, _, err = run([zxblk, "import", "--store", store, "--disk", m.src.disk, path])
    lines = [l for l in err.splitlines() if l.strip()]
    if rc == "hang":
        return desc, "failure", "import hung"
    if rc < 0 or rc >= 128:
        return desc, "failure", f"import crashed (exit {rc}): {err.strip()[-300:]}"
    if any(s in err for s in SANITIZER):
        return desc, "failure", f"sanitizer report on import: {err.strip()[-300:]}"
    if rc != 0:
        if len(lines) != 1:
            return desc, "failure", f"refused with {len(lines)} lines of error: {err.strip()[:400]!r}"
        if store_state(store) != before:
            return desc, "failure", f"refused ({lines[0]}) but the store changed"
        return desc, "refused", lines[0]
    if m.must_refuse:
        return desc, "failure", f"accepted a child whose parent id is not its parent's ({err.strip()[:200]})"
    rc, _, err = run([zxblk, "export", "--store", store, "--disk", m.src.disk, "--out", mdir + "/export.raw",
                      "--cache", mdir + "/cache"])
    if rc == "hang":
        return desc, "failure", "accepted; export hung"
    if rc < 0 or rc >= 128 or any(s in err for s in SANITIZER):
        return desc, "failure", f"accepted; export crashed (exit {rc}): {err.strip()[-300:]}"
    if rc != 0:
        return desc, "failure", f"accepted but export fails: {err.strip().splitlines()[-1] if err.strip() else rc}"
    got = read(mdir + "/export.raw")
    refs = references(m, path, mdir)
    sized = [(n, r) for n, r in refs if len(r) == len(got)]
    # A qemu-img reading of another size says nothing about this one.
    if not sized and all(n == "qemu-img" for n, _ in refs):
        return desc, "no-reference", f"accepted as {len(got)} bytes; " + (
            "qemu-img reads another size" if refs else "qemu-img refuses it")
    for n, r in sized:
        if r == got:
            return desc, "identical", n
    names = ", ".join(f"{n} ({len(r)} bytes)" for n, r in refs)
    first = next((i for i, (a, b) in enumerate(zip(got, refs[0][1])) if a != b), min(len(got), len(refs[0][1])))
    return desc, "failure", f"accepted; export ({len(got)} bytes) matches none of: {names}; first difference at byte {first}"


def main():
    print(f"corruption sweep: {count} mutants, seed {seed}")
    sources = setup()
    # The harness itself: every clean source imports and exports as its reference.
    for s in sources:
        mdir = f"{work}/sanity-{s.name}"
        shutil.copytree(f"{work}/{s.store}", mdir + "/store", symlinks=True)
        must([zxblk, "import", "--store", mdir + "/store", "--disk", s.disk, s.path])
        must([zxblk, "export", "--store", mdir + "/store", "--disk", s.disk, "--out", mdir + "/out.raw", "--cache", mdir + "/c"])
        if read(mdir + "/out.raw") != s.clean_ref:
            sys.exit(f"setup failed: the clean {s.name} does not export as its reference")
        shutil.rmtree(mdir)
    tally = {"refused": 0, "identical": 0, "no-reference": 0, "failure": 0}
    failures, noref = [], []
    numbers = [only] if only is not None else range(count)
    for n in numbers:
        mdir = f"{work}/m{n}" if only is not None else f"{work}/m"
        desc, cls, note = check(sources, n, mdir)
        tally[cls] += 1
        if cls == "failure":
            failures.append((n, desc, note))
            print(f"FAIL mutant {n} ({desc}): {note}", flush=True)
        elif cls == "no-reference":
            noref.append((n, desc, note))
        if os.environ.get("SWEEP_VERBOSE"):
            print(f"mutant {n} ({desc}): {cls}: {note}", flush=True)
        if only is not None:
            print(f"mutant {n} ({desc}): {cls}: {note}; files kept in {mdir}")
    if only is None:
        shutil.rmtree(f"{work}/m", ignore_errors=True)
    for n, desc, note in noref:
        print(f"no reference: mutant {n} ({desc}): {note}")
    print(f"summary: seed {seed}: {len(numbers)} mutants, {tally['refused']} refused, "
          f"{tally['identical']} accepted and identical to a reference, {tally['no-reference']} accepted with no reference, "
          f"{tally['failure']} failures")
    for n, desc, note in failures:
        print(f"  failure: mutant {n} (reproduce: corruption_sweep.sh ZXBLK MAKE_VHD_CHAIN TAMPER_PY {count} {seed} {n}): {desc}: {note}")
    return 1 if failures else 0


sys.exit(main())
