#include "store/importer.h"

#include "store/storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "platform/Log.h"
#include "store/catalog.h"
#include "store/fd_io.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

const char* const kTag = "importer";
using namespace std::string_literals;

// A file descriptor closed when it goes out of scope.
struct Fd {
    int fd;
    explicit Fd(int f) : fd(f) {}
    ~Fd() {
        if (fd >= 0) ::close(fd);
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
};

// What people hand to an import by mistake: other disk image formats and
// compressed files, each known by bytes it must have, so that a refusal can
// name it and say what to do instead of taking it for a raw disk.
struct Signature {
    const char* name;  // with its article, as the refusal says it
    int64_t at;        // from the start of the file, or from its end when negative
    std::string bytes;
    const char* advice;
    int64_t at2 = 0;  // a second check, for a signature whose first part is short
    std::string bytes2 = "";
};

const char* const kConvert = "convert it with qemu-img convert -O vpc, or import it as raw with --format raw";

const Signature kSignatures[] = {
    {"a VHDX image", 0, "vhdxfile", kConvert},
    {"a qcow image", 0, "QFI\xfb\0\0\0\x01"s, kConvert},  // version 1; 2 and 3 are qcow2
    {"a qcow2 image", 0, "QFI\xfb"s, kConvert},
    {"a QED image", 0, "QED\0"s, kConvert},
    {"a VMDK image", 0, "KDMV", kConvert},
    {"a VMDK image", 0, "COWD", kConvert},
    {"a VMDK descriptor", 0, "# Disk DescriptorFile",
     "convert it with qemu-img convert -O vpc, or import the raw extent file it names with --format raw"},
    {"a VDI image", 0x40, "\x7f\x10\xda\xbe"s, kConvert},
    {"a Parallels image", 0, "WithoutFreeSpace", kConvert},
    {"a Parallels image", 0, "WithouFreSpacExt", kConvert},
    {"a Bochs image", 0, "Bochs Virtual HD Image\0"s, kConvert},
    {"a DMG image", -512, "koly\0\0\0\x04\0\0\x02\0"s, kConvert},  // its trailer: version 4, 512 bytes
    {"a LUKS encrypted volume", 0, "LUKS\xba\xbe"s, "import it as raw with --format raw to keep it as it is, encrypted"},
    {"a gzip-compressed file", 0, "\x1f\x8b\x08"s, "decompress it and import the image inside"},
    {"an xz-compressed file", 0, "\xfd" "7zXZ\0"s, "decompress it and import the image inside"},
    {"a zstd-compressed file", 0, "\x28\xb5\x2f\xfd"s, "decompress it and import the image inside"},
    {"a bzip2-compressed file", 0, "BZh", "decompress it and import the image inside", 4, "1AY&SY"},
};

// What a file's first and last bytes say it is.
struct Probe {
    bool regular = false;
    bool vhd = false;  // a footer cookie at the end, or at the start where a dynamic disk keeps its copy
    const Signature* other = nullptr;
};

Probe probe(const std::string& path) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    struct stat st;
    Probe p;
    if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode)) return p;
    p.regular = true;
    const uint64_t size = static_cast<uint64_t>(st.st_size);
    char head[512] = {0}, tail[512] = {0};
    const size_t headBytes = static_cast<size_t>(std::min<uint64_t>(size, sizeof head));
    auto readAt = [&](char* into, size_t length, uint64_t at) {
        ssize_t n = ::pread(fd.fd, into, length, static_cast<off_t>(at));
        if (n < 0) throw StoreError(path + ": " + std::strerror(errno));
        if (static_cast<size_t>(n) != length) throw StoreError(path + ": shorter than its size; is it being written to?");
    };
    readAt(head, headBytes, 0);
    if (size >= 512) readAt(tail, 512, size - 512);
    p.vhd = (size >= 512 && std::memcmp(tail, "conectix", 8) == 0) || (size >= 1024 && std::memcmp(head, "conectix", 8) == 0);
    auto has = [&](int64_t at, const std::string& bytes) {
        if (bytes.empty()) return true;
        if (at < 0) return size >= 512 && -at <= 512 && std::memcmp(tail + 512 + at, bytes.data(), bytes.size()) == 0;
        return static_cast<uint64_t>(at) + bytes.size() <= headBytes && std::memcmp(head + at, bytes.data(), bytes.size()) == 0;
    };
    for (const Signature& s : kSignatures)
        if (!p.vhd && !p.other && has(s.at, s.bytes) && has(s.at2, s.bytes2)) p.other = &s;
    return p;
}

// Opens an image as the import's format says, refusing what it is not.
VhdImage openImage(const std::string& path, ImageFormat format) {
    if (format == ImageFormat::Raw) return VhdImage::open(path, true);
    Probe p = probe(path);
    // The reader says what is wrong with a file that is not a regular one,
    // or whose footer cookie is there but whose footer is not sound.
    if (!p.regular || p.vhd) return VhdImage::open(path);
    if (p.other) throw StoreError(path + " is " + p.other->name + "; " + p.other->advice);
    throw StoreError(path + " is not a VHD image (no footer); to import a raw disk image give --format raw");
}

// The tests of crash consistency end an import at a named step, as a kill
// would: ZXBLK_IMPORT_DIE_AT=copied|renamed|renamed-all|catalog-written|saved.
void dieAt(const char* step) {
    const char* at = std::getenv("ZXBLK_IMPORT_DIE_AT");
    if (at && std::strcmp(at, step) == 0) ::_exit(9);
}

// Files under snapshots/ that the catalog does not name were left by an
// import that died before it replaced the catalog; no reader knows them, and
// the store lock says no import is running. Compared by inode, so that no
// spelling of a catalog path can make a named file look unnamed.
void removeLeftovers(const std::string& storeDir, const Catalog& catalog) {
    std::set<std::pair<dev_t, ino_t>> named;
    struct stat st;
    for (const DiskRecord& d : catalog.disks)
        for (const CopyRecord& c : d.copies)
            for (const std::string* file : {&c.file, &c.sums})
                if (!file->empty() && ::stat((storeDir + "/" + *file).c_str(), &st) == 0) named.emplace(st.st_dev, st.st_ino);
    for (const char* folder : {"/snapshots", "/sums"}) {
        std::error_code ec;
        for (const auto& entry : std::filesystem::directory_iterator(storeDir + folder, ec)) {
            std::string path = entry.path().string();
            if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || named.count({st.st_dev, st.st_ino})) continue;
            if (::unlink(path.c_str()) == 0) LogSink::write(0, kTag, path + ": removed, left by an import that did not finish");
        }
    }
}

void syncFolder(const std::string& path) {
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0 || ::fsync(fd) != 0) {
        int err = errno;
        if (fd >= 0) ::close(fd);
        throw StoreError(path + ": cannot sync the folder: " + std::strerror(err));
    }
    ::close(fd);
}

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
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(), XXH3_freeState);
    if (!state) throw StoreError("out of memory for a checksum");
    XXH3_64bits_reset(state.get());
    for (uint64_t done = 0; done < length; done += zeros.size())
        XXH3_64bits_update(state.get(), zeros.data(), static_cast<size_t>(std::min<uint64_t>(zeros.size(), length - done)));
    return XXH3_64bits_digest(state.get());
}

StoreError changedDuringImport(const VhdImage& img) {
    return StoreError(img.path() + ": changed since it was checked (written to or replaced during the import)");
}

// Runs of zeros in the data are found in aligned stretches of this size.
const uint64_t kZeroGranule = 64 << 10;
// The copy goes this far at a time, hashing the blocks it reaches first.
const uint64_t kCopyStep = 8 << 20;

// Copies a checked image to `to` and returns its side file of checksums.
// Holes stay holes and are not read: the copy walks the file's data with
// SEEK_DATA/SEEK_HOLE and hands it to copy_file_range, which lets the
// kernel copy without a round trip through memory (or share the blocks,
// where the file system can). The checksums come from the same walk, in file
// order, so each block is read from the source once and then copied from the
// page cache; holes hash as zeros without a read, and runs of zeros the
// hashing reads are left as holes too.
std::string copyWithSums(const VhdImage& img, const std::string& name, const std::string& to,
                         const std::function<void(uint64_t)>& advanced) {
    Fd in(::open(img.path().c_str(), O_RDONLY | O_CLOEXEC));
    if (in.fd < 0) throw StoreError(img.path() + ": " + std::strerror(errno));
    struct stat st;
    if (::fstat(in.fd, &st) != 0 || FileStamp::of(st) != img.stamp()) throw changedDuringImport(img);
    Fd out(::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (out.fd < 0) throw StoreError(to + ": " + std::strerror(errno));
    const uint64_t size = img.fileSize();
    const Ranges data = dataRanges(in.fd, size, img.path());

    // The checksum units in file order: a fixed VHD or raw image's chunks
    // lie in order at their disk offsets, a VHD's blocks where its table says.
    const bool flat = img.kind() == ImageKind::Raw || img.kind() == ImageKind::Fixed;
    std::vector<std::pair<uint64_t, uint64_t>> order;  // (offset of the block's bitmap, block)
    if (!flat) {
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
    std::map<uint64_t, uint64_t> zeroSums;  // by length
    auto sumOfZeros = [&](uint64_t length) {
        auto it = zeroSums.find(length);
        return it != zeroSums.end() ? it->second : zeroSums[length] = zeroSum(length);
    };
    std::deque<std::pair<uint64_t, uint64_t>> zeros;  // runs of zeros in the data read, in file order
    static const std::vector<uint8_t> zeroGranule(kZeroGranule);
    std::vector<uint8_t> slice(VhdImage::kSumChunk);
    std::unique_ptr<XXH3_state_t, XXH_errorcode (*)(XXH3_state_t*)> state(XXH3_createState(), XXH3_freeState);
    if (!state) throw StoreError("out of memory for a checksum");
    // Hashes [from, from + length) of the file, as VhdImage::sumOf does, but
    // reads only the data the file holds there: its holes hash as the zeros
    // they read as. Aligned runs of zeros in what it reads are noted.
    auto hashStretch = [&](uint64_t from, uint64_t length) {
        XXH3_64bits_reset(state.get());
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
            XXH3_64bits_update(state.get(), slice.data(), stop - at);
            at = stop;
        }
        return XXH3_64bits_digest(state.get());
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

    bool kernelCopy = true;
    std::vector<char> buffer;
    auto transfer = [&](uint64_t at, uint64_t length) {
        while (length > 0) {
            ssize_t n;
            if (kernelCopy) {
                loff_t from = static_cast<loff_t>(at), into = static_cast<loff_t>(at);
                n = ::copy_file_range(in.fd, &from, out.fd, &into, static_cast<size_t>(length), 0);
                if (n < 0 && errno == EINTR) continue;
                // Not between these two files (or nothing copied, which a
                // read then explains): through memory from here on.
                if ((n < 0 && (errno == EXDEV || errno == EOPNOTSUPP || errno == ENOSYS || errno == EINVAL)) || n == 0) {
                    kernelCopy = false;
                    continue;
                }
                if (n < 0) throw StoreError(to + ": copying " + img.path() + ": " + std::strerror(errno));
            } else {
                buffer.resize(1u << 20);
                n = ::pread(in.fd, buffer.data(), static_cast<size_t>(std::min<uint64_t>(length, buffer.size())),
                            static_cast<off_t>(at));
                if (n < 0 && errno == EINTR) continue;
                if (n < 0) throw StoreError(img.path() + ": " + std::strerror(errno));
                writeFully(out.fd, buffer.data(), static_cast<size_t>(n), static_cast<int64_t>(at), to);
            }
            if (n == 0) throw changedDuringImport(img);  // it ends before the size it had when checked
            at += static_cast<uint64_t>(n), length -= static_cast<uint64_t>(n);
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
                transfer(at, until - at);
                at = until;
            }
            advanced(at);
        }
    }
    sumUnitsBefore(UINT64_MAX);
    if (::ftruncate(out.fd, static_cast<off_t>(size)) != 0 || ::fsync(out.fd) != 0)
        throw StoreError(to + ": " + std::strerror(errno));
    // A source written to while it was read would otherwise go in with sums
    // that do not match it.
    if (::fstat(in.fd, &st) != 0 || FileStamp::of(st) != img.stamp()) throw changedDuringImport(img);
    advanced(size);
    std::sort(sums.entries.begin(), sums.entries.end(),
              [](const BlockSums::Entry& a, const BlockSums::Entry& b) { return a.unit < b.unit; });
    return sums.serialize();
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

std::string now() {
    std::time_t t = std::time(nullptr);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&t));
    return buf;
}

bool validName(const std::string& name) {
    if (name.empty() || name.size() > 128 || name == "." || name == "..") return false;
    for (char c : name)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.')) return false;
    return true;
}

// The import proper, under the store's lock: the chain checked against the
// catalog, the files written, the catalog replaced.
std::vector<std::string> importLocked(const std::string& storeDir, const std::string& diskName,
                                      const std::vector<VhdImage>& opened, const ImportOptions& options) {
    Catalog catalog = Catalog::load(storeDir);
    DiskRecord* existing = catalog.findDisk(diskName);
    // The loader refuses a disk without snapshots; one that got here anyway
    // takes a base image as a new disk would.
    bool noSnapshots = !existing || existing->copies.empty();
    std::string previousId = noSnapshots ? "" : existing->copies.back().uniqueId;
    uint64_t size = existing ? existing->size : opened.front().virtualSize();
    for (size_t i = 0; i < opened.size(); ++i) {
        const VhdImage& img = opened[i];
        bool first = noSnapshots && i == 0;
        if (img.virtualSize() != size)
            throw StoreError(img.path() + ": current size: " + std::to_string(img.virtualSize()) + " bytes, but the disk has " +
                             std::to_string(size));
        if (first && img.kind() == ImageKind::Differencing)
            throw StoreError(img.path() + ": a differencing image needs its parent imported first (parent " +
                             uniqueIdText(img.parentUniqueId()) + ")");
        if (!first && img.kind() != ImageKind::Differencing)
            throw StoreError(img.path() + ": a newer snapshot of disk " + diskName + " must be a differencing VHD, not a " +
                             kindName(img.kind()));
        if (!first && uniqueIdText(img.parentUniqueId()) != previousId)
            throw StoreError(img.path() + ": parent unique id: " + uniqueIdText(img.parentUniqueId()) +
                             " is not the previous snapshot's " + previousId);
        if (img.kind() != ImageKind::Raw && img.kind() != ImageKind::Fixed && img.blockSize() < 512)
            throw StoreError(img.path() + ": block size: too small");
        previousId = img.kind() == ImageKind::Raw ? "" : uniqueIdText(img.uniqueId());
    }

    // Then write: snapshot files under temporary names, renamed when all are
    // there, then the catalog. Any failure removes what was written.
    DiskRecord fresh;
    if (!existing) {
        fresh.name = diskName;
        fresh.size = size;
        fresh.extentSize = options.extentSize;
        fresh.diskId = catalog.takeDiskId();
        uint32_t sub = options.subclientId;
        if (sub == 0) {
            uint64_t above = 1;
            for (auto& s : catalog.subclients) above = std::max<uint64_t>(above, uint64_t(s.first) + 1);
            if (above <= UINT32_MAX)
                sub = static_cast<uint32_t>(above);
            else  // the highest id is taken: the lowest free one
                for (sub = 1; catalog.subclients.count(sub);) ++sub;
        }
        fresh.subclientId = sub;
        if (!catalog.subclients.count(sub)) {
            SubclientRecord s;
            s.id = sub;
            s.name = options.subclient;
            s.clientId = options.clientId;
            s.instanceId = sub;
            s.backupSetId = sub;
            s.appType = 106;
            catalog.subclients[sub] = s;
            catalog.clients[options.clientId] = options.client;
            catalog.instances[sub] = options.instance;
            catalog.backupSets[sub] = options.backupSet;
        }
    }
    DiskRecord& disk = existing ? *existing : fresh;
    const SubclientRecord& sub = catalog.subclients.at(disk.subclientId);
    std::string clientName = catalog.clients.count(sub.clientId) ? catalog.clients.at(sub.clientId) : "client";
    std::vector<std::pair<std::string, std::string>> written;  // temporary, final
    std::vector<std::string> lines;
    uint64_t done = 0, total = 0;
    for (const VhdImage& img : opened) total += img.fileSize();
    removeLeftovers(storeDir, catalog);
    try {
        for (size_t i = 0; i < opened.size(); ++i) {
            const VhdImage& img = opened[i];
            size_t index = disk.copies.size();
            std::string name = diskName + "-snap" + std::to_string(index) + (img.kind() == ImageKind::Raw ? ".raw" : ".vhd");
            std::string final = storeDir + "/snapshots/" + name;
            struct stat st;
            if (::stat(final.c_str(), &st) == 0)
                throw StoreError(final + ": already exists, named by the catalog for another snapshot");
            written.emplace_back(final + ".partial", final);
            std::string sums = copyWithSums(img, name, written.back().first, [&](uint64_t at) {
                if (options.progress) options.progress(done + at, total);
            });
            done += img.fileSize();
            std::string sumsFinal = storeDir + "/sums/" + name + ".sums";
            if (::stat(sumsFinal.c_str(), &st) == 0)
                throw StoreError(sumsFinal + ": already exists, named by the catalog for another snapshot");
            written.emplace_back(sumsFinal + ".partial", sumsFinal);
            writeWhole(written.back().first, sums);
            dieAt("copied");
            CopyRecord copy;
            copy.browsePath = "/" + clientName + "/" + sub.name + "/" + diskName + "/snap" + std::to_string(index);
            copy.file = "snapshots/" + name;
            copy.sums = "sums/" + name + ".sums";
            copy.sumsChecksum = sumText(xxh3(sums.data(), sums.size()));
            copy.type = typeCode(img.kind());
            copy.storedExtentSize = disk.extentSize + (copy.type == kTypeDifferencing ? 512 : 0);
            copy.archiveFileId = catalog.takeArchiveFileId();
            copy.uniqueId = img.kind() == ImageKind::Raw ? "" : uniqueIdText(img.uniqueId());
            copy.importedAt = now();
            copy.size = img.virtualSize();
            copy.fileSize = img.fileSize();
            if (img.kind() == ImageKind::Differencing) copy.parentUniqueId = uniqueIdText(img.parentUniqueId());
            disk.copies.push_back(copy);
            lines.push_back("imported " + img.path() + " as " + diskName + " snapshot " + std::to_string(index) + " (" +
                            kindName(img.kind()) + ", " + std::to_string(img.virtualSize()) + " bytes)");
        }
        for (auto& w : written) {
            if (::rename(w.first.c_str(), w.second.c_str()) != 0) throw StoreError(w.second + ": " + std::strerror(errno));
            dieAt("renamed");
        }
        // The new names reach the disk before the catalog that refers to them.
        syncFolder(storeDir + "/snapshots");
        syncFolder(storeDir + "/sums");
        dieAt("renamed-all");
        if (!existing) catalog.disks.push_back(fresh);
        catalog.save(storeDir, [] { dieAt("catalog-written"); });
        dieAt("saved");
    } catch (...) {
        for (auto& w : written) {
            ::unlink(w.first.c_str());
            ::unlink(w.second.c_str());
        }
        throw;
    }
    return lines;
}

}  // namespace

// A store on S3: the images are imported into a local folder that holds a
// copy of the store's catalog, so that the checks, checksums and names are
// the folder import's own; then what that import added is uploaded, the
// snapshot and checksum files first, the catalog that names them last, all
// under the store's lock. A failed upload leaves the catalog as it was; an
// object it left is not named by it and the next import replaces it.
std::vector<std::string> importRemote(const std::string& location, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportOptions& options) {
    std::shared_ptr<Storage> storage = Storage::at(location);
    StoreLock lock(location);
    const char* tmp = std::getenv("TMPDIR");
    std::string stage = std::string(tmp && *tmp ? tmp : "/tmp") + "/zxblk-import-XXXXXX";
    if (!::mkdtemp(&stage[0])) throw StoreError(stage + ": " + std::strerror(errno));
    struct Cleanup {
        std::string dir;
        ~Cleanup() {
            std::error_code ec;
            std::filesystem::remove_all(dir, ec);
        }
    } cleanup{stage};
    std::string text;
    Catalog before;
    if (storage->readWhole(kCatalogName, kMaxCatalogBytes, text)) {
        std::ofstream(catalogPath(stage), std::ios::binary) << text;
        before = Catalog::load(stage);
    }
    std::vector<std::string> lines = importImages(stage, diskName, images, options);
    Catalog after = Catalog::load(stage);
    std::set<uint64_t> old;
    for (const DiskRecord& d : before.disks)
        for (const CopyRecord& c : d.copies) old.insert(c.archiveFileId);
    for (DiskRecord& d : after.disks)
        for (CopyRecord& c : d.copies) {
            if (old.count(c.archiveFileId)) continue;
            c.etag = storage->upload(c.file, stage + "/" + c.file);
            if (!c.sums.empty()) storage->upload(c.sums, stage + "/" + c.sums);
        }
    after.save(location);
    for (std::string& line : lines) {
        size_t as = line.find(" as ");
        if (as != std::string::npos) line.insert(as, " into " + location);
    }
    return lines;
}

std::vector<std::string> importImages(const std::string& storeDir, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportOptions& options) {
    if (Storage::isRemote(storeDir)) return importRemote(storeDir, diskName, images, options);
    if (!validName(diskName)) throw StoreError("disk name '" + diskName + "': use letters, digits, '-', '_' and '.'");
    if (images.empty()) throw StoreError("no images to import");
    if (options.extentSize < 65536 || options.extentSize > (2 << 20) || (options.extentSize & (options.extentSize - 1)))
        throw StoreError("extent size " + std::to_string(options.extentSize) + ": not a power of two from 64 KiB to 2 MiB");
    // Every image is checked on its own before anything is made.
    std::vector<VhdImage> opened;
    for (const std::string& path : images) opened.push_back(openImage(path, options.format));

    // A refused import leaves nothing behind: a store folder it made goes
    // again, and so do the folders it added to one that was there. That is
    // done under the lock, and only while no catalog says that another
    // import has made the folder a store in the meantime.
    bool madeStore = ::mkdir(storeDir.c_str(), 0755) == 0;
    if (!madeStore && errno != EEXIST) throw StoreError(storeDir + ": " + std::strerror(errno));
    const std::string lockPath = storeDir + "/.lock";
    bool madeLock = false;
    std::vector<std::string> madeFolders;
    std::optional<StoreLock> lock;
    try {
        for (const char* folder : {"/snapshots", "/sums"}) {
            if (::mkdir((storeDir + folder).c_str(), 0755) == 0)
                madeFolders.push_back(storeDir + folder);
            else if (errno != EEXIST)
                throw StoreError(storeDir + folder + ": " + std::strerror(errno));
        }
        madeLock = ::access(lockPath.c_str(), F_OK) != 0;
        lock.emplace(storeDir);
        return importLocked(storeDir, diskName, opened, options);
    } catch (...) {
        if (::access(catalogPath(storeDir).c_str(), F_OK) != 0) {
            std::error_code ec;
            if (madeStore) std::filesystem::remove_all(storeDir, ec);
            if (madeLock) ::unlink(lockPath.c_str());
        }
        for (auto it = madeFolders.rbegin(); it != madeFolders.rend(); ++it) ::rmdir(it->c_str());  // only when empty
        throw;
    }
}

}  // namespace zxblk
