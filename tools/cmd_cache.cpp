// zxblk cache: the extent caches kept under the user's cache folder, what
// each holds and who uses it (list), and their removal (purge).
#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "commands.h"
#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;

// "web01 snapshot 2 of /srv/store", or the folder of a cache that never
// got as far as recording what it holds.
std::string nameOf(const CacheInfo& c) {
    if (c.disk.empty()) return c.folder + " (holding nothing known)";
    return c.disk + " snapshot " + (c.snapshot < 0 ? std::string("?") : std::to_string(c.snapshot)) + " of " + c.store;
}

std::string timeText(time_t t, const char* format, bool utc) {
    struct tm parts;
    char text[64];
    if (!(utc ? ::gmtime_r(&t, &parts) : ::localtime_r(&t, &parts)) ||
        !std::strftime(text, sizeof text, format, &parts))
        return "?";
    return text;
}

void printCaches(const std::string& root) {
    std::vector<CacheInfo> caches = listCaches(root);
    uint64_t total = 0;
    for (const CacheInfo& c : caches) total += c.bytes;
    if (commonOptions().json) {
        using Json = nlohmann::ordered_json;
        auto orNull = [](bool known, const Json& value) { return known ? value : Json(); };
        Json list = Json::array();
        for (const CacheInfo& c : caches) {
            bool user = c.user.inUse;
            list.push_back({{"folder", c.folder},
                            {"store", orNull(!c.store.empty(), c.store)},
                            {"disk", orNull(!c.disk.empty(), c.disk)},
                            {"snapshot", orNull(c.snapshot >= 0, c.snapshot)},
                            {"bytes", c.bytes},
                            {"lastUse", timeText(c.lastUse, "%Y-%m-%dT%H:%M:%SZ", true)},
                            {"inUse", user},
                            {"pid", orNull(user && c.user.pid > 0, c.user.pid)},
                            {"mountPoint", orNull(user && !c.user.mountPoint.empty(), c.user.mountPoint)}});
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
        std::string user = c.user.inUse ? c.user.describe() : "-";
        rows.push_back({c.store.empty() ? "?" : c.store, c.disk.empty() ? "?" : c.disk,
                        c.snapshot < 0 ? "?" : std::to_string(c.snapshot), humanSize(c.bytes),
                        timeText(c.lastUse, "%Y-%m-%d %H:%M", false), user, fs::path(c.folder).filename().string()});
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
    // As the caches' identity files name it: a folder by its real path, S3 by its URL.
    std::string store = a.store.empty() ? std::string() : canonicalStoreLocation(a.store);
    unsigned removed = 0, busy = 0, failed = 0;
    uint64_t freed = 0;
    for (const CacheInfo& c : listCaches(a.root)) {
        if (!store.empty() && c.store != store) continue;
        if (!a.disk.empty() && c.disk != a.disk) continue;
        CacheUser user;
        try {
            if (!removeCache(c.folder, &user)) {
                ++busy;
                std::printf("left alone, in use by %s: %s\n", user.describe().c_str(), nameOf(c).c_str());
                continue;
            }
        } catch (const Error& e) {
            ++failed;
            std::fprintf(stderr, "zxblk: %s\n", e.what());
            continue;
        }
        ++removed;
        freed += c.bytes;
        std::error_code ec;
        bool stays = fs::exists(c.folder, ec);
        if (!quiet())
            std::printf("removed %s: %s%s\n", nameOf(c).c_str(), humanSize(c.bytes).c_str(),
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
        throw Error(std::to_string(failed) + " cache" + (failed == 1 ? "" : "s") + " could not be removed", ErrorKind::io);
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
        printCaches(absolutePath(listRoot.empty() ? defaultCacheRoot() : listRoot));
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
        a.root = absolutePath(a.root.empty() ? defaultCacheRoot() : a.root);
        purgeCaches(a);
    });
}

}  // namespace zxblk
