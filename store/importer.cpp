#include "store/importer.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <memory>
#include <set>

#include "store/catalog.h"
#include "store/image_probe.h"
#include "store/import_copy.h"
#include "store/storage.h"
#include "store/store_services.h"
#include "store/vhd_image.h"

namespace zxblk {
namespace {

// Snapshot and checksum files that the catalog does not name were left by
// an import that died before it replaced the catalog; no reader knows them,
// and the store lock says no import is running. Compared by identity, so
// that no spelling of a catalog path can make a named file look unnamed.
void removeLeftovers(const Storage& storage, const Catalog& catalog, std::vector<std::string>& lines) {
    std::set<std::string> named;
    for (const DiskRecord& d : catalog.disks)
        for (const CopyRecord& c : d.copies)
            for (const std::string* file : {&c.file, &c.sums})
                if (!file->empty()) named.insert(storage.identity(*file));
    for (const char* folder : {"snapshots/", "sums/"})
        for (const std::string& name : storage.list(folder)) {
            if (named.count(storage.identity(name))) continue;
            storage.remove(name);
            lines.push_back("removed " + storage.describe(name) + ", left by an import that did not finish");
        }
}

std::string now() {
    std::time_t t = std::time(nullptr);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", std::gmtime(&t));
    return buf;
}

bool validName(const std::string& name) {
    if (name.empty() || name.size() > 128 || name == "." || name == "..") return false;
    for (char c : name)
        if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.')) return false;
    return true;
}

// The chain checked against the catalog: one size, a base first, then
// differencing images each naming the one before it.
void checkChain(const Storage& storage, const Catalog& catalog, const std::string& diskName,
                const std::vector<VhdImage>& opened) {
    const DiskRecord* existing = catalog.findDisk(diskName);
    // The loader refuses a disk without snapshots; one that got here anyway
    // takes a base image as a new disk would.
    bool noSnapshots = !existing || existing->copies.empty();
    std::string previousId = noSnapshots ? "" : existing->copies.back().uniqueId;
    // A chain is all VHD or all VHDX: a VHD names its parent by the
    // parent's unique id, a VHDX by its data write GUID.
    const bool vhdxChain = noSnapshots ? opened.front().format() == FileFormat::Vhdx : existing->copies.front().format == "vhdx";
    // A differencing VHDX shares its parent's logical sector size; the
    // store's newest snapshot says what that is.
    uint32_t previousSector = 0;
    if (!noSnapshots && vhdxChain && opened.front().format() == FileFormat::Vhdx)
        previousSector = openCopyImage(storage, *existing, existing->copies.size() - 1)->logicalSectorSize();
    uint64_t size = existing ? existing->size : opened.front().virtualSize();
    for (size_t i = 0; i < opened.size(); ++i) {
        const VhdImage& img = opened[i];
        bool first = noSnapshots && i == 0;
        // The same file given again would otherwise be told it is not the
        // next snapshot, which says nothing of why.
        if (existing && img.kind() != ImageKind::Raw)
            for (size_t n = 0; n < existing->copies.size(); ++n)
                if (existing->copies[n].uniqueId == uniqueIdText(img.uniqueId()))
                    throw StoreError(ErrorKind::invalidArgument, img.path() + ": already imported as snapshot " +
                                                                     std::to_string(n) + " of disk " + diskName);
        const bool vhdx = img.format() == FileFormat::Vhdx;
        if (vhdx != vhdxChain)
            throw StoreError(ErrorKind::invalidArgument,
                             img.path() + ": a " + img.kindText() + " cannot be a snapshot of a chain of " +
                                 (vhdxChain ? "VHDX" : "VHD") + " files; convert the chain to one format first");
        if (img.virtualSize() != size)
            throw StoreError(ErrorKind::invalidArgument, img.path() +
                                                             ": current size: " + std::to_string(img.virtualSize()) +
                                                             " bytes, but the disk has " + std::to_string(size));
        if (first && img.kind() == ImageKind::Differencing)
            throw StoreError(ErrorKind::invalidArgument,
                             img.path() + ": a differencing image needs its parent imported first (parent " +
                                 uniqueIdText(img.parentUniqueId()) + ")");
        if (!first && img.kind() != ImageKind::Differencing)
            throw StoreError(ErrorKind::invalidArgument, img.path() + ": a newer snapshot of disk " + diskName +
                                                             " must be a differencing " + (vhdx ? "VHDX" : "VHD") +
                                                             ", not a " + img.kindText());
        if (!first && !img.namesParent(previousId))
            throw StoreError(ErrorKind::invalidArgument,
                             img.path() + (vhdx ? ": parent_linkage: " : ": parent unique id: ") +
                                 uniqueIdText(img.parentUniqueId()) + " is not the previous snapshot's " +
                                 (vhdx ? "data write GUID " : "") + previousId);
        if (img.kind() != ImageKind::Raw && img.kind() != ImageKind::Fixed && img.blockSize() < 512)
            throw StoreError(ErrorKind::invalidArgument, img.path() + ": block size: too small");
        if (!first && previousSector && img.logicalSectorSize() != previousSector)
            throw StoreError(ErrorKind::invalidArgument, img.path() + ": logical sector size: " +
                                                             std::to_string(img.logicalSectorSize()) +
                                                             " bytes, but its parent's is " + std::to_string(previousSector));
        previousSector = img.logicalSectorSize();
        previousId = img.kind() == ImageKind::Raw ? "" : uniqueIdText(img.uniqueId());
    }
}

// The id of the client a new disk belongs to: the one the catalog knows by
// its name, or a new one; an id given is the client's, and refused when the
// catalog knows it, or the name, otherwise.
uint64_t clientIdFor(const Catalog& catalog, const ImportSettings& options) {
    auto named = std::find_if(catalog.clients.begin(), catalog.clients.end(),
                              [&](const std::pair<const uint64_t, std::string>& c) { return c.second == options.client; });
    if (options.clientId) {
        auto it = catalog.clients.find(options.clientId);
        if (it != catalog.clients.end() && it->second != options.client)
            throw StoreError(ErrorKind::invalidArgument, "client id " + std::to_string(options.clientId) + " is client " +
                                                             it->second + "'s; give another id, or none");
        if (named != catalog.clients.end() && named->first != options.clientId)
            throw StoreError(ErrorKind::invalidArgument, "client " + options.client + " has id " +
                                                             std::to_string(named->first) + ", not " +
                                                             std::to_string(options.clientId));
        return options.clientId;
    }
    if (named != catalog.clients.end()) return named->first;
    uint64_t id = 2;  // the first client's, as stores have always had it
    for (const auto& c : catalog.clients) id = std::max(id, c.first + 1);
    return id;
}

// A new disk's record, and its subclient's when it is a new one.
DiskRecord newDisk(Catalog& catalog, const std::string& diskName, uint64_t size, const ImportSettings& options) {
    DiskRecord fresh;
    fresh.name = diskName;
    fresh.size = size;
    fresh.extentSize = options.extentSize;
    fresh.diskId = catalog.takeDiskId();
    uint32_t sub = options.subclientId;
    if (sub == 0) {
        uint64_t above = 1;
        for (auto& s : catalog.subclients) above = std::max<uint64_t>(above, uint64_t(s.first) + 1);
        if (above <= UINT32_MAX)
            sub = static_cast<uint32_t>(above);
        else  // the highest id is taken: the lowest free one
            for (sub = 1; catalog.subclients.count(sub);) ++sub;
    }
    fresh.subclientId = sub;
    if (!catalog.subclients.count(sub)) {
        const uint64_t clientId = clientIdFor(catalog, options);
        SubclientRecord s;
        s.id = sub;
        s.name = options.subclient;
        s.clientId = clientId;
        s.instanceId = sub;
        s.backupSetId = sub;
        s.appType = 106;
        catalog.subclients[sub] = s;
        catalog.clients[clientId] = options.client;
        catalog.instances[sub] = options.instance;
        catalog.backupSets[sub] = options.backupSet;
    }
    return fresh;
}

// The import proper, under the store's lock: the chain checked against the
// catalog, the files staged and published, then the catalog replaced.
std::vector<std::string> importLocked(const Storage& storage, Storage::Staging& staging, const std::string& diskName,
                                      const std::vector<VhdImage>& opened, const ImportSettings& options) {
    Catalog catalog = Catalog::load(storage);
    checkChain(storage, catalog, diskName, opened);
    DiskRecord* existing = catalog.findDisk(diskName);
    DiskRecord fresh;
    if (!existing) fresh = newDisk(catalog, diskName, opened.front().virtualSize(), options);
    DiskRecord& disk = existing ? *existing : fresh;
    const SubclientRecord& sub = catalog.subclients.at(disk.subclientId);
    std::string clientName = catalog.clients.count(sub.clientId) ? catalog.clients.at(sub.clientId) : "client";
    std::vector<std::string> lines;
    removeLeftovers(storage, catalog, lines);

    uint64_t done = 0, total = 0;
    for (const VhdImage& img : opened) total += img.fileSize();
    const size_t firstNew = disk.copies.size();
    for (const VhdImage& img : opened) {
        size_t index = disk.copies.size();
        const bool vhdx = img.format() == FileFormat::Vhdx;
        const char* extension = img.kind() == ImageKind::Raw ? ".raw"
                                 : !vhdx                      ? ".vhd"
                                 : img.kind() == ImageKind::Differencing ? ".avhdx"
                                                                         : ".vhdx";
        std::string name = diskName + "-snap" + std::to_string(index) + extension;
        CopyRecord copy;
        copy.file = "snapshots/" + name;
        copy.sums = "sums/" + name + ".sums";
        for (const std::string* file : {&copy.file, &copy.sums})
            if (storage.stat(*file).exists)
                throw StoreError(storage.describe(*file) + ": already exists, named by the catalog for another snapshot");
        std::unique_ptr<Storage::Staging::Sink> sink = staging.sink(copy.file, img.fileSize());
        if (!sink) sink = fileSink(staging.pathFor(copy.file));
        std::string sums = copyWithSums(img, name, *sink, [&](uint64_t at) {
            if (options.progress) options.progress(done + at, total);
        });
        done += img.fileSize();
        writeWhole(staging.pathFor(copy.sums), sums);
        copy.browsePath = "/" + clientName + "/" + sub.name + "/" + diskName + "/snap" + std::to_string(index);
        copy.sumsChecksum = sumText(xxh3(sums.data(), sums.size()));
        copy.type = typeCode(img.kind());
        copy.storedExtentSize = disk.extentSize + (copy.type == kTypeDifferencing ? 512 : 0);
        copy.archiveFileId = catalog.takeArchiveFileId();
        copy.uniqueId = img.kind() == ImageKind::Raw ? "" : uniqueIdText(img.uniqueId());
        copy.importedAt = now();
        copy.size = img.virtualSize();
        copy.fileSize = img.fileSize();
        if (img.kind() == ImageKind::Differencing)
            copy.parentUniqueId = index && img.namesParent(disk.copies[index - 1].uniqueId) ? disk.copies[index - 1].uniqueId
                                                                                             : uniqueIdText(img.parentUniqueId());
        if (vhdx) copy.format = "vhdx";
        disk.copies.push_back(copy);
        lines.push_back("imported " + img.path() + (storage.remote() ? " into " + storage.location() : std::string()) +
                        " as " + diskName + " snapshot " + std::to_string(index) + " (" + img.kindText() + ", " +
                        std::to_string(img.virtualSize()) + " bytes" +
                        (img.note().empty() ? std::string() : "; " + img.note()) + ")");
    }
    // Every new file is in place, and durable, before the catalog names it.
    for (size_t i = firstNew; i < disk.copies.size(); ++i) {
        CopyRecord& copy = disk.copies[i];
        copy.etag = staging.publish(copy.file);
        staging.publish(copy.sums);
    }
    staging.commit();
    if (!existing) catalog.disks.push_back(fresh);
    catalog.save(storage);
    staging.keep();
    return lines;
}

}  // namespace

std::vector<std::string> importImages(const Storage& storage, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportSettings& options) {
    if (!validName(diskName))
        throw StoreError(ErrorKind::invalidArgument,
                         "disk name '" + diskName + "': use letters, digits, '-', '_' and '.'");
    if (images.empty()) throw StoreError(ErrorKind::invalidArgument, "no images to import");
    if (options.extentSize < 65536 || options.extentSize > (2 << 20) || (options.extentSize & (options.extentSize - 1)))
        throw StoreError(ErrorKind::invalidArgument, "extent size " + std::to_string(options.extentSize) +
                                                         ": not a power of two from 64 KiB to 2 MiB");
    // Every image is checked on its own before anything is made.
    std::vector<VhdImage> opened;
    for (const std::string& path : images) opened.push_back(openImage(path, options.format));

    std::unique_ptr<Storage::Staging> staging = storage.stage();
    StoreLock lock(storage);
    // What a failed import staged or made goes while the lock is still
    // held: no other import can have made the folder a store meanwhile.
    struct Drop {
        std::unique_ptr<Storage::Staging>& staging;
        ~Drop() { staging.reset(); }
    } drop{staging};
    return importLocked(storage, *staging, diskName, opened, options);
}

}  // namespace zxblk
