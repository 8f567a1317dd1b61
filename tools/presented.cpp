#include "presented.h"

#include <algorithm>

namespace zxblk {

void addPresentedOptions(CLI::App* cmd, PresentedOptions& o) {
    addStoreOption(cmd, o.store);
    // One value per --disk: the mount point that follows is no disk.
    auto* disk = cmd->add_option("--disk", o.disks, "a disk to present (repeat it for several)")->allow_extra_args(false);
    auto* client = cmd->add_option("--client", o.clients, "every disk of this client (virtual machine), as import "
                                                         "--client recorded it (repeat it for several)")
                       ->allow_extra_args(false);
    disk->excludes(client);
    addNumberOption(cmd, "--snapshot", o.snapshot, "snapshot number of each disk, 0 the oldest (default: the newest)", 0);
    cmd->add_option("--cache", o.cache,
                    "the extent cache of one disk; of several, a folder that holds one per disk, DIR/NAME-snapN "
                    "(default: a cache per disk under ~/.cache/zxblk)");
    addSizeOption(cmd, "--cache-limit", o.cacheLimit,
                  "largest size of each disk's extent cache, e.g. 2G or 256K (default: a quarter of the space it may "
                  "use)",
                  1);
    addSizeOption(cmd, "--readahead", o.readahead,
                  "largest window recalled ahead of a reader that reads a disk in order, e.g. 16M (the default), 0 "
                  "for none; it grows only while the reader stays in order");
    addAllowDamagedOption(cmd, o.allowDamaged);
}

void requirePresented(const PresentedOptions& o) {
    if (o.disks.empty() && o.clients.empty()) throw CLI::RequiredError("--disk NAME or --client NAME");
}

std::vector<PresentedDisk> presentedDisks(const Store& store, const PresentedOptions& o) {
    std::vector<std::string> names;
    auto add = [&names](const std::string& name) {
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    };
    for (const std::string& c : o.clients)
        for (const std::string& d : store.client(c).disks) add(d);
    for (const std::string& d : o.disks) add(d);
    std::vector<PresentedDisk> out;
    for (const std::string& name : names) {
        const int count = static_cast<int>(store.disk(name).snapshots.size());
        if (o.snapshot >= count)
            throw Error("disk " + name + " has no snapshot " + std::to_string(o.snapshot) + " (it has " +
                            std::to_string(count) + ")",
                        ErrorKind::notFound);
        PresentedDisk p;
        p.name = name;
        p.snapshot = o.snapshot >= 0 ? o.snapshot : count - 1;
        out.push_back(p);
    }
    // As the nbdkit plugin lays them out, so that a mount and a server of
    // the same disks given the same --cache use the same caches.
    for (PresentedDisk& p : out)
        p.cacheDir = o.cache.empty() || out.size() == 1 ? o.cache
                                                         : o.cache + "/" + p.name + "-snap" + std::to_string(p.snapshot);
    return out;
}

}  // namespace zxblk
