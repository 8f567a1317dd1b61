// make_vhd_chain DIR SIZE BLOCK_SIZE CHILDREN SEED [--aligned8]
// Writes snap0.vhd .. snapN.vhd and, beside each, snapK.raw: the disk that
// snapshot presents, computed from the plan.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "support/vhd_writer.h"

int main(int argc, char** argv) {
    if (argc < 6) {
        std::fprintf(stderr, "usage: make_vhd_chain DIR SIZE BLOCK_SIZE CHILDREN SEED [--aligned8]\n");
        return 2;
    }
    vhdtest::ChainPlan plan;
    plan.size = std::strtoull(argv[2], nullptr, 0);
    plan.blockSize = static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 0));
    plan.children = std::atoi(argv[4]);
    plan.seed = static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 0));
    plan.aligned8 = argc > 6 && std::strcmp(argv[6], "--aligned8") == 0;
    auto snaps = vhdtest::writeChain(argv[1], plan);
    for (size_t i = 0; i < snaps.size(); ++i) {
        std::string raw = std::string(argv[1]) + "/snap" + std::to_string(i) + ".raw";
        std::ofstream(raw, std::ios::binary).write(reinterpret_cast<const char*>(snaps[i].merged.data()), snaps[i].merged.size());
        std::printf("%s %s\n", snaps[i].vhd.c_str(), raw.c_str());
    }
    return 0;
}
