// A store, as a program sees it: its disks and clients, import, verify and
// the index. Each call is a thin layer over the catalog, the store's checks
// and its services.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "api/api_internal.h"
#include "host/cache_folder.h"
#include "host/disk_host.h"
#include "store/at_once.h"
#include "store/importer.h"
#include "store/index_service.h"
#include "store/s3_storage.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

Error notAStore(const std::string& path, const std::string& why) {
    return Error(path + " is not a zxblk store (" + why + ")", ErrorKind::notFound);
}

// A folder with a catalog, said of the folder before its catalog is read
// (Catalog::load takes a folder without one for an empty store, as import
// needs; a reader has nothing to read there).
void checkIsFolderStore(const std::string& path, const Storage& storage) {
    struct stat st;
    if (::stat(path.c_str(), &st) != 0) {
        if (errno == ENOENT) throw notAStore(path, "no such folder");
        throw Error(path + ": " + std::strerror(errno), ErrorKind::notFound);
    }
    if (!S_ISDIR(st.st_mode)) throw notAStore(path, "not a folder");
    if (::stat(storage.describe(kCatalogName).c_str(), &st) != 0) {
        if (errno == ENOENT) throw notAStore(path, "no catalog.json");
        throw Error(storage.describe(kCatalogName) + ": " + std::strerror(errno), ErrorKind::io);
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
    s.vhdx = copy.format == "vhdx";
    s.file = copy.file;
    s.fileSize = copy.fileSize;
    s.importedAt = copy.importedAt;
    try {
        if (!s.fileSize) s.fileSize = storage.stat(copy.file).size;  // a catalog from before sizes were kept
        std::shared_ptr<VhdImage> img = openCopyImage(storage, disk, index);
        // openCopyImage keeps a bad side file for the reads to report; here
        // it is the answer.
        if (!img->sumsError().empty()) throw StoreError(ErrorKind::corruption, img->sumsError());
        s.kind = img->isFixedVhdx() ? SnapshotKind::fixed : kindOf(typeCode(img->kind()));
    } catch (const StoreError& e) {
        // Opened without asking first whether it is there: a store a
        // network away answers both in one request.
        bool missing = false;
        try {
            missing = e.kind() == ErrorKind::notFound && !storage.stat(copy.file).exists;
        } catch (const StoreError&) {
            // The store stopped answering: damaged, with the first cause.
        }
        s.status = missing ? SnapshotStatus::missing : SnapshotStatus::damaged;
        s.problem = missing ? storage.describe(copy.file) + ": no such file" : e.what();
    } catch (const std::exception& e) {
        s.status = SnapshotStatus::damaged;
        s.problem = e.what();
    }
    return s;
}

// Every damaged block is one finding; a snapshot that cannot be checked at
// all (file or side file unreadable, or no longer its catalog record) is
// one too.
void verifyDisk(const Storage& storage, const DiskRecord& disk, VerifyResult& tally,
                const std::function<void(const VerifyFinding&)>& found) {
    ++tally.disks;
    for (size_t i = 0; i < disk.copies.size(); ++i) {
        const CopyRecord& copy = disk.copies[i];
        VerifyFinding f;
        f.disk = disk.name;
        f.snapshot = static_cast<int>(i);
        f.file = copy.file;
        std::shared_ptr<VhdImage> img;
        auto report = [&](int64_t block, const std::string& text, bool damaged) {
            f.block = block, f.text = text, f.damaged = damaged;
            // A block of a VHD stands for blockSize bytes of the disk; raw
            // and fixed snapshots are checked in units of their own.
            const uint64_t unit = img ? img->sumUnitBytes() : 0, at = block < 0 ? 0 : uint64_t(block) * unit;
            f.offset = block < 0 || !unit ? 0 : std::min(at, disk.size);
            f.length = block < 0 || !unit ? 0 : std::min(unit, disk.size - f.offset);
            if (damaged) ++tally.damaged;
            if (found) found(f);
        };
        ++tally.snapshots;
        try {
            img = openCopyImage(storage, disk, i);
            std::shared_ptr<const BlockSums> sums = loadBlockSums(storage, copy, *img);
            if (!sums) {
                ++tally.unchecked;
                report(-1, "no checksums recorded (imported before they were kept); not checked", false);
                continue;
            }
            for (uint64_t u = img->nextHeldUnit(0); u < img->sumUnits(); u = img->nextHeldUnit(u + 1)) {
                ++tally.blocks;
                std::string why;
                try {
                    if (img->checkUnit(*sums, u, why)) continue;
                } catch (const StoreError& e) {
                    why = e.what();
                }
                report(static_cast<int64_t>(u), why, true);
            }
            // A block recorded at import that the file no longer holds lost its data.
            for (const BlockSums::Entry& e : sums->entries)
                if (!img->unitHeld(e.unit))
                    report(static_cast<int64_t>(e.unit), "checksum mismatch (recorded, but no longer in the file)", true);
        } catch (const StoreError& e) {
            report(-1, e.what(), true);
        }
    }
}

}  // namespace

std::shared_ptr<S3Connections> connections() {
    // One set of pools for as long as the library is loaded: the stores a
    // program opens on one endpoint share its connections.
    static std::shared_ptr<S3Connections> pools = makeS3Connections();
    return pools;
}

namespace {

// What the library keeps of stores on S3 (catalogs, snapshots' metadata),
// beside the extent caches: a second open of a disk then costs one round
// trip to the store.
std::string metadataRoot() { return defaultCacheRoot() + "/s3-metadata"; }

}  // namespace

std::shared_ptr<StoreServices> Store::Impl::openServices() {
    std::lock_guard<std::mutex> lock(servicesMutex);
    if (!services) services = StoreServices::open(storage, catalog);
    return services;
}

std::string Store::Impl::clientOf(const DiskRecord& disk) const {
    auto sub = catalog.subclients.find(disk.subclientId);
    if (sub == catalog.subclients.end()) return std::string();
    auto client = catalog.clients.find(sub->second.clientId);
    return client == catalog.clients.end() ? std::string() : client->second;
}

DiskInfo Store::Impl::info(const DiskRecord& disk) const {
    DiskInfo d;
    d.name = disk.name;
    d.client = clientOf(disk);
    d.size = disk.size;
    d.extentSize = static_cast<uint64_t>(disk.extentSize);
    d.snapshots.resize(disk.copies.size());
    runAtOnce(disk.copies.size(), [&](size_t i) { d.snapshots[i] = snapshotInfo(*storage, disk, i); });
    return d;
}

const DiskRecord& Store::Impl::record(const std::string& name) const {
    const DiskRecord* d = catalog.findDisk(name);
    if (!d) throw Error(path + ": no disk named '" + name + "'", ErrorKind::notFound);
    return *d;
}

Store::Store(std::shared_ptr<Impl> impl) : m_impl(std::move(impl)) {}
Store::~Store() = default;
Store::Store(Store&& other) noexcept = default;
Store& Store::operator=(Store&& other) noexcept = default;

Store Store::open(const std::string& location) {
    return guarded([&] {
        auto impl = std::make_shared<Impl>();
        impl->path = location;
        // A server or a mount serves from "/": a folder is named by its real path.
        impl->storage = openStorage(canonicalLocation(location), connections(), metadataRoot());
        // On S3 a look first would cost a round trip: the catalog's absence
        // says the same.
        if (!impl->storage->remote()) checkIsFolderStore(location, *impl->storage);
        bool found = false;
        impl->catalog = Catalog::load(*impl->storage, &found);
        if (!found) throw notAStore(location, "no catalog.json");
        return Store(std::move(impl));
    });
}

std::vector<std::string> Store::importImages(const std::string& location, const std::string& disk,
                                             const std::vector<std::string>& images, const ImportOptions& options) {
    return guarded([&] {
        ImportSettings o;
        o.client = options.client;
        o.clientId = options.clientId;
        o.subclient = options.subclient;
        o.subclientId = options.subclientId;
        o.backupSet = options.backupSet;
        o.instance = options.instance;
        o.extentSize = static_cast<int64_t>(std::min<uint64_t>(options.extentSize, INT64_MAX));
        o.format = options.format == ImageFormat::raw   ? ImportFormat::Raw
                   : options.format == ImageFormat::vhd ? ImportFormat::Vhd
                   : options.format == ImageFormat::vhdx ? ImportFormat::Vhdx
                                                        : ImportFormat::Auto;
        o.progress = options.progress;
        return zxblk::importImages(*openStorage(location, connections()), disk, images, o);
    });
}

const std::string& Store::path() const { return m_impl->path; }

std::vector<DiskInfo> Store::disks() const {
    return guarded([&] {
        std::vector<DiskInfo> out;
        for (const DiskRecord& d : m_impl->catalog.disks) out.push_back(m_impl->info(d));
        return out;
    });
}

DiskInfo Store::disk(const std::string& name) const {
    return guarded([&] { return m_impl->info(m_impl->record(name)); });
}

std::vector<ClientInfo> Store::clients() const {
    return guarded([&] {
        std::vector<ClientInfo> out;
        for (const DiskRecord& d : m_impl->catalog.disks) {
            std::string client = m_impl->clientOf(d);
            auto it = std::find_if(out.begin(), out.end(), [&](const ClientInfo& c) { return c.name == client; });
            if (it == out.end()) it = out.insert(out.end(), ClientInfo{client, {}});
            it->disks.push_back(d.name);
        }
        return out;
    });
}

ClientInfo Store::client(const std::string& name) const {
    return guarded([&] {
        for (const ClientInfo& c : clients())
            if (c.name == name) return c;
        throw Error(m_impl->path + ": no client named '" + name + "'", ErrorKind::notFound);
    });
}

VerifyResult Store::verify(const std::string& disk, const std::function<void(const VerifyFinding&)>& found) const {
    return guarded([&] {
        VerifyResult tally;
        if (!disk.empty()) m_impl->record(disk);
        for (const DiskRecord& d : m_impl->catalog.disks)
            if (disk.empty() || d.name == disk) verifyDisk(*m_impl->storage, d, tally, found);
        return tally;
    });
}

std::vector<IndexRow> Store::indexRows(const std::string& disk, int snapshot, const std::string& kind) const {
    return guarded([&] {
        m_impl->record(disk);
        std::vector<IndexRow> out;
        for (const FlaggedExtent& f : SqliteIndexService(*m_impl->storage).rows(disk, snapshot, kind)) {
            IndexRow r;
            r.snapshot = static_cast<int>(f.snapshot);
            r.kind = f.kind;
            r.extent = f.extent;
            r.reports = f.reports;
            r.firstSeen = f.firstSeen;
            r.lastSeen = f.lastSeen;
            out.push_back(r);
        }
        return out;
    });
}

}  // namespace zxblk
