#include "store/vhd_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/Log.h"

namespace zxblk {
namespace {

const uint64_t kMaxVirtualSize = 2040ULL << 30;  // the largest disk the format describes
const uint32_t kMaxBlockSize = 256u << 20;
// Every block of the largest disk at 512 KiB a block; more allocated blocks
// than that is no disk anyone writes, and would cost memory for nothing.
const uint64_t kMaxAllocatedBlocks = 1u << 22;
const uint64_t kTableSlice = 16384;          // entries read at a time
const uint64_t kDenseTableBytes = 4u << 20;  // a whole table this small is kept as it is

uint32_t be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3]; }
uint64_t be64(const uint8_t* p) { return uint64_t(be32(p)) << 32 | be32(p + 4); }

// The one's complement of the byte sum, the checksum field counted as zero.
uint32_t checksum(const uint8_t* p, size_t n, size_t fieldAt) {
    uint32_t sum = 0;
    for (size_t i = 0; i < n; ++i)
        if (i < fieldAt || i >= fieldAt + 4) sum += p[i];
    return ~sum;
}

std::string utf16beToUtf8(const uint8_t* p, size_t n) {
    std::string out;
    for (size_t i = 0; i + 1 < n; i += 2) {
        uint32_t c = uint32_t(p[i]) << 8 | p[i + 1];
        if (c == 0) break;
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | c >> 6);
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xE0 | c >> 12);
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

}  // namespace

const char* kindName(ImageKind kind) {
    switch (kind) {
        case ImageKind::Raw: return "raw";
        case ImageKind::Fixed: return "fixed VHD";
        case ImageKind::Dynamic: return "dynamic VHD";
        case ImageKind::Differencing: return "differencing VHD";
    }
    return "?";
}

std::string uniqueIdText(const UniqueId& id) {
    static const char* hex = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < id.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out += '-';
        out += hex[id[i] >> 4];
        out += hex[id[i] & 15];
    }
    return out;
}

void VhdImage::fail(const std::string& field, const std::string& why) const {
    throw StoreError(ErrorKind::corruption, m_path + ": " + field + ": " + why);
}

VhdImage::VhdImage(VhdImage&& o) noexcept { *this = std::move(o); }

VhdImage& VhdImage::operator=(VhdImage&& o) noexcept {
    if (this != &o) {
        m_path = std::move(o.m_path);
        m_reader = std::move(o.m_reader);
        m_stamp = o.m_stamp;
        m_kind = o.m_kind;
        m_format = o.m_format;
        m_vhdx = std::move(o.m_vhdx);
        m_size = o.m_size;
        m_blockSize = o.m_blockSize;
        m_bitmapBytes = o.m_bitmapBytes;
        m_blocks = o.m_blocks;
        m_uniqueId = o.m_uniqueId;
        m_parentId = o.m_parentId;
        m_parentName = std::move(o.m_parentName);
        m_dense = std::move(o.m_dense);
        m_sparse = std::move(o.m_sparse);
        m_sums = std::move(o.m_sums);
        m_sumsError = std::move(o.m_sumsError);
        m_sumsLoader = std::move(o.m_sumsLoader);
        m_note = std::move(o.m_note);
        m_verified = std::move(o.m_verified);
        m_verifyLocks = std::move(o.m_verifyLocks);
    }
    return *this;
}

VhdImage::~VhdImage() = default;

void VhdImage::readAt(uint64_t offset, void* buffer, size_t length) const {
    m_reader->readAt(offset, buffer, length);
}

void VhdImage::readSkippingHoles(uint64_t offset, uint8_t* buffer, size_t length) const {
    for (uint64_t at = offset, end = offset + length; at < end;) {
        const auto data = m_reader->dataIn(at, end - at);
        std::memset(buffer + (at - offset), 0, data.first - at);
        if (data.first < data.second) readAt(data.first, buffer + (data.first - offset), data.second - data.first);
        at = data.second;
    }
}

// The fields of one footer copy, or what makes it unusable.
struct VhdImage::Footer {
    std::string field, why;  // empty when the copy is sound
    uint32_t type = 0;
    uint64_t dataOffset = 0, size = 0;
    UniqueId id{};
    bool sound() const { return field.empty(); }
    static Footer parse(const uint8_t* p) {
        Footer f;
        if (std::memcmp(p, "conectix", 8) != 0) {
            f.field = "cookie";
            f.why = "not a VHD file (no \"conectix\" footer)";
        } else if (be32(p + 64) != checksum(p, 512, 64)) {
            f.field = "checksum";
            f.why = "does not match the footer";
        }
        f.type = be32(p + 60);
        f.dataOffset = be64(p + 16);
        f.size = be64(p + 48);
        std::memcpy(f.id.data(), p + 68, 16);
        return f;
    }
};

// A dynamic or differencing file keeps its footer twice, at the end and at
// offset 0. One damaged copy is survivable (`note` says which one was used);
// two sound copies that disagree mean someone edited one of them, and the
// file cannot be trusted to be either disk.
VhdImage::Footer VhdImage::chooseFooter(std::string& note) const {
    uint8_t bytes[512];
    readAt(m_stamp.size - 512, bytes, 512);
    Footer tail = Footer::parse(bytes);
    if (tail.sound() && tail.type != 3 && tail.type != 4) return tail;  // a fixed disk keeps no copy at its start
    Footer head;
    if (m_stamp.size >= 1024) {
        readAt(0, bytes, 512);
        head = Footer::parse(bytes);
    } else {
        head.field = "size";
        head.why = "the file is too short to hold it";
    }
    if (!tail.sound()) {
        if (!head.sound() || (head.type != 3 && head.type != 4)) fail("footer " + tail.field, tail.why);
        note = "the footer at the end is damaged (" + tail.field + ": " + tail.why + "); using its copy at offset 0";
        return head;
    }
    if (!head.sound()) {
        note = "the footer copy at offset 0 is damaged (" + head.field + ": " + head.why + "); using the footer at the end";
        return tail;
    }
    auto differs = [&](const char* field, const std::string& atStart, const std::string& atEnd) {
        if (atStart != atEnd)
            fail("footer copy at offset 0", std::string(field) + " " + atStart + " differs from the footer at the end (" +
                                                atEnd + ")");
    };
    differs("current size", std::to_string(head.size), std::to_string(tail.size));
    differs("disk type", std::to_string(head.type), std::to_string(tail.type));
    differs("data offset", std::to_string(head.dataOffset), std::to_string(tail.dataOffset));
    differs("unique id", uniqueIdText(head.id), uniqueIdText(tail.id));
    return tail;
}

std::string VhdImage::kindText() const {
    if (m_format != FileFormat::Vhdx) return kindName(m_kind);
    return m_kind == ImageKind::Differencing ? "differencing VHDX" : m_vhdx->fixed() ? "fixed VHDX" : "dynamic VHDX";
}

VhdImage VhdImage::open(const std::string& path, FileFormat format, uint64_t rawSize) {
    return open(openLocalFile(path), format, rawSize);
}

VhdImage VhdImage::open(std::unique_ptr<ObjectReader> reader, FileFormat format, uint64_t rawSize) {
    VhdImage img;
    img.m_path = reader->name();
    img.m_stamp = reader->stamp();
    img.m_reader = std::move(reader);
    img.m_format = format;
    const uint64_t fileSize = img.m_stamp.size;
    if (format == FileFormat::Vhdx) {
        img.openVhdx();
        img.m_reader->opened();
        return img;
    }
    if (format == FileFormat::Raw) {
        img.m_kind = ImageKind::Raw;
        if (fileSize == 0 && rawSize == 0) img.fail("size", "an empty image holds no disk");
        if (fileSize % 512) img.fail("size", std::to_string(fileSize) + " bytes is not a whole number of 512-byte sectors");
        img.m_size = rawSize ? rawSize : fileSize;
        return img;
    }
    if (fileSize < 512) img.fail("footer", "file of " + std::to_string(fileSize) + " bytes is too short for a VHD footer");
    std::string note;
    Footer footer = img.chooseFooter(note);
    img.m_size = footer.size;
    img.m_uniqueId = footer.id;
    if (img.m_size == 0 || img.m_size % 512 || img.m_size > kMaxVirtualSize)
        img.fail("current size", std::to_string(img.m_size) + " bytes is not a disk size this format allows");
    if (footer.type == 2) {
        img.m_kind = ImageKind::Fixed;
        if (fileSize != img.m_size + 512)
            img.fail("current size", "a fixed disk of " + std::to_string(img.m_size) + " bytes needs a file of " +
                                         std::to_string(img.m_size + 512) + " bytes, not " + std::to_string(fileSize));
        img.m_reader->opened();
        return img;
    }
    if (footer.type != 3 && footer.type != 4)
        img.fail("disk type", std::to_string(footer.type) + " is not fixed (2), dynamic (3) or differencing (4)");
    img.m_kind = footer.type == 3 ? ImageKind::Dynamic : ImageKind::Differencing;
    img.readDynamic(footer.dataOffset);
    // Said only of a file that is otherwise sound: a refused one gets one line.
    img.m_note = note;
    img.m_reader->opened();
    return img;
}

void VhdImage::openVhdx() {
    std::string replayed;
    m_vhdx.reset(new VhdxLayout(VhdxLayout::open(m_reader, replayed)));
    const VhdxLayout& x = *m_vhdx;
    m_kind = x.hasParent() ? ImageKind::Differencing : ImageKind::Dynamic;
    m_size = x.size();
    m_blockSize = x.blockSize();
    m_blocks = static_cast<uint32_t>(x.blocks());
    // The bitmap a VHD of these blocks would keep: what the stream of a
    // differencing copy sends, whatever the file's logical sector size.
    m_bitmapBytes = static_cast<uint32_t>((m_blockSize / 512 / 8 + 511) / 512 * 512);
    m_uniqueId = x.dataWriteGuid();
    m_parentId = x.parentLinkage();
    m_parentName = x.parentPath();
    m_note = x.note().empty() ? replayed : replayed.empty() ? x.note() : x.note() + "; " + replayed;
}

void VhdImage::readDynamic(uint64_t headerOffset) {
    uint64_t end = m_stamp.size - 512;  // the footer at the end
    if (headerOffset < 512 || headerOffset > end || end - headerOffset < 1024)
        fail("data offset", std::to_string(headerOffset) + " does not point at a dynamic header inside the file");
    uint8_t h[1024];
    readAt(headerOffset, h, 1024);
    if (std::memcmp(h, "cxsparse", 8) != 0) fail("dynamic header cookie", "no \"cxsparse\" header at " + std::to_string(headerOffset));
    if (be32(h + 36) != checksum(h, 1024, 36)) fail("dynamic header checksum", "does not match the header");
    uint64_t tableOffset = be64(h + 16);
    uint32_t entries = be32(h + 28);
    m_blockSize = be32(h + 32);
    std::memcpy(m_parentId.data(), h + 40, 16);
    m_parentName = utf16beToUtf8(h + 64, 512);
    if (m_blockSize < 512 || m_blockSize > kMaxBlockSize || (m_blockSize & (m_blockSize - 1)))
        fail("block size", std::to_string(m_blockSize) + " is not a power of two from 512 bytes to 256 MiB");
    uint64_t needed = (m_size + m_blockSize - 1) / m_blockSize;
    if (entries < needed)
        fail("max table entries", std::to_string(entries) + " blocks cannot hold a disk of " + std::to_string(m_size) + " bytes");
    if (entries > needed + (1u << 20)) fail("max table entries", std::to_string(entries) + " is absurd for this disk");
    m_blocks = static_cast<uint32_t>(needed);
    uint64_t sectorsPerBlock = m_blockSize / 512;
    m_bitmapBytes = static_cast<uint32_t>(((sectorsPerBlock + 7) / 8 + 511) / 512 * 512);
    uint64_t tableBytes = uint64_t(entries) * 4;
    if (tableOffset < 512 || tableOffset > end || end - tableOffset < tableBytes)
        fail("table offset", "block allocation table at " + std::to_string(tableOffset) + " runs past the end of the file");
    if (tableOffset < headerOffset + 1024 && headerOffset < tableOffset + tableBytes)
        fail("table offset", "block allocation table at " + std::to_string(tableOffset) + " overlaps the dynamic header");
    // A differencing disk keeps its parent's locators in sectors of their own
    // (code, space, length, offset): no block may lie over one it uses.
    std::vector<std::pair<uint64_t, uint64_t>> locators;
    for (int i = 0; i < 8 && m_kind == ImageKind::Differencing; ++i) {
        const uint8_t* l = h + 576 + 24 * i;
        uint64_t length = be32(l + 8), offset = be64(l + 16);
        if (be32(l) != 0 && length && offset < m_stamp.size) locators.emplace_back(offset, (length + 511) / 512 * 512);
    }
    readTable(tableOffset, tableBytes, headerOffset, locators);
}

// Reads the table a slice at a time and keeps only its allocated entries, so
// that a huge table that holds little costs little, and one that claims more
// blocks than the file has room for is refused as soon as it does.
void VhdImage::readTable(uint64_t tableOffset, uint64_t tableBytes, uint64_t headerOffset,
                         const std::vector<std::pair<uint64_t, uint64_t>>& locators) {
    const uint64_t end = m_stamp.size - 512, span = uint64_t(m_bitmapBytes) + m_blockSize;
    const uint64_t room = (end - 512) / span;  // blocks that fit between the two footers
    const uint64_t most = std::min(room, kMaxAllocatedBlocks);
    auto clash = [](uint64_t start, uint64_t stop, uint64_t from, uint64_t length) { return start < from + length && from < stop; };
    std::vector<Allocation> allocated;
    std::vector<uint8_t> slice;
    for (uint64_t first = 0; first < m_blocks; first += kTableSlice) {
        uint64_t n = std::min<uint64_t>(kTableSlice, m_blocks - first);
        slice.resize(n * 4);
        readAt(tableOffset + first * 4, slice.data(), slice.size());
        for (uint64_t i = 0; i < n; ++i) {
            uint32_t sector = be32(slice.data() + i * 4);
            if (sector == kUnallocated) continue;
            uint64_t b = first + i, start = uint64_t(sector) * 512, stop = start + span;
            auto refuse = [&](const std::string& why) { fail("block allocation table entry " + std::to_string(b), why); };
            if (stop > end)
                refuse("block at " + std::to_string(start) + " runs past the end of the file (" + std::to_string(m_stamp.size) +
                       " bytes)");
            if (start < 512 || clash(start, stop, headerOffset, 1024) || clash(start, stop, tableOffset, tableBytes))
                refuse("block overlaps the footer copy, the dynamic header or the table");
            for (const auto& l : locators)
                if (clash(start, stop, l.first, l.second)) refuse("block overlaps a parent locator");
            if (allocated.size() == most)
                refuse(most == room ? "more allocated blocks than a file of " + std::to_string(m_stamp.size) +
                                          " bytes can hold (" + std::to_string(room) + ")"
                                    : "more than " + std::to_string(most) + " allocated blocks, the most a disk here may have");
            allocated.emplace_back(static_cast<uint32_t>(b), sector);
        }
    }
    // In file order every block must end before the next one starts.
    std::sort(allocated.begin(), allocated.end(), [](const Allocation& a, const Allocation& b) { return a.second < b.second; });
    for (size_t i = 1; i < allocated.size(); ++i)
        if (uint64_t(allocated[i].second - allocated[i - 1].second) * 512 < span)
            fail("block allocation table entry " + std::to_string(allocated[i].first), "block overlaps another block");
    std::sort(allocated.begin(), allocated.end());
    if (uint64_t(m_blocks) * sizeof(uint32_t) <= std::max<uint64_t>(kDenseTableBytes, allocated.size() * sizeof(allocated[0]))) {
        m_dense.assign(m_blocks, kUnallocated);
        for (const auto& a : allocated) m_dense[a.first] = a.second;
    } else {
        allocated.shrink_to_fit();
        m_sparse = std::move(allocated);
    }
}

uint32_t VhdImage::sectorOf(uint64_t block) const {
    if (block >= m_blocks) return kUnallocated;
    if (!m_dense.empty()) return m_dense[block];
    auto it = std::lower_bound(m_sparse.begin(), m_sparse.end(), block,
                               [](const Allocation& e, uint64_t b) { return e.first < b; });
    return it != m_sparse.end() && it->first == block ? it->second : kUnallocated;
}

bool VhdImage::isBlockAllocated(uint64_t block) const {
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return true;
    if (m_vhdx) {
        VhdxLayout::Held held = m_vhdx->block(block).held;
        return held == VhdxLayout::Held::Data || held == VhdxLayout::Held::Partial;
    }
    return sectorOf(block) != kUnallocated;
}

void VhdImage::prefetch(uint64_t offset, uint64_t length) const {
    if (offset >= m_size) return;
    length = std::min(length, m_size - offset);
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return m_reader->prefetch(offset, length);
    if (m_vhdx) {
        for (uint64_t u = nextHeldUnit(offset / m_blockSize); u < sumUnits() && u * m_blockSize < offset + length;
             u = nextHeldUnit(u + 1)) {
            const VhdxLayout::Block b = m_vhdx->block(u);
            if (b.held == VhdxLayout::Held::Partial) {
                const auto place = m_vhdx->bitmapPlace(u);
                m_reader->prefetch(place.first, place.second);
            }
            m_reader->prefetch(b.offset, m_vhdx->blockBytes(u));
        }
        return;
    }
    for (uint64_t u = nextHeldUnit(offset / m_blockSize); u < sumUnits() && u * m_blockSize < offset + length;
         u = nextHeldUnit(u + 1))
        m_reader->prefetch(blockDataOffset(u) - m_bitmapBytes, uint64_t(m_bitmapBytes) + m_blockSize);
}

uint64_t VhdImage::blockDataOffset(uint64_t block) const {
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return 0;
    if (m_vhdx) {
        if (!isBlockAllocated(block)) fail("block " + std::to_string(block), "not allocated");
        return m_vhdx->block(block).offset;
    }
    uint32_t sector = sectorOf(block);
    if (sector == kUnallocated) fail("block " + std::to_string(block), "not allocated");
    return uint64_t(sector) * 512 + m_bitmapBytes;
}

std::vector<uint8_t> VhdImage::readBlockBitmap(uint64_t block) const {
    std::vector<uint8_t> bitmap(m_bitmapBytes, 0);
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return std::vector<uint8_t>(m_bitmapBytes, 0xFF);
    if (m_vhdx) {
        m_vhdx->bitmap(*m_reader, block, bitmap.data(), bitmap.size());
        return bitmap;
    }
    uint32_t sector = sectorOf(block);
    if (sector == kUnallocated) return bitmap;
    readAt(uint64_t(sector) * 512, bitmap.data(), m_bitmapBytes);
    return bitmap;
}

std::vector<Piece> VhdImage::pieces(uint64_t offset, uint64_t length) const {
    std::vector<Piece> out;
    uint64_t end = std::min(offset + length, m_size);
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) {
        if (offset < end) out.push_back({offset, end - offset, static_cast<int64_t>(offset), 0});
        return out;
    }
    for (uint64_t at = offset; at < end;) {
        uint64_t block = at / m_blockSize, within = at % m_blockSize;
        uint64_t n = std::min<uint64_t>(end - at, m_blockSize - within);
        int64_t file = -1;
        if (m_vhdx) {  // one look at the table per block
            const VhdxLayout::Block b = m_vhdx->block(block);
            if (b.held == VhdxLayout::Held::Data) {
                fullBlockPieces(at, n, b.offset + within, block, out);
                at += n;
                continue;
            }
            if (b.held == VhdxLayout::Held::Partial)
                file = static_cast<int64_t>(b.offset + within);
            else if (b.held == VhdxLayout::Held::Zeros)
                file = kZeroHeld;
        } else if (isBlockAllocated(block)) {
            file = static_cast<int64_t>(blockDataOffset(block) + within);
        }
        out.push_back({at, n, file, block});
        at += n;
    }
    return out;
}

void VhdImage::fullBlockPieces(uint64_t at, uint64_t length, uint64_t file, uint64_t block, std::vector<Piece>& out) const {
    // Writers leave what a block never had written as a hole in the file
    // (qemu-img does): such a stretch is zeros without a read. In a
    // differencing file they are zeros that hide the parent, as every
    // sector of the block is present.
    const int64_t hole = m_kind == ImageKind::Differencing ? kZeroHeld : -1;
    for (uint64_t done = 0; done < length;) {
        const auto data = m_reader->dataIn(file + done, length - done);
        if (data.first > file + done) out.push_back({at + done, data.first - file - done, hole, block});
        if (data.first < data.second)
            out.push_back({at + data.first - file, data.second - data.first, static_cast<int64_t>(data.first), block});
        done = data.second - file;
    }
}

bool VhdImage::holdsAny(uint64_t offset, uint64_t length) const {
    for (const Piece& p : pieces(offset, length))
        if (p.fileOffset >= 0) return true;
    return false;
}

bool VhdImage::hidesAll(uint64_t offset, uint64_t length) const {
    if (!m_vhdx || m_kind != ImageKind::Differencing) return false;
    std::vector<Piece> all = pieces(offset, length);
    for (const Piece& p : all)
        if (p.fileOffset != kZeroHeld) return false;
    return !all.empty();
}

int64_t VhdImage::holdingPosition(uint64_t offset, uint64_t length) const {
    return holdingPosition(pieces(offset, length));
}

int64_t VhdImage::holdingPosition(const std::vector<Piece>& pieces) {
    int64_t zeros = -1;
    for (const Piece& p : pieces) {
        if (p.fileOffset >= 0) return p.fileOffset;
        if (p.fileOffset == kZeroHeld && zeros < 0) zeros = static_cast<int64_t>(p.virtualOffset);
    }
    return zeros;
}

}  // namespace zxblk
