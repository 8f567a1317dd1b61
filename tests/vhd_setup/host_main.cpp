// A host outside the tree: constructs a disk, gives it geometry and connects.
#include <cstdio>

#include "vhd/ZxBlkVhd.h"

int main() {
    ZxBlkVhd disk("disk0", "/vm/disk0.vhd");
    if (!disk.setDiskParams(1048576, 8 << 20, 512, "id")) return 1;
    disk.connect();
    std::printf("%s %u\n", disk.diskUUID.c_str(), disk.diskState);
    return disk.diskState == 1 && disk.diskUUID == "disk0-id" ? 0 : 1;
}
