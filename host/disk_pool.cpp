#include "host/disk_pool.h"

#include <algorithm>
#include <optional>

#include "platform/FXErrorUtil.h"
#include "store/store_error.h"
#include "vhd/ZxBlkVhd.h"

namespace zxblk {

DiskPool::DiskPool(StoreServices& services, const DiskRecord& record, int snapshot, ExtentCache& cache,
                   unsigned count, uint64_t flushThreshold)
    : m_services(services),
      m_record(record),
      m_snapshot(snapshot),
      m_cache(cache),
      m_extentSize(static_cast<uint64_t>(record.extentSize)),
      m_extentCount((record.size + m_extentSize - 1) / m_extentSize) {
    // As the framework builds a disk: copies oldest first (so the newest is
    // tried first), geometry, subclient, backing store, connect. The paths
    // and the subclient id are those the router leads back to this store.
    const std::string topPath = m_services.routedPath(record.copies[snapshot]);
    const std::string diskPath = topPath.substr(0, topPath.rfind('/'));
    const uint32_t appId = m_services.routedAppId(record);
    for (unsigned n = 0; n < std::max(1u, count); ++n) {
        std::unique_ptr<Slot> slot(new Slot);
        MutexLock lock(slot->mutex);
        slot->disk.reset(new ZxBlkVhd(record.name, diskPath));
        ZxBlkVhd& disk = *slot->disk;
        for (int i = 0; i <= snapshot; ++i) {
            const CopyRecord& c = record.copies[i];
            const std::string path = m_services.routedPath(c);
            disk.addToBrowseStructList(c.storedExtentSize, static_cast<long long>(record.size), record.sectorSize,
                                       std::to_string(record.diskId), path, c.type);
            disk.insertDiskPath(path);
        }
        disk.setDiskParams(record.extentSize, static_cast<long long>(record.size), record.sectorSize,
                           std::to_string(record.diskId));
        SpecialOptsRecord special;
        special.appId = appId;
        special.idxKey1 = record.diskId;
        special.idxKey2 = static_cast<uint64_t>(snapshot);
        special.entityId = record.diskId;
        FBRCtxSpecialOpts opts;
        opts.specialOptsRecord = &special;
        try {
            disk.setSpecialOpts(CTXO_BLOCK_LEVEL, opts);
        } catch (const ZxException& e) {
            throw StoreError(m_services.location() + ": disk '" + record.name + "': " + e.what());
        }
        disk.setRecallStore(&m_cache.store());
        disk.mountComplete = 0;  // the disk starts out being mounted
        disk.metadataPhase = 0;
        disk.extentFlushThreshold = flushThreshold;
        disk.connect();
        m_slots.push_back(std::move(slot));
    }
    {
        MutexLock lock(m_mutex);
        for (auto& slot : m_slots) m_free.push_back(slot.get());
    }
    m_services.reserveWorkers(objects());
}

DiskPool::~DiskPool() {
    eachDisk([](ZxBlkVhd& disk) {
        disk.disconnect();
        return CUxError::Success();
    });
    // Every recall of these disk objects has called back before they go.
    for (auto& slot : m_slots) m_services.forget(slot->disk.get());
    m_services.releaseWorkers(objects());
}

// Recalls ahead of readers leave the last free disk object to a reader.
DiskPool::Slot* DiskPool::take(bool ahead) {
    MutexLock lock(m_mutex);
    while (m_free.empty() || (ahead && m_free.size() == 1 && m_slots.size() > 1)) m_slotFreed.wait(m_mutex);
    Slot* slot = m_free.back();
    m_free.pop_back();
    return slot;
}

void DiskPool::giveBack(Slot* slot) {
    {
        MutexLock lock(m_mutex);
        m_free.push_back(slot);
    }
    m_slotFreed.notifyAll();  // a reader may wait behind a recall ahead that cannot take it
}

// Applies a phase change to every disk object, each between its recalls;
// returns "" or the first error.
template <class F>
std::string DiskPool::eachDisk(F apply) {
    std::string error;
    for (auto& slot : m_slots) {
        MutexLock lock(slot->mutex);
        CUxError e = apply(*slot->disk);
        if (e.IsError() && error.empty()) error = FXErrorUtil::Messages(e);
    }
    return error;
}

bool DiskPool::holdsData(uint64_t extent) {
    return extent < m_extentCount && m_services.holdsData(m_record, m_snapshot, extent * m_extentSize, m_extentSize);
}

// The claim comes first and the look at the cache second: a recall that
// ends between the two has moved its extent in before the claim was made.
bool DiskPool::ensure(uint64_t extent, bool ahead) {
    if (m_cache.local(extent, !ahead)) return false;
    {
        MutexLock lock(m_mutex);
        while (m_inFlight.count(extent)) m_recallDone.wait(m_mutex);
        m_inFlight.insert(extent);
    }
    struct Claim {
        DiskPool* pool;
        uint64_t extent;
        ~Claim() {
            {
                MutexLock lock(pool->m_mutex);
                pool->m_inFlight.erase(extent);
            }
            pool->m_recallDone.notifyAll();
        }
    } claim{this, extent};
    if (m_cache.local(extent, !ahead) || !m_cache.mayRecall(extent, ahead)) return false;
    recall(extent, ahead);
    return true;
}

void DiskPool::recall(uint64_t extent, bool ahead) {
    const long long offset = static_cast<long long>(extent * m_extentSize);
    m_cache.markDirty();
    Slot* slot = take(ahead);
    bool ok;
    std::string cacheError;
    {
        MutexLock lock(slot->mutex);
        // The store runs a waiting reader's recalls before those ahead.
        struct Urgency {
            bool was;
            explicit Urgency(bool ahead) : was(recallsAhead()) { recallsAhead() = ahead; }
            ~Urgency() { recallsAhead() = was; }
        } urgency(ahead);
        long len = 0;
        unsigned char* buf = new unsigned char(0);  // the framework hands the provider a buffer it releases
        ok = slot->disk->readData(slot->disk.get(), offset, &len, &buf);
        delete buf;
        // The provider leaves the temporary file of a failed read (or of a
        // move-in that failed) in place; a long mount must not pile them up.
        m_cache.store().discardTemporary();
        cacheError = m_cache.store().takeLastError();
    }
    giveBack(slot);
    const bool arrived = m_cache.takeArrival(extent);
    const std::string what = "extent " + std::to_string(extent) + " of disk " + m_record.name;
    std::optional<StoreError> error;
    // A recall ahead that the cache gave no room is no read error: no
    // reader asked for it, and readers come first on a full file system.
    bool gaveWay = false;
    if (!ok) {
        // Why, as the service that failed it said, or the cache when it was
        // the temporary file that could not be made.
        std::optional<StoreError> cause = m_services.takeFailure(m_record, m_snapshot, extent);
        gaveWay = ahead && !cause && !cacheError.empty();
        if (!cause && !cacheError.empty()) cause = StoreError(ErrorKind::io, cacheError);
        error = cause ? StoreError(cause->kind(), what + " could not be recalled: " + cause->what())
                      : StoreError(ErrorKind::unavailable, what + " could not be recalled: the restore service did not say why");
    } else if (!arrived) {
        const unsigned long long used = m_cache.usedBytes(), capacity = m_cache.capacity();
        if (used + m_extentSize > capacity)
            error = StoreError(ErrorKind::busy, what + " was recalled but does not fit in the cache (" + std::to_string(used) +
                                                    " of " + std::to_string(capacity) +
                                                    " bytes used by extents that reads are using)");
        else
            error = StoreError(ErrorKind::io, what + " was recalled but could not be moved into the cache: " +
                                                  (cacheError.empty() ? std::string("no reason given") : cacheError));
    }
    MutexLock lock(m_mutex);
    if (error) {
        if (!gaveWay) ++m_stats.readErrors;
        throw *error;
    }
    ++m_stats.extentsRecalled;
    m_stats.bytesRecalled += m_extentSize;
}

// Mount extents are sent while the disk still counts as mounting: once
// mountComplete is set the provider has nothing more to say about them.
std::string DiskPool::markMountComplete() {
    std::string error = eachDisk([](ZxBlkVhd& disk) {
        CUxError e = disk.updateExtentFlag(true);
        disk.mountComplete = 1;
        return e;
    });
    MutexLock lock(m_mutex);
    m_stats.mountComplete = true;
    return error;
}

std::string DiskPool::beginMetadata() {
    eachDisk([](ZxBlkVhd& disk) {
        disk.metadataPhase = 1;
        return CUxError::Success();
    });
    MutexLock lock(m_mutex);
    m_stats.metadataPhase = true;
    return std::string();
}

std::string DiskPool::endMetadata() {
    std::string error = eachDisk([](ZxBlkVhd& disk) {
        CUxError e = disk.updateExtentFlag(false);
        disk.metadataPhase = 0;
        return e;
    });
    MutexLock lock(m_mutex);
    m_stats.metadataPhase = false;
    return error;
}

PoolStats DiskPool::stats() const {
    MutexLock lock(m_mutex);
    return m_stats;
}

}  // namespace zxblk
