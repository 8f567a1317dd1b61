#include "store/catalog.h"

#include "store/storage.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "store/vhd_image.h"

namespace zxblk {

using nlohmann::json;

const char* const kCatalogName = "catalog.json";
// The largest disk a VHDX describes.
const uint64_t kMaxDiskSize = 64ULL << 40;
// Far above any real catalog; a bigger file is not one.
const uint64_t kMaxCatalogBytes = 256ull << 20;


namespace {

// Field access that names the field when the catalog is wrong.
struct Reader {
    std::string file;
    [[noreturn]] void fail(const std::string& field, const std::string& why) const {
        throw StoreError(ErrorKind::corruption, file + ": " + field + ": " + why);
    }
    const json& member(const json& obj, const std::string& key, const std::string& where) const {
        if (!obj.is_object() || !obj.contains(key)) fail(where + key, "missing");
        return obj.at(key);
    }
    uint64_t u64(const json& obj, const std::string& key, const std::string& where, uint64_t max = UINT64_MAX) const {
        const json& v = member(obj, key, where);
        if (!v.is_number_unsigned() || v.get<uint64_t>() > max) fail(where + key, "not a number from 0 to " + std::to_string(max));
        return v.get<uint64_t>();
    }
    std::string str(const json& obj, const std::string& key, const std::string& where) const {
        const json& v = member(obj, key, where);
        if (!v.is_string()) fail(where + key, "not a string");
        return v.get<std::string>();
    }
    // Fields that older catalogs lack read as 0 or empty.
    uint64_t optionalU64(const json& obj, const std::string& key, const std::string& where, uint64_t max) const {
        return obj.contains(key) ? u64(obj, key, where, max) : 0;
    }
    std::string optionalStr(const json& obj, const std::string& key, const std::string& where) const {
        return obj.contains(key) ? str(obj, key, where) : std::string();
    }
};

// Where each value of one kind was first seen, to name both places when it
// comes again.
class FirstSeen {
public:
    FirstSeen(const Reader& r, const char* what) : m_r(r), m_what(what) {}
    void add(const std::string& value, const std::string& field, const std::string& where) {
        auto seen = m_seen.emplace(value, where);
        if (!seen.second) m_r.fail(where + "." + field, "'" + value + "' is also the " + m_what + " of " + seen.first->second);
    }

private:
    const Reader& m_r;
    const char* m_what;
    std::map<std::string, std::string> m_seen;
};

std::string diskAt(size_t i) { return "disks[" + std::to_string(i) + "]"; }
std::string copyAt(size_t i, size_t k) { return diskAt(i) + ".copies[" + std::to_string(k) + "]"; }

// What no tool writes and no reader may trust: a disk without snapshots, a
// name or id used twice, counters that would hand out an id in use,
// sizes that disagree, a snapshot chain with a repeat or a break in it.
void checkInvariants(const Catalog& c, const Reader& r) {
    FirstSeen names(r, "name"), diskIds(r, "id"), ids(r, "archive file id"), paths(r, "browse path");
    uint64_t topDiskId = 0, topArchiveFileId = 0;
    for (size_t i = 0; i < c.disks.size(); ++i) {
        const DiskRecord& d = c.disks[i];
        std::string where = diskAt(i) + ".";
        names.add(d.name, "name", diskAt(i));
        diskIds.add(std::to_string(d.diskId), "diskId", diskAt(i));
        topDiskId = std::max(topDiskId, d.diskId);
        if (d.copies.empty()) r.fail(where + "copies", "disk '" + d.name + "' has no snapshot");
        FirstSeen uniqueIds(r, "unique id");
        for (size_t k = 0; k < d.copies.size(); ++k) {
            const CopyRecord& cr = d.copies[k];
            std::string cw = copyAt(i, k) + ".";
            ids.add(std::to_string(cr.archiveFileId), "archiveFileId", copyAt(i, k));
            topArchiveFileId = std::max(topArchiveFileId, cr.archiveFileId);
            paths.add(cr.browsePath, "browsePath", copyAt(i, k));
            if (!cr.uniqueId.empty()) uniqueIds.add(cr.uniqueId, "uniqueId", copyAt(i, k));
            if (cr.size && cr.size != d.size)
                r.fail(cw + "size", std::to_string(cr.size) + " bytes, but disk '" + d.name + "' has " + std::to_string(d.size));
            bool differencing = cr.type == kTypeDifferencing;
            if (k == 0 && differencing) r.fail(cw + "type", "the oldest snapshot of a disk cannot be a differencing VHD");
            if (k > 0 && !differencing) r.fail(cw + "type", "a newer snapshot of a disk must be a differencing VHD");
            if (!cr.parentUniqueId.empty() && differencing && cr.parentUniqueId != d.copies[k - 1].uniqueId)
                r.fail(cw + "parentUniqueId", cr.parentUniqueId + " is not the unique id of the snapshot before it (" +
                                                  d.copies[k - 1].uniqueId + ")");
            if (!cr.parentUniqueId.empty() && !differencing) r.fail(cw + "parentUniqueId", "only a differencing VHD has a parent");
            if (k > 0 && cr.format != d.copies[0].format)
                r.fail(cw + "format", "a chain of snapshots is all VHD or all VHDX, not both");
        }
    }
    if (!c.disks.empty() && c.nextDiskId <= topDiskId)
        r.fail("nextDiskId",
               std::to_string(c.nextDiskId) + " is not above disk id " + std::to_string(topDiskId) + ", which is in use");
    if (topArchiveFileId && c.nextArchiveFileId <= topArchiveFileId)
        r.fail("nextArchiveFileId", std::to_string(c.nextArchiveFileId) + " is not above archive file id " +
                                        std::to_string(topArchiveFileId) + ", which is in use");
}

}  // namespace

Catalog Catalog::load(const Storage& storage, bool* found) {
    Catalog c;
    std::string path = storage.describe(kCatalogName), text;
    // No catalog: an empty store (import makes one so).
    const bool there = storage.readWhole(kCatalogName, kMaxCatalogBytes, text);
    if (found) *found = there;
    if (!there) return c;
    Reader r{path};
    json j;
    try {
        j = json::parse(text);
    } catch (const json::exception& e) {
        r.fail("catalog", std::string("not valid JSON (") + e.what() + ")");
    }
    if (r.u64(j, "version", "") != static_cast<uint64_t>(kVersion))
        r.fail("version", "this tool reads catalog version " + std::to_string(kVersion));
    c.nextArchiveFileId = r.u64(j, "nextArchiveFileId", "");
    c.nextDiskId = r.u64(j, "nextDiskId", "");
    auto names = [&](const char* key, std::map<uint64_t, std::string>& out) {
        const json& list = r.member(j, key, "");
        if (!list.is_array()) r.fail(key, "not a list");
        for (size_t i = 0; i < list.size(); ++i) {
            std::string where = std::string(key) + "[" + std::to_string(i) + "].";
            out[r.u64(list[i], "id", where)] = r.str(list[i], "name", where);
        }
    };
    names("clients", c.clients);
    names("instances", c.instances);
    names("backupSets", c.backupSets);
    const json& subs = r.member(j, "subclients", "");
    if (!subs.is_array()) r.fail("subclients", "not a list");
    for (size_t i = 0; i < subs.size(); ++i) {
        std::string where = "subclients[" + std::to_string(i) + "].";
        SubclientRecord s;
        s.id = static_cast<uint32_t>(r.u64(subs[i], "id", where, UINT32_MAX));
        s.name = r.str(subs[i], "name", where);
        s.clientId = r.u64(subs[i], "clientId", where);
        s.instanceId = r.u64(subs[i], "instanceId", where);
        s.backupSetId = r.u64(subs[i], "backupSetId", where);
        s.appType = static_cast<int32_t>(r.u64(subs[i], "appType", where, INT32_MAX));
        c.subclients[s.id] = s;
    }
    std::map<std::string, std::string> files;  // by identity
    const json& disks = r.member(j, "disks", "");
    if (!disks.is_array()) r.fail("disks", "not a list");
    for (size_t i = 0; i < disks.size(); ++i) {
        std::string where = "disks[" + std::to_string(i) + "].";
        DiskRecord d;
        d.name = r.str(disks[i], "name", where);
        d.size = r.u64(disks[i], "size", where, kMaxDiskSize);
        d.sectorSize = static_cast<uint32_t>(r.u64(disks[i], "sectorSize", where, 4096));
        d.extentSize = static_cast<int64_t>(r.u64(disks[i], "extentSize", where, 2 << 20));
        d.subclientId = static_cast<uint32_t>(r.u64(disks[i], "subclientId", where, UINT32_MAX));
        d.diskId = r.u64(disks[i], "diskId", where);
        if (d.sectorSize != 512) r.fail(where + "sectorSize", "only 512-byte sectors are supported");
        if (d.extentSize < 65536 || (d.extentSize & (d.extentSize - 1))) r.fail(where + "extentSize", "not a power of two from 64 KiB to 2 MiB");
        if (d.size == 0 || d.size % 512) r.fail(where + "size", "not a whole number of sectors");
        if (!c.subclients.count(d.subclientId)) r.fail(where + "subclientId", "no such subclient");
        const json& copies = r.member(disks[i], "copies", where);
        if (!copies.is_array()) r.fail(where + "copies", "not a list");
        for (size_t k = 0; k < copies.size(); ++k) {
            std::string cw = where + "copies[" + std::to_string(k) + "].";
            CopyRecord cr;
            cr.browsePath = r.str(copies[k], "browsePath", cw);
            cr.file = r.str(copies[k], "file", cw);
            cr.type = static_cast<uint32_t>(r.u64(copies[k], "type", cw, 255));
            cr.storedExtentSize = static_cast<int64_t>(r.u64(copies[k], "storedExtentSize", cw, (2 << 20) + 512));
            cr.archiveFileId = r.u64(copies[k], "archiveFileId", cw);
            cr.uniqueId = r.str(copies[k], "uniqueId", cw);
            cr.importedAt = r.str(copies[k], "importedAt", cw);
            cr.size = r.optionalU64(copies[k], "size", cw, kMaxDiskSize);
            cr.fileSize = r.optionalU64(copies[k], "fileSize", cw, UINT64_MAX);
            cr.parentUniqueId = r.optionalStr(copies[k], "parentUniqueId", cw);
            cr.sums = r.optionalStr(copies[k], "sums", cw);
            cr.sumsChecksum = r.optionalStr(copies[k], "sumsChecksum", cw);
            cr.etag = r.optionalStr(copies[k], "etag", cw);
            cr.format = r.optionalStr(copies[k], "format", cw);
            if (!cr.format.empty() && cr.format != "vhdx") r.fail(cw + "format", "'" + cr.format + "' is not a format this store knows");
            if (!cr.format.empty() && cr.type != kTypeDynamic && cr.type != kTypeDifferencing)
                r.fail(cw + "format", "a VHDX snapshot is dynamic or differencing");
            if (!cr.sums.empty() && (cr.sums[0] == '/' || cr.sums.find("..") != std::string::npos))
                r.fail(cw + "sums", "must name a file inside the store");
            bool hex = cr.sumsChecksum.size() == 16 &&
                       cr.sumsChecksum.find_first_not_of("0123456789abcdef") == std::string::npos;
            if (cr.sums.empty() ? !cr.sumsChecksum.empty() : !hex)
                r.fail(cw + "sumsChecksum", cr.sums.empty() ? "given without a sums file" : "not 16 hex digits");
            if (cr.type < kTypeRaw || cr.type > kTypeDifferencing) r.fail(cw + "type", "unknown disk type code");
            if (cr.copyExtentLength() != d.extentSize) r.fail(cw + "storedExtentSize", "does not match the disk's extent size");
            if (cr.file.empty() || cr.file[0] == '/' || cr.file.find("..") != std::string::npos)
                r.fail(cw + "file", "must name a file inside the store");
            // A file that is gone fails the reads that need it, and `list`
            // shows it as missing; it does not make the rest of the store
            // unreadable. Two records naming one file do.
            // By identity, so that another spelling of a path, or a hard link,
            // is the same file too.
            std::string identity = storage.identity(cr.file);
            if (!identity.empty()) {
                auto seen = files.emplace(identity, copyAt(i, k));
                if (!seen.second) r.fail(cw + "file", cr.file + " is also the file of " + seen.first->second);
            }
            d.copies.push_back(cr);
        }
        c.disks.push_back(d);
    }
    checkInvariants(c, r);
    return c;
}

void Catalog::save(const Storage& storage) const {
    json j;
    j["version"] = static_cast<int>(kVersion);
    j["nextArchiveFileId"] = nextArchiveFileId;
    j["nextDiskId"] = nextDiskId;
    auto names = [&](const char* key, const std::map<uint64_t, std::string>& in) {
        j[key] = json::array();
        for (auto& e : in) j[key].push_back({{"id", e.first}, {"name", e.second}});
    };
    names("clients", clients);
    names("instances", instances);
    names("backupSets", backupSets);
    j["subclients"] = json::array();
    for (auto& e : subclients)
        j["subclients"].push_back({{"id", e.second.id}, {"name", e.second.name}, {"clientId", e.second.clientId},
                                   {"instanceId", e.second.instanceId}, {"backupSetId", e.second.backupSetId},
                                   {"appType", e.second.appType}});
    j["disks"] = json::array();
    for (const DiskRecord& d : disks) {
        json dj = {{"name", d.name}, {"size", d.size}, {"sectorSize", d.sectorSize}, {"extentSize", d.extentSize},
                   {"subclientId", d.subclientId}, {"diskId", d.diskId}, {"copies", json::array()}};
        for (const CopyRecord& c : d.copies) {
            json cj = {{"browsePath", c.browsePath}, {"file", c.file}, {"type", c.type},
                       {"storedExtentSize", c.storedExtentSize}, {"archiveFileId", c.archiveFileId},
                       {"uniqueId", c.uniqueId}, {"importedAt", c.importedAt}};
            if (c.size) cj["size"] = c.size;
            if (c.fileSize) cj["fileSize"] = c.fileSize;
            if (!c.parentUniqueId.empty()) cj["parentUniqueId"] = c.parentUniqueId;
            if (!c.sums.empty()) cj["sums"] = c.sums, cj["sumsChecksum"] = c.sumsChecksum;
            if (!c.etag.empty()) cj["etag"] = c.etag;
            if (!c.format.empty()) cj["format"] = c.format;
            dj["copies"].push_back(cj);
        }
        j["disks"].push_back(dj);
    }
    storage.replace(kCatalogName, j.dump(2) + "\n");
}

uint64_t Catalog::takeArchiveFileId() {
    uint64_t id = nextArchiveFileId;
    for (const DiskRecord& d : disks)
        for (const CopyRecord& c : d.copies) id = std::max(id, c.archiveFileId + 1);
    nextArchiveFileId = id + 1;
    return id;
}

uint64_t Catalog::takeDiskId() {
    uint64_t id = nextDiskId;
    for (const DiskRecord& d : disks) id = std::max(id, d.diskId + 1);
    nextDiskId = id + 1;
    return id;
}

uint32_t typeCode(ImageKind kind) {
    switch (kind) {
        case ImageKind::Raw: return kTypeRaw;
        case ImageKind::Fixed: return kTypeFixed;
        case ImageKind::Dynamic: return kTypeDynamic;
        case ImageKind::Differencing: return kTypeDifferencing;
    }
    return 0;
}

DiskRecord* Catalog::findDisk(const std::string& name) {
    for (DiskRecord& d : disks)
        if (d.name == name) return &d;
    return nullptr;
}

const DiskRecord* Catalog::findDisk(const std::string& name) const {
    return const_cast<Catalog*>(this)->findDisk(name);
}

bool Catalog::findCopy(uint64_t afid, const DiskRecord** disk, const CopyRecord** copy) const {
    for (const DiskRecord& d : disks)
        for (const CopyRecord& c : d.copies)
            if (c.archiveFileId == afid) return *disk = &d, *copy = &c, true;
    return false;
}

bool Catalog::findCopy(const std::string& browsePath, const DiskRecord** disk, const CopyRecord** copy) const {
    for (const DiskRecord& d : disks)
        for (const CopyRecord& c : d.copies)
            if (c.browsePath == browsePath) return *disk = &d, *copy = &c, true;
    return false;
}

StoreLock::StoreLock(const Storage& storage) : m_lock(storage.lock()) {}

StoreLock::~StoreLock() = default;

}  // namespace zxblk
