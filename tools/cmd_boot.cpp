// zxblk boot: a backed-up VM running again, in one command. One nbdkit
// serves every disk of the VM read-only, as zxblk serve does; qemu attaches
// each over NBD under a qcow2 overlay of its own, kept in a folder per VM,
// so that what the VM writes survives a stop and the next boot of the same
// VM goes on from it. The serial console comes through this process to the
// terminal or to a log. When qemu ends, the server stops; SIGINT or SIGTERM
// asks the guest to power down (QMP system_powerdown) and stops qemu only
// when it has not within a time-out.
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>

#include "commands.h"
#include "nbdkit_process.h"
#include "presented.h"
#include "qmp_client.h"
#include "serve_net.h"
#include "vm_console.h"
#include "vm_overlay.h"
#include "vm_qemu.h"
#include "vm_ready.h"
#include "vm_restore.h"

namespace zxblk {
namespace {

using Clock = std::chrono::steady_clock;

struct BootArgs {
    PresentedOptions disks;  // one client
    RestoreOptions restore;
    ReadyOptions ready;
    std::string client, bootDisk, overlayDir, log, qemuExtra, kernel, initrd, append;
    std::string bus = "virtio", accel = "auto";
    bool newOverlay = false, console = false;
    uint64_t memory = 1ull << 30;
    unsigned cpus = 1;
    unsigned shutdownTimeout = 60;
};

// A stop asked for: SIGINT, SIGTERM or SIGHUP, counted.
volatile sig_atomic_t g_signal = 0, g_signals = 0;
void noteSignal(int sig) { g_signal = sig, g_signals = g_signals + 1; }

void watchStopSignals() {
    struct sigaction sa = {};
    sa.sa_handler = noteSignal;
    sa.sa_flags = SA_RESTART;
    sigemptyset(&sa.sa_mask);
    // Installed even where the shell started zxblk with SIGINT ignored.
    for (int s : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(s, &sa, nullptr);
}

std::string signalName(int sig) { return sig == SIGINT ? "SIGINT" : sig == SIGHUP ? "SIGHUP" : "SIGTERM"; }

void say(const std::string& line) {
    if (!quiet()) std::fprintf(stderr, "zxblk: %s\n", line.c_str());
}

std::string lastLine(const std::string& file) {
    std::string last;
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);)
        if (line.find_first_not_of(" \t\r") != std::string::npos) last = line;
    return last;
}

// The default folder of a VM's overlays: one per store and VM, in the cache.
std::string defaultOverlayDir(const std::string& store, const std::string& client) {
    char hash[17];
    std::snprintf(hash, sizeof hash, "%016zx", std::hash<std::string>()(canonicalStoreLocation(store)));
    return defaultCacheRoot() + "/boot/" + client + "-" + hash;
}

// The server of the VM's disks, stopped and its socket removed however
// the boot ends.
struct Server {
    Listener listener;
    // Passes nbdkit's messages on until it ends, after the stop below.
    std::unique_ptr<Relay> relay;
    pid_t pid = -1;
    bool gone = false;
    ~Server() {
        int status = 0;
        if (pid > 0 && !gone) stopNbdkit(pid, listener, &status);
        if (listener.fd >= 0) ::close(listener.fd);
        removeListener(listener);
    }
};

// qemu, killed if the boot ends some other way than by its end.
struct Qemu {
    pid_t pid = -1;
    int status = 0;
    bool ended = false;
    bool reap() {
        if (!ended && pid > 0 && ::waitpid(pid, &status, WNOHANG) == pid) ended = true;
        return ended;
    }
    ~Qemu() {
        if (pid <= 0 || reap()) return;
        ::kill(pid, SIGKILL);
        while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
};

// Which disks and snapshots: the client's disks in the catalog's order,
// the boot disk first. Without --snapshot a folder that already holds the
// VM's writes keeps the snapshot they lie on (when every disk has it).
OverlayRecord chooseDisks(BootArgs& a, const OverlayFolder& folder, std::vector<PresentedDisk>& list) {
    Store store = Store::open(a.disks.store);
    OverlayRecord wanted{canonicalStoreLocation(a.disks.store), a.client, {}, {}};
    OverlayRecord had;
    if (a.disks.snapshot < 0 && folder.recorded(&had) && had.store == wanted.store && had.client == a.client &&
        !had.disks.empty()) {
        bool same = true;
        for (const OverlayDisk& d : had.disks) same = same && d.snapshot == had.disks.front().snapshot;
        if (same) a.disks.snapshot = had.disks.front().snapshot;
    }
    list = presentedDisks(store, a.disks);
    if (list.empty()) throw Error("client " + a.client + " has no disks", ErrorKind::notFound);
    if (!a.bootDisk.empty()) {
        auto it = std::find_if(list.begin(), list.end(), [&](const PresentedDisk& p) { return p.name == a.bootDisk; });
        if (it == list.end())
            throw Error("--boot-disk " + a.bootDisk + ": not a disk of " + a.client, ErrorKind::notFound);
        std::rotate(list.begin(), it, it + 1);
    }
    for (const PresentedDisk& p : list) {
        wanted.disks.push_back({p.name, p.snapshot, store.disk(p.name).size});
        // Opened as nbdkit will open it, and closed again before anything
        // forks: a damaged chain or a cache in use is told here in one line.
        DiskOptions o;
        o.snapshot = p.snapshot;
        o.cacheDir = p.cacheDir;
        o.cacheLimit = a.disks.cacheLimit;
        o.allowDamaged = a.disks.allowDamaged;
        sayNotices(store.openDisk(p.name, o).notices());
    }
    return wanted;
}

void startServer(const BootArgs& a, Server& server) {
    server.listener = openListener(ListenOptions{});
    const Listener& l = server.listener;
    std::vector<std::string> args = {findNbdkit(), "--exit-with-parent", "--log=stderr", "--readonly",
                                     "-P",         l.privateDir + "/pid"};
    if (commonOptions().verbosity >= 2) args.push_back("--verbose");
    args.push_back(findPlugin());
    args.push_back("store=" + a.disks.store);
    args.push_back("client=" + a.client);
    if (a.disks.snapshot >= 0) args.push_back("snapshot=" + std::to_string(a.disks.snapshot));
    if (!a.disks.cache.empty()) args.push_back("cache=" + a.disks.cache);
    if (a.disks.cacheLimit) args.push_back("cache-limit=" + std::to_string(a.disks.cacheLimit));
    args.push_back("readahead=" + std::to_string(a.disks.readahead));
    if (a.disks.allowDamaged) args.push_back("allow-damaged=true");
    // What each disk recalled, in DISK.stats beside its overlay.
    args.push_back("statsdir=" + a.overlayDir);
    for (const std::string& arg : readyServerArgs(a.ready, l.controlPath)) args.push_back(arg);
    server.relay.reset(new Relay);
    server.pid = startNbdkit(args, l, server.relay->writeEnd());
    server.relay->start();
    int status = 0;
    if (!waitReady(server.pid, l, &status)) {
        server.gone = true;
        std::string why = server.relay->cause();
        throw Error(why.empty() ? "nbdkit could not serve the disks (" + statusText(status) + ")" : why,
                    ErrorKind::unavailable);
    }
    // nbdkit's later words (a read that failed) come with the console's.
    server.relay->pass();
}

pid_t startQemu(const std::vector<std::string>& args, const ConsoleRelay& console, int nullFd, int logFd, bool typed) {
    std::vector<char*> argv;
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = ::getpid();
    pid_t pid = ::fork();
    if (pid < 0) throw Error(std::string("cannot start qemu: ") + std::strerror(errno), ErrorKind::unavailable);
    if (pid > 0) return pid;
    // A process group of its own: Ctrl-C on the terminal is for zxblk,
    // which powers the VM down, not for qemu, which would just end.
    ::setpgid(0, 0);
    // A zxblk killed outright takes qemu with it, as nbdkit goes with it.
    ::prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (::getppid() != parent) _exit(127);
    ::dup2(typed ? console.childInput() : nullFd, 0);
    ::dup2(console.childOutput(), 1);
    ::dup2(logFd, 2);
    ::execv(argv[0], argv.data());
    std::fprintf(stderr, "cannot run %s: %s\n", argv[0], std::strerror(errno));
    _exit(127);
}

int boot(BootArgs& a) {
    const std::string qemu = findProgram("qemu-system-x86_64", "qemu-system-x86");
    const std::string qemuImg = findProgram("qemu-img", "qemu-utils");
    std::vector<std::string> extra = splitShellWords(a.qemuExtra);
    // A client the store lacks is told before any folder is made for it.
    Store::open(a.disks.store).client(a.client);
    if (a.overlayDir.empty()) a.overlayDir = defaultOverlayDir(a.disks.store, a.client);
    OverlayFolder folder(a.overlayDir);
    std::vector<PresentedDisk> list;
    OverlayRecord wanted = chooseDisks(a, folder, list);
    std::string why = a.newOverlay ? std::string() : folder.mismatch(wanted);
    OverlayRecord had;
    if (!why.empty() && folder.recorded(&had) && !had.restoredTo.empty())
        throw Error("the overlay folder " + a.overlayDir + " " + why +
                        "; boot from there, or --new-overlay to start again from the backup",
                    ErrorKind::invalidArgument);
    if (!why.empty())
        throw Error("the overlay folder " + a.overlayDir + " " + why +
                        "; boot that, give --overlay-dir another folder, or --new-overlay to discard its writes",
                    ErrorKind::invalidArgument);
    std::vector<std::string> overlays = folder.prepare(wanted, a.newOverlay, qemuImg);

    KvmProbe kvm = probeKvm();
    if (a.accel == "kvm" && !kvm.usable)
        throw Error("--accel kvm: KVM does not work here: " + kvm.why, ErrorKind::unavailable);
    const bool useKvm = a.accel == "kvm" || (a.accel == "auto" && kvm.usable);
    const bool onTerminal = a.log.empty() && (a.console || ::isatty(1));
    const std::string consoleLog = a.log.empty() ? a.overlayDir + "/console.log" : a.log;
    std::unique_ptr<LiveRestore> restore;
    if (!a.restore.dir.empty()) {
        std::vector<RestoreDisk> copies;
        for (size_t i = 0; i < list.size(); ++i)
            copies.push_back({list[i].name, diskNode(i), backupNode(i), wanted.disks[i].size});
        restore.reset(new LiveRestore(a.restore, a.client, copies, qemuImg, !onTerminal));
    }

    watchStopSignals();
    const std::string prefetching = settlePrefetch(a.ready, a.disks.store, list);
    Server server;
    startServer(a, server);
    if (restore) restore->setServerCause([&server] { return server.relay ? server.relay->lastError() : std::string(); });

    VmSetup setup;
    setup.qemu = qemu;
    setup.name = a.client;
    setup.kvm = useKvm;
    setup.memoryMiB = a.memory >> 20;
    setup.cpus = a.cpus;
    setup.nbdSocket = server.listener.socketPath;
    for (size_t i = 0; i < list.size(); ++i) setup.disks.push_back({list[i].name, overlays[i]});
    setup.bus = a.bus;
    setup.qmpSocket = server.listener.privateDir + "/qmp.sock";
    setup.kernel = a.kernel, setup.initrd = a.initrd, setup.append = a.append;
    setup.extra = extra;
    std::vector<std::string> args = qemuArgs(setup);

    int out = onTerminal ? ::fcntl(1, F_DUPFD_CLOEXEC, 3)
                         : ::open(consoleLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out < 0) throw Error("cannot write the console log " + consoleLog + ": " + std::strerror(errno), ErrorKind::io);
    const std::string qemuLog = a.overlayDir + "/qemu.log";
    int logFd = ::open(qemuLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    if (logFd < 0) throw Error("cannot write " + qemuLog + ": " + std::strerror(errno), ErrorKind::io);

    std::string disks;
    for (const PresentedDisk& p : list) disks += (disks.empty() ? "" : ", ") + p.name;
    say("booting " + a.client + " (" + disks + ", snapshot " + std::to_string(list.front().snapshot) + ") with " +
        (useKvm ? std::string("KVM")
                : "TCG" + (a.accel == "tcg" ? std::string(" (--accel tcg)")
                                            : " (no hardware virtualisation: " + kvm.why + ")")));
    say("its writes go to " + a.overlayDir + (onTerminal ? "" : "; console in " + consoleLog) + "; Ctrl-C or kill " +
        std::to_string(::getpid()) + " powers it down");
    if (!prefetching.empty()) say(prefetching);

    VmReady ready(a.ready, a.client, server.listener.controlPath, !restore);
    ConsoleRelay console(out, onTerminal ? 0 : -1);
    console.watch([&ready](const std::string& line) { ready.consoleLine(line); });
    Qemu vm;
    vm.pid = startQemu(args, console, nullFd, logFd, onTerminal);
    console.start();
    ::close(logFd), ::close(nullFd);
    auto qemuFailed = [&](const std::string& what) {
        std::string last = lastLine(qemuLog);
        return Error(
            "qemu-system-x86_64 " + what + (last.empty() ? "" : ": " + last) + " (its messages: " + qemuLog + ")",
            ErrorKind::unavailable);
    };

    std::unique_ptr<QmpClient> qmp;
    // qemu makes its QMP socket before it opens the disks; until then it
    // may still end on a bad option.
    while (!qmp) {
        if (vm.reap()) {
            console.finish();
            throw qemuFailed("could not start the VM (" + statusText(vm.status) + ")");
        }
        struct stat st;
        if (::stat(setup.qmpSocket.c_str(), &st) == 0) {
            try {
                qmp.reset(new QmpClient(setup.qmpSocket, std::chrono::seconds(10)));
            } catch (const Error&) {
                if (!vm.reap()) throw;
            }
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    if (restore) restore->start(*qmp);

    auto quitAt = Clock::time_point::max(), killAt = Clock::time_point::max();
    int asked = 0;
    for (;;) {
        if (vm.reap()) break;
        ready.tick();
        int status = 0;
        if (!server.gone && ::waitpid(server.pid, &status, WNOHANG) == server.pid) {
            server.gone = true;
            std::fprintf(stderr, "zxblk: nbdkit stopped while %s ran (%s): its disks cannot be read now\n",
                         a.client.c_str(), statusText(status).c_str());
        }
        const auto now = Clock::now();
        if (g_signals > asked) {
            if (asked == 0) {
                say(signalName(g_signal) + ": asking " + a.client + " to power down (stopped in " +
                    std::to_string(a.shutdownTimeout) + " s if it has not)");
                try {
                    qmp->execute("system_powerdown");
                } catch (const Error& e) {
                    say(e.what());
                }
                quitAt = now + std::chrono::seconds(a.shutdownTimeout);
            } else {
                quitAt = now;  // asked twice: stop it now
            }
            asked = g_signals;
        }
        if (now >= quitAt && killAt == Clock::time_point::max()) {
            try {
                qmp->execute("quit");
            } catch (const Error&) {
                // qemu ends with the socket: the quit has done its work.
            }
            killAt = now + std::chrono::seconds(10);
        }
        if (now >= killAt) ::kill(vm.pid, SIGKILL);
        if (restore && restore->state() == LiveRestore::State::copying && asked == 0 &&
            restore->step(*qmp) == LiveRestore::State::restored) {
            // The VM reads nothing from the backup now.
            int status = 0;
            server.gone = true;
            stopNbdkit(server.pid, server.listener, &status);
            folder.markRestored(a.restore.dir);
            say("restored " + a.client + " to " + restore->summary() + "; the VM now runs from " + a.restore.dir);
        }
        qmp->poll();
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    console.finish();
    qmp->poll();
    bool guestOff = false;
    for (const nlohmann::json& e : qmp->events())
        guestOff =
            guestOff || (e.value("event", "") == "SHUTDOWN" && e.contains("data") && e["data"].value("guest", false));

    if (killAt == Clock::time_point::max() && !(WIFEXITED(vm.status) && WEXITSTATUS(vm.status) == 0))
        throw qemuFailed("failed (" + statusText(vm.status) + ")");
    if (killAt != Clock::time_point::max() && !guestOff)
        throw Error(a.client + " did not power down within " + std::to_string(a.shutdownTimeout) +
                        " s; qemu was stopped (its writes so far stay in " + a.overlayDir + ")",
                    ErrorKind::unavailable);
    if (!guestOff) throw Error("qemu ended without " + a.client + " powering off", ErrorKind::unavailable);
    if (restore && restore->state() == LiveRestore::State::restored) {
        say(a.client + " powered off; its disks are in " + a.restore.dir + ", with all it wrote");
        return kExitOk;
    }
    if (restore && restore->state() == LiveRestore::State::copying)
        say("the live restore of " + a.client + " did not finish before it powered off: nothing is kept in " +
            a.restore.dir);
    say(a.client + " powered off; its writes stay in " + a.overlayDir +
        " (the next zxblk boot goes on from them; --new-overlay discards them)");
    return kExitOk;
}

}  // namespace

void registerBootCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("boot",
                                   "boot a backed-up virtual machine under qemu, its disks served from the "
                                   "store over NBD, its writes kept in overlays");
    static BootArgs a;
    addStoreOption(cmd, a.disks.store);
    cmd->add_option("--client", a.client, "the virtual machine, as import --client recorded it")->required();
    addNumberOption(cmd, "--snapshot", a.disks.snapshot,
                    "snapshot number of each disk, 0 the oldest (default: the one the overlays lie on, else the "
                    "newest)",
                    0);
    cmd->add_option("--boot-disk", a.bootDisk, "the disk booted from (default: the client's first)");
    cmd->add_option("--overlay-dir", a.overlayDir,
                    "the folder of the overlays that keep the VM's writes, one DISK.qcow2 each (default: one per VM "
                    "under ~/.cache/zxblk/boot)");
    cmd->add_flag("--new-overlay", a.newOverlay, "discard the VM's earlier writes and start again from the backup");
    addSizeOption(cmd, "--memory", a.memory, "the VM's memory, e.g. 2G (default 1G)", 16ull << 20, 1ull << 42);
    addNumberOption(cmd, "--cpus", a.cpus, "the VM's processors (default 1)", 1u, 255u);
    auto* consoleOpt = cmd->add_flag("--console", a.console,
                                     "the serial console on this terminal (the default when standard output is one)");
    cmd->add_option("--log", a.log,
                    "write the serial console to this file (the default when standard output is not a terminal: "
                    "console.log in the overlay folder)")
        ->excludes(consoleOpt);
    cmd->add_option("--accel", a.accel, "kvm, tcg, or auto: KVM where it works, else TCG")
        ->check(CLI::IsMember({"auto", "kvm", "tcg"}))
        ->capture_default_str();
    cmd->add_option("--bus", a.bus, "how disks attach: virtio, or ide for a guest without virtio drivers")
        ->check(CLI::IsMember({"virtio", "ide"}))
        ->capture_default_str();
    cmd->add_option("--kernel", a.kernel, "boot this kernel (for a disk without a boot loader)")
        ->check(CLI::ExistingFile);
    cmd->add_option("--initrd", a.initrd, "with --kernel: its initial RAM disk")->check(CLI::ExistingFile);
    cmd->add_option("--append", a.append, "with --kernel: its command line, e.g. 'root=/dev/vda1 console=ttyS0'");
    addNumberOption(cmd, "--shutdown-timeout", a.shutdownTimeout,
                    "seconds a guest asked to power down (Ctrl-C, SIGTERM) has before qemu is stopped (default 60)",
                    1u);
    cmd->add_option("--qemu", a.qemuExtra,
                    "more arguments for qemu, split as a shell would, e.g. "
                    "--qemu '-nic user,model=virtio-net-pci'");
    cmd->add_option("--cache", a.disks.cache,
                    "a folder that holds the extent cache of each disk, DIR/NAME-snapN (default: a cache per disk "
                    "under ~/.cache/zxblk)");
    addSizeOption(cmd, "--cache-limit", a.disks.cacheLimit, "largest size of each disk's extent cache, e.g. 2G", 1);
    addSizeOption(cmd, "--readahead", a.disks.readahead,
                  "largest window recalled ahead of a reader that reads a disk in order (default 16M; 0: none)");
    addAllowDamagedOption(cmd, a.disks.allowDamaged);
    addRestoreOptions(cmd, a.restore);
    addReadyOptions(cmd, a.ready);
    cmd->footer("Exit code 0 when the guest powered off; 1, with one line saying why, otherwise.");
    addCommonOptions(cmd);
    cmd->callback([] {
        applyCommonOptions();
        if ((!a.initrd.empty() || !a.append.empty()) && a.kernel.empty())
            throw CLI::ValidationError("--initrd and --append", "need --kernel");
        a.disks.clients = {a.client};
        for (std::string* p : {&a.disks.cache, &a.overlayDir, &a.log, &a.kernel, &a.initrd, &a.restore.dir})
            *p = absolutePath(*p);
        if (int rc = boot(a)) std::exit(rc);
    });
}

}  // namespace zxblk
