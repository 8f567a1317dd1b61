// zxblk mount: a disk, or every disk of a virtual machine, as read-only
// files whose extents are recalled on demand (see mount_fs.h for the
// layout); the command returns once the mount is up and its partitions
// are there, leaving a daemon behind, or serves in the foreground.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "commands.h"
#include "mount_fs.h"
#include "presented.h"

namespace zxblk {
namespace {

const char* const kSource = "zxblk mount";

struct MountArgs {
    PresentedOptions disks;
    std::string mountpoint, logFile;
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

// How the start of a mount ends: it runs beside the FUSE loop, which must
// serve the reads of the partition tables, and reports the mount ready once
// the partitions are there, so that they are when `zxblk mount` returns.
// A table that cannot be read costs that disk's partitions, not the mount.
struct Starter {
    std::mutex mutex;
    bool ending = false;  // the loop has returned: too late to report ready
    int* readyFd = nullptr;

    void run(Mounted* m, const std::string& mountpoint, std::vector<std::string> banners, const std::string& ready) {
        for (size_t i = 0; i < m->disks.size(); ++i) {
            std::string partitions;
            try {
                partitions = presentPartitions(*m->disks[i], mountpoint);
            } catch (const std::exception& e) {
                logLine(-1, kSource, m->disks[i]->name + ": cannot read the partition table, so no partN files: " + e.what());
            }
            banners[i] += (partitions.empty() ? "" : "; " + partitions) + ")";
        }
        std::string text;
        for (const std::string& b : banners) text += b + "\n";
        std::lock_guard<std::mutex> lock(mutex);
        if (ending) return;
        if (*readyFd >= 0) {
            for (const std::string& b : banners) logLine(0, kSource, b);
            tellStarter(*readyFd, '+', text + ready);
        } else {
            std::printf("%s", text.c_str());
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

// Opens every disk the options name. A mount of one disk named with
// --disk shows it at the top; any other mount a folder per disk.
void openDisks(const MountArgs& a, Mounted& m) {
    Store store = Store::open(a.disks.store);
    std::vector<PresentedDisk> list = presentedDisks(store, a.disks);
    m.folders = !a.disks.clients.empty() || list.size() > 1;
    for (const PresentedDisk& p : list) {
        // A disk's folder cannot be the control file beside it.
        if (m.folders && p.name == ".control")
            throw Error("disk .control cannot have a folder of that name beside the mount's .control; mount it "
                        "alone with --disk .control",
                        ErrorKind::invalidArgument);
        DiskOptions o;
        o.snapshot = p.snapshot;
        o.cacheDir = p.cacheDir;
        o.cacheLimit = a.disks.cacheLimit;
        // A file system read in order (a copy, a scan) gets the extents ahead of it.
        o.readahead = a.disks.readahead;
        // Tracking mount and metadata extents is the point of a mount.
        o.trackExtents = true;
        o.flushThreshold = a.flushThreshold;
        o.mountPoint = a.mountpoint + (m.folders ? "/" + p.name : std::string());
        o.dropCacheAtEnd = a.dropCache;
        o.allowDamaged = a.disks.allowDamaged;
        m.disks.push_back(std::make_unique<MountedDisk>(p.name, m.folders ? "/" + p.name : std::string(),
                                                        store.openDisk(p.name, o)));
    }
}

// Mounts and serves until unmounted; `readyFd` is the starter's pipe when
// running as a daemon, -1 in the foreground.
void serve(const MountArgs& a, int& readyFd) {
    Mounted m;
    openDisks(a, m);
    std::vector<std::string> notices;
    for (const auto& d : m.disks)
        for (const std::string& n : d->disk.notices()) notices.push_back(n);
    if (readyFd < 0) sayNotices(notices);
    // A daemon's log goes with the (first) disk's cache.
    std::string logFile = a.logFile;
    if (logFile.empty() && readyFd >= 0) logFile = m.disks.front()->disk.cacheDir() + "/mount.log";
    if (!logFile.empty()) {
        setLogFile(logFile);
        // A log file of its own keeps errors and summaries unless told otherwise.
        if (!commonOptions().logLevelSet) setLogLevel(std::max(logLevel(), 0));
    }
    if (a.prefetch)
        for (const auto& d : m.disks)
            logLine(1, kSource, d->name + ": prefetching " + std::to_string(d->disk.prefetchMountExtents()) + " mount extents");
    m.mountTime = std::time(nullptr);

    struct fuse_operations ops = mountOperations();
    // Commas would end the option: "zxblk:web01-sys+web01-data".
    std::string names;
    for (const auto& d : m.disks) names += (names.empty() ? "" : "+") + d->name;
    std::string fsname = "fsname=zxblk:" + names;
    std::vector<const char*> argv = {"zxblk", "-o", fsname.c_str(), "-o", "subtype=zxblk"};
    // Other users get what the file modes give them: the disks and their
    // partitions to read, the control files to their owner alone.
    if (wants(a, "allow_other")) argv.insert(argv.end(), {"-o", "allow_other,default_permissions"});
    struct fuse_args args = FUSE_ARGS_INIT(static_cast<int>(argv.size()), const_cast<char**>(argv.data()));
    struct fuse* fuse = fuse_new(&args, &ops, sizeof ops, &m);
    fuse_opt_free_args(&args);
    if (!fuse) throw Error("cannot start the FUSE session", ErrorKind::unavailable);
    if (fuse_mount(fuse, a.mountpoint.c_str()) != 0) {
        fuse_destroy(fuse);
        if (wants(a, "allow_other") && !fuseAllowsOther()) throw Error(kAllowOtherRefused, ErrorKind::invalidArgument);
        throw Error(a.mountpoint + ": cannot mount there (is /dev/fuse usable, and the directory not mounted already?)",
                    ErrorKind::unavailable);
    }
    // A shell starts background jobs with SIGINT ignored, and libfuse leaves
    // ignored signals alone; a mount should stop on SIGINT and SIGTERM
    // however it was started.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    struct fuse_session* session = fuse_get_session(fuse);
    fuse_set_signal_handlers(session);
    std::vector<std::string> banners;
    for (const auto& d : m.disks)
        banners.push_back("mounted " + d->name + " snapshot " + std::to_string(d->disk.snapshot()) + " at " +
                          a.mountpoint + d->folder + " (disk.raw, " + std::to_string(d->disk.size()) + " bytes; cache " +
                          d->disk.cacheDir());
    std::string ready = "log: " + logFile + (a.dropCache && a.logFile.empty() ? " (it goes with the cache)" : "") +
                        "; unmount with: fusermount3 -u " + a.mountpoint;
    for (const std::string& notice : notices) ready += "\nnote: " + notice;
    if (readyFd >= 0) {
        int null = ::open("/dev/null", O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0), ::dup2(null, 1), ::dup2(null, 2);
            if (null > 2) ::close(null);
        }
    }
    Starter starter;
    starter.readyFd = &readyFd;
    std::thread start(&Starter::run, &starter, &m, std::cref(a.mountpoint), banners, ready);

    // Several threads: the partition tables are read through the mount
    // while it serves, and readers of different extents are served in
    // parallel.
    struct fuse_loop_config loop;
    std::memset(&loop, 0, sizeof loop);
    loop.max_idle_threads = 10;
    int rc = fuse_loop_mt(fuse, &loop);
    {
        std::lock_guard<std::mutex> lock(starter.mutex);
        starter.ending = true;
    }
    fuse_remove_signal_handlers(session);
    // Unmounting closes the session's device: a read of a partition table
    // still waiting for an answer then fails at once.
    fuse_unmount(fuse);
    start.join();
    fuse_destroy(fuse);
    std::vector<std::string> ends;
    for (const auto& d : m.disks) {
        std::string stats;
        try {
            stats = d->disk.statsText();
        } catch (const std::exception& e) {
            stats = e.what();
        }
        std::replace(stats.begin(), stats.end(), '\n', ' ');
        ends.push_back("unmounted " + a.mountpoint + d->folder + ": " + stats);
    }
    // The disks close (and drop their caches, with --drop-cache) before the
    // log says the mount has ended.
    m.disks.clear();
    for (const std::string& line : ends) logLine(0, kSource, line);
    if (rc != 0 && rc != SIGINT && rc != SIGTERM && rc != SIGHUP)
        throw Error("the FUSE session ended with an error (" + std::to_string(rc) + ")", ErrorKind::io);
}

// Mounting over files hides them until the unmount, without a word of why
// they are gone.
void checkMountPoint(const MountArgs& a) {
    if (wants(a, "allow_other") && !fuseAllowsOther()) throw Error(kAllowOtherRefused, ErrorKind::invalidArgument);
    std::error_code ec;
    std::filesystem::directory_iterator entries(a.mountpoint, ec);
    if (ec) throw Error(a.mountpoint + ": cannot mount there: " + ec.message(), ErrorKind::io);
    if (a.nonempty || entries == std::filesystem::directory_iterator()) return;
    struct stat here, parent;
    struct statfs fs;
    if (::stat(a.mountpoint.c_str(), &here) == 0 && ::stat((a.mountpoint + "/..").c_str(), &parent) == 0 &&
        here.st_dev != parent.st_dev && ::statfs(a.mountpoint.c_str(), &fs) == 0 && fs.f_type == 0x65735546 /* FUSE */)
        throw Error(a.mountpoint + " is mounted already (fusermount3 -u " + a.mountpoint + " unmounts it)", ErrorKind::busy);
    throw Error(a.mountpoint + " is not empty: its files would be hidden while mounted; use --nonempty to mount over it anyway",
                ErrorKind::invalidArgument);
}

// Starts the daemon before any thread exists (the restore service's workers
// would not survive a fork) and waits for its word on how the start went,
// so that a mount that cannot start fails in the user's terminal.
void startDaemon(const MountArgs& a) {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0)
        throw Error(std::string("cannot start the mount: ") + std::strerror(errno), ErrorKind::unavailable);
    pid_t pid = ::fork();
    if (pid < 0) throw Error(std::string("cannot start the mount: ") + std::strerror(errno), ErrorKind::unavailable);
    if (pid == 0) {
        ::close(fds[0]);
        ::setsid();
        int readyFd = fds[1];
        int rc = 0;
        try {
            serve(a, readyFd);
        } catch (const std::exception& e) {
            if (readyFd >= 0)
                tellStarter(readyFd, '-', failureLine(e));
            else
                logLine(-1, kSource, failureLine(e));
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
        // Notes on how the disks were opened go where errors go.
        std::string out;
        std::vector<std::string> notices;
        size_t at = 1;
        for (size_t end; at < reply.size(); at = end + 1) {
            end = reply.find('\n', at);
            if (end == std::string::npos) end = reply.size();
            std::string line = reply.substr(at, end - at);
            if (line.compare(0, 6, "note: ") == 0)
                notices.push_back(line.substr(6));
            else
                out += line + "\n";
        }
        sayNotices(notices);
        std::printf("%s", out.c_str());
        return;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    throw Error(reply.empty() ? "the mount process ended before it was ready" : reply.substr(1), ErrorKind::unavailable);
}

}  // namespace

void registerMountCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("mount",
                                   "present a disk as MOUNTPOINT/disk.raw (its partitions as partN), or every disk of "
                                   "a client as MOUNTPOINT/DISK/disk.raw, recalling extents on demand");
    static MountArgs a;
    addPresentedOptions(cmd, a.disks);
    addNumberOption<uint64_t>(cmd, "--flush-threshold", a.flushThreshold,
                              "metadata extents gathered before they are sent to the index", 1, 1 << 20)
        ->capture_default_str();
    cmd->add_option("--log-file", a.logFile,
                    "write the log here (default: standard error, or CACHE/mount.log of the first disk as a daemon)");
    cmd->add_flag("-f,--foreground", a.foreground, "stay in the foreground");
    cmd->add_flag("--prefetch", a.prefetch, "recall the extents the index flags as mount extents, in the background");
    cmd->add_option("-o", a.fuseOptions,
                    "mount options, separated by commas: allow_other (other users may read the disks)")
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
    cmd->add_flag("--drop-cache", a.dropCache, "remove the extent caches (and the log in them) when the mount ends");
    cmd->add_option("mountpoint", a.mountpoint, "an empty directory (see --nonempty)")
        ->required()
        ->check(CLI::ExistingDirectory);
    cmd->footer("With one --disk the mount point holds disk.raw, partN, .control and .stats. With --client (or "
                "several --disk) it holds a folder per disk, each with the same files, and a .control whose lines "
                "go to every disk.");
    addCommonOptions(cmd);
    cmd->callback([] {
        requirePresented(a.disks);
        applyCommonOptions();
        // A running mount serves from "/": every path it keeps is absolute.
        for (std::string* p : {&a.disks.cache, &a.mountpoint, &a.logFile}) *p = absolutePath(*p);
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
