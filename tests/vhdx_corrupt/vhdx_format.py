"""The VHDX format as the corruption test reads and writes it, from
Microsoft's published format (MS-VHDX) alone: CRC-32C, field access, a
parser (Vhdx), the disk a file reads as over its parent, and a differencing
file made from a dynamic one. Independent of the reader under test."""
import struct
import uuid


MB, KB = 1 << 20, 1 << 10
BAT_GUID = uuid.UUID("2DC27766-F623-4200-9D64-115E9BFD4A08").bytes_le
META_GUID = uuid.UUID("8B7CA206-4790-4B9A-B8FE-575F050F886E").bytes_le
ITEM = {k: uuid.UUID(v).bytes_le for k, v in {
    "params": "CAA16737-FA36-4D43-B3B6-33F0AA44E76B", "size": "2FA54224-CD1B-4876-B211-5DBED83BF4B8",
    "diskid": "BECA12AB-B2E6-4523-93EF-C309E000C746", "lss": "8141BF1D-A96F-4709-BA47-F233A8FAAB5F",
    "pss": "CDA348C7-445D-4471-9CC9-E9885251C556", "locator": "A8D35F2D-B30B-454D-ABF7-D3D84834AB0C"}.items()}
VHDX_LOCATOR = uuid.UUID("B04AEFB7-D19E-4A81-B789-25B8E9445913").bytes_le
NOT_PRESENT, UNDEFINED, ZERO, UNMAPPED, FULLY, PARTIAL = 0, 1, 2, 3, 6, 7


def _crc_table():
    t = []
    for i in range(256):
        c = i
        for _ in range(8):
            c = (c >> 1) ^ 0x82F63B78 if c & 1 else c >> 1
        t.append(c)
    return t


CRC_TABLE = _crc_table()


def crc32c(b):
    c = 0xFFFFFFFF
    for x in b:
        c = CRC_TABLE[(c ^ x) & 0xFF] ^ (c >> 8)
    return c ^ 0xFFFFFFFF


def fix_crc(d, at, length):
    """The checksum at byte 4 of the structure at `at`, recomputed over `length` bytes."""
    d[at + 4:at + 8] = bytes(4)
    d[at + 4:at + 8] = struct.pack("<I", crc32c(bytes(d[at:at + length])))


def u(d, at, fmt):
    return struct.unpack_from("<" + fmt, d, at)[0]


def put(d, at, fmt, v):
    struct.pack_into("<" + fmt, d, at, v)


class Vhdx:
    """Where the structures of a well-formed file are (the sources, not the mutants)."""

    HEADERS, TABLES = (64 * KB, 128 * KB), (192 * KB, 256 * KB)

    def __init__(self, d):
        self.d = d
        assert d[:8] == b"vhdxfile"
        for h in self.HEADERS + self.TABLES:
            length = 4 * KB if h in self.HEADERS else 64 * KB
            c = bytearray(d[h:h + length])
            c[4:8] = bytes(4)
            assert crc32c(bytes(c)) == u(d, h + 4, "I"), f"bad checksum at {h}"
        seqs = [u(d, h + 8, "Q") for h in self.HEADERS]
        self.cur, self.old = (self.HEADERS[1], self.HEADERS[0]) if seqs[1] > seqs[0] else self.HEADERS
        self.data_write_guid = bytes(d[self.cur + 32:self.cur + 48])
        self.regions = {}
        for i in range(u(d, self.TABLES[0] + 8, "I")):
            e = self.TABLES[0] + 16 + 32 * i
            self.regions[bytes(d[e:e + 16])] = (e - self.TABLES[0], u(d, e + 16, "Q"), u(d, e + 24, "I"))
        self.bat, self.meta = self.regions[BAT_GUID][1], self.regions[META_GUID][1]
        self.items = {}
        for i in range(u(d, self.meta + 10, "H")):
            e = self.meta + 32 + 32 * i
            self.items[bytes(d[e:e + 16])] = (e, u(d, e + 16, "I"), u(d, e + 20, "I"))
        self.count = u(d, self.meta + 10, "H")
        self.block = u(d, self.item("params"), "I")
        self.has_parent = u(d, self.item("params") + 4, "I") & 2 != 0
        self.size = u(d, self.item("size"), "Q")
        self.lss = u(d, self.item("lss"), "I")
        self.chunk = (1 << 23) * self.lss // self.block
        self.blocks = -(-self.size // self.block)

    def item(self, name):
        return self.meta + self.items[ITEM[name]][1]

    def entry_at(self, block):
        """File offset of payload block `block`'s BAT entry."""
        return self.bat + 8 * (block + block // self.chunk)

    def sb_entry_at(self, chunk):
        return self.bat + 8 * (chunk * (self.chunk + 1) + self.chunk)

    def entry(self, block):
        e = u(self.d, self.entry_at(block), "Q")
        return e & 7, (e >> 20) * MB

    def present(self):
        return [b for b in range(self.blocks) if self.entry(b)[0] in (FULLY, PARTIAL)]


def read_disk(d, parent):
    """A differencing file's disk over its parent's bytes (one bitmap chunk is
    enough for the small disks of the test)."""
    v = Vhdx(d)
    out = bytearray(parent[:v.size].ljust(v.size, b"\0"))
    sb = u(d, v.sb_entry_at(0), "Q") >> 20 << 20
    for b in range(v.blocks):
        state, at = v.entry(b)
        lo, hi = b * v.block, min(v.size, (b + 1) * v.block)
        if state in (ZERO, UNMAPPED, UNDEFINED):
            out[lo:hi] = bytes(hi - lo)
        elif state == FULLY:
            out[lo:hi] = d[at:at + hi - lo]
        elif state == PARTIAL:
            for s in range(lo // v.lss, hi // v.lss):
                if d[sb + s // 8] >> (s % 8) & 1:
                    out[s * v.lss:(s + 1) * v.lss] = d[at + s * v.lss - lo:at + (s + 1) * v.lss - lo]
    return bytes(out)


def make_child(d, parent):
    """A differencing file of `parent` from the dynamic file `d` (see the usage)."""
    d, p = bytearray(d), Vhdx(parent)
    v = Vhdx(d)
    assert (v.size, v.block, v.lss) == (p.size, p.block, p.lss) and not v.has_parent
    put(d, v.item("params") + 4, "I", 2)
    # The parent locator after the last item: a header, then key/value entries
    # whose offsets count from the item's start, then the UTF-16 strings.
    guid = uuid.UUID(bytes_le=p.data_write_guid)
    pairs = [("parent_linkage", "{%s}" % guid), ("relative_path", ".\\parent.vhdx")]
    blob, table = b"", b""
    base = 20 + 12 * len(pairs)
    for k, val in pairs:
        k16, v16 = k.encode("utf-16-le"), val.encode("utf-16-le")
        table += struct.pack("<IIHH", base + len(blob), base + len(blob) + len(k16), len(k16), len(v16))
        blob += k16 + v16
    item = VHDX_LOCATOR + struct.pack("<HH", 0, len(pairs)) + table + blob
    at = max(off + ln for _, off, ln in v.items.values())
    d[v.meta + at:v.meta + at + len(item)] = item
    e = v.meta + 32 + 32 * v.count
    d[e:e + 32] = ITEM["locator"] + struct.pack("<IIII", at, len(item), 4, 0)
    put(d, v.meta + 10, "H", v.count + 1)
    # Blocks qemu-img marks ZERO because they were never written go to the
    # parent; block 5 stays ZERO; block 2 (written whole by the caller) is held
    # for its first 256 KiB only.
    for b in range(v.blocks):
        if v.entry(b)[0] == ZERO and b != 5:
            put(d, v.entry_at(b), "Q", NOT_PRESENT)
    assert v.entry(2)[0] == FULLY and v.entry(5)[0] == ZERO
    put(d, v.entry_at(2), "Q", v.entry(2)[1] | PARTIAL)
    sb = len(d)
    d += bytes(MB)
    first = 2 * v.block // v.lss
    for s in range(first, first + 256 * KB // v.lss):
        d[sb + s // 8] |= 1 << (s % 8)
    put(d, v.sb_entry_at(0), "Q", sb | 6)
    return d
