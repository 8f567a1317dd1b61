// The control channel of a running server: a Unix socket beside the NBD
// one on which `zxblk control` (or anyone) tells the served disks what a
// mount's .control file tells a mounted one. A connection sends one line,
//
//     COMMAND [EXPORT]
//
// COMMAND one of mount-complete, metadata-begin, metadata-end, prefetch;
// without EXPORT every disk the server has open, and the server answers
// one line, "ok[: what was done]" or "error: why", and closes it.
#pragma once
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace zxblk {
class Disk;
}

namespace zxblk_plugin {

struct ControlTarget {
    std::string name;  // the export's
    std::shared_ptr<zxblk::Disk> disk;
};
// The disks a command is for: every open one for "", else the export of
// that name (opened if need be); throws std::runtime_error naming what is
// served when there is no such export.
using FindTargets = std::function<std::vector<ControlTarget>(const std::string& exportName)>;

// Runs one command line against the disks `find` gives; the reply line,
// without its line end. `prefetched` hears of each disk told to prefetch,
// with the number of mount extents it recalls.
std::string runControlLine(const std::string& line, const FindTargets& find,
                           const std::function<void(const ControlTarget&, size_t)>& prefetched);

class ControlSocket {
public:
    // Listens at `path` (mode 0600; a socket file left there by a server
    // that is gone is replaced) and answers each connection on a thread of
    // its own, one at a time. Throws std::runtime_error.
    ControlSocket(const std::string& path, std::function<std::string(const std::string&)> answer);
    // Stops listening and removes the socket.
    ~ControlSocket();
    ControlSocket(const ControlSocket&) = delete;
    ControlSocket& operator=(const ControlSocket&) = delete;

private:
    void run();
    std::string m_path;
    std::function<std::string(const std::string&)> m_answer;
    int m_fd = -1;
    int m_wake[2] = {-1, -1};
    std::thread m_thread;
};

}  // namespace zxblk_plugin
