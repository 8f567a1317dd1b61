// list: the disks of a store and their snapshots, in words and sizes a
// person reads, or as JSON; one missing or damaged file is shown as such
// and does not hide the rest.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "zxblk/zxblk.h"
#include "store/store_error.h"
#include "tools/commands.h"

namespace zxblk {
namespace {

nlohmann::json toJson(const std::string& store, const std::vector<DiskInfo>& disks) {
    nlohmann::json out = {{"store", store}, {"disks", nlohmann::json::array()}};
    for (const DiskInfo& d : disks) {
        nlohmann::json disk = {{"name", d.name}, {"size", d.size}, {"extentSize", d.extentSize},
                               {"snapshots", nlohmann::json::array()}};
        for (const SnapshotInfo& s : d.snapshots)
            disk["snapshots"].push_back({{"number", s.number},
                                         {"kind", kindName(s.kind)},
                                         {"file", s.file},
                                         {"fileSize", s.fileSize},
                                         {"importedAt", s.importedAt},
                                         {"status", statusName(s.status)},
                                         {"problem", s.problem}});
        out["disks"].push_back(disk);
    }
    return out;
}

void printText(const std::vector<DiskInfo>& disks) {
    for (const DiskInfo& d : disks) {
        std::printf("%s: %s disk, %zu snapshot%s, recalled %s at a time\n", d.name.c_str(), humanSize(d.size).c_str(),
                    d.snapshots.size(), d.snapshots.size() == 1 ? "" : "s", humanSize(d.extentSize).c_str());
        std::printf("  %-9s %-17s %-10s %-21s %-8s %s\n", "snapshot", "kind", "file size", "imported", "status", "file");
        for (const SnapshotInfo& s : d.snapshots) {
            std::printf("  %-9d %-17s %-10s %-21s %-8s %s\n", s.number, kindName(s.kind), humanSize(s.fileSize).c_str(),
                        s.importedAt.c_str(), statusName(s.status), s.file.c_str());
            if (!s.problem.empty()) std::printf("  %9s %s\n", "", s.problem.c_str());
        }
    }
}

}  // namespace

void registerListCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("list", "list the disks of a store and their snapshots, with each file's state");
    static std::string store, disk;
    addStoreOption(cmd, store, false);
    cmd->add_option("--disk", disk, "only this disk");
    addJsonOption(cmd);
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        Store s = Store::open(store);
        std::vector<DiskInfo> disks = disk.empty() ? s.disks() : std::vector<DiskInfo>{s.disk(disk)};
        if (commonOptions().json)
            std::printf("%s\n", toJson(store, disks).dump(2).c_str());
        else
            printText(disks);
        size_t bad = 0, all = 0;
        for (const DiskInfo& d : disks)
            for (const SnapshotInfo& s : d.snapshots) all++, bad += s.status != SnapshotStatus::ok;
        // Listed in full, but a script must not take a store with lost or
        // damaged snapshots for a sound one.
        if (bad)
            throw StoreError(std::to_string(bad) + " of " + std::to_string(all) + " snapshots " +
                             (bad == 1 ? "is" : "are") + " missing or damaged (zxblk verify checks every block)");
    });
}

}  // namespace zxblk
