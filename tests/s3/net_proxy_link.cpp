// net_proxy's link at work, and the loop that drives it: bytes read from a
// connection are put on the link of their direction behind what is already
// on it (the shared rate cap), wait out the delay and are written on in
// order; the connections are read in turn, a chunk each, so that they share
// the link as TCP flows share a bottleneck. run() sets up the listening
// socket, the signals and the log, then loops until SIGTERM or SIGINT.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <ctime>
#include <fstream>

#include "net_proxy.h"

namespace net_proxy {

bool Proxy::readInto(Conn& c, Pipe& p, Link& link, int64_t now) {
    // One chunk at most: the caller takes the connections in turn, so that
    // they share the link as TCP flows share a bottleneck, rather than the
    // first one taking every opening of the queue.
    if (p.readable && !p.srcEof && !p.cutAfterQueue && !c.dead) {
        if (link.full(now) || (link.rate == 0 && p.queued >= kPipeCap)) return false;
        Buf buf;
        if (!m_spare.empty()) buf = std::move(m_spare.back()), m_spare.pop_back();
        else buf.bytes.reset(new char[kReadSize]), buf.cap = kReadSize;
        ssize_t n = read(p.src, buf.data(), buf.cap);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) p.readable = false;
            else if (errno != EINTR) kill(c, true);
            m_spare.push_back(std::move(buf));
            return false;
        }
        if (n == 0) {
            p.srcEof = true;
            Chunk eof;
            eof.eof = true;
            eof.due = std::max(p.queue.empty() ? 0 : p.queue.back().due, now + link.delay);
            p.queue.push_back(std::move(eof));
            m_spare.push_back(std::move(buf));
            return true;
        }
        size_t got = size_t(n);
        if (got >= c.budget) {  // this fate's bytes run out here: the rest is cut
            got = size_t(c.budget);
            p.cutAfterQueue = true;
        }
        c.budget -= c.budget == UINT64_MAX ? 0 : got;
        if (p.toServer) parseRequests(c, buf.data(), got, now);
        Chunk ch;
        if (got < (16 << 10)) {
            // Small reads (requests, headers) take little room while queued.
            ch.data.bytes.reset(new char[got ? got : 1]), ch.data.cap = got;
            std::memcpy(ch.data.data(), buf.data(), got);
            ch.data.len = got;
            m_spare.push_back(std::move(buf));
        } else {
            buf.len = got;
            ch.data = std::move(buf);
        }
        ch.due = link.put(now, p.notBefore, got);
        p.queued += got;
        p.queue.push_back(std::move(ch));
        if (p.cutAfterQueue) {
            // The other direction shares the budget: it ends too.
            Pipe& other = &p == &c.up ? c.down : c.up;
            other.cutAfterQueue = true;
        }
        return true;
    }
    return false;
}

void Proxy::writeOut(Conn& c, Pipe& p, int64_t now) {
    while (!p.queue.empty() && !c.dead) {
        Chunk& ch = p.queue.front();
        if (ch.due > now + m_early) return;
        if (ch.eof) {
            // An answer that runs until the connection closes ends here.
            if (!p.toServer && p.framing.state == Framing::ToClose) endRequest(c, now);
            shutdown(p.dst, SHUT_WR);
            p.eofSent = true;
            p.queue.pop_front();
            continue;
        }
        if (!p.writable) return;
        ssize_t n = send(p.dst, ch.data.data() + ch.done, ch.data.size() - ch.done, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) { p.writable = false; return; }
            if (errno == EINTR) continue;
            kill(c, true);
            return;
        }
        if (!p.toServer) parseAnswers(c, ch.data.data() + ch.done, size_t(n), now);
        (p.toServer ? m_bytesUp : m_bytesDown) += uint64_t(n);
        ch.done += size_t(n);
        if (ch.done == ch.data.size()) {
            p.queued -= ch.data.size();
            if (ch.data.cap == kReadSize && m_spare.size() < 64) m_spare.push_back(std::move(ch.data));
            p.queue.pop_front();
        }
    }
    if (p.queue.empty() && p.cutAfterQueue) kill(c, true);
}

int64_t Proxy::nextWake(int64_t now) {
    int64_t wake = now + kSecond;
    for (auto& [id, cp] : m_conns) {
        Conn& c = *cp;
        if (!c.started) {
            wake = std::min(wake, c.fate == Stall ? c.stallUntil : c.startAt);
            continue;
        }
        for (Pipe* p : {&c.up, &c.down}) {
            if (!p->queue.empty() && (p->writable || p->queue.front().eof)) wake = std::min(wake, p->queue.front().due);
            if (p->readable && !p->srcEof) {
                Link& l = p == &c.up ? m_up : m_down;
                if (l.full(now)) wake = std::min(wake, l.freeAt - kQueueNs);
            }
        }
    }
    if (m_opt.resetAt >= 0 && !m_resetAtDone) wake = std::min(wake, m_start + int64_t(m_opt.resetAt * kSecond));
    return std::max(wake - m_early, now);
}

int Proxy::run() {
    // Wake-ups on time to the microsecond: the default slack of 50 us would
    // be a quarter of the lan profile's delay.
    prctl(PR_SET_TIMERSLACK, 1UL);
    addrinfo hints{}, *res = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    int rc = getaddrinfo(m_opt.host.c_str(), m_opt.port.c_str(), &hints, &res);
    if (rc != 0 || !res) die("cannot resolve " + m_opt.host + ":" + m_opt.port + ": " + gai_strerror(rc));
    std::memcpy(&m_target, res->ai_addr, res->ai_addrlen);
    m_targetLen = res->ai_addrlen;
    freeaddrinfo(res);

    openLog();

    m_listen = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(m_listen, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(m_listen, 512) != 0 ||
        getsockname(m_listen, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
        die(std::string("cannot listen on 127.0.0.1: ") + std::strerror(errno));

    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGTERM), sigaddset(&sigs, SIGINT), sigaddset(&sigs, SIGUSR1);
    sigprocmask(SIG_BLOCK, &sigs, nullptr);
    signal(SIGPIPE, SIG_IGN);
    m_signal = signalfd(-1, &sigs, SFD_NONBLOCK | SFD_CLOEXEC);

    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = ~uint64_t(0);
    epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_listen, &ev);
    ev.data.u64 = ~uint64_t(0) - 1;
    epoll_ctl(m_epoll, EPOLL_CTL_ADD, m_signal, &ev);

    // Renamed into place, so a reader never sees half a number.
    std::string tmp = m_opt.portFile + ".tmp";
    {
        std::ofstream f(tmp);
        f << ntohs(addr.sin_port);
        if (!f) die("cannot write " + tmp);
    }
    if (std::rename(tmp.c_str(), m_opt.portFile.c_str()) != 0) die("cannot write " + m_opt.portFile);
    m_start = nowNs();

    std::vector<epoll_event> events(256);
    for (;;) {
        int64_t now = nowNs();
        int64_t wake = nextWake(now);
        timespec ts{time_t((wake - now) / kSecond), long((wake - now) % kSecond)};
        int n = epoll_pwait2(m_epoll, events.data(), int(events.size()), &ts, nullptr);
        if (n < 0 && errno != EINTR) die(std::string("epoll: ") + std::strerror(errno));
        if (n == 0 && wake > now) {
            int64_t late = std::clamp<int64_t>(nowNs() - wake, 0, std::min<int64_t>(100000, m_opt.delay / 4));
            m_early = (m_early * 15 + late) / 16;
        }
        for (int i = 0; i < n; ++i) {
            uint64_t key = events[size_t(i)].data.u64;
            if (key == ~uint64_t(0)) { accept(); continue; }
            if (key == ~uint64_t(0) - 1) {
                signalfd_siginfo si;
                while (read(m_signal, &si, sizeof si) == sizeof si) {
                    if (si.ssi_signo == SIGUSR1) { resetAll(nowNs()); continue; }
                    std::fprintf(stderr, "net_proxy: connections");
                    for (int f = 0; f < 5; ++f) std::fprintf(stderr, " %s=%" PRIu64, kFates[f], m_fates[f]);
                    std::fprintf(stderr, "; bytes up=%" PRIu64 " down=%" PRIu64 "; requests=%" PRIu64 "; resets=%" PRIu64 "\n",
                                 m_bytesUp, m_bytesDown, m_requests, m_resets);
                    for (auto& [id, c] : m_conns) kill(*c, false);
                    if (m_log) std::fclose(m_log);
                    return 0;
                }
                continue;
            }
            auto it = m_conns.find(key >> 1);
            if (it == m_conns.end()) continue;
            Conn& c = *it->second;
            uint32_t e = events[size_t(i)].events;
            bool serverSide = key & 1;
            bool in = e & (EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR), out = e & (EPOLLOUT | EPOLLHUP | EPOLLERR);
            if (serverSide) {
                if (in) c.down.readable = true;
                if (out) c.up.writable = true;
            } else {
                if (in) c.up.readable = true;
                if (out) c.down.writable = true;
            }
        }
        now = nowNs();
        if (m_opt.resetAt >= 0 && !m_resetAtDone && now >= m_start + int64_t(m_opt.resetAt * kSecond)) {
            m_resetAtDone = true;
            resetAll(now);
        }
        for (auto it = m_conns.begin(); it != m_conns.end();) {
            Conn& c = *it->second;
            if (!c.dead && !c.started) {
                if (c.fate == Stall) {
                    if (now >= c.stallUntil) kill(c, false);
                } else if (now >= c.startAt) {
                    startForwarding(c);
                }
            }
            if (!c.dead && c.started) writeOut(c, c.up, now);
            if (!c.dead && c.started) writeOut(c, c.down, now);
            ++it;
        }
        // Reads, a chunk per pipe per pass, the connections in turn from a
        // starting point that moves on each time.
        std::vector<Conn*> order;
        for (auto& [id, cp] : m_conns)
            if (!cp->dead && cp->started) order.push_back(cp.get());
        if (!order.empty()) std::rotate(order.begin(), order.begin() + long(m_turn++ % order.size()), order.end());
        for (int pass = 0; pass < 64; ++pass) {
            bool moved = false;
            for (Conn* c : order) {
                for (Pipe* p : {&c->up, &c->down}) {
                    if (c->dead || !readInto(*c, *p, p == &c->up ? m_up : m_down, now)) continue;
                    moved = true;
                    writeOut(*c, *p, now);  // a chunk read now with no delay is due now
                }
            }
            if (!moved) break;
        }
        for (auto it = m_conns.begin(); it != m_conns.end();) {
            Conn& c = *it->second;
            if (!c.dead && c.started && c.up.eofSent && c.down.eofSent) kill(c, false);
            if (c.dead) it = m_conns.erase(it);
            else ++it;
        }
        if (m_opt.resetAfterBytes && !m_resetByBytesDone && m_bytesUp + m_bytesDown >= m_opt.resetAfterBytes) {
            m_resetByBytesDone = true;
            resetAll(now);
            for (auto it = m_conns.begin(); it != m_conns.end();) it = it->second->dead ? m_conns.erase(it) : std::next(it);
        }
    }
}

}  // namespace net_proxy
