#include "host/disk_host.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>

#include "platform/Log.h"
#include "vhd/ZxBlkVhd.h"

namespace zxblk {
namespace {

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    std::filesystem::path p = std::filesystem::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

std::string realPath(const std::string& path) {
    char real[PATH_MAX];
    return ::realpath(path.c_str(), real) ? std::string(real) : absolutePath(path);
}

}  // namespace

std::string defaultCacheDir(const std::string& storeDir, const std::string& disk, int snapshot) {
    std::string store = realPath(storeDir);
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::string base = xdg && *xdg ? xdg : std::string(home && *home ? home : "/tmp") + "/.cache";
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016zx", std::hash<std::string>()(store));
    return base + "/zxblk/" + hash + "-" + disk + "-snap" + std::to_string(snapshot);
}

DiskHost::DiskHost(const HostOptions& options) : m_diskName(options.disk) {
    // Absolute from here on: a mount serves from "/" once it is running.
    std::string storeDir = realPath(options.storeDir);
    m_services = StoreServices::open(storeDir, options.services);
    const Catalog& catalog = m_services->catalog();
    const DiskRecord* record = catalog.findDisk(options.disk);
    if (!record) throw StoreError(storeDir + ": no disk named '" + options.disk + "'");
    int newest = static_cast<int>(record->copies.size()) - 1;
    if (newest < 0) throw StoreError(storeDir + ": disk '" + options.disk + "' has no snapshots");
    m_snapshot = options.snapshot < 0 ? newest : options.snapshot;
    if (m_snapshot > newest)
        throw StoreError(storeDir + ": disk '" + options.disk + "' has snapshots 0 to " + std::to_string(newest) + ", not " +
                         std::to_string(m_snapshot));
    m_size = record->size;
    m_extentSize = record->extentSize;
    const unsigned long long E = static_cast<unsigned long long>(m_extentSize);
    if (options.cacheLimit && options.cacheLimit < E)
        throw StoreError("a cache limit of " + std::to_string(options.cacheLimit) + " bytes holds no extent of disk '" +
                         options.disk + "' (" + std::to_string(E) + " bytes each)");

    m_cacheDir = absolutePath(options.cacheDir.empty() ? defaultCacheDir(storeDir, options.disk, m_snapshot) : options.cacheDir);
    std::error_code ec;
    std::filesystem::create_directories(m_cacheDir, ec);
    if (ec) throw StoreError(m_cacheDir + ": cannot make the extent cache: " + ec.message());
    lockCache();  // before anything in the folder is touched
    m_cache.reset(new ZxBlkBackingStore(m_cacheDir, 0));
    if (::access((m_cacheDir + "/tmp").c_str(), W_OK) != 0)
        throw StoreError(m_cacheDir + ": cannot use it as the extent cache: " + std::strerror(errno));
    m_cache->clearTemporaries();  // left by a run that did not end cleanly

    // The cache holds the bytes of one disk as one list of snapshots shows it.
    std::string identity = "store " + storeDir + "\ndisk " + options.disk + "\nsnapshot " + std::to_string(m_snapshot) +
                           "\nextent size " + std::to_string(m_extentSize) + "\n";
    for (const CopyRecord& c : record->copies)
        identity += "copy " + std::to_string(c.archiveFileId) + " " + c.uniqueId + " " + c.file + "\n";
    checkCacheIdentity(identity);

    unsigned long long limit = options.cacheLimit;
    if (!limit) {
        struct statvfs fs;
        unsigned long long avail = ::statvfs(m_cacheDir.c_str(), &fs) == 0 ? fs.f_bavail * fs.f_frsize : 0;
        limit = std::max((avail + m_cache->usedBytes()) / 4, 8 * E);
    }
    m_cache->setCapacity(limit);
    // What a previous run left is used oldest first, as it was moved in.
    std::vector<std::pair<long long, uint64_t>> found;
    for (long long e : m_cache->extents()) {
        struct stat st;
        found.emplace_back(::stat(m_cache->extentPath(e).c_str(), &st) == 0 ? st.st_mtime : 0, static_cast<uint64_t>(e));
    }
    std::sort(found.begin(), found.end());
    for (auto& f : found) touch(f.second);
    m_cache->setEvictionHandler([this](unsigned long long bytes) { evict(bytes); });
    if (m_cache->usedBytes() > limit) evict(m_cache->usedBytes() - limit);  // a smaller limit than last time

    m_services->registerWithPlatform();
    // As the framework builds a disk: copies oldest first (so the newest is
    // tried first), geometry, subclient, backing store, connect.
    const CopyRecord& top = record->copies[m_snapshot];
    std::string diskPath = top.browsePath.substr(0, top.browsePath.rfind('/'));
    m_disk.reset(new ZxBlkVhd(options.disk, diskPath));
    for (int i = 0; i <= m_snapshot; ++i) {
        const CopyRecord& c = record->copies[i];
        m_disk->addToBrowseStructList(c.storedExtentSize, static_cast<long long>(record->size), record->sectorSize,
                                      std::to_string(record->diskId), c.browsePath, c.type);
        m_disk->insertDiskPath(c.browsePath);
    }
    m_disk->setDiskParams(record->extentSize, static_cast<long long>(record->size), record->sectorSize,
                          std::to_string(record->diskId));
    SpecialOptsRecord special;
    special.appId = record->subclientId;
    special.idxKey1 = record->diskId;
    special.idxKey2 = static_cast<uint64_t>(m_snapshot);
    special.entityId = record->diskId;
    FBRCtxSpecialOpts opts;
    opts.specialOptsRecord = &special;
    try {
        m_disk->setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
    } catch (const ZxException& e) {
        m_services->unregisterFromPlatform();
        throw StoreError(storeDir + ": disk '" + options.disk + "': " + e.what());
    }
    m_disk->setRecallStore(m_cache.get());
    m_disk->mountComplete = 0;  // the disk starts out being mounted
    m_disk->metadataPhase = 0;
    m_disk->extentFlushThreshold = options.flushThreshold;
    m_disk->connect();
}

// One process per cache: a second would clear the first one's temporary
// files and race it over the extent files. The lock goes with the process,
// so a crashed run never leaves the cache locked.
void DiskHost::lockCache() {
    std::string path = m_cacheDir + "/lock";
    m_lock.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!m_lock.is_valid()) throw StoreError(path + ": " + std::strerror(errno));
    if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
        char pid[32] = {0};
        ssize_t n = ::pread(m_lock.get(), pid, sizeof pid - 1, 0);
        m_lock.reset();
        std::string who = n > 0 ? std::string(pid, static_cast<size_t>(n)) : std::string();
        who.erase(std::remove(who.begin(), who.end(), '\n'), who.end());
        throw StoreError("the extent cache " + m_cacheDir + " is in use by another zxblk process" +
                         (who.empty() ? std::string() : " (pid " + who + ")"));
    }
    // The pid only serves the message of a refused second process.
    std::string pid = std::to_string(::getpid()) + "\n";
    bool noted = ::ftruncate(m_lock.get(), 0) == 0 && ::pwrite(m_lock.get(), pid.data(), pid.size(), 0) > 0;
    (void)noted;
}

// The cache belongs to one store, disk and list of snapshots: when that
// changes (a snapshot added or re-imported, another disk in the same
// folder), what it holds is dropped rather than served.
void DiskHost::checkCacheIdentity(const std::string& identity) {
    std::string path = m_cacheDir + "/identity";
    std::string old;
    if (FILE* f = std::fopen(path.c_str(), "r")) {
        char buf[4096];
        size_t n;
        while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) old.append(buf, n);
        std::fclose(f);
    }
    if (old == identity) return;
    if (!m_cache->extents().empty())
        LogSink::write(0, "DiskHost", "extent cache " + m_cacheDir + " held another disk or snapshot list; its extents were dropped");
    for (long long e : m_cache->extents()) m_cache->removeExtent(e);
    std::string temp = path + ".new";
    FILE* f = std::fopen(temp.c_str(), "w");
    bool written = f && std::fwrite(identity.data(), 1, identity.size(), f) == identity.size();
    if (f && std::fclose(f) != 0) written = false;
    if (!written || ::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        throw StoreError(path + ": cannot record what the cache holds: " + std::strerror(err));
    }
}

DiskHost::~DiskHost() {
    m_stopping = true;
    if (m_prefetch.joinable()) m_prefetch.join();
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        m_disk->disconnect();
    }
    m_services->shutdown();  // every recall has called back before the disk goes
    m_services->unregisterFromPlatform();
}

void DiskHost::touch(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    auto it = m_useAt.find(extent);
    if (it != m_useAt.end()) {
        m_useOrder.splice(m_useOrder.begin(), m_useOrder, it->second);
    } else {
        m_useOrder.push_front(extent);
        m_useAt[extent] = m_useOrder.begin();
    }
}

void DiskHost::pin(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    ++m_pins[extent];
}

void DiskHost::unpin(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    auto it = m_pins.find(extent);
    if (it != m_pins.end() && --it->second <= 0) m_pins.erase(it);
}

// Called by the backing store when a move-in does not fit: the least
// recently used extents that no read is using go until the bytes are free.
// The pin check and the removal happen under one lock, so a reader that
// pinned an extent either keeps it or finds it gone and recalls it.
void DiskHost::evict(unsigned long long bytesToFree) {
    uint64_t evicted = 0;
    unsigned long long freed = 0;
    {
        std::lock_guard<std::mutex> lock(m_cacheMutex);
        for (auto it = m_useOrder.end(); freed < bytesToFree && it != m_useOrder.begin();) {
            --it;
            uint64_t e = *it;
            if (m_pins.count(e)) continue;
            unsigned long long size = m_cache->extentFileSize(static_cast<long long>(e));
            if (m_cache->removeExtent(static_cast<long long>(e)).IsError()) continue;
            freed += size;
            ++evicted;
            m_useAt.erase(e);
            it = m_useOrder.erase(it);
        }
    }
    std::lock_guard<std::mutex> lock(m_statsMutex);
    m_stats.evictions += evicted;
}

void DiskHost::forget(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    if (m_pins.count(extent)) return;
    m_cache->removeExtent(static_cast<long long>(extent));
    auto it = m_useAt.find(extent);
    if (it == m_useAt.end()) return;
    m_useOrder.erase(it->second);
    m_useAt.erase(it);
}

void DiskHost::ensureExtent(uint64_t extent) {
    const long long e = static_cast<long long>(extent);
    if (m_cache->hasExtent(e)) return touch(extent);
    std::lock_guard<std::mutex> lock(m_readMutex);
    if (m_cache->hasExtent(e)) return touch(extent);  // another reader made it local meanwhile
    long len = 0;
    unsigned char* buf = new unsigned char(0);  // the framework hands the provider a buffer it releases
    bool ok = m_disk->readData(m_disk.get(), e * m_extentSize, &len, &buf);
    delete buf;
    std::string error;
    if (!ok)
        error = "extent " + std::to_string(extent) + " of disk " + m_diskName + " could not be recalled (see the log)";
    else if (!m_cache->hasExtent(e))
        error = "extent " + std::to_string(extent) + " of disk " + m_diskName + " was recalled but does not fit in the cache (" +
                std::to_string(m_cache->usedBytes()) + " of " + std::to_string(m_cache->capacity()) +
                " bytes used by extents that reads are using)";
    if (!error.empty()) {
        std::lock_guard<std::mutex> statsLock(m_statsMutex);
        ++m_stats.readErrors;
        throw StoreError(error);
    }
    touch(extent);
    std::lock_guard<std::mutex> statsLock(m_statsMutex);
    ++m_stats.extentsRecalled;
    m_stats.bytesRecalled += static_cast<uint64_t>(m_extentSize);
}

void DiskHost::read(uint64_t offset, uint64_t length, void* buffer) {
    uint64_t end = std::min(offset + length, m_size);
    char* out = static_cast<char*>(buffer);
    for (uint64_t at = offset; at < end;) {
        uint64_t extent = at / static_cast<uint64_t>(m_extentSize);
        uint64_t within = at % static_cast<uint64_t>(m_extentSize);
        uint64_t n = std::min<uint64_t>(end - at, static_cast<uint64_t>(m_extentSize) - within);
        // Pinned while it is read, so that no eviction takes it meanwhile.
        pin(extent);
        struct Unpin {
            DiskHost* host;
            uint64_t extent;
            ~Unpin() { host->unpin(extent); }
        } unpin{this, extent};
        ensureExtent(extent);
        std::string path = m_cache->extentPath(static_cast<long long>(extent));
        int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
        ssize_t got = ::pread(fd, out + (at - offset), n, static_cast<off_t>(within));
        int err = errno;
        ::close(fd);
        if (got != static_cast<ssize_t>(n))
            throw StoreError(path + ": short extent file (" + (got < 0 ? std::strerror(err) : std::to_string(got) + " bytes") + ")");
        at += n;
    }
}

HostStats DiskHost::stats() const {
    std::lock_guard<std::mutex> lock(m_statsMutex);
    return m_stats;
}

// Mount extents are sent while the disk still counts as mounting: once
// mountComplete is set the provider has nothing more to say about them.
std::string DiskHost::markMountComplete() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    CUxError e = m_disk->updateExtentFlag(true);
    m_disk->mountComplete = 1;
    m_mountComplete = true;
    return e.IsError() ? e.AsString() : std::string();
}

std::string DiskHost::beginMetadata() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    m_disk->metadataPhase = 1;
    m_metadataPhase = true;
    return std::string();
}

std::string DiskHost::endMetadata() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    CUxError e = m_disk->updateExtentFlag(false);
    m_disk->metadataPhase = 0;
    m_metadataPhase = false;
    return e.IsError() ? e.AsString() : std::string();
}

void DiskHost::prefetch(std::vector<uint64_t> extents) {
    if (m_prefetch.joinable()) m_prefetch.join();
    m_prefetch = std::thread([this, extents] {
        for (uint64_t e : extents) {
            if (m_stopping) return;
            if (e >= (m_size + static_cast<uint64_t>(m_extentSize) - 1) / static_cast<uint64_t>(m_extentSize)) continue;
            try {
                ensureExtent(e);
            } catch (const StoreError& err) {
                LogSink::write(kLevelError, "DiskHost", std::string("prefetch: ") + err.what());
            }
        }
    });
}

std::string DiskHost::statsText() {
    HostStats h = stats();
    RestoreStats r = m_services->stats();
    std::string out;
    auto line = [&](const char* key, unsigned long long v) { out += std::string(key) + " " + std::to_string(v) + "\n"; };
    line("disk_bytes", m_size);
    line("extent_size", static_cast<unsigned long long>(m_extentSize));
    line("extents_recalled", h.extentsRecalled);
    line("bytes_recalled", h.bytesRecalled);
    line("read_errors", h.readErrors);
    line("evictions", h.evictions);
    line("cache_extents", m_cache->extents().size());
    line("cache_bytes", m_cache->usedBytes());
    line("cache_limit", m_cache->capacity());
    line("restore_jobs", r.jobs);
    line("restore_failures", r.failures);
    line("restore_bytes", r.bytes);
    line("mount_complete", m_mountComplete);
    line("metadata_phase", m_metadataPhase);
    return out;
}

}  // namespace zxblk
