#include "store/vhd_image.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace zxblk {
namespace {

const uint32_t kUnallocated = 0xFFFFFFFFu;
const uint64_t kMaxVirtualSize = 2040ULL << 30;  // the largest disk the format describes
const uint32_t kMaxBlockSize = 256u << 20;

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
    throw StoreError(m_path + ": " + field + ": " + why);
}

VhdImage::VhdImage(VhdImage&& o) noexcept { *this = std::move(o); }

VhdImage& VhdImage::operator=(VhdImage&& o) noexcept {
    if (this != &o) {
        if (m_fd >= 0) ::close(m_fd);
        m_path = std::move(o.m_path);
        m_fd = o.m_fd;
        o.m_fd = -1;
        m_kind = o.m_kind;
        m_size = o.m_size;
        m_fileSize = o.m_fileSize;
        m_blockSize = o.m_blockSize;
        m_bitmapBytes = o.m_bitmapBytes;
        m_uniqueId = o.m_uniqueId;
        m_parentId = o.m_parentId;
        m_parentName = std::move(o.m_parentName);
        m_bat = std::move(o.m_bat);
    }
    return *this;
}

VhdImage::~VhdImage() {
    if (m_fd >= 0) ::close(m_fd);
}

void VhdImage::readAt(uint64_t offset, void* buffer, size_t length) const {
    size_t done = 0;
    while (done < length) {
        ssize_t n = ::pread(m_fd, static_cast<char*>(buffer) + done, length - done, static_cast<off_t>(offset + done));
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) fail("data at offset " + std::to_string(offset + done), std::strerror(errno));
        if (n == 0)
            fail("data at offset " + std::to_string(offset + done),
                 "file ends early (it was shortened after it was checked?)");
        done += static_cast<size_t>(n);
    }
}

VhdImage VhdImage::open(const std::string& path, bool raw, uint64_t rawSize) {
    VhdImage img;
    img.m_path = path;
    img.m_fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (img.m_fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    struct stat st;
    if (::fstat(img.m_fd, &st) != 0 || !S_ISREG(st.st_mode)) img.fail("file", "not a regular file");
    img.m_fileSize = static_cast<uint64_t>(st.st_size);
    if (raw) {
        img.m_kind = ImageKind::Raw;
        if (img.m_fileSize == 0 && rawSize == 0) img.fail("size", "an empty image holds no disk");
        if (img.m_fileSize % 512) img.fail("size", std::to_string(img.m_fileSize) + " bytes is not a whole number of 512-byte sectors");
        img.m_size = rawSize ? rawSize : img.m_fileSize;
        return img;
    }
    if (img.m_fileSize < 512) img.fail("footer", "file of " + std::to_string(img.m_fileSize) + " bytes is too short for a VHD footer");
    uint8_t footer[512];
    img.readAt(img.m_fileSize - 512, footer, 512);
    if (std::memcmp(footer, "conectix", 8) != 0) img.fail("footer cookie", "not a VHD file (no \"conectix\" footer)");
    if (be32(footer + 64) != checksum(footer, 512, 64)) img.fail("footer checksum", "does not match the footer");
    uint32_t type = be32(footer + 60);
    img.m_size = be64(footer + 48);
    std::memcpy(img.m_uniqueId.data(), footer + 68, 16);
    if (img.m_size == 0 || img.m_size % 512 || img.m_size > kMaxVirtualSize)
        img.fail("current size", std::to_string(img.m_size) + " bytes is not a disk size this format allows");
    if (type == 2) {
        img.m_kind = ImageKind::Fixed;
        if (img.m_fileSize != img.m_size + 512)
            img.fail("current size", "a fixed disk of " + std::to_string(img.m_size) + " bytes needs a file of " +
                                         std::to_string(img.m_size + 512) + " bytes, not " + std::to_string(img.m_fileSize));
        return img;
    }
    if (type != 3 && type != 4) img.fail("disk type", std::to_string(type) + " is not fixed (2), dynamic (3) or differencing (4)");
    img.m_kind = type == 3 ? ImageKind::Dynamic : ImageKind::Differencing;
    uint64_t headerOffset = be64(footer + 16);
    img.readDynamic(headerOffset);
    return img;
}

void VhdImage::readDynamic(uint64_t headerOffset) {
    uint64_t end = m_fileSize - 512;  // the footer copy at the end
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
    uint64_t sectorsPerBlock = m_blockSize / 512;
    m_bitmapBytes = static_cast<uint32_t>(((sectorsPerBlock + 7) / 8 + 511) / 512 * 512);
    uint64_t tableBytes = uint64_t(entries) * 4;
    if (tableOffset < 512 || tableOffset > end || end - tableOffset < tableBytes)
        fail("table offset", "block allocation table at " + std::to_string(tableOffset) + " runs past the end of the file");
    std::vector<uint8_t> table(tableBytes);
    readAt(tableOffset, table.data(), tableBytes);
    m_bat.resize(needed);
    struct Range {
        uint64_t start, end, block;
    };
    std::vector<Range> used = {{headerOffset, headerOffset + 1024, ~0ULL}, {tableOffset, tableOffset + tableBytes, ~0ULL}};
    for (uint64_t b = 0; b < needed; ++b) {
        uint32_t sector = be32(table.data() + b * 4);
        m_bat[b] = sector;
        if (sector == kUnallocated) continue;
        uint64_t start = uint64_t(sector) * 512, stop = start + m_bitmapBytes + m_blockSize;
        if (stop > end)
            fail("block allocation table entry " + std::to_string(b),
                 "block at " + std::to_string(start) + " runs past the end of the file (" + std::to_string(m_fileSize) + " bytes)");
        used.push_back({start, stop, b});
    }
    std::sort(used.begin(), used.end(), [](const Range& a, const Range& b) { return a.start < b.start; });
    for (size_t i = 1; i < used.size(); ++i)
        if (used[i].start < used[i - 1].end) {
            const Range& r = used[i].block != ~0ULL ? used[i] : used[i - 1];
            fail("block allocation table entry " + std::to_string(r.block), "block overlaps another block or the table");
        }
}

bool VhdImage::isBlockAllocated(uint64_t block) const {
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return true;
    return block < m_bat.size() && m_bat[block] != kUnallocated;
}

uint64_t VhdImage::blockDataOffset(uint64_t block) const {
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return 0;
    return uint64_t(m_bat.at(block)) * 512 + m_bitmapBytes;
}

std::vector<uint8_t> VhdImage::readBlockBitmap(uint64_t block) const {
    std::vector<uint8_t> bitmap(m_bitmapBytes, 0);
    if (m_kind == ImageKind::Raw || m_kind == ImageKind::Fixed) return std::vector<uint8_t>(m_bitmapBytes, 0xFF);
    if (!isBlockAllocated(block)) return bitmap;
    readAt(uint64_t(m_bat[block]) * 512, bitmap.data(), m_bitmapBytes);
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
        int64_t file = isBlockAllocated(block) ? static_cast<int64_t>(blockDataOffset(block) + within) : -1;
        out.push_back({at, n, file, block});
        at += n;
    }
    return out;
}

bool VhdImage::holdsAny(uint64_t offset, uint64_t length) const {
    for (const Piece& p : pieces(offset, length))
        if (p.fileOffset >= 0) return true;
    return false;
}

}  // namespace zxblk
