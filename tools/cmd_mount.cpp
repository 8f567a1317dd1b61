// zxblk mount: the disk as one read-only file, MOUNTPOINT/disk.raw, whose
// extents are recalled on demand, and each partition of its partition table
// as MOUNTPOINT/partN; MOUNTPOINT/.control drives the mount and metadata
// phases; MOUNTPOINT/.stats tells what was recalled.
#define FUSE_USE_VERSION 35
#include <blkid.h>
#include <fcntl.h>
#include <fuse.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "framework/AutoHandles.h"
#include "host/disk_host.h"
#include "store/s3_storage.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "tools/commands.h"

namespace zxblk {
namespace {

DiskHost* g_host = nullptr;
time_t g_mountTime = 0;

const char* const kDisk = "/disk.raw";
const char* const kControl = "/.control";
const char* const kStats = "/.stats";

// A partition of the disk, presented as its own file.
struct Partition {
    std::string name;  // "part1": the number the partition table gives it
    uint64_t offset = 0, size = 0;
};
// Filled once the partition table has been read, after the mount is up.
std::mutex g_partitionsMutex;
std::vector<Partition> g_partitions;

// The range of the disk that a file presents: all of it, or a partition.
bool rangeOf(const char* path, uint64_t* offset, uint64_t* size) {
    if (std::strcmp(path, kDisk) == 0) {
        *offset = 0, *size = g_host->size();
        return true;
    }
    std::lock_guard<std::mutex> lock(g_partitionsMutex);
    for (const Partition& p : g_partitions)
        if (path[0] == '/' && p.name == path + 1) {
            *offset = p.offset, *size = p.size;
            return true;
        }
    return false;
}

int getattrOp(const char* path, struct stat* st, struct fuse_file_info*) {
    std::memset(st, 0, sizeof *st);
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_mtime = st->st_ctime = st->st_atime = g_mountTime;
    st->st_nlink = 1;
    uint64_t offset, size;
    if (std::strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0555;
        st->st_nlink = 2;
    } else if (rangeOf(path, &offset, &size)) {
        st->st_mode = S_IFREG | 0444;
        st->st_size = static_cast<off_t>(size);
        st->st_blocks = (st->st_size + 511) / 512;
    } else if (std::strcmp(path, kControl) == 0) {
        st->st_mode = S_IFREG | 0200;
    } else if (std::strcmp(path, kStats) == 0) {
        st->st_mode = S_IFREG | 0444;
        st->st_size = 4096;  // read with direct I/O: the text is as long as it is
    } else {
        return -ENOENT;
    }
    return 0;
}

int readdirOp(const char* path, void* buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info*, enum fuse_readdir_flags) {
    if (std::strcmp(path, "/") != 0) return -ENOENT;
    for (const char* name : {".", "..", kDisk + 1, kControl + 1, kStats + 1})
        fill(buf, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    std::lock_guard<std::mutex> lock(g_partitionsMutex);
    for (const Partition& p : g_partitions) fill(buf, p.name.c_str(), nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int openOp(const char* path, struct fuse_file_info* fi) {
    int mode = fi->flags & O_ACCMODE;
    uint64_t offset, size;
    if (rangeOf(path, &offset, &size)) {
        if (mode != O_RDONLY) return -EROFS;
        fi->keep_cache = 1;  // the bytes never change while mounted
        return 0;
    }
    if (std::strcmp(path, kControl) == 0) {
        if (mode == O_RDONLY) return -EACCES;
        fi->direct_io = 1;
        return 0;
    }
    if (std::strcmp(path, kStats) == 0) {
        if (mode != O_RDONLY) return -EACCES;
        fi->direct_io = 1;
        return 0;
    }
    return -ENOENT;
}

// SEEK_DATA and SEEK_HOLE from the snapshots' block tables, so that
// qemu-img map, cp --sparse and the like skip what no snapshot holds
// without recalling it. A file's end counts as a hole, as the kernel has it.
off_t lseekOp(const char* path, off_t offset, int whence, struct fuse_file_info*) {
    uint64_t start, length;
    if (!rangeOf(path, &start, &length)) return -EINVAL;
    if (whence != SEEK_DATA && whence != SEEK_HOLE) return -EINVAL;
    if (offset < 0 || static_cast<uint64_t>(offset) >= length) return -ENXIO;
    const bool wantData = whence == SEEK_DATA;
    // Asked a stretch at a time: a seek near the start of a large sparse
    // disk should not walk all of its block tables.
    const uint64_t stretch = g_host->allocationGranularity() * 1024, end = start + length;
    try {
        for (uint64_t at = start + static_cast<uint64_t>(offset); at < end;) {
            uint64_t n = std::min(stretch, end - at);
            for (const AllocatedRange& r : g_host->allocation(at, n))
                if (r.data == wantData) return static_cast<off_t>(std::max(r.offset, at) - start);
            at += n;
        }
    } catch (const std::exception& e) {
        LogSink::write(kLevelError, "zxblk mount", std::string("seek in ") + (path + 1) + " failed: " + e.what());
        return -EIO;
    }
    return wantData ? -ENXIO : static_cast<off_t>(length);
}

int readOp(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info*) {
    if (std::strcmp(path, kStats) == 0) {
        std::string text = g_host->statsText();
        {
            std::lock_guard<std::mutex> lock(g_partitionsMutex);
            text += "partitions " + std::to_string(g_partitions.size()) + "\n";
        }
        if (static_cast<size_t>(offset) >= text.size()) return 0;
        size_t n = std::min(size, text.size() - static_cast<size_t>(offset));
        std::memcpy(buf, text.data() + offset, n);
        return static_cast<int>(n);
    }
    uint64_t start, length;
    if (!rangeOf(path, &start, &length)) return -ENOENT;
    if (static_cast<uint64_t>(offset) >= length) return 0;
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, length - static_cast<uint64_t>(offset)));
    try {
        g_host->read(start + static_cast<uint64_t>(offset), n, buf);
    } catch (const std::exception& e) {
        // The reader gets EIO; the mount goes on serving everything else.
        LogSink::write(kLevelError, "zxblk mount",
                       "read of " + std::to_string(n) + " bytes at " + std::to_string(offset) + " of " + (path + 1) +
                           " failed: " + e.what());
        return -EIO;
    }
    return static_cast<int>(n);
}

int writeOp(const char* path, const char* buf, size_t size, off_t, struct fuse_file_info*) {
    if (std::strcmp(path, kControl) != 0) return -EACCES;
    std::string text(buf, size);
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string line = text.substr(start, end - start);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        start = end + 1;
        if (line.empty()) continue;
        std::string error;
        if (line == "mount-complete") {
            error = g_host->markMountComplete();
        } else if (line == "metadata-begin") {
            error = g_host->beginMetadata();
        } else if (line == "metadata-end") {
            error = g_host->endMetadata();
        } else {
            LogSink::write(kLevelError, "zxblk mount",
                           "control: unknown line '" + line + "' (mount-complete, metadata-begin or metadata-end)");
            return -EINVAL;
        }
        LogSink::write(error.empty() ? kLevelDebug : kLevelError, "zxblk mount",
                       "control: " + line + (error.empty() ? "" : ": " + error));
        if (!error.empty()) return -EIO;
    }
    return static_cast<int>(size);
}

int truncateOp(const char* path, off_t, struct fuse_file_info*) {
    return std::strcmp(path, kControl) == 0 ? 0 : -EACCES;
}

struct MountArgs {
    std::string store, disk, cache, mountpoint, logFile;
    uint64_t cacheLimit = 0;
    int snapshot = -1;
    bool foreground = false, prefetch = false, nonempty = false, dropCache = false;
    std::vector<std::string> fuseOptions;  // -o
    uint64_t flushThreshold = 64;
};

bool wants(const MountArgs& a, const std::string& option) {
    return std::find(a.fuseOptions.begin(), a.fuseOptions.end(), option) != a.fuseOptions.end();
}

// A daemon tells the process that started it how the start went: one
// message, '+' first when it serves, '-' and why not when it gave up.
void tellStarter(int& fd, char status, const std::string& text) {
    if (fd < 0) return;
    std::string message = status + text;
    bool told = ::write(fd, message.data(), message.size()) == static_cast<ssize_t>(message.size());
    (void)told;  // the starter then reports that the mount ended before it was ready
    ::close(fd);
    fd = -1;
}

// The disk's partitions, as libblkid reads its partition table (MBR with
// its logical partitions, or GPT). libblkid probes a descriptor: that of
// the running mount's disk.raw, whose reads the host serves like anyone's.
std::vector<Partition> readPartitions(const std::string& diskPath, uint64_t diskSize, std::string* table) {
    auto_handle fd(::open(diskPath.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.is_valid()) throw StoreError(diskPath + ": " + std::strerror(errno));
    std::unique_ptr<std::remove_pointer_t<blkid_probe>, void (*)(blkid_probe)> probe(blkid_new_probe(),
                                                                                     blkid_free_probe);
    if (!probe || blkid_probe_set_device(probe.get(), fd.get(), 0, 0) != 0)
        throw StoreError(diskPath + ": libblkid cannot probe it");
    blkid_probe_enable_superblocks(probe.get(), 0);
    blkid_probe_enable_partitions(probe.get(), 1);
    std::vector<Partition> parts;
    blkid_partlist list = blkid_probe_get_partitions(probe.get());
    if (!list) return parts;  // no partition table
    blkid_parttable tab = blkid_partlist_get_table(list);
    const char* type = tab ? blkid_parttable_get_type(tab) : nullptr;
    *table = !type ? "unknown" : std::strcmp(type, "dos") == 0 ? "MBR" : std::strcmp(type, "gpt") == 0 ? "GPT" : type;
    const uint64_t sectors = diskSize / 512;  // libblkid counts in 512-byte sectors whatever the disk's
    for (int i = 0, n = blkid_partlist_numof_partitions(list); i < n; ++i) {
        blkid_partition p = blkid_partlist_get_partition(list, i);
        // An extended partition only holds the logical ones, which come on their own.
        if (!p || blkid_partition_is_extended(p)) continue;
        int number = blkid_partition_get_partno(p);
        blkid_loff_t start = blkid_partition_get_start(p), size = blkid_partition_get_size(p);
        std::string name = "part" + std::to_string(number);
        bool taken = std::any_of(parts.begin(), parts.end(), [&](const Partition& q) { return q.name == name; });
        if (number <= 0 || taken || start < 0 || size <= 0 || static_cast<uint64_t>(start) > sectors ||
            static_cast<uint64_t>(size) > sectors - static_cast<uint64_t>(start)) {
            LogSink::write(kLevelError, "zxblk mount",
                           "partition " + std::to_string(number) + " (" + std::to_string(size) + " sectors at sector " +
                               std::to_string(start) + ") does not fit the disk or repeats a number; not presented");
            continue;
        }
        parts.push_back({name, static_cast<uint64_t>(start) * 512, static_cast<uint64_t>(size) * 512});
    }
    return parts;
}

// How the start of a mount ends: it runs beside the FUSE loop, which must
// serve the reads of the partition table, and reports the mount ready once
// the partitions are there, so that they are when `zxblk mount` returns.
// A table that cannot be read costs the partitions, not the mount.
struct Starter {
    std::mutex mutex;
    bool ending = false;  // the loop has returned: too late to report ready
    int* readyFd = nullptr;

    void run(const MountArgs& a, std::string banner, const std::string& ready) {
        std::string table, names;
        try {
            std::vector<Partition> parts = readPartitions(a.mountpoint + kDisk, g_host->size(), &table);
            for (const Partition& p : parts) names += (names.empty() ? "" : ", ") + p.name;
            if (!parts.empty()) LogSink::write(kLevelDebug, "zxblk mount", table + " partition table: " + names);
            std::lock_guard<std::mutex> lock(g_partitionsMutex);
            g_partitions = std::move(parts);
        } catch (const std::exception& e) {
            LogSink::write(kLevelError, "zxblk mount",
                           std::string("cannot read the partition table, so no partN files: ") + e.what());
        }
        if (!names.empty()) banner += "; " + table + " partitions " + names;
        std::lock_guard<std::mutex> lock(mutex);
        if (ending) return;
        if (*readyFd >= 0) {
            LogSink::write(0, "zxblk mount", banner + ")");
            tellStarter(*readyFd, '+', banner + ")\n" + ready);
        } else {
            std::printf("%s)\n", banner.c_str());
            std::fflush(stdout);
        }
    }
};

// FUSE lets only root mount with allow_other, unless /etc/fuse.conf has a
// line "user_allow_other".
bool fuseAllowsOther() {
    if (::geteuid() == 0) return true;
    std::ifstream conf("/etc/fuse.conf");
    std::string line;
    while (std::getline(conf, line)) {
        line.erase(0, line.find_first_not_of(" \t"));
        line.erase(line.find_last_not_of(" \t\r") + 1);
        if (line == "user_allow_other") return true;
    }
    return false;
}
const char* const kAllowOtherRefused =
    "-o allow_other: FUSE allows it to users other than root only when /etc/fuse.conf has the line user_allow_other, "
    "which it does not";

// Mounts and serves until unmounted; `readyFd` is the starter's pipe when
// running as a daemon, -1 in the foreground.
void serve(const MountArgs& a, int& readyFd) {
    // Tracking mount and metadata extents is the point of a mount: on unless
    // the configuration says otherwise.
    ZXPlatformInfo::setHostDefault("VirtualServer", "bEnableMetadataRestoreOptimization", "true");
    HostOptions options;
    options.disk = a.disk;
    options.snapshot = a.snapshot;
    options.cacheDir = a.cache;
    options.flushThreshold = a.flushThreshold;
    // A file system read in order (a copy, a scan) gets the extents ahead of it.
    options.readaheadMax = 16;
    options.cacheLimit = a.cacheLimit;
    options.mountPoint = a.mountpoint;
    options.dropCacheAtEnd = a.dropCache;
    std::unique_ptr<DiskHost> host(new DiskHost(StoreServices::open(openStorage(canonicalLocation(a.store), makeS3Connections())), options));

    if (readyFd < 0)
        for (const std::string& notice : host->notices()) std::fprintf(stderr, "zxblk: %s\n", notice.c_str());
    std::string logFile = a.logFile;
    if (logFile.empty() && readyFd >= 0) logFile = host->cacheDir() + "/mount.log";
    if (!logFile.empty() && !LogSink::setFile(logFile)) throw StoreError(logFile + ": cannot write the log there");
    // A log file of its own keeps errors and summaries unless told otherwise.
    if (!logFile.empty() && !commonOptions().logLevelSet) LogSink::setLevel(std::max(LogSink::level(), 0));
    if (a.prefetch) {
        std::vector<uint64_t> extents;
        if (host->services().index())
            for (const FlaggedExtent& r : host->services().index()->rows(a.disk, host->snapshot(), "mount")) extents.push_back(r.extent);
        LogSink::write(kLevelDebug, "zxblk mount", "prefetching " + std::to_string(extents.size()) + " mount extents");
        host->prefetch(extents);
    }
    g_host = host.get();
    g_mountTime = std::time(nullptr);

    struct fuse_operations ops;
    std::memset(&ops, 0, sizeof ops);
    ops.getattr = getattrOp;
    ops.readdir = readdirOp;
    ops.open = openOp;
    ops.read = readOp;
    ops.lseek = lseekOp;
    ops.write = writeOp;
    ops.truncate = truncateOp;
    std::string fsname = "fsname=zxblk:" + a.disk;
    std::vector<const char*> argv = {"zxblk", "-o", fsname.c_str(), "-o", "subtype=zxblk"};
    // Other users get what the file modes give them: the disk and its
    // partitions to read, the control file to its owner alone.
    if (wants(a, "allow_other")) argv.insert(argv.end(), {"-o", "allow_other,default_permissions"});
    struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), const_cast<char**>(argv.data()));
    struct fuse* fuse = fuse_new(&args, &ops, sizeof ops, nullptr);
    fuse_opt_free_args(&args);
    if (!fuse) throw StoreError("cannot start the FUSE session");
    if (fuse_mount(fuse, a.mountpoint.c_str()) != 0) {
        fuse_destroy(fuse);
        if (wants(a, "allow_other") && !fuseAllowsOther()) throw StoreError(kAllowOtherRefused);
        throw StoreError(a.mountpoint + ": cannot mount there (is /dev/fuse usable, and the directory not mounted already?)");
    }
    // A shell starts background jobs with SIGINT ignored, and libfuse leaves
    // ignored signals alone; a mount should stop on SIGINT and SIGTERM
    // however it was started.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    struct fuse_session* session = fuse_get_session(fuse);
    fuse_set_signal_handlers(session);
    std::string banner = "mounted " + a.disk + " snapshot " + std::to_string(host->snapshot()) + " at " + a.mountpoint +
                         " (disk.raw, " + std::to_string(host->size()) + " bytes; cache " + host->cacheDir();
    std::string ready = "log: " + logFile + (a.dropCache ? " (it goes with the cache)" : "") +
                        "; unmount with: fusermount3 -u " + a.mountpoint;
    for (const std::string& notice : host->notices()) ready += "\nnote: " + notice;
    if (readyFd >= 0) {
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
            if (null > 2) ::close(null);
        }
    }
    Starter starter;
    starter.readyFd = &readyFd;
    std::thread start(&Starter::run, &starter, std::cref(a), banner, ready);

    // Several threads: the partition table is read through the mount while
    // it serves, and readers of different extents are served in parallel.
    struct fuse_loop_config loop;
    std::memset(&loop, 0, sizeof loop);
    loop.max_idle_threads = 10;
    int rc = fuse_loop_mt(fuse, &loop);
    {
        std::lock_guard<std::mutex> lock(starter.mutex);
        starter.ending = true;
    }
    fuse_remove_signal_handlers(session);
    // Unmounting closes the session's device: a read of the partition table
    // still waiting for an answer then fails at once.
    fuse_unmount(fuse);
    start.join();
    fuse_destroy(fuse);
    std::string stats = host->statsText();
    for (char& c : stats)
        if (c == '\n') c = ' ';
    g_host = nullptr;
    host.reset();
    {
        std::lock_guard<std::mutex> lock(g_partitionsMutex);
        g_partitions.clear();
    }
    LogSink::write(0, "zxblk mount", "unmounted " + a.mountpoint + ": " + stats);
    if (rc != 0 && rc != SIGINT && rc != SIGTERM && rc != SIGHUP)
        throw StoreError("the FUSE session ended with an error (" + std::to_string(rc) + ")");
}

// Mounting over files hides them until the unmount, without a word of why
// they are gone.
void checkMountPoint(const MountArgs& a) {
    if (wants(a, "allow_other") && !fuseAllowsOther()) throw StoreError(kAllowOtherRefused);
    std::error_code ec;
    std::filesystem::directory_iterator entries(a.mountpoint, ec);
    if (ec) throw StoreError(a.mountpoint + ": cannot mount there: " + ec.message());
    if (a.nonempty || entries == std::filesystem::directory_iterator()) return;
    struct stat here, parent;
    struct statfs fs;
    if (::stat(a.mountpoint.c_str(), &here) == 0 && ::stat((a.mountpoint + "/..").c_str(), &parent) == 0 &&
        here.st_dev != parent.st_dev && ::statfs(a.mountpoint.c_str(), &fs) == 0 && fs.f_type == 0x65735546 /* FUSE */)
        throw StoreError(a.mountpoint + " is mounted already (fusermount3 -u " + a.mountpoint + " unmounts it)");
    throw StoreError(a.mountpoint +
                     " is not empty: its files would be hidden while mounted; use --nonempty to mount over it anyway");
}

// Starts the daemon before any thread exists (the restore service's workers
// would not survive a fork) and waits for its word on how the start went,
// so that a mount that cannot start fails in the user's terminal.
void startDaemon(const MountArgs& a) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw StoreError(std::string("cannot start the mount: ") + std::strerror(errno));
    pid_t pid = ::fork();
    if (pid < 0) throw StoreError(std::string("cannot start the mount: ") + std::strerror(errno));
    if (pid == 0) {
        ::close(fds[0]);
        ::setsid();
        int readyFd = fds[1];
        int rc = 0;
        try {
            serve(a, readyFd);
        } catch (const std::exception& e) {
            if (readyFd >= 0)
                tellStarter(readyFd, '-', e.what());
            else
                LogSink::write(kLevelError, "zxblk mount", e.what());
            rc = 1;
        }
        std::fflush(nullptr);
        std::exit(rc);
    }
    ::close(fds[1]);
    std::string reply;
    char buf[4096];
    ssize_t n;
    while ((n = ::read(fds[0], buf, sizeof buf)) > 0 || (n < 0 && errno == EINTR))
        if (n > 0) reply.append(buf, static_cast<size_t>(n));
    ::close(fds[0]);
    if (!reply.empty() && reply[0] == '+') {
        // Notes on how the disk was opened go where errors go.
        std::string out;
        size_t at = 1;
        for (size_t end; at < reply.size(); at = end + 1) {
            end = reply.find('\n', at);
            if (end == std::string::npos) end = reply.size();
            std::string line = reply.substr(at, end - at);
            if (line.compare(0, 6, "note: ") == 0)
                std::fprintf(stderr, "zxblk: %s\n", line.substr(6).c_str());
            else
                out += line + "\n";
        }
        std::printf("%s", out.c_str());
        return;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    throw StoreError(reply.empty() ? "the mount process ended before it was ready" : reply.substr(1));
}

}  // namespace

void addPresentedDiskOptions(CLI::App* cmd, std::string& store, std::string& disk, int& snapshot, std::string& cache,
                             uint64_t& cacheLimit) {
    addStoreOption(cmd, store);
    cmd->add_option("--disk", disk, "disk name")->required();
    addNumberOption(cmd, "--snapshot", snapshot, "snapshot number, 0 the oldest (default: the newest)", 0);
    cmd->add_option("--cache", cache, "extent cache directory (default: under ~/.cache/zxblk)");
    addSizeOption(cmd, "--cache-limit", cacheLimit,
                  "largest size of the extent cache, e.g. 2G or 256K (default: a quarter of the space it may use)", 1);
}

void registerMountCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand(
        "mount", "present the disk as MOUNTPOINT/disk.raw (its partitions as partN), recalling extents on demand");
    static MountArgs a;
    addPresentedDiskOptions(cmd, a.store, a.disk, a.snapshot, a.cache, a.cacheLimit);
    addNumberOption<uint64_t>(cmd, "--flush-threshold", a.flushThreshold,
                              "metadata extents gathered before they are sent to the index", 1, 1 << 20)
        ->capture_default_str();
    cmd->add_option("--log-file", a.logFile, "write the log here (default: standard error, or CACHE/mount.log as a daemon)");
    cmd->add_flag("-f,--foreground", a.foreground, "stay in the foreground");
    cmd->add_flag("--prefetch", a.prefetch, "recall the extents the index flags as mount extents, in the background");
    cmd->add_option("-o", a.fuseOptions,
                    "mount options, separated by commas: allow_other (other users may read the disk)")
        ->type_name("OPTION[,OPTION...]")
        ->delimiter(',')
        ->check(CLI::Validator(
            [](std::string& option) {
                return option == "allow_other"
                           ? std::string()
                           : "unknown mount option '" + option + "' (zxblk mount -o takes allow_other)";
            },
            ""));
    cmd->add_flag("--nonempty", a.nonempty, "mount over a directory that holds files, hiding them while mounted");
    cmd->add_flag("--drop-cache", a.dropCache, "remove the extent cache (and the log in it) when the mount ends");
    cmd->add_option("mountpoint", a.mountpoint, "an empty directory (see --nonempty)")
        ->required()
        ->check(CLI::ExistingDirectory);
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        // A running mount serves from "/": every path it keeps is absolute.
        for (std::string* p : {&a.cache, &a.mountpoint, &a.logFile}) {
            if (p->empty()) continue;
            *p = std::filesystem::absolute(*p).lexically_normal().string();
            while (p->size() > 1 && p->back() == '/') p->pop_back();
        }
        checkMountPoint(a);
        if (a.foreground) {
            int noStarter = -1;
            serve(a, noStarter);
        } else {
            startDaemon(a);
        }
    });
}

}  // namespace zxblk
