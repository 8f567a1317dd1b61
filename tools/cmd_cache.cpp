// zxblk cache: the extent caches kept under the user's cache folder, what
// each holds and who uses it (list), and their removal (purge).
#include <limits.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>

#include "host/disk_host.h"
#include "store/storage.h"
#include "tools/commands.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;

struct CacheInfo {
    std::string dir;
    std::string store, disk;  // as its identity says; empty when it has none
    long snapshot = -1;
    uint64_t bytes = 0;  // allocated on disk
    time_t lastUse = 0;
    CacheHolder holder;

    // "web01 snapshot 2 of /srv/store", or the folder of a cache that never
    // got as far as recording what it holds.
    std::string name() const {
        if (disk.empty()) return dir + " (holding nothing known)";
        return disk + " snapshot " + (snapshot < 0 ? std::string("?") : std::to_string(snapshot)) + " of " + store;
    }
};

// The identity file that the host writes into a cache names its store,
// disk and snapshot on lines of their own, before the list of snapshots
// that the cache's bytes belong to.
void readIdentity(CacheInfo& c) {
    std::ifstream in(c.dir + "/identity");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("store ", 0) == 0)
            c.store = line.substr(6);
        else if (line.rfind("disk ", 0) == 0)
            c.disk = line.substr(5);
        else if (line.rfind("snapshot ", 0) == 0)
            c.snapshot = std::strtol(line.c_str() + 9, nullptr, 10);
    }
}

// Space taken as du counts it: allocated blocks, a file with several names
// once. Entries that vanish meanwhile (a mount evicting) are skipped.
void addAllocated(const std::string& dir, uint64_t& bytes, std::set<std::pair<dev_t, ino_t>>& seen) {
    std::error_code ec;
    for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
        struct stat st;
        if (::lstat(it->path().c_str(), &st) != 0) continue;
        if (st.st_nlink > 1 && !seen.insert({st.st_dev, st.st_ino}).second) continue;
        bytes += static_cast<uint64_t>(st.st_blocks) * 512;
        if (S_ISDIR(st.st_mode)) addAllocated(it->path().string(), bytes, seen);
    }
}

// When a cache was last used: its lock file is written at every start and
// stop, its extents folder changes with every extent moved in or out.
void measure(CacheInfo& c) {
    std::set<std::pair<dev_t, ino_t>> seen;
    struct stat st;
    if (::lstat(c.dir.c_str(), &st) == 0) c.bytes += static_cast<uint64_t>(st.st_blocks) * 512;
    addAllocated(c.dir, c.bytes, seen);
    for (const char* part : {"", "/lock", "/extents", "/identity"})
        if (::lstat((c.dir + part).c_str(), &st) == 0) c.lastUse = std::max(c.lastUse, st.st_mtime);
}

// The caches under `root`, in order of store, disk and snapshot. A folder
// there that has neither a lock nor an identity is not a cache (the demo
// keeps its sample beside them) and is left out.
std::vector<CacheInfo> findCaches(const std::string& root) {
    std::vector<CacheInfo> caches;
    std::error_code ec;
    fs::directory_iterator it(root, ec);
    if (ec == std::errc::no_such_file_or_directory) return caches;
    if (ec) throw StoreError(root + ": cannot read it: " + ec.message());
    for (fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) throw StoreError(root + ": cannot read it: " + ec.message());
        std::error_code statError;
        if (!fs::is_directory(it->symlink_status(statError))) continue;
        CacheInfo c;
        c.dir = it->path().string();
        struct stat st;
        if (::lstat((c.dir + "/lock").c_str(), &st) != 0 && ::lstat((c.dir + "/identity").c_str(), &st) != 0) continue;
        readIdentity(c);
        measure(c);
        c.holder = cacheHolder(c.dir);
        caches.push_back(std::move(c));
    }
    std::sort(caches.begin(), caches.end(), [](const CacheInfo& a, const CacheInfo& b) {
        return std::tie(a.store, a.disk, a.snapshot, a.dir) < std::tie(b.store, b.disk, b.snapshot, b.dir);
    });
    return caches;
}

std::string timeText(time_t t, const char* format, bool utc) {
    struct tm parts;
    char text[64];
    if (!(utc ? ::gmtime_r(&t, &parts) : ::localtime_r(&t, &parts)) ||
        !std::strftime(text, sizeof text, format, &parts))
        return "?";
    return text;
}

std::string absoluteRoot(const std::string& root) {
    std::error_code ec;
    fs::path p = fs::absolute(root, ec);
    return ec ? root : p.lexically_normal().string();
}

void listCaches(const std::string& root) {
    std::vector<CacheInfo> caches = findCaches(root);
    uint64_t total = 0;
    for (const CacheInfo& c : caches) total += c.bytes;
    if (commonOptions().json) {
        using Json = nlohmann::ordered_json;
        auto orNull = [](bool known, const Json& value) { return known ? value : Json(); };
        Json list = Json::array();
        for (const CacheInfo& c : caches) {
            bool user = c.holder.inUse;
            list.push_back({{"folder", c.dir},
                            {"store", orNull(!c.store.empty(), c.store)},
                            {"disk", orNull(!c.disk.empty(), c.disk)},
                            {"snapshot", orNull(c.snapshot >= 0, c.snapshot)},
                            {"bytes", c.bytes},
                            {"lastUse", timeText(c.lastUse, "%Y-%m-%dT%H:%M:%SZ", true)},
                            {"inUse", user},
                            {"pid", orNull(user && c.holder.pid > 0, c.holder.pid)},
                            {"mountPoint", orNull(user && !c.holder.mountPoint.empty(), c.holder.mountPoint)}});
        }
        Json out = {{"root", root}, {"bytes", total}, {"caches", list}};
        std::printf("%s\n", out.dump(2).c_str());
        return;
    }
    if (caches.empty()) {
        std::printf("no extent caches in %s\n", root.c_str());
        return;
    }
    std::vector<std::vector<std::string>> rows = {
        {"STORE", "DISK", "SNAPSHOT", "SIZE", "LAST USE", "IN USE BY", "FOLDER"}};
    for (const CacheInfo& c : caches) {
        std::string user = "-";
        if (c.holder.inUse) user = c.holder.pid > 0 ? c.holder.describe() : "a zxblk process";
        rows.push_back({c.store.empty() ? "?" : c.store, c.disk.empty() ? "?" : c.disk,
                        c.snapshot < 0 ? "?" : std::to_string(c.snapshot), humanSize(c.bytes),
                        timeText(c.lastUse, "%Y-%m-%d %H:%M", false), user, fs::path(c.dir).filename().string()});
    }
    std::vector<size_t> width(rows[0].size(), 0);
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size(); ++i) width[i] = std::max(width[i], row[i].size());
    for (const auto& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
            line += i + 1 < row.size() ? row[i] + std::string(width[i] - row[i].size() + 2, ' ') : row[i];
        std::printf("%s\n", line.c_str());
    }
    std::printf("%zu cache%s, %s, in %s\n", caches.size(), caches.size() == 1 ? "" : "s", humanSize(total).c_str(),
                root.c_str());
}

struct PurgeArgs {
    std::string root, store, disk;
    bool all = false;
};

void purgeCaches(const PurgeArgs& a) {
    if (!a.all && a.store.empty() && a.disk.empty())
        throw CLI::ValidationError("cache purge",
                                   "say which caches to remove: --all, or --store DIR and/or --disk NAME");
    // The host records the store's real path.
    std::string store;
    if (!a.store.empty()) {
        char real[PATH_MAX];
        // As the caches' identity files name it: a folder by its real path, S3 by its URL.
        store = Storage::isRemote(a.store)            ? a.store
                : ::realpath(a.store.c_str(), real) ? std::string(real)
                                                    : absoluteRoot(a.store);
    }
    unsigned removed = 0, busy = 0, failed = 0;
    uint64_t freed = 0;
    for (const CacheInfo& c : findCaches(a.root)) {
        if (!store.empty() && c.store != store) continue;
        if (!a.disk.empty() && c.disk != a.disk) continue;
        CacheHolder holder;
        try {
            if (!removeCache(c.dir, &holder)) {
                ++busy;
                std::printf("left alone, in use by %s: %s\n",
                            holder.pid > 0 ? holder.describe().c_str() : "a zxblk process", c.name().c_str());
                continue;
            }
        } catch (const StoreError& e) {
            ++failed;
            std::fprintf(stderr, "zxblk: %s\n", e.what());
            continue;
        }
        ++removed;
        freed += c.bytes;
        std::error_code ec;
        bool stays = fs::exists(c.dir, ec);
        if (!quiet())
            std::printf("removed %s: %s%s\n", c.name().c_str(), humanSize(c.bytes).c_str(),
                        stays ? " (its folder stays: it holds files that are not the cache's)" : "");
    }
    std::string which = a.all ? std::string("in ") + a.root
                              : std::string("of ") + (a.disk.empty() ? "any disk" : "disk " + a.disk) +
                                    (store.empty() ? "" : " of " + store) + " in " + a.root;
    if (!quiet()) {
        std::string left = busy ? "; " + std::to_string(busy) + " in use left alone" : "";
        if (!removed && !busy && !failed)
            std::printf("no extent caches %s\n", which.c_str());
        else
            std::printf("freed %s: removed %u cache%s%s\n", humanSize(freed).c_str(), removed, removed == 1 ? "" : "s",
                        left.c_str());
    }
    if (failed)
        throw StoreError(std::to_string(failed) + " cache" + (failed == 1 ? "" : "s") + " could not be removed");
}

}  // namespace

void registerCacheCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("cache", "list the extent caches, or remove those not in use");
    cmd->require_subcommand(1);
    // As the user would write it, not this machine's home folder.
    const std::string rootHelp = "the folder that holds the caches (default: $XDG_CACHE_HOME/zxblk or ~/.cache/zxblk)";

    auto* list = cmd->add_subcommand("list", "list the extent caches: disk, size, last use and who uses them");
    static std::string listRoot;
    list->add_option("--cache-root", listRoot, rootHelp);
    addJsonOption(list);
    addCommonOptions(list);
    list->callback([] {
        applyCommonOptions();
        listCaches(absoluteRoot(listRoot.empty() ? defaultCacheRoot() : listRoot));
    });

    auto* purge = cmd->add_subcommand("purge", "remove the extent caches that no process uses");
    static PurgeArgs a;
    purge->add_option("--cache-root", a.root, rootHelp);
    auto* store = purge->add_option("--store", a.store, "only the caches of this store (a directory or s3://BUCKET/PREFIX)");
    auto* disk = purge->add_option("--disk", a.disk, "only the caches of this disk");
    purge->add_flag("--all", a.all, "every cache not in use")->excludes(store)->excludes(disk);
    addCommonOptions(purge);
    purge->callback([] {
        applyCommonOptions();
        a.root = absoluteRoot(a.root.empty() ? defaultCacheRoot() : a.root);
        purgeCaches(a);
    });
}

}  // namespace zxblk
