// make_diff_vhd PARENT_VHD OLDER_RAW NEWER_RAW CHILD_VHD
// Writes CHILD_VHD, a differencing VHD over PARENT_VHD (which presents
// OLDER_RAW) that holds the sectors in which NEWER_RAW differs: the second
// level of a chain made from two raw disks. qemu-img writes no differencing
// VHDs, so the library's own writer makes it.
#include <zxblk/zxblk.h>

#include <cstdio>

int main(int argc, char** argv) {
    if (argc != 5) {
        std::fprintf(stderr, "usage: make_diff_vhd PARENT_VHD OLDER_RAW NEWER_RAW CHILD_VHD\n");
        return 2;
    }
    try {
        zxblk::DifferencingStats s = zxblk::writeDifferencingVhd(argv[1], argv[2], argv[3], argv[4]);
        std::printf("%llu sectors changed, %llu blocks\n", static_cast<unsigned long long>(s.sectorsChanged),
                    static_cast<unsigned long long>(s.blocksAllocated));
        return 0;
    } catch (const zxblk::Error& e) {
        std::fprintf(stderr, "make_diff_vhd: %s\n", e.what());
        return 1;
    }
}
