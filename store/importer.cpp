#include "store/importer.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cctype>
#include <cstring>
#include <ctime>

#include "store/catalog.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

bool looksLikeVhd(const std::string& path) {
    if (path.size() > 4 && (path.compare(path.size() - 4, 4, ".vhd") == 0 || path.compare(path.size() - 4, 4, ".VHD") == 0))
        return true;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    char cookie[8] = {0};
    struct stat st;
    bool vhd = ::fstat(fd, &st) == 0 && st.st_size >= 512 && ::pread(fd, cookie, 8, st.st_size - 512) == 8 &&
               std::memcmp(cookie, "conectix", 8) == 0;
    ::close(fd);
    return vhd;
}

void copyFile(const std::string& from, const std::string& to) {
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
}

std::string now() {
    std::time_t t = std::time(nullptr);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&t));
    return buf;
}

uint32_t typeOf(ImageKind kind) {
    switch (kind) {
        case ImageKind::Raw: return kTypeRaw;
        case ImageKind::Fixed: return kTypeFixed;
        case ImageKind::Dynamic: return kTypeDynamic;
        case ImageKind::Differencing: return kTypeDifferencing;
    }
    return 0;
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
    if (::mkdir((storeDir + "/snapshots").c_str(), 0755) != 0 && errno != EEXIST)
        throw StoreError(storeDir + "/snapshots: " + std::strerror(errno));
    StoreLock lock(storeDir);
    Catalog catalog = Catalog::load(storeDir);

    // Check every image, and the chain they make with what is stored, first.
    std::vector<VhdImage> opened;
    for (const std::string& path : images) opened.push_back(VhdImage::open(path, !looksLikeVhd(path)));
    DiskRecord* existing = catalog.findDisk(diskName);
    std::string previousId = existing ? existing->copies.back().uniqueId : "";
    uint64_t size = existing ? existing->size : opened.front().virtualSize();
    for (size_t i = 0; i < opened.size(); ++i) {
        const VhdImage& img = opened[i];
        bool first = !existing && i == 0;
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
        fresh.diskId = catalog.nextDiskId++;
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
    try {
        for (size_t i = 0; i < opened.size(); ++i) {
            const VhdImage& img = opened[i];
            size_t index = disk.copies.size();
            std::string name = diskName + "-snap" + std::to_string(index) + (img.kind() == ImageKind::Raw ? ".raw" : ".vhd");
            std::string final = storeDir + "/snapshots/" + name;
            struct stat st;
            if (::stat(final.c_str(), &st) == 0) throw StoreError(final + ": already exists; the store is not consistent");
            written.emplace_back(final + ".partial", final);
            copyFile(img.path(), written.back().first);
            CopyRecord copy;
            copy.browsePath = "/" + clientName + "/" + sub.name + "/" + diskName + "/snap" + std::to_string(index);
            copy.file = "snapshots/" + name;
            copy.type = typeOf(img.kind());
            copy.storedExtentSize = disk.extentSize + (copy.type == kTypeDifferencing ? 512 : 0);
            copy.archiveFileId = catalog.nextArchiveFileId++;
            copy.uniqueId = img.kind() == ImageKind::Raw ? "" : uniqueIdText(img.uniqueId());
            copy.importedAt = now();
            disk.copies.push_back(copy);
            lines.push_back("imported " + img.path() + " as " + diskName + " snapshot " + std::to_string(index) + " (" +
                            kindName(img.kind()) + ", " + std::to_string(img.virtualSize()) + " bytes)");
        }
        for (auto& w : written)
            if (::rename(w.first.c_str(), w.second.c_str()) != 0) throw StoreError(w.second + ": " + std::strerror(errno));
        if (!existing) catalog.disks.push_back(fresh);
        catalog.save(storeDir);
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
