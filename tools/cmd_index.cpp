// zxblk index: the extents the index flags for a disk.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {

void registerIndexCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("index", "list the extents the index flags as mount or metadata extents");
    static std::string store, disk, kind;
    static int snapshot = -1;
    addStoreOption(cmd, store);
    cmd->add_option("--disk", disk, "disk name")->required();
    addNumberOption<int>(cmd, "--snapshot", snapshot, "only this snapshot", 0);
    cmd->add_option("--kind", kind, "only 'mount' or 'metadata'")->check(CLI::IsMember({"mount", "metadata"}));
    addJsonOption(cmd);
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        std::vector<IndexRow> rows = Store::open(store).indexRows(disk, snapshot, kind);
        if (commonOptions().json) {
            nlohmann::json out = nlohmann::json::array();
            for (const IndexRow& r : rows)
                out.push_back({{"snapshot", r.snapshot}, {"kind", r.kind}, {"extent", r.extent}, {"reports", r.reports},
                               {"lastSeen", r.lastSeen}});
            std::printf("%s\n", out.dump(2).c_str());
            return;
        }
        std::printf("%-8s %-9s %-8s %-8s %s\n", "snapshot", "kind", "extent", "reports", "last seen");
        for (const IndexRow& r : rows)
            std::printf("%-8d %-9s %-8llu %-8llu %s\n", r.snapshot, r.kind.c_str(),
                        static_cast<unsigned long long>(r.extent), static_cast<unsigned long long>(r.reports),
                        r.lastSeen.c_str());
        std::printf("%zu extents flagged\n", rows.size());
    });
}

}  // namespace zxblk
