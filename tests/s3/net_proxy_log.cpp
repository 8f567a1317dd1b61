// net_proxy's request log (--log): the HTTP messages on each connection are
// followed as their bytes go by (headers, then a body framed by its length,
// by chunks, or by the connection's end), so that a keep-alive connection's
// requests can be told apart and each one written as a JSON line once its
// answer has gone back to the client.
#include <cctype>
#include <cerrno>
#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "net_proxy.h"

namespace net_proxy {
namespace {

constexpr size_t kHeaderCap = 64 << 10;

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

}  // namespace

// Opens the log and writes its first line: the monotonic clock and the Unix
// time, read at the same moment.
void Proxy::openLog() {
    if (m_opt.logPath.empty()) return;
    m_log = std::fopen(m_opt.logPath.c_str(), "w");
    if (!m_log) die("cannot write " + m_opt.logPath + ": " + std::strerror(errno));
    timespec real;
    clock_gettime(CLOCK_REALTIME, &real);
    int64_t mono = nowNs();
    std::fprintf(m_log, "{\"clock\":\"monotonic\",\"mono\":%.6f,\"epoch\":%.6f}\n", double(mono) / kSecond,
                 double(real.tv_sec) + real.tv_nsec / 1e9);
    std::fflush(m_log);
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

}  // namespace net_proxy
