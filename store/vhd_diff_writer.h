// Writes a differencing VHD that holds exactly the sectors in which a newer
// raw image differs from the older one its parent VHD presents.
#pragma once
#include <cstdint>
#include <string>

namespace zxblk {

struct DiffStats {
    uint64_t sectorsChanged = 0;
    uint64_t blocksAllocated = 0;
};

// `parentVhd` is the VHD the child names as its parent (its unique id, size
// and file name); `olderRaw` is what the parent presents, `newerRaw` what
// the child must present. Throws StoreError.
DiffStats writeDifferencingVhd(const std::string& parentVhd, const std::string& olderRaw, const std::string& newerRaw,
                               const std::string& childVhd, uint32_t blockSize = 2 << 20);

}  // namespace zxblk
