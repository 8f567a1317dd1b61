#include "store/vhd_diff_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <random>
#include <vector>

#include "store/vhd_image.h"

namespace zxblk {
namespace {

void put32(uint8_t* p, uint32_t v) { p[0] = v >> 24, p[1] = v >> 16, p[2] = v >> 8, p[3] = v; }
void put64(uint8_t* p, uint64_t v) { put32(p, uint32_t(v >> 32)), put32(p + 4, uint32_t(v)); }
uint32_t sum(const uint8_t* p, size_t n) {
    uint32_t s = 0;
    for (size_t i = 0; i < n; ++i) s += p[i];
    return ~s;
}

struct File {
    int fd;
    std::string path;
    File(const std::string& p, int flags) : fd(::open(p.c_str(), flags | O_CLOEXEC, 0644)), path(p) {
        if (fd < 0) throw StoreError(p + ": " + std::strerror(errno));
    }
    ~File() { ::close(fd); }
    void readAt(uint64_t at, void* buf, size_t n) const {
        ssize_t got = ::pread(fd, buf, n, static_cast<off_t>(at));
        if (got != static_cast<ssize_t>(n)) throw StoreError(path + ": short read at " + std::to_string(at));
    }
    void writeAt(uint64_t at, const void* buf, size_t n) const {
        if (::pwrite(fd, buf, n, static_cast<off_t>(at)) != static_cast<ssize_t>(n))
            throw StoreError(path + ": " + std::strerror(errno));
    }
};

}  // namespace

static DiffStats writeBlocks(const VhdImage& parent, const File& older, const File& newer, const std::string& temp,
                             const std::string& childVhd, uint32_t blockSize, uint64_t size);

DiffStats writeDifferencingVhd(const std::string& parentVhd, const std::string& olderRaw, const std::string& newerRaw,
                               const std::string& childVhd, uint32_t blockSize) {
    VhdImage parent = VhdImage::open(parentVhd);
    uint64_t size = parent.virtualSize();
    File older(olderRaw, O_RDONLY), newer(newerRaw, O_RDONLY);
    if (::lseek(older.fd, 0, SEEK_END) != static_cast<off_t>(size) || ::lseek(newer.fd, 0, SEEK_END) != static_cast<off_t>(size))
        throw StoreError(newerRaw + ": both raw images must be " + std::to_string(size) + " bytes, as " + parentVhd);
    std::string temp = childVhd + ".partial";
    try {
        return writeBlocks(parent, older, newer, temp, childVhd, blockSize, size);
    } catch (...) {
        ::unlink(temp.c_str());
        throw;
    }
}

static DiffStats writeBlocks(const VhdImage& parent, const File& older, const File& newer, const std::string& temp,
                             const std::string& childVhd, uint32_t blockSize, uint64_t size) {
    File out(temp, O_WRONLY | O_CREAT | O_TRUNC);
    std::string parentVhd = parent.path();
    const uint64_t blocks = (size + blockSize - 1) / blockSize, perBlock = blockSize / 512;
    const uint32_t bitmapBytes = static_cast<uint32_t>(((perBlock + 7) / 8 + 511) / 512 * 512);
    const uint64_t batBytes = (blocks * 4 + 511) / 512 * 512;

    std::mt19937_64 rng(static_cast<uint64_t>(std::time(nullptr)) ^ static_cast<uint64_t>(::getpid()));
    uint8_t footer[512] = {0};
    std::memcpy(footer, "conectix", 8);
    put32(footer + 8, 2);
    put32(footer + 12, 0x00010000);
    put64(footer + 16, 512);
    put32(footer + 24, static_cast<uint32_t>(std::time(nullptr) - 946684800));  // seconds since 2000
    std::memcpy(footer + 28, "zxbk", 4);
    put32(footer + 32, 0x00010000);
    std::memcpy(footer + 36, "Wi2k", 4);
    put64(footer + 40, size);
    put64(footer + 48, size);
    put32(footer + 60, 4);
    for (int i = 0; i < 16; ++i) footer[68 + i] = static_cast<uint8_t>(rng());
    put32(footer + 64, sum(footer, 512));

    std::string parentName = parentVhd.substr(parentVhd.rfind('/') + 1);
    uint8_t header[1024] = {0};
    std::memcpy(header, "cxsparse", 8);
    put64(header + 8, ~0ULL);
    put64(header + 16, 1536);
    put32(header + 24, 0x00010000);
    put32(header + 28, static_cast<uint32_t>(blocks));
    put32(header + 32, blockSize);
    std::memcpy(header + 40, parent.uniqueId().data(), 16);
    for (size_t i = 0; i < parentName.size() && i < 255; ++i) header[64 + 2 * i + 1] = static_cast<uint8_t>(parentName[i]);
    std::vector<uint8_t> locator;
    for (char c : ".\\" + parentName) locator.push_back(static_cast<uint8_t>(c)), locator.push_back(0);
    uint64_t next = 1536 + batBytes;
    std::memcpy(header + 576, "W2ru", 4);
    put32(header + 580, 512);
    put32(header + 584, static_cast<uint32_t>(locator.size()));
    put64(header + 592, next);
    locator.resize(512, 0);
    out.writeAt(next, locator.data(), 512);
    next += 512;
    put32(header + 36, sum(header, 1024));

    DiffStats stats;
    std::vector<uint8_t> bat(batBytes, 0xFF), a(blockSize), b(blockSize);
    for (uint64_t block = 0; block < blocks; ++block) {
        uint64_t start = block * blockSize, n = std::min<uint64_t>(blockSize, size - start);
        older.readAt(start, a.data(), n);
        newer.readAt(start, b.data(), n);
        if (std::memcmp(a.data(), b.data(), n) == 0) continue;
        std::vector<uint8_t> bitmap(bitmapBytes, 0), data(blockSize, 0);
        for (uint64_t s = 0; s < n / 512; ++s) {
            if (std::memcmp(a.data() + s * 512, b.data() + s * 512, 512) == 0) continue;
            bitmap[s / 8] |= static_cast<uint8_t>(0x80u >> (s % 8));
            std::memcpy(data.data() + s * 512, b.data() + s * 512, 512);
            ++stats.sectorsChanged;
        }
        put32(bat.data() + block * 4, static_cast<uint32_t>(next / 512));
        out.writeAt(next, bitmap.data(), bitmapBytes);
        out.writeAt(next + bitmapBytes, data.data(), blockSize);
        next += bitmapBytes + blockSize;
        ++stats.blocksAllocated;
    }
    out.writeAt(0, footer, 512);
    out.writeAt(512, header, 1024);
    out.writeAt(1536, bat.data(), bat.size());
    out.writeAt(next, footer, 512);
    if (::fsync(out.fd) != 0 || ::rename(temp.c_str(), childVhd.c_str()) != 0)
        throw StoreError(childVhd + ": " + std::strerror(errno));
    return stats;
}

}  // namespace zxblk
