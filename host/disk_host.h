// Presents one disk of a backup store: builds the provider's disk objects the
// way the host framework would, and serves byte reads by making the extents
// they touch local through them. It owns the extent cache: its folder (one
// process at a time), its size limit, its durability and the order in which
// extents leave it.
#pragma once
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "framework/AutoHandles.h"
#include "host/cache_folder.h"
#include "platform/ZxBlkBackingStore.h"
#include "store/store_services.h"

class ZxBlkVhd;

namespace zxblk {

struct HostOptions {
    std::string disk;
    int snapshot = -1;                   // -1: the newest
    std::string cacheDir;                // empty: a folder under the user's cache
    unsigned long long cacheLimit = 0;   // bytes; 0: a quarter of the space the cache may use
    uint64_t flushThreshold = 64;        // metadata extents gathered before they are sent
    // Disk objects per disk: each runs one recall at a time, so this many
    // extents can be on their way at once.
    unsigned diskObjects = 4;
    // Largest readahead window for a sequential reader, in extents; 0: reads
    // never recall ahead by themselves (readahead() still does).
    unsigned readaheadMax = 0;
    // Where the disk is mounted, when a mount holds the cache: the lock file
    // says so, so that a process refused the cache can tell the user where.
    std::string mountPoint;
    // Removes what the cache holds, and its folder, when the host ends (not
    // when the process dies: a killed run leaves it, marked dirty).
    bool dropCacheAtEnd = false;
};

// A stretch of the disk and whether any snapshot holds data there.
struct AllocatedRange {
    uint64_t offset = 0;
    uint64_t length = 0;
    bool data = false;
};

struct HostStats {
    uint64_t extentsRecalled = 0;  // disk extents made local by this host
    uint64_t bytesRecalled = 0;
    uint64_t evictions = 0;        // extents dropped from the cache to make room
    uint64_t readErrors = 0;
    uint64_t readaheads = 0;       // extents recalled ahead of a reader
};

class DiskHost;

// A local extent, open for reading: it stays in the cache while the handle
// lives, and its file stays open for as long as the cache keeps it.
class ExtentHandle {
public:
    ~ExtentHandle();
    ExtentHandle(const ExtentHandle&) = delete;
    ExtentHandle& operator=(const ExtentHandle&) = delete;
    int fd() const;
    uint64_t extent() const { return m_extent; }

private:
    friend class DiskHost;
    struct File;
    ExtentHandle(DiskHost* host, uint64_t extent, std::shared_ptr<File> file)
        : m_host(host), m_extent(extent), m_file(std::move(file)) {}
    DiskHost* m_host;
    uint64_t m_extent;
    std::shared_ptr<File> m_file;
};

class DiskHost {
public:
    // Takes the cache and connects the disk of the store whose services are
    // given; throws StoreError (another process holding the cache among the
    // reasons). The services are shared with any other disk of the store.
    DiskHost(std::shared_ptr<StoreServices> services, const HostOptions& options);
    ~DiskHost();
    DiskHost(const DiskHost&) = delete;
    DiskHost& operator=(const DiskHost&) = delete;

    uint64_t size() const { return m_size; }
    int64_t extentSize() const { return m_extentSize; }
    uint64_t extentCount() const { return m_extentCount; }
    int snapshot() const { return m_snapshot; }
    const std::string& cacheDir() const { return m_cacheDir; }
    // Reads [offset, offset + length) of the disk (clipped to its size);
    // throws StoreError naming the extent when it cannot be made local.
    // Any number of threads may read at once: extents already local are
    // served without waiting for a recall in progress, and different
    // extents recall in parallel.
    void read(uint64_t offset, uint64_t length, void* buffer);
    // Makes the extent local and holds it; throws StoreError.
    std::unique_ptr<ExtentHandle> acquire(uint64_t extent);
    // Recalls [first, first + count) (clipped to the disk) in the background,
    // ahead of a reader; extents already local or on their way are skipped.
    void readahead(uint64_t first, uint64_t count);
    // False when no snapshot holds a byte of the extent: it reads as zeros
    // and a copy of the disk need not recall it.
    bool holdsData(uint64_t extent);
    // [offset, offset + length) (clipped to the disk) covered by ranges in
    // order, neighbours never alike, from the snapshots' block tables and
    // without recalling anything. Its granularity is allocationGranularity().
    // A snapshot file that cannot be read counts as data throughout.
    std::vector<AllocatedRange> allocation(uint64_t offset, uint64_t length);
    // The smallest VHD block among the snapshots presented (no allocation
    // boundary lies between two multiples of it: block sizes are powers of
    // two); the extent size when all are fixed or raw, holding data everywhere.
    uint64_t allocationGranularity();
    // Drops one extent from the cache (unless a read is using it).
    void forget(uint64_t extent);
    HostStats stats() const;
    // "key value" lines: the disk, what was recalled, the cache, the
    // restore service and the phases.
    std::string statsText();

    // The mount and metadata phases of the disk; each returns "" or why the
    // index could not be told.
    std::string markMountComplete();
    std::string beginMetadata();
    std::string endMetadata();
    // Recalls these extents on a thread of its own, ahead of the readers.
    void prefetch(std::vector<uint64_t> extents);
    // What the user of the disk should hear of how it was opened: a cache
    // dropped because it was not closed cleanly or held another disk.
    const std::vector<std::string>& notices() const { return m_notices; }
    StoreServices& services() { return *m_services; }
    ZxBlkBackingStore& cache() { return *m_cache; }

private:
    friend class ExtentHandle;
    struct PoolDisk;
    void lockCache();
    void checkCacheIdentity(const std::string& identity);
    void dropCache(const std::string& why);
    void markDirty();
    void ensureExtent(uint64_t extent, bool ahead = false);
    void recall(uint64_t extent);
    PoolDisk* takeDisk();
    void giveBack(PoolDisk* disk);
    template <class F>
    std::string eachDisk(F apply);
    void touch(uint64_t extent);
    void touchLocked(uint64_t extent);
    void pin(uint64_t extent);
    void unpin(uint64_t extent);
    void removeLocked(uint64_t extent);
    unsigned long long evict(unsigned long long bytesToFree);
    std::shared_ptr<ExtentHandle::File> openExtentFile(uint64_t extent);
    void noteRead(uint64_t offset, uint64_t length);
    void readaheadWorker();

    auto_handle m_lock;  // first in, last out: held until everything else is gone
    std::shared_ptr<StoreServices> m_services;
    std::unique_ptr<ZxBlkBackingStore> m_cache;
    std::string m_diskName;
    std::string m_cacheDir;
    uint64_t m_size = 0;
    int64_t m_extentSize = 0;
    uint64_t m_extentCount = 0;
    int m_snapshot = 0;
    const DiskRecord* m_record = nullptr;  // in the services' catalog
    std::once_flag m_granularityOnce;
    uint64_t m_granularity = 0;

    // The pool of disk objects; a recall takes a free one.
    std::vector<std::unique_ptr<PoolDisk>> m_disks;
    std::mutex m_poolMutex;
    std::condition_variable m_poolCond;
    std::vector<PoolDisk*> m_freeDisks;
    // Extents being recalled: a reader of one of them waits for that recall.
    std::mutex m_recallMutex;
    std::condition_variable m_recallCond;
    std::unordered_set<uint64_t> m_inFlight;

    mutable std::mutex m_statsMutex;
    HostStats m_stats;
    // Use order of the cached extents (front: most recent), the extents that
    // reads are using, which eviction leaves alone, and the open files.
    std::mutex m_cacheMutex;
    std::list<uint64_t> m_useOrder;
    std::unordered_map<uint64_t, std::list<uint64_t>::iterator> m_useAt;
    std::unordered_map<uint64_t, int> m_pins;
    std::unordered_map<uint64_t, std::shared_ptr<ExtentHandle::File>> m_files;
    // Extents moved in since the cache was last made durable; the cache is
    // marked dirty before the first of them.
    std::unordered_set<uint64_t> m_unsynced;
    bool m_dirty = false;
    // Extents moved in by a recall that has not yet looked at its outcome.
    std::unordered_set<uint64_t> m_arrived;
    // Extents a reader dropped with forget(): a readahead that was already
    // under way for one of them must not bring it back.
    std::unordered_set<uint64_t> m_forgotten;
    std::deque<uint64_t> m_forgottenOrder;

    // Readahead: a queue of extents and the threads that recall them.
    std::mutex m_aheadMutex;
    std::condition_variable m_aheadCond;
    std::deque<uint64_t> m_aheadQueue;
    std::unordered_set<uint64_t> m_aheadQueued;
    std::vector<std::thread> m_aheadThreads;
    unsigned m_readaheadMax = 0;
    // Sequential readers seen lately: where each would read next and its window.
    struct Stream {
        uint64_t start = 0;       // where the reader began reading in order
        uint64_t next = 0;
        uint64_t aheadUntil = 0;  // first extent not yet asked for
        unsigned window = 0;
        uint64_t lastUse = 0;
    };
    std::mutex m_streamMutex;
    std::vector<Stream> m_streams;
    uint64_t m_streamClock = 0;

    // Copies of the disk's phase flags, readable without any disk's lock.
    std::atomic<bool> m_mountComplete{false}, m_metadataPhase{false};
    std::thread m_prefetch;
    std::atomic<bool> m_stopping{false};
    std::string m_mountPoint;
    bool m_dropAtEnd = false;
    std::vector<std::string> m_notices;
};

}  // namespace zxblk
