// Where `zxblk serve` listens, and the URIs of its exports there.
#pragma once
#include <string>

namespace zxblk {

struct ListenOptions {
    std::string socketPath;         // empty: one in a private folder
    std::string bind = "127.0.0.1";
    int port = -1;                  // -1: a Unix socket
    std::string tlsPsk;             // the PSK file; empty: no TLS
};

struct Listener {
    int fd = -1;
    std::string socketPath, privateDir;
    // The server's control channel (zxblk control): beside a Unix socket,
    // SOCKET.control; of a TCP port, in the private folder.
    std::string controlPath;
    std::string host;  // of a TCP port, as a URI names it: "127.0.0.1", "[::1]"
    int port = 0;
    std::string user;  // the TLS user, from the PSK file
};

// Listens on a Unix socket of mode 0600 (a stale one of a killed server is
// replaced, a live one refused) or a TCP port, in a private folder made for
// the server under $XDG_RUNTIME_DIR or /tmp. A non-loopback address needs
// TLS. Throws Error, leaving nothing behind.
Listener openListener(const ListenOptions& options);
// Removes the sockets and the private folder.
void removeListener(const Listener& listener);

// The URI of an export as libnbd's tools take it: nbd+unix:///EXPORT?socket=
// or nbd://HOST:PORT/EXPORT, nbds... with TLS.
std::string exportUri(const ListenOptions& options, const Listener& listener, const std::string& exportName);
// The same as libguestfs takes it, where it differs (a Unix socket without
// TLS: nbd:///EXPORT?socket=); "" where it is the same or libguestfs cannot
// connect (TLS).
std::string guestfsUri(const ListenOptions& options, const Listener& listener, const std::string& exportName);

// The control socket of a running server from what a user has at hand:
// the NBD socket (SOCKET.control beside it), the control socket itself, an
// nbd+unix:// URI, or the server's private folder.
std::string findControlSocket(const std::string& given);
// Sends one line ("mount-complete", "prefetch DISK", ...) to a server's
// control socket; what the server did, as it says it. Throws Error with its
// reason when it refuses, or when nothing there answers as one.
std::string sendControl(const std::string& controlSocket, const std::string& line);

}  // namespace zxblk
