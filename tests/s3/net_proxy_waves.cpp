// net_proxy waves: how many round trips had to follow one another, read from
// a request log after the fact. Kept apart from the proxy: it only reads the
// log's JSON lines (the fields it needs, by name) and never touches a socket.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "net_proxy.h"

namespace net_proxy {
namespace {

// A number in a JSON line, by its key; present says whether there was one
// (null is none).
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

// A string in a JSON line, by its key, its escapes undone ("" when missing).
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

}  // namespace

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

}  // namespace net_proxy
