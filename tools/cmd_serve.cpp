// zxblk serve: one snapshot of one disk over NBD, through nbdkit and the
// zxblk plugin. This process opens the listening socket itself (so that a
// Unix socket is 0600 from the start, a port taken or a bad address is told
// at once, and --port 0 can say which port it got) and hands it to nbdkit by
// socket activation; it waits until nbdkit is ready, prints the URI, and then
// runs a command against it, stays in the foreground or leaves a supervisor
// behind that removes the socket when nbdkit ends.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "host/disk_host.h"
#include "store/store_error.h"
#include "tools/commands.h"
#include "zxblk/zxblk.h"

extern char** environ;

namespace zxblk {
namespace {

struct ServeArgs {
    std::string store, disk, cache, socketPath, bind = "127.0.0.1", tlsPsk, run, statsFile, logFile;
    int snapshot = -1;
    uint64_t cacheLimit = 0;
    int port = -1;
    bool writable = false, foreground = false;
};

std::string errnoText(const std::string& what) { return what + ": " + std::strerror(errno); }

bool isFile(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The plugin beside an installed zxblk, else the one of the build tree this
// zxblk comes from; ZXBLK_NBDKIT_PLUGIN names another.
std::string findPlugin() {
    if (const char* env = std::getenv("ZXBLK_NBDKIT_PLUGIN")) {
        if (!isFile(env)) throw StoreError(std::string("ZXBLK_NBDKIT_PLUGIN=") + env + ": no such file");
        return env;
    }
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    std::string installed = (self.parent_path() / ZXBLK_PLUGIN_FROM_BIN).lexically_normal().string();
    if (!ec && isFile(installed)) return installed;
    if (isFile(ZXBLK_PLUGIN_BUILD_PATH)) return ZXBLK_PLUGIN_BUILD_PATH;
    throw StoreError("cannot find nbdkit-zxblk-plugin.so (looked at " + installed +
                     "; set ZXBLK_NBDKIT_PLUGIN to where it is)");
}

std::string findNbdkit() {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (size_t at = 0; at <= dirs.size();) {
        size_t end = dirs.find(':', at);
        if (end == std::string::npos) end = dirs.size();
        std::string candidate = (end > at ? dirs.substr(at, end - at) : ".") + "/nbdkit";
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        at = end + 1;
    }
    throw StoreError("nbdkit is not installed (apt-get install nbdkit)");
}

// The user name of the first key of a PSK file ("name:hexkey" lines), for
// the URI: a client offers the name its URI gives.
std::string pskUser(const std::string& file) {
    std::ifstream in(file);
    if (!in) throw StoreError(errnoText("--tls-psk " + file));
    std::string line;
    std::getline(in, line);
    size_t colon = line.find(':');
    if (colon == 0 || colon == std::string::npos || colon + 1 == line.size() ||
        line.find_first_not_of("0123456789abcdefABCDEF", colon + 1) != std::string::npos)
        throw StoreError("--tls-psk " + file + ": not a PSK file (its first line should be USERNAME:HEXKEY)");
    return line.substr(0, colon);
}

// Percent-encodes what a URI query may not hold as it is.
std::string uriEscape(const std::string& s) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : s) {
        if (std::isalnum(c) || std::strchr("/-._~", c))
            out += static_cast<char>(c);
        else
            out += '%', out += hex[c >> 4], out += hex[c & 15];
    }
    return out;
}

struct Listener {
    int fd = -1;
    std::string uri, socketPath, privateDir;
    int port = 0;
};

// A Unix socket at `path`, mode 0600. A socket file nobody listens on any
// more (a server that was killed) is replaced; anything else is refused.
void listenUnix(const std::string& path, Listener& l) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        throw StoreError("--socket " + path + ": too long for a Unix socket (at most " +
                         std::to_string(sizeof addr.sun_path - 1) + " bytes)");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) throw StoreError("--socket " + path + ": exists and is not a socket");
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (probe >= 0) ::close(probe);
        if (live) throw StoreError("--socket " + path + ": another server is listening there");
        ::unlink(path.c_str());
    }
    l.fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (l.fd < 0) throw StoreError(errnoText("socket"));
    mode_t old = ::umask(0177);
    int rc = ::bind(l.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::umask(old);
    if (rc != 0) throw StoreError(errnoText("--socket " + path));
    l.socketPath = path;
}

bool isLoopback(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr) >> 24) == 127;
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(a).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) ||
           (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

bool isWildcard(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET) return reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr == htonl(INADDR_ANY);
    return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6&>(a).sin6_addr);
}

void listenTcp(const ServeArgs& a, Listener& l) {
    sockaddr_storage addr{};
    socklen_t len;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
    if (inet_pton(AF_INET, a.bind.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(a.port));
        len = sizeof *v4;
    } else if (inet_pton(AF_INET6, a.bind.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(a.port));
        len = sizeof *v6;
    } else {
        throw StoreError("--bind " + a.bind + ": not an IPv4 or IPv6 address");
    }
    // Anyone who reaches the port could read the disk, and write the overlay.
    if (!isLoopback(addr) && a.tlsPsk.empty())
        throw StoreError("refusing to serve on " + a.bind +
                         " without TLS: anyone who can reach it could read the disk; give --tls-psk FILE, or "
                         "--bind 127.0.0.1");
    l.fd = ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (l.fd < 0) throw StoreError(errnoText("socket"));
    int one = 1;
    ::setsockopt(l.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(l.fd, reinterpret_cast<sockaddr*>(&addr), len) != 0)
        throw StoreError(errnoText("cannot listen on " + a.bind + " port " + std::to_string(a.port)));
    sockaddr_storage got{};
    socklen_t gotLen = sizeof got;
    ::getsockname(l.fd, reinterpret_cast<sockaddr*>(&got), &gotLen);
    l.port = ntohs(got.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(got).sin_port
                                            : reinterpret_cast<sockaddr_in6&>(got).sin6_port);
    // A wildcard address is reached here through loopback.
    std::string host = isWildcard(addr) ? (addr.ss_family == AF_INET ? "127.0.0.1" : "::1") : a.bind;
    if (addr.ss_family == AF_INET6) host = "[" + host + "]";
    l.uri = host + ":" + std::to_string(l.port);
}

Listener openListener(const ServeArgs& a, const std::string& user) {
    Listener l;
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string dir = std::string(runtime && *runtime ? runtime : "/tmp") + "/zxblk-serve-XXXXXX";
    if (!::mkdtemp(&dir[0])) throw StoreError(errnoText("cannot make a folder for the server under " + dir));
    l.privateDir = dir;
    try {
        if (a.port >= 0) {
            listenTcp(a, l);
            l.uri = (a.tlsPsk.empty() ? "nbd://" : "nbds://" + uriEscape(user) + "@") + l.uri + "/";
        } else {
            listenUnix(a.socketPath.empty() ? dir + "/nbd.sock" : a.socketPath, l);
            l.uri = std::string(a.tlsPsk.empty() ? "nbd+unix://" : "nbds+unix://" + uriEscape(user) + "@") +
                    "/?socket=" + uriEscape(l.socketPath);
        }
        if (!a.tlsPsk.empty()) l.uri += std::string(a.port >= 0 ? "?" : "&") + "tls-psk-file=" + uriEscape(a.tlsPsk);
        if (::listen(l.fd, SOMAXCONN) != 0) throw StoreError(errnoText("listen"));
    } catch (...) {
        if (l.fd >= 0) ::close(l.fd);
        if (!l.socketPath.empty()) ::unlink(l.socketPath.c_str());
        std::filesystem::remove_all(dir);
        throw;
    }
    return l;
}

void removeListener(const Listener& l) {
    if (!l.socketPath.empty()) ::unlink(l.socketPath.c_str());
    std::error_code ec;
    std::filesystem::remove_all(l.privateDir, ec);
}

std::vector<std::string> nbdkitArgs(const ServeArgs& a, const Listener& l) {
    std::vector<std::string> args = {findNbdkit(), "--exit-with-parent", "--log=stderr", "-P", l.privateDir + "/pid"};
    if (commonOptions().verbosity >= 2) args.push_back("--verbose");
    if (a.writable)
        args.push_back("--filter=cow");  // writes go to an overlay nbdkit discards at its end
    else
        args.push_back("--readonly");
    if (!a.tlsPsk.empty()) {
        args.push_back("--tls=require");
        args.push_back("--tls-psk=" + a.tlsPsk);
    }
    args.push_back(findPlugin());
    args.push_back("store=" + a.store);
    args.push_back("disk=" + a.disk);
    if (a.snapshot >= 0) args.push_back("snapshot=" + std::to_string(a.snapshot));
    if (!a.cache.empty()) args.push_back("cache=" + a.cache);
    if (a.cacheLimit) args.push_back("cache-limit=" + std::to_string(a.cacheLimit));
    if (!a.statsFile.empty()) args.push_back("statsfile=" + a.statsFile);
    return args;
}

// nbdkit, handed the listening socket as descriptor 3.
pid_t startNbdkit(const std::vector<std::string>& args, const Listener& l, int stderrFd) {
    pid_t pid = ::fork();
    if (pid < 0) throw StoreError(errnoText("cannot start nbdkit"));
    if (pid > 0) return pid;
    if (stderrFd >= 0) ::dup2(stderrFd, 2);
    // dup2 clears close-on-exec, except when the socket is already 3.
    if (l.fd == 3 ? ::fcntl(3, F_SETFD, 0) < 0 : ::dup2(l.fd, 3) < 0) _exit(127);
    ::setenv("LISTEN_FDS", "1", 1);
    ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
#ifdef ZXBLK_SANITIZER_PRELOAD
    // A sanitized plugin loads only into a process that has its runtime.
    // nbdkit's own allocations at exit are not ours to report: the leak
    // check of the library is the sanitized tests' and programs' own.
    ::setenv("LD_PRELOAD", ZXBLK_SANITIZER_PRELOAD, 1);
    const char* asan = std::getenv("ASAN_OPTIONS");
    ::setenv("ASAN_OPTIONS", (std::string(asan ? asan : "") + ":detect_leaks=0").c_str(), 1);
#endif
    std::vector<char*> argv;
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    std::fprintf(stderr, "zxblk: cannot run %s: %s\n", argv[0], std::strerror(errno));
    _exit(127);
}

std::string statusText(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

pid_t g_child = 0;
volatile sig_atomic_t g_stopAsked = 0;
void forward(int sig) {
    g_stopAsked = 1;
    if (g_child > 0) ::kill(g_child, sig);
}

// Once nbdkit has been asked to stop, it gets this long before SIGKILL: a
// server that hangs on its way out (a library's exit handler) must not hang
// zxblk serve, its socket and whoever waits for it.
const auto kStopGrace = std::chrono::seconds(5);

// Waits for nbdkit to end, or with `untilReady` for its pid file too; true
// when it is ready, false with its status when it ended.
bool watch(pid_t pid, const Listener& l, int* status, bool untilReady) {
    auto killAt = std::chrono::steady_clock::time_point::max();
    std::chrono::microseconds pause(500);
    for (;;) {
        if (::waitpid(pid, status, WNOHANG) == pid) return false;
        if (untilReady && !g_stopAsked && isFile(l.privateDir + "/pid")) return true;
        auto now = std::chrono::steady_clock::now();
        if (g_stopAsked && killAt == std::chrono::steady_clock::time_point::max()) killAt = now + kStopGrace;
        if (now >= killAt) ::kill(pid, SIGKILL);
        // Often at first: a client waits for the server, and `--run` for its end.
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(20000));
    }
}

void stop(pid_t pid, const Listener& l, int* status) {
    g_stopAsked = 1;
    ::kill(pid, SIGTERM);
    watch(pid, l, status, false);
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }


void printServing(const ServeArgs& a, int snapshot, const Listener& l, const std::string& stop) {
    if (quiet()) return;
    std::printf("serving %s snapshot %d at %s (%s)\n", a.disk.c_str(), snapshot, l.uri.c_str(),
                a.writable ? "writable: writes go to an overlay that is discarded when the server stops" : "read-only");
    if (!stop.empty()) std::printf("%s\n", stop.c_str());
    std::fflush(stdout);
}

// Runs `command` with $uri (and $unixsocket or $port) set, as nbdkit --run
// does; the server stops when it ends. Returns the command's exit code.
int runCommand(const ServeArgs& a, const Listener& l, pid_t server) {
    pid_t pid = ::fork();
    if (pid < 0) throw StoreError(errnoText("cannot run the command"));
    if (pid == 0) {
        ::close(l.fd);
        ::setenv("uri", l.uri.c_str(), 1);
        if (!l.socketPath.empty()) ::setenv("unixsocket", l.socketPath.c_str(), 1);
        if (l.port) ::setenv("port", std::to_string(l.port).c_str(), 1);
        ::execl("/bin/sh", "sh", "-c", a.run.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0, serverStatus = 0;
    bool serverGone = false;
    for (;;) {
        pid_t r = ::waitpid(-1, &status, 0);
        if (r < 0 && errno == EINTR) continue;
        if (r == server) {
            serverGone = true;
            std::fprintf(stderr, "zxblk: nbdkit stopped while the command ran (%s)\n", statusText(status).c_str());
            continue;
        }
        if (r == pid || r < 0) break;
    }
    if (!serverGone) stop(server, l, &serverStatus);
    return exitCodeOf(status);
}

void serve(ServeArgs& a) {
    std::string user;
    if (!a.tlsPsk.empty()) user = pskUser(a.tlsPsk);
    // What cannot be served is told before anything listens.
    Store store = Store::open(a.store);
    DiskInfo disk = store.disk(a.disk);
    if (a.snapshot >= static_cast<int>(disk.snapshots.size()))
        throw StoreError("disk " + a.disk + " has no snapshot " + std::to_string(a.snapshot) + " (it has " +
                         std::to_string(disk.snapshots.size()) + ")");
    const int snapshot = a.snapshot >= 0 ? a.snapshot : static_cast<int>(disk.snapshots.size()) - 1;
    std::vector<std::string> args;
    Listener l = openListener(a, user);
    try {
        args = nbdkitArgs(a, l);
    } catch (...) {
        removeListener(l);
        throw;
    }

    if (a.foreground || !a.run.empty()) {
        // nbdkit says on this terminal what went wrong, if anything does.
        pid_t pid = startNbdkit(args, l, -1);
        g_child = pid;
        std::signal(SIGINT, forward);
        std::signal(SIGTERM, forward);
        std::signal(SIGHUP, forward);
        int status = 0;
        if (!watch(pid, l, &status, true)) {
            removeListener(l);
            throw StoreError("nbdkit could not serve the disk (" + statusText(status) + ")");
        }
        int rc = 0;
        if (!a.run.empty()) {
            printServing(a, snapshot, l, "");
            rc = runCommand(a, l, pid);
        } else {
            printServing(a, snapshot, l, "stop with Ctrl-C");
            watch(pid, l, &status, false);
            // Asked to stop (Ctrl-C, SIGTERM): a clean end however nbdkit went.
            rc = g_stopAsked ? 0 : exitCodeOf(status);
        }
        removeListener(l);
        ::close(l.fd);
        if (rc) std::exit(rc);
        return;
    }

    // In the background: a supervisor in a session of its own starts nbdkit
    // with its messages in the log, tells this process whether it serves,
    // and removes the socket once nbdkit has ended.
    std::string logFile = a.logFile;
    if (logFile.empty()) {
        std::string cacheDir = a.cache.empty() ? defaultCacheDir(a.store, a.disk, snapshot) : a.cache;
        std::error_code ec;
        std::filesystem::create_directories(cacheDir, ec);
        logFile = cacheDir + "/serve.log";
    }
    int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) {
        removeListener(l);
        throw StoreError(errnoText("cannot write the log " + logFile));
    }
    off_t logStart = ::lseek(log, 0, SEEK_END);
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw StoreError(errnoText("pipe"));
    pid_t supervisor = ::fork();
    if (supervisor < 0) throw StoreError(errnoText("cannot start the server"));
    if (supervisor == 0) {
        ::close(pipeFds[0]);
        ::setsid();
        int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0), ::dup2(null, 1), ::dup2(log, 2);
        std::signal(SIGINT, SIG_IGN);
        std::signal(SIGHUP, SIG_IGN);
        std::signal(SIGTERM, forward);
        int status = 0;
        pid_t pid = startNbdkit(args, l, log);
        g_child = pid;
        bool ready = watch(pid, l, &status, true);
        char word = ready ? '+' : '-';
        (void)!::write(pipeFds[1], &word, 1);
        ::close(pipeFds[1]);
        if (ready) watch(pid, l, &status, false);
        removeListener(l);
        _exit(0);
    }
    ::close(pipeFds[1]);
    ::close(l.fd);
    char word = 0;
    while (::read(pipeFds[0], &word, 1) < 0 && errno == EINTR) {
    }
    ::close(pipeFds[0]);
    if (word == '+') {
        ::close(log);
        printServing(a, snapshot, l, "log: " + logFile + "; stop with: kill " + std::to_string(supervisor));
        return;
    }
    // nbdkit's own words on why, from the log.
    std::string why;
    std::ifstream in(logFile);
    in.seekg(logStart);
    for (std::string line; std::getline(in, line);)
        if (!line.empty()) why = line;
    ::close(log);
    ::waitpid(supervisor, nullptr, 0);
    throw StoreError(why.empty() ? "nbdkit could not serve the disk (see " + logFile + ")" : why);
}

}  // namespace

void registerServeCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("serve", "serve the disk over NBD (through nbdkit), recalling extents on demand");
    static ServeArgs a;
    addPresentedDiskOptions(cmd, a.store, a.disk, a.snapshot, a.cache, a.cacheLimit);
    auto* socketOpt = cmd->add_option("--socket", a.socketPath, "listen on this Unix socket, mode 0600 (default: one in a "
                                                                "private folder under $XDG_RUNTIME_DIR or /tmp)");
    auto* portOpt = addNumberOption(cmd, "--port", a.port, "listen on this TCP port (0: any free one)", 0, 65535);
    socketOpt->excludes(portOpt);
    cmd->add_option("--bind", a.bind, "the address the TCP port listens on; other than loopback it needs --tls-psk")
        ->capture_default_str()
        ->needs(portOpt);
    cmd->add_flag("--writable", a.writable,
                  "let clients write: writes go to a copy-on-write overlay, never to the store or the cache, and the "
                  "overlay is discarded when the server stops");
    cmd->add_option("--tls-psk", a.tlsPsk, "require TLS with the pre-shared keys of this file (USERNAME:HEXKEY lines, "
                                           "as psktool makes them)")
        ->check(CLI::ExistingFile);
    cmd->add_option("--run", a.run, "run this shell command with $uri set to the server's URI, then stop");
    cmd->add_flag("-f,--foreground", a.foreground, "stay in the foreground until Ctrl-C");
    cmd->add_option("--stats", a.statsFile, "keep what was recalled in this file, rewritten each second");
    cmd->add_option("--log-file", a.logFile, "nbdkit's messages in the background (default: CACHE/serve.log)");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        // The server runs from "/": every path it is given is absolute.
        for (std::string* p : {&a.cache, &a.socketPath, &a.tlsPsk, &a.statsFile, &a.logFile})
            if (!p->empty()) *p = std::filesystem::absolute(*p).lexically_normal().string();
        serve(a);
    });
}

}  // namespace zxblk
