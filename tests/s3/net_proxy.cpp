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
//
// The pieces: net_proxy.h (what they share), net_proxy_link.cpp (the link
// and the loop), net_proxy_conns.cpp (connections, faults and resets),
// net_proxy_log.cpp (the request log), net_proxy_waves.cpp (waves), and
// here the options and the few helpers every piece uses.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "net_proxy.h"

namespace net_proxy {

int64_t nowNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * kSecond + ts.tv_nsec;
}

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "net_proxy: %s\n", what.c_str());
    std::exit(2);
}

double parseNumber(const std::string& s, const char* what) {
    char* end = nullptr;
    double v = std::strtod(s.c_str(), &end);
    if (s.empty() || *end || !(v >= 0) || !std::isfinite(v)) die(std::string(what) + " wants a number of 0 or more, not '" + s + "'");
    return v;
}

namespace {

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

}  // namespace
}  // namespace net_proxy

using namespace net_proxy;

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
