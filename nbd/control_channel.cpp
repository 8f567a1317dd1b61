#include "control_channel.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "zxblk/zxblk.h"

namespace zxblk_plugin {
namespace {

std::runtime_error systemError(const std::string& what) {
    return std::runtime_error(what + ": " + std::strerror(errno));
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        throw std::runtime_error("control=" + path + ": too long for a Unix socket (at most " +
                                 std::to_string(sizeof addr.sun_path - 1) + " bytes)");
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// A client that connects and says nothing must not hold the channel up.
const int kLineTimeoutMs = 5000;

// The first line a connection sends, without its line end; "" when it
// sends none in time.
std::string readLine(int fd) {
    std::string line;
    char buf[256];
    while (line.find('\n') == std::string::npos && line.size() < 4096) {
        pollfd p = {fd, POLLIN, 0};
        int r = ::poll(&p, 1, kLineTimeoutMs);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        line.append(buf, static_cast<size_t>(n));
    }
    line = line.substr(0, line.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

void writeAll(int fd, const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        ssize_t n = ::send(fd, text.data() + at, text.size() - at, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;  // the client has gone: nobody to tell
        at += static_cast<size_t>(n);
    }
}

}  // namespace

std::string runControlLine(const std::string& line, const FindTargets& find,
                           const std::function<void(const ControlTarget&, size_t)>& prefetched) {
    size_t space = line.find(' ');
    const std::string command = line.substr(0, space);
    const std::string name = space == std::string::npos ? std::string() : line.substr(space + 1);
    if (command != "mount-complete" && command != "metadata-begin" && command != "metadata-end" &&
        command != "prefetch")
        return "error: unknown command '" + command + "' (mount-complete, metadata-begin, metadata-end or prefetch)";
    std::vector<ControlTarget> targets;
    try {
        targets = find(name);
    } catch (const std::exception& e) {
        return std::string("error: ") + e.what();
    }
    if (targets.empty()) return "error: no disk is open yet (name one: its export opens it)";
    // Every disk is told, even after one has failed: the others' phases
    // must not depend on it.
    std::string done, failed;
    for (const ControlTarget& t : targets) {
        try {
            if (command == "mount-complete") {
                t.disk->markMountComplete();
                done += (done.empty() ? "" : ", ") + t.name;
            } else if (command == "metadata-begin") {
                t.disk->beginMetadata();
                done += (done.empty() ? "" : ", ") + t.name;
            } else if (command == "metadata-end") {
                t.disk->endMetadata();
                done += (done.empty() ? "" : ", ") + t.name;
            } else {
                size_t n = t.disk->prefetchMountExtents();
                prefetched(t, n);
                done += (done.empty() ? "" : ", ") + t.name + " " + std::to_string(n);
            }
        } catch (const std::exception& e) {
            failed += (failed.empty() ? "" : "; ") + std::string(e.what());
        }
    }
    if (!failed.empty()) return "error: " + failed;
    if (command == "prefetch") return "ok: prefetching the mount extents the index records (" + done + ")";
    return "ok: " + command + " (" + done + ")";
}

ControlSocket::ControlSocket(const std::string& path, std::function<std::string(const std::string&)> answer)
    : m_path(path), m_answer(std::move(answer)) {
    sockaddr_un addr = addressOf(path);
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) throw std::runtime_error("control=" + path + ": exists and is not a socket");
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (probe >= 0) ::close(probe);
        if (live) throw std::runtime_error("control=" + path + ": another server is listening there");
        ::unlink(path.c_str());
    }
    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) throw systemError("control socket");
    // Whoever may drive the disks may read them: the owner alone.
    mode_t old = ::umask(0177);
    int rc = ::bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::umask(old);
    if (rc != 0 || ::listen(m_fd, 16) != 0 || ::pipe2(m_wake, O_CLOEXEC) != 0) {
        std::runtime_error error = systemError("control=" + path);
        ::close(m_fd);
        if (rc == 0) ::unlink(path.c_str());
        throw error;
    }
    m_thread = std::thread(&ControlSocket::run, this);
}

ControlSocket::~ControlSocket() {
    (void)!::write(m_wake[1], "x", 1);
    if (m_thread.joinable()) m_thread.join();
    ::close(m_fd);
    ::close(m_wake[0]);
    ::close(m_wake[1]);
    ::unlink(m_path.c_str());
}

void ControlSocket::run() {
    for (;;) {
        pollfd p[2] = {{m_fd, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
        if (::poll(p, 2, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (p[1].revents) return;
        int fd = ::accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::string line = readLine(fd);
        writeAll(fd, (line.empty() ? std::string("error: no command") : m_answer(line)) + "\n");
        ::close(fd);
    }
}

}  // namespace zxblk_plugin
