// net_proxy's pieces share these: the link each direction's bytes go over,
// the connections with their pipes, the HTTP requests seen on them, the
// options, and the Proxy that runs it all. What each piece does is in its
// own file; the whole program is described in net_proxy.cpp.
#pragma once
#include <sys/socket.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace net_proxy {

constexpr int64_t kSecond = 1000000000;
constexpr size_t kReadSize = 256 << 10;
// The link's queue: while more than this much time of bytes waits to be
// serialised, nobody reads more, so the queue (and the latency it adds to
// everyone's answers) stays as short as a router's would.
constexpr int64_t kQueueNs = 2000000;
// Without a cap, what one direction of one connection may hold in flight.
constexpr size_t kPipeCap = 32 << 20;

// The monotonic clock, in ns.
int64_t nowNs();
// Says what went wrong on standard error and exits with code 2.
[[noreturn]] void die(const std::string& what);
// A number of 0 or more, or die naming the option WHAT.
double parseNumber(const std::string& s, const char* what);

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

inline constexpr const char* kFates[] = {"refuse", "stall", "slow", "cut", "pass"};
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
    // The connections, their fates and resets (net_proxy_conns.cpp).
    void accept();
    void startForwarding(Conn& c);
    void kill(Conn& c, bool reset);
    void resetAll(int64_t now);
    // The link (net_proxy_link.cpp; run() is there too).
    bool readInto(Conn& c, Pipe& p, Link& link, int64_t now);
    void writeOut(Conn& c, Pipe& p, int64_t now);
    int64_t nextWake(int64_t now);
    // The request log (net_proxy_log.cpp).
    void openLog();
    void parseRequests(Conn& c, const char* data, size_t n, int64_t now);
    void parseAnswers(Conn& c, const char* data, size_t n, int64_t now);
    void endRequest(Conn& c, int64_t now);
    void logRequest(const Request& r);

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

// The waves subcommand: ARGV after "waves".
int waves(int argc, char** argv);

}  // namespace net_proxy
