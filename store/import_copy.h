// The copy of a checked image into the store's staging, with the checksums
// of its blocks taken in the same pass.
#pragma once
#include <cstdint>
#include <functional>
#include <string>

#include "store/vhd_image.h"

namespace zxblk {

// Copies `img` into `sink` and returns its side file of checksums (for the
// store object `name`). `advanced` gets the bytes of the image dealt with so
// far. Throws StoreError, also when the image changes while it is read.
std::string copyWithSums(const VhdImage& img, const std::string& name, Storage::Staging::Sink& sink,
                         const std::function<void(uint64_t)>& advanced);
// A sink that writes the local file `path` (sparse where the image holds
// nothing), synced when finished.
std::unique_ptr<Storage::Staging::Sink> fileSink(const std::string& path);
// Writes `bytes` as the whole of the local file `path`, synced.
void writeWhole(const std::string& path, const std::string& bytes);

}  // namespace zxblk
