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
    m_disk->connect();
}

DiskHost::~DiskHost() {
    {
        std::lock_guard<std::mutex> lock(m_readMutex);
        m_disk->disconnect();
    }
    m_services->shutdown();  // every recall has called back before the disk goes
    m_services->unregisterFromPlatform();
}

void DiskHost::ensureExtent(uint64_t extent) {
    if (m_cache->hasExtent(static_cast<long long>(extent))) return;
    std::lock_guard<std::mutex> lock(m_readMutex);
    if (m_cache->hasExtent(static_cast<long long>(extent))) return;  // another reader made it local meanwhile
    long len = 0;
    unsigned char* buf = new unsigned char(0);  // the framework hands the provider a buffer it releases
    bool ok = m_disk->readData(m_disk.get(), static_cast<long long>(extent) * m_extentSize, &len, &buf);
    delete buf;
    if (!ok) throw StoreError("extent " + std::to_string(extent) + " of disk " + m_disk->diskName + " could not be recalled (see the log)");
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
