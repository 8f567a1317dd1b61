// list: the disks of a store by client (the virtual machine they belong
// to) and their snapshots, in words and sizes a person reads, or as JSON;
// one missing or damaged file is shown as such and does not hide the rest.
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

// The clients of `disks`, in the order their first disk comes.
std::vector<ClientInfo> clientsOf(const std::vector<DiskInfo>& disks) {
    std::vector<ClientInfo> clients;
    for (const DiskInfo& d : disks) {
        auto it = std::find_if(clients.begin(), clients.end(), [&](const ClientInfo& c) { return c.name == d.client; });
        if (it == clients.end()) it = clients.insert(clients.end(), ClientInfo{d.client, {}});
        it->disks.push_back(d.name);
    }
    return clients;
}

// "disks" as it always was, each disk naming its client, beside "clients",
// the grouping: each client with the names of its disks.
nlohmann::json toJson(const std::string& store, const std::vector<DiskInfo>& disks) {
    nlohmann::json out = {{"store", store}, {"clients", nlohmann::json::array()}, {"disks", nlohmann::json::array()}};
    for (const ClientInfo& c : clientsOf(disks)) out["clients"].push_back({{"name", c.name}, {"disks", c.disks}});
    for (const DiskInfo& d : disks) {
        nlohmann::json disk = {{"name", d.name},     {"client", d.client},          {"size", d.size},
                               {"extentSize", d.extentSize}, {"snapshots", nlohmann::json::array()}};
        for (const SnapshotInfo& s : d.snapshots)
            disk["snapshots"].push_back({{"number", s.number},
                                         {"kind", kindName(s)},
                                         {"file", s.file},
                                         {"fileSize", s.fileSize},
                                         {"importedAt", s.importedAt},
                                         {"status", statusName(s.status)},
                                         {"problem", s.problem}});
        out["disks"].push_back(disk);
    }
    return out;
}

void printDisk(const DiskInfo& d) {
    std::printf("%s: %s disk, %zu snapshot%s, recalled %s at a time\n", d.name.c_str(), humanSize(d.size).c_str(),
                d.snapshots.size(), d.snapshots.size() == 1 ? "" : "s", humanSize(d.extentSize).c_str());
    std::printf("  %-9s %-17s %-10s %-21s %-8s %s\n", "snapshot", "kind", "file size", "imported", "status", "file");
    for (const SnapshotInfo& s : d.snapshots) {
        std::printf("  %-9d %-17s %-10s %-21s %-8s %s\n", s.number, kindName(s).c_str(), humanSize(s.fileSize).c_str(),
                    s.importedAt.c_str(), statusName(s.status), s.file.c_str());
        if (!s.problem.empty()) std::printf("  %9s %s\n", "", s.problem.c_str());
    }
}

// A heading per client and its disks under it, a blank line between
// clients; the disk lines start where they always did, for scripts that
// look for them.
void printText(const std::vector<DiskInfo>& disks) {
    bool first = true;
    for (const ClientInfo& c : clientsOf(disks)) {
        if (!first) std::printf("\n");
        first = false;
        std::printf("client %s: %zu disk%s\n", c.name.empty() ? "(none recorded)" : c.name.c_str(), c.disks.size(),
                    c.disks.size() == 1 ? "" : "s");
        for (const DiskInfo& d : disks)
            if (d.client == c.name) printDisk(d);
    }
}

}  // namespace

void registerListCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("list", "list the disks of a store by client and their snapshots, with each file's state");
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
            throw Error(std::to_string(bad) + " of " + std::to_string(all) + " snapshots " +
                             (bad == 1 ? "is" : "are") + " missing or damaged (zxblk verify checks every block)",
                        ErrorKind::corruption);
    });
}

}  // namespace zxblk
