// verify: reads every block of every snapshot in a store and compares it
// with the checksums recorded when it was imported.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

#include "store/catalog.h"
#include "store/s3_storage.h"
#include "store/store_services.h"
#include "store/vhd_image.h"
#include "tools/commands.h"

namespace zxblk {
namespace {

struct Tally {
    uint64_t snapshots = 0, blocks = 0, damaged = 0, unchecked = 0;
};

// Every damaged block gets its own line; a snapshot that cannot be checked
// at all (file or side file unreadable, or no longer its catalog record)
// counts as damaged too.
void verifyDisk(const Storage& store, const DiskRecord& disk, Tally& tally) {
    for (size_t i = 0; i < disk.copies.size(); ++i) {
        const CopyRecord& copy = disk.copies[i];
        std::string who = disk.name + " snapshot " + std::to_string(i) + " (" + copy.file + ")";
        ++tally.snapshots;
        try {
            std::shared_ptr<VhdImage> img = openCopyImage(store, disk, i);
            std::shared_ptr<const BlockSums> sums = loadBlockSums(store, copy, *img);
            if (!sums) {
                std::printf("%s: no checksums recorded (imported before they were kept); not checked\n", who.c_str());
                ++tally.unchecked;
                continue;
            }
            for (uint64_t u = img->nextHeldUnit(0); u < img->sumUnits(); u = img->nextHeldUnit(u + 1)) {
                ++tally.blocks;
                std::string why;
                try {
                    if (img->checkUnit(*sums, u, why)) continue;
                } catch (const StoreError& e) {
                    why = e.what();
                }
                std::printf("%s: block %llu: %s\n", who.c_str(), static_cast<unsigned long long>(u), why.c_str());
                ++tally.damaged;
            }
            // A block recorded at import that the file no longer holds lost its data.
            for (const BlockSums::Entry& e : sums->entries)
                if (!img->unitHeld(e.unit)) {
                    std::printf("%s: block %llu: checksum mismatch (recorded, but no longer in the file)\n", who.c_str(),
                                static_cast<unsigned long long>(e.unit));
                    ++tally.damaged;
                }
        } catch (const StoreError& e) {
            std::printf("%s: %s\n", who.c_str(), e.what());
            ++tally.damaged;
        }
    }
}

// 0: sound, 1: something is damaged, 2: the store cannot be read or the
// command was misused.
int verifyStore(const std::string& store, const std::string& diskName, const std::vector<std::string>& extras) {
    if (!extras.empty()) {
        std::fprintf(stderr, "zxblk verify: unexpected argument '%s'; usage: zxblk verify --store DIR [--disk NAME]\n",
                     extras.front().c_str());
        return 2;
    }
    if (store.empty()) {
        std::fprintf(stderr, "zxblk verify: --store DIR is required\n");
        return 2;
    }
    Tally tally;
    uint64_t disks = 0;
    try {
        std::shared_ptr<Storage> storage = openStorage(store, makeS3Connections());
        if (!storage->stat(kCatalogName).exists) throw StoreError(store + ": no catalog.json; not a store");
        Catalog catalog = Catalog::load(*storage);
        if (!diskName.empty() && !catalog.findDisk(diskName)) throw StoreError(store + ": no disk named '" + diskName + "'");
        for (const DiskRecord& d : catalog.disks)
            if (diskName.empty() || d.name == diskName) verifyDisk(*storage, d, tally), ++disks;
    } catch (const StoreError& e) {
        std::fprintf(stderr, "zxblk verify: %s\n", e.what());
        return 2;
    }
    std::printf("verified %llu disks, %llu snapshots, %llu blocks: %s%s\n", static_cast<unsigned long long>(disks),
                static_cast<unsigned long long>(tally.snapshots), static_cast<unsigned long long>(tally.blocks),
                tally.damaged ? (std::to_string(tally.damaged) + " damaged").c_str() : "all sound",
                tally.unchecked ? (", " + std::to_string(tally.unchecked) + " snapshots without checksums").c_str() : "");
    return tally.damaged ? 1 : 0;
}

}  // namespace

void registerVerifyCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("verify", "check every block of a store's snapshots against the checksums taken at import");
    static std::string store, disk;
    cmd->add_option("--store", store, "store directory");
    cmd->add_option("--disk", disk, "only this disk");
    // Misuse is answered here, with the exit code a script can tell from damage.
    cmd->allow_extras();
    addCommonOptions(cmd);
    cmd->callback([cmd] {
        applyCommonOptions();
        int code = verifyStore(store, disk, cmd->remaining());
        std::fflush(stdout);
        std::exit(code);
    });
}

}  // namespace zxblk
