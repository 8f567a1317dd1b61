// The plugin's parameters and the exports they make of a store's disks.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "zxblk/zxblk.h"

namespace zxblk_plugin {

struct Config {
    std::string store, cache, statsFile, statsDir, control;
    // disk= and client=, in the order given, which is the order listed.
    struct Wanted {
        bool client;
        std::string name;
        int snapshot;  // of a disk; -1: snapshot=
    };
    std::vector<Wanted> wanted;
    int snapshot = -1;
    uint64_t cacheLimit = 0;
    uint64_t readahead = zxblk::DiskOptions().readahead;
    bool allowDamaged = false, prefetch = false;
};

// Takes one key=value of nbdkit's command line into `config`; -1, with
// nbdkit told why, for one it cannot take.
int takeParameter(Config& config, const char* key, const char* value);

// A served export: one snapshot of one disk. Several exports may name the
// same snapshot (disk=a and disk=a@2 when 2 is the newest): they share it,
// for a cache serves one Disk at a time.
struct Export {
    std::string name, description;
    std::string disk;
    int snapshot = 0;
    std::string key() const { return disk + "@" + std::to_string(snapshot); }
};
// What the server serves, settled in get_ready and never changed after, so
// connections read it without a lock.
struct Exports {
    std::vector<Export> list;             // in the order listed
    std::map<std::string, size_t> byName;  // every name a client may ask for
    bool everyDisk = false;                // neither disk= nor client= given
    bool oneCache = false;                 // cache= is the one disk's own cache

    // Lists them from the catalog, in the order of disk= and client= (a
    // client's disks in the catalog's order). Without them every disk of
    // the store: NAME for the snapshot= one (or the newest) and NAME@N for
    // each of the others; NAME@N is also taken for the one NAME stands for.
    void settle(const zxblk::Store& store, const Config& config);

private:
    // Lists an export of a disk's snapshot under `name`, unless one of that
    // name is there already (disk=web01-sys beside client=web01).
    void add(const std::string& name, const zxblk::DiskInfo& disk, int snapshot);
};

}  // namespace zxblk_plugin
