#include "host/cache_folder.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>
#include <sstream>
#include <tuple>
#include <utility>

#include "framework/AutoHandles.h"
#include "store/storage.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

namespace fs = std::filesystem;

std::string absolutePath(const std::string& path) {
    std::error_code ec;
    fs::path p = fs::absolute(path, ec);
    return ec ? path : p.lexically_normal().string();
}

// Everything a cache folder holds but its lock: anything else found in it
// is not the cache's and stays, and then so does the folder.
const char* const kCacheEntries[] = {"extents", "tmp", "identity", "identity.new", "dirty", "mount.log", "serve.log"};

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
void measure(CacheListing& c) {
    std::set<std::pair<dev_t, ino_t>> seen;
    struct stat st;
    if (::lstat(c.dir.c_str(), &st) == 0) c.bytes += static_cast<uint64_t>(st.st_blocks) * 512;
    addAllocated(c.dir, c.bytes, seen);
    for (const char* part : {"", "/lock", "/extents", "/identity"})
        if (::lstat((c.dir + part).c_str(), &st) == 0) c.lastUse = std::max(c.lastUse, st.st_mtime);
}

}  // namespace

std::string defaultCacheRoot() {
    const char* xdg = std::getenv("XDG_CACHE_HOME");
    const char* home = std::getenv("HOME");
    std::string base = xdg && *xdg ? xdg : std::string(home && *home ? home : "/tmp") + "/.cache";
    return base + "/zxblk";
}

// A store's folder as the kernel names it; a store on S3 as its URL.
std::string canonicalLocation(const std::string& location) {
    if (Storage::isRemote(location)) return location;
    char real[PATH_MAX];
    return ::realpath(location.c_str(), real) ? std::string(real) : absolutePath(location);
}

std::string defaultCacheDir(const std::string& storeLocation, const std::string& disk, int snapshot) {
    std::string store = canonicalLocation(storeLocation);
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016zx", std::hash<std::string>()(store));
    return defaultCacheRoot() + "/" + hash + "-" + disk + "-snap" + std::to_string(snapshot);
}

std::string lockNote(const std::string& state, std::string mountPoint) {
    std::string note = std::to_string(::getpid()) + (state.empty() ? "" : " " + state) + "\n";
    std::replace(mountPoint.begin(), mountPoint.end(), '\n', '?');
    if (!mountPoint.empty()) note += "mountpoint " + mountPoint + "\n";
    return note;
}

// Written over the old note, then cut to its length, so that a reader never
// finds the file empty.
void writeLockNote(int fd, const std::string& note) {
    bool noted = ::pwrite(fd, note.data(), note.size(), 0) == static_cast<ssize_t>(note.size()) &&
                 ::ftruncate(fd, static_cast<off_t>(note.size())) == 0;
    (void)noted;
}

CacheHolder readLockNote(int fd) {
    char text[PATH_MAX + 128];
    ssize_t n = ::pread(fd, text, sizeof text, 0);
    std::string note = n > 0 ? std::string(text, static_cast<size_t>(n)) : std::string();
    CacheHolder h;
    size_t end = note.find('\n');
    std::string first = note.substr(0, end);
    h.pid = std::strtol(first.c_str(), nullptr, 10);
    if (first.find(' ') != std::string::npos) h.state = first.substr(first.find(' ') + 1);
    const std::string key = "\nmountpoint ";
    size_t at = note.find(key);
    if (at != std::string::npos) {
        at += key.size();
        h.mountPoint = note.substr(at, note.find('\n', at) - at);
    }
    return h;
}

std::string CacheHolder::describe() const {
    std::string text = "pid " + std::to_string(pid);
    if (!mountPoint.empty()) text += ", mounted on " + mountPoint;
    if (state == "stopping") text += ", stopping";
    if (state == "removing") text += ", removing it";
    return text;
}

CacheHolder cacheHolder(const std::string& cacheDir) {
    auto_handle lock(::open((cacheDir + "/lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!lock.is_valid()) return CacheHolder();
    // A shared lock, given back at once: a process that wants the cache
    // meanwhile finds its lock held by one that the note does not name, and
    // waits rather than refuse.
    if (::flock(lock.get(), LOCK_SH | LOCK_NB) == 0) return CacheHolder();
    CacheHolder h = readLockNote(lock.get());
    h.inUse = true;
    return h;
}

// With the cache's lock held. The lock goes last: a process that waits for
// it finds it unlinked once it has it, and makes a new cache.
void removeCacheFiles(const std::string& dir) {
    for (const char* name : kCacheEntries) {
        std::error_code ec;
        fs::remove_all(dir + "/" + name, ec);
        if (ec) throw StoreError(dir + "/" + name + ": cannot remove it: " + ec.message());
    }
    if (::unlink((dir + "/lock").c_str()) != 0 && errno != ENOENT)
        throw StoreError(dir + "/lock: cannot remove it: " + std::strerror(errno));
    if (::rmdir(dir.c_str()) != 0 && errno != ENOTEMPTY && errno != EEXIST && errno != ENOENT)
        throw StoreError(dir + ": cannot remove it: " + std::strerror(errno));
}

bool removeCache(const std::string& cacheDir, CacheHolder* holder) {
    std::string path = cacheDir + "/lock";
    auto_handle lock(::open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW));
    if (lock.is_valid()) {
        if (::flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
            if (holder) *holder = readLockNote(lock.get()), holder->inUse = true;
            return false;
        }
        writeLockNote(lock.get(), lockNote("removing", ""));
    } else if (errno != ENOENT) {
        throw StoreError(path + ": " + std::strerror(errno));
    }
    removeCacheFiles(cacheDir);
    return true;
}

// The store, disk and snapshot on lines of their own, first: a reader that
// knows only those finds them without knowing what follows.
std::string CacheIdentity::text() const {
    std::string out = "store " + store + "\ndisk " + disk + "\nsnapshot " + std::to_string(snapshot) +
                      "\nextent size " + std::to_string(extentSize) + "\n";
    for (const std::string& c : copies) out += "copy " + c + "\n";
    return out;
}

CacheIdentity CacheIdentity::parse(const std::string& text) {
    CacheIdentity id;
    std::istringstream in(text);
    std::string line;
    auto value = [&line](const char* key) -> const char* {
        size_t n = std::strlen(key);
        return line.compare(0, n, key) == 0 ? line.c_str() + n : nullptr;
    };
    while (std::getline(in, line)) {
        if (const char* v = value("store "))
            id.store = v;
        else if (const char* v = value("disk "))
            id.disk = v;
        else if (const char* v = value("snapshot "))
            id.snapshot = static_cast<int>(std::strtol(v, nullptr, 10));
        else if (const char* v = value("extent size "))
            id.extentSize = std::strtoll(v, nullptr, 10);
        else if (const char* v = value("copy "))
            id.copies.push_back(v);
    }
    return id;
}

std::string CacheListing::name() const {
    if (disk.empty()) return dir + " (holding nothing known)";
    return disk + " snapshot " + (snapshot < 0 ? std::string("?") : std::to_string(snapshot)) + " of " + store;
}

std::vector<CacheListing> listCacheFolders(const std::string& root) {
    std::vector<CacheListing> caches;
    std::error_code ec;
    fs::directory_iterator it(root, ec);
    if (ec == std::errc::no_such_file_or_directory) return caches;
    if (ec) throw StoreError(root + ": cannot read it: " + ec.message());
    for (fs::directory_iterator end; it != end; it.increment(ec)) {
        if (ec) throw StoreError(root + ": cannot read it: " + ec.message());
        std::error_code statError;
        if (!fs::is_directory(it->symlink_status(statError))) continue;
        CacheListing c;
        c.dir = it->path().string();
        struct stat st;
        if (::lstat((c.dir + "/lock").c_str(), &st) != 0 && ::lstat((c.dir + "/identity").c_str(), &st) != 0) continue;
        std::ifstream in(c.dir + "/identity");
        std::stringstream text;
        text << in.rdbuf();
        CacheIdentity id = CacheIdentity::parse(text.str());
        c.store = id.store;
        c.disk = id.disk;
        c.snapshot = id.snapshot;
        measure(c);
        c.holder = cacheHolder(c.dir);
        caches.push_back(std::move(c));
    }
    std::sort(caches.begin(), caches.end(), [](const CacheListing& a, const CacheListing& b) {
        return std::tie(a.store, a.disk, a.snapshot, a.dir) < std::tie(b.store, b.disk, b.snapshot, b.dir);
    });
    return caches;
}

}  // namespace zxblk
