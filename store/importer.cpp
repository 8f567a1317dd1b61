#include "store/importer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>

#include "platform/Log.h"
#include "store/catalog.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

const char* const kTag = "importer";

// A footer cookie at the end, or at the start where a dynamic disk keeps its
// copy (the one left when the end is damaged).
bool looksLikeVhd(const std::string& path) {
    if (path.size() > 4 && (path.compare(path.size() - 4, 4, ".vhd") == 0 || path.compare(path.size() - 4, 4, ".VHD") == 0))
        return true;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    auto cookieAt = [fd](off_t at) {
        char cookie[8] = {0};
        return ::pread(fd, cookie, 8, at) == 8 && std::memcmp(cookie, "conectix", 8) == 0;
    };
    struct stat st;
    bool vhd = ::fstat(fd, &st) == 0 && st.st_size >= 512 && (cookieAt(st.st_size - 512) || (st.st_size >= 1024 && cookieAt(0)));
    ::close(fd);
    return vhd;
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

// Returns the bytes copied.
uint64_t copyFile(const std::string& from, const std::string& to) {
    int in = ::open(from.c_str(), O_RDONLY | O_CLOEXEC);
    if (in < 0) throw StoreError(from + ": " + std::strerror(errno));
    int out = ::open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) {
        int err = errno;
        ::close(in);
        throw StoreError(to + ": " + std::strerror(err));
    }
    std::vector<char> buffer(1 << 20);
    off_t at = 0;
    for (;;) {
        ssize_t n = ::read(in, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int err = errno;
            ::close(in), ::close(out);
            throw StoreError(from + ": " + std::strerror(err));
        }
        if (n == 0) break;
        // Runs of zeros become holes: snapshot files are mostly sparse.
        bool zero = std::all_of(buffer.begin(), buffer.begin() + n, [](char c) { return c == 0; });
        if (!zero && ::pwrite(out, buffer.data(), static_cast<size_t>(n), at) != n) {
            int err = errno;
            ::close(in), ::close(out);
            throw StoreError(to + ": " + std::strerror(err));
        }
        at += n;
    }
    if (::ftruncate(out, at) != 0 || ::fsync(out) != 0) {
        int err = errno;
        ::close(in), ::close(out);
        throw StoreError(to + ": " + std::strerror(err));
    }
    ::close(in);
    ::close(out);
    return static_cast<uint64_t>(at);
}

void writeWhole(const std::string& path, const std::string& bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    for (size_t done = 0; done < bytes.size();) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int err = errno;
            ::close(fd);
            throw StoreError(path + ": " + std::strerror(err));
        }
        done += static_cast<size_t>(n);
    }
    if (::fsync(fd) != 0) {
        int err = errno;
        ::close(fd);
        throw StoreError(path + ": " + std::strerror(err));
    }
    ::close(fd);
}

// Taken from the image as it was checked: a source that changes while it is
// copied then fails the verification of the blocks that changed, rather
// than being vouched for.
BlockSums sumsOf(const VhdImage& img, const std::string& name) {
    BlockSums sums;
    sums.fileName = name;
    sums.unitBytes = img.sumUnitBytes();
    sums.units = img.sumUnits();
    for (uint64_t u = img.nextHeldUnit(0); u < sums.units; u = img.nextHeldUnit(u + 1)) sums.entries.push_back({u, img.sumOf(u)});
    return sums;
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

}  // namespace

std::vector<std::string> importImages(const std::string& storeDir, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportOptions& options) {
    if (!validName(diskName)) throw StoreError("disk name '" + diskName + "': use letters, digits, '-', '_' and '.'");
    if (images.empty()) throw StoreError("no images to import");
    if (options.extentSize < 65536 || options.extentSize > (2 << 20) || (options.extentSize & (options.extentSize - 1)))
        throw StoreError("extent size " + std::to_string(options.extentSize) + ": not a power of two from 64 KiB to 2 MiB");
    if (::mkdir(storeDir.c_str(), 0755) != 0 && errno != EEXIST) throw StoreError(storeDir + ": " + std::strerror(errno));
    for (const char* folder : {"/snapshots", "/sums"})
        if (::mkdir((storeDir + folder).c_str(), 0755) != 0 && errno != EEXIST)
            throw StoreError(storeDir + folder + ": " + std::strerror(errno));
    StoreLock lock(storeDir);
    Catalog catalog = Catalog::load(storeDir);

    // Check every image, and the chain they make with what is stored, first.
    std::vector<VhdImage> opened;
    for (const std::string& path : images) opened.push_back(VhdImage::open(path, !looksLikeVhd(path)));
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
            sub = 1;
            for (auto& s : catalog.subclients) sub = std::max(sub, s.first + 1);
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
            std::string sums = sumsOf(img, name).serialize();
            written.emplace_back(final + ".partial", final);
            uint64_t copied = copyFile(img.path(), written.back().first);
            if (copied != img.fileSize())
                throw StoreError(img.path() + ": file size: " + std::to_string(img.fileSize()) + " bytes when checked, " +
                                 std::to_string(copied) + " when copied; it changed during the import");
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
            copy.fileSize = copied;
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

}  // namespace zxblk
