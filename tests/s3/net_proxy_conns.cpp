// net_proxy's connections: each one accepted takes its fate (--faults:
// refused, stalled, slow, cut or passed whole; or refused at once while the
// server is down after a reset), is connected to the server when its
// forwarding begins, and ends with an orderly close or a reset. A reset of
// every open connection (--reset-after-bytes, --reset-at, SIGUSR1) is here.
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "net_proxy.h"

namespace net_proxy {
namespace {

void setNonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

void closeFd(int& fd, bool reset) {
    if (fd < 0) return;
    if (reset) {
        // SO_LINGER 0: the peer sees a reset rather than an orderly end.
        linger l{1, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
    }
    close(fd);
    fd = -1;
}

}  // namespace

void Proxy::kill(Conn& c, bool reset) {
    if (c.dead) return;
    // Requests cut off before their answers ended are logged without an end.
    for (Request& r : c.pending) {
        r.tLast = -1;
        logRequest(r);
    }
    c.pending.clear();
    if (c.client >= 0) epoll_ctl(m_epoll, EPOLL_CTL_DEL, c.client, nullptr);
    if (c.server >= 0) epoll_ctl(m_epoll, EPOLL_CTL_DEL, c.server, nullptr);
    closeFd(c.client, reset);
    closeFd(c.server, reset);
    c.dead = true;
}

void Proxy::resetAll(int64_t now) {
    ++m_resets;
    for (auto& [id, c] : m_conns) kill(*c, true);
    if (m_opt.downFor > 0) m_downUntil = now + int64_t(m_opt.downFor * kSecond);
}

void Proxy::accept() {
    for (;;) {
        int fd = accept4(m_listen, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) return;
        int64_t now = nowNs();
        auto c = std::make_unique<Conn>();
        c->id = m_nextId++;
        c->client = fd;
        int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        if (now < m_downUntil) {  // the server is "restarting"
            closeFd(fd, true);
            ++m_fates[Refuse];
            continue;
        }
        c->fate = m_opt.faults ? Fate(m_count % 5) : Pass;
        ++m_fates[c->fate];
        uint64_t n = m_count++;
        if (c->fate == Refuse) {
            closeFd(c->client, (n / 5) % 2 == 1);
            continue;
        }
        epoll_event ev{};
        ev.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
        ev.data.u64 = c->id << 1;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev);
        if (c->fate == Stall) c->stallUntil = now + int64_t(m_opt.stall * kSecond);
        c->startAt = c->fate == Slow ? now + kSecond / 5 : now;
        if (m_opt.faults) {
            if (c->fate == Slow) c->budget = 6 << 20;
            if (c->fate == Cut) c->budget = std::uniform_int_distribution<uint64_t>(0, 3 << 19)(m_rng);
            if (c->fate == Pass) c->budget = 24 << 20;
        }
        // The request cannot leave before a handshake's round trip.
        c->up.notBefore = now + 2 * m_opt.delay;
        c->up.toServer = true;
        m_conns[c->id] = std::move(c);
    }
}

void Proxy::startForwarding(Conn& c) {
    c.started = true;
    int fd = socket(m_target.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // A loopback connect completes (or is refused) at once.
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&m_target), m_targetLen) != 0) {
        if (fd >= 0) close(fd);
        kill(c, true);
        return;
    }
    setNonBlocking(fd);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    c.server = fd;
    epoll_event ev{};
    ev.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    ev.data.u64 = (c.id << 1) | 1;
    epoll_ctl(m_epoll, EPOLL_CTL_ADD, fd, &ev);
    c.up.src = c.client, c.up.dst = c.server;
    c.down.src = c.server, c.down.dst = c.client;
    c.up.readable = true, c.down.readable = true, c.down.writable = true, c.up.writable = true;
}

}  // namespace net_proxy
