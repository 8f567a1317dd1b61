// The extent caches on this machine: where they are, what each holds, who
// uses it, and their removal.
#include "api/api_internal.h"

namespace zxblk {
namespace {

CacheUser userOf(const CacheHolder& h) {
    CacheUser u;
    u.inUse = h.inUse;
    u.pid = h.pid;
    u.mountPoint = h.mountPoint;
    u.stopping = h.state == "stopping";
    u.removing = h.state == "removing";
    return u;
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

std::vector<CacheInfo> listCaches(const std::string& root) {
    return guarded([&] {
        std::vector<CacheInfo> out;
        for (const CacheListing& l : listCacheFolders(root)) {
            CacheInfo c;
            c.folder = l.dir;
            c.store = l.store;
            c.disk = l.disk;
            c.snapshot = static_cast<int>(l.snapshot);
            c.bytes = l.bytes;
            c.lastUse = l.lastUse;
            c.user = userOf(l.holder);
            out.push_back(std::move(c));
        }
        return out;
    });
}

}  // namespace zxblk
