#include "host/disk_host.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "host/disk_pool.h"
#include "host/readahead.h"
#include "store/storage.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

// Blocks of the allocation map asked about in one question (see allocation).
const uint64_t kBlocksPerStretch = 1024;

}  // namespace

ExtentHandle::~ExtentHandle() { m_cache->unpin(m_extent); }

DiskHost::DiskHost(std::shared_ptr<StoreServices> services, const HostOptions& options)
    : m_services(std::move(services)), m_diskName(options.disk) {
    const std::string storeDir = m_services->location();
    const DiskRecord* record = m_services->catalog().findDisk(options.disk);
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
        throw StoreError(ErrorKind::invalidArgument, "a cache limit of " + std::to_string(options.cacheLimit) +
                                                         " bytes holds no extent of disk '" + options.disk + "' (" +
                                                         std::to_string(E) + " bytes each)");

    // Every snapshot the disk reads from is opened, all at once, before the
    // cache is taken: a chain that cannot be presented whole is refused
    // before anything is mounted or served, naming the oldest snapshot at fault.
    std::vector<ChainDamage> damage = m_services->openChain(*record, m_snapshot);
    std::string damaged;
    if (!damage.empty()) {
        const ChainDamage& d = damage.front();
        damaged = "snapshot " + std::to_string(d.snapshot) + " (" + d.file + ") is " +
                  (d.missing ? "missing" : d.kind == ErrorKind::corruption ? "damaged: " + d.reason
                                                                          : "unreadable: " + d.reason);
        if (damage.size() > 1) {
            damaged += damage.size() > 2 ? "; snapshots" : "; snapshot";
            for (size_t i = 1; i < damage.size(); ++i)
                damaged += (i > 1 ? ", " : " ") + std::to_string(damage[i].snapshot);
            damaged += " too";
        }
        if (!options.allowDamaged)
            throw StoreError(d.missing ? ErrorKind::notFound : d.kind, options.disk + " " + damaged);
    }

    CacheIdentity identity;
    identity.store = storeDir;
    identity.disk = options.disk;
    identity.snapshot = m_snapshot;
    identity.extentSize = m_extentSize;
    for (const CopyRecord& c : record->copies)
        identity.copies.push_back(std::to_string(c.archiveFileId) + " " + c.uniqueId + " " + c.file);
    ExtentCache::Options cacheOptions;
    cacheOptions.extentSize = E;
    cacheOptions.limit = options.cacheLimit;
    cacheOptions.mountPoint = options.mountPoint;
    cacheOptions.dropAtEnd = options.dropCacheAtEnd;
    m_cache.reset(new ExtentCache(options.cacheDir.empty() ? defaultCacheDir(storeDir, options.disk, m_snapshot)
                                                           : options.cacheDir,
                                  identity, cacheOptions));

    m_notices = m_cache->notices();
    if (!damaged.empty())
        m_notices.push_back("presenting " + options.disk + " snapshot " + std::to_string(m_snapshot) + " although " +
                            damaged + ": the reads that need it fail");
    m_pool.reset(new DiskPool(*m_services, *record, m_snapshot, *m_cache, options.diskObjects, options.flushThreshold));
    // A recall ahead leaves the file system room for a reader's recall on
    // every disk object.
    m_cache->store().setReaderRoom(uint64_t(m_pool->objects()) * E);
    // Readahead never asks for more than a quarter of what the cache holds:
    // in a cache of a few extents it would only push out what readers use.
    const unsigned window = static_cast<unsigned>(std::min<uint64_t>(options.readahead / E, m_cache->capacity() / E / 4));
    m_readahead.reset(new Readahead(*m_cache, *m_pool, E, m_extentCount, window, m_pool->objects()));
}

// The readahead stops before the disk objects go, and they before the cache
// closes; a process that starts meanwhile waits for this one to end.
DiskHost::~DiskHost() {
    m_cache->noteStopping();
    m_readahead.reset();
    m_pool.reset();
}

bool DiskHost::holdsData(uint64_t extent) { return m_pool->holdsData(extent); }

uint64_t DiskHost::allocationGranularity() {
    std::call_once(m_granularityOnce, [this] {
        uint64_t g = m_services->allocationGranularity(*m_record, m_snapshot);
        m_granularity = g ? g : static_cast<uint64_t>(m_extentSize);
    });
    return m_granularity;
}

// The block tables are asked a stretch of many blocks at a time, and block
// by block only within a stretch that holds data: a huge disk that holds
// little is walked in as many questions as it has stretches, not blocks.
std::vector<AllocatedRange> DiskHost::allocation(uint64_t offset, uint64_t length) {
    std::vector<AllocatedRange> out;
    const uint64_t end = std::min(m_size, offset + std::min(length, m_size));
    if (offset >= end) return out;
    const uint64_t g = allocationGranularity(), stretch = g * kBlocksPerStretch;
    auto add = [&out](uint64_t at, uint64_t n, bool data) {
        if (!out.empty() && out.back().data == data)
            out.back().length += n;
        else
            out.push_back(AllocatedRange{at, n, data});
    };
    for (uint64_t at = offset; at < end;) {
        const uint64_t stretchEnd = std::min(end, (at / stretch + 1) * stretch);
        if (!m_services->holdsData(*m_record, m_snapshot, at, stretchEnd - at)) {
            add(at, stretchEnd - at, false);
            at = stretchEnd;
            continue;
        }
        for (; at < stretchEnd;) {
            uint64_t next = std::min(stretchEnd, (at / g + 1) * g);
            add(at, next - at, m_services->holdsData(*m_record, m_snapshot, at, next - at));
            at = next;
        }
    }
    return out;
}

void DiskHost::forget(uint64_t extent) { m_cache->forget(extent); }

void DiskHost::readahead(uint64_t first, uint64_t count) { m_readahead->request(first, count); }

void DiskHost::prefetch(std::vector<uint64_t> extents) { m_readahead->prefetch(std::move(extents)); }

std::unique_ptr<ExtentHandle> DiskHost::acquire(uint64_t extent) { return pin(extent, true); }

// Pinned from the first look on, so that no eviction takes the extent
// between its move-in and its opening. The block tables are asked only
// about an extent the cache does not have: a read of a local extent, the
// common one, does not wait on the store's lock of its open files.
std::unique_ptr<ExtentHandle> DiskHost::pin(uint64_t extent, bool evenUnheld) {
    if (extent >= m_extentCount)
        throw StoreError(ErrorKind::invalidArgument, "extent " + std::to_string(extent) + " is past the end of disk " +
                                                         m_diskName + " (" + std::to_string(m_extentCount) +
                                                         " extents)");
    std::shared_ptr<ExtentFile> file = m_cache->pinAndOpen(extent);
    try {
        if (!file) {
            if (!evenUnheld && !m_pool->holdsData(extent)) {
                m_cache->unpin(extent);
                return nullptr;
            }
            m_pool->ensure(extent, false);
            file = m_cache->open(extent);
        }
        if (!file)
            throw StoreError("extent " + std::to_string(extent) + " of disk " + m_diskName +
                             " left the cache before it could be read");
    } catch (...) {
        m_cache->unpin(extent);
        throw;
    }
    return std::unique_ptr<ExtentHandle>(new ExtentHandle(m_cache.get(), extent, std::move(file)));
}

void DiskHost::read(uint64_t offset, uint64_t length, void* buffer) {
    uint64_t end = std::min(offset + length, m_size);
    if (offset >= end) return;
    m_readahead->noteRead(offset, end - offset);
    char* out = static_cast<char*>(buffer);
    const uint64_t E = static_cast<uint64_t>(m_extentSize);
    for (uint64_t at = offset; at < end;) {
        uint64_t within = at % E;
        uint64_t n = std::min<uint64_t>(end - at, E - within);
        std::unique_ptr<ExtentHandle> h = pin(at / E, false);
        // What no snapshot holds reads as zeros: nothing to recall or cache.
        if (!h) {
            std::memset(out + (at - offset), 0, n);
            at += n;
            continue;
        }
        for (uint64_t done = 0; done < n;) {
            ssize_t got = ::pread(h->fd(), out + (at - offset) + done, n - done, static_cast<off_t>(within + done));
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0)
                throw StoreError(cache().extentPath(static_cast<long long>(h->extent())) + ": short extent file (" +
                                 (got < 0 ? std::strerror(errno) : std::to_string(within + done) + " bytes") + ")");
            done += static_cast<uint64_t>(got);
        }
        at += n;
    }
}

HostStats DiskHost::stats() const {
    PoolStats p = m_pool->stats();
    HostStats h;
    h.extentsRecalled = p.extentsRecalled;
    h.bytesRecalled = p.bytesRecalled;
    h.readErrors = p.readErrors;
    h.evictions = m_cache->evictions();
    h.readaheads = m_readahead->recalled();
    h.readaheadUnused = m_cache->unusedAhead();
    h.cacheExtents = m_cache->count();
    h.cacheBytes = m_cache->usedBytes();
    h.cacheLimit = m_cache->capacity();
    h.restore = m_services->stats();
    h.mountComplete = p.mountComplete;
    h.metadataPhase = p.metadataPhase;
    // What the store's object storage was asked for: the bytes a recall
    // fetched from S3, not the disk's.
    h.remote = m_services->storage().remote();
    if (h.remote) h.storage = m_services->storage().stats();
    return h;
}

std::string DiskHost::markMountComplete() { return m_pool->markMountComplete(); }
std::string DiskHost::beginMetadata() { return m_pool->beginMetadata(); }
std::string DiskHost::endMetadata() { return m_pool->endMetadata(); }

std::string DiskHost::statsText() const {
    HostStats h = stats();
    std::string out;
    auto line = [&](const char* key, unsigned long long v) { out += std::string(key) + " " + std::to_string(v) + "\n"; };
    line("disk_bytes", m_size);
    line("extent_size", static_cast<unsigned long long>(m_extentSize));
    line("extents_recalled", h.extentsRecalled);
    line("bytes_recalled", h.bytesRecalled);
    line("extents_read_ahead", h.readaheads);
    line("read_ahead_unused", h.readaheadUnused);
    line("read_errors", h.readErrors);
    line("evictions", h.evictions);
    line("cache_extents", h.cacheExtents);
    line("cache_bytes", h.cacheBytes);
    line("cache_limit", h.cacheLimit);
    line("restore_jobs", h.restore.jobs);
    line("restore_failures", h.restore.failures);
    line("restore_bytes", h.restore.bytes);
    line("mount_complete", h.mountComplete);
    line("metadata_phase", h.metadataPhase);
    if (h.remote) {
        line("store_gets", h.storage.gets);
        line("store_get_bytes", h.storage.getBytes);
        line("store_retries", h.storage.retries);
        line("store_rtt_us", static_cast<uint64_t>(h.storage.rttSeconds * 1e6));
        line("store_bytes_per_second", static_cast<uint64_t>(h.storage.bytesPerSecond));
        line("store_held_peak", h.storage.heldPeak);
    }
    return out;
}

}  // namespace zxblk
