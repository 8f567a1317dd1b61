// make_vhdx_chain OUTDIR [--size BYTES] [--block-size BYTES] [--logical-sector 512|4096]
//                        [--levels N] [--fixed] [--seed S]
// Writes base.vhdx and the differencing files snap1.avhdx .. snap{N-1}.avhdx
// into OUTDIR, each the child of the one before, and beside them level0.raw ..
// level{N-1}.raw: the disk each file presents with its parents under it,
// worked out here from the plan, never by reading a file back. The files are
// laid out from Microsoft's VHDX format document (MS-VHDX) alone; nothing of
// the store's own reader is used, so the two can disagree.
//
// Every block state is written: a base holds NOT_PRESENT, ZERO and
// FULLY_PRESENT blocks (or, with --fixed, every block FULLY_PRESENT and
// LeaveBlockAllocated); a differencing file adds PARTIALLY_PRESENT blocks
// with their sector bitmaps, UNMAPPED and UNDEFINED. The bytes of a block are
// runs of pattern data in a file that is otherwise holes, so even large
// blocks and disks stay small on disk. The same seed gives the same files.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint64_t MiB = 1 << 20;
constexpr uint32_t kUnit = 512;  // the grain of a block's pattern data

enum State : uint8_t { NotPresent = 0, Undefined = 1, Zero = 2, Unmapped = 3, Full = 6, Partial = 7 };
constexpr uint8_t kBitmapPresent = 6;

// CRC-32C, the reflected form of the Castagnoli polynomial.
uint32_t crc32c(const uint8_t* p, size_t n) {
    static uint32_t table[256];
    if (!table[1]) {
        for (uint32_t i = 0; i < 256; ++i) {
            uint32_t c = i;
            for (int k = 0; k < 8; ++k) c = c & 1 ? (c >> 1) ^ 0x82F63B78u : c >> 1;
            table[i] = c;
        }
    }
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) c = table[(c ^ p[i]) & 0xFF] ^ (c >> 8);
    return c ^ 0xFFFFFFFFu;
}

void put16(uint8_t* p, uint16_t v) { p[0] = v, p[1] = v >> 8; }
void put32(uint8_t* p, uint32_t v) { put16(p, v), put16(p + 2, v >> 16); }
void put64(uint8_t* p, uint64_t v) { put32(p, static_cast<uint32_t>(v)), put32(p + 4, v >> 32); }

struct Guid {
    uint8_t b[16];
};

// A GUID from its text form, stored as the format keeps it: the first three
// groups little-endian, the last eight bytes as written.
Guid guidOf(const char* text) {
    Guid g{};
    unsigned d1, d2, d3, r[8];
    std::sscanf(text, "%8x-%4x-%4x-%2x%2x-%2x%2x%2x%2x%2x%2x", &d1, &d2, &d3, &r[0], &r[1], &r[2], &r[3], &r[4],
                &r[5], &r[6], &r[7]);
    put32(g.b, d1), put16(g.b + 4, d2), put16(g.b + 6, d3);
    for (int i = 0; i < 8; ++i) g.b[8 + i] = r[i];
    return g;
}

std::string guidText(const Guid& g) {
    char s[40];
    auto le = [&](int at, int n) {
        uint32_t v = 0;
        for (int i = n - 1; i >= 0; --i) v = v << 8 | g.b[at + i];
        return v;
    };
    std::snprintf(s, sizeof s, "{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", le(0, 4), le(4, 2), le(6, 2),
                  g.b[8], g.b[9], g.b[10], g.b[11], g.b[12], g.b[13], g.b[14], g.b[15]);
    return s;
}

Guid randomGuid(std::mt19937_64& rng) {
    Guid g;
    for (auto& x : g.b) x = static_cast<uint8_t>(rng());
    g.b[7] = (g.b[7] & 0x0F) | 0x40;  // version 4 (Data3's high nibble)
    g.b[8] = (g.b[8] & 0x3F) | 0x80;
    return g;
}

Bytes utf16(const std::string& s) {
    Bytes out;
    for (char c : s) out.push_back(static_cast<uint8_t>(c)), out.push_back(0);
    return out;
}

struct Options {
    uint64_t size = 20 * MiB + 37 * 512;
    uint32_t blockSize = 1 * MiB;
    uint32_t sector = 512;
    int levels = 3;
    bool fixed = false;
    uint64_t seed = 1;
};

using Runs = std::vector<std::pair<uint64_t, uint64_t>>;  // [first, end)

bool inRuns(const Runs& runs, uint64_t x) {
    for (auto& r : runs)
        if (x >= r.first && x < r.second) return true;
    return false;
}

struct BlockPlan {
    State state = NotPresent;
    Runs data;     // units of the block's payload in this file that hold pattern bytes
    Runs present;  // logical sectors of a partially present block taken from this file
    uint64_t fileOffset = 0;
};

struct Chain {
    Options o;
    uint64_t blocks = 0, chunkRatio = 0, unitsPerBlock = 0, sectorsPerBlock = 0;
    std::vector<std::map<uint64_t, BlockPlan>> levels;  // per level: block -> plan (absent: NOT_PRESENT)
    std::vector<uint64_t> touched;                      // blocks any level plans

    // The bytes of a unit of pattern data: a level's own, so a unit taken
    // from the wrong level or block shows.
    void pattern(int level, uint64_t block, uint64_t unit, uint8_t* out) const {
        uint64_t x = o.seed * 0x9E3779B97F4A7C15ull ^ (uint64_t(level) << 56) ^ (block << 24) ^ unit;
        for (uint32_t i = 0; i < kUnit; i += 8) {
            x += 0x9E3779B97F4A7C15ull;
            uint64_t z = x;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            put64(out + i, z ^ (z >> 31));
        }
    }

    // What the disk of `level` holds in a unit: the level that gives it, or
    // -1 for zeros.
    int source(int level, uint64_t block, uint64_t unit) const {
        for (int k = level; k >= 0; --k) {
            auto it = levels[k].find(block);
            if (it == levels[k].end()) continue;
            const BlockPlan& p = it->second;
            switch (p.state) {
            case NotPresent:
                continue;
            case Full:
                return inRuns(p.data, unit) ? k : -1;
            case Partial:
                if (!inRuns(p.present, unit * kUnit / o.sector)) continue;
                return inRuns(p.data, unit) ? k : -1;
            default:
                return -1;  // ZERO, UNMAPPED, UNDEFINED read as zeros
            }
        }
        return -1;
    }
};

// Runs of a few units here and there in a block, the block's first and last
// unit among them; `limit` is where the disk ends inside the block.
Runs someRuns(std::mt19937_64& rng, uint64_t span, uint64_t limit, int count, uint64_t longest) {
    Runs r{{0, 1}, {limit - 1, limit}};
    for (int i = 0; i < count; ++i) {
        uint64_t len = 1 + rng() % longest, at = rng() % span;
        r.push_back({at, std::min(span, at + len)});
    }
    return r;
}

Chain plan(const Options& o) {
    Chain c;
    c.o = o;
    c.blocks = (o.size + o.blockSize - 1) / o.blockSize;
    c.chunkRatio = (uint64_t(1) << 23) * o.sector / o.blockSize;
    c.unitsPerBlock = o.blockSize / kUnit;
    c.sectorsPerBlock = o.blockSize / o.sector;
    c.levels.resize(o.levels);
    std::mt19937_64 rng(o.seed);

    // The blocks the chain writes: the first few, the middle, the last
    // (partial when the size is not whole blocks), those about a chunk
    // boundary, a few anywhere; two more only the top level writes, ZERO
    // and UNMAPPED over a parent that holds nothing there (zero bytes under
    // a fixed base).
    std::set<uint64_t> pick;
    for (uint64_t b : {0ul, 1ul, 2ul, 3ul, 4ul, 5ul, 6ul, 7ul, c.blocks / 2, c.blocks - 2, c.blocks - 1, c.chunkRatio - 1,
                       c.chunkRatio, c.chunkRatio + 1})
        if (b < c.blocks) pick.insert(b);
    std::vector<uint64_t> spare;
    for (uint64_t b = c.blocks * 3 / 4; b < c.blocks && spare.size() < 2; ++b)
        if (!pick.count(b)) spare.push_back(b);
    for (int i = 0; i < 4; ++i) {
        uint64_t b = rng() % c.blocks;
        if (std::find(spare.begin(), spare.end(), b) == spare.end()) pick.insert(b);
    }
    c.touched.assign(pick.begin(), pick.end());

    static const State baseCycle[] = {Full, NotPresent, Full, Zero, Full, Full};
    static const State diffCycle[] = {Full, Partial, Zero, Unmapped, Undefined, NotPresent, Partial, Full};
    for (int level = 0; level < o.levels; ++level) {
        for (size_t i = 0; i < c.touched.size(); ++i) {
            uint64_t b = c.touched[i];
            BlockPlan p;
            p.state = level == 0 ? (o.fixed ? Full : baseCycle[(i + o.seed) % 6])
                                 : diffCycle[(i + 3 * level + o.seed) % 8];
            uint64_t inDisk = std::min<uint64_t>(o.blockSize, o.size - b * o.blockSize);
            // Every fifth block written whole holds only zero bytes.
            bool zeroBytes = p.state == Full && (i + level) % 5 == 2;
            if ((p.state == Full && !zeroBytes) || p.state == Partial)
                p.data = someRuns(rng, c.unitsPerBlock, inDisk / kUnit, 3, 64);
            if (b == c.blocks - 1 && inDisk < o.blockSize && !p.data.empty())
                p.data.push_back({inDisk / kUnit, inDisk / kUnit + 3});  // bytes past the disk's end
            if (p.state == Partial) {
                // Sectors present in this file, some over its pattern runs and
                // some over holes in it (zeros that hide the parent), the
                // block's first and last sector among them.
                p.present = someRuns(rng, c.sectorsPerBlock, inDisk / o.sector, 4, 16);
                for (auto& r : Runs(p.data)) p.present.push_back({r.first * kUnit / o.sector + 1, r.second * kUnit / o.sector + 1});
            }
            if (p.state != NotPresent) c.levels[level][b] = p;
        }
        if (o.fixed && level == 0)
            for (uint64_t b = 0; b < c.blocks; ++b) c.levels[0].emplace(b, BlockPlan{Full, {}, {}, 0});
    }
    if (o.levels > 1) {
        State hide[] = {Zero, Unmapped};
        for (size_t i = 0; i < spare.size(); ++i) c.levels[o.levels - 1][spare[i]].state = hide[i];
    }
    return c;
}

struct File {
    int fd;
    std::string path;
    explicit File(const std::string& p) : path(p) {
        fd = ::open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (fd < 0) throw std::runtime_error("cannot create " + p + ": " + std::strerror(errno));
    }
    ~File() { ::close(fd); }
    void write(uint64_t at, const uint8_t* p, size_t n) const {
        if (::pwrite(fd, p, n, static_cast<off_t>(at)) != static_cast<ssize_t>(n))
            throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    }
    void size(uint64_t n) const {
        if (::ftruncate(fd, static_cast<off_t>(n)) != 0) throw std::runtime_error("cannot size " + path);
    }
};

struct Identity {
    Guid fileWrite, dataWrite, staleFileWrite, staleDataWrite;
};

const Guid kBatRegion = guidOf("2DC27766-F623-4200-9D64-115E9BFD4A08");
const Guid kMetadataRegion = guidOf("8B7CA206-4790-4B9A-B8FE-575F050F886E");
const Guid kFileParameters = guidOf("CAA16737-FA36-4D43-B3B6-33F0AA44E76B");
const Guid kDiskSize = guidOf("2FA54224-CD1B-4876-B211-5DBED83BF4B8");
const Guid kDiskId = guidOf("BECA12AB-B2E6-4523-93EF-C309E000C746");
const Guid kLogicalSector = guidOf("8141BF1D-A96F-4709-BA47-F233A8FAAB5F");
const Guid kPhysicalSector = guidOf("CDA348C7-445D-4471-9CC9-E9885251C556");
const Guid kParentLocator = guidOf("A8D35F2D-B30B-454D-ABF7-D3D84834AB0C");
const Guid kVhdxLocator = guidOf("B04AEFB7-D19E-4A81-B789-25B8E9445913");

Bytes parentLocator(const Guid& parentData, const std::string& parentName) {
    std::vector<std::pair<std::string, std::string>> kv = {
        {"parent_linkage", guidText(parentData)},
        {"relative_path", ".\\" + parentName},
        {"absolute_win32_path", "\\\\?\\C:\\disks\\" + parentName},
    };
    Bytes item(20 + 12 * kv.size());
    std::memcpy(item.data(), kVhdxLocator.b, 16);
    put16(item.data() + 18, static_cast<uint16_t>(kv.size()));
    for (size_t i = 0; i < kv.size(); ++i) {
        Bytes k = utf16(kv[i].first), v = utf16(kv[i].second);
        uint8_t* e = item.data() + 20 + 12 * i;
        put32(e, static_cast<uint32_t>(item.size()));
        put32(e + 4, static_cast<uint32_t>(item.size() + k.size()));
        put16(e + 8, static_cast<uint16_t>(k.size()));
        put16(e + 10, static_cast<uint16_t>(v.size()));
        item.insert(item.end(), k.begin(), k.end());
        item.insert(item.end(), v.begin(), v.end());
    }
    return item;
}

void writeVhdx(Chain& c, int level, const Identity& id, const Guid& diskId, const Guid* parentData,
               const std::string& path, const std::string& parentName, std::mt19937_64& rng) {
    const Options& o = c.o;
    bool diff = level > 0;
    File f(path);
    uint64_t batEntries = diff ? (c.blocks + c.chunkRatio - 1) / c.chunkRatio * (c.chunkRatio + 1)
                               : c.blocks + (c.blocks - 1) / c.chunkRatio;
    uint64_t batLength = (batEntries * 8 + MiB - 1) / MiB * MiB;
    // Where the regions sit changes from file to file (the format fixes
    // only the header section), so a reader must take them from the table.
    uint64_t logOffset = MiB, metaOffset = 2 * MiB, batOffset = 3 * MiB;
    if (level % 2) batOffset = 2 * MiB, metaOffset = 2 * MiB + batLength;
    uint64_t next = std::max(batOffset + batLength, metaOffset + MiB);

    // Payload blocks, then sector bitmap blocks, at offsets in an order of
    // their own (the base of a fixed disk in disk order).
    std::vector<uint64_t> alloc;
    auto& planned = c.levels[level];
    for (auto& [b, p] : planned)
        if (p.state == Full || p.state == Partial) alloc.push_back(b);
    std::set<uint64_t> bitmapChunks;
    for (auto& [b, p] : planned)
        if (p.state == Partial) bitmapChunks.insert(b / c.chunkRatio);
    for (uint64_t ch : bitmapChunks) alloc.push_back(~ch);
    if (!o.fixed || diff)
        for (size_t i = alloc.size(); i > 1; --i) std::swap(alloc[i - 1], alloc[rng() % i]);
    std::map<uint64_t, uint64_t> bitmapAt;
    for (uint64_t a : alloc) {
        if (static_cast<int64_t>(a) < 0) {
            bitmapAt[~a] = next, next += MiB;
        } else {
            planned[a].fileOffset = next, next += (o.blockSize + MiB - 1) / MiB * MiB;
        }
    }
    f.size(next);

    Bytes ident(64 * 1024);
    std::memcpy(ident.data(), "vhdxfile", 8);
    Bytes creator = utf16("zxblk test writer");
    std::memcpy(ident.data() + 8, creator.data(), creator.size());
    f.write(0, ident.data(), ident.size());

    // Two headers: the current one and an older one (a lower sequence
    // number, other write GUIDs) that a reader must pass over. Which of the
    // two slots is current alternates from file to file.
    for (int slot = 0; slot < 2; ++slot) {
        bool current = slot == level % 2;
        Bytes h(4096);
        std::memcpy(h.data(), "head", 4);
        put64(h.data() + 8, 1000 + 10 * level + (current ? 1 : 0));
        std::memcpy(h.data() + 16, (current ? id.fileWrite : id.staleFileWrite).b, 16);
        std::memcpy(h.data() + 32, (current ? id.dataWrite : id.staleDataWrite).b, 16);
        put16(h.data() + 64, 0);  // LogVersion; LogGuid stays zero: nothing to replay
        put16(h.data() + 66, 1);
        put32(h.data() + 68, MiB);
        put64(h.data() + 72, logOffset);
        put32(h.data() + 4, crc32c(h.data(), h.size()));
        f.write((slot + 1) * 64 * 1024, h.data(), h.size());
    }

    Bytes regions(64 * 1024);
    std::memcpy(regions.data(), "regi", 4);
    put32(regions.data() + 8, 2);
    const std::pair<const Guid*, std::pair<uint64_t, uint64_t>> entries[] = {
        {&kMetadataRegion, {metaOffset, MiB}}, {&kBatRegion, {batOffset, batLength}}};
    for (int i = 0; i < 2; ++i) {
        auto& e = entries[(i + level) % 2];
        uint8_t* p = regions.data() + 16 + 32 * i;
        std::memcpy(p, e.first->b, 16);
        put64(p + 16, e.second.first);
        put32(p + 24, static_cast<uint32_t>(e.second.second));
        put32(p + 28, 1);
    }
    put32(regions.data() + 4, crc32c(regions.data(), regions.size()));
    f.write(192 * 1024, regions.data(), regions.size());
    f.write(256 * 1024, regions.data(), regions.size());

    // The metadata table and its items, the items from 64 KiB on.
    struct Item {
        Guid guid;
        Bytes value;
        uint32_t flags;  // bit 0 user, bit 1 virtual disk, bit 2 required
    };
    std::vector<Item> items;
    Bytes v(8);
    put32(v.data(), o.blockSize);
    put32(v.data() + 4, (o.fixed && !diff ? 1 : 0) | (diff ? 2 : 0));
    items.push_back({kFileParameters, v, 4});
    put64(v.data(), o.size);
    items.push_back({kDiskSize, v, 6});
    items.push_back({kDiskId, Bytes(diskId.b, diskId.b + 16), 6});
    v.assign(4, 0), put32(v.data(), o.sector);
    items.push_back({kLogicalSector, v, 6});
    put32(v.data(), 4096);
    items.push_back({kPhysicalSector, v, 6});
    if (diff) items.push_back({kParentLocator, parentLocator(*parentData, parentName), 4});
    Bytes meta(MiB);
    std::memcpy(meta.data(), "metadata", 8);
    put16(meta.data() + 10, static_cast<uint16_t>(items.size()));
    uint32_t at = 64 * 1024;
    for (size_t i = 0; i < items.size(); ++i) {
        uint8_t* e = meta.data() + 32 + 32 * i;
        std::memcpy(e, items[i].guid.b, 16);
        put32(e + 16, at);
        put32(e + 20, static_cast<uint32_t>(items[i].value.size()));
        put32(e + 24, items[i].flags);
        std::memcpy(meta.data() + at, items[i].value.data(), items[i].value.size());
        at += (items[i].value.size() + 7) / 8 * 8;
    }
    f.write(metaOffset, meta.data(), at);

    // The BAT: a chunk's sector bitmap entry after its payload entries.
    Bytes bat(batEntries * 8);
    for (auto& [b, p] : planned) {
        uint64_t off = p.state == Full || p.state == Partial ? p.fileOffset : 0;
        put64(bat.data() + 8 * (b + b / c.chunkRatio), off | p.state);
    }
    for (auto& [ch, off] : bitmapAt) put64(bat.data() + 8 * (ch * (c.chunkRatio + 1) + c.chunkRatio), off | kBitmapPresent);
    f.write(batOffset, bat.data(), bat.size());

    // Payload runs, and the sector bitmaps: bit 0 of byte 0 the chunk's
    // first logical sector.
    uint8_t unit[kUnit];
    std::map<uint64_t, Bytes> bitmaps;
    for (auto& [b, p] : planned) {
        if (p.state != Full && p.state != Partial) continue;
        for (auto& r : p.data)
            for (uint64_t u = r.first; u < r.second; ++u) {
                c.pattern(level, b, u, unit);
                f.write(p.fileOffset + u * kUnit, unit, kUnit);
            }
        if (p.state != Partial) continue;
        Bytes& bm = bitmaps[b / c.chunkRatio];
        bm.resize(MiB);
        uint64_t first = (b % c.chunkRatio) * c.sectorsPerBlock;
        for (auto& r : p.present)
            for (uint64_t s = r.first; s < std::min(r.second, c.sectorsPerBlock); ++s)
                bm[(first + s) / 8] |= static_cast<uint8_t>(1u << ((first + s) % 8));
    }
    // Only a partially present block's bits count: the bits of a zero block
    // sharing the chunk are set (and a fully present one's left clear), so
    // a reader that consults the bitmap for them shows it.
    for (auto& [b, p] : planned) {
        auto bm = bitmaps.find(b / c.chunkRatio);
        if (bm == bitmaps.end() || p.state == Full || p.state == Partial) continue;
        uint64_t first = (b % c.chunkRatio) * c.sectorsPerBlock;
        for (uint64_t s = first; s < first + std::min<uint64_t>(8, c.sectorsPerBlock); ++s)
            bm->second[s / 8] |= static_cast<uint8_t>(1u << (s % 8));
    }
    for (auto& [ch, bm] : bitmaps) f.write(bitmapAt[ch], bm.data(), bm.size());
}

// The disk of a level as a sparse raw image: zero units stay holes.
void writeRaw(const Chain& c, int level, const std::string& path) {
    File f(path);
    f.size(c.o.size);
    uint8_t unit[kUnit];
    for (uint64_t b : c.touched) {
        uint64_t base = b * c.o.blockSize, units = std::min<uint64_t>(c.o.blockSize, c.o.size - base) / kUnit;
        for (uint64_t u = 0; u < units; ++u) {
            int k = c.source(level, b, u);
            if (k < 0) continue;
            c.pattern(k, b, u, unit);
            f.write(base + u * kUnit, unit, kUnit);
        }
    }
}

uint64_t number(const char* opt, const char* s) {
    char* end;
    uint64_t v = std::strtoull(s, &end, 0);
    if (!*s || *end) throw std::runtime_error(std::string(opt) + ": not a number: " + s);
    return v;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        if (argc < 2 || argv[1][0] == '-')
            throw std::runtime_error(
                "usage: make_vhdx_chain OUTDIR [--size BYTES] [--block-size BYTES] [--logical-sector 512|4096] "
                "[--levels N] [--fixed] [--seed S]");
        std::string dir = argv[1];
        Options o;
        for (int i = 2; i < argc; ++i) {
            std::string a = argv[i];
            if (a == "--fixed") {
                o.fixed = true;
                continue;
            }
            if (i + 1 >= argc) throw std::runtime_error(a + " needs a value");
            uint64_t v = number(argv[i], argv[i + 1]);
            ++i;
            if (a == "--size") o.size = v;
            else if (a == "--block-size") o.blockSize = static_cast<uint32_t>(v);
            else if (a == "--logical-sector") o.sector = static_cast<uint32_t>(v);
            else if (a == "--levels") o.levels = static_cast<int>(v);
            else if (a == "--seed") o.seed = v;
            else throw std::runtime_error("unknown option " + a);
        }
        if (o.blockSize < MiB || o.blockSize > 256 * MiB || (o.blockSize & (o.blockSize - 1)))
            throw std::runtime_error("--block-size must be a power of two from 1 MiB to 256 MiB");
        if (o.sector != 512 && o.sector != 4096) throw std::runtime_error("--logical-sector must be 512 or 4096");
        if (o.size == 0 || o.size % o.sector || o.size > (64ull << 40))
            throw std::runtime_error("--size must be a whole number of logical sectors, at most 64 TiB");
        if (o.levels < 1 || o.levels > 16) throw std::runtime_error("--levels must be from 1 to 16");

        Chain c = plan(o);
        // The plan beside the files, a line a planned block: level, block,
        // its first byte and length on the disk, its state.
        FILE* planFile = std::fopen((dir + "/plan.txt").c_str(), "w");
        if (!planFile) throw std::runtime_error("cannot create " + dir + "/plan.txt");
        static const char* names[] = {"NOT_PRESENT", "UNDEFINED", "ZERO", "UNMAPPED", "", "", "FULLY_PRESENT",
                                      "PARTIALLY_PRESENT"};
        for (int level = 0; level < o.levels; ++level)
            for (auto& [b, p] : c.levels[level])
                std::fprintf(planFile, "%d %llu %llu %llu %s%s\n", level, (unsigned long long)b,
                             (unsigned long long)(b * o.blockSize),
                             (unsigned long long)std::min<uint64_t>(o.blockSize, o.size - b * o.blockSize),
                             names[p.state], p.state == Full && p.data.empty() ? " zero-bytes" : "");
        std::fclose(planFile);
        std::mt19937_64 rng(o.seed * 7919 + 17);
        Guid diskId = randomGuid(rng);
        Guid parentData{};
        std::string parentName;
        for (int level = 0; level < o.levels; ++level) {
            Identity id{randomGuid(rng), randomGuid(rng), randomGuid(rng), randomGuid(rng)};
            std::string name = level == 0 ? "base.vhdx" : "snap" + std::to_string(level) + ".avhdx";
            writeVhdx(c, level, id, diskId, level ? &parentData : nullptr, dir + "/" + name, parentName, rng);
            std::string raw = dir + "/level" + std::to_string(level) + ".raw";
            writeRaw(c, level, raw);
            std::printf("%s/%s %s\n", dir.c_str(), name.c_str(), raw.c_str());
            parentData = id.dataWrite;
            parentName = name;
        }
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "make_vhdx_chain: %s\n", e.what());
        return 1;
    }
}
