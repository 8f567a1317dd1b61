#include "serve_net.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <poll.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "zxblk/zxblk.h"

namespace zxblk {
namespace {

Error systemError(const std::string& what, ErrorKind kind = ErrorKind::io) {
    return Error(what + ": " + std::strerror(errno), kind);
}

// The user name of the first key of a PSK file ("name:hexkey" lines), for
// the URI: a client offers the name its URI gives.
std::string pskUser(const std::string& file) {
    std::ifstream in(file);
    if (!in) throw systemError("--tls-psk " + file, ErrorKind::notFound);
    std::string line;
    std::getline(in, line);
    size_t colon = line.find(':');
    if (colon == 0 || colon == std::string::npos || colon + 1 == line.size() ||
        line.find_first_not_of("0123456789abcdefABCDEF", colon + 1) != std::string::npos)
        throw Error("--tls-psk " + file + ": not a PSK file (its first line should be USERNAME:HEXKEY)",
                    ErrorKind::invalidArgument);
    return line.substr(0, colon);
}

// Percent-encodes what a URI path or query may not hold as it is.
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

// A Unix socket at `path`, mode 0600. A socket file nobody listens on any
// more (a server that was killed) is replaced; anything else is refused.
void listenUnix(const std::string& path, Listener& l) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path)
        throw Error("--socket " + path + ": too long for a Unix socket (at most " +
                        std::to_string(sizeof addr.sun_path - 1) + " bytes)",
                    ErrorKind::invalidArgument);
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    struct stat st;
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode))
            throw Error("--socket " + path + ": exists and is not a socket", ErrorKind::invalidArgument);
        int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bool live = probe >= 0 && ::connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
        if (probe >= 0) ::close(probe);
        if (live) throw Error("--socket " + path + ": another server is listening there", ErrorKind::busy);
        ::unlink(path.c_str());
    }
    l.fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (l.fd < 0) throw systemError("socket");
    mode_t old = ::umask(0177);
    int rc = ::bind(l.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::umask(old);
    if (rc != 0) throw systemError("--socket " + path);
    l.socketPath = path;
}

bool isLoopback(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr) >> 24) == 127;
    const in6_addr& v6 = reinterpret_cast<const sockaddr_in6&>(a).sin6_addr;
    return IN6_IS_ADDR_LOOPBACK(&v6) || (IN6_IS_ADDR_V4MAPPED(&v6) && v6.s6_addr[12] == 127);
}

bool isWildcard(const sockaddr_storage& a) {
    if (a.ss_family == AF_INET) return reinterpret_cast<const sockaddr_in&>(a).sin_addr.s_addr == htonl(INADDR_ANY);
    return IN6_IS_ADDR_UNSPECIFIED(&reinterpret_cast<const sockaddr_in6&>(a).sin6_addr);
}

void listenTcp(const ListenOptions& o, Listener& l) {
    sockaddr_storage addr{};
    socklen_t len;
    auto* v4 = reinterpret_cast<sockaddr_in*>(&addr);
    auto* v6 = reinterpret_cast<sockaddr_in6*>(&addr);
    if (inet_pton(AF_INET, o.bind.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(static_cast<uint16_t>(o.port));
        len = sizeof *v4;
    } else if (inet_pton(AF_INET6, o.bind.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(static_cast<uint16_t>(o.port));
        len = sizeof *v6;
    } else {
        throw Error("--bind " + o.bind + ": not an IPv4 or IPv6 address", ErrorKind::invalidArgument);
    }
    // Anyone who reaches the port could read the disks, and write the overlay.
    if (!isLoopback(addr) && o.tlsPsk.empty())
        throw Error("refusing to serve on " + o.bind +
                        " without TLS: anyone who can reach it could read the disks; give --tls-psk FILE, or "
                        "--bind 127.0.0.1",
                    ErrorKind::invalidArgument);
    l.fd = ::socket(addr.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (l.fd < 0) throw systemError("socket");
    int one = 1;
    ::setsockopt(l.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(l.fd, reinterpret_cast<sockaddr*>(&addr), len) != 0)
        throw systemError("cannot listen on " + o.bind + " port " + std::to_string(o.port), ErrorKind::busy);
    sockaddr_storage got{};
    socklen_t gotLen = sizeof got;
    ::getsockname(l.fd, reinterpret_cast<sockaddr*>(&got), &gotLen);
    l.port = ntohs(got.ss_family == AF_INET ? reinterpret_cast<sockaddr_in&>(got).sin_port
                                            : reinterpret_cast<sockaddr_in6&>(got).sin6_port);
    // A wildcard address is reached here through loopback.
    l.host = isWildcard(addr) ? (addr.ss_family == AF_INET ? "127.0.0.1" : "::1") : o.bind;
    if (addr.ss_family == AF_INET6) l.host = "[" + l.host + "]";
}

}  // namespace

Listener openListener(const ListenOptions& o) {
    Listener l;
    if (!o.tlsPsk.empty()) l.user = pskUser(o.tlsPsk);
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    std::string dir = std::string(runtime && *runtime ? runtime : "/tmp") + "/zxblk-serve-XXXXXX";
    if (!::mkdtemp(&dir[0])) throw systemError("cannot make a folder for the server under " + dir);
    l.privateDir = dir;
    try {
        if (o.port >= 0)
            listenTcp(o, l);
        else
            listenUnix(o.socketPath.empty() ? dir + "/nbd.sock" : o.socketPath, l);
        if (::listen(l.fd, SOMAXCONN) != 0) throw systemError("listen");
        // Found from the NBD socket's path where it fits a Unix socket's address.
        l.controlPath = dir + "/control.sock";
        if (!l.socketPath.empty() && l.socketPath.size() + 8 < sizeof(sockaddr_un::sun_path))
            l.controlPath = l.socketPath + ".control";
    } catch (...) {
        if (l.fd >= 0) ::close(l.fd);
        if (!l.socketPath.empty()) ::unlink(l.socketPath.c_str());
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
        throw;
    }
    return l;
}

void removeListener(const Listener& l) {
    if (!l.socketPath.empty()) ::unlink(l.socketPath.c_str());
    // nbdkit removes the control socket as it ends; not when it was killed.
    if (!l.controlPath.empty()) ::unlink(l.controlPath.c_str());
    std::error_code ec;
    std::filesystem::remove_all(l.privateDir, ec);
}

std::string exportUri(const ListenOptions& o, const Listener& l, const std::string& exportName) {
    const bool tls = !o.tlsPsk.empty();
    std::string user = tls ? uriEscape(l.user) + "@" : std::string();
    std::string uri;
    if (o.port >= 0)
        uri = std::string(tls ? "nbds://" : "nbd://") + user + l.host + ":" + std::to_string(l.port) + "/" +
              uriEscape(exportName);
    else
        uri = std::string(tls ? "nbds+unix://" : "nbd+unix://") + user + "/" + uriEscape(exportName) +
              "?socket=" + uriEscape(l.socketPath);
    if (tls) uri += std::string(o.port >= 0 ? "?" : "&") + "tls-psk-file=" + uriEscape(o.tlsPsk);
    return uri;
}

std::string guestfsUri(const ListenOptions& o, const Listener& l, const std::string& exportName) {
    if (o.port >= 0 || !o.tlsPsk.empty()) return std::string();
    return (exportName.empty() ? std::string("nbd://") : "nbd:///" + uriEscape(exportName)) +
           "?socket=" + uriEscape(l.socketPath);
}

std::string findControlSocket(const std::string& given) {
    std::string path = given;
    // The URI serve prints: its socket= parameter, percent-decoded.
    size_t at = given.find("socket=");
    if (given.compare(0, 6, "nbd+un") == 0 || given.compare(0, 7, "nbds+un") == 0) {
        if (at == std::string::npos) throw Error(given + ": the URI names no socket", ErrorKind::invalidArgument);
        std::string raw = given.substr(at + 7, given.find('&', at) - at - 7);
        path.clear();
        for (size_t i = 0; i < raw.size(); ++i) {
            if (raw[i] == '%' && i + 2 < raw.size() && std::isxdigit(static_cast<unsigned char>(raw[i + 1])) &&
                std::isxdigit(static_cast<unsigned char>(raw[i + 2]))) {
                path += static_cast<char>(std::stoi(raw.substr(i + 1, 2), nullptr, 16));
                i += 2;
            } else {
                path += raw[i];
            }
        }
    }
    struct stat st;
    auto isSocket = [&](const std::string& p) { return ::stat(p.c_str(), &st) == 0 && S_ISSOCK(st.st_mode); };
    if (isSocket(path + ".control")) return path + ".control";
    if (::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        for (const char* name : {"/nbd.sock.control", "/control.sock"})
            if (isSocket(path + name)) return path + name;
        throw Error(path + ": no zxblk server's control socket in this folder", ErrorKind::notFound);
    }
    if (!isSocket(path))
        throw Error(path + (::stat(path.c_str(), &st) == 0 ? ": not a socket" : ": no such socket"),
                    ErrorKind::notFound);
    return path;
}

std::string sendControl(const std::string& controlSocket, const std::string& line) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (controlSocket.size() >= sizeof addr.sun_path)
        throw Error(controlSocket + ": too long for a Unix socket", ErrorKind::invalidArgument);
    std::memcpy(addr.sun_path, controlSocket.c_str(), controlSocket.size() + 1);
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) throw systemError("socket");
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0)
        throw Error(controlSocket + ": no server answers there (" + std::strerror(errno) + ")", ErrorKind::unavailable);
    std::string request = line + "\n";
    if (::send(fd, request.data(), request.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(request.size()))
        throw systemError(controlSocket);
    // A phase waits for the recalls under way; a store far away may take a
    // while, but a server that says nothing at all is not one of ours.
    std::string reply;
    char buf[512];
    while (reply.find('\n') == std::string::npos && reply.size() < 8192) {
        pollfd p = {fd, POLLIN, 0};
        int r = ::poll(&p, 1, 120000);
        if (r < 0 && errno == EINTR) continue;
        if (r == 0) throw Error(controlSocket + ": the server did not answer within 120 s", ErrorKind::unavailable);
        ssize_t n = ::read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        reply.append(buf, static_cast<size_t>(n));
    }
    reply = reply.substr(0, reply.find('\n'));
    if (reply == "ok") return std::string();
    if (reply.compare(0, 4, "ok: ") == 0) return reply.substr(4);
    if (reply.compare(0, 7, "error: ") == 0) throw Error(reply.substr(7), ErrorKind::invalidArgument);
    throw Error(controlSocket + " is not the control socket of a zxblk server (give the one zxblk serve printed)",
                ErrorKind::invalidArgument);
}

}  // namespace zxblk
