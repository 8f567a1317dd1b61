#include "store/import_copy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <vector>

#include "store/fd_io.h"

namespace zxblk {
namespace {

// Stretches of a file as [start, end) offsets, in order.
using Ranges = std::vector<std::pair<uint64_t, uint64_t>>;

// Where the file holds data up to `size`; the rest are holes. A file system
// that cannot tell has the whole file as data.
Ranges dataRanges(int fd, uint64_t size, const std::string& path) {
    Ranges out;
    for (uint64_t at = 0; at < size;) {
        off_t data = ::lseek(fd, static_cast<off_t>(at), SEEK_DATA);
        if (data < 0 && errno == ENXIO) break;  // nothing but a hole from here on
        if (data < 0 && errno == EINVAL) {
            out.emplace_back(at, size);
            break;
        }
        if (data < 0) throw StoreError(path + ": cannot find its data: " + std::strerror(errno));
        if (static_cast<uint64_t>(data) >= size) break;
        off_t hole = ::lseek(fd, data, SEEK_HOLE);
        if (hole < 0) throw StoreError(path + ": cannot find its holes: " + std::strerror(errno));
        uint64_t end = hole > data ? std::min<uint64_t>(static_cast<uint64_t>(hole), size) : size;
        out.emplace_back(static_cast<uint64_t>(data), end);
        at = end;
    }
    return out;
}

bool holdsData(const Ranges& data, uint64_t start, uint64_t end) {
    auto it = std::upper_bound(data.begin(), data.end(), start,
                               [](uint64_t at, const std::pair<uint64_t, uint64_t>& r) { return at < r.second; });
    return it != data.end() && it->first < end;
}

// The checksum of `length` zero bytes, taken as VhdImage::sumOf takes one,
// for a block the file leaves as a hole: there is nothing to read.
uint64_t zeroSum(uint64_t length) {
    static const std::vector<uint8_t> zeros(1u << 20);
    Xxh3Stream state;
    for (uint64_t done = 0; done < length; done += zeros.size())
        state.update(zeros.data(), static_cast<size_t>(std::min<uint64_t>(zeros.size(), length - done)));
    return state.digest();
}

StoreError changedDuringImport(const VhdImage& img) {
    return StoreError(img.path() + ": changed since it was checked (written to or replaced during the import)");
}

// Runs of zeros in the data are found in aligned stretches of this size.
const uint64_t kZeroGranule = 64 << 10;
// The copy goes this far at a time, hashing the blocks it reaches first.
const uint64_t kCopyStep = 8 << 20;

}  // namespace

// Copies a checked image to `to` and returns its side file of checksums.
// Holes stay holes and are not read: the copy walks the file's data with
// SEEK_DATA/SEEK_HOLE and hands it to copy_file_range, which lets the
// kernel copy without a round trip through memory (or share the blocks,
// where the file system can). The checksums come from the same walk, in file
// order, so each block is read from the source once and then copied from the
// page cache; holes hash as zeros without a read, and runs of zeros the
// hashing reads are left as holes too.
std::string copyWithSums(const VhdImage& img, const std::string& name, Storage::Staging::Sink& sink,
                         const std::function<void(uint64_t)>& advanced) {
    ScopedFd in(::open(img.path().c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0) throw StoreError(img.path() + ": " + std::strerror(errno));
    struct stat st;
    if (::fstat(in.fd, &st) != 0 || FileStamp::of(st) != img.stamp()) throw changedDuringImport(img);
    const uint64_t size = img.fileSize();
    const Ranges data = dataRanges(in.fd, size, img.path());

    // The checksum units in file order: a fixed VHD or raw image's chunks
    // lie in order at their disk offsets, a VHD's blocks where its table says.
    const bool flat = img.kind() == ImageKind::Raw || img.kind() == ImageKind::Fixed;
    // A VHDX keeps its bitmaps apart from its blocks and its blocks' data
    // may be zeros the file never wrote: each block is hashed as a recall
    // reads it, and the walk below only copies.
    const bool vhdx = img.format() == FileFormat::Vhdx;
    std::vector<std::pair<uint64_t, uint64_t>> order;  // (offset of the block's bitmap, block)
    if (!flat && !vhdx) {
        for (uint64_t u = img.nextHeldUnit(0); u < img.sumUnits(); u = img.nextHeldUnit(u + 1))
            order.emplace_back(img.blockDataOffset(u) - img.bitmapBytes(), u);
        std::sort(order.begin(), order.end());
    }
    const uint64_t count = flat ? img.sumUnits() : order.size();
    BlockSums sums;
    sums.fileName = name;
    sums.unitBytes = img.sumUnitBytes();
    sums.units = img.sumUnits();
    sums.entries.reserve(count);
    for (uint64_t u = vhdx ? img.nextHeldUnit(0) : img.sumUnits(); u < img.sumUnits(); u = img.nextHeldUnit(u + 1))
        sums.entries.push_back({u, img.sumOf(u)});
    std::map<uint64_t, uint64_t> zeroSums;  // by length
    auto sumOfZeros = [&](uint64_t length) {
        auto it = zeroSums.find(length);
        return it != zeroSums.end() ? it->second : zeroSums[length] = zeroSum(length);
    };
    std::deque<std::pair<uint64_t, uint64_t>> zeros;  // runs of zeros in the data read, in file order
    static const std::vector<uint8_t> zeroGranule(kZeroGranule);
    std::vector<uint8_t> slice(VhdImage::kSumChunk);
    Xxh3Stream state;
    // Hashes [from, from + length) of the file, as VhdImage::sumOf does, but
    // reads only the data the file holds there: its holes hash as the zeros
    // they read as. Aligned runs of zeros in what it reads are noted.
    auto hashStretch = [&](uint64_t from, uint64_t length) {
        state.reset();
        auto range = std::upper_bound(data.begin(), data.end(), from,
                                      [](uint64_t at, const std::pair<uint64_t, uint64_t>& r) { return at < r.second; });
        for (uint64_t at = from, end = from + length; at < end;) {
            const uint64_t stop = std::min<uint64_t>(end, at + slice.size());
            uint64_t filled = at;
            for (; range != data.end() && range->first < stop; ++range) {
                const uint64_t a = std::max(range->first, at), b = std::min(range->second, stop);
                std::memset(slice.data() + (filled - at), 0, a - filled);
                for (uint64_t done = a; done < b;) {
                    ssize_t n = ::pread(in.fd, slice.data() + (done - at), b - done, static_cast<off_t>(done));
                    if (n < 0 && errno == EINTR) continue;
                    if (n < 0) throw StoreError(img.path() + ": " + std::strerror(errno));
                    if (n == 0) throw changedDuringImport(img);  // it ends before the size it had when checked
                    done += static_cast<uint64_t>(n);
                }
                for (uint64_t g = (a + kZeroGranule - 1) / kZeroGranule * kZeroGranule; g + kZeroGranule <= b;
                     g += kZeroGranule) {
                    if (std::memcmp(slice.data() + (g - at), zeroGranule.data(), kZeroGranule) != 0) continue;
                    if (!zeros.empty() && zeros.back().second == g)
                        zeros.back().second += kZeroGranule;
                    else
                        zeros.emplace_back(g, g + kZeroGranule);
                }
                filled = b;
                if (range->second > stop) break;  // it goes on into the next slice
            }
            std::memset(slice.data() + (filled - at), 0, stop - filled);
            state.update(slice.data(), stop - at);
            at = stop;
        }
        return state.digest();
    };
    uint64_t next = 0;
    auto sumUnitsBefore = [&](uint64_t limit) {
        for (; next < count; ++next) {
            const uint64_t unit = flat ? next : order[next].second;
            const uint64_t start = flat ? unit * VhdImage::kSumChunk : order[next].first;
            if (start >= limit) return;
            const uint64_t dataStart = flat ? start : start + img.bitmapBytes();
            const uint64_t length = flat ? std::min<uint64_t>(VhdImage::kSumChunk, img.virtualSize() - start) : img.blockSize();
            UnitSum sum;
            const bool hole = !holdsData(data, start, dataStart + length);
            if (!flat) sum.bitmap = hole ? sumOfZeros(img.bitmapBytes()) : hashStretch(start, img.bitmapBytes());
            sum.data = hole ? sumOfZeros(length) : hashStretch(dataStart, length);
            sums.entries.push_back({unit, sum});
        }
    };

    for (const auto& range : data) {
        for (uint64_t at = range.first; at < range.second;) {
            const uint64_t stop = std::min(range.second, at + kCopyStep);
            sumUnitsBefore(stop);
            while (at < stop) {
                while (!zeros.empty() && zeros.front().second <= at) zeros.pop_front();
                if (!zeros.empty() && zeros.front().first <= at) {
                    at = std::min(stop, zeros.front().second);
                    continue;
                }
                const uint64_t until = zeros.empty() ? stop : std::min(stop, zeros.front().first);
                // A source that ends before the size it had when it was checked.
                if (!sink.copy(in.fd, at, until - at)) throw changedDuringImport(img);
                at = until;
            }
            advanced(at);
        }
    }
    sumUnitsBefore(UINT64_MAX);
    sink.finish(size);
    // A source written to while it was read would otherwise go in with sums
    // that do not match it.
    if (::fstat(in.fd, &st) != 0 || FileStamp::of(st) != img.stamp()) throw changedDuringImport(img);
    advanced(size);
    std::sort(sums.entries.begin(), sums.entries.end(),
              [](const BlockSums::Entry& a, const BlockSums::Entry& b) { return a.unit < b.unit; });
    return sums.serialize();
}

namespace {

// The copy into a local file: the kernel copies (or shares the blocks,
// where the file system can) without a round trip through memory.
class FileSink : public Storage::Staging::Sink {
public:
    explicit FileSink(std::string path)
        : m_path(std::move(path)), m_out(::open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644)) {
        if (m_out.fd < 0) throw StoreError(m_path + ": " + std::strerror(errno));
    }
    bool copy(int fd, uint64_t at, uint64_t length) override {
        while (length > 0) {
            ssize_t n;
            if (m_kernelCopy) {
                loff_t from = static_cast<loff_t>(at), into = static_cast<loff_t>(at);
                n = ::copy_file_range(fd, &from, m_out.fd, &into, static_cast<size_t>(length), 0);
                if (n < 0 && errno == EINTR) continue;
                // Not between these two files (or nothing copied, which a
                // read then explains): through memory from here on.
                if ((n < 0 && (errno == EXDEV || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)) || n == 0) {
                    m_kernelCopy = false;
                    continue;
                }
                if (n < 0) throw StoreError(m_path + ": " + std::strerror(errno));
            } else {
                m_buffer.resize(1u << 20);
                n = ::pread(fd, m_buffer.data(), static_cast<size_t>(std::min<uint64_t>(length, m_buffer.size())),
                            static_cast<off_t>(at));
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) throw StoreError(m_path + ": reading its source: " + std::strerror(errno));
                writeFully(m_out.fd, m_buffer.data(), static_cast<size_t>(n), static_cast<int64_t>(at), m_path);
            }
            if (n == 0) return false;
            at += static_cast<uint64_t>(n), length -= static_cast<uint64_t>(n);
        }
        return true;
    }
    void finish(uint64_t size) override {
        if (::ftruncate(m_out.fd, static_cast<off_t>(size)) != 0 || ::fsync(m_out.fd) != 0)
            throw StoreError(m_path + ": " + std::strerror(errno));
    }

private:
    std::string m_path;
    ScopedFd m_out;
    bool m_kernelCopy = true;
    std::vector<char> m_buffer;
};

}  // namespace

std::unique_ptr<Storage::Staging::Sink> fileSink(const std::string& path) {
    return std::unique_ptr<Storage::Staging::Sink>(new FileSink(path));
}

void writeWhole(const std::string& path, const std::string& bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    try {
        writeFully(fd, bytes.data(), bytes.size(), 0, path);
    } catch (...) {
        ::close(fd);
        throw;
    }
    if (::fsync(fd) != 0) {
        int err = errno;
        ::close(fd);
        throw StoreError(path + ": " + std::strerror(err));
    }
    ::close(fd);
}

}  // namespace zxblk
