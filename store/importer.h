// Puts disk images into a store: a VHD chain (base first) or one image, for
// a new disk or as newer snapshots of a disk already there. Everything is
// checked before the store changes; a failed import leaves it as it was. An
// import that died half way leaves at most files that the catalog does not
// name, which the next import removes.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace zxblk {

struct ImportOptions {
    std::string client = "localhost";
    uint64_t clientId = 2;
    std::string subclient = "default";
    uint32_t subclientId = 0;  // 0: the disk's existing subclient, or a new id
    std::string backupSet = "defaultBackupSet";
    std::string instance = "defaultInstance";
    int64_t extentSize = 1 << 20;  // for a new disk
};

// Returns one line per imported snapshot. Throws StoreError.
std::vector<std::string> importImages(const std::string& storeDir, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportOptions& options);

}  // namespace zxblk
