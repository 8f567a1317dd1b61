// The library a program links to: the public calls, each a thin layer over
// the catalog, the store's checks and DiskHost. Whatever fails inside leaves
// as zxblk::Error with the same one-line message.
#include "zxblk/zxblk.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <new>

#include "host/disk_host.h"
#include "platform/Log.h"
#include "store/catalog.h"
#include "store/s3_storage.h"
#include "store/storage.h"
#include "store/store_services.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

template <class F>
auto guarded(F&& f) -> decltype(f()) {
    try {
        return f();
    } catch (const Error&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw Error("out of memory");
    } catch (const std::exception& e) {
        throw Error(e.what());
    }
}

// The S3 connection pools of the library's stores, one per endpoint, as
// long as the library is loaded.
std::shared_ptr<S3Connections> connections() {
    static std::shared_ptr<S3Connections> pools = makeS3Connections();
    return pools;
}

// A folder with a catalog. Catalog::load takes a folder without one for an
// empty store, as import needs; a reader has nothing to read there.
void checkIsStore(const std::string& path, const Storage& storage) {
    if (storage.remote()) {
        if (!storage.stat(kCatalogName).exists) throw Error(path + " is not a zxblk store (no catalog.json)");
        return;
    }
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) throw Error(path + ": " + std::strerror(errno));
    if (!S_ISDIR(st.st_mode)) throw Error(path + " is not a zxblk store (not a folder)");
    if (::stat(storage.describe(kCatalogName).c_str(), &st) != 0) {
        if (errno == ENOENT) throw Error(path + " is not a zxblk store (no catalog.json)");
        throw Error(storage.describe(kCatalogName) + ": " + std::strerror(errno));
    }
}

SnapshotKind kindOf(uint32_t type) {
    switch (type) {
        case kTypeFixed: return SnapshotKind::fixed;
        case kTypeDynamic: return SnapshotKind::dynamic;
        case kTypeDifferencing: return SnapshotKind::differencing;
        default: return SnapshotKind::raw;  // the catalog admits no other code
    }
}

// Opens the snapshot's file and its checksums as a recall does, so that
// "ok" means a read of it gets past every check but the data's own.
SnapshotInfo snapshotInfo(const Storage& storage, const DiskRecord& disk, size_t index) {
    const CopyRecord& copy = disk.copies[index];
    SnapshotInfo s;
    s.number = static_cast<int>(index);
    s.kind = kindOf(copy.type);
    s.file = copy.file;
    s.fileSize = copy.fileSize;
    s.importedAt = copy.importedAt;
    ObjectInfo info = storage.stat(copy.file);
    if (!info.exists) {
        s.status = SnapshotStatus::missing;
        s.problem = storage.describe(copy.file) + ": no such file";
        return s;
    }
    if (!s.fileSize) s.fileSize = info.size;  // a catalog from before sizes were kept
    try {
        std::shared_ptr<VhdImage> img = openCopyImage(storage, disk, index);
        // openCopyImage keeps a bad side file for the reads to report; here
        // it is the answer.
        loadBlockSums(storage, copy, *img);
        s.kind = kindOf(typeCode(img->kind()));
    } catch (const std::exception& e) {
        s.status = SnapshotStatus::damaged;
        s.problem = e.what();
    }
    return s;
}

DiskInfo diskInfo(const Storage& storage, const DiskRecord& disk) {
    DiskInfo d;
    d.name = disk.name;
    d.size = disk.size;
    d.extentSize = static_cast<uint64_t>(disk.extentSize);
    for (size_t i = 0; i < disk.copies.size(); ++i) d.snapshots.push_back(snapshotInfo(storage, disk, i));
    return d;
}

void checkRange(uint64_t offset, uint64_t length, uint64_t size, const std::string& disk) {
    if (offset > size || length > size - offset)
        throw Error("range " + std::to_string(offset) + "+" + std::to_string(length) + " is past the end of disk " +
                    disk + " (" + std::to_string(size) + " bytes)");
}

}  // namespace

const char* version() { return ZXBLK_VERSION; }

void setLogHandler(std::function<void(int, const std::string&, const std::string&)> handler) {
    LogSink::setHandler(std::move(handler));
}

Error::Error(const std::string& message) : std::runtime_error(message) {}
Error::~Error() = default;

const char* kindName(SnapshotKind kind) {
    switch (kind) {
        case SnapshotKind::fixed: return "fixed VHD";
        case SnapshotKind::dynamic: return "dynamic VHD";
        case SnapshotKind::differencing: return "differencing VHD";
        case SnapshotKind::raw: return "raw";
    }
    return "?";
}

const char* statusName(SnapshotStatus status) {
    switch (status) {
        case SnapshotStatus::ok: return "ok";
        case SnapshotStatus::missing: return "missing";
        case SnapshotStatus::damaged: return "damaged";
    }
    return "?";
}

// Store

struct Store::Impl {
    std::string path;
    std::shared_ptr<Storage> storage;
    Catalog catalog;
    // The restore service and the rest, made when the first disk opens and
    // shared by every disk of the store.
    std::mutex servicesMutex;
    std::shared_ptr<StoreServices> services;

    std::shared_ptr<StoreServices> openServices() {
        std::lock_guard<std::mutex> lock(servicesMutex);
        if (!services) services = StoreServices::open(storage);
        return services;
    }
};

Store::Store(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Store::~Store() = default;
Store::Store(Store&& other) noexcept = default;
Store& Store::operator=(Store&& other) noexcept = default;

Store Store::open(const std::string& path) {
    return guarded([&] {
        std::unique_ptr<Impl> impl(new Impl);
        impl->path = path;
        // A server or a mount serves from "/": a folder is named by its real path.
        impl->storage = openStorage(canonicalLocation(path), connections());
        checkIsStore(path, *impl->storage);
        impl->catalog = Catalog::load(*impl->storage);
        return Store(std::move(impl));
    });
}

const std::string& Store::path() const { return m_impl->path; }

std::vector<DiskInfo> Store::disks() const {
    return guarded([&] {
        std::vector<DiskInfo> out;
        for (const DiskRecord& d : m_impl->catalog.disks) out.push_back(diskInfo(*m_impl->storage, d));
        return out;
    });
}

DiskInfo Store::disk(const std::string& name) const {
    return guarded([&] {
        const DiskRecord* d = m_impl->catalog.findDisk(name);
        if (!d) throw Error(m_impl->path + ": no disk named '" + name + "'");
        return diskInfo(*m_impl->storage, *d);
    });
}

// Disk

struct Disk::Impl {
    std::string name;
    std::shared_ptr<StoreServices> services;  // outlives the host, which it serves
    std::unique_ptr<DiskHost> host;
};

struct LocalExtent::Impl {
    std::shared_ptr<Disk::Impl> disk;  // outlives the handle below
    std::unique_ptr<ExtentHandle> handle;
    uint64_t offset = 0, length = 0;
};

Disk::Disk(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Disk::~Disk() = default;
Disk::Disk(Disk&& other) noexcept = default;
Disk& Disk::operator=(Disk&& other) noexcept = default;

Disk Store::openDisk(const std::string& diskName, const DiskOptions& options) const {
    return guarded([&] {
        if (options.snapshot < -1)
            throw Error(m_impl->path + ": snapshot " + std::to_string(options.snapshot) +
                        ": not a snapshot number (0 is the oldest; -1: the newest)");
        auto impl = std::make_shared<Disk::Impl>();
        HostOptions o;
        o.disk = diskName;
        o.snapshot = options.snapshot;
        o.cacheDir = options.cacheDir;
        o.cacheLimit = options.cacheLimit;
        o.readaheadMax = options.readaheadMax;
        impl->name = diskName;
        impl->services = m_impl->openServices();
        impl->host.reset(new DiskHost(impl->services, o));
        return Disk(std::move(impl));
    });
}

Disk Disk::open(const std::string& storePath, const std::string& diskName, const DiskOptions& options) {
    return Store::open(storePath).openDisk(diskName, options);
}

const std::string& Disk::name() const { return m_impl->name; }
uint64_t Disk::size() const { return m_impl->host->size(); }
uint64_t Disk::extentSize() const { return static_cast<uint64_t>(m_impl->host->extentSize()); }
uint64_t Disk::extentCount() const { return m_impl->host->extentCount(); }
int Disk::snapshot() const { return m_impl->host->snapshot(); }

void Disk::read(uint64_t offset, uint64_t length, void* buffer) {
    guarded([&] {
        checkRange(offset, length, size(), m_impl->name);
        m_impl->host->read(offset, length, buffer);
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
                        std::to_string(extentCount()) + " extents)");
        m_impl->host->forget(index);
    });
}

std::string Disk::statsText() {
    return guarded([&] { return m_impl->host->statsText(); });
}

// LocalExtent

LocalExtent::LocalExtent(std::unique_ptr<Impl> impl) : m_impl(std::move(impl)) {}
LocalExtent::~LocalExtent() = default;
LocalExtent::LocalExtent(LocalExtent&& other) noexcept = default;
LocalExtent& LocalExtent::operator=(LocalExtent&& other) noexcept = default;

uint64_t LocalExtent::index() const { return m_impl->handle->extent(); }
uint64_t LocalExtent::offset() const { return m_impl->offset; }
uint64_t LocalExtent::length() const { return m_impl->length; }
int LocalExtent::fd() const { return m_impl->handle->fd(); }

}  // namespace zxblk
