// Extent cache folders seen from outside, without taking one: where they lie,
// who holds one (its lock file), what one holds (its identity file), and
// their removal. The host that takes a cache writes both files through the
// calls here, so that their formats are written and read in one place.
#pragma once
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace zxblk {

// The folder that holds the default caches: $XDG_CACHE_HOME/zxblk, or
// ~/.cache/zxblk.
std::string defaultCacheRoot();
// The default cache folder of a store (its folder or URL), disk and snapshot.
std::string defaultCacheDir(const std::string& store, const std::string& disk, int snapshot);
// A store's location as the caches name it: a folder by its real path, a
// store on S3 by its URL.
std::string canonicalLocation(const std::string& location);

// The process that holds a cache, as the cache's lock file tells.
struct CacheHolder {
    bool inUse = false;
    long pid = 0;
    std::string state;       // "", "stopping" or "removing"
    std::string mountPoint;  // where it is mounted, when a mount holds it
    // "pid 1234, mounted on /mnt/x"
    std::string describe() const;
};
// Looks at a cache folder without taking it.
CacheHolder cacheHolder(const std::string& cacheDir);
// Removes what a cache holds (extents, temporaries, identity, marks, the
// daemon's log, the lock) and then its folder, if nothing else is left in
// it, unless a process holds the cache: then it returns false, touches
// nothing and tells who in `holder`. Throws StoreError when it cannot.
bool removeCache(const std::string& cacheDir, CacheHolder* holder = nullptr);

// The lock file of a cache tells who holds it: the holder's pid on the first
// line, followed by "stopping" or "removing" while it ends, then
// "mountpoint PATH" when a mount holds it. `state` is "" or one of those two.
std::string lockNote(const std::string& state, std::string mountPoint);
// Replaces the note in an open lock file; a failure is ignored, as the note
// serves only the messages of other processes.
void writeLockNote(int fd, const std::string& note);
// The holder the note in an open lock file names (inUse left false).
CacheHolder readLockNote(int fd);
// removeCache's work, for the process that holds the cache's lock.
void removeCacheFiles(const std::string& cacheDir);

// What a cache holds: the bytes of one disk as one list of snapshots shows
// it. The identity file holds its text; a host finding another text there
// drops the extents rather than serve them.
struct CacheIdentity {
    std::string store;  // canonicalLocation of the store
    std::string disk;
    int snapshot = -1;
    int64_t extentSize = 0;
    // One per snapshot of the disk, oldest first: "ARCHIVEFILEID UNIQUEID FILE".
    std::vector<std::string> copies;

    std::string text() const;
    // What a text names; fields it lacks stay empty (snapshot -1).
    static CacheIdentity parse(const std::string& text);
};

// One cache folder, as the caches are listed.
struct CacheListing {
    std::string dir;
    std::string store, disk;  // as its identity says; empty when it has none
    long snapshot = -1;
    uint64_t bytes = 0;  // allocated on disk, as du counts it
    time_t lastUse = 0;
    CacheHolder holder;

    // "web01 snapshot 2 of /srv/store", or the folder of a cache that never
    // got as far as recording what it holds.
    std::string name() const;
};
// The caches under `root`, in order of store, disk, snapshot and folder; none
// when `root` does not exist. A folder there with neither a lock nor an
// identity is not a cache and is left out. Throws StoreError when `root`
// cannot be read.
std::vector<CacheListing> listCacheFolders(const std::string& root);

}  // namespace zxblk
