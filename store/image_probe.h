// What an import is given: a VHD, a raw image when asked for, or something
// it refuses in one line that names the file's format when its bytes say it.
#pragma once
#include <string>

#include "store/importer.h"
#include "store/vhd_image.h"

namespace zxblk {

// Opens an image as the import's format says; throws StoreError.
VhdImage openImage(const std::string& path, ImportFormat format);

}  // namespace zxblk
