#!/usr/bin/env python3
"""Mutates VHD images and checks how `zxblk import` takes each one.

corruption_sweep.py ZXBLK MAKE_VHD_CHAIN TAMPER_PY COUNT SEED WORKDIR [ONLY]

Sources: qemu-img's dynamic and fixed VHDs of a random raw disk with zero
runs, and the chain writer's base and two differencing children. Each mutant
goes into a copy of a clean store (a child's earlier snapshots already in it)
and must be refused (non-zero exit, one line on stderr, the store unchanged)
or export exactly what an independent reference reads: qemu-img's reading of
the mutant (same disk size); the clean disk when the changed bytes cannot
change it; or, for the writer's images, its plan, with exactly the changed
sectors redone from the mutant's own bytes after data or bitmap flips or a
block unallocated. Anything else accepted is "no reference"; a crash, hang,
sanitizer report, multi-line error or changed store after a refusal fails.
Mutant N draws from a generator seeded by (SEED, N): ONLY=N reruns it alone
and keeps its files in WORKDIR.
"""
import hashlib
import os
import random
import shutil
import struct
import subprocess
import sys

zxblk, chain_tool, _tamper, count, seed, work = sys.argv[1:7]
count, seed = int(count), int(seed)
only = int(sys.argv[7]) if len(sys.argv) > 7 else None
SANITIZER = ("AddressSanitizer", "UndefinedBehaviorSanitizer", "LeakSanitizer", "runtime error:", "ThreadSanitizer")


def run(cmd):
    """(returncode or 'hang', stderr) of a command under a time limit."""
    try:
        p = subprocess.run(cmd, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, timeout=60)
        return p.returncode, p.stderr.decode(errors="replace")
    except subprocess.TimeoutExpired as e:
        return "hang", (e.stderr or b"").decode(errors="replace")


def must(cmd):
    rc, err = run(cmd)
    if rc != 0:
        sys.exit(f"setup failed: {' '.join(cmd)}: {err.strip()}")


def read(path):
    with open(path, "rb") as f:
        return f.read()


def be(b, at, n=4):
    return int.from_bytes(b[at:at + n], "big")


def fix_checksum(buf, at, length, field):
    buf[at + field:at + field + 4] = b"\0\0\0\0"
    buf[at + field:at + field + 4] = struct.pack(">I", ~sum(buf[at:at + length]) & 0xFFFFFFFF)


class Source:
    """A clean image, what it reads as, and where its structures are."""

    def __init__(self, name, file, store, disk, qemu, parent=None):
        s = work + "/src/"
        self.name, self.path, self.store, self.disk, self.qemu = name, s + file + ".vhd", store, disk, qemu
        self.data = d = read(self.path)
        self.clean_ref = read(s + file + (".ref" if qemu else ".raw"))
        # What a sector not held by this image reads as: the parent's disk, or zeros.
        self.parent_ref = read(s + parent + ".raw") if parent else bytes(len(self.clean_ref))
        self.size = len(d)
        self.footer_at = self.size - 512
        self.type = be(d, self.footer_at + 60)
        self.blocks = []  # (index, sector of its bitmap)
        if self.type in (3, 4):
            self.header_at = be(d, self.footer_at + 16, 8)
            self.table_at = be(d, self.header_at + 16, 8)
            self.entries = be(d, self.header_at + 28)
            self.block_size = be(d, self.header_at + 32)
            self.bitmap_bytes = ((self.block_size // 512 + 7) // 8 + 511) // 512 * 512
            self.blocks = [(i, e) for i in range(self.entries) if (e := be(d, self.table_at + 4 * i)) != 0xFFFFFFFF]
            self.table_bytes = (self.entries * 4 + 511) // 512 * 512

    def block_at(self, offset):
        """(index, bitmap start) of the allocated block holding a file offset, or None."""
        for i, sector in self.blocks:
            if sector * 512 <= offset < sector * 512 + self.bitmap_bytes + self.block_size:
                return i, sector * 512
        return None


def setup():
    rng = random.Random(seed)
    s = work + "/src/"
    os.makedirs(s, exist_ok=True)
    # A raw disk of 8 MiB: random bytes with zero runs of several lengths,
    # one of them a whole 2 MiB block so the dynamic image leaves it out.
    disk = bytearray(rng.randbytes(8 << 20))
    disk[4 << 20:6 << 20] = bytes(2 << 20)
    for _ in range(6):
        at = rng.randrange(0, 8 << 20) // 512 * 512
        n = rng.choice([512, 4096, 65536, 300 * 1024])
        disk[at:at + n] = bytes(min(n, len(disk) - at))
    with open(s + "disk.raw", "wb") as f:
        f.write(disk)
    for sub in ("dynamic", "fixed"):
        must(["qemu-img", "convert", "-q", "-f", "raw", "-O", "vpc", "-o", f"subformat={sub},force_size=on",
              s + "disk.raw", f"{s}{sub}.vhd"])
        must(["qemu-img", "convert", "-q", "-f", "vpc", "-O", "raw", f"{s}{sub}.vhd", f"{s}{sub}.ref"])
        if read(f"{s}{sub}.ref") != bytes(disk):
            sys.exit(f"setup failed: qemu-img does not read back its own {sub} VHD as the raw disk")
    must([chain_tool, s, str(4 << 20), str(256 << 10), "2", str(seed % 1000003 + 1)])
    # Clean stores: A holds the chain's base (disk "c"), B its base and first child.
    for store, disk_name, files in (("A", "c", ["snap0.vhd"]), ("B", "c", ["snap0.vhd", "snap1.vhd"]),
                                    ("E", "z", ["disk.raw"])):
        raw = ["--format", "raw"] if files == ["disk.raw"] else []
        must([zxblk, "import", "--store", f"{work}/store{store}", "--disk", disk_name] + raw + [s + f for f in files])
    return [
        Source("qemu-dynamic", "dynamic", "storeA", "m", True),
        Source("qemu-fixed", "fixed", "storeA", "m", True),
        Source("chain-base", "snap0", "storeE", "m", False),
        Source("chain-child1", "snap1", "storeA", "c", False, "snap0"),
        Source("chain-child2", "snap2", "storeB", "c", False, "snap1"),
    ]


FOOTER_FIELDS = {  # name: (offset, length, changes the disk when edited in every copy)
    "cookie": (0, 8, False), "features": (8, 4, False), "data offset": (16, 8, True),
    "current size": (48, 8, True), "disk geometry": (56, 4, False), "type": (60, 4, True),
    "checksum": (64, 4, False), "unique id": (68, 16, False),
}
HEADER_FIELDS = {
    "cookie": (0, 8), "table offset": (16, 8), "max table entries": (28, 4), "block size": (32, 4),
    "checksum": (36, 4), "parent unique id": (40, 16), "parent name": (64, 512),
}
LOCATOR_FIELDS = {"code": (0, 4), "data space": (4, 4), "data length": (8, 4), "offset": (16, 8)}


class Mutant:
    def __init__(self, src):
        self.src, self.data, self.what = src, bytearray(src.data), []
        self.inert = False        # no accepting reader may present another disk
        self.must_refuse = False  # no reader may accept it
        self.delta = None         # changed file offsets whose sectors a reference redoes
        self.unallocate = None    # a block made unallocated
        self.bitmap_dynamic = False


def field_value(rng, src, name, old, length):
    """A plausible or hostile new value for a footer, header or locator field."""
    v = int.from_bytes(old, "big")
    offsets = [0, 512, 1024, src.size - 512, src.size + 512, src.size * 4, 1 << 62]
    n = [v ^ (1 << rng.randrange(8 * length)), v + 1, v - 1 if v else 1, v * 2, v // 2, v + 512, v - 512 if v >= 512 else 512]
    n += {"current size": [v + (1 << 20), v - (1 << 20), 1 << 40],
          "type": [2, 3, 4, 5, 0],
          "table offset": offsets, "data offset": offsets,
          "offset": [512, 1536, src.size + 512],
          "max table entries": [0, 1, 0xFFFFFFFF, v * 4096, 1 << 24],
          "block size": [0, 512, 4096, 3 << 20, 1 << 31, src.block_size * 2 if src.type in (3, 4) else 1 << 21],
          "code": [int.from_bytes(b"W2ru", "big"), int.from_bytes(b"W2ku", "big")]}.get(name, [])
    return rng.choice([rng.randbytes(length), bytes(length), b"\xff" * length] +
                      [(x % (1 << (8 * length))).to_bytes(length, "big") for x in n])


def mutate_footer(m, rng):
    """A named field or any one bit, in either footer copy or both."""
    src = m.src
    copies = [src.footer_at] if src.type == 2 else rng.choice([[src.footer_at], [0], [0, src.footer_at]])
    if rng.random() < 0.35:
        off, bit = rng.choice([rng.randrange(512), rng.randrange(85)]), 1 << rng.randrange(8)
        for at in copies:
            m.data[at + off] ^= bit
        m.what.append(f"footer at {copies} byte {off} ^= {bit:#x}")
        shapes = any(o <= off < o + n and s for o, n, s in FOOTER_FIELDS.values())
    else:
        name = rng.choice(list(FOOTER_FIELDS))
        off, length, shapes = FOOTER_FIELDS[name]
        value = field_value(rng, src, name, bytes(src.data[src.footer_at + off:src.footer_at + off + length]), length)
        fix = name != "checksum" and rng.random() < 0.7
        for at in copies:
            m.data[at + off:at + off + length] = value
            if fix:
                fix_checksum(m.data, at, 512, 64)
        m.what.append(f"footer at {copies} {name}={value.hex()}{' checksum fixed' if fix else ''}")
    m.inert = len(copies) == 1 and src.type != 2 or not shapes


def mutate_header(m, rng):
    src, h = m.src, m.src.header_at
    if rng.random() < 0.3:  # a parent locator entry
        i, name = rng.randrange(8), rng.choice(list(LOCATOR_FIELDS))
        at, (off, length) = h + 576 + 24 * i, LOCATOR_FIELDS[name]
        name_shown = f"locator {i} {name}"
    else:
        at, name = h, rng.choice(list(HEADER_FIELDS))
        (off, length), name_shown = HEADER_FIELDS[name], name
    old = bytes(m.data[at + off:at + off + length])
    if name == "parent name":
        i = rng.randrange(0, 512, 2)
        value = old[:i] + rng.randbytes(2) + old[i + 2:]
    else:
        value = field_value(rng, src, name, old, length)
    m.data[at + off:at + off + length] = value
    if at == h and name == "parent unique id" and src.type == 4 and value != old:
        m.must_refuse = True  # a child of another disk than the one it follows
    fix = name != "checksum" and rng.random() < 0.7
    if fix:
        fix_checksum(m.data, h, 1024, 36)
    m.what.append(f"header {name_shown}={value.hex()[:40]}{' checksum fixed' if fix else ''}")
    m.inert = not (at == h and name in ("table offset", "max table entries", "block size"))


def mutate_table(m, rng):
    src = m.src
    if not src.blocks:
        return mutate_header(m, rng)
    i, sector = rng.choice(src.blocks)
    other = rng.choice(src.blocks)[1]
    span = (src.bitmap_bytes + src.block_size) // 512
    kinds = {
        "past the end": src.size // 512 + rng.randrange(1, 64),
        "straddling the end": src.size // 512 - rng.randrange(1, span),
        "into the header": rng.randrange(0, 3),
        "into the table": src.table_at // 512 + rng.randrange(src.table_bytes // 512),
        "overlapping another": other + rng.randrange(-span + 1, span),
        "duplicate": other, "one sector off": sector + rng.choice([-1, 1]),
        "unallocated": 0xFFFFFFFF, "random": rng.getrandbits(32), "zero": 0,
    }
    kind = rng.choice(list(kinds))
    value, entry = kinds[kind] & 0xFFFFFFFF, i
    unalloc = [k for k in range(src.entries) if k not in dict(src.blocks)]
    if kind == "duplicate" and unalloc and rng.random() < 0.5:
        entry = rng.choice(unalloc)  # an unallocated block made to share another's data
    pad = src.table_bytes // 4 - src.entries
    if kind == "random" and pad > 0 and rng.random() < 0.3:  # an entry in the table's padding
        entry, kind = src.entries + rng.randrange(pad), "padding entry"
    m.data[src.table_at + 4 * entry:src.table_at + 4 * entry + 4] = struct.pack(">I", value)
    m.what.append(f"table entry {entry} ({kind}) = {value:#x}")
    m.inert = kind == "padding entry"
    if kind == "unallocated":
        m.unallocate = entry


def mutate_block(m, rng):
    """Bytes of a block's bitmap (its padding too) or its data, or of a fixed disk's data."""
    src, bitmap, how = m.src, False, rng.choice(["bit", "bit", "byte", "run", "zero", "ones"])
    if src.type == 2:
        lo, hi = 0, src.size - 512
    elif not src.blocks:
        return mutate_footer(m, rng)
    else:
        i, sector = rng.choice(src.blocks)
        start, used, bitmap = sector * 512, (src.block_size // 512 + 7) // 8, rng.random() < 0.5
        lo, hi = (start, start + used) if bitmap else (start + src.bitmap_bytes, start + src.bitmap_bytes + src.block_size)
        if bitmap and src.bitmap_bytes > used and rng.random() < 0.15:
            at = start + rng.randrange(used, src.bitmap_bytes)
            m.data[at] ^= 0xFF
            m.what.append(f"bitmap padding of block {i} byte {at - start}")
            m.inert = True
            return
    at = rng.randrange(lo, hi)
    m.delta = list(range(at, min(hi, at + (1 if how in ("bit", "byte") else rng.choice([4, 64, 512, 3000])))))
    for k in m.delta:
        m.data[k] = {"zero": 0, "ones": 0xFF}.get(how, m.data[k] ^ (1 << rng.randrange(8) if how == "bit" else rng.randrange(1, 256)))
    m.what.append(f"{'bitmap' if bitmap else 'data'} bytes {at}..{m.delta[-1]} ({how})")
    m.bitmap_dynamic = bitmap and src.type == 3


def resize(m, rng):
    """Bytes cut off the end, or appended."""
    size = m.src.size
    if rng.random() < 0.55:
        cut = rng.choice([size - 512, size - 1, size - rng.randrange(1, 1024), rng.randrange(0, size),
                          rng.randrange(0, 2048), size - 512 - rng.randrange(1, 600000)])
        del m.data[max(0, min(cut, size - 1)):]
        m.what.append(f"truncated to {len(m.data)} bytes")
    else:
        extra = rng.choice([rng.randbytes(rng.randrange(1, 4096)), bytes(rng.randrange(1, 70000)), m.src.data[-512:]])
        m.data += extra
        m.what.append(f"{len(extra)} bytes appended")
    m.inert = True


OPS = {  # kind: (weight for a fixed image, weight for a dynamic or differencing one)
    mutate_footer: (7, 8), mutate_header: (0, 5.5), mutate_table: (0, 7), mutate_block: (2, 6), resize: (4, 4),
}


def make_mutant(sources, number, path):
    rng = random.Random(f"{seed}:{number}")
    src = rng.choices(sources, weights=[30, 12, 10, 20, 28])[0]
    m = Mutant(src)
    rng.choices(list(OPS), weights=[w[src.type != 2] for w in OPS.values()])[0](m, rng)
    with open(path, "wb") as f:
        f.write(m.data)
    return m


def sector_redone(m, changed):
    """The clean disk with every sector touched by the changed file offsets read
    again from the mutant: held sectors from its data, the others from the parent."""
    src, out = m.src, bytearray(m.src.clean_ref)
    for o in changed:
        hit = src.block_at(o)
        if hit is None:
            continue
        index, start = hit
        if o < start + src.bitmap_bytes:  # a bitmap byte: its 8 sectors
            sectors = range((o - start) * 8, (o - start) * 8 + 8)
        else:
            sectors = [(o - start - src.bitmap_bytes) // 512]
        for s in sectors:
            at = index * src.block_size + s * 512
            if at >= len(out):
                continue
            data_at = start + src.bitmap_bytes + s * 512
            held = m.data[start + s // 8] & (0x80 >> (s % 8))
            out[at:at + 512] = m.data[data_at:data_at + 512] if held else src.parent_ref[at:at + 512]
    return bytes(out)


def references(m, path, mdir):
    """Candidate disks an accepting reader may present, each named."""
    src, refs = m.src, []
    if src.qemu and run(["qemu-img", "convert", "-q", "-f", "vpc", "-O", "raw", path, mdir + "/qemu.raw"])[0] == 0:
        refs.append(("qemu-img", read(mdir + "/qemu.raw")))
    if m.inert:
        refs.append(("clean image", src.clean_ref))
    if m.bitmap_dynamic:
        # qemu-img reads a dynamic block whole, whatever its bitmap says; a
        # reader may also take a clear bit of a disk without a parent as a
        # sector of zeros. Either reading passes, nothing else.
        refs.append(("bitmap read, clear bits as zeros", sector_redone(m, m.delta)))
        if not src.qemu:
            refs.append(("bitmap ignored", src.clean_ref))
    elif m.delta is not None and src.type in (3, 4) and not src.qemu:
        refs.append(("plan with changed sectors redone", sector_redone(m, m.delta)))
    if m.unallocate is not None and not src.qemu:
        out, lo = bytearray(src.clean_ref), m.unallocate * src.block_size
        out[lo:lo + src.block_size] = src.parent_ref[lo:lo + src.block_size]
        refs.append(("plan with the block left to the parent", bytes(out)))
    if not src.qemu and m.delta is None and m.unallocate is None and not m.inert:
        refs.append(("writer's plan", src.clean_ref))
    return refs


def store_state(store):
    rows = []
    for root, dirs, files in os.walk(store):
        rows += [("d", os.path.relpath(os.path.join(root, d), store)) for d in dirs]
        rows += [("f", os.path.relpath(os.path.join(root, f), store), hashlib.sha256(read(os.path.join(root, f))).hexdigest())
                 for f in files]
    return sorted(rows)


def crashed(rc, err):
    return rc == "hang" or rc < 0 or rc >= 128 or any(s in err for s in SANITIZER)


def check(sources, number, mdir):
    """(description, class, note) of one mutant; class "failure" when it was handled badly."""
    shutil.rmtree(mdir, ignore_errors=True)
    os.makedirs(mdir)
    path, store = mdir + "/mutant.vhd", mdir + "/store"
    m = make_mutant(sources, number, path)
    desc = f"{m.src.name}: {'; '.join(m.what)}"
    shutil.copytree(f"{work}/{m.src.store}", store, symlinks=True)
    before = store_state(store)
    rc, err = run([zxblk, "import", "--store", store, "--disk", m.src.disk, path])
    lines = [l for l in err.splitlines() if l.strip()]
    if crashed(rc, err):
        return desc, "failure", f"import crashed or hung (exit {rc}): {err.strip()[-300:]}"
    if rc != 0:
        if len(lines) != 1:
            return desc, "failure", f"refused with {len(lines)} lines of error: {err.strip()[:400]!r}"
        if store_state(store) != before:
            return desc, "failure", f"refused ({lines[0]}) but the store changed"
        return desc, "refused", lines[0]
    if m.must_refuse:
        return desc, "failure", f"accepted a child whose parent id is not its parent's ({err.strip()[:200]})"
    rc, err = run([zxblk, "export", "--store", store, "--disk", m.src.disk, "--out", mdir + "/export.raw",
                   "--cache", mdir + "/cache"])
    if crashed(rc, err):
        return desc, "failure", f"accepted; export crashed or hung (exit {rc}): {err.strip()[-300:]}"
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
    tally = dict.fromkeys(("refused", "identical", "no-reference", "failure"), 0)
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
        if only is not None or os.environ.get("SWEEP_VERBOSE"):
            print(f"mutant {n} ({desc}): {cls}: {note}" + (f"; files kept in {mdir}" if only is not None else ""), flush=True)
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
