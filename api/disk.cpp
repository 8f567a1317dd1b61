// A disk, as a program reads it: each call a thin layer over DiskHost.
#include "api/api_internal.h"
#include "platform/ZXPlatformInfo.h"

namespace zxblk {
namespace {

void checkRange(uint64_t offset, uint64_t length, uint64_t size, const std::string& disk) {
    if (offset > size || length > size - offset)
        throw Error("range " + std::to_string(offset) + "+" + std::to_string(length) + " is past the end of disk " +
                        disk + " (" + std::to_string(size) + " bytes)",
                    ErrorKind::invalidArgument);
}

}  // namespace

Disk::Disk(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Disk::~Disk() = default;
Disk::Disk(Disk&& other) noexcept = default;
Disk& Disk::operator=(Disk&& other) noexcept = default;

Disk Store::openDisk(const std::string& name, const DiskOptions& options) const {
    return guarded([&] {
        if (options.snapshot < -1)
            throw Error(m_impl->path + ": snapshot " + std::to_string(options.snapshot) +
                            ": not a snapshot number (0 is the oldest; -1: the newest)",
                        ErrorKind::invalidArgument);
        const DiskRecord& record = m_impl->record(name);
        // The provider reads whether to track extents when its disk objects
        // are made; a configuration file that says otherwise still wins.
        if (options.trackExtents)
            ZXPlatformInfo::setHostDefault("VirtualServer", "bEnableMetadataRestoreOptimization", "true");
        auto impl = std::make_shared<Disk::Impl>();
        impl->name = name;
        impl->client = m_impl->clientOf(record);
        impl->store = m_impl;
        impl->services = m_impl->openServices();
        HostOptions o;
        o.disk = name;
        // A recall from a store a network away mostly waits for it: more of
        // them at once keep its link busy.
        if (impl->services->storage().remote()) o.diskObjects = 16;
        o.snapshot = options.snapshot;
        o.cacheDir = options.cacheDir;
        o.cacheLimit = options.cacheLimit;
        o.readahead = options.readahead;
        o.flushThreshold = options.flushThreshold;
        o.mountPoint = options.mountPoint;
        o.dropCacheAtEnd = options.dropCacheAtEnd;
        o.allowDamaged = options.allowDamaged;
        impl->host.reset(new DiskHost(impl->services, o));
        return Disk(std::move(impl));
    });
}

Disk Disk::open(const std::string& store, const std::string& disk, const DiskOptions& options) {
    return Store::open(store).openDisk(disk, options);
}

const std::string& Disk::name() const { return m_impl->name; }
const std::string& Disk::client() const { return m_impl->client; }
uint64_t Disk::size() const { return m_impl->host->size(); }
uint64_t Disk::extentSize() const { return static_cast<uint64_t>(m_impl->host->extentSize()); }
uint64_t Disk::extentCount() const { return m_impl->host->extentCount(); }
int Disk::snapshot() const { return m_impl->host->snapshot(); }
const std::string& Disk::cacheDir() const { return m_impl->host->cacheDir(); }
std::vector<std::string> Disk::notices() const { return m_impl->host->notices(); }

void Disk::read(uint64_t offset, uint64_t length, void* buffer) {
    guarded([&] {
        checkRange(offset, length, size(), m_impl->name);
        m_impl->host->read(offset, length, buffer);
    });
}

std::vector<SalvagedRange> Disk::readSalvaged(uint64_t offset, uint64_t length, void* buffer) {
    return guarded([&] {
        checkRange(offset, length, size(), m_impl->name);
        if (offset % 512)
            throw Error("a salvage read of disk " + m_impl->name + " must start on a 512-byte boundary, not at " +
                            std::to_string(offset),
                        ErrorKind::invalidArgument);
        std::vector<SalvagedRange> out;
        for (const StoreServices::Gap& g :
             m_impl->services->salvageRead(m_impl->store->record(m_impl->name), snapshot(), offset, length,
                                           static_cast<uint8_t*>(buffer)))
            out.push_back(SalvagedRange{g.offset, g.length, g.snapshot, g.file, g.block, g.why});
        return out;
    });
}

std::vector<Range> Disk::allocation(uint64_t offset, uint64_t length) {
    return guarded([&] {
        checkRange(offset, length, size(), m_impl->name);
        std::vector<Range> out;
        for (const AllocatedRange& r : m_impl->host->allocation(offset, length))
            out.push_back(Range{r.offset, r.length, r.data});
        return out;
    });
}

uint64_t Disk::allocationGranularity() {
    return guarded([&] { return m_impl->host->allocationGranularity(); });
}

void Disk::prefetch(uint64_t offset, uint64_t length) {
    guarded([&] {
        checkRange(offset, length, size(), m_impl->name);
        if (!length) return;
        const uint64_t E = extentSize(), first = offset / E;
        m_impl->host->readahead(first, (offset + length - 1) / E - first + 1);
    });
}

LocalExtent Disk::extent(uint64_t index) {
    return guarded([&] {
        std::unique_ptr<LocalExtent::Impl> e(new LocalExtent::Impl);
        e->disk = m_impl;
        e->handle = m_impl->host->acquire(index);  // throws past the end
        e->offset = index * extentSize();
        e->length = std::min(extentSize(), size() - e->offset);
        return LocalExtent(std::move(e));
    });
}

void Disk::dropExtent(uint64_t index) {
    guarded([&] {
        if (index >= extentCount())
            throw Error("extent " + std::to_string(index) + " is past the end of disk " + m_impl->name + " (" +
                            std::to_string(extentCount()) + " extents)",
                        ErrorKind::invalidArgument);
        m_impl->host->forget(index);
    });
}

// A phase the index could not be told of fails the call, naming the disk.
static void phase(const Disk& disk, const std::string& error) {
    if (!error.empty()) throw Error("disk " + disk.name() + ": the index could not be told: " + error, ErrorKind::unavailable);
}

void Disk::markMountComplete() {
    guarded([&] { phase(*this, m_impl->host->markMountComplete()); });
}

void Disk::beginMetadata() {
    guarded([&] { phase(*this, m_impl->host->beginMetadata()); });
}

void Disk::endMetadata() {
    guarded([&] { phase(*this, m_impl->host->endMetadata()); });
}

size_t Disk::prefetchMountExtents() {
    return guarded([&] {
        std::vector<uint64_t> extents;
        if (std::shared_ptr<SqliteIndexService> index = m_impl->services->index())
            for (const FlaggedExtent& f : index->rows(m_impl->name, snapshot(), "mount")) extents.push_back(f.extent);
        m_impl->host->prefetch(extents);
        return extents.size();
    });
}

std::string Disk::statsText() {
    return guarded([&] { return m_impl->host->statsText(); });
}

DiskStats Disk::stats() {
    return guarded([&] {
        HostStats h = m_impl->host->stats();
        DiskStats s;
        s.extentsRecalled = h.extentsRecalled;
        s.bytesRecalled = h.bytesRecalled;
        s.extentsReadAhead = h.readaheads;
        s.readAheadUnused = h.readaheadUnused;
        s.readErrors = h.readErrors;
        s.evictions = h.evictions;
        s.cacheExtents = h.cacheExtents;
        s.cacheBytes = h.cacheBytes;
        s.cacheLimit = h.cacheLimit;
        s.restoreJobs = h.restore.jobs;
        s.restoreFailures = h.restore.failures;
        s.restoreBytes = h.restore.bytes;
        s.mountComplete = h.mountComplete;
        s.metadataPhase = h.metadataPhase;
        s.remote = h.remote;
        s.storeGets = h.storage.gets;
        s.storeGetBytes = h.storage.getBytes;
        s.storeRetries = h.storage.retries;
        s.storeRttSeconds = h.storage.rttSeconds;
        s.storeBytesPerSecond = h.storage.bytesPerSecond;
        s.storeHeldPeak = h.storage.heldPeak;
        return s;
    });
}

LocalExtent::LocalExtent(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
LocalExtent::~LocalExtent() = default;
LocalExtent::LocalExtent(LocalExtent&& other) noexcept = default;
LocalExtent& LocalExtent::operator=(LocalExtent&& other) noexcept = default;

uint64_t LocalExtent::index() const { return m_impl->handle->extent(); }
uint64_t LocalExtent::offset() const { return m_impl->offset; }
uint64_t LocalExtent::length() const { return m_impl->length; }
int LocalExtent::fd() const { return m_impl->handle->fd(); }

}  // namespace zxblk
