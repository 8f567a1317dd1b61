#include "plugin_config.h"

#define NBDKIT_API_VERSION 2
#include <nbdkit-plugin.h>

#include <cstdlib>
#include <set>

#include "plugin_text.h"

namespace zxblk_plugin {
namespace {

std::string absolute(const char* value) {
    char* path = nbdkit_absolute_path(value);
    if (!path) return std::string();
    std::string out(path);
    std::free(path);
    return out;
}

}  // namespace

int takeParameter(Config& config, const char* key, const char* value) {
    std::string k(key), v(value);
    if (k == "store" && v.compare(0, 5, "s3://") == 0) {
        config.store = v;  // a store on S3: a URL, not a path
    } else if (k == "store" || k == "cache" || k == "statsfile" || k == "statsdir" || k == "control") {
        std::string path = absolute(value);
        if (path.empty()) return -1;  // nbdkit said why
        (k == "store"       ? config.store
         : k == "cache"     ? config.cache
         : k == "statsfile" ? config.statsFile
         : k == "statsdir"  ? config.statsDir
                            : config.control) = path;
    } else if (k == "disk") {
        size_t at = v.rfind('@');
        int snapshot = -1;
        if (at != std::string::npos && !parseSnapshot(v.substr(at + 1), &snapshot)) {
            nbdkit_error("disk=%s: '%s' is not a snapshot number (0 is the oldest)", value, v.c_str() + at + 1);
            return -1;
        }
        if (v.empty() || at == 0) {
            nbdkit_error("disk=%s: no disk name", value);
            return -1;
        }
        config.wanted.push_back({false, v.substr(0, at), snapshot});
    } else if (k == "client") {
        config.wanted.push_back({true, v, -1});
    } else if (k == "snapshot") {
        if (!parseSnapshot(v, &config.snapshot)) {
            nbdkit_error("snapshot=%s: not a snapshot number (0 is the oldest)", value);
            return -1;
        }
    } else if (k == "cache-limit" || k == "readahead") {
        int64_t n = nbdkit_parse_size(value);
        if (n < 0) return -1;
        (k == "readahead" ? config.readahead : config.cacheLimit) = static_cast<uint64_t>(n);
    } else if (k == "allow-damaged" || k == "prefetch") {
        int b = nbdkit_parse_bool(value);
        if (b < 0) return -1;
        (k == "prefetch" ? config.prefetch : config.allowDamaged) = b;
    } else {
        nbdkit_error("unknown parameter '%s' (the zxblk plugin takes store, disk, client, snapshot, cache, "
                     "cache-limit, readahead, statsfile, statsdir, allow-damaged, control and prefetch)",
                     key);
        return -1;
    }
    return 0;
}

void Exports::add(const std::string& name, const zxblk::DiskInfo& disk, int snapshot) {
    if (byName.count(name)) return;
    Export e;
    e.name = name;
    e.disk = disk.name;
    e.snapshot = snapshot;
    e.description = disk.name + " snapshot " + std::to_string(snapshot) +
                    (disk.client.empty() ? "" : " of " + disk.client) + ", " + sizeText(disk.size);
    byName[name] = list.size();
    list.push_back(e);
}

void Exports::settle(const zxblk::Store& store, const Config& config) {
    auto plainOf = [&config](const zxblk::DiskInfo& d, int asked) {
        return asked >= 0 ? asked : config.snapshot >= 0 ? config.snapshot : static_cast<int>(d.snapshots.size()) - 1;
    };
    if (everyDisk) {
        for (const zxblk::DiskInfo& d : store.disks()) {
            int plain = plainOf(d, -1), count = static_cast<int>(d.snapshots.size());
            size_t plainExport = list.size();
            if (plain >= 0 && plain < count) add(d.name, d, plain);
            for (int n = 0; n < count; ++n) {
                std::string name = d.name + "@" + std::to_string(n);
                if (n == plain)
                    byName[name] = plainExport;  // another name of NAME
                else
                    add(name, d, n);
            }
        }
        return;
    }
    auto addWanted = [&](const std::string& name, int asked) {
        zxblk::DiskInfo d = store.disk(name);
        add(asked >= 0 ? name + "@" + std::to_string(asked) : name, d, plainOf(d, asked));
    };
    for (const Config::Wanted& w : config.wanted) {
        if (!w.client) {
            addWanted(w.name, w.snapshot);
            continue;
        }
        for (const std::string& disk : store.client(w.name).disks) addWanted(disk, -1);
    }
    std::set<std::string> snapshots;
    for (const Export& e : list) snapshots.insert(e.key());
    oneCache = snapshots.size() == 1;
}

}  // namespace zxblk_plugin
