#include "store/catalog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace zxblk {

using nlohmann::json;

std::string catalogPath(const std::string& storeDir) { return storeDir + "/catalog.json"; }

namespace {

// Field access that names the field when the catalog is wrong.
struct Reader {
    std::string file;
    [[noreturn]] void fail(const std::string& field, const std::string& why) const {
        throw StoreError(file + ": " + field + ": " + why);
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
};

void fsyncPath(const std::string& path, int flags) {
    int fd = ::open(path.c_str(), flags | O_CLOEXEC);
    if (fd >= 0) {
        ::fsync(fd);
        ::close(fd);
    }
}

}  // namespace

Catalog Catalog::load(const std::string& storeDir) {
    Catalog c;
    std::string path = catalogPath(storeDir);
    std::ifstream in(path);
    if (!in) {
        if (errno == ENOENT) return c;
        throw StoreError(path + ": " + std::strerror(errno));
    }
    Reader r{path};
    json j;
    try {
        j = json::parse(in);
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
    const json& disks = r.member(j, "disks", "");
    if (!disks.is_array()) r.fail("disks", "not a list");
    for (size_t i = 0; i < disks.size(); ++i) {
        std::string where = "disks[" + std::to_string(i) + "].";
        DiskRecord d;
        d.name = r.str(disks[i], "name", where);
        d.size = r.u64(disks[i], "size", where, 2040ULL << 30);
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
            if (cr.type < kTypeRaw || cr.type > kTypeDifferencing) r.fail(cw + "type", "unknown disk type code");
            if (cr.copyExtentLength() != d.extentSize) r.fail(cw + "storedExtentSize", "does not match the disk's extent size");
            if (cr.file.empty() || cr.file[0] == '/' || cr.file.find("..") != std::string::npos)
                r.fail(cw + "file", "must name a file inside the store");
            struct stat st;
            if (::stat((storeDir + "/" + cr.file).c_str(), &st) != 0) r.fail(cw + "file", cr.file + " is missing from the store");
            d.copies.push_back(cr);
        }
        c.disks.push_back(d);
    }
    return c;
}

void Catalog::save(const std::string& storeDir) const {
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
        for (const CopyRecord& c : d.copies)
            dj["copies"].push_back({{"browsePath", c.browsePath}, {"file", c.file}, {"type", c.type},
                                    {"storedExtentSize", c.storedExtentSize}, {"archiveFileId", c.archiveFileId},
                                    {"uniqueId", c.uniqueId}, {"importedAt", c.importedAt}});
        j["disks"].push_back(dj);
    }
    std::string path = catalogPath(storeDir), temp = path + ".new";
    {
        std::ofstream out(temp, std::ios::trunc);
        out << j.dump(2) << "\n";
        out.flush();
        if (!out) throw StoreError(temp + ": cannot write the catalog: " + std::strerror(errno));
    }
    fsyncPath(temp, O_RDONLY);
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        int err = errno;
        ::unlink(temp.c_str());
        throw StoreError(path + ": cannot replace the catalog: " + std::strerror(err));
    }
    fsyncPath(storeDir, O_RDONLY | O_DIRECTORY);
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

StoreLock::StoreLock(const std::string& storeDir) : m_fd(::open((storeDir + "/.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
    if (m_fd < 0) throw StoreError(storeDir + "/.lock: " + std::strerror(errno));
    if (::flock(m_fd, LOCK_EX) != 0) throw StoreError(storeDir + "/.lock: " + std::strerror(errno));
}

StoreLock::~StoreLock() {
    if (m_fd >= 0) ::close(m_fd);
}

}  // namespace zxblk
