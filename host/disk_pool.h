// The provider's disk objects of one disk, built the way the host framework
// builds them: from the catalog record, through the store's routed services,
// each recalling into the extent cache's backing store. Each object runs one
// readData at a time, so a few of them let different extents recall at once;
// a reader of an extent that is on its way waits for that recall rather than
// start another. The mount and metadata phases reach every object between
// its recalls.
//
// Lock order: a slot's mutex is held across the provider's readData and phase
// calls, under which the provider reaches the backing store and through it
// the extent cache's lock; no two slots' mutexes are ever held together.
// m_mutex is a leaf: nothing is called with it held, and it is never taken
// with a slot's mutex held.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "framework/ThreadAnnotations.h"
#include "host/extent_cache.h"
#include "store/store_services.h"

class ZxBlkVhd;

namespace zxblk {

struct PoolStats {
    uint64_t extentsRecalled = 0;
    uint64_t bytesRecalled = 0;
    uint64_t readErrors = 0;
    bool mountComplete = false;
    bool metadataPhase = false;
};

class DiskPool {
public:
    // `count` disk objects (at least one) of snapshot `snapshot` of the
    // disk; the services, the record and the cache outlive the pool. Reserves
    // a restore worker per object. Throws StoreError.
    DiskPool(StoreServices& services, const DiskRecord& record, int snapshot, ExtentCache& cache, unsigned count,
             uint64_t flushThreshold);
    // Disconnects the objects, waits until none can be called back, and
    // gives the workers back. No recall may be under way.
    ~DiskPool();
    DiskPool(const DiskPool&) = delete;
    DiskPool& operator=(const DiskPool&) = delete;

    unsigned objects() const { return static_cast<unsigned>(m_slots.size()); }
    // False when no snapshot holds a byte of the extent.
    bool holdsData(uint64_t extent);
    // Makes the extent local unless it is: waits for a recall of it that is
    // under way, then recalls it if it is still not local. A readahead
    // (`ahead`) leaves alone an extent that a reader forgot, and does not
    // count as a use. True when this call recalled it. Throws StoreError
    // naming the extent.
    bool ensure(uint64_t extent, bool ahead) EXCLUDES(m_mutex);

    // Each returns "" or the first error any object met.
    std::string markMountComplete() EXCLUDES(m_mutex);
    std::string beginMetadata() EXCLUDES(m_mutex);
    std::string endMetadata() EXCLUDES(m_mutex);
    PoolStats stats() const EXCLUDES(m_mutex);

private:
    struct Slot {
        Mutex mutex;  // one readData or phase change at a time per disk object
        std::unique_ptr<ZxBlkVhd> disk PT_GUARDED_BY(mutex);
    };
    Slot* take(bool ahead) EXCLUDES(m_mutex);
    void giveBack(Slot* slot) EXCLUDES(m_mutex);
    void recall(uint64_t extent, bool ahead) EXCLUDES(m_mutex);
    template <class F>
    std::string eachDisk(F apply);

    StoreServices& m_services;
    const DiskRecord& m_record;
    const int m_snapshot;
    ExtentCache& m_cache;
    const uint64_t m_extentSize;
    const uint64_t m_extentCount;
    std::vector<std::unique_ptr<Slot>> m_slots;  // fixed once built

    mutable Mutex m_mutex;
    CondVar m_slotFreed;
    CondVar m_recallDone;
    std::vector<Slot*> m_free GUARDED_BY(m_mutex);
    // Extents being recalled: a reader of one of them waits for that recall.
    std::unordered_set<uint64_t> m_inFlight GUARDED_BY(m_mutex);
    // The counts, and copies of the disk's phase flags readable without any
    // object's lock.
    PoolStats m_stats GUARDED_BY(m_mutex);
};

}  // namespace zxblk
