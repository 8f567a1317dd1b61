#include "nbdkit_process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

bool isFile(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The signal handler's view of the server: whom to pass a stop to, and
// whether one was asked for.
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

}  // namespace

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
    throw Error("nbdkit is not installed (apt-get install nbdkit)", ErrorKind::notFound);
}

std::string nbdkitVersion() {
    std::string command = "'" + findNbdkit() + "' --version 2>/dev/null";
    std::FILE* out = ::popen(command.c_str(), "r");
    if (!out) return std::string();
    char line[256] = "";
    bool got = std::fgets(line, sizeof line, out) != nullptr;
    ::pclose(out);
    std::string text = got ? line : "";
    if (text.compare(0, 7, "nbdkit ") != 0) return std::string();
    text = text.substr(7);
    return text.substr(0, text.find_first_of(" \n"));
}

std::string findPlugin() {
    if (const char* env = std::getenv("ZXBLK_NBDKIT_PLUGIN")) {
        if (!isFile(env)) throw Error(std::string("ZXBLK_NBDKIT_PLUGIN=") + env + ": no such file", ErrorKind::notFound);
        return env;
    }
    std::error_code ec;
    std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe", ec);
    std::string installed = (self.parent_path() / ZXBLK_PLUGIN_FROM_BIN).lexically_normal().string();
    if (!ec && isFile(installed)) return installed;
    if (isFile(ZXBLK_PLUGIN_BUILD_PATH)) return ZXBLK_PLUGIN_BUILD_PATH;
    throw Error("cannot find nbdkit-zxblk-plugin.so (looked at " + installed +
                    "; set ZXBLK_NBDKIT_PLUGIN to where it is)",
                ErrorKind::notFound);
}

pid_t startNbdkit(const std::vector<std::string>& args, const Listener& l, int stderrFd) {
    std::vector<char*> argv;
    for (const std::string& s : args) argv.push_back(const_cast<char*>(s.c_str()));
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) throw Error(std::string("cannot start nbdkit: ") + std::strerror(errno), ErrorKind::unavailable);
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
    ::execv(argv[0], argv.data());
    std::fprintf(stderr, "zxblk: cannot run %s: %s\n", argv[0], std::strerror(errno));
    _exit(127);
}

void watchSignals(pid_t nbdkit, bool interactive) {
    g_child = nbdkit;
    std::signal(SIGTERM, forward);
    if (!interactive) return;
    std::signal(SIGINT, forward);
    std::signal(SIGHUP, forward);
}

bool waitReady(pid_t pid, const Listener& l, int* status) { return watch(pid, l, status, true); }

bool waitEnd(pid_t pid, const Listener& l, int* status) {
    watch(pid, l, status, false);
    return g_stopAsked;
}

void stopNbdkit(pid_t pid, const Listener& l, int* status) {
    g_stopAsked = 1;
    ::kill(pid, SIGTERM);
    watch(pid, l, status, false);
}

std::string statusText(int status) {
    if (WIFEXITED(status)) return "exit status " + std::to_string(WEXITSTATUS(status));
    if (WIFSIGNALED(status)) return std::string("killed by ") + strsignal(WTERMSIG(status));
    return "status " + std::to_string(status);
}

int exitCodeOf(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

std::string causeOf(const std::vector<std::string>& lines) {
    const std::string mark = "error: ";
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        size_t at = it->find(mark);
        if (at != std::string::npos && it->compare(0, 7, "nbdkit:") == 0) return it->substr(at + mark.size());
    }
    for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
        std::string line = *it;
        // This tool's own lines (a failed exec) keep their words, not its prefix.
        if (line.compare(0, 7, "zxblk: ") == 0) line = line.substr(7);
        if (!line.empty()) return line;
    }
    return std::string();
}

Relay::Relay() {
    if (::pipe2(m_fds, O_CLOEXEC) != 0)
        throw Error(std::string("pipe: ") + std::strerror(errno), ErrorKind::unavailable);
}

Relay::~Relay() {
    closeWriteEnd();
    if (m_thread.joinable()) m_thread.join();
    ::close(m_fds[0]);
}

void Relay::closeWriteEnd() {
    if (m_fds[1] >= 0) ::close(m_fds[1]);
    m_fds[1] = -1;
}

void Relay::start() {
    // nbdkit holds the only write end left, so the pipe ends when it does.
    closeWriteEnd();
    m_thread = std::thread(&Relay::run, this);
}

void Relay::run() {
    std::string partial;
    char buf[4096];
    for (;;) {
        ssize_t n = ::read(m_fds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n > 0) partial.append(buf, static_cast<size_t>(n));
        // At the end, an unfinished last line is a line too.
        if (n <= 0 && !partial.empty() && partial.back() != '\n') partial += '\n';
        for (size_t end; (end = partial.find('\n')) != std::string::npos; partial.erase(0, end + 1)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            const size_t error = partial.find(": error: ");
            if (error < end) m_lastError = partial.substr(error + 9, end - error - 9);
            if (m_passing)
                std::fprintf(stderr, "%s\n", partial.substr(0, end).c_str());
            else
                m_held.push_back(partial.substr(0, end));
        }
        if (n <= 0) return;
    }
}

void Relay::pass() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_passing = true;
    for (const std::string& line : m_held) std::fprintf(stderr, "%s\n", line.c_str());
    m_held.clear();
}

std::string Relay::lastError() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lastError;
}

std::string Relay::cause() {
    if (m_thread.joinable()) m_thread.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    return causeOf(m_held);
}

}  // namespace zxblk
