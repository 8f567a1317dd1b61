// net_proxy: a TCP proxy that behaves like a network link, for the S3 tests
// and benches, between a client (zxblk, curl, qemu) and radosgw.
//
//   net_proxy HOST:PORT PORT_FILE [--profile lan|region|wan|none]
//             [--delay-ms MS] [--rate BITS] [--log FILE]
//             [--faults [--seed N] [--stall SECONDS]]
//             [--reset-after-bytes N] [--reset-at SECONDS] [--down-for SECONDS]
//   net_proxy waves LOG [--since T0] [--until T1] [--epoch] [-v]
//
// It listens on a free port of 127.0.0.1, written to PORT_FILE once it
// listens, and forwards each connection to HOST:PORT.
//
// The link. Each direction is one link that every connection shares, as a
// WAN's two directions are: a chunk read from a socket is put on the link
// behind what is already on it (serialised at --rate, k/M/G suffixes,
// bits per second; 0 for no cap), then travels --delay-ms (one way) before
// it is written on, order kept. The link holds a few milliseconds of queue
// at most; beyond that the proxy stops reading and TCP pushes back on the
// sender, as a router's full queue would. A new connection's first bytes
// leave one round trip after it was accepted: the TCP handshake a real link
// would cost. Profiles: lan 0.2 ms and 10 Gbit/s, region 2 ms and 2 Gbit/s,
// wan 10 ms and 1 Gbit/s, none (the default) neither; --delay-ms and --rate
// after a profile change it.
//
// The log (--log FILE): one JSON line per HTTP request seen on the way to the
// server (a keep-alive connection carries several), written when its answer
// has gone back: the connection, the method, the path and query, the Range
// header, whether If-Match or If-None-Match was sent, the status, the bytes
// of the answer (headers and body), and three times in seconds of the
// monotonic clock: t_req when the request's first byte reached the proxy,
// t_first and t_last when the answer's first and last byte were written back
// to the client. Its first line gives the clock: {"clock":"monotonic",
// "mono":M,"epoch":E}, M and E read at the same moment.
//
// Faults (--faults): connections take these fates in turn, so a client that
// retries meets a working one within a few tries:
//   refuse  closed at once, nothing forwarded (every other one with a reset)
//   stall   held open, nothing forwarded, for --stall seconds (default 2:
//           more than the client's request timeout), then closed
//   slow    forwarded after a pause of 0.2 s, cut after 6 MiB in all
//   cut     forwarded, cut after a random 0-1.5 MiB in all (both directions
//           count, so uploads are cut as well as answers), --seed picks them
//   pass    forwarded, cut after 24 MiB in all
// Without --faults every connection passes, whole.
// --reset-after-bytes N and --reset-at S reset every open connection once
// the proxy has carried N bytes (both directions), or S seconds after it
// started; SIGUSR1 does the same at once. With --down-for S, connections
// arriving in the S seconds after such a reset are reset at once, as a
// server restarting would refuse them.
//
// On SIGTERM or SIGINT it prints its counters (connections by fate, bytes
// each way, requests, resets) to standard error and exits.
//
// waves: the number of request waves a program needed, read from a log: a
// request's wave is one more than the highest wave among the requests whose
// answer had fully come back before it began (1 when none had), so the
// highest wave is the number of round trips that had to follow one another.
// --since and --until keep the requests that began between them (times of the
// log's clock, or with --epoch Unix times such as bash's $EPOCHREALTIME);
// -v lists each wave's requests.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int64_t kSecond = 1000000000;
constexpr size_t kReadSize = 256 << 10;
// The link's queue: while more than this much time of bytes waits to be
// serialised, nobody reads more, so the queue (and the latency it adds to
// everyone's answers) stays as short as a router's would.
constexpr int64_t kQueueNs = 2000000;
// Without a cap, what one direction of one connection may hold in flight.
constexpr size_t kPipeCap = 32 << 20;
constexpr size_t kHeaderCap = 64 << 10;

int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * kSecond + ts.tv_nsec;
}

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "net_proxy: %s\n", what.c_str());
    std::exit(2);
}

// A count of bits per second: digits, optionally with a fraction, and k, M
// or G (powers of 1000).
int64_t parseRate(const std::string& s) {
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    double mult = 1;
    std::string rest = end ? end : "";
    if (rest == "k" || rest == "K") mult = 1e3;
    else if (rest == "M" || rest == "m") mult = 1e6;
    else if (rest == "G" || rest == "g") mult = 1e9;
    else if (!rest.empty() || end == s.c_str()) die("--rate wants bits per second such as 500M or 1G, not '" + s + "'");
    if (!(v >= 0) || !std::isfinite(v)) die("--rate wants a figure of 0 or more, not '" + s + "'");
    return int64_t(v * mult);
}

double parseNumber(const std::string& s, const char* what) {
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end || !(v >= 0) || !std::isfinite(v)) die(std::string(what) + " wants a number of 0 or more, not '" + s + "'");
    return v;
}

std::string lower(std::string s) {
    for (char& c : s) c = char(std::tolower((unsigned char)c));
    return s;
}

std::string jsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') out += '\\', out += char(c);
        else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else out += char(c);
    }
    return out + "\"";
}

// One direction's link, shared by every connection.
struct Link {
    int64_t rate = 0;    // bits per second; 0: no cap
    int64_t delay = 0;   // one way, ns
    int64_t freeAt = 0;  // when what is on it now has been serialised
    // When a chunk of n bytes read now leaves the far end.
    int64_t put(int64_t now, int64_t notBefore, size_t n) {
        int64_t start = std::max({now, freeAt, notBefore});
        int64_t end = start;
        if (rate > 0) end += int64_t(double(n) * 8 * kSecond / double(rate));
        if (rate > 0) freeAt = end;
        return end + delay;
    }
    bool full(int64_t now) const { return rate > 0 && freeAt - now > kQueueNs; }
};

// A block of bytes read, not zeroed on the way (reused as is).
struct Buf {
    std::unique_ptr<char[]> bytes;
    size_t cap = 0, len = 0;
    char* data() { return bytes.get(); }
    size_t size() const { return len; }
};

struct Chunk {
    Buf data;
    size_t done = 0;
    int64_t due = 0;
    bool eof = false;
};

// An HTTP message's framing, to tell where one message ends and the next
// begins on a keep-alive connection.
struct Framing {
    enum State { Head, Body, ChunkSize, ChunkData, ChunkCrlf, Trailer, ToClose, Lost } state = Head;
    std::string head;     // header bytes gathered so far
    uint64_t left = 0;    // body or chunk bytes still to come
    std::string line;     // a chunk-size or trailer line gathered so far
};

struct Request {
    uint64_t conn = 0;
    std::string method, target, range;
    bool ifMatch = false, ifNoneMatch = false;
    int64_t tReq = 0, tFirst = -1, tLast = -1;
    int status = 0;
    uint64_t bytes = 0;
};

struct Options {
    std::string host, port, portFile, logPath;
    int64_t delay = 0, rate = 0;
    bool faults = false;
    uint64_t seed = 1;
    double stall = 2.0;
    uint64_t resetAfterBytes = 0;
    double resetAt = -1, downFor = 0;
};

const char* const kFates[] = {"refuse", "stall", "slow", "cut", "pass"};
enum Fate { Refuse, Stall, Slow, Cut, Pass };

struct Conn;

struct Pipe {
    int src = -1, dst = -1;
    bool readable = false, writable = false;
    bool srcEof = false, eofSent = false;
    std::deque<Chunk> queue;
    size_t queued = 0;
    int64_t notBefore = 0;  // no byte leaves before this (the handshake)
    bool cutAfterQueue = false;
    Framing framing;
    bool toServer = false;
};

struct Conn {
    uint64_t id = 0;
    int client = -1, server = -1;
    Fate fate = Pass;
    int64_t startAt = 0;      // slow: when forwarding begins
    int64_t stallUntil = 0;   // stall: when it is closed
    bool started = false;
    uint64_t budget = UINT64_MAX;
    Pipe up, down;            // client to server, server to client
    std::deque<Request> pending;  // requests whose answers have not all gone back
    bool dead = false;
};

class Proxy {
public:
    explicit Proxy(const Options& o) : m_opt(o), m_rng(o.seed) {
        m_up.delay = m_down.delay = o.delay;
        m_up.rate = m_down.rate = o.rate;
    }
    int run();

private:
    void accept();
    void startForwarding(Conn& c);
    bool readInto(Conn& c, Pipe& p, Link& link, int64_t now);
    void writeOut(Conn& c, Pipe& p, int64_t now);
    void parseRequests(Conn& c, const char* data, size_t n, int64_t now);
    void parseAnswers(Conn& c, const char* data, size_t n, int64_t now);
    void endRequest(Conn& c, int64_t now);
    void kill(Conn& c, bool reset);
    void resetAll(int64_t now);
    void logRequest(const Request& r);
    int64_t nextWake(int64_t now);

    Options m_opt;
    std::mt19937_64 m_rng;
    Link m_up, m_down;
    int m_epoll = -1, m_listen = -1, m_signal = -1;
    sockaddr_storage m_target{};
    socklen_t m_targetLen = 0;
    uint64_t m_nextId = 1, m_count = 0;
    std::map<uint64_t, std::unique_ptr<Conn>> m_conns;
    uint64_t m_fates[5] = {0, 0, 0, 0, 0};
    uint64_t m_bytesUp = 0, m_bytesDown = 0, m_requests = 0, m_resets = 0;
    int64_t m_start = 0, m_downUntil = 0;
    // How late the scheduler wakes the proxy, on average: timed wake-ups aim
    // that much early, so that a chunk leaves on time rather than tens of
    // microseconds late (a quarter of the lan profile's delay otherwise).
    int64_t m_early = 0;
    uint64_t m_turn = 0;
    bool m_resetByBytesDone = false, m_resetAtDone = false;
    FILE* m_log = nullptr;
    std::vector<Buf> m_spare;  // read buffers to reuse
};

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

void Proxy::logRequest(const Request& r) {
    if (!m_log) return;
    auto t = [](int64_t ns) {
        if (ns < 0) return std::string("null");
        char buf[32];
        std::snprintf(buf, sizeof buf, "%.6f", double(ns) / kSecond);
        return std::string(buf);
    };
    std::fprintf(m_log,
                 "{\"conn\":%" PRIu64 ",\"method\":%s,\"path\":%s,\"range\":%s,\"if_match\":%s,\"if_none_match\":%s,"
                 "\"status\":%d,\"bytes\":%" PRIu64 ",\"t_req\":%s,\"t_first\":%s,\"t_last\":%s}\n",
                 r.conn, jsonString(r.method).c_str(), jsonString(r.target).c_str(),
                 r.range.empty() ? "null" : jsonString(r.range).c_str(), r.ifMatch ? "true" : "false",
                 r.ifNoneMatch ? "true" : "false", r.status, r.bytes, t(r.tReq).c_str(), t(r.tFirst).c_str(),
                 t(r.tLast).c_str());
    std::fflush(m_log);
}

// Splits a header block into its first line and lower-cased name/value pairs.
void parseHead(const std::string& head, std::string& first, std::map<std::string, std::string>& fields) {
    size_t at = head.find("\r\n");
    first = head.substr(0, at);
    while (at != std::string::npos && at + 2 < head.size()) {
        size_t next = head.find("\r\n", at + 2);
        std::string line = head.substr(at + 2, next == std::string::npos ? std::string::npos : next - at - 2);
        size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string v = line.substr(colon + 1);
            size_t b = v.find_first_not_of(" \t"), e = v.find_last_not_of(" \t");
            fields[lower(line.substr(0, colon))] = b == std::string::npos ? "" : v.substr(b, e - b + 1);
        }
        at = next;
    }
}

// Feeds body bytes through a message's framing; returns how many it took
// and sets done when the message ended within them.
size_t feedBody(Framing& f, const char* data, size_t n, bool& done) {
    size_t used = 0;
    done = false;
    while (used < n && !done) {
        switch (f.state) {
            case Framing::Body: {
                size_t take = size_t(std::min<uint64_t>(f.left, n - used));
                used += take, f.left -= take;
                if (f.left == 0) done = true;
                break;
            }
            case Framing::ChunkSize:
            case Framing::Trailer: {
                char ch = data[used++];
                f.line += ch;
                if (f.line.size() > 4096) { f.state = Framing::Lost; return n; }
                if (f.line.size() >= 2 && f.line.compare(f.line.size() - 2, 2, "\r\n") == 0) {
                    if (f.state == Framing::ChunkSize) {
                        uint64_t size = std::strtoull(f.line.c_str(), nullptr, 16);
                        f.line.clear();
                        if (size == 0) f.state = Framing::Trailer;
                        else f.state = Framing::ChunkData, f.left = size;
                    } else {
                        bool empty = f.line == "\r\n";
                        f.line.clear();
                        if (empty) done = true;
                    }
                }
                break;
            }
            case Framing::ChunkData: {
                size_t take = size_t(std::min<uint64_t>(f.left, n - used));
                used += take, f.left -= take;
                if (f.left == 0) f.state = Framing::ChunkCrlf, f.left = 2;
                break;
            }
            case Framing::ChunkCrlf: {
                size_t take = size_t(std::min<uint64_t>(f.left, n - used));
                used += take, f.left -= take;
                if (f.left == 0) f.state = Framing::ChunkSize;
                break;
            }
            case Framing::ToClose:
            case Framing::Lost:
                return n;
            case Framing::Head:
                return used;
        }
    }
    if (done) f.state = Framing::Head, f.head.clear(), f.line.clear();
    return used;
}

// Sets the body's framing from its headers: a length, chunks, or nothing.
void frameBody(Framing& f, const std::map<std::string, std::string>& fields, bool noBody, bool toClose) {
    auto te = fields.find("transfer-encoding");
    auto cl = fields.find("content-length");
    f.head.clear();
    if (noBody) f.state = Framing::Head;
    else if (te != fields.end() && lower(te->second).find("chunked") != std::string::npos) f.state = Framing::ChunkSize;
    else if (cl != fields.end()) {
        f.left = std::strtoull(cl->second.c_str(), nullptr, 10);
        f.state = f.left ? Framing::Body : Framing::Head;
    } else f.state = toClose ? Framing::ToClose : Framing::Head;
}

void Proxy::parseRequests(Conn& c, const char* data, size_t n, int64_t now) {
    Framing& f = c.up.framing;
    size_t used = 0;
    while (used < n) {
        if (f.state == Framing::Lost || f.state == Framing::ToClose) return;
        if (f.state != Framing::Head) {
            bool done;
            used += feedBody(f, data + used, n - used, done);
            continue;
        }
        if (f.head.empty()) {
            // Stray line ends between messages are allowed; they start nothing.
            if (data[used] == '\r' || data[used] == '\n') { ++used; continue; }
            c.pending.emplace_back();
            c.pending.back().conn = c.id;
            c.pending.back().tReq = now;
        }
        const char* end = static_cast<const char*>(memmem(data + used, n - used, "\r\n\r\n", 4));
        // The terminator may straddle two reads: look again over the seam.
        size_t before = f.head.size();
        f.head.append(data + used, end ? size_t(end - data - used) + 4 : n - used);
        size_t seam = f.head.find("\r\n\r\n", before >= 3 ? before - 3 : 0);
        if (seam == std::string::npos) {
            used = n;
            if (f.head.size() > kHeaderCap) f.state = Framing::Lost;
            return;
        }
        size_t over = f.head.size() - (seam + 4);
        used = (end ? size_t(end - data) + 4 : n) - over;
        f.head.resize(seam + 4);
        std::string first;
        std::map<std::string, std::string> fields;
        parseHead(f.head, first, fields);
        Request& r = c.pending.back();
        size_t sp1 = first.find(' '), sp2 = first.find(' ', sp1 == std::string::npos ? 0 : sp1 + 1);
        r.method = first.substr(0, sp1);
        r.target = sp1 == std::string::npos ? "" : first.substr(sp1 + 1, sp2 == std::string::npos ? std::string::npos : sp2 - sp1 - 1);
        if (fields.count("range")) r.range = fields["range"];
        r.ifMatch = fields.count("if-match") > 0;
        r.ifNoneMatch = fields.count("if-none-match") > 0;
        ++m_requests;
        frameBody(f, fields, false, false);
    }
}

void Proxy::endRequest(Conn& c, int64_t now) {
    if (c.pending.empty()) return;
    Request& r = c.pending.front();
    r.tLast = now;
    logRequest(r);
    c.pending.pop_front();
}

void Proxy::parseAnswers(Conn& c, const char* data, size_t n, int64_t now) {
    Framing& f = c.down.framing;
    size_t used = 0;
    while (used < n) {
        if (f.state == Framing::Lost) return;
        Request* r = c.pending.empty() ? nullptr : &c.pending.front();
        if (f.state != Framing::Head) {
            bool done;
            size_t took = feedBody(f, data + used, n - used, done);
            if (r) r->bytes += took;
            used += took;
            if (done) endRequest(c, now);
            if (f.state == Framing::ToClose) return;
            continue;
        }
        if (!r) { f.state = Framing::Lost; return; }  // an answer nobody asked for
        if (r->tFirst < 0) r->tFirst = now;
        const char* end = static_cast<const char*>(memmem(data + used, n - used, "\r\n\r\n", 4));
        size_t before = f.head.size();
        f.head.append(data + used, end ? size_t(end - data - used) + 4 : n - used);
        size_t seam = f.head.find("\r\n\r\n", before >= 3 ? before - 3 : 0);
        if (seam == std::string::npos) {
            r->bytes += n - used;
            used = n;
            if (f.head.size() > kHeaderCap) f.state = Framing::Lost;
            return;
        }
        size_t over = f.head.size() - (seam + 4);
        size_t next = (end ? size_t(end - data) + 4 : n) - over;
        r->bytes += next - used;
        used = next;
        f.head.resize(seam + 4);
        std::string first;
        std::map<std::string, std::string> fields;
        parseHead(f.head, first, fields);
        size_t sp = first.find(' ');
        int status = sp == std::string::npos ? 0 : std::atoi(first.c_str() + sp + 1);
        if (status >= 100 && status < 200) {  // an interim answer (100 Continue): the real one follows
            f.head.clear();
            continue;
        }
        r->status = status;
        bool noBody = r->method == "HEAD" || status == 204 || status == 304;
        frameBody(f, fields, noBody, true);
        if (f.state == Framing::Head) endRequest(c, now);
    }
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

    if (!m_opt.logPath.empty()) {
        m_log = std::fopen(m_opt.logPath.c_str(), "w");
        if (!m_log) die("cannot write " + m_opt.logPath + ": " + std::strerror(errno));
        timespec real;
        clock_gettime(CLOCK_REALTIME, &real);
        int64_t mono = nowNs();
        std::fprintf(m_log, "{\"clock\":\"monotonic\",\"mono\":%.6f,\"epoch\":%.6f}\n", double(mono) / kSecond,
                     double(real.tv_sec) + real.tv_nsec / 1e9);
        std::fflush(m_log);
    }

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

// --- waves --------------------------------------------------------------------

double field(const std::string& line, const char* key, bool& present) {
    std::string k = std::string("\"") + key + "\":";
    size_t at = line.find(k);
    present = false;
    if (at == std::string::npos) return 0;
    const char* p = line.c_str() + at + k.size();
    if (std::strncmp(p, "null", 4) == 0) return 0;
    char* end;
    double v = std::strtod(p, &end);
    present = end != p;
    return v;
}

std::string textField(const std::string& line, const char* key) {
    std::string k = std::string("\"") + key + "\":\"";
    size_t at = line.find(k);
    if (at == std::string::npos) return "";
    std::string out;
    for (size_t i = at + k.size(); i < line.size() && line[i] != '"'; ++i) {
        if (line[i] == '\\' && i + 1 < line.size()) ++i;
        out += line[i];
    }
    return out;
}

int waves(int argc, char** argv) {
    std::string path;
    double since = -INFINITY, until = INFINITY;
    bool epoch = false, verbose = false;
    for (int i = 0; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char* what) {
            if (i + 1 >= argc) die(std::string(what) + " needs a value");
            return std::string(argv[++i]);
        };
        if (a == "--since") since = parseNumber(value("--since"), "--since");
        else if (a == "--until") until = parseNumber(value("--until"), "--until");
        else if (a == "--epoch") epoch = true;
        else if (a == "-v") verbose = true;
        else if (!a.empty() && a[0] == '-') die("waves: unknown option " + a);
        else if (path.empty()) path = a;
        else die("waves: one log only");
    }
    if (path.empty()) die("usage: net_proxy waves LOG [--since T0] [--until T1] [--epoch] [-v]");
    std::ifstream in(path);
    if (!in) die("cannot read " + path);
    struct R { double req, last; std::string text; int wave = 0; };
    std::vector<R> rs;
    std::string line;
    double offset = 0;  // epoch minus monotonic
    bool haveClock = false;
    while (std::getline(in, line)) {
        bool p1, p2;
        if (line.find("\"clock\":") != std::string::npos) {
            double mono = field(line, "mono", p1), ep = field(line, "epoch", p2);
            if (p1 && p2) offset = ep - mono, haveClock = true;
            continue;
        }
        double req = field(line, "t_req", p1), last = field(line, "t_last", p2);
        if (!p1) die(path + ": a line without t_req: " + line);
        rs.push_back({req, p2 ? last : INFINITY,
                      std::to_string(int(field(line, "conn", p1))) + " " + textField(line, "method") + " " +
                          textField(line, "path") + (textField(line, "range").empty() ? "" : " " + textField(line, "range"))});
    }
    if (epoch) {
        if (!haveClock) die(path + " has no clock line: --epoch cannot be used");
        since -= offset, until -= offset;
    }
    rs.erase(std::remove_if(rs.begin(), rs.end(), [&](const R& r) { return r.req < since || r.req > until; }), rs.end());
    std::sort(rs.begin(), rs.end(), [](const R& a, const R& b) { return a.req < b.req; });
    int top = 0;
    for (size_t i = 0; i < rs.size(); ++i) {
        int w = 0;
        for (size_t j = 0; j < i; ++j)
            if (rs[j].last <= rs[i].req) w = std::max(w, rs[j].wave);
        rs[i].wave = w + 1;
        top = std::max(top, rs[i].wave);
    }
    std::printf("%d\n", top);
    if (verbose) {
        for (int w = 1; w <= top; ++w) {
            std::printf("wave %d:\n", w);
            for (const R& r : rs)
                if (r.wave == w) std::printf("  %.6f %s\n", r.req + (epoch ? offset : 0), r.text.c_str());
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc >= 2 && std::string(argv[1]) == "waves") return waves(argc - 2, argv + 2);
    Options o;
    std::vector<std::string> positional;
    bool delaySet = false, rateSet = false;
    double delayMs = 0;
    int64_t rate = 0;
    std::string profile = "none";
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() {
            if (i + 1 >= argc) die(a + " needs a value");
            return std::string(argv[++i]);
        };
        if (a == "--profile") profile = value();
        else if (a == "--delay-ms") delayMs = parseNumber(value(), "--delay-ms"), delaySet = true;
        else if (a == "--rate") rate = parseRate(value()), rateSet = true;
        else if (a == "--log") o.logPath = value();
        else if (a == "--faults") o.faults = true;
        else if (a == "--seed") o.seed = uint64_t(parseNumber(value(), "--seed"));
        else if (a == "--stall") o.stall = parseNumber(value(), "--stall");
        else if (a == "--reset-after-bytes") o.resetAfterBytes = uint64_t(parseNumber(value(), "--reset-after-bytes"));
        else if (a == "--reset-at") o.resetAt = parseNumber(value(), "--reset-at");
        else if (a == "--down-for") o.downFor = parseNumber(value(), "--down-for");
        else if (a == "-h" || a == "--help") {
            std::printf("usage: net_proxy HOST:PORT PORT_FILE [--profile lan|region|wan|none] [--delay-ms MS] [--rate BITS]\n"
                        "                 [--log FILE] [--faults [--seed N] [--stall S]] [--reset-after-bytes N]\n"
                        "                 [--reset-at S] [--down-for S]\n"
                        "       net_proxy waves LOG [--since T0] [--until T1] [--epoch] [-v]\n");
            return 0;
        } else if (!a.empty() && a[0] == '-') die("unknown option " + a + " (--help lists them)");
        else positional.push_back(a);
    }
    if (positional.size() != 2) die("usage: net_proxy HOST:PORT PORT_FILE [options] (--help lists them)");
    struct Profile { const char* name; double delayMs; int64_t rate; };
    const Profile profiles[] = {{"none", 0, 0}, {"lan", 0.2, 10000000000}, {"region", 2, 2000000000}, {"wan", 10, 1000000000}};
    const Profile* pr = nullptr;
    for (const Profile& p : profiles)
        if (profile == p.name) pr = &p;
    if (!pr) die("--profile is one of lan, region, wan, none, not '" + profile + "'");
    o.delay = int64_t((delaySet ? delayMs : pr->delayMs) * 1e6);
    o.rate = rateSet ? rate : pr->rate;
    size_t colon = positional[0].rfind(':');
    if (colon == std::string::npos || colon == 0) die("the target is HOST:PORT, not '" + positional[0] + "'");
    o.host = positional[0].substr(0, colon), o.port = positional[0].substr(colon + 1);
    o.portFile = positional[1];
    return Proxy(o).run();
}
