// Puts disk images into a store: a VHD chain (base first) or one image, for
// a new disk or as newer snapshots of a disk already there. Everything is
// checked before the store changes; a failed import leaves it as it was (and
// a store folder it made is removed). An import that died half way leaves at
// most files that the catalog does not name, which the next import removes.
// A folder store and one on S3 are imported alike, through their Storage.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace zxblk {

// How the images given to an import are to be read.
enum class ImportFormat {
    Auto,  // VHD or VHDX; any other file is refused, naming its format when its first bytes declare one
    Vhd,   // a VHD, asked for by name
    Vhdx,  // a VHDX or AVHDX, asked for by name
    Raw,   // every file is a raw disk image, whatever it holds
};

struct ImportSettings {
    std::string client = "localhost";
    uint64_t clientId = 0;  // 0: the id the store knows the client by, or a new one
    std::string subclient = "default";
    uint32_t subclientId = 0;  // 0: the disk's existing subclient, or a new id
    std::string backupSet = "defaultBackupSet";
    std::string instance = "defaultInstance";
    int64_t extentSize = 1 << 20;  // for a new disk
    ImportFormat format = ImportFormat::Auto;
    // Called from the importing thread as the snapshot files go into the
    // store: bytes of all the images' files dealt with so far, and in all.
    std::function<void(uint64_t done, uint64_t total)> progress;
};

class Storage;
// Returns one line per imported snapshot. Throws StoreError.
std::vector<std::string> importImages(const Storage& storage, const std::string& diskName,
                                      const std::vector<std::string>& images, const ImportSettings& options);

}  // namespace zxblk
