// Writes its input as the catalog.json of a scratch store and loads it with
// the store's loader. A StoreError is the expected refusal of a bad catalog.
// A catalog that loads must keep what the loader promises (every disk names
// a known subclient, copies' extent sizes match their disk, files stay inside
// the store), and must save and load back to the same catalog, and saving
// that again must write the same bytes (which also covers any field the
// comparison below does not name). Any other exception, a failed check
// or a sanitizer report is a bug.
//
// The loader also checks that each copy's file exists, so the scratch store
// holds the files the seed catalogs name; a mutant naming any other file is
// refused, as it would be in a real store.
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "store/catalog.h"
#include "store/storage.h"

using zxblk::Catalog;
using zxblk::CopyRecord;
using zxblk::DiskRecord;
using zxblk::StoreError;
using zxblk::SubclientRecord;

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "catalog_fuzz: invariant broken: %s\n", what);
        std::abort();
    }
}

// Files the seed catalogs refer to (paths relative to the store).
const char* const kStoreFiles[] = {
    "snapshots/chain-snap0.vhd",
    "snapshots/chain-snap1.vhd",
    "snapshots/raw-snap0.raw",
    "snapshots/fixed-snap0.vhd",
};

// A scratch store, in shared memory when there is some: saving a catalog
// syncs it to disk, which would otherwise cost far more than the parsing.
class ScratchStore {
public:
    ScratchStore() {
        const char* tmp = std::getenv("TMPDIR");
        std::string base = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : (tmp && *tmp ? tmp : "/tmp");
        std::string pattern = base + "/zxblk_catalog_fuzz_XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        check(mkdtemp(name.data()) != nullptr, "cannot make a scratch store");
        dir = name.data();
        check(mkdir((dir + "/snapshots").c_str(), 0755) == 0, "cannot make the scratch store's snapshots folder");
        for (const char* f : kStoreFiles) check(static_cast<bool>(std::ofstream(dir + "/" + f)), "cannot make a store file");
    }
    ~ScratchStore() {
        for (const char* f : kStoreFiles) unlink((dir + "/" + f).c_str());
        rmdir((dir + "/snapshots").c_str());
        unlink((dir + "/catalog.json").c_str());
        unlink(((dir + "/catalog.json") + ".new").c_str());
        rmdir(dir.c_str());
    }
    void putCatalog(const uint8_t* data, size_t size) const {
        std::ofstream out((dir + "/catalog.json"), std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        check(static_cast<bool>(out), "cannot write the catalog");
    }
    std::string catalogText() const {
        std::ifstream in((dir + "/catalog.json"), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    std::string dir;
};

bool same(const SubclientRecord& a, const SubclientRecord& b) {
    return a.id == b.id && a.name == b.name && a.clientId == b.clientId && a.instanceId == b.instanceId &&
           a.backupSetId == b.backupSetId && a.appType == b.appType;
}

bool same(const CopyRecord& a, const CopyRecord& b) {
    return a.browsePath == b.browsePath && a.file == b.file && a.type == b.type &&
           a.storedExtentSize == b.storedExtentSize && a.archiveFileId == b.archiveFileId && a.uniqueId == b.uniqueId &&
           a.importedAt == b.importedAt && a.size == b.size && a.fileSize == b.fileSize &&
           a.parentUniqueId == b.parentUniqueId;
}

bool same(const DiskRecord& a, const DiskRecord& b) {
    if (!(a.name == b.name && a.size == b.size && a.sectorSize == b.sectorSize && a.extentSize == b.extentSize &&
          a.subclientId == b.subclientId && a.diskId == b.diskId && a.copies.size() == b.copies.size()))
        return false;
    for (size_t i = 0; i < a.copies.size(); ++i)
        if (!same(a.copies[i], b.copies[i])) return false;
    return true;
}

bool same(const Catalog& a, const Catalog& b) {
    if (!(a.clients == b.clients && a.instances == b.instances && a.backupSets == b.backupSets &&
          a.nextArchiveFileId == b.nextArchiveFileId && a.nextDiskId == b.nextDiskId &&
          a.subclients.size() == b.subclients.size() && a.disks.size() == b.disks.size()))
        return false;
    for (auto i = a.subclients.begin(), k = b.subclients.begin(); i != a.subclients.end(); ++i, ++k)
        if (i->first != k->first || !same(i->second, k->second)) return false;
    for (size_t i = 0; i < a.disks.size(); ++i)
        if (!same(a.disks[i], b.disks[i])) return false;
    return true;
}

void checkLoaded(const Catalog& c) {
    for (const auto& s : c.subclients) check(s.first == s.second.id, "subclients are kept under their id");
    for (const DiskRecord& d : c.disks) {
        check(d.size > 0 && d.size % 512 == 0 && d.sectorSize == 512, "a disk is a whole number of 512-byte sectors");
        check(d.extentSize >= 65536 && d.extentSize <= (2 << 20) && (d.extentSize & (d.extentSize - 1)) == 0,
              "an extent is a power of two from 64 KiB to 2 MiB");
        check(c.subclients.count(d.subclientId) == 1, "a disk names a known subclient");
        const DiskRecord* found = c.findDisk(d.name);
        check(found && found->name == d.name, "findDisk finds every disk by its name");
        for (const CopyRecord& k : d.copies) {
            check(k.type >= zxblk::kTypeRaw && k.type <= zxblk::kTypeDifferencing, "a copy's type is a known one");
            check(k.copyExtentLength() == d.extentSize, "a copy's extent length is its disk's");
            check(!k.file.empty() && k.file[0] != '/' && k.file.find("..") == std::string::npos,
                  "a copy's file stays inside the store");
            const DiskRecord* disk = nullptr;
            const CopyRecord* copy = nullptr;
            check(c.findCopy(k.archiveFileId, &disk, &copy) && copy->archiveFileId == k.archiveFileId,
                  "findCopy finds every copy by its archive file id");
            check(c.findCopy(k.browsePath, &disk, &copy) && copy->browsePath == k.browsePath,
                  "findCopy finds every copy by its browse path");
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static ScratchStore store;
    store.putCatalog(data, size);
    Catalog loaded;
    try {
        loaded = Catalog::load(*zxblk::openFolderStorage(store.dir));
    } catch (const StoreError& e) {
        check(std::strlen(e.what()) > 0, "a refusal says why");
        return 0;
    }
    checkLoaded(loaded);
    try {
        loaded.save(*zxblk::openFolderStorage(store.dir));
        std::string saved = store.catalogText();
        Catalog again = Catalog::load(*zxblk::openFolderStorage(store.dir));
        check(same(loaded, again), "a saved catalog loads back the same");
        again.save(*zxblk::openFolderStorage(store.dir));
        check(store.catalogText() == saved, "saving a reloaded catalog writes the same bytes");
    } catch (const StoreError& e) {
        std::fprintf(stderr, "catalog_fuzz: a catalog that loaded failed to save or reload: %s\n", e.what());
        std::abort();
    }
    return 0;
}
