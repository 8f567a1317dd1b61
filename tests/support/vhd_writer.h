// Writes dynamic and differencing VHD files from a plan, for tests, and
// computes what each snapshot must read as from the plan alone (never by
// reading the files back).
#pragma once
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace vhdtest {

using Bytes = std::vector<uint8_t>;

struct ChainPlan {
    uint64_t size = 16 << 20;      // a whole number of sectors
    uint32_t blockSize = 2 << 20;  // a power of two
    int children = 2;
    uint32_t seed = 1;
    bool aligned8 = false;  // child changes in whole groups of 8 sectors
};

struct Snapshot {
    std::string vhd;  // the file written
    Bytes merged;     // the disk as this snapshot presents it
};

// Writes snap0.vhd (dynamic) and snap1.vhd.. (differencing, each naming the
// one before as its parent) into `dir`.
std::vector<Snapshot> writeChain(const std::string& dir, const ChainPlan& plan);

}  // namespace vhdtest
