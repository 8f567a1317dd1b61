// Presents one disk of a backup store: builds the provider's disk object the
// way the host framework would, and serves byte reads by making the extents
// they touch local through it. It owns the extent cache: its folder (one
// process at a time), its size limit and the order in which extents leave it.
#pragma once
#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "framework/AutoHandles.h"
#include "platform/ZxBlkBackingStore.h"
#include "store/store_services.h"

class ZxBlkVhd;

namespace zxblk {

struct HostOptions {
    std::string storeDir;
    std::string disk;
    int snapshot = -1;                   // -1: the newest
    std::string cacheDir;                // empty: a folder under the user's cache
    unsigned long long cacheLimit = 0;   // bytes; 0: a quarter of the space the cache may use
    uint64_t flushThreshold = 64;        // metadata extents gathered before they are sent
    StoreServices::Options services;
};

struct HostStats {
    uint64_t extentsRecalled = 0;  // disk extents made local by this host
    uint64_t bytesRecalled = 0;
    uint64_t evictions = 0;        // extents dropped from the cache to make room
    uint64_t readErrors = 0;
};

class DiskHost {
public:
    // Opens the store, takes the cache and connects the disk; throws
    // StoreError (another process holding the cache among the reasons).
    explicit DiskHost(const HostOptions& options);
    ~DiskHost();
    DiskHost(const DiskHost&) = delete;
    DiskHost& operator=(const DiskHost&) = delete;

    uint64_t size() const { return m_size; }
    int64_t extentSize() const { return m_extentSize; }
    int snapshot() const { return m_snapshot; }
    const std::string& cacheDir() const { return m_cacheDir; }
    // Reads [offset, offset + length) of the disk (clipped to its size);
    // throws StoreError naming the extent when it cannot be made local.
    // Any number of threads may read at once: extents already local are
    // served without waiting for a recall in progress.
    void read(uint64_t offset, uint64_t length, void* buffer);
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
    StoreServices& services() { return *m_services; }
    ZxBlkBackingStore& cache() { return *m_cache; }

private:
    void lockCache();
    void checkCacheIdentity(const std::string& identity);
    void ensureExtent(uint64_t extent);
    void touch(uint64_t extent);
    void pin(uint64_t extent);
    void unpin(uint64_t extent);
    void evict(unsigned long long bytesToFree);

    auto_handle m_lock;  // first in, last out: held until everything else is gone
    std::shared_ptr<StoreServices> m_services;
    std::unique_ptr<ZxBlkBackingStore> m_cache;
    std::unique_ptr<ZxBlkVhd> m_disk;
    std::string m_diskName;
    std::string m_cacheDir;
    uint64_t m_size = 0;
    int64_t m_extentSize = 0;
    int m_snapshot = 0;
    std::mutex m_readMutex;  // one readData at a time per disk object
    mutable std::mutex m_statsMutex;
    HostStats m_stats;
    // Use order of the cached extents (front: most recent) and the extents
    // that reads are using, which eviction leaves alone.
    std::mutex m_cacheMutex;
    std::list<uint64_t> m_useOrder;
    std::unordered_map<uint64_t, std::list<uint64_t>::iterator> m_useAt;
    std::unordered_map<uint64_t, int> m_pins;
    // Copies of the disk's phase flags, readable without the read lock.
    std::atomic<bool> m_mountComplete{false}, m_metadataPhase{false};
    std::thread m_prefetch;
    std::atomic<bool> m_stopping{false};
};

// The default cache folder of a store, disk and snapshot.
std::string defaultCacheDir(const std::string& storeDir, const std::string& disk, int snapshot);

}  // namespace zxblk
