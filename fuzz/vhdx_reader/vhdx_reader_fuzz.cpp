// Opens its input as a VHDX with the store's reader and, when the reader
// accepts it, walks the pieces of a few ranges, reads them and the blocks'
// sector bitmaps, and checks them against a layout worked out here from the
// headers, the region table, the metadata and the BAT as Microsoft's
// published format (MS-VHDX) lays them out.
//
// A VHDX is mostly zeros (its structures are 1 MiB apart), so an input is a
// sparse file, not the file itself: a little-endian u32 file size (at most
// kMaxFile), then segments of u32 offset, u16 length and that many bytes,
// each written over a file of zeros. The seeds (make_seeds.sh) are
// qemu-img's files packed that way, a few KiB each; mutations then land on
// the structures instead of on megabytes of zeros. ZXBLK_FUZZ_WRITE_VHDX=PATH
// writes each input's file out (its checksums fixed when that was tried
// last), to hand a failing one to other tools; ZXBLK_FUZZ_VERBOSE=1 says
// what the reader made of each.
//
// A StoreError from open() is the expected refusal of a bad file. Once open()
// has accepted a file that nobody changes afterwards, every later call must
// succeed: a StoreError there, any other exception, a failed check or a
// sanitizer report is a bug.
//
// Almost every mutation of a header or a region table breaks its CRC-32C,
// which would stop the reader at its first check. So each input is also
// tried a second time with the checksums of both headers and both region
// tables recomputed; ZXBLK_FUZZ_FIX_CHECKSUMS=0 turns that second try off.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/Log.h"
#include "store/storage.h"
#include "store/vhd_image.h"
#include "sparse_vhdx.h"

using zxblk::FileFormat;
using zxblk::ImageKind;
using zxblk::Piece;
using zxblk::StoreError;
using zxblk::VhdImage;

namespace {

// What the file says, worked out here independently of the reader. A file
// the reader accepted must let every step succeed. A file with a log to
// replay is read as the log leaves it, which is not worked out here: of it
// (`logged`) only what holds whatever its table says is checked, the sizes
// taken from the reader.
struct Model {
    uint64_t size = 0, chunkRatio = 0, entries = 0;
    uint32_t blockSize = 0, logical = 0;
    bool hasParent = false, logged = false;
    Guid dataWrite{};
    std::optional<Guid> linkage;
    uint64_t logOffset = 0, logLength = 0, batOffset = 0, batLength = 0, metaOffset = 0, metaLength = 0;

    uint64_t blocks() const { return (size + blockSize - 1) / blockSize; }
    uint64_t blockBytes(uint64_t b) const { return std::min<uint64_t>(blockSize, size - b * blockSize); }
    uint64_t entry(const SparseFile& f, uint64_t index) const {
        check(index < entries && (index + 1) * 8 <= batLength, "an accepted BAT holds every entry of the disk");
        uint8_t e[8];
        f.read(batOffset + index * 8, e, 8);
        return le64(e);
    }
    // A payload block's entry follows those of the blocks before it and the
    // sector bitmap entry of each whole chunk before it.
    uint64_t payload(const SparseFile& f, uint64_t b) const { return entry(f, b + b / chunkRatio); }
    uint64_t bitmapEntry(const SparseFile& f, uint64_t chunk) const { return entry(f, chunk * (chunkRatio + 1) + chunkRatio); }
    // Whether the block's logical sector k (of the block) is present, for a
    // partially present block.
    bool sectorPresent(const SparseFile& f, uint64_t b, uint64_t k) const {
        uint64_t sb = bitmapEntry(f, b / chunkRatio);
        check((sb & 7) == 6, "a partially present block's chunk has a sector bitmap block");
        uint64_t bit = (b % chunkRatio) * (blockSize / logical) + k;
        uint8_t byte;
        f.read((sb >> 20) * MiB + bit / 8, &byte, 1);
        return byte >> (bit % 8) & 1;
    }
};

NO_COVERAGE std::optional<Model> modelOf(const SparseFile& f) {
    Model m;
    if (!f.has(0, MiB)) return std::nullopt;
    // The current header: the valid one, or of two valid ones the one with
    // the larger sequence number (two alike count as one).
    Bytes h[2] = {f.bytes(64 * KiB, 4 * KiB), f.bytes(128 * KiB, 4 * KiB)};
    bool valid[2];
    for (int i = 0; i < 2; ++i) valid[i] = std::memcmp(h[i].data(), "head", 4) == 0 && crcOf(h[i]) == le32(h[i].data() + 4);
    if (!valid[0] && !valid[1]) return std::nullopt;
    uint64_t s0 = le64(h[0].data() + 8), s1 = le64(h[1].data() + 8);
    if (valid[0] && valid[1] && s0 == s1 && h[0] != h[1]) return std::nullopt;
    int cur = valid[0] && valid[1] ? s1 > s0 : valid[1];
    const uint8_t* hd = h[cur].data();
    static const uint8_t zeros[16] = {};
    if (le16(hd + 66) != 1) return std::nullopt;  // the version
    if (std::memcmp(hd + 48, zeros, 16) != 0) {
        m.logged = true;
        return m;
    }
    m.dataWrite = swapped(hd + 32);
    m.logLength = le32(hd + 68), m.logOffset = le64(hd + 72);

    // The first sound region table.
    Bytes rt;
    for (uint64_t at : {192 * KiB, 256 * KiB}) {
        Bytes t = f.bytes(at, 64 * KiB);
        if (std::memcmp(t.data(), "regi", 4) == 0 && crcOf(t) == le32(t.data() + 4) && le32(t.data() + 8) <= 2047) {
            rt = std::move(t);
            break;
        }
    }
    if (rt.empty()) return std::nullopt;
    for (uint32_t i = 0, n = le32(rt.data() + 8); i < n; ++i) {
        const uint8_t* e = rt.data() + 16 + 32 * i;
        if (std::memcmp(e, kBatRegion.data(), 16) == 0) m.batOffset = le64(e + 16), m.batLength = le32(e + 24);
        if (std::memcmp(e, kMetadataRegion.data(), 16) == 0) m.metaOffset = le64(e + 16), m.metaLength = le32(e + 24);
    }
    if (!m.batLength || !m.metaLength || !f.has(m.batOffset, m.batLength) || !f.has(m.metaOffset, m.metaLength) ||
        m.metaLength < 64 * KiB)
        return std::nullopt;

    // The metadata table and the items the layout needs.
    Bytes table = f.bytes(m.metaOffset, 64 * KiB);
    if (std::memcmp(table.data(), "metadata", 8) != 0 || le16(table.data() + 10) > 2047) return std::nullopt;
    auto item = [&](const Guid& id, uint32_t least) -> std::optional<Bytes> {
        for (uint32_t i = 0, n = le16(table.data() + 10); i < n; ++i) {
            const uint8_t* e = table.data() + 32 + 32 * i;
            if (std::memcmp(e, id.data(), 16) != 0) continue;
            uint32_t at = le32(e + 16), length = le32(e + 20);
            if (length < least || uint64_t(at) + length > m.metaLength) return std::nullopt;
            return f.bytes(m.metaOffset + at, length);
        }
        return std::nullopt;
    };
    auto params = item(kFileParameters, 8), size = item(kDiskSize, 8), logical = item(kLogicalSector, 4);
    if (!params || !size || !logical) return std::nullopt;
    m.blockSize = le32(params->data());
    m.hasParent = (*params)[4] & 2;
    m.size = le64(size->data());
    m.logical = le32(logical->data());
    if (m.blockSize < MiB || m.blockSize > 256 * MiB || (m.blockSize & (m.blockSize - 1)) || (m.logical != 512 && m.logical != 4096) ||
        m.size == 0 || m.size > (64ULL << 40) || m.size % m.logical)
        return std::nullopt;
    m.chunkRatio = (uint64_t(1) << 23) * m.logical / m.blockSize;
    uint64_t chunks = (m.blocks() + m.chunkRatio - 1) / m.chunkRatio;
    m.entries = m.hasParent ? chunks * (m.chunkRatio + 1) : m.blocks() + (m.blocks() - 1) / m.chunkRatio;

    // parent_linkage, when the locator names it once and writes it as the
    // format writes a GUID: "{xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx}" in UTF-16.
    if (m.hasParent) {
        auto loc = item(kParentLocator, 20);
        if (!loc) return std::nullopt;
        const Bytes& l = *loc;
        std::vector<std::string> linkages;
        for (uint32_t i = 0, n = le16(l.data() + 18); i < n && 20 + 12 * (i + 1) <= l.size(); ++i) {
            const uint8_t* e = l.data() + 20 + 12 * i;
            uint64_t ko = le32(e), vo = le32(e + 4), kn = le16(e + 8), vn = le16(e + 10);
            if (ko + kn > l.size() || vo + vn > l.size()) continue;
            std::string key, value;
            for (uint64_t k = 0; k + 1 < kn; k += 2) key += static_cast<char>(l[ko + k] | l[ko + k + 1] << 8);
            for (uint64_t k = 0; k + 1 < vn; k += 2) value += static_cast<char>(l[vo + k] | l[vo + k + 1] << 8);
            if (key == "parent_linkage") linkages.push_back(value);
        }
        const std::string value = linkages.size() == 1 ? linkages[0] : std::string();
        std::string hex;
        if (value.size() == 38 && value[0] == '{' && value[37] == '}')
            for (char c : value.substr(1, 36))
                if (c != '-') hex += c;
        if (hex.size() == 32 && hex.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos) {
            Guid g{};
            for (int k = 0; k < 16; ++k) g[k] = static_cast<uint8_t>(std::stoul(hex.substr(2 * k, 2), nullptr, 16));
            m.linkage = g;
        }
    }
    return m;
}

// What a block gives the disk, by its BAT state.
enum class Held { None, Zeros, Data, Partial };
Held heldOf(const Model& m, uint64_t entry) {
    switch (entry & 7) {
        case 0: return Held::None;
        case 1:
        case 2:
        case 3: return m.hasParent ? Held::Zeros : Held::None;
        case 6: return Held::Data;
        case 7: check(m.hasParent, "a partially present block only in a differencing file"); return Held::Partial;
        default: check(false, "an accepted BAT holds no reserved payload state"); return Held::None;
    }
}

// Everything the file holds lies inside it, after the header section, and
// over nothing else: the log, the regions, the blocks, the sector bitmaps.
// Returns the first 64 blocks that hold bytes.
NO_COVERAGE std::vector<uint64_t> checkApart(const SparseFile& f, const Model& m) {
    std::vector<uint64_t> held;
    std::vector<std::pair<uint64_t, uint64_t>> used = {{0, MiB}, {m.batOffset, m.batLength}, {m.metaOffset, m.metaLength}};
    if (m.logLength) used.emplace_back(m.logOffset, m.logLength);
    for (uint64_t b = 0; b < m.blocks(); ++b) {
        uint64_t e = m.payload(f, b);
        Held what = heldOf(m, e);
        if (what == Held::Data || what == Held::Partial) used.emplace_back((e >> 20) * MiB, m.blockBytes(b));
        if ((what == Held::Data || what == Held::Partial) && held.size() < 64) held.push_back(b);
    }
    if (m.hasParent)
        for (uint64_t c = 0; c * m.chunkRatio < m.blocks(); ++c) {
            uint64_t e = m.bitmapEntry(f, c);
            if ((e & 7) == 6) used.emplace_back((e >> 20) * MiB, MiB);
            else check((e & 7) == 0, "an accepted sector bitmap entry is present or not present");
        }
    std::sort(used.begin(), used.end());
    uint64_t reached = 0;
    for (const auto& u : used) {
        check(f.has(u.first, u.second), "what the file holds lies inside it");
        check(u.first >= reached, "blocks, bitmaps, log, regions and header section do not overlap");
        reached = u.first + u.second;
    }
    return held;
}

void checkBitmap(const SparseFile& f, const VhdImage& img, const Model& m, uint64_t b) {
    Bytes bitmap = img.readBlockBitmap(b);
    check(bitmap.size() == img.bitmapBytes() && img.bitmapBytes() * 8ULL >= m.blockSize / 512, "a bitmap has a bit per sector");
    if (m.logged) return;
    if (b >= m.blocks()) {
        check(std::all_of(bitmap.begin(), bitmap.end(), [](uint8_t x) { return x == 0; }), "a block past the disk holds nothing");
        return;
    }
    uint64_t e = m.payload(f, b);
    Held held = heldOf(m, e);
    check(img.isBlockAllocated(b) == (held == Held::Data || held == Held::Partial), "isBlockAllocated agrees with the BAT");
    if (img.isBlockAllocated(b)) check(img.blockDataOffset(b) == (e >> 20) * MiB, "a block's data lies where the BAT says");
    const uint64_t perLogical = m.logical / 512;
    for (uint64_t j = 0; j < m.blockBytes(b) / 512; ++j) {
        bool bit = bitmap[j / 8] >> (7 - j % 8) & 1;
        bool expected = held == Held::Partial ? m.sectorPresent(f, b, j / perLogical) : held != Held::None;
        check(bit == expected, "a block's bitmap: ones where it holds sectors (all of a present or zero block), zeros elsewhere");
    }
}

// The unit an export streams and checksums: the block's bitmap (in a
// differencing file), then its bytes of the disk.
void checkUnit(const SparseFile& f, const VhdImage& img, const Model& m, uint64_t b) {
    auto unit = img.readUnit(b);
    Bytes bitmap = img.readBlockBitmap(b);
    uint64_t bits = m.hasParent ? bitmap.size() : 0, bytes = m.blockBytes(b);
    check(unit->bitmap == bits && unit->size == bits + bytes, "a unit is the bitmap and the block's bytes");
    check(std::equal(bitmap.begin(), bitmap.begin() + bits, unit->bytes.get()), "a unit's bitmap is the block's");
    if (!m.logged) check(f.bytes(img.blockDataOffset(b), bytes) == Bytes(unit->data(), unit->data() + bytes), "a unit's data is the block's bytes");
    img.sumOf(b);
}

void checkRange(const SparseFile& f, const VhdImage& img, const Model& m, uint64_t offset, uint64_t length) {
    const uint64_t size = img.virtualSize();
    std::vector<Piece> pieces = img.pieces(offset, length);
    uint64_t end = offset >= size ? offset : std::min(size, offset + length);  // callers keep offset + length from wrapping
    uint64_t at = offset;
    bool held = false, allZeroHeld = !pieces.empty();
    int64_t position = -1;
    for (const Piece& p : pieces) {
        check(p.length > 0, "no empty pieces");
        check(p.virtualOffset == at, "pieces follow each other without gaps");
        check(p.length <= end - at, "pieces stay inside the requested range and the disk");
        uint64_t within = p.virtualOffset % m.blockSize;
        check(p.block == p.virtualOffset / m.blockSize, "a piece names its block");
        check(within + p.length <= m.blockSize, "a piece stays inside one block");
        if (!m.logged) {
            uint64_t e = m.payload(f, p.block);
            int64_t expected = -1;
            switch (heldOf(m, e)) {
                case Held::None: break;
                case Held::Zeros: expected = zxblk::kZeroHeld; break;
                case Held::Data:
                case Held::Partial: expected = static_cast<int64_t>((e >> 20) * MiB + within); break;
            }
            check(p.fileOffset == expected, "a piece's file offset follows from the BAT");
        } else {
            check(p.fileOffset >= zxblk::kZeroHeld, "a piece's file offset is one of the kinds there are");
        }
        if (p.fileOffset == zxblk::kZeroHeld && position < 0) position = static_cast<int64_t>(p.virtualOffset);
        allZeroHeld = allZeroHeld && p.fileOffset == zxblk::kZeroHeld;
        if (p.fileOffset >= 0) {
            if (!held) position = p.fileOffset;
            held = true;
            check(uint64_t(p.fileOffset) >= MiB && f.has(uint64_t(p.fileOffset), p.length),
                  "a held piece lies inside the file, after the header section");
            // Of a long piece, its first 64 KiB (a piece of its own) and its last 4 KiB.
            Piece head = p;
            head.length = std::min<uint64_t>(p.length, 64 * KiB);
            Bytes data(head.length), truth = f.bytes(uint64_t(p.fileOffset), head.length);
            img.readAt(static_cast<uint64_t>(p.fileOffset), data.data(), data.size());
            if (m.logged) truth = data;  // the log may have rewritten them
            check(data == truth, "readAt returns the file's bytes");
            std::fill(data.begin(), data.end(), 0);
            img.readVerified(head, data.data());
            check(data == truth, "readVerified returns the file's bytes");
            if (p.length > head.length) {
                uint64_t tail = uint64_t(p.fileOffset) + p.length - std::min<uint64_t>(p.length, 4096);
                Bytes last(uint64_t(p.fileOffset) + p.length - tail);
                img.readAt(tail, last.data(), last.size());
                check(m.logged || last == f.bytes(tail, last.size()), "readAt returns the file's bytes at a piece's end");
            }
        }
        at += p.length;
    }
    check(at == end, "the pieces cover the requested range, clipped to the disk");
    check(img.holdsAny(offset, length) == held, "holdsAny agrees with the pieces");
    check(img.hidesAll(offset, length) == allZeroHeld, "hidesAll agrees with the pieces");
    check(img.holdingPosition(offset, length) == position, "holdingPosition agrees with the pieces");
}

void walk(const SparseFile& f, const VhdImage& img) {
    std::optional<Model> model = modelOf(f);
    check(model.has_value(), "an accepted file has a current header without log, a region table, a metadata table and the items the disk needs");
    Model& m = *model;
    check(img.format() == FileFormat::Vhdx, "the format is VHDX");
    check(img.fileSize() == f.size(), "fileSize is the input's size");
    if (m.logged) {
        m.size = img.virtualSize(), m.blockSize = img.blockSize(), m.hasParent = img.kind() == ImageKind::Differencing;
        check(m.size > 0 && m.size <= (64ULL << 40) && m.size % 512 == 0, "the disk size is one the format allows");
        check(m.blockSize >= MiB && m.blockSize <= 256 * MiB && !(m.blockSize & (m.blockSize - 1)), "the block size is one the format allows");
    }
    check(img.virtualSize() == m.size, "the disk size is the metadata's");
    check(img.blockSize() == m.blockSize, "the block size is the metadata's");
    check(img.blockCount() == m.blocks(), "one block per blockSize() bytes of disk");
    if (!m.logged) {
        check(img.kind() == (m.hasParent ? ImageKind::Differencing : ImageKind::Dynamic), "a file with a parent is differencing, any other dynamic");
        check(img.uniqueId() == m.dataWrite, "the unique id is the current header's DataWriteGuid");
        if (m.linkage) check(img.parentUniqueId() == *m.linkage, "the parent's id is the parent locator's parent_linkage");
    }

    // Blocks that hold data, with their neighbours; the first few; the last
    // one and the one past it.
    std::vector<uint64_t> visit, seen;
    for (uint64_t b = img.nextHeldUnit(0); b < m.blocks() && seen.size() < 64; b = img.nextHeldUnit(b + 1)) seen.push_back(b);
    visit = m.logged ? seen : checkApart(f, m);
    check(seen == visit, "nextHeldUnit finds the blocks that hold bytes");
    const uint64_t blocks = m.blocks();
    for (uint64_t b = 0; b < blocks && b < 4; ++b) checkBitmap(f, img, m, b);
    checkBitmap(f, img, m, blocks - 1);
    checkBitmap(f, img, m, blocks);
    uint64_t bs = m.blockSize, size = m.size;
    // A unit is read whole only where the image says its units fit in
    // memory (as the stream asks first): by the block size, also when the
    // disk is smaller than one block.
    for (size_t i = 0; i < visit.size() && i < 8 && img.unitsFitInMemory(); ++i)
        if (m.blockBytes(visit[i]) <= 4 * MiB) checkUnit(f, img, m, visit[i]);
    for (uint64_t b : visit) {
        checkBitmap(f, img, m, b);
        if (b > 0) checkBitmap(f, img, m, b - 1);
        // Its start and its end, each with a sector of the neighbour.
        uint64_t start = b * bs, stop = std::min(size, start + bs);
        checkRange(f, img, m, start >= 512 ? start - 512 : 0, 1024);
        checkRange(f, img, m, stop - 512, 1024);
        checkRange(f, img, m, start, bs);
    }
    uint64_t hash = f.hash();
    uint64_t spot = hash % size, spotLength = (hash >> 32) % MiB + 1;
    uint64_t tail = size - std::min(size, 2 * bs);
    const uint64_t ranges[][2] = {
        {0, std::min<uint64_t>(size, 2 * MiB)},
        {0, 1},
        {size - 1, 1},
        {size / 2 > 700 ? size / 2 - 700 : 0, 1400},
        {size > 512 ? size - 512 : 0, 1 << 20},
        {spot, spotLength},
        {tail, UINT64_MAX - tail},
        {size, 512},
        {size + 4096, 1},
        {spot, 0},
    };
    for (const auto& r : ranges) checkRange(f, img, m, r[0], r[1]);
}

void exercise(const SparseFile& f) {
    static const char* out = std::getenv("ZXBLK_FUZZ_WRITE_VHDX");
    static const bool verbose = std::getenv("ZXBLK_FUZZ_VERBOSE") != nullptr;
    if (out) f.writeOut(out);
    std::optional<VhdImage> img;
    try {
        img.emplace(VhdImage::open(std::make_unique<SparseReader>(f), FileFormat::Vhdx));
    } catch (const StoreError& e) {
        if (verbose) std::fprintf(stderr, "vhdx_reader_fuzz: refused: %s\n", e.what());
        check(std::strlen(e.what()) > 0 && !std::strchr(e.what(), '\n'), "a refusal says why, in one line");
        return;
    }
    if (verbose)
        std::fprintf(stderr, "vhdx_reader_fuzz: accepted: %s of %llu bytes, blocks of %u\n", img->kindText().c_str(),
                     static_cast<unsigned long long>(img->virtualSize()), img->blockSize());
    try {
        walk(f, *img);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "vhdx_reader_fuzz: a file open() accepted failed later: %s\n", e.what());
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const char* fix = std::getenv("ZXBLK_FUZZ_FIX_CHECKSUMS");
    static const bool fixing = !(fix && std::strcmp(fix, "0") == 0);
    // The reader notes a damaged header or region table in the log; mutants have many.
    static const bool quiet = (zxblk::LogSink::setLevel(-1), zxblk::LogSink::setFile("/dev/null"), true);
    (void)quiet;
    SparseFile f = SparseFile::decode(data, size);
    exercise(f);
    if (fixing && fixChecksums(f)) exercise(f);
    return 0;
}
