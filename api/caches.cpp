// The extent caches on this machine: where they are, what each holds, who
// uses it, and their removal.
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <tuple>

#include "api/api_internal.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;

CacheUser userOf(const CacheHolder& h) {
    CacheUser u;
    u.inUse = h.inUse;
    u.pid = h.pid;
    u.mountPoint = h.mountPoint;
    u.stopping = h.state == "stopping";
    u.removing = h.state == "removing";
    return u;
}

// The identity file that the host writes into a cache names its store,
// disk and snapshot on lines of their own, before the list of snapshots
// that the cache's bytes belong to.
void readIdentity(CacheInfo& c) {
    std::ifstream in(c.folder + "/identity");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("store ", 0) == 0)
            c.store = line.substr(6);
        else if (line.rfind("disk ", 0) == 0)
            c.disk = line.substr(5);
        else if (line.rfind("snapshot ", 0) == 0)
            c.snapshot = static_cast<int>(std::strtol(line.c_str() + 9, nullptr, 10));
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
    if (::lstat(c.folder.c_str(), &st) == 0) c.bytes += static_cast<uint64_t>(st.st_blocks) * 512;
    addAllocated(c.folder, c.bytes, seen);
    for (const char* part : {"", "/lock", "/extents", "/identity"})
        if (::lstat((c.folder + part).c_str(), &st) == 0) c.lastUse = std::max(c.lastUse, st.st_mtime);
}

}  // namespace

std::string CacheUser::describe() const {
    CacheHolder h;
    h.pid = pid;
    h.mountPoint = mountPoint;
    h.state = stopping ? "stopping" : removing ? "removing" : "";
    return pid > 0 ? h.describe() : "a zxblk process";
}

std::string canonicalStoreLocation(const std::string& store) { return canonicalLocation(store); }

CacheUser cacheUser(const std::string& folder) {
    return guarded([&] { return userOf(cacheHolder(folder)); });
}

bool removeCache(const std::string& folder, CacheUser* user) {
    return guarded([&] {
        CacheHolder holder;
        bool removed = removeCache(folder, &holder);
        if (!removed && user) *user = userOf(holder);
        return removed;
    });
}

// A folder under the root that has neither a lock nor an identity is not a
// cache (the demo keeps its sample beside them) and is left out.
std::vector<CacheInfo> listCaches(const std::string& root) {
    return guarded([&] {
        std::vector<CacheInfo> caches;
        std::error_code ec;
        fs::directory_iterator it(root, ec);
        if (ec == std::errc::no_such_file_or_directory) return caches;
        if (ec) throw Error(root + ": cannot read it: " + ec.message(), ErrorKind::io);
        for (fs::directory_iterator end; it != end; it.increment(ec)) {
            if (ec) throw Error(root + ": cannot read it: " + ec.message(), ErrorKind::io);
            std::error_code statError;
            if (!fs::is_directory(it->symlink_status(statError))) continue;
            CacheInfo c;
            c.folder = it->path().string();
            struct stat st;
            if (::lstat((c.folder + "/lock").c_str(), &st) != 0 && ::lstat((c.folder + "/identity").c_str(), &st) != 0)
                continue;
            readIdentity(c);
            measure(c);
            c.user = userOf(cacheHolder(c.folder));
            caches.push_back(std::move(c));
        }
        std::sort(caches.begin(), caches.end(), [](const CacheInfo& a, const CacheInfo& b) {
            return std::tie(a.store, a.disk, a.snapshot, a.folder) < std::tie(b.store, b.disk, b.snapshot, b.folder);
        });
        return caches;
    });
}

}  // namespace zxblk
