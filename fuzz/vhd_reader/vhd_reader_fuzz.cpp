// Opens its input as a VHD (and as a raw image) with the store's reader and,
// when the reader accepts it, walks the pieces of a few ranges, reads them,
// and checks them against the bytes of the input and against a layout worked
// out here from the footer, the dynamic header and the allocation table.
//
// A StoreError from open() is the expected refusal of a bad file. Once open()
// has accepted a file that nobody changes afterwards, every later call must
// succeed: a StoreError there, any other exception, a failed check or a
// sanitizer report is a bug.
//
// Almost every mutation breaks the footer or dynamic header checksum, which
// would stop the reader at its first check. So each input is also tried a
// second time with both checksums (and the footer copy's at offset 0)
// recomputed; ZXBLK_FUZZ_FIX_CHECKSUMS=0 turns that second try off. Some
// accepted dynamic images are also rebuilt with a block table of a million
// entries and tried again (see widen()).
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "platform/Log.h"
#include "store/vhd_image.h"

using zxblk::ImageKind;
using zxblk::Piece;
using zxblk::StoreError;
using zxblk::VhdImage;

namespace {

using Bytes = std::vector<uint8_t>;

const uint32_t kUnallocated = 0xFFFFFFFFu;
const uint64_t kMaxVirtualSize = 2040ULL << 30;

// For this target's own loops over whole files and tables (up to a million
// entries; see widen()): their branches tell the fuzzer nothing about the
// reader, and their comparison hooks would cost most of a run.
#define NO_COVERAGE __attribute__((no_sanitize("coverage")))

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "vhd_reader_fuzz: invariant broken: %s\n", what);
        std::abort();
    }
}

NO_COVERAGE uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint64_t be64(const uint8_t* p) { return uint64_t(be32(p)) << 32 | be32(p + 4); }
void put32(uint8_t* p, uint32_t v) { p[0] = v >> 24, p[1] = v >> 16, p[2] = v >> 8, p[3] = v; }
void put64(uint8_t* p, uint64_t v) { put32(p, static_cast<uint32_t>(v >> 32)), put32(p + 4, static_cast<uint32_t>(v)); }

// The checksum of an n-byte structure: the one's complement of its byte sum
// with the checksum field itself counted as zero.
NO_COVERAGE uint32_t checksumOf(const uint8_t* p, size_t n, size_t fieldAt) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i)
        if (i < fieldAt || i >= fieldAt + 4) sum += p[i];
    return ~sum;
}

NO_COVERAGE void putChecksum(uint8_t* p, size_t n, size_t fieldAt) { put32(p + fieldAt, checksumOf(p, n, fieldAt)); }

void fixChecksums(Bytes& f) {
    if (f.size() < 512) return;
    uint8_t* tail = f.data() + f.size() - 512;
    uint8_t* head = f.size() >= 1024 && std::memcmp(f.data(), "conectix", 8) == 0 ? f.data() : nullptr;
    // The dynamic headers first (each footer names one; usually the same):
    // a sound header lies between the footers, so no footer covers it.
    for (const uint8_t* footer : {static_cast<const uint8_t*>(tail), static_cast<const uint8_t*>(head)}) {
        if (!footer) continue;
        uint64_t header = be64(footer + 16);
        if (header >= 512 && header <= f.size() - 512 && f.size() - 512 - header >= 1024)
            putChecksum(f.data() + header, 1024, 36);
    }
    if (head) putChecksum(head, 512, 64);
    putChecksum(tail, 512, 64);
}

NO_COVERAGE bool soundFooter(const uint8_t* p) { return std::memcmp(p, "conectix", 8) == 0 && be32(p + 64) == checksumOf(p, 512, 64); }

// The footer a reader goes by: the one at the end, or, when that one is
// damaged, the copy a dynamic or differencing file keeps at offset 0.
const uint8_t* footerInUse(const Bytes& f) {
    const uint8_t* tail = f.data() + f.size() - 512;
    if (soundFooter(tail)) return tail;
    if (f.size() >= 1024 && soundFooter(f.data())) return f.data();
    return nullptr;
}

bool fixingEnabled() {
    const char* v = std::getenv("ZXBLK_FUZZ_FIX_CHECKSUMS");
    return !(v && std::strcmp(v, "0") == 0);
}

// The input lives in a memory file that the reader opens by its /proc path,
// like any other file; a temporary file stands in where memfd is missing.
class InputFile {
public:
    InputFile() {
        m_fd = memfd_create("zxblk_vhd_fuzz", MFD_CLOEXEC);
        if (m_fd >= 0) {
            m_path = "/proc/self/fd/" + std::to_string(m_fd);
            return;
        }
        const char* tmp = std::getenv("TMPDIR");
        std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/zxblk_vhd_fuzz_XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        m_fd = mkstemp(name.data());
        check(m_fd >= 0, "cannot make a temporary file for the input");
        m_path = name.data();
        m_unlink = true;
    }
    ~InputFile() {
        if (m_unlink) unlink(m_path.c_str());
        close(m_fd);
    }
    const std::string& put(const Bytes& b) {
        check(ftruncate(m_fd, 0) == 0, "ftruncate");
        size_t done = 0;
        while (done < b.size()) {
            ssize_t n = pwrite(m_fd, b.data() + done, b.size() - done, static_cast<off_t>(done));
            check(n > 0, "pwrite");
            done += static_cast<size_t>(n);
        }
        return m_path;
    }

private:
    int m_fd = -1;
    std::string m_path;
    bool m_unlink = false;
};

// What the footer, the dynamic header and the table say, read here
// independently of the reader.
struct Layout {
    uint64_t headerOffset = 0, tableOffset = 0;
    uint32_t entries = 0;
    std::vector<uint32_t> bat;  // the entries the disk's size needs
};

NO_COVERAGE Layout layoutOf(const Bytes& f, const VhdImage& img, const uint8_t* footer) {
    Layout l;
    l.headerOffset = be64(footer + 16);
    check(l.headerOffset <= f.size() - 512 && f.size() - 512 - l.headerOffset >= 1024,
          "the dynamic header lies inside the file, before the footer");
    const uint8_t* h = f.data() + l.headerOffset;
    l.tableOffset = be64(h + 16);
    l.entries = be32(h + 28);
    check(be32(h + 32) == img.blockSize(), "block size is the header's");
    uint64_t needed = (img.virtualSize() + img.blockSize() - 1) / img.blockSize();
    check(l.entries >= needed, "the table has an entry for every block of the disk");
    check(l.tableOffset <= f.size() - 512 && f.size() - 512 - l.tableOffset >= uint64_t(l.entries) * 4,
          "the table lies inside the file, before the footer");
    l.bat.resize(needed);
    uint32_t* entry = l.bat.data();
    for (const uint8_t* p = f.data() + l.tableOffset; entry != l.bat.data() + needed; p += 4) *entry++ = be32(p);
    return l;
}

// Allocated blocks (bitmap and data) lie inside the file between the two
// footers and overlap neither each other, nor the header, nor the table.
NO_COVERAGE void checkBlocksApart(const Bytes& f, const VhdImage& img, const Layout& l) {
    struct Range {
        uint64_t start, end;
    };
    std::vector<Range> used = {{0, 512}, {l.headerOffset, l.headerOffset + 1024},
                               {l.tableOffset, l.tableOffset + uint64_t(l.entries) * 4}};
    for (uint32_t sector : l.bat) {
        if (sector == kUnallocated) continue;
        uint64_t start = uint64_t(sector) * 512;
        uint64_t end = start + img.bitmapBytes() + img.blockSize();
        check(end <= f.size() - 512, "an allocated block lies inside the file, before the footer at the end");
        used.push_back({start, end});
    }
    std::sort(used.begin(), used.end(), [](const Range& a, const Range& b) { return a.start < b.start; });
    uint64_t reached = 0;
    for (const Range& r : used) {
        check(r.start >= reached, "blocks, header and table do not overlap");
        reached = std::max(reached, r.end);
    }
}

// Inputs small enough to fuzz have small block tables, but the reader keeps
// a table of more than about a million entries differently (only its
// allocated entries). So some accepted dynamic images are also rebuilt with
// such a table: the same file up to its footer, then a new table of
// kWideEntries entries in which old block b is block b * stride (spreading
// the allocated ones over the disk), then the footer with the disk grown to
// match. The rebuilt file breaks no rule the original kept, so the reader
// must accept it too.
const uint64_t kWideEntries = (1u << 20) + 64;

NO_COVERAGE Bytes widen(const Bytes& f, const uint8_t* footer, const Layout& l, uint32_t blockSize) {
    const uint64_t stride = kWideEntries / l.bat.size();
    const uint64_t tableAt = (f.size() - 512 + 511) / 512 * 512;
    Bytes w(tableAt + kWideEntries * 4 + 512, 0);
    std::copy(f.begin(), f.end() - 512, w.begin());
    std::fill(w.begin() + static_cast<std::ptrdiff_t>(tableAt), w.end() - 512, 0xFF);
    for (uint64_t b = 0; b < l.bat.size(); ++b)
        if (l.bat[b] != kUnallocated) put32(w.data() + tableAt + b * stride * 4, l.bat[b]);
    uint8_t* h = w.data() + l.headerOffset;
    put64(h + 16, tableAt);
    put32(h + 28, static_cast<uint32_t>(kWideEntries));
    putChecksum(h, 1024, 36);
    uint8_t tail[512];
    std::memcpy(tail, footer, 512);
    put64(tail + 40, kWideEntries * blockSize);
    put64(tail + 48, kWideEntries * blockSize);
    putChecksum(tail, 512, 64);
    std::memcpy(w.data() + w.size() - 512, tail, 512);
    if (std::memcmp(w.data(), "conectix", 8) == 0) std::memcpy(w.data(), tail, 512);  // the copies must agree
    return w;
}

void checkBitmap(const Bytes& f, const VhdImage& img, const Layout* l, uint64_t block) {
    Bytes bitmap = img.readBlockBitmap(block);
    check(bitmap.size() == img.bitmapBytes(), "a bitmap is bitmapBytes() long");
    bool allocated = l && block < l->bat.size() && l->bat[block] != kUnallocated;
    check(img.isBlockAllocated(block) == (!l || allocated), "isBlockAllocated agrees with the table");
    if (!l) return;  // raw and fixed images have no bitmaps
    if (!allocated) {
        check(std::all_of(bitmap.begin(), bitmap.end(), [](uint8_t b) { return b == 0; }),
              "an unallocated block's bitmap is all zeros");
        return;
    }
    uint64_t at = uint64_t(l->bat[block]) * 512;
    check(std::equal(bitmap.begin(), bitmap.end(), f.begin() + static_cast<std::ptrdiff_t>(at)),
          "a block's bitmap is the bytes before its data");
    check(img.blockDataOffset(block) == at + img.bitmapBytes(), "a block's data follows its bitmap");
}

void checkRange(const Bytes& f, const VhdImage& img, const Layout* l, uint64_t offset, uint64_t length) {
    const uint64_t size = img.virtualSize();
    std::vector<Piece> pieces = img.pieces(offset, length);
    uint64_t end = offset >= size ? offset : std::min(size, offset + length);  // callers keep offset + length from wrapping
    uint64_t at = offset;
    bool held = false;
    for (const Piece& p : pieces) {
        check(p.length > 0, "no empty pieces");
        check(p.virtualOffset == at, "pieces follow each other without gaps");
        check(p.length <= end - at, "pieces stay inside the requested range and the disk");
        if (l) {
            uint64_t within = p.virtualOffset % img.blockSize();
            check(p.block == p.virtualOffset / img.blockSize(), "a piece names its block");
            check(within + p.length <= img.blockSize(), "a piece stays inside one block");
            uint32_t sector = l->bat[p.block];
            int64_t expected = sector == kUnallocated ? -1 : int64_t(uint64_t(sector) * 512 + img.bitmapBytes() + within);
            check(p.fileOffset == expected, "a piece's file offset follows from the table");
        } else {
            check(p.fileOffset == static_cast<int64_t>(p.virtualOffset), "a raw or fixed disk maps one to one");
        }
        if (p.fileOffset >= 0) {
            held = true;
            uint64_t fileEnd = f.size() - (img.kind() == ImageKind::Raw ? 0 : 512);
            check(uint64_t(p.fileOffset) <= fileEnd && fileEnd - uint64_t(p.fileOffset) >= p.length,
                  "a held piece lies inside the file, before the footer");
            Bytes data(p.length);
            img.readAt(static_cast<uint64_t>(p.fileOffset), data.data(), data.size());
            check(std::equal(data.begin(), data.end(), f.begin() + p.fileOffset), "readAt returns the file's bytes");
        }
        at += p.length;
    }
    check(at == end, "the pieces cover the requested range, clipped to the disk");
    check(img.holdsAny(offset, length) == held, "holdsAny agrees with the pieces");
}

NO_COVERAGE std::vector<uint64_t> allocatedIn(const Layout& l) {
    std::vector<uint64_t> out;
    const uint32_t* entries = l.bat.data();
    for (uint64_t b = 0, n = l.bat.size(); b < n; ++b)
        if (entries[b] != kUnallocated) out.push_back(b);
    return out;
}

// Of the first 64 KiB and the footer: enough to tell inputs apart, without
// going through a rebuilt file's long table.
NO_COVERAGE uint64_t hashOf(const Bytes& f) {
    uint64_t hash = 1469598103934665603ULL;
    auto mix = [&](size_t from, size_t to) {
        for (size_t i = from; i < to; ++i) hash = (hash ^ f[i]) * 1099511628211ULL;
    };
    mix(0, std::min<size_t>(f.size(), 65536));
    if (f.size() > 65536) mix(std::max<size_t>(f.size() - 512, 65536), f.size());
    return hash;
}

// Walks an accepted image. `wide` is set for a rebuilt one (see widen()): its
// table is too long to visit whole on every run, so only the allocated
// blocks, their neighbours and a few more are visited. Sets `next` to the
// rebuilt file when this image should also be tried that way.
void walk(const Bytes& f, const VhdImage& img, bool raw, bool wide, Bytes& next) {
    const uint64_t size = img.virtualSize();
    check(img.fileSize() == f.size(), "fileSize is the input's size");
    check(size > 0 && size % 512 == 0, "the disk is a whole number of sectors");
    check(zxblk::uniqueIdText(img.uniqueId()).size() == 36 && zxblk::uniqueIdText(img.parentUniqueId()).size() == 36,
          "unique ids print as 36 characters");
    std::optional<Layout> layout;
    const uint8_t* footer = raw ? nullptr : footerInUse(f);
    if (!raw) {
        check(footer != nullptr, "an accepted VHD has a sound footer");
        check(be64(footer + 48) == size, "the disk size is the footer's");
        check(std::equal(img.uniqueId().begin(), img.uniqueId().end(), footer + 68), "the unique id is the footer's");
        check(be32(footer + 60) == (img.kind() == ImageKind::Fixed ? 2u : img.kind() == ImageKind::Dynamic ? 3u : 4u),
              "the kind is the footer's disk type");
    }
    switch (img.kind()) {
        case ImageKind::Raw:
            check(raw && size == f.size(), "a raw image is its file");
            break;
        case ImageKind::Fixed:
            check(!raw && f.size() == size + 512, "a fixed disk is its file less the footer");
            check(footer == f.data() + f.size() - 512, "a fixed disk goes by the footer at its end");
            check(img.blockSize() == 0 && img.bitmapBytes() == 0 && img.blockCount() == 0, "a fixed disk has no blocks");
            break;
        case ImageKind::Dynamic:
        case ImageKind::Differencing: {
            check(!raw && size <= kMaxVirtualSize, "the disk size is one the format allows");
            uint32_t bs = img.blockSize();
            check(bs >= 512 && bs <= (256u << 20) && (bs & (bs - 1)) == 0, "the block size is a power of two");
            check(img.blockCount() == (size + bs - 1) / bs, "one block per blockSize() bytes of disk");
            check(img.bitmapBytes() % 512 == 0 && uint64_t(img.bitmapBytes()) * 8 >= bs / 512,
                  "a bitmap is whole sectors with a bit per sector");
            layout = layoutOf(f, img, footer);
            if (!wide) checkBlocksApart(f, img, *layout);  // a rebuilt file keeps its original's blocks
            break;
        }
    }
    const Layout* l = layout ? &*layout : nullptr;

    // Bitmaps: the first few blocks, the last one and the one past it, and
    // every allocated block with its neighbours (not every unallocated one:
    // each costs a vector of up to 64 KiB, and a table may be long).
    uint64_t blocks = l ? l->bat.size() : 1;
    std::vector<uint64_t> allocatedBlocks = l ? allocatedIn(*l) : std::vector<uint64_t>{0};
    for (uint64_t b = 0; b < blocks && b < 4; ++b) checkBitmap(f, img, l, b);
    checkBitmap(f, img, l, blocks - 1);
    if (l) {
        checkBitmap(f, img, l, blocks);
        for (uint64_t b : allocatedBlocks) {
            checkBitmap(f, img, l, b);
            if (b > 0) checkBitmap(f, img, l, b - 1);
            if (b + 1 < blocks) checkBitmap(f, img, l, b + 1);
        }
    }

    // A spot in the disk picked by the input's bytes, so that mutants reach
    // ranges no fixed list names.
    uint64_t hash = hashOf(f);
    uint64_t spot = hash % size, spotLength = (hash >> 32) % (4u << 20) + 1;
    if (l) {
        // Each allocated block with a sector of its neighbours on either side.
        uint64_t bs = img.blockSize();
        for (size_t i = 0; i < allocatedBlocks.size() && i < 64; ++i) {
            uint64_t start = allocatedBlocks[i] * bs;
            checkRange(f, img, l, start >= 512 ? start - 512 : 0, bs + 1024);
        }
    }
    if (wide) {
        checkRange(f, img, l, 0, 1 << 20);
        checkRange(f, img, l, size - 1, 1);
        checkRange(f, img, l, spot, spotLength);
        checkRange(f, img, l, size, 512);
        return;
    }
    // One accepted dynamic image in 1024, chosen by its bytes: a rebuilt one
    // costs about a hundred ordinary runs, and the wide table's own paths are
    // few, so more would mostly slow the fuzzer down. The disk grown to
    // kWideEntries blocks must stay within the largest size.
    if (l && (hash & 1023) == 0 && img.blockSize() <= (1u << 20)) next = widen(f, footer, *l, img.blockSize());
    const uint64_t ranges[][2] = {
        {0, size},
        {0, 1},
        {size - 1, 1},
        {size / 2 > 700 ? size / 2 - 700 : 0, 1400},
        {size > 512 ? size - 512 : 0, 1 << 20},
        {spot, spotLength},
        {spot, UINT64_MAX - spot},
        {size, 512},
        {size + 4096, 1},
        {spot, 0},
    };
    for (const auto& r : ranges) checkRange(f, img, l, r[0], r[1]);
}

void exercise(InputFile& file, const Bytes& f, bool raw, bool wide = false) {
    const std::string& path = file.put(f);
    std::optional<VhdImage> img;
    try {
        img.emplace(VhdImage::open(path, raw, 0));
    } catch (const StoreError& e) {
        check(std::strlen(e.what()) > 0, "a refusal says why");
        if (wide) {
            std::fprintf(stderr, "vhd_reader_fuzz: an accepted image rebuilt with a long table was refused: %s\n", e.what());
            std::abort();
        }
        return;
    }
    Bytes next;
    try {
        walk(f, *img, raw, wide, next);
    } catch (const StoreError& e) {
        std::fprintf(stderr, "vhd_reader_fuzz: a file open() accepted failed later: %s\n", e.what());
        std::abort();
    }
    img.reset();  // the rebuilt file goes into the same memory file
    if (!next.empty()) exercise(file, next, false, true);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static InputFile file;
    static const bool fixing = fixingEnabled();
    // The reader notes a damaged footer copy in the log; mutants have many.
    static const bool quiet = (zxblk::LogSink::setLevel(-1), zxblk::LogSink::setFile("/dev/null"), true);
    (void)quiet;
    Bytes input(data, data + size);
    exercise(file, input, false);
    exercise(file, input, true);
    if (fixing) {
        Bytes fixed = input;
        fixChecksums(fixed);
        if (fixed != input) exercise(file, fixed, false);
    }
    return 0;
}
