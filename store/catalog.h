// The backup store's catalog: who was backed up (clients, instances, backup
// sets, subclients) and, per disk, its geometry and its copies oldest first.
// Kept as versioned JSON; every change is written whole and renamed into
// place, so a reader sees the old catalog or the new one, never a mix.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <map>
#include <string>
#include <vector>

#include "store/storage.h"
#include "store/store_error.h"

namespace zxblk {

// Disk type codes of a copy, as the provider tells them apart.
enum : uint32_t { kTypeRaw = 11, kTypeFixed = 12, kTypeDynamic = 13, kTypeDifferencing = 14 };
enum class ImageKind;
uint32_t typeCode(ImageKind kind);

struct CopyRecord {
    std::string browsePath;  // names the disk inside this backup
    std::string file;        // relative to the store directory
    uint32_t type = 0;
    int64_t storedExtentSize = 0;
    uint64_t archiveFileId = 0;
    std::string uniqueId;    // of a VHD, empty for raw images
    std::string importedAt;
    // What the file was at import, so that a recall can tell it is still
    // that file. 0 or empty in a catalog written before they were kept.
    uint64_t size = 0;            // the disk size the file presents
    uint64_t fileSize = 0;        // bytes of the file itself
    std::string parentUniqueId;   // of a differencing VHD: the previous snapshot's uniqueId
    // The side file with the checksums of the file's blocks, and the XXH3 of
    // that side file (16 hex digits). Empty in a catalog written before they
    // were kept: such a copy is served unchecked.
    std::string sums;
    std::string sumsChecksum;
    // The object's ETag at import, in a store on S3: another one is a
    // replaced object.
    std::string etag;
    // "vhdx" for a VHDX file; empty for a VHD or a raw image.
    std::string format;
    // The extent length the provider works with for this copy.
    int64_t copyExtentLength() const { return storedExtentSize - (type == kTypeDifferencing ? 512 : 0); }
};

struct DiskRecord {
    std::string name;
    uint64_t size = 0;
    uint32_t sectorSize = 512;
    int64_t extentSize = 1 << 20;
    uint32_t subclientId = 0;
    uint64_t diskId = 0;
    std::vector<CopyRecord> copies;  // oldest first
};

struct SubclientRecord {
    uint32_t id = 0;
    std::string name;
    uint64_t clientId = 0, instanceId = 0, backupSetId = 0;
    int32_t appType = 0;
};

struct Catalog {
    static constexpr int kVersion = 1;
    std::map<uint64_t, std::string> clients, instances, backupSets;
    std::map<uint32_t, SubclientRecord> subclients;
    std::vector<DiskRecord> disks;
    uint64_t nextArchiveFileId = 1;
    uint64_t nextDiskId = 1;

    // An absent catalog is an empty store; a bad one, or one that breaks the
    // store's invariants (a disk without snapshots, a name or id used twice,
    // a counter below an id in use, sizes that disagree, a broken chain),
    // throws StoreError.
    // `found`, when given, says whether there was a catalog at all.
    static Catalog load(const Storage& storage, bool* found = nullptr);
    // Replaces the catalog whole: a reader sees the old one or the new one.
    void save(const Storage& storage) const;
    // An id above every one in use, even when the counter was wound back.
    uint64_t takeArchiveFileId();
    uint64_t takeDiskId();
    DiskRecord* findDisk(const std::string& name);
    const DiskRecord* findDisk(const std::string& name) const;
    // Resolves a copy by its archive-file id or browse path.
    bool findCopy(uint64_t afid, const DiskRecord** disk, const CopyRecord** copy) const;
    bool findCopy(const std::string& browsePath, const DiskRecord** disk, const CopyRecord** copy) const;
};

// The catalog's name in a store, and the largest a catalog may be.
extern const char* const kCatalogName;
extern const uint64_t kMaxCatalogBytes;

// Serializes changes to one store between processes and hosts (flock on
// DIR/.lock; a lock object on S3).
class StoreLock {
public:
    explicit StoreLock(const Storage& storage);
    ~StoreLock();
    StoreLock(const StoreLock&) = delete;
    StoreLock& operator=(const StoreLock&) = delete;

private:
    std::unique_ptr<Storage::Lock> m_lock;
};

}  // namespace zxblk
