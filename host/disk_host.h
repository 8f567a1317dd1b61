// Presents one disk of a backup store: serves byte reads by making the
// extents they touch local. A thin front over the parts that do the work:
// the extent cache (its folder, durability and account), the pool of the
// provider's disk objects that recall into it (and the phases), and the
// readahead. The allocation map comes from the store without recalling.
//
// Lock order: the front holds no lock of its own. Its parts call only
// downwards (Readahead -> DiskPool -> ExtentCache), and each header tells
// which of its locks may be held across a call out of it.
#pragma once
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "host/cache_folder.h"
#include "host/extent_cache.h"
#include "platform/ZxBlkBackingStore.h"
#include "store/store_services.h"

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
    // Largest readahead window for a sequential reader, in bytes (whole
    // extents, at most a quarter of the cache); 0: reads never recall ahead
    // by themselves (readahead() still does).
    uint64_t readahead = 0;
    // Where the disk is mounted, when a mount holds the cache: the lock file
    // says so, so that a process refused the cache can tell the user where.
    std::string mountPoint;
    // Removes what the cache holds, and its folder, when the host ends (not
    // when the process dies: a killed run leaves it, marked dirty).
    bool dropCacheAtEnd = false;
    // Presents a chain with a snapshot that fails the checks of its open
    // (missing, cut short, not the file the catalog records) rather than
    // refusing it: notices() says so, and the reads that need that snapshot
    // fail as they come.
    bool allowDamaged = false;
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
    uint64_t readaheadUnused = 0;  // of those, evicted or dropped unread, or not read yet
    uint64_t cacheExtents = 0, cacheBytes = 0, cacheLimit = 0;
    RestoreStats restore;  // the store's restore service, shared with its other disks
    bool mountComplete = false, metadataPhase = false;
    bool remote = false;  // a store on S3: what its objects were asked for
    StorageStats storage;
};

class DiskPool;
class Readahead;

// A local extent, open for reading: it stays in the cache while the handle
// lives, and its file stays open for as long as the cache keeps it.
class ExtentHandle {
public:
    ~ExtentHandle();
    ExtentHandle(const ExtentHandle&) = delete;
    ExtentHandle& operator=(const ExtentHandle&) = delete;
    int fd() const { return m_file->fd(); }
    uint64_t extent() const { return m_extent; }

private:
    friend class DiskHost;
    ExtentHandle(ExtentCache* cache, uint64_t extent, std::shared_ptr<ExtentFile> file)
        : m_cache(cache), m_extent(extent), m_file(std::move(file)) {}
    ExtentCache* m_cache;
    uint64_t m_extent;
    std::shared_ptr<ExtentFile> m_file;
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
    const std::string& cacheDir() const { return m_cache->dir(); }
    // Reads [offset, offset + length) of the disk (clipped to its size);
    // throws StoreError naming the extent when it cannot be made local.
    // Any number of threads may read at once: extents already local are
    // served without waiting for a recall in progress, and different
    // extents recall in parallel. An extent that no snapshot holds a byte
    // of reads as zeros without a recall.
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
    // two); at most an extent for a VHDX, whose blocks hold holes of the
    // file, told an extent at a time; the extent size when all are fixed or
    // raw, holding data everywhere.
    uint64_t allocationGranularity();
    // Drops one extent from the cache (unless a read is using it).
    void forget(uint64_t extent);
    HostStats stats() const;
    // The same as "key value" lines.
    std::string statsText() const;

    // The mount and metadata phases of the disk; each returns "" or why the
    // index could not be told.
    std::string markMountComplete();
    std::string beginMetadata();
    std::string endMetadata();
    // Recalls these extents on a thread of its own, ahead of the readers.
    void prefetch(std::vector<uint64_t> extents);
    // What the user of the disk should hear of how it was opened: a cache
    // dropped because it was not closed cleanly or held another disk, a
    // damaged chain presented all the same.
    const std::vector<std::string>& notices() const { return m_notices; }
    StoreServices& services() { return *m_services; }
    // The cache's backing store; its account is the extent cache's.
    ZxBlkBackingStore& cache() { return m_cache->store(); }
    ExtentCache& extentCache() { return *m_cache; }

private:
    // acquire(), but without `evenUnheld` an extent that is not local and
    // that no snapshot holds a byte of is neither recalled nor held: nullptr.
    std::unique_ptr<ExtentHandle> pin(uint64_t extent, bool evenUnheld);

    // Declared first so that it goes last: the cache's lock is held until
    // everything else is gone.
    std::unique_ptr<ExtentCache> m_cache;
    std::shared_ptr<StoreServices> m_services;
    const DiskRecord* m_record = nullptr;  // in the services' catalog
    std::string m_diskName;
    uint64_t m_size = 0;
    int64_t m_extentSize = 0;
    uint64_t m_extentCount = 0;
    int m_snapshot = 0;
    std::once_flag m_granularityOnce;
    uint64_t m_granularity = 0;
    std::unique_ptr<DiskPool> m_pool;
    std::unique_ptr<Readahead> m_readahead;
    std::vector<std::string> m_notices;
};

}  // namespace zxblk
