// zxblk mount: the disk as one read-only file, MOUNTPOINT/disk.raw, whose
// extents are recalled on demand; MOUNTPOINT/.control drives the mount and
// metadata phases; MOUNTPOINT/.stats tells what was recalled.
#define FUSE_USE_VERSION 35
#include <fcntl.h>
#include <fuse.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <csignal>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>

#include "host/disk_host.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "tools/commands.h"

namespace zxblk {
namespace {

DiskHost* g_host = nullptr;

const char* const kDisk = "/disk.raw";
const char* const kControl = "/.control";
const char* const kStats = "/.stats";

int getattrOp(const char* path, struct stat* st, struct fuse_file_info*) {
    std::memset(st, 0, sizeof *st);
    st->st_uid = getuid();
    st->st_gid = getgid();
    st->st_mtime = st->st_ctime = st->st_atime = time(nullptr);
    if (std::strcmp(path, "/") == 0) {
        st->st_mode = S_IFDIR | 0555;
        st->st_nlink = 2;
    } else if (std::strcmp(path, kDisk) == 0) {
        st->st_mode = S_IFREG | 0444;
        st->st_nlink = 1;
        st->st_size = static_cast<off_t>(g_host->size());
    } else if (std::strcmp(path, kControl) == 0) {
        st->st_mode = S_IFREG | 0200;
        st->st_nlink = 1;
    } else if (std::strcmp(path, kStats) == 0) {
        st->st_mode = S_IFREG | 0444;
        st->st_nlink = 1;
        st->st_size = 4096;  // read with direct I/O: the text is as long as it is
    } else {
        return -ENOENT;
    }
    return 0;
}

int readdirOp(const char* path, void* buf, fuse_fill_dir_t fill, off_t, struct fuse_file_info*, enum fuse_readdir_flags) {
    if (std::strcmp(path, "/") != 0) return -ENOENT;
    fill(buf, ".", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    fill(buf, "..", nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    for (const char* name : {kDisk + 1, kControl + 1, kStats + 1}) fill(buf, name, nullptr, 0, static_cast<fuse_fill_dir_flags>(0));
    return 0;
}

int openOp(const char* path, struct fuse_file_info* fi) {
    int mode = fi->flags & O_ACCMODE;
    if (std::strcmp(path, kDisk) == 0) {
        if (mode != O_RDONLY) return -EROFS;
        fi->keep_cache = 1;
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

int readOp(const char* path, char* buf, size_t size, off_t offset, struct fuse_file_info*) {
    if (std::strcmp(path, kStats) == 0) {
        std::string text = g_host->statsText();
        if (static_cast<size_t>(offset) >= text.size()) return 0;
        size_t n = std::min(size, text.size() - static_cast<size_t>(offset));
        std::memcpy(buf, text.data() + offset, n);
        return static_cast<int>(n);
    }
    if (std::strcmp(path, kDisk) != 0) return -ENOENT;
    if (static_cast<uint64_t>(offset) >= g_host->size()) return 0;
    size_t n = static_cast<size_t>(std::min<uint64_t>(size, g_host->size() - static_cast<uint64_t>(offset)));
    try {
        g_host->read(static_cast<uint64_t>(offset), n, buf);
    } catch (const std::exception& e) {
        // The reader gets EIO; the mount goes on serving everything else.
        LogSink::write(kLevelError, "zxblk mount", std::string("read of ") + std::to_string(n) + " bytes at " +
                                                       std::to_string(offset) + " failed: " + e.what());
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
        if (line == "mount-complete")
            error = g_host->markMountComplete();
        else if (line == "metadata-begin")
            error = g_host->beginMetadata();
        else if (line == "metadata-end")
            error = g_host->endMetadata();
        else
            return -EINVAL;
        LogSink::write(error.empty() ? 1 : kLevelError, "zxblk mount", line + (error.empty() ? "" : ": " + error));
        if (!error.empty()) return -EIO;
    }
    return static_cast<int>(size);
}

int truncateOp(const char* path, off_t, struct fuse_file_info*) {
    return std::strcmp(path, kControl) == 0 ? 0 : -EACCES;
}

unsigned long long parseSize(const std::string& text) {
    char* end = nullptr;
    double v = std::strtod(text.c_str(), &end);
    std::string unit = end ? end : "";
    unsigned long long mul = unit.empty() ? 1 : unit == "K" || unit == "KiB" ? 1ULL << 10 : unit == "M" || unit == "MiB" ? 1ULL << 20
                                              : unit == "G" || unit == "GiB" ? 1ULL << 30 : 0;
    if (end == text.c_str() || v < 0 || mul == 0) throw StoreError("cache limit '" + text + "': a size such as 4G, 512M or bytes");
    return static_cast<unsigned long long>(v * static_cast<double>(mul));
}

}  // namespace

void registerMountCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("mount", "present the disk as MOUNTPOINT/disk.raw, recalling extents on demand");
    static std::string store, disk, cache, limit, mountpoint;
    static int snapshot = -1;
    static bool foreground = false, prefetch = false;
    static uint64_t flushThreshold = 64;
    cmd->add_option("--store", store, "store directory")->required()->check(CLI::ExistingDirectory);
    cmd->add_option("--disk", disk, "disk name")->required();
    cmd->add_option("--snapshot", snapshot, "snapshot number (default: the newest)");
    cmd->add_option("--cache", cache, "extent cache directory (default: under ~/.cache/zxblk)");
    cmd->add_option("--cache-limit", limit, "largest size of the extent cache, e.g. 2G (default: a quarter of the free space)");
    cmd->add_option("--flush-threshold", flushThreshold, "metadata extents gathered before they are sent to the index")
        ->capture_default_str();
    cmd->add_flag("-f,--foreground", foreground, "stay in the foreground");
    cmd->add_flag("--prefetch", prefetch, "recall the extents the index flags as mount extents, in the background");
    cmd->add_option("mountpoint", mountpoint, "an empty directory")->required()->check(CLI::ExistingDirectory);
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        // Extent tracking is the point of a mount: switch it on unless the
        // user gave a configuration of their own.
        if (commonOptions().config.empty() && !std::getenv("ZXBLK_CONFIG")) {
            static std::string ini = "/tmp/zxblk-mount-" + std::to_string(getpid()) + ".ini";
            std::ofstream(ini) << "[VirtualServer]\nbEnableMetadataRestoreOptimization=true\n";
            setenv("ZXBLK_CONFIG", ini.c_str(), 1);
            ZXPlatformInfo::ReloadForTests();
        }
        HostOptions options;
        options.storeDir = store;
        options.disk = disk;
        options.snapshot = snapshot;
        options.cacheDir = cache;
        options.flushThreshold = flushThreshold;
        if (!limit.empty()) options.cacheLimit = parseSize(limit);
        std::string cacheDir = cache.empty() ? "" : cache;
        std::unique_ptr<DiskHost> host(new DiskHost(options));
        unlink(std::getenv("ZXBLK_CONFIG"));
        if (limit.empty()) {
            struct statvfs fs;
            unsigned long long share = statvfs(host->cacheDir().c_str(), &fs) == 0 ? fs.f_bavail * fs.f_frsize / 4 : 0;
            host->cache().setCapacity(std::max<unsigned long long>(share, 8ULL * static_cast<unsigned long long>(host->extentSize())));
        }
        // One mount per cache: a second would race the first over its files.
        int lockFd = ::open((host->cacheDir() + "/mount.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (lockFd < 0 || ::flock(lockFd, LOCK_EX | LOCK_NB) != 0)
            throw StoreError("the extent cache " + host->cacheDir() + " is in use by another zxblk mount");
        if (prefetch && host->services().index()) {
            std::vector<uint64_t> extents;
            for (const IndexRow& r : host->services().index()->rows(disk, host->snapshot(), "mount")) extents.push_back(r.extent);
            LogSink::write(1, "zxblk mount", "prefetching " + std::to_string(extents.size()) + " mount extents");
            host->prefetch(extents);
        }
        g_host = host.get();

        struct fuse_operations ops;
        std::memset(&ops, 0, sizeof ops);
        ops.getattr = getattrOp;
        ops.readdir = readdirOp;
        ops.open = openOp;
        ops.read = readOp;
        ops.write = writeOp;
        ops.truncate = truncateOp;
        std::string fsname = "fsname=zxblk:" + disk;
        std::vector<const char*> argv = {"zxblk", "-o", fsname.c_str(), "-o", "subtype=zxblk"};
        struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), const_cast<char**>(argv.data()));
        struct fuse* fuse = fuse_new(&args, &ops, sizeof ops, nullptr);
        fuse_opt_free_args(&args);
        if (!fuse) throw StoreError("cannot start the FUSE session");
        if (fuse_mount(fuse, mountpoint.c_str()) != 0) {
            fuse_destroy(fuse);
            throw StoreError(mountpoint + ": cannot mount (is /dev/fuse there, and the directory not in use?)");
        }
        std::printf("mounted %s snapshot %d at %s (disk.raw, %llu bytes; cache %s)\n", disk.c_str(), host->snapshot(),
                    mountpoint.c_str(), static_cast<unsigned long long>(host->size()), host->cacheDir().c_str());
        std::fflush(stdout);
        if (fuse_daemonize(foreground ? 1 : 0) != 0) {
            fuse_unmount(fuse);
            fuse_destroy(fuse);
            throw StoreError("cannot go into the background");
        }
        struct fuse_session* session = fuse_get_session(fuse);
        fuse_set_signal_handlers(session);
        struct fuse_loop_config loop;
        std::memset(&loop, 0, sizeof loop);
        loop.clone_fd = 0;
        loop.max_idle_threads = 10;
        int rc = fuse_loop_mt(fuse, &loop);
        fuse_remove_signal_handlers(session);
        fuse_unmount(fuse);
        fuse_destroy(fuse);
        std::string stats = host->statsText();
        for (char& c : stats)
            if (c == '\n') c = ' ';
        g_host = nullptr;
        host.reset();
        LogSink::write(1, "zxblk mount", "unmounted " + mountpoint + ": " + stats);
        ::close(lockFd);
        if (rc != 0 && rc != SIGINT && rc != SIGTERM) throw StoreError("the FUSE session ended with an error");
    });
}

}  // namespace zxblk
