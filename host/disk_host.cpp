#include "host/disk_host.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "platform/FXErrorUtil.h"
#include "platform/Log.h"
#include "vhd/ZxBlkVhd.h"

namespace zxblk {

std::string defaultCacheDir(const std::string& storeDir, const std::string& disk, int snapshot) {
    char real[PATH_MAX];
    std::string store = ::realpath(storeDir.c_str(), real) ? real : storeDir;
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::string base = xdg && *xdg ? xdg : std::string(home && *home ? home : "/tmp") + "/.cache";
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016zx", std::hash<std::string>()(store));
    return base + "/zxblk/" + hash + "-" + disk + "-snap" + std::to_string(snapshot);
}

DiskHost::DiskHost(const HostOptions& options) {
    m_services = StoreServices::open(options.storeDir, options.services);
    const Catalog& catalog = m_services->catalog();
    const DiskRecord* record = catalog.findDisk(options.disk);
    if (!record) throw StoreError(options.storeDir + ": no disk named '" + options.disk + "'");
    int newest = static_cast<int>(record->copies.size()) - 1;
    if (newest < 0) throw StoreError(options.storeDir + ": disk '" + options.disk + "' has no snapshots");
    m_snapshot = options.snapshot < 0 ? newest : options.snapshot;
    if (m_snapshot > newest)
        throw StoreError(options.storeDir + ": disk '" + options.disk + "' has snapshots 0 to " + std::to_string(newest) +
                         ", not " + std::to_string(m_snapshot));
    m_size = record->size;
    m_extentSize = record->extentSize;
    m_cacheDir = options.cacheDir.empty() ? defaultCacheDir(options.storeDir, options.disk, m_snapshot) : options.cacheDir;
    m_cache.reset(new ZxBlkBackingStore(m_cacheDir, options.cacheLimit));
    if (::access((m_cacheDir + "/tmp").c_str(), W_OK) != 0)
        throw StoreError(m_cacheDir + ": cannot use it as the extent cache: " + std::strerror(errno));
    m_cache->clearTemporaries();  // left by a run that did not end cleanly
    char real[PATH_MAX];
    std::string identity = std::string("store ") + (::realpath(options.storeDir.c_str(), real) ? real : options.storeDir) +
                           "\ndisk " + options.disk + "\nsnapshot " + std::to_string(m_snapshot) + "\nextent size " +
                           std::to_string(m_extentSize) + "\n";
    for (int i = 0; i <= m_snapshot; ++i)
        identity += "copy " + std::to_string(record->copies[i].archiveFileId) + " " + record->copies[i].uniqueId + " " +
                    record->copies[i].file + "\n";
    checkCacheIdentity(identity);
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
        throw StoreError(options.storeDir + ": disk '" + options.disk + "': " + e.what());
    }
    m_disk->setRecallStore(m_cache.get());
    m_disk->mountComplete = 0;  // the disk starts out being mounted
    m_disk->metadataPhase = 0;
    m_disk->extentFlushThreshold = options.flushThreshold;
    m_disk->connect();
}

// The cache belongs to one store, disk and list of snapshots: when that
// changes (a snapshot re-imported, another disk in the same folder), what it
// holds is dropped rather than served.
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
        LogSink::write(kLevelError, "DiskHost", "extent cache " + m_cacheDir + " held another disk or snapshot list; dropped");
    for (long long e : m_cache->extents()) m_cache->removeExtent(e);
    std::string temp = path + ".new";
    FILE* f = std::fopen(temp.c_str(), "w");
    if (!f || std::fwrite(identity.data(), 1, identity.size(), f) != identity.size() || std::fclose(f) != 0 ||
        ::rename(temp.c_str(), path.c_str()) != 0)
        throw StoreError(path + ": cannot record what the cache holds: " + std::strerror(errno));
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
    m_lastUse[extent] = ++m_tick;
}

void DiskHost::pin(uint64_t extent, int delta) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    if ((m_pins[extent] += delta) <= 0) m_pins.erase(extent);
}

// Evicts the least recently used extents that no read is using until one
// more extent fits (or at least one goes, when the store said it was full).
void DiskHost::makeRoom(bool atLeastOne) {
    unsigned long long capacity = m_cache->capacity();
    if (!capacity) return;
    std::vector<std::pair<uint64_t, long long>> candidates;  // last use, extent
    {
        std::lock_guard<std::mutex> lock(m_cacheMutex);
        for (long long e : m_cache->extents()) {
            if (m_pins.count(static_cast<uint64_t>(e))) continue;
            auto it = m_lastUse.find(static_cast<uint64_t>(e));
            candidates.emplace_back(it == m_lastUse.end() ? 0 : it->second, e);
        }
    }
    std::sort(candidates.begin(), candidates.end());
    uint64_t need = static_cast<uint64_t>(m_extentSize);
    size_t evicted = 0;
    for (auto& c : candidates) {
        bool fits = m_cache->usedBytes() + need <= capacity;
        if (fits && (!atLeastOne || evicted > 0)) break;
        if (!m_cache->removeExtent(c.second).IsError()) {
            ++evicted;
            std::lock_guard<std::mutex> lock(m_cacheMutex);
            m_lastUse.erase(static_cast<uint64_t>(c.second));
        }
    }
    std::lock_guard<std::mutex> lock(m_statsMutex);
    m_stats.evictions += evicted;
}

void DiskHost::ensureExtent(uint64_t extent) {
    if (m_cache->hasExtent(static_cast<long long>(extent))) return touch(extent);
    std::lock_guard<std::mutex> lock(m_readMutex);
    if (m_cache->hasExtent(static_cast<long long>(extent))) return touch(extent);  // another reader made it local
    bool ok = false;
    for (int attempt = 0; attempt < 2 && !m_cache->hasExtent(static_cast<long long>(extent)); ++attempt) {
        makeRoom(attempt > 0);
        long len = 0;
        unsigned char* buf = new unsigned char(0);  // the framework hands the provider a buffer it releases
        ok = m_disk->readData(m_disk.get(), static_cast<long long>(extent) * m_extentSize, &len, &buf);
        delete buf;
        if (!ok) break;
    }
    if (!ok) {
        std::lock_guard<std::mutex> statsLock(m_statsMutex);
        ++m_stats.readErrors;
        throw StoreError("extent " + std::to_string(extent) + " of disk " + m_disk->diskName + " could not be recalled (see the log)");
    }
    touch(extent);
    if (!m_cache->hasExtent(static_cast<long long>(extent)))
        throw StoreError("extent " + std::to_string(extent) + " of disk " + m_disk->diskName +
                         " was recalled but the cache is full (" + std::to_string(m_cache->usedBytes()) + " of " +
                         std::to_string(m_cache->capacity()) + " bytes used)");
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
        pin(extent, 1);
        struct Unpin {
            DiskHost* host;
            uint64_t extent;
            ~Unpin() { host->pin(extent, -1); }
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

}  // namespace zxblk

namespace zxblk {

std::string DiskHost::markMountComplete() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    // Sent while the disk still counts as mounting: afterwards the provider
    // has nothing more to say about mount extents.
    CUxError e = m_disk->updateExtentFlag(true);
    m_disk->mountComplete = 1;
    return e.IsError() ? e.AsString() : std::string();
}

std::string DiskHost::beginMetadata() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    m_disk->metadataPhase = 1;
    return std::string();
}

std::string DiskHost::endMetadata() {
    std::lock_guard<std::mutex> lock(m_readMutex);
    CUxError e = m_disk->updateExtentFlag(false);
    m_disk->metadataPhase = 0;
    return e.IsError() ? e.AsString() : std::string();
}

void DiskHost::prefetch(std::vector<uint64_t> extents) {
    if (m_prefetch.joinable()) m_prefetch.join();
    m_prefetch = std::thread([this, extents] {
        for (uint64_t e : extents) {
            if (m_stopping) return;
            if (e * static_cast<uint64_t>(m_extentSize) >= m_size) continue;
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
    line("mount_complete", m_disk->mountComplete);
    line("metadata_phase", m_disk->metadataPhase);
    return out;
}

}  // namespace zxblk
