// zxblk serve: one snapshot of a disk, or of every disk of a virtual
// machine, over NBD through nbdkit and the zxblk plugin: one nbdkit, one
// export per disk, named by the disk. This process opens the listening
// socket itself (so that a Unix socket is 0600 from the start, a port taken
// or a bad address is told at once, and --port 0 can say which port it got)
// and hands it to nbdkit by socket activation; it waits until nbdkit is
// ready, prints the URIs, and then runs a command against them, stays in
// the foreground or leaves a supervisor behind that removes the socket when
// nbdkit ends.
#include <fcntl.h>
#include <sys/stat.h>
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

#include "commands.h"
#include "nbdkit_process.h"
#include "presented.h"
#include "serve_net.h"

extern char** environ;

namespace zxblk {
namespace {

struct ServeArgs {
    PresentedOptions disks;
    ListenOptions listen;
    std::string run, statsPath, logFile;
    bool writable = false, foreground = false, prefetch = false;
};

// An export of the server: a disk, and where a client finds it.
struct Export {
    std::string name;  // as $exports gives it: the disk's
    int snapshot = 0;
    std::string uri, guestfsUri;
};

// Before nbdkit 1.44 its cow filter keeps one overlay for the whole server:
// the writes to one export would show in every other.
void checkWritable(const ServeArgs& a, size_t exports) {
    if (!a.writable || exports < 2) return;
    int major = 0, minor = 0;
    std::string version = nbdkitVersion();
    if (std::sscanf(version.c_str(), "%d.%d", &major, &minor) == 2 && (major > 1 || minor >= 44)) return;
    throw Error("--writable serves one disk per server with nbdkit " + version +
                    " (before 1.44 its cow filter shares one overlay between all exports): serve each disk with a "
                    "zxblk serve --writable of its own",
                ErrorKind::invalidArgument);
}

// nbdkit 1.32.4 to 1.33.9 abort ("raw_send_socket: Assertion `sock >= 0'
// failed", server/connections.c) when a client hangs up while several
// replies of its connection are on their way: the reply that meets the
// closed socket marks it closed, and another worker thread of the same
// connection then sends. A client that stops at a read error (nbdcopy,
// qemu-img) or is killed does that, and takes every other client's server
// with it. One thread per connection cannot race so; connections still run
// in parallel, and copying clients open several.
bool repliesRace(const std::string& version) {
    int major = 0, minor = 0, micro = 0;
    if (std::sscanf(version.c_str(), "%d.%d.%d", &major, &minor, &micro) != 3 || major != 1) return false;
    return (minor == 32 && micro >= 4) || (minor == 33 && micro < 10);
}

std::vector<std::string> nbdkitArgs(const ServeArgs& a, const Listener& l, size_t exports) {
    std::vector<std::string> args = {findNbdkit(), "--exit-with-parent", "--log=stderr", "-P", l.privateDir + "/pid"};
    if (repliesRace(nbdkitVersion())) args.push_back("--threads=1");
    if (commonOptions().verbosity >= 2) args.push_back("--verbose");
    if (a.writable)
        args.push_back("--filter=cow");  // writes go to an overlay nbdkit discards at its end
    else
        args.push_back("--readonly");
    if (!a.listen.tlsPsk.empty()) {
        args.push_back("--tls=require");
        args.push_back("--tls-psk=" + a.listen.tlsPsk);
    }
    args.push_back(findPlugin());
    args.push_back("store=" + a.disks.store);
    for (const std::string& c : a.disks.clients) args.push_back("client=" + c);
    for (const std::string& d : a.disks.disks) args.push_back("disk=" + d);
    if (a.disks.snapshot >= 0) args.push_back("snapshot=" + std::to_string(a.disks.snapshot));
    if (!a.disks.cache.empty()) args.push_back("cache=" + a.disks.cache);
    if (a.disks.cacheLimit) args.push_back("cache-limit=" + std::to_string(a.disks.cacheLimit));
    args.push_back("readahead=" + std::to_string(a.disks.readahead));
    if (a.disks.allowDamaged) args.push_back("allow-damaged=true");
    if (!a.statsPath.empty()) args.push_back((exports > 1 ? "statsdir=" : "statsfile=") + a.statsPath);
    args.push_back("control=" + l.controlPath);
    if (a.prefetch) args.push_back("prefetch=true");
    return args;
}

void printServing(const ServeArgs& a, const std::vector<Export>& exports, const Listener& l, const std::string& stop) {
    if (quiet()) return;
    std::string guestfs;
    for (const Export& e : exports) {
        std::printf("serving %s snapshot %d at %s (%s)\n", e.name.c_str(), e.snapshot, e.uri.c_str(),
                    a.writable ? "writable: writes go to an overlay that is discarded when the server stops"
                               : "read-only");
        if (!e.guestfsUri.empty()) guestfs += " -a '" + e.guestfsUri + "'";
    }
    if (!guestfs.empty()) std::printf("libguestfs: guestfish --ro --format=raw%s\n", guestfs.c_str());
    std::printf("once the disks are mounted or the guest is up: zxblk control %s mount-complete\n",
                l.controlPath.c_str());
    if (!stop.empty()) std::printf("%s\n", stop.c_str());
    std::fflush(stdout);
}

// Runs `command` with $uri (the first export's), $uris and $exports (every
// export's, in one order) and $unixsocket or $port set; the server stops
// when it ends. Returns the command's exit code.
int runCommand(const ServeArgs& a, const std::vector<Export>& exports, Listener& l, pid_t server) {
    std::string uris, names;
    for (const Export& e : exports) {
        uris += (uris.empty() ? "" : " ") + e.uri;
        names += (names.empty() ? "" : " ") + e.name;
    }
    // Made before the fork: the child only execs, as a child of a process
    // with threads must.
    std::vector<std::string> env = {"uri=" + exports.front().uri, "uris=" + uris, "exports=" + names,
                                    "controlsocket=" + l.controlPath};
    if (!l.socketPath.empty()) env.push_back("unixsocket=" + l.socketPath);
    if (l.port) env.push_back("port=" + std::to_string(l.port));
    for (char** e = environ; *e; ++e) {
        std::string entry(*e), key = entry.substr(0, entry.find('='));
        if (key != "uri" && key != "uris" && key != "exports" && key != "unixsocket" && key != "port" &&
            key != "controlsocket")
            env.push_back(entry);
    }
    std::vector<char*> envp;
    for (std::string& e : env) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    const char* argv[] = {"sh", "-c", a.run.c_str(), nullptr};
    pid_t pid = ::fork();
    if (pid < 0) throw Error(std::string("cannot run the command: ") + std::strerror(errno), ErrorKind::unavailable);
    if (pid == 0) {
        ::close(l.fd);
        ::execve("/bin/sh", const_cast<char**>(argv), envp.data());
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
            // Nobody accepts on the socket any more: a client that connects
            // now is refused rather than left waiting in its backlog.
            ::close(l.fd);
            l.fd = -1;
            removeListener(l);
            continue;
        }
        if (r == pid || r < 0) break;
    }
    if (!serverGone) stopNbdkit(server, l, &serverStatus);
    return exitCodeOf(status);
}

// Opens each disk as nbdkit will, and closes it again: what cannot be
// served (a cache in use, a snapshot file that cannot be opened) is told
// in one line before anything listens, and how a cache was found (dropped,
// and why) is told here, where the user looks. Every disk and the store
// are closed on return, their threads with them, before any fork.
std::vector<Export> checkDisks(const ServeArgs& a) {
    Store store = Store::open(a.disks.store);
    std::vector<PresentedDisk> list = presentedDisks(store, a.disks);
    checkWritable(a, list.size());
    std::vector<Export> exports;
    for (const PresentedDisk& p : list) {
        DiskOptions o;
        o.snapshot = p.snapshot;
        o.cacheDir = p.cacheDir;
        o.cacheLimit = a.disks.cacheLimit;
        o.allowDamaged = a.disks.allowDamaged;
        sayNotices(store.openDisk(p.name, o).notices());
        exports.push_back({p.name, p.snapshot, "", ""});
    }
    return exports;
}

// In the foreground, or for --run: nbdkit's messages come here. Returns
// the exit code: the command's, or nbdkit's when it ended unasked.
int serveHere(const ServeArgs& a, const std::vector<Export>& exports, const std::vector<std::string>& args, Listener& l) {
    Relay relay;
    pid_t pid = startNbdkit(args, l, relay.writeEnd());
    relay.start();
    watchSignals(pid);
    int status = 0;
    if (!waitReady(pid, l, &status)) {
        removeListener(l);
        std::string why = relay.cause();
        throw Error(why.empty() ? "nbdkit could not serve the disks (" + statusText(status) + ")" : why,
                    ErrorKind::unavailable);
    }
    relay.pass();
    int rc = 0;
    if (!a.run.empty()) {
        printServing(a, exports, l, "");
        rc = runCommand(a, exports, l, pid);
    } else {
        printServing(a, exports, l, "stop with Ctrl-C");
        rc = waitEnd(pid, l, &status) ? 0 : exitCodeOf(status);
    }
    removeListener(l);
    if (l.fd >= 0) ::close(l.fd);
    return rc;
}

// In the background: a supervisor in a session of its own starts nbdkit
// with its messages in the log, tells this process whether it serves, and
// removes the socket once nbdkit has ended.
void serveInBackground(const ServeArgs& a, const std::vector<Export>& exports, const std::vector<std::string>& args,
                       const Listener& l, const std::string& logFile) {
    int log = ::open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    if (log < 0) {
        removeListener(l);
        throw Error("cannot write the log " + logFile + ": " + std::strerror(errno), ErrorKind::io);
    }
    off_t logStart = ::lseek(log, 0, SEEK_END);
    int pipeFds[2];
    if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw Error(std::string("pipe: ") + std::strerror(errno), ErrorKind::io);
    pid_t supervisor = ::fork();
    if (supervisor < 0) throw Error(std::string("cannot start the server: ") + std::strerror(errno), ErrorKind::io);
    if (supervisor == 0) {
        ::close(pipeFds[0]);
        ::setsid();
        int null = ::open("/dev/null", O_RDWR);
        ::dup2(null, 0), ::dup2(null, 1), ::dup2(log, 2);
        std::signal(SIGINT, SIG_IGN);
        std::signal(SIGHUP, SIG_IGN);
        pid_t pid = startNbdkit(args, l, log);
        watchSignals(pid, false);
        int status = 0;
        bool ready = waitReady(pid, l, &status);
        char word = ready ? '+' : '-';
        (void)!::write(pipeFds[1], &word, 1);
        ::close(pipeFds[1]);
        if (ready) waitEnd(pid, l, &status);
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
        printServing(a, exports, l, "log: " + logFile + "; stop with: kill " + std::to_string(supervisor));
        return;
    }
    // nbdkit's own words on why, from the log.
    std::vector<std::string> lines;
    std::ifstream in(logFile);
    in.seekg(logStart);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ::close(log);
    ::waitpid(supervisor, nullptr, 0);
    std::string why = causeOf(lines);
    throw Error(why.empty() ? "nbdkit could not serve the disks (see " + logFile + ")" : why, ErrorKind::unavailable);
}

void serve(const ServeArgs& a) {
    std::vector<Export> exports = checkDisks(a);
    if (!a.statsPath.empty() && exports.size() > 1) {
        std::error_code ec;
        std::filesystem::create_directories(a.statsPath, ec);
        if (ec) throw Error("--stats " + a.statsPath + ": " + ec.message(), ErrorKind::io);
    }
    Listener l = openListener(a.listen);
    std::vector<std::string> args;
    try {
        args = nbdkitArgs(a, l, exports.size());
    } catch (...) {
        removeListener(l);
        throw;
    }
    // One disk named with --disk is the server's first export and answers
    // a client that names none, at the URI it always had; each of several
    // is reached by its name.
    const bool byName = exports.size() > 1 || !a.disks.clients.empty();
    for (Export& e : exports) {
        e.uri = exportUri(a.listen, l, byName ? e.name : std::string());
        e.guestfsUri = guestfsUri(a.listen, l, byName ? e.name : std::string());
    }
    if (a.foreground || !a.run.empty()) {
        // Once the relay of nbdkit's messages has ended with nbdkit.
        if (int rc = serveHere(a, exports, args, l)) std::exit(rc);
        return;
    }

    std::string logFile = a.logFile;
    if (logFile.empty()) {
        std::string cacheDir = a.disks.cache.empty() ? defaultCacheDir(a.disks.store, exports.front().name,
                                                                       exports.front().snapshot)
                               : exports.size() > 1
                                   ? a.disks.cache + "/" + exports.front().name + "-snap" +
                                         std::to_string(exports.front().snapshot)
                                   : a.disks.cache;
        std::error_code ec;
        std::filesystem::create_directories(cacheDir, ec);
        logFile = cacheDir + "/serve.log";
    }
    serveInBackground(a, exports, args, l, logFile);
}

}  // namespace

void registerServeCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("serve", "serve a disk, or every disk of a client, over NBD (through nbdkit), "
                                            "recalling extents on demand");
    static ServeArgs a;
    addPresentedOptions(cmd, a.disks);
    auto* socketOpt = cmd->add_option("--socket", a.listen.socketPath,
                                      "listen on this Unix socket, mode 0600 (default: one in a private folder under "
                                      "$XDG_RUNTIME_DIR or /tmp)");
    auto* portOpt = addNumberOption(cmd, "--port", a.listen.port, "listen on this TCP port (0: any free one)", 0, 65535);
    socketOpt->excludes(portOpt);
    cmd->add_option("--bind", a.listen.bind, "the address the TCP port listens on; other than loopback it needs --tls-psk")
        ->capture_default_str()
        ->needs(portOpt);
    cmd->add_flag("--writable", a.writable,
                  "let clients write: writes go to a copy-on-write overlay, never to the store or the cache, and the "
                  "overlay is discarded when the server stops");
    cmd->add_option("--tls-psk", a.listen.tlsPsk, "require TLS with the pre-shared keys of this file (USERNAME:HEXKEY "
                                                  "lines, as psktool makes them)")
        ->check(CLI::ExistingFile);
    cmd->add_option("--run", a.run,
                    "run this shell command, then stop: $uri is the first export's URI, $uris every export's and "
                    "$exports their names (disk names, space-separated, in the same order), with $unixsocket or "
                    "$port, and $controlsocket for zxblk control");
    cmd->add_flag("--prefetch", a.prefetch,
                  "recall in the background, as the server starts, the extents the index records as each disk's "
                  "mount extents");
    cmd->add_flag("-f,--foreground", a.foreground, "stay in the foreground until Ctrl-C");
    cmd->add_option("--stats", a.statsPath,
                    "keep what was recalled in this file, rewritten each second; serving several disks, in this "
                    "folder, one DISK.stats each");
    cmd->add_option("--log-file", a.logFile,
                    "nbdkit's messages in the background (default: serve.log in the first disk's cache)");
    cmd->footer("One export per disk, named by the disk; with one --disk a client that names no export gets it. "
                "`zxblk control SOCKET mount-complete` tells the server that what reads the disks has mounted them "
                "(a guest is up): the extents recalled until then go to the index as mount extents, which "
                "--prefetch recalls at the next start.");
    addCommonOptions(cmd);
    cmd->callback([] {
        requirePresented(a.disks);
        applyCommonOptions();
        // The server runs from "/": every path it is given is absolute.
        for (std::string* p : {&a.disks.cache, &a.listen.socketPath, &a.listen.tlsPsk, &a.statsPath, &a.logFile})
            *p = absolutePath(*p);
        serve(a);
    });
}

}  // namespace zxblk
