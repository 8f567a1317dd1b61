// Imports images into a folder store as `zxblk import` does, and ends the
// process at one step of it, as a kill would (exit code 9):
//   crash_import STEP STORE DISK IMAGE...
// STEP: copied, renamed, renamed-all, catalog-written or saved.
#include <cstdio>
#include <exception>

#include "store/importer.h"
#include "support/fault_storage.h"

int main(int argc, char** argv) {
    if (argc < 5) {
        std::fprintf(stderr, "usage: crash_import STEP STORE DISK IMAGE...\n");
        return 2;
    }
    try {
        zxtest::CrashingStorage storage(zxblk::openFolderStorage(argv[2]), argv[1]);
        zxblk::importImages(storage, argv[3], std::vector<std::string>(argv + 4, argv + argc), zxblk::ImportSettings());
    } catch (const std::exception& e) {
        std::fprintf(stderr, "crash_import: %s\n", e.what());
        return 1;
    }
    return 0;
}
