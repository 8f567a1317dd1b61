// The copy of a checked image into the store's staging, with the checksums
// of its blocks taken in the same pass.
#pragma once
#include <cstdint>
#include <functional>
#include <string>

#include "store/vhd_image.h"

namespace zxblk {

// Copies `img` to the local file `to` and returns its side file of
// checksums (for the store object `name`). `advanced` gets the bytes of the
// image dealt with so far. Throws StoreError, also when the image changes
// while it is read.
std::string copyWithSums(const VhdImage& img, const std::string& name, const std::string& to,
                         const std::function<void(uint64_t)>& advanced);
// Writes `bytes` as the whole of the local file `path`, synced.
void writeWhole(const std::string& path, const std::string& bytes);

}  // namespace zxblk
