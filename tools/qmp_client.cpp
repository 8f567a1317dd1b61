#include "qmp_client.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

using Clock = std::chrono::steady_clock;

// A command qemu does not answer within this long has hung with it.
const std::chrono::seconds kReplyTimeout(60);

int connectTo(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        throw Error("QMP socket path too long: " + path, ErrorKind::invalidArgument);
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw Error(std::string("socket: ") + std::strerror(errno), ErrorKind::io);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
    ::close(fd);
    return -1;
}

}  // namespace

QmpClient::QmpClient(const std::string& path, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    std::chrono::milliseconds pause(5);
    while ((m_fd = connectTo(path)) < 0) {
        if (Clock::now() >= deadline)
            throw Error("cannot connect to qemu's QMP socket " + path + ": " + std::strerror(errno),
                        ErrorKind::unavailable);
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::milliseconds(100));
    }
    // The greeting comes first, unasked.
    while (m_events.empty() || !m_events.front().contains("QMP")) {
        if (closed() || Clock::now() >= deadline)
            throw Error("qemu sent no QMP greeting on " + path, ErrorKind::unavailable);
        readMessages(std::chrono::milliseconds(100));
    }
    m_events.pop_front();
    execute("qmp_capabilities");
}

QmpClient::~QmpClient() { close(); }

void QmpClient::close() {
    if (m_fd >= 0) ::close(m_fd);
    m_fd = -1;
}

void QmpClient::send(const nlohmann::json& message) {
    std::string line = message.dump() + "\n";
    for (size_t done = 0; done < line.size();) {
        if (closed()) throw Error("qemu closed its QMP socket", ErrorKind::unavailable);
        ssize_t n = ::send(m_fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close();
            throw Error(std::string("qemu's QMP socket: ") + std::strerror(errno), ErrorKind::unavailable);
        }
        done += static_cast<size_t>(n);
    }
}

nlohmann::json QmpClient::readMessages(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    const size_t eventsBefore = m_events.size();
    for (;;) {
        // What has arrived whole, one message a line.
        for (size_t end; (end = m_partial.find('\n')) != std::string::npos; m_partial.erase(0, end + 1)) {
            std::string line = m_partial.substr(0, end);
            if (line.find_first_not_of(" \r\t") == std::string::npos) continue;
            nlohmann::json message = nlohmann::json::parse(line, nullptr, false);
            if (!message.is_object()) continue;  // nothing qemu says is otherwise
            if (message.contains("return") || message.contains("error"))
                m_replies.push_back(std::move(message));
            else
                m_events.push_back(std::move(message));
        }
        if (!m_replies.empty()) {
            nlohmann::json reply = std::move(m_replies.front());
            m_replies.pop_front();
            return reply;
        }
        if (closed() || m_events.size() > eventsBefore) return nullptr;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd p{m_fd, POLLIN, 0};
        int ready = ::poll(&p, 1, static_cast<int>(std::max<int64_t>(0, left.count())));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return nullptr;
        char buf[8192];
        ssize_t n = ::recv(m_fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            close();
            continue;  // what came before the end still counts
        }
        m_partial.append(buf, static_cast<size_t>(n));
    }
}

nlohmann::json QmpClient::execute(const std::string& command, const nlohmann::json& arguments) {
    const uint64_t id = m_nextId++;
    nlohmann::json message = {{"execute", command}, {"id", id}};
    if (!arguments.is_null()) message["arguments"] = arguments;
    send(message);
    const auto deadline = Clock::now() + kReplyTimeout;
    for (;;) {
        nlohmann::json reply = readMessages(std::chrono::milliseconds(200));
        if (reply.is_object() && reply.value("id", nlohmann::json()) == id) {
            if (reply.contains("error"))
                throw Error("qemu: " + command + ": " + reply["error"].value("desc", reply["error"].dump()),
                            ErrorKind::unavailable);
            return reply["return"];
        }
        if (closed() && reply.is_null())
            throw Error("qemu closed its QMP socket before it answered " + command, ErrorKind::unavailable);
        if (Clock::now() >= deadline)
            throw Error("qemu did not answer " + command + " within " + std::to_string(kReplyTimeout.count()) + " s",
                        ErrorKind::unavailable);
    }
}

nlohmann::json QmpClient::waitEvent(const std::string& name, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
        for (auto it = m_events.begin(); it != m_events.end(); ++it)
            if (it->value("event", "") == name) {
                nlohmann::json event = std::move(*it);
                m_events.erase(it);
                return event;
            }
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (closed() || left.count() <= 0) return nullptr;
        // A late reply to a command that gave up waiting is of no use now.
        readMessages(left);
    }
}

}  // namespace zxblk
