#include "vm_console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

void makePipe(int fds[2]) {
    if (::pipe2(fds, O_CLOEXEC) != 0) throw Error(std::string("pipe: ") + std::strerror(errno), ErrorKind::io);
}

void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
}

// Writes all of it, unless the other end has gone.
void writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n, size -= static_cast<size_t>(n);
    }
}

}  // namespace

ConsoleRelay::ConsoleRelay(int out, int typed) : m_out(out), m_typed(typed) {
    makePipe(m_toQemu);
    makePipe(m_fromQemu);
    makePipe(m_wake);
}

ConsoleRelay::~ConsoleRelay() {
    if (m_thread.joinable()) {
        writeAll(m_wake[1], "x", 1);
        m_thread.join();
    }
    restoreTerminal();
    for (int* fds : {m_toQemu, m_fromQemu, m_wake}) closeFd(fds[0]), closeFd(fds[1]);
}

void ConsoleRelay::start() {
    closeFd(m_toQemu[0]);
    closeFd(m_fromQemu[1]);
    if (m_typed >= 0 && ::isatty(m_typed) && ::tcgetattr(m_typed, &m_saved) == 0) {
        // Keys go to the VM as they are typed, unechoed (the guest echoes),
        // Enter as the carriage return a serial line sends; ISIG stays, so
        // that Ctrl-C and Ctrl-\ are still signals to zxblk.
        termios raw = m_saved;
        raw.c_iflag &= ~(ICRNL | INLCR | IGNCR | IXON | ISTRIP);
        raw.c_lflag &= ~(ICANON | ECHO | IEXTEN);
        raw.c_cc[VMIN] = 1;
        raw.c_cc[VTIME] = 0;
        m_rawTerminal = ::tcsetattr(m_typed, TCSANOW, &raw) == 0;
    }
    m_thread = std::thread(&ConsoleRelay::run, this);
}

void ConsoleRelay::finish() {
    if (m_thread.joinable()) m_thread.join();
    restoreTerminal();
}

void ConsoleRelay::restoreTerminal() {
    if (m_rawTerminal) ::tcsetattr(m_typed, TCSANOW, &m_saved);
    m_rawTerminal = false;
}

void ConsoleRelay::run() {
    std::string line;
    bool typing = m_typed >= 0;
    char buf[4096];
    for (;;) {
        pollfd p[3] = {{m_fromQemu[0], POLLIN, 0}, {m_wake[0], POLLIN, 0}, {typing ? m_typed : -1, POLLIN, 0}};
        if (::poll(p, 3, -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (p[1].revents) return;
        if (p[2].revents) {
            ssize_t n = ::read(m_typed, buf, sizeof buf);
            if (n > 0)
                writeAll(m_toQemu[1], buf, static_cast<size_t>(n));
            else if (n == 0 || errno != EINTR)
                typing = false;  // the input has ended; the console goes on
        }
        if (p[0].revents) {
            ssize_t n = ::read(m_fromQemu[0], buf, sizeof buf);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) break;  // qemu has ended
            writeAll(m_out, buf, static_cast<size_t>(n));
            if (!m_watcher) continue;
            for (ssize_t i = 0; i < n; ++i) {
                if (buf[i] == '\n') {
                    if (!line.empty() && line.back() == '\r') line.pop_back();
                    m_watcher(line);
                    line.clear();
                } else if (line.size() < 4096) {
                    line += buf[i];
                }
            }
            // A prompt ends no line: it is told as it stands.
            if (!line.empty()) m_watcher(line);
        }
    }
}

}  // namespace zxblk
