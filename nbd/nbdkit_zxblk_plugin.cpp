// nbdkit-zxblk-plugin.so: the disks of a zxblk store, served over NBD by
// nbdkit, read-only, one export per disk:
//
//     nbdkit zxblk store=S [disk=NAME[@N]]... [client=VM]... [snapshot=N]
//                  [cache=DIR] [cache-limit=SIZE] [readahead=SIZE]
//                  [statsfile=FILE | statsdir=DIR] [allow-damaged=true]
//                  [control=SOCKET] [prefetch=true]
//
// disk= and client= name the disks served, each opened before the server
// starts; without them every disk of the store is served by its name (the
// snapshot= one, by default the newest) and as NAME@N (snapshot N), each
// opened when a client first asks for it. A client that names no export
// gets the first one listed.
//
// Reads recall the extents they touch as `zxblk mount` does (the same
// library, the same extent cache and readahead); block status answers from
// the snapshots' block tables without recalling anything, so copying tools
// skip what no snapshot holds; NBD_CMD_CACHE recalls a range ahead of reads.
// An extent that cannot be recalled fails its request with EIO and one log
// line; the server goes on serving the rest.
//
// control= gives the server the phases of a mount (control_channel.h): the
// extents recalled until a "mount-complete" there go to the index as mount
// extents, and with prefetch=true each disk recalls those an earlier run
// recorded as soon as it is open, before a client asks for them.
#define NBDKIT_API_VERSION 2
#define THREAD_MODEL NBDKIT_THREAD_MODEL_PARALLEL
#include <malloc.h>

#include <nbdkit-plugin.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "control_channel.h"
#include "plugin_config.h"
#include "plugin_text.h"
#include "stats_writer.h"
#include "zxblk/zxblk.h"

namespace {

using zxblk_plugin::parseSnapshot;
using zxblk_plugin::printable;
using zxblk_plugin::sizeText;

using zxblk_plugin::Config;
using zxblk_plugin::Export;
Config g_config;
zxblk_plugin::Exports g_served;

std::unique_ptr<zxblk::Store> g_store;
std::mutex g_openMutex;
std::map<std::string, std::shared_ptr<zxblk::Disk>> g_open;  // by Export::key(), under g_openMutex
// How many recorded mount extents each open snapshot was told to recall
// ahead (prefetch= or the "prefetch" command), by Export::key(), under
// g_openMutex; told in its statistics.
std::map<std::string, size_t> g_prefetched;
bool g_serving = false;  // after_fork has run: a disk opened now is served
std::unique_ptr<zxblk_plugin::ControlSocket> g_control;

// A connection: its export and the disk, fixed when it opens. The disk
// belongs to g_open, not to the connection: nbdkit told to stop while
// requests run ends their threads without closing their connections, and
// cleanup must still close every disk, so that no recall or readahead
// thread outlives the plugin into the process's exit.
struct Connection {
    const Export* exp;
    zxblk::Disk* disk;
};

int config(const char* key, const char* value) { return zxblk_plugin::takeParameter(g_config, key, value); }

int configComplete() {
    if (g_config.store.empty()) {
        nbdkit_error("the zxblk plugin needs store=DIR (or store=s3://BUCKET/PREFIX)");
        return -1;
    }
    g_served.everyDisk = g_config.wanted.empty();
    return 0;
}

// Recalls in the background the mount extents recorded for the export's
// snapshot. Caller holds g_openMutex.
void prefetchLocked(const Export& e, zxblk::Disk& disk) {
    size_t n = disk.prefetchMountExtents();
    g_prefetched[e.key()] = n;
    nbdkit_debug("%s: prefetching %zu mount extents", e.name.c_str(), n);
}

// Thrown by openLocked once cleanup has closed the store: nbdkit may still
// start a connection it accepted as it stopped (it counts a connection's
// thread only once that thread runs, and runs cleanup when the count is 0).
struct Stopping : std::runtime_error {
    Stopping() : std::runtime_error("the server is stopping") {}
};

// Opens an export's snapshot, or finds it open. Caller holds g_openMutex.
std::shared_ptr<zxblk::Disk> openLocked(const Export& e) {
    if (!g_store) throw Stopping();
    std::shared_ptr<zxblk::Disk>& disk = g_open[e.key()];
    if (disk) return disk;
    zxblk::DiskOptions options;
    options.snapshot = e.snapshot;
    options.cacheLimit = g_config.cacheLimit;
    options.readahead = g_config.readahead;
    options.allowDamaged = g_config.allowDamaged;
    // With a control channel someone can say when the guest is up: the
    // extents recalled until then are its mount extents.
    options.trackExtents = !g_config.control.empty();
    if (!g_config.cache.empty())
        options.cacheDir = g_served.oneCache ? g_config.cache : g_config.cache + "/" + e.disk + "-snap" + std::to_string(e.snapshot);
    try {
        disk = std::make_shared<zxblk::Disk>(g_store->openDisk(e.disk, options));
    } catch (...) {
        g_open.erase(e.key());
        throw;
    }
    for (const std::string& notice : disk->notices()) nbdkit_debug("%s: %s", e.name.c_str(), notice.c_str());
    nbdkit_debug("export %s: %s (%llu bytes, extents of %llu bytes, cache %s)", e.name.c_str(),
                 e.description.c_str(), static_cast<unsigned long long>(disk->size()),
                 static_cast<unsigned long long>(disk->extentSize()), disk->cacheDir().c_str());
    if (g_serving && g_config.prefetch) prefetchLocked(e, *disk);
    return disk;
}

// The store, and every disk named by disk= or client=.
void openAll() {
    std::lock_guard<std::mutex> lock(g_openMutex);
    if (!g_store) g_store.reset(new zxblk::Store(zxblk::Store::open(g_config.store)));
    if (g_served.everyDisk) return;
    for (const Export& e : g_served.list) openLocked(e);
}

void closeAll() {
    std::lock_guard<std::mutex> lock(g_openMutex);
    g_open.clear();
    g_prefetched.clear();
    g_store.reset();
}

// Everything that can be wrong with the store, the disks or the caches is
// found in get_ready, while nbdkit can still say so where the user looks,
// and all is closed again before it returns: the disks are opened for good
// in after_fork. Between the two, nbdkit may fork into the background, which
// the library's threads would not survive, and it closes stdin and stdout
// and opens /dev/null twice, sure that the two lowest descriptors are what
// it gets. A recall or readahead thread of ours opening a file then took
// one; nbdkit stopped with "open: No such file or directory" and could hang
// in its exit handlers beside the threads still running.
int getReady() {
    // A request that fails says why in its own error line, from the
    // library's Error; the library's log lines are for nbdkit -v.
    zxblk::setLogHandler([](int, const std::string& source, const std::string& text) {
        nbdkit_debug("%s: %s", source.c_str(), text.c_str());
    });
    try {
        g_store.reset(new zxblk::Store(zxblk::Store::open(g_config.store)));
        g_served.settle(*g_store, g_config);
        if (!g_config.statsFile.empty() && !g_served.oneCache)
            throw std::runtime_error(std::string("statsfile= is for a server of one disk; this one serves ") +
                                     (g_served.everyDisk ? "every disk of the store" : "several") + ": use statsdir=DIR");
        std::error_code ec;
        if (!g_config.statsDir.empty() && !std::filesystem::is_directory(g_config.statsDir) &&
            !std::filesystem::create_directories(g_config.statsDir, ec))
            throw std::runtime_error("statsdir=" + g_config.statsDir + ": cannot make the folder: " + ec.message());
        openAll();
        closeAll();
        return 0;
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        closeAll();  // now, not in the destructors at exit
        return -1;
    }
}

// The statistics of each open export, for `zxblk stats FILE` or a script:
// statsfile= for the one disk, or statsdir=DIR/EXPORT.stats.
std::vector<std::pair<std::string, std::string>> gatherStats() {
    std::vector<std::pair<std::string, std::string>> files;
    std::vector<std::pair<const Export*, std::shared_ptr<zxblk::Disk>>> open;
    std::map<std::string, size_t> prefetched;
    {
        std::lock_guard<std::mutex> lock(g_openMutex);
        for (const Export& e : g_served.list) {
            auto it = g_open.find(e.key());
            if (it != g_open.end() && it->second) open.emplace_back(&e, it->second);
        }
        prefetched = g_prefetched;
    }
    for (const auto& [e, disk] : open) {
        std::string text;
        try {
            text = disk->statsText();
        } catch (const std::exception& x) {
            nbdkit_error("%s: statistics: %s", e->name.c_str(), x.what());
            continue;
        }
        auto p = prefetched.find(e->key());
        if (p != prefetched.end()) text += "mount_extents_prefetched " + std::to_string(p->second) + "\n";
        if (!g_config.statsFile.empty()) files.emplace_back(g_config.statsFile, text);
        if (!g_config.statsDir.empty()) files.emplace_back(g_config.statsDir + "/" + e->name + ".stats", text);
    }
    return files;
}
zxblk_plugin::StatsWriter g_stats(gatherStats);

std::string answerControl(const std::string& line);

// After the last connection: the last statistics, then the disks close
// (their recalls end and the caches are left consistent).
void cleanup() {
    g_control.reset();  // no command reaches a disk that is closing
    g_stats.stop();
    closeAll();
    zxblk::setLogHandler(nullptr);
}

int afterFork() {
    try {
        openAll();
        {
            std::lock_guard<std::mutex> lock(g_openMutex);
            g_serving = true;
            if (g_config.prefetch)
                for (const Export& e : g_served.list) {
                    auto it = g_open.find(e.key());
                    if (it != g_open.end() && it->second && !g_prefetched.count(e.key())) prefetchLocked(e, *it->second);
                }
        }
        if (!g_config.control.empty()) g_control.reset(new zxblk_plugin::ControlSocket(g_config.control, answerControl));
        if (!g_config.statsFile.empty() || !g_config.statsDir.empty()) g_stats.start();
        return 0;
    } catch (const std::exception& e) {
        nbdkit_error("%s", e.what());
        cleanup();  // nbdkit exits now: none of our threads may run into its exit handlers
        return -1;
    }
}

#ifdef ZXBLK_SANITIZER_PRELOAD
// A sanitized plugin loads into nbdkit only with the sanitizer's runtime in
// LD_PRELOAD (zxblk serve and the tests put it there). Once nbdkit runs,
// the preload has done its work; left in the environment, it would reach
// the commands nbdkit starts itself (--run), and ThreadSanitizer's runtime
// kills an uninstrumented shell with SIGSEGV before it runs a line.
void load() {
    ::unsetenv("LD_PRELOAD");
    // As the zxblk tool does: blocks of a few MiB freed by the thousand
    // would otherwise stay in glibc's heaps (its mmap threshold rises).
    ::mallopt(M_MMAP_THRESHOLD, 1 << 20);
}
#endif

int listExports(int, int, struct nbdkit_exports* out) {
    for (const Export& e : g_served.list)
        if (nbdkit_add_export(out, e.name.c_str(), e.description.c_str()) != 0) return -1;
    return 0;
}

// A client that names no export gets the first: a one-disk server serves
// its disk at a URI without a name.
const char* defaultExport(int, int) { return g_served.list.empty() ? nullptr : g_served.list.front().name.c_str(); }

// The disks served, each once, for the line that refuses an unknown name.
std::string servedNames() {
    std::vector<std::string> names;
    for (const Export& e : g_served.list) {
        const std::string& name = g_served.everyDisk ? e.disk : e.name;
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
    std::string out;
    for (const std::string& n : names) out += (out.empty() ? "" : ", ") + n;
    return out.empty() ? "none" : out;
}

// The disks a control command names: every open one, or the export asked for.
std::vector<zxblk_plugin::ControlTarget> controlTargets(const std::string& name) {
    std::vector<zxblk_plugin::ControlTarget> out;
    std::set<std::string> seen;
    std::lock_guard<std::mutex> lock(g_openMutex);
    if (name.empty()) {
        for (const Export& e : g_served.list) {
            auto it = g_open.find(e.key());
            if (it != g_open.end() && it->second && seen.insert(e.key()).second) out.push_back({e.name, it->second});
        }
        return out;
    }
    auto it = g_served.byName.find(name);
    if (it == g_served.byName.end())
        throw std::runtime_error("no export '" + printable(name.c_str()) + "': this server serves " + servedNames());
    const Export& e = g_served.list[it->second];
    out.push_back({e.name, openLocked(e)});
    return out;
}

std::string answerControl(const std::string& line) {
    std::string reply = zxblk_plugin::runControlLine(line, controlTargets, [](const zxblk_plugin::ControlTarget& t,
                                                                              size_t n) {
        std::lock_guard<std::mutex> lock(g_openMutex);
        g_prefetched[g_served.list[g_served.byName.at(t.name)].key()] = n;
    });
    nbdkit_debug("control: %s: %s", printable(line.c_str()).c_str(), reply.c_str());
    // The statistics say at once what the phase now is.
    if (!g_config.statsFile.empty() || !g_config.statsDir.empty()) g_stats.write();
    return reply;
}

void* openConnection(int) {
    const char* name = nbdkit_export_name();
    if (!name) return nullptr;  // nbdkit said why
    auto it = g_served.byName.find(name);
    if (it == g_served.byName.end()) {
        if (g_served.everyDisk)
            nbdkit_error("no export '%s' in store %s: its disks are %s (NAME@N for snapshot N)",
                         printable(name).c_str(), g_config.store.c_str(), servedNames().c_str());
        else
            nbdkit_error("no export '%s': this server serves %s of store %s", printable(name).c_str(),
                         servedNames().c_str(), g_config.store.c_str());
        return nullptr;
    }
    const Export& e = g_served.list[it->second];
    try {
        std::lock_guard<std::mutex> lock(g_openMutex);
        return new Connection{&e, openLocked(e).get()};
    } catch (const Stopping&) {
        nbdkit_debug("export %s: not opened, the server is stopping", e.name.c_str());
        return nullptr;
    } catch (const std::exception& x) {
        nbdkit_error("export %s: %s", e.name.c_str(), x.what());
        return nullptr;
    }
}

void closeConnection(void* handle) { delete static_cast<Connection*>(handle); }

Connection& conn(void* handle) { return *static_cast<Connection*>(handle); }

int64_t getSize(void* h) { return static_cast<int64_t>(conn(h).disk->size()); }
const char* exportDescription(void* h) { return conn(h).exp->description.c_str(); }
int yes(void*) { return 1; }
int no(void*) { return 0; }
int cacheNative(void*) { return NBDKIT_CACHE_NATIVE; }

// Any size and alignment is served; a client that follows the preferred
// size reads whole extents.
int blockSize(void* h, uint32_t* minimum, uint32_t* preferred, uint32_t* maximum) {
    uint64_t e = conn(h).disk->extentSize();
    bool powerOfTwo = e && !(e & (e - 1));
    *minimum = 1;
    *preferred = powerOfTwo && e >= 512 && e <= (32u << 20) ? static_cast<uint32_t>(e) : 4096;
    *maximum = 0xffffffff;
    return 0;
}

// The request fails with EIO and the library's reason as one line; nothing
// else stops.
int failed(void* h, const char* what, uint32_t count, uint64_t offset, const std::exception& e) {
    nbdkit_error("%s of %u bytes at %llu of %s failed: %s", what, count, static_cast<unsigned long long>(offset),
                 conn(h).exp->name.c_str(), e.what());
    nbdkit_set_error(EIO);
    return -1;
}

int pread(void* h, void* buf, uint32_t count, uint64_t offset, uint32_t) {
    try {
        conn(h).disk->read(offset, count, buf);
        return 0;
    } catch (const std::exception& e) {
        return failed(h, "read", count, offset, e);
    }
}

int extents(void* h, uint32_t count, uint64_t offset, uint32_t flags, struct nbdkit_extents* out) {
    try {
        for (const zxblk::Range& r : conn(h).disk->allocation(offset, count)) {
            if (nbdkit_add_extent(out, r.offset, r.length, r.data ? 0 : NBDKIT_EXTENT_HOLE | NBDKIT_EXTENT_ZERO) != 0)
                return -1;
            if (flags & NBDKIT_FLAG_REQ_ONE) break;
        }
        return 0;
    } catch (const std::exception& e) {
        return failed(h, "block status", count, offset, e);
    }
}

// Recalls the extents of the range that hold data and answers once they are
// local: a client that asks to cache and then reads finds them there. The
// extents are asked for a window at a time, so that several recall at once.
int cache(void* h, uint32_t count, uint64_t offset, uint32_t) {
    try {
        if (!count) return 0;
        zxblk::Disk& disk = *conn(h).disk;
        const uint64_t E = disk.extentSize(), last = (offset + count - 1) / E;
        const uint64_t window = 16;
        for (uint64_t first = offset / E; first <= last; first += window) {
            uint64_t end = std::min(last + 1, first + window);
            uint64_t from = first * E, to = std::min(disk.size(), end * E);
            disk.prefetch(from, to - from);
            for (const zxblk::Range& r : disk.allocation(from, to - from)) {
                if (!r.data) continue;
                for (uint64_t i = r.offset / E; i <= (r.offset + r.length - 1) / E; ++i) disk.extent(i);
            }
        }
        return 0;
    } catch (const std::exception& e) {
        return failed(h, "cache", count, offset, e);
    }
}

nbdkit_plugin makePlugin() {
    nbdkit_plugin p;
    std::memset(&p, 0, sizeof p);
    p.name = "zxblk";
    p.longname = "zxblk: the disks of a backup store, recalled as they are read";
    p.version = zxblk::version();
    p.description = "Serves disks of a zxblk store, one export per disk, recalling extents as they are read.";
#ifdef ZXBLK_SANITIZER_PRELOAD
    p.load = load;
#endif
    p.config = config;
    p.config_complete = configComplete;
    p.config_help =
        "store=DIR         (required) the zxblk store: a directory or s3://BUCKET/PREFIX\n"
        "disk=NAME[@N]     a disk to serve, snapshot N of it (repeatable; default: every disk,\n"
        "                  by export name NAME or NAME@N)\n"
        "client=VM         every disk of that client (repeatable)\n"
        "snapshot=N        the snapshot of disks named without @N, 0 the oldest (default: the newest)\n"
        "cache=DIR         the extent cache of the one disk served, or with several a folder\n"
        "                  of caches DIR/NAME-snapN (default: under ~/.cache/zxblk)\n"
        "cache-limit=SIZE  bytes each disk's cache may hold (default: a quarter of its free space)\n"
        "readahead=SIZE    largest window recalled ahead of a reader that reads in order (default 16M,\n"
        "                  0: none)\n"
        "statsfile=FILE    the one disk's statistics, rewritten each second\n"
        "statsdir=DIR      the statistics of each export, in DIR/EXPORT.stats\n"
        "allow-damaged=true\n"
        "                  serve a disk even when a snapshot it reads from is missing or damaged\n"
        "                  (the reads that need that snapshot fail)\n"
        "control=SOCKET    take mount-complete, metadata-begin, metadata-end and prefetch on this\n"
        "                  Unix socket (zxblk control), and track the disks' mount extents\n"
        "prefetch=true     recall each disk's recorded mount extents as soon as it is open";
    p.magic_config_key = "disk";
    p.get_ready = getReady;
    p.after_fork = afterFork;
    p.cleanup = cleanup;
    p.list_exports = listExports;
    p.default_export = defaultExport;
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
