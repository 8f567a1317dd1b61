// nbdkit-zxblk-plugin.so: one snapshot of one disk of a zxblk store, served
// over NBD by nbdkit, read-only:
//
//     nbdkit zxblk store=DIR disk=NAME [snapshot=N] [cache=DIR]
//                  [cache-limit=SIZE] [statsfile=FILE]
//
// Reads recall the extents they touch as `zxblk mount` does (the same
// library, the same extent cache and readahead); block status answers from
// the snapshots' block tables without recalling anything, so copying tools
// skip what no snapshot holds; NBD_CMD_CACHE recalls a range ahead of reads.
// An extent that cannot be recalled fails its request with EIO and one log
// line; the server goes on serving the rest.
#define NBDKIT_API_VERSION 2
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL
#include <nbdkit-plugin.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

#include "zxblk/zxblk.h"

namespace {

struct Config {
    std::string store, disk, cache, statsFile;
    int snapshot = -1;
    uint64_t cacheLimit = 0;
};
Config g_config;
std::unique_ptr<zxblk::Disk> g_disk;
std::string g_description;

// The first error line the library wrote on this thread during the current
// request: the host's own error says only that an extent could not be
// recalled, and the line that says why was logged on the way.
thread_local std::string t_firstError;

void startRequest() { t_firstError.clear(); }

// The disk's statistics, rewritten whole once a second while the server
// runs and once more when it stops, for `zxblk stats FILE` or a script.
std::thread g_statsThread;
std::mutex g_statsMutex;
std::condition_variable g_statsCond;
bool g_stopStats = false;

void writeStats() {
    if (g_config.statsFile.empty() || !g_disk) return;
    std::string text;
    try {
        text = g_disk->statsText();
    } catch (const std::exception& e) {
        nbdkit_error("statistics: %s", e.what());
        return;
    }
    // Written aside and renamed, so that a reader never sees half of it.
    std::string tmp = g_config.statsFile + ".tmp";
    FILE* f = std::fopen(tmp.c_str(), "w");
    bool ok = f && std::fwrite(text.data(), 1, text.size(), f) == text.size();
    if (f && std::fclose(f) != 0) ok = false;
    if (!ok || std::rename(tmp.c_str(), g_config.statsFile.c_str()) != 0) {
        nbdkit_error("%s: cannot write the statistics: %s", g_config.statsFile.c_str(), std::strerror(errno));
        std::remove(tmp.c_str());
    }
}

std::string absolute(const char* value) {
    char* path = nbdkit_absolute_path(value);
    if (!path) return std::string();
    std::string out(path);
    std::free(path);
    return out;
}

int config(const char* key, const char* value) {
    std::string k(key);
    if (k == "store" && std::strncmp(value, "s3://", 5) == 0) {
        g_config.store = value;  // a store on S3: a URL, not a path
    } else if (k == "store" || k == "cache" || k == "statsfile") {
        std::string path = absolute(value);
        if (path.empty()) return -1;  // nbdkit said why
        (k == "store" ? g_config.store : k == "cache" ? g_config.cache : g_config.statsFile) = path;
    } else if (k == "disk") {
        g_config.disk = value;
    } else if (k == "snapshot") {
        // Plain decimal only: "-1" and "010" are not snapshot numbers.
        const char* end = value + std::strlen(value);
        auto r = std::from_chars(value, end, g_config.snapshot);
        if (!*value || r.ec != std::errc() || r.ptr != end || (value[0] == '0' && value[1]) || g_config.snapshot < 0) {
            nbdkit_error("snapshot=%s: not a snapshot number (0 is the oldest)", value);
            return -1;
        }
    } else if (k == "cache-limit") {
        int64_t n = nbdkit_parse_size(value);
        if (n < 0) return -1;
        g_config.cacheLimit = static_cast<uint64_t>(n);
    } else {
        nbdkit_error("unknown parameter '%s' (the zxblk plugin takes store, disk, snapshot, cache, cache-limit "
                     "and statsfile)",
                     key);
        return -1;
    }
    return 0;
}

int configComplete() {
    if (g_config.store.empty() || g_config.disk.empty()) {
        nbdkit_error("the zxblk plugin needs store=DIR and disk=NAME");
        return -1;
    }
    return 0;
}

zxblk::Disk openDisk() {
    zxblk::DiskOptions options;
    options.snapshot = g_config.snapshot;
    options.cacheDir = g_config.cache;
    options.cacheLimit = g_config.cacheLimit;
    return zxblk::Disk::open(g_config.store, g_config.disk, options);
}

// Everything that can be wrong with the store, the disk or the cache is
// found here, before nbdkit forks into the background and while it can
// still say so where the user looks. The library's threads would not
// survive that fork, so the disk is then opened again after it. Started by
// socket activation (as zxblk serve starts it), nbdkit does not fork: the
// disk opened here is the one served.
bool willFork() {
    const char* pid = std::getenv("LISTEN_PID");
    return !(pid && std::getenv("LISTEN_FDS") && std::to_string(::getpid()) == pid);
}

int getReady() {
    try {
        zxblk::Disk disk = openDisk();
        if (!willFork()) g_disk.reset(new zxblk::Disk(std::move(disk)));
        return 0;
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        return -1;
    }
}

void statsLoop() {
    std::unique_lock<std::mutex> lock(g_statsMutex);
    while (!g_statsCond.wait_for(lock, std::chrono::seconds(1), [] { return g_stopStats; })) {
        lock.unlock();
        writeStats();
        lock.lock();
    }
}

int afterFork() {
    try {
        // A request that fails says why in its own error line; the library's
        // lines are for nbdkit -v.
        zxblk::setLogHandler([](int level, const std::string& source, const std::string& text) {
            if (level < 0 && t_firstError.empty()) t_firstError = text;
            nbdkit_debug("%s: %s", source.c_str(), text.c_str());
        });
        if (!g_disk) g_disk.reset(new zxblk::Disk(openDisk()));
        g_description = g_disk->name() + " snapshot " + std::to_string(g_disk->snapshot());
        nbdkit_debug("serving %s (%llu bytes, extents of %llu bytes)", g_description.c_str(),
                     static_cast<unsigned long long>(g_disk->size()),
                     static_cast<unsigned long long>(g_disk->extentSize()));
        if (!g_config.statsFile.empty()) {
            writeStats();
            g_statsThread = std::thread(statsLoop);
        }
        return 0;
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        return -1;
    }
}

// After the last connection: the last statistics, then the disk closes (its
// recalls end and the cache is left consistent).
void cleanup() {
    if (g_statsThread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(g_statsMutex);
            g_stopStats = true;
        }
        g_statsCond.notify_all();
        g_statsThread.join();
    }
    writeStats();
    g_disk.reset();
}

#ifdef ZXBLK_SANITIZER_PRELOAD
// A sanitized plugin loads into nbdkit only with the sanitizer's runtime in
// LD_PRELOAD (zxblk serve and the tests put it there). Once nbdkit runs,
// the preload has done its work; left in the environment, it would reach
// the commands nbdkit starts itself (--run), and ThreadSanitizer's runtime
// kills an uninstrumented shell with SIGSEGV before it runs a line.
void load() { ::unsetenv("LD_PRELOAD"); }
#endif

// Every connection shares the one disk.
void* openConnection(int) { return g_disk.get(); }
void closeConnection(void*) {}

int64_t getSize(void*) { return static_cast<int64_t>(g_disk->size()); }
const char* exportDescription(void*) { return g_description.c_str(); }
int yes(void*) { return 1; }
int no(void*) { return 0; }
int cacheNative(void*) { return NBDKIT_CACHE_NATIVE; }

// Any size and alignment is served; a client that follows the preferred
// size reads whole extents.
int blockSize(void*, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    uint64_t e = g_disk->extentSize();
    bool powerOfTwo = e && !(e & (e - 1));
    *minimum = 1;
    *preferred = powerOfTwo && e >= 512 && e <= (32u << 20) ? static_cast<uint32_t>(e) : 4096;
    *maximum = 0xffffffff;
    return 0;
}

// The request fails with EIO and its reason as one line; nothing else stops.
int failed(const char* what, uint32_t count, uint64_t offset, const std::exception& e) {
    std::string why = e.what();
    const std::string seeLog = " (see the log)";
    if (why.size() > seeLog.size() && why.compare(why.size() - seeLog.size(), seeLog.size(), seeLog) == 0 &&
        !t_firstError.empty()) {
        // "recall of PATH failed: REASON" or "extent lookup: REASON": the reason.
        std::string reason = t_firstError;
        for (const char* lead : {"failed: ", "extent lookup: "}) {
            size_t at = reason.find(lead);
            if (at != std::string::npos) {
                reason = reason.substr(at + std::strlen(lead));
                break;
            }
        }
        why = why.substr(0, why.size() - seeLog.size()) + ": " + reason;
    }
    nbdkit_error("%s of %u bytes at %llu failed: %s", what, count, static_cast<unsigned long long>(offset), why.c_str());
    nbdkit_set_error(EIO);
    return -1;
}

int pread(void*, void* buf, uint32_t count, uint64_t offset, uint32_t) {
    startRequest();
    try {
        g_disk->read(offset, count, buf);
        return 0;
    } catch (const std::exception& e) {
        return failed("read", count, offset, e);
    }
}

int extents(void*, uint32_t count, uint64_t offset, uint32_t flags, struct nbdkit_extents* out) {
    try {
        for (const zxblk::Range& r : g_disk->allocation(offset, count)) {
            if (nbdkit_add_extent(out, r.offset, r.length, r.data ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO) != 0)
                return -1;
            if (flags & NBDKIT_FLAG_REQ_ONE) break;
        }
        return 0;
    } catch (const std::exception& e) {
        return failed("block status", count, offset, e);
    }
}

// Recalls the extents of the range that hold data and answers once they are
// local: a client that asks to cache and then reads finds them there. The
// extents are asked for a window at a time, so that several recall at once.
int cache(void*, uint32_t count, uint64_t offset, uint32_t) {
    startRequest();
    try {
        if (!count) return 0;
        const uint64_t E = g_disk->extentSize(), last = (offset + count - 1) / E;
        const uint64_t window = 16;
        for (uint64_t first = offset / E; first <= last; first += window) {
            uint64_t end = std::min(last + 1, first + window);
            uint64_t from = first * E, to = std::min(g_disk->size(), end * E);
            g_disk->prefetch(from, to - from);
            for (const zxblk::Range& r : g_disk->allocation(from, to - from)) {
                if (!r.data) continue;
                for (uint64_t i = r.offset / E; i <= (r.offset + r.length - 1) / E; ++i) g_disk->extent(i);
            }
        }
        return 0;
    } catch (const std::exception& e) {
        return failed("cache", count, offset, e);
    }
}

nbdkit_plugin makePlugin() {
    nbdkit_plugin p;
    std::memset(&p, 0, sizeof p);
    p.name = "zxblk";
    p.longname = "zxblk: a disk of a backup store, recalled as it is read";
    p.version = zxblk::version();
    p.description = "Serves one snapshot of one disk of a zxblk store, recalling extents as they are read.";
#ifdef ZXBLK_SANITIZER_PRELOAD
    p.load = load;
#endif
    p.config = config;
    p.config_complete = configComplete;
    p.config_help =
        "store=DIR         (required) the zxblk store: a directory or s3://BUCKET/PREFIX\n"
        "disk=NAME         (required) the disk in it\n"
        "snapshot=N        the snapshot, 0 the oldest (default: the newest)\n"
        "cache=DIR         the extent cache (default: one under ~/.cache/zxblk)\n"
        "cache-limit=SIZE  bytes the cache may hold (default: a quarter of its free space)\n"
        "statsfile=FILE    rewritten each second with what was recalled";
    p.magic_config_key = "disk";
    p.get_ready = getReady;
    p.after_fork = afterFork;
    p.cleanup = cleanup;
    p.open = openConnection;
    p.close = closeConnection;
    p.get_size = getSize;
    p.export_description = exportDescription;
    p.block_size = blockSize;
    p.can_write = no;
    p.is_rotational = no;
    p.can_multi_conn = yes;
    p.can_extents = yes;
    p.can_cache = cacheNative;
    p.pread = pread;
    p.extents = extents;
    p.cache = cache;
    p.errno_is_preserved = 0;
    return p;
}

nbdkit_plugin plugin = makePlugin();

}  // namespace

NBDKIT_REGISTER_PLUGIN(plugin)
