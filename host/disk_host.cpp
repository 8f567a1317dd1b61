#include "host/disk_host.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
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
#include <optional>

#include "platform/Log.h"
#include "store/storage.h"
#include "store/vhd_image.h"
#include "vhd/ZxBlkVhd.h"

namespace zxblk {
namespace {

const char* const kTag = "DiskHost";
// Open extent files kept beyond those in use; more are closed, least
// recently used first.
const size_t kOpenFiles = 256;
std::string absolutePath(const std::string& path) {
    std::error_code ec;
    std::filesystem::path p = std::filesystem::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

}  // namespace

struct ExtentHandle::File {
    explicit File(int descriptor) : fd(descriptor) {}
    ~File() { ::close(fd); }
    int fd;
};

int ExtentHandle::fd() const { return m_file->fd; }
ExtentHandle::~ExtentHandle() { m_host->unpin(m_extent); }

struct DiskHost::PoolDisk {
    std::unique_ptr<ZxBlkVhd> disk;
    std::mutex mutex;  // one readData or phase change at a time per disk object
};

DiskHost::DiskHost(std::shared_ptr<StoreServices> services, const HostOptions& options)
    : m_services(std::move(services)),
      m_diskName(options.disk),
      m_readaheadMax(options.readaheadMax),
      m_mountPoint(options.mountPoint),
      m_dropAtEnd(options.dropCacheAtEnd) {
    const std::string storeDir = m_services->location();
    const Catalog& catalog = m_services->catalog();
    const DiskRecord* record = catalog.findDisk(options.disk);
    if (!record) throw StoreError(ErrorKind::notFound, storeDir + ": no disk named '" + options.disk + "'");
    int newest = static_cast<int>(record->copies.size()) - 1;
    if (newest < 0) throw StoreError(ErrorKind::notFound, storeDir + ": disk '" + options.disk + "' has no snapshots");
    m_snapshot = options.snapshot < 0 ? newest : options.snapshot;
    if (m_snapshot > newest)
        throw StoreError(ErrorKind::notFound, storeDir + ": disk '" + options.disk + "' has snapshots 0 to " +
                                                  std::to_string(newest) + ", not " + std::to_string(m_snapshot));
    m_record = record;
    m_size = record->size;
    m_extentSize = record->extentSize;
    const unsigned long long E = static_cast<unsigned long long>(m_extentSize);
    m_extentCount = (m_size + E - 1) / E;
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
    m_cache->setExtentSize(E);
    // Extent files are not synced one by one: a run that did not stop
    // cleanly may have left files whose bytes never reached the disk.
    if (::access((m_cacheDir + "/dirty").c_str(), F_OK) == 0) {
        m_dirty = true;
        dropCache("extent cache " + m_cacheDir + " was not closed cleanly; its extents were dropped");
    }

    // The cache holds the bytes of one disk as one list of snapshots shows it.
    CacheIdentity identity;
    identity.store = storeDir;
    identity.disk = options.disk;
    identity.snapshot = m_snapshot;
    identity.extentSize = m_extentSize;
    for (const CopyRecord& c : record->copies)
        identity.copies.push_back(std::to_string(c.archiveFileId) + " " + c.uniqueId + " " + c.file);
    checkCacheIdentity(identity.text());

    unsigned long long limit = options.cacheLimit;
    if (!limit) {
        struct statvfs fs;
        unsigned long long avail = ::statvfs(m_cacheDir.c_str(), &fs) == 0 ? fs.f_bavail * fs.f_frsize : 0;
        limit = std::max((avail + m_cache->usedBytes()) / 4, 8 * E);
    }
    m_cache->setCapacity(limit);
    // Readahead never asks for more than a quarter of what the cache holds:
    // in a cache of a few extents it would only push out what readers use.
    m_readaheadMax = static_cast<unsigned>(std::min<uint64_t>(m_readaheadMax, limit / E / 4));
    // What a previous run left is used oldest first, as it was moved in.
    std::vector<std::pair<long long, uint64_t>> found;
    for (long long e : m_cache->extents()) {
        struct stat st;
        found.emplace_back(::stat(m_cache->extentPath(e).c_str(), &st) == 0 ? st.st_mtime : 0, static_cast<uint64_t>(e));
    }
    std::sort(found.begin(), found.end());
    for (auto& f : found) touch(f.second);
    m_cache->setEvictionHandler([this](unsigned long long bytes) { return evict(bytes); });
    m_cache->setMoveInHandler([this](long long e) {
        std::lock_guard<std::mutex> lock(m_cacheMutex);
        m_arrived.insert(static_cast<uint64_t>(e));
        // A reader may have used and dropped it already, before this runs.
        if (!m_cache->hasExtent(e)) return;
        m_unsynced.insert(static_cast<uint64_t>(e));
        touchLocked(static_cast<uint64_t>(e));
    });
    if (m_cache->usedBytes() > limit) evict(m_cache->usedBytes() - limit);  // a smaller limit than last time

    // As the framework builds a disk: copies oldest first (so the newest is
    // tried first), geometry, subclient, backing store, connect. The paths
    // and the subclient id are those the router leads back to this store.
    const CopyRecord& top = record->copies[m_snapshot];
    std::string topPath = m_services->routedPath(top);
    std::string diskPath = topPath.substr(0, topPath.rfind('/'));
    const uint32_t appId = m_services->routedAppId(*record);
    for (unsigned n = 0; n < std::max(1u, options.diskObjects); ++n) {
        std::unique_ptr<PoolDisk> slot(new PoolDisk);
        slot->disk.reset(new ZxBlkVhd(options.disk, diskPath));
        ZxBlkVhd& disk = *slot->disk;
        for (int i = 0; i <= m_snapshot; ++i) {
            const CopyRecord& c = record->copies[i];
            const std::string path = m_services->routedPath(c);
            disk.addToBrowseStructList(c.storedExtentSize, static_cast<long long>(record->size), record->sectorSize,
                                       std::to_string(record->diskId), path, c.type);
            disk.insertDiskPath(path);
        }
        disk.setDiskParams(record->extentSize, static_cast<long long>(record->size), record->sectorSize,
                           std::to_string(record->diskId));
        SpecialOptsRecord special;
        special.appId = appId;
        special.idxKey1 = record->diskId;
        special.idxKey2 = static_cast<uint64_t>(m_snapshot);
        special.entityId = record->diskId;
        FBRCtxSpecialOpts opts;
        opts.specialOptsRecord = &special;
        try {
            disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
        } catch (const ZxException& e) {
            throw StoreError(storeDir + ": disk '" + options.disk + "': " + e.what());
        }
        disk.setRecallStore(m_cache.get());
        disk.mountComplete = 0;  // the disk starts out being mounted
        disk.metadataPhase = 0;
        disk.extentFlushThreshold = options.flushThreshold;
        disk.connect();
        m_freeDisks.push_back(slot.get());
        m_disks.push_back(std::move(slot));
    }
    m_services->reserveWorkers(static_cast<unsigned>(m_disks.size()));
    for (size_t i = 0; i < m_disks.size(); ++i) m_aheadThreads.emplace_back(&DiskHost::readaheadWorker, this);
}

// One process per cache: a second would clear the first one's temporary
// files and race it over the extent files. The lock goes with the process,
// so a crashed run never leaves the cache locked.
void DiskHost::lockCache() {
    std::string path = m_cacheDir + "/lock";
    for (int attempt = 0;; ++attempt) {
        m_lock.reset(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
        if (!m_lock.is_valid()) {
            // The folder went (zxblk cache purge) after it was made.
            if (errno != ENOENT || attempt == 3) throw StoreError(path + ": " + std::strerror(errno));
        } else {
            // Waited for: a process that is stopping (syncing the cache after
            // an unmount: a mount right after an unmount is the common case)
            // or removing the cache, and one that only looks at it (the note
            // then names a process that is gone).
            auto passing = [this] {
                CacheHolder h = readLockNote(m_lock.get());
                return h.state == "stopping" || h.state == "removing" ||
                       (h.pid > 0 && ::kill(h.pid, 0) != 0 && errno == ESRCH);
            };
            for (int waited = 0; ::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0 && waited < 600 && passing(); ++waited)
                ::usleep(50000);
            if (::flock(m_lock.get(), LOCK_EX | LOCK_NB) != 0) {
                CacheHolder h = readLockNote(m_lock.get());
                m_lock.reset();
                throw StoreError("the extent cache " + m_cacheDir + " is in use by another zxblk process" +
                                 (h.pid > 0 ? " (" + h.describe() + ")" : std::string()) +
                                 "; give this command a cache of its own with --cache DIR");
            }
            // A cache removed while this process waited for it: its lock
            // went with it.
            struct stat st;
            if (::fstat(m_lock.get(), &st) != 0 || st.st_nlink > 0 || attempt == 3) break;
            m_lock.reset();
        }
        std::error_code ec;
        std::filesystem::create_directories(m_cacheDir, ec);
        if (ec) throw StoreError(m_cacheDir + ": cannot make the extent cache: " + ec.message());
    }
    writeLockNote(m_lock.get(), lockNote("", m_mountPoint));
}

void DiskHost::dropCache(const std::string& why) {
    if (!m_cache->extents().empty()) m_notices.push_back(why);
    for (long long e : m_cache->extents()) m_cache->removeExtent(e);
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
    dropCache("extent cache " + m_cacheDir + " held another disk or snapshot list; its extents were dropped");
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

// The mark goes down, durably, before the first extent file of this run is
// moved in; a clean stop syncs the cache's file system once and takes it
// away. A run that ends any other way leaves it for the next one to find.
void DiskHost::markDirty() {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    if (m_dirty) return;
    std::string path = m_cacheDir + "/dirty";
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    int dir = fd >= 0 ? ::open(m_cacheDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1;
    bool durable = dir >= 0 && ::fsync(dir) == 0;
    int err = errno;
    if (fd >= 0) ::close(fd);
    if (dir >= 0) ::close(dir);
    if (!durable) throw StoreError(path + ": cannot mark the extent cache in use: " + std::strerror(err));
    m_dirty = true;
}

DiskHost::~DiskHost() {
    m_stopping = true;
    // A process that starts meanwhile waits for this one to end.
    writeLockNote(m_lock.get(), lockNote("stopping", m_mountPoint));
    {
        std::lock_guard<std::mutex> lock(m_aheadMutex);
        m_aheadQueue.clear();
        m_aheadQueued.clear();
    }
    m_aheadCond.notify_all();
    for (std::thread& t : m_aheadThreads) t.join();
    if (m_prefetch.joinable()) m_prefetch.join();
    eachDisk([](ZxBlkVhd& disk) {
        disk.disconnect();
        return CUxError::Success();
    });
    // Every recall of these disk objects has called back before they go.
    for (auto& slot : m_disks) m_services->forget(slot->disk.get());
    m_services->releaseWorkers(static_cast<unsigned>(m_disks.size()));
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    m_files.clear();
    if (m_dropAtEnd) {
        // Nothing to make durable in a cache that goes.
        try {
            removeCacheFiles(m_cacheDir);
        } catch (const StoreError& e) {
            LogSink::write(kLevelError, kTag, e.what());
        }
        return;
    }
    bool clean = m_unsynced.empty() || ::syncfs(m_lock.get()) == 0;
    if (!clean) LogSink::write(kLevelError, kTag, m_cacheDir + ": cannot sync the extent cache: " + std::strerror(errno));
    if (clean && m_dirty) ::unlink((m_cacheDir + "/dirty").c_str());
}

DiskHost::PoolDisk* DiskHost::takeDisk() {
    std::unique_lock<std::mutex> lock(m_poolMutex);
    m_poolCond.wait(lock, [this] { return !m_freeDisks.empty(); });
    PoolDisk* disk = m_freeDisks.back();
    m_freeDisks.pop_back();
    return disk;
}

void DiskHost::giveBack(PoolDisk* disk) {
    {
        std::lock_guard<std::mutex> lock(m_poolMutex);
        m_freeDisks.push_back(disk);
    }
    m_poolCond.notify_one();
}

// Applies a phase change to every disk object, each between its recalls;
// returns "" or the first error.
template <class F>
std::string DiskHost::eachDisk(F apply) {
    std::string error;
    for (auto& slot : m_disks) {
        std::lock_guard<std::mutex> lock(slot->mutex);
        CUxError e = apply(*slot->disk);
        if (e.IsError() && error.empty()) error = e.AsString();
    }
    return error;
}

void DiskHost::touch(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    touchLocked(extent);
}

void DiskHost::touchLocked(uint64_t extent) {
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

// With m_cacheMutex held. A reader that still holds the file keeps reading
// it: the descriptor outlives the name.
void DiskHost::removeLocked(uint64_t extent) {
    m_cache->removeExtent(static_cast<long long>(extent));
    m_files.erase(extent);
    m_unsynced.erase(extent);
    auto it = m_useAt.find(extent);
    if (it == m_useAt.end()) return;
    m_useOrder.erase(it->second);
    m_useAt.erase(it);
}

// Called by the backing store when a move-in does not fit: the least
// recently used extents that no read is using go until the bytes are free.
// The pin check and the removal happen under one lock, so a reader that
// pinned an extent either keeps it or finds it gone and recalls it.
unsigned long long DiskHost::evict(unsigned long long bytesToFree) {
    uint64_t evicted = 0;
    unsigned long long freed = 0;
    {
        std::lock_guard<std::mutex> lock(m_cacheMutex);
        std::vector<uint64_t> victims;
        for (auto it = m_useOrder.rbegin(); freed < bytesToFree && it != m_useOrder.rend(); ++it) {
            if (m_pins.count(*it)) continue;
            freed += m_cache->extentFileSize(static_cast<long long>(*it));
            victims.push_back(*it);
        }
        for (uint64_t e : victims) removeLocked(e);
        evicted = victims.size();
    }
    std::lock_guard<std::mutex> lock(m_statsMutex);
    m_stats.evictions += evicted;
    return freed;
}

bool DiskHost::holdsData(uint64_t extent) {
    const uint64_t E = static_cast<uint64_t>(m_extentSize);
    return extent < m_extentCount && m_services->holdsData(*m_record, m_snapshot, extent * E, E);
}

uint64_t DiskHost::allocationGranularity() {
    std::call_once(m_granularityOnce, [this] {
        uint64_t g = m_services->smallestBlock(*m_record, m_snapshot);
        m_granularity = g ? g : static_cast<uint64_t>(m_extentSize);
    });
    return m_granularity;
}

std::vector<AllocatedRange> DiskHost::allocation(uint64_t offset, uint64_t length) {
    std::vector<AllocatedRange> out;
    const uint64_t end = std::min(m_size, offset + std::min(length, m_size));
    if (offset >= end) return out;
    const uint64_t g = allocationGranularity();
    for (uint64_t at = offset; at < end;) {
        uint64_t next = std::min(end, (at / g + 1) * g);
        bool data = m_services->holdsData(*m_record, m_snapshot, at, next - at);
        if (!out.empty() && out.back().data == data)
            out.back().length += next - at;
        else
            out.push_back(AllocatedRange{at, next - at, data});
        at = next;
    }
    return out;
}

void DiskHost::forget(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    if (m_pins.count(extent)) return;
    removeLocked(extent);
    if (m_forgotten.insert(extent).second) m_forgottenOrder.push_back(extent);
    while (m_forgottenOrder.size() > 256) {
        m_forgotten.erase(m_forgottenOrder.front());
        m_forgottenOrder.pop_front();
    }
}

// Makes the extent local unless it is; a reader of an extent that is being
// recalled waits for that recall instead of starting another.
void DiskHost::ensureExtent(uint64_t extent, bool ahead) {
    auto local = [&] {
        if (!m_cache->hasExtent(static_cast<long long>(extent))) return false;
        if (!ahead) touch(extent);
        return true;
    };
    if (local()) return;
    {
        std::unique_lock<std::mutex> lock(m_recallMutex);
        m_recallCond.wait(lock, [&] { return !m_inFlight.count(extent); });
        if (local()) return;
        {
            std::lock_guard<std::mutex> cacheLock(m_cacheMutex);
            if (ahead && m_forgotten.count(extent)) return;
            if (!ahead) m_forgotten.erase(extent);  // stale entries in the order are harmless
        }
        m_inFlight.insert(extent);
    }
    struct Done {
        DiskHost* host;
        uint64_t extent;
        ~Done() {
            {
                std::lock_guard<std::mutex> lock(host->m_recallMutex);
                host->m_inFlight.erase(extent);
            }
            host->m_recallCond.notify_all();
        }
    } done{this, extent};
    recall(extent);
    if (ahead) {
        std::lock_guard<std::mutex> lock(m_statsMutex);
        ++m_stats.readaheads;
    }
}

void DiskHost::recall(uint64_t extent) {
    const long long e = static_cast<long long>(extent);
    const unsigned long long E = static_cast<unsigned long long>(m_extentSize);
    markDirty();
    PoolDisk* slot = takeDisk();
    bool ok;
    std::string cacheError;
    {
        std::lock_guard<std::mutex> lock(slot->mutex);
        long len = 0;
        unsigned char* buf = new unsigned char(0);  // the framework hands the provider a buffer it releases
        ok = slot->disk->readData(slot->disk.get(), e * m_extentSize, &len, &buf);
        delete buf;
        // The provider leaves the temporary file of a failed read (or of a
        // move-in that failed) in place; a long mount must not pile them up.
        m_cache->discardTemporary();
        cacheError = m_cache->takeLastError();
    }
    giveBack(slot);
    bool arrived;
    {
        std::lock_guard<std::mutex> lock(m_cacheMutex);
        arrived = m_arrived.erase(extent) != 0;
    }
    std::string what = "extent " + std::to_string(extent) + " of disk " + m_diskName;
    std::optional<StoreError> error;
    if (!ok) {
        // Why, as the service that failed it said, or the cache when it was
        // the temporary file that could not be made.
        std::optional<StoreError> cause = m_services->takeFailure(*m_record, m_snapshot, extent);
        if (!cause && !cacheError.empty()) cause = StoreError(ErrorKind::io, cacheError);
        error = cause ? StoreError(cause->kind(), what + " could not be recalled: " + cause->what())
                      : StoreError(ErrorKind::unavailable, what + " could not be recalled: the restore service did not say why");
    } else if (!arrived && m_cache->usedBytes() + E > m_cache->capacity()) {
        error = StoreError(ErrorKind::busy, what + " was recalled but does not fit in the cache (" +
                                                std::to_string(m_cache->usedBytes()) + " of " +
                                                std::to_string(m_cache->capacity()) + " bytes used by extents that reads are using)");
    } else if (!arrived) {
        error = StoreError(ErrorKind::io, what + " was recalled but could not be moved into the cache: " +
                                              (cacheError.empty() ? std::string("no reason given") : cacheError));
    }
    if (error) {
        std::lock_guard<std::mutex> statsLock(m_statsMutex);
        ++m_stats.readErrors;
        throw *error;
    }
    std::lock_guard<std::mutex> statsLock(m_statsMutex);
    ++m_stats.extentsRecalled;
    m_stats.bytesRecalled += static_cast<uint64_t>(m_extentSize);
}

// The extent's file, opened once while the cache keeps it.
std::shared_ptr<ExtentHandle::File> DiskHost::openExtentFile(uint64_t extent) {
    std::lock_guard<std::mutex> lock(m_cacheMutex);
    auto it = m_files.find(extent);
    if (it != m_files.end()) return it->second;
    std::string path = m_cache->extentPath(static_cast<long long>(extent));
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw StoreError(path + ": " + std::strerror(errno));
    auto file = std::make_shared<ExtentHandle::File>(fd);
    m_files[extent] = file;
    for (auto old = m_useOrder.rbegin(); m_files.size() > kOpenFiles && old != m_useOrder.rend(); ++old)
        if (*old != extent && !m_pins.count(*old)) m_files.erase(*old);
    return file;
}

std::unique_ptr<ExtentHandle> DiskHost::acquire(uint64_t extent) {
    if (extent >= m_extentCount)
        throw StoreError("extent " + std::to_string(extent) + " is past the end of disk " + m_diskName + " (" +
                         std::to_string(m_extentCount) + " extents)");
    // Pinned while it is used, so that no eviction takes it meanwhile.
    pin(extent);
    try {
        ensureExtent(extent);
        return std::unique_ptr<ExtentHandle>(new ExtentHandle(this, extent, openExtentFile(extent)));
    } catch (...) {
        unpin(extent);
        throw;
    }
}

void DiskHost::read(uint64_t offset, uint64_t length, void* buffer) {
    uint64_t end = std::min(offset + length, m_size);
    if (offset >= end) return;
    if (m_readaheadMax) noteRead(offset, end - offset);
    char* out = static_cast<char*>(buffer);
    const uint64_t E = static_cast<uint64_t>(m_extentSize);
    for (uint64_t at = offset; at < end;) {
        uint64_t within = at % E;
        uint64_t n = std::min<uint64_t>(end - at, E - within);
        std::unique_ptr<ExtentHandle> h = acquire(at / E);
        for (uint64_t done = 0; done < n;) {
            ssize_t got = ::pread(h->fd(), out + (at - offset) + done, n - done, static_cast<off_t>(within + done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0)
                throw StoreError(m_cache->extentPath(static_cast<long long>(h->extent())) + ": short extent file (" +
                                 (got < 0 ? std::strerror(errno) : std::to_string(within + done) + " bytes") + ")");
            done += static_cast<uint64_t>(got);
        }
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
    std::string error = eachDisk([](ZxBlkVhd& disk) {
        CUxError e = disk.updateExtentFlag(true);
        disk.mountComplete = 1;
        return e;
    });
    m_mountComplete = true;
    return error;
}

std::string DiskHost::beginMetadata() {
    eachDisk([](ZxBlkVhd& disk) {
        disk.metadataPhase = 1;
        return CUxError::Success();
    });
    m_metadataPhase = true;
    return std::string();
}

std::string DiskHost::endMetadata() {
    std::string error = eachDisk([](ZxBlkVhd& disk) {
        CUxError e = disk.updateExtentFlag(false);
        disk.metadataPhase = 0;
        return e;
    });
    m_metadataPhase = false;
    return error;
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
    line("extents_read_ahead", h.readaheads);
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
    // What the store's object storage was asked for: the bytes a recall
    // fetched from S3, not the disk's.
    const Storage& storage = m_services->storage();
    if (storage.remote()) {
        StorageStats s = storage.stats();
        line("store_gets", s.gets);
        line("store_get_bytes", s.getBytes);
        line("store_retries", s.retries);
    }
    return out;
}

}  // namespace zxblk
