// A client of qemu's machine protocol (QMP): JSON messages, one a line, on
// a Unix socket. It reads the greeting, leaves negotiation mode, runs
// commands one at a time and keeps the events that arrive meanwhile, so that
// a caller can wait for one (SHUTDOWN, JOB_STATUS_CHANGE) after the command
// that causes it. One thread uses it at a time.
#pragma once
#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <string>

namespace zxblk {

class QmpClient {
public:
    // Connects to qemu's socket at `path`, retrying until it listens or
    // `timeout` passes (qemu makes it a moment after it starts), reads the
    // greeting and sends qmp_capabilities. Throws Error.
    QmpClient(const std::string& path, std::chrono::milliseconds timeout);
    ~QmpClient();
    QmpClient(const QmpClient&) = delete;
    QmpClient& operator=(const QmpClient&) = delete;

    // Runs `command` with `arguments` (an object, or null for none) and
    // returns its "return" value; throws Error with qemu's error.desc, or
    // when qemu closes the socket first.
    nlohmann::json execute(const std::string& command, const nlohmann::json& arguments = nullptr);

    // The first queued event named `name` (taken off the queue), reading
    // more until it comes or `timeout` passes; null if it did not come, or
    // if qemu closed the socket.
    nlohmann::json waitEvent(const std::string& name, std::chrono::milliseconds timeout);
    // Queues what qemu has sent so far without waiting.
    void poll() { readMessages(std::chrono::milliseconds(0)); }
    // Every event received and not yet taken, oldest first.
    const std::deque<nlohmann::json>& events() const { return m_events; }
    // qemu has closed the socket (it has ended, or is ending).
    bool closed() const { return m_fd < 0; }

private:
    // Reads until a reply or an event arrives or `timeout` passes,
    // queueing events; returns the reply, or null.
    nlohmann::json readMessages(std::chrono::milliseconds timeout);
    void send(const nlohmann::json& message);
    void close();

    int m_fd = -1;
    std::string m_partial;
    std::deque<nlohmann::json> m_events;
    std::deque<nlohmann::json> m_replies;
    uint64_t m_nextId = 1;
};

}  // namespace zxblk
