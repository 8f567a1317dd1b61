#include "store/s3_client.h"

#include <curl/curl.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <system_error>
#include <thread>
#include <utility>

#include "store/store_error.h"

namespace zxblk {
namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kMinPartSize = 5 * kMiB;  // S3's least, for all parts but the last
constexpr uint64_t kMaxParts = 10000;
constexpr size_t kMaxErrorBody = 64 * 1024;
constexpr size_t kIdleHandles = 32;

// ---------------------------------------------------------------- text

bool isUnreserved(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_' ||
           c == '.' || c == '~';
}

// Percent-encodes all but RFC 3986's unreserved characters (and '/' when
// asked). The request is signed exactly as written, and the server signs
// its own canonical form, which is this one.
std::string uriEncode(const std::string& s, bool keepSlash) {
    static const char* hex = "0123456789ABCDEF";
    std::string out;
    out.reserve(s.size());
    for (unsigned char c : s) {
        if (isUnreserved(c) || (keepSlash && c == '/')) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

// Control characters (a key may hold any) must not break the line.
std::string oneLine(const std::string& s, size_t max = 2000) {
    std::string out = s.substr(0, max);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = ' ';
    if (s.size() > max) out += "...";
    return out;
}

std::string lower(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

std::string trim(const std::string& s) {
    size_t a = s.find_first_not_of(" \t\r\n");
    if (a == std::string::npos) return "";
    size_t b = s.find_last_not_of(" \t\r\n");
    return s.substr(a, b - a + 1);
}

std::string unquote(const std::string& etag) {
    if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') return etag.substr(1, etag.size() - 2);
    return etag;
}

bool parseU64(const std::string& s, uint64_t& out) {
    if (s.empty() || s.size() > 20) return false;
    uint64_t v = 0;
    for (char c : s) {
        if (c < '0' || c > '9') return false;
        uint64_t d = static_cast<uint64_t>(c - '0');
        if (v > (UINT64_MAX - d) / 10) return false;
        v = v * 10 + d;
    }
    out = v;
    return true;
}

void appendUtf8(std::string& out, unsigned long cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

std::string xmlUnescape(const std::string& s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        size_t semi;
        if (s[i] != '&' || (semi = s.find(';', i)) == std::string::npos || semi - i > 12) {
            out += s[i];
            continue;
        }
        std::string name = s.substr(i + 1, semi - i - 1);
        if (name == "amp") out += '&';
        else if (name == "lt") out += '<';
        else if (name == "gt") out += '>';
        else if (name == "quot") out += '"';
        else if (name == "apos") out += '\'';
        else if (name.size() > 1 && name[0] == '#') {
            char* end = nullptr;
            unsigned long cp = name[1] == 'x' ? std::strtoul(name.c_str() + 2, &end, 16)
                                              : std::strtoul(name.c_str() + 1, &end, 10);
            if (!end || *end || cp > 0x10FFFF) {
                out += s[i];
                continue;
            }
            appendUtf8(out, cp);
        } else {
            out += s[i];
            continue;
        }
        i = semi;
    }
    return out;
}

std::string xmlEscape(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            case '\'': out += "&apos;"; break;
            default: out += c;
        }
    }
    return out;
}

// The contents of every <tag>...</tag> (or <tag/>) in `xml`, in order, still
// escaped. S3's replies never nest an element in one of the same name, which
// is all this has to handle.
std::vector<std::string> xmlAll(const std::string& xml, const std::string& tag) {
    std::vector<std::string> out;
    const std::string open = "<" + tag, close = "</" + tag + ">";
    size_t at = 0;
    while ((at = xml.find(open, at)) != std::string::npos) {
        size_t p = at + open.size();
        if (p >= xml.size()) break;
        if (xml[p] != '>' && xml[p] != '/' && xml[p] != ' ') {  // a longer name: <KeyCount> for <Key>
            at = p;
            continue;
        }
        size_t gt = xml.find('>', p);
        if (gt == std::string::npos) break;
        if (xml[gt - 1] == '/') {
            out.emplace_back();
            at = gt + 1;
            continue;
        }
        size_t end = xml.find(close, gt + 1);
        if (end == std::string::npos) break;
        out.push_back(xml.substr(gt + 1, end - gt - 1));
        at = end + close.size();
    }
    return out;
}

std::string xmlFirst(const std::string& xml, const std::string& tag) {
    auto all = xmlAll(xml, tag);
    return all.empty() ? std::string() : xmlUnescape(all.front());
}

// ---------------------------------------------------------------- configuration

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "";
}

using IniFile = std::map<std::string, std::map<std::string, std::string>>;

// The AWS tools' files: [section] headers and "key = value" lines; an
// indented line belongs to a nested block (such as "s3 =") and is skipped.
IniFile readIni(const std::string& path) {
    IniFile ini;
    std::ifstream in(path);
    std::string line, section;
    bool inSection = false;
    while (std::getline(in, line)) {
        if (!line.empty() && (line[0] == ' ' || line[0] == '\t')) continue;
        line = trim(line);
        if (line.empty() || line[0] == '#' || line[0] == ';') continue;
        if (line[0] == '[') {
            size_t close = line.find(']');
            section = trim(line.substr(1, close == std::string::npos ? std::string::npos : close - 1));
            inSection = true;
            ini[section];
            continue;
        }
        size_t eq = line.find('=');
        if (!inSection || eq == std::string::npos) continue;
        ini[section][trim(line.substr(0, eq))] = trim(line.substr(eq + 1));
    }
    return ini;
}

std::string homeDir() {
    std::string home = env("HOME");
    if (home.empty()) {
        if (const passwd* pw = getpwuid(getuid())) home = pw->pw_dir ? pw->pw_dir : "";
    }
    return home;
}

bool validRegion(const std::string& r) {
    if (r.empty() || r.size() > 64) return false;
    for (char c : r)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-')) return false;
    return true;
}

// ---------------------------------------------------------------- curl

void initCurlOnce() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) throw StoreError("s3: libcurl failed to initialise");
    });
}

struct HeaderList {
    curl_slist* list = nullptr;
    HeaderList() = default;
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;
    ~HeaderList() { curl_slist_free_all(list); }
    void add(const std::string& h) {
        curl_slist* next = curl_slist_append(list, h.c_str());
        if (!next) throw std::bad_alloc();
        list = next;
    }
};

bool transientCurl(CURLcode rc) {
    switch (rc) {
        case CURLE_COULDNT_CONNECT:
        case CURLE_COULDNT_RESOLVE_HOST:
        case CURLE_OPERATION_TIMEDOUT:
        case CURLE_GOT_NOTHING:
        case CURLE_RECV_ERROR:
        case CURLE_SEND_ERROR:
        case CURLE_PARTIAL_FILE:
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_HTTP2:
        case CURLE_HTTP2_STREAM:
        case CURLE_WEIRD_SERVER_REPLY:
        case CURLE_AGAIN:
            return true;
        default:
            return false;
    }
}

bool transientStatus(long status, const std::string& code) {
    return status >= 500 || status == 429 || status == 408 || code == "RequestTimeout" || code == "SlowDown" ||
           code == "InternalError" || code == "ServiceUnavailable";
}

std::string reason(long status) {
    switch (status) {
        case 400: return "Bad Request";
        case 403: return "Forbidden";
        case 404: return "Not Found";
        case 405: return "Method Not Allowed";
        case 409: return "Conflict";
        case 412: return "Precondition Failed";
        case 416: return "Range Not Satisfiable";
        case 429: return "Too Many Requests";
        case 500: return "Internal Server Error";
        case 502: return "Bad Gateway";
        case 503: return "Service Unavailable";
        case 504: return "Gateway Timeout";
        default: return "HTTP error";
    }
}

// "404 NoSuchKey", "403 SignatureDoesNotMatch (check ...)", "400 InvalidArgument: message".
std::string describe(long status, const std::string& code, const std::string& message) {
    std::string s = std::to_string(status) + " " + (code.empty() ? reason(status) : code);
    if (code == "SignatureDoesNotMatch" || code == "InvalidAccessKeyId")
        return s + " (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)";
    if (status == 403 && code.empty())  // a HEAD reply has no body to say which
        return s + " (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY and the bucket's permissions)";
    if (code == "RequestTimeTooSkewed") return s + " (check this machine's clock)";
    static const char* plain[] = {"NoSuchKey", "NoSuchBucket", "NoSuchUpload", "AccessDenied", "PreconditionFailed"};
    if (!message.empty() && std::find(std::begin(plain), std::end(plain), code) == std::end(plain))
        s += ": " + oneLine(message, 200);
    return s;
}

enum Kind { kHead, kGet, kPut, kList, kDelete, kMultipart, kOther, kKinds };

// One S3 request, tried until it succeeds, fails for good or runs out of time.
struct Call {
    Kind kind = kGet;
    const char* method = "GET";
    std::string op;    // what error lines call it: "GET", "UploadPart #3"
    std::string name;  // "s3://bucket/key"
    std::string url;   // without the query
    std::vector<std::pair<std::string, std::string>> query;
    std::vector<std::string> headers;
    const char* body = nullptr;  // PUT and POST
    size_t bodySize = 0;
    char* into = nullptr;  // where a 2xx body goes, at most intoSize bytes (else Reply::body)
    uint64_t intoSize = 0;
    std::vector<long> handBack;  // statuses besides 2xx returned to the caller rather than thrown
    bool errorIn200 = false;     // a 200 reply may carry an <Error> document (CompleteMultipartUpload)
};

struct Reply {
    long status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    uint64_t received = 0;  // bytes laid into Call::into
    bool overflow = false;
    unsigned attempts = 0;

    std::string header(const std::string& name) const {
        auto it = headers.find(name);
        return it == headers.end() ? std::string() : it->second;
    }
    std::string code() const { return xmlFirst(body, "Code"); }
    std::string message() const { return xmlFirst(body, "Message"); }
};

struct Transfer {
    const Call* call;
    Reply* reply;
    size_t sent = 0;
};

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const size_t n = size * count;
    std::string line = trim(std::string(data, n));
    if (line.compare(0, 5, "HTTP/") == 0) {  // a new reply (after "100 Continue", say)
        size_t sp = line.find(' ');
        t->reply->status = sp == std::string::npos ? 0 : std::strtol(line.c_str() + sp + 1, nullptr, 10);
        t->reply->headers.clear();
        return n;
    }
    size_t colon = line.find(':');
    if (colon != std::string::npos) t->reply->headers[lower(trim(line.substr(0, colon)))] = trim(line.substr(colon + 1));
    return n;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    Reply& r = *t->reply;
    const size_t n = size * count;
    const bool success = r.status >= 200 && r.status < 300;
    if (success && t->call->into) {
        if (n > t->call->intoSize - r.received) {
            r.overflow = true;
            return 0;  // stops the transfer
        }
        std::memcpy(t->call->into + r.received, data, n);
        r.received += n;
        return n;
    }
    if (!success && r.body.size() >= kMaxErrorBody) return n;
    r.body.append(data, n);
    return n;
}

size_t onRead(char* buffer, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    size_t n = std::min(size * count, t->call->bodySize - t->sent);
    if (n) std::memcpy(buffer, t->call->body + t->sent, n);
    t->sent += n;
    return n;
}

int onSeek(void* user, curl_off_t offset, int origin) {
    auto* t = static_cast<Transfer*>(user);
    if (origin != SEEK_SET || offset < 0 || static_cast<uint64_t>(offset) > t->call->bodySize)
        return CURL_SEEKFUNC_CANTSEEK;
    t->sent = static_cast<size_t>(offset);
    return CURL_SEEKFUNC_OK;
}

std::string queryString(std::vector<std::pair<std::string, std::string>> q) {
    // Sorted and encoded as the signature's canonical form wants: curl signs
    // the query exactly as written.
    for (auto& kv : q) kv = {uriEncode(kv.first, false), uriEncode(kv.second, false)};
    std::sort(q.begin(), q.end());
    std::string s;
    for (const auto& kv : q) s += (s.empty() ? "?" : "&") + kv.first + "=" + kv.second;
    return s;
}

std::string seconds(Clock::duration d) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.1f s", std::chrono::duration<double>(d).count());
    return buf;
}

}  // namespace

// ---------------------------------------------------------------- S3Location, S3Config

bool isS3Url(const std::string& text) { return text.size() >= 5 && lower(text.substr(0, 5)) == "s3://"; }

bool S3Location::parse(const std::string& url, S3Location& out, std::string& why) {
    if (!isS3Url(url)) {
        why = "'" + oneLine(url, 200) + "' is not an s3://BUCKET/PREFIX URL";
        return false;
    }
    std::string rest = url.substr(5);
    size_t slash = rest.find('/');
    std::string bucket = rest.substr(0, slash);
    std::string prefix = slash == std::string::npos ? "" : rest.substr(slash + 1);
    if (bucket.empty()) {
        why = "'" + oneLine(url, 200) + "' names no bucket (s3://BUCKET/PREFIX)";
        return false;
    }
    bool ok = bucket.size() >= 3 && bucket.size() <= 63;
    for (char c : bucket)
        ok = ok && ((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '.' || c == '-');
    ok = ok && std::isalnum(static_cast<unsigned char>(bucket.front())) &&
         std::isalnum(static_cast<unsigned char>(bucket.back())) && bucket.find("..") == std::string::npos;
    if (!ok) {
        why = "'" + oneLine(bucket, 100) +
              "' is not a valid bucket name (3 to 63 lower-case letters, digits, dots and hyphens, "
              "beginning and ending with a letter or digit)";
        return false;
    }
    for (char c : prefix) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            why = "the prefix of '" + oneLine(url, 200) + "' holds a control character";
            return false;
        }
    }
    size_t first = prefix.find_first_not_of('/');
    prefix = first == std::string::npos ? "" : prefix.substr(first);
    if (!prefix.empty() && prefix.back() != '/') prefix += '/';
    out.bucket = bucket;
    out.prefix = prefix;
    return true;
}

std::string S3Location::url() const { return "s3://" + bucket + "/" + prefix; }

S3Config S3Config::fromEnvironment() {
    S3Config c;
    std::string profile = env("AWS_PROFILE");
    if (profile.empty()) profile = env("AWS_DEFAULT_PROFILE");
    const bool namedProfile = !profile.empty();
    if (!namedProfile) profile = "default";
    const std::string home = homeDir();
    std::string credPath = env("AWS_SHARED_CREDENTIALS_FILE");
    if (credPath.empty() && !home.empty()) credPath = home + "/.aws/credentials";
    std::string confPath = env("AWS_CONFIG_FILE");
    if (confPath.empty() && !home.empty()) confPath = home + "/.aws/config";
    IniFile cred = credPath.empty() ? IniFile() : readIni(credPath);
    IniFile conf = confPath.empty() ? IniFile() : readIni(confPath);

    const std::map<std::string, std::string>* credSection = nullptr;
    const std::map<std::string, std::string>* confSection = nullptr;
    if (auto it = cred.find(profile); it != cred.end()) credSection = &it->second;
    for (const std::string& name : {"profile " + profile, profile == "default" ? profile : std::string()}) {
        if (confSection || name.empty()) continue;
        if (auto it = conf.find(name); it != conf.end()) confSection = &it->second;
    }
    if (namedProfile && !credSection && !confSection)
        throw StoreError("the AWS profile '" + oneLine(profile, 100) + "' (AWS_PROFILE) is in neither " + credPath +
                         " nor " + confPath);
    auto fromConf = [&](const char* key) {
        if (!confSection) return std::string();
        auto it = confSection->find(key);
        return it == confSection->end() ? std::string() : it->second;
    };

    c.region = env("AWS_REGION");
    if (c.region.empty()) c.region = env("AWS_DEFAULT_REGION");
    if (c.region.empty()) c.region = fromConf("region");
    if (c.region.empty()) c.region = "us-east-1";
    if (!validRegion(c.region))
        throw StoreError("the AWS region '" + oneLine(c.region, 100) + "' is not a region name (such as eu-west-1)");

    const std::string awsEndpoint = "https://s3." + c.region + ".amazonaws.com";
    c.endpoint = env("AWS_ENDPOINT_URL_S3");
    if (c.endpoint.empty()) c.endpoint = env("AWS_ENDPOINT_URL");
    if (c.endpoint.empty()) c.endpoint = fromConf("endpoint_url");
    if (c.endpoint.empty()) c.endpoint = awsEndpoint;
    while (c.endpoint.size() > 8 && c.endpoint.back() == '/') c.endpoint.pop_back();
    if (lower(c.endpoint).rfind("http://", 0) != 0 && lower(c.endpoint).rfind("https://", 0) != 0)
        throw StoreError("the S3 endpoint '" + oneLine(c.endpoint, 200) + "' (AWS_ENDPOINT_URL) is not an http:// or https:// URL");
    c.pathStyle = c.endpoint != awsEndpoint;

    const std::string key = env("AWS_ACCESS_KEY_ID"), secret = env("AWS_SECRET_ACCESS_KEY");
    if (!key.empty() || !secret.empty()) {
        if (key.empty()) throw StoreError("AWS_SECRET_ACCESS_KEY is set but AWS_ACCESS_KEY_ID is not");
        if (secret.empty()) throw StoreError("AWS_ACCESS_KEY_ID is set but AWS_SECRET_ACCESS_KEY is not");
        c.accessKey = key;
        c.secretKey = secret;
        c.sessionToken = env("AWS_SESSION_TOKEN");
        return c;
    }
    // The credentials file first, then the config file, as the AWS tools do.
    const std::pair<const std::map<std::string, std::string>*, std::string> places[] = {{credSection, credPath},
                                                                                          {confSection, confPath}};
    for (const auto& [section, path] : places) {
        if (!section) continue;
        auto k = section->find("aws_access_key_id"), s = section->find("aws_secret_access_key");
        if (k == section->end() && s == section->end()) continue;
        if (k == section->end() || s == section->end() || k->second.empty() || s->second.empty())
            throw StoreError(path + ": the profile '" + oneLine(profile, 100) +
                             "' needs both aws_access_key_id and aws_secret_access_key");
        c.accessKey = k->second;
        c.secretKey = s->second;
        if (auto t = section->find("aws_session_token"); t != section->end()) c.sessionToken = t->second;
        return c;
    }
    throw StoreError("no S3 credentials: set AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY, or give them in the [" +
                     oneLine(profile, 100) + "] section of " + (credPath.empty() ? "~/.aws/credentials" : credPath));
}

// ---------------------------------------------------------------- the client

struct S3Client::State {
    S3Config cfg;
    std::string bucket;
    std::string bucketUrl;  // ends without '/' for path style, with one for virtual-host style
    std::string sigv4;
    std::mutex poolLock;
    std::vector<CURL*> idle;
    std::atomic<uint64_t> requests[kKinds] = {};
    std::atomic<uint64_t> getBytes{0}, putBytes{0}, retries{0}, failures{0};

    State(S3Config c, std::string b) : cfg(std::move(c)), bucket(std::move(b)) {
        if (bucket.empty()) throw StoreError("s3: no bucket given");
        if (cfg.accessKey.empty() || cfg.secretKey.empty())
            throw StoreError("s3://" + bucket + ": no S3 credentials (AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)");
        if (!validRegion(cfg.region))
            throw StoreError("s3://" + bucket + ": the region '" + oneLine(cfg.region, 100) + "' is not a region name");
        std::string ep = cfg.endpoint;
        while (!ep.empty() && ep.back() == '/') ep.pop_back();
        size_t scheme = ep.find("://");
        if (scheme == std::string::npos || ep.size() == scheme + 3)
            throw StoreError("s3://" + bucket + ": the endpoint '" + oneLine(ep, 200) + "' is not a URL");
        // A dotted bucket name breaks the certificate check of virtual-host
        // style over https: such a bucket always goes path style.
        if (cfg.pathStyle || bucket.find('.') != std::string::npos)
            bucketUrl = ep + "/" + uriEncode(bucket, false);
        else
            bucketUrl = ep.substr(0, scheme + 3) + bucket + "." + ep.substr(scheme + 3) + "/";
        sigv4 = "aws:amz:" + cfg.region + ":s3";
        initCurlOnce();
    }

    ~State() {
        for (CURL* h : idle) curl_easy_cleanup(h);
    }

    std::string objectUrl(const std::string& key) const {
        return bucketUrl + (bucketUrl.back() == '/' ? "" : "/") + uriEncode(key, true);
    }
    std::string name(const std::string& key) const { return "s3://" + bucket + "/" + key; }
    std::string bucketName() const { return "s3://" + bucket; }

    Call objectCall(Kind kind, const char* method, std::string op, const std::string& key) const {
        if (key.empty()) throw StoreError(bucketName() + ": " + op + ": empty object key");
        Call c;
        c.kind = kind;
        c.method = method;
        c.op = std::move(op);
        c.name = name(key);
        c.url = objectUrl(key);
        return c;
    }
    Call bucketCall(Kind kind, const char* method, std::string op, const std::string& what) const {
        Call c;
        c.kind = kind;
        c.method = method;
        c.op = std::move(op);
        c.name = what.empty() ? bucketName() : what;
        c.url = bucketUrl;
        return c;
    }

    // A handle of the pool (its open connection with it), back when done.
    struct Handle {
        State& s;
        CURL* h;
        explicit Handle(State& st) : s(st), h(nullptr) {
            {
                std::lock_guard<std::mutex> g(s.poolLock);
                if (!s.idle.empty()) {
                    h = s.idle.back();
                    s.idle.pop_back();
                }
            }
            if (!h) h = curl_easy_init();
            if (!h) throw StoreError(s.bucketName() + ": libcurl could not make a handle");
        }
        ~Handle() {
            curl_easy_reset(h);  // forgets the options, keeps the connection
            std::lock_guard<std::mutex> g(s.poolLock);
            if (s.idle.size() < kIdleHandles) s.idle.push_back(h);
            else curl_easy_cleanup(h);
        }
        Handle(const Handle&) = delete;
        Handle& operator=(const Handle&) = delete;
    };

    [[noreturn]] void fail(const Call& c, const std::string& why) {
        failures.fetch_add(1, std::memory_order_relaxed);
        throw StoreError(oneLine(c.name + ": " + c.op + ": " + why));
    }

    // One attempt; curl's result code, and its words for it in `why`.
    CURLcode attempt(const Call& c, const std::string& url, const HeaderList& headers, long timeoutMs, Reply& r,
                     std::string& why) {
        Handle handle(*this);
        CURL* h = handle.h;
        Transfer t{&c, &r};
        char errbuf[CURL_ERROR_SIZE] = "";
        curl_easy_setopt(h, CURLOPT_URL, url.c_str());
        curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        curl_easy_setopt(h, CURLOPT_PATH_AS_IS, 1L);  // a key may hold "/../"
        curl_easy_setopt(h, CURLOPT_AWS_SIGV4, sigv4.c_str());
        curl_easy_setopt(h, CURLOPT_USERNAME, cfg.accessKey.c_str());
        curl_easy_setopt(h, CURLOPT_PASSWORD, cfg.secretKey.c_str());
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.list);
        curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errbuf);
        curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                         std::min(timeoutMs, static_cast<long>(cfg.connectTimeoutSeconds * 1000)));
        curl_easy_setopt(h, CURLOPT_TCP_KEEPALIVE, 1L);
        curl_easy_setopt(h, CURLOPT_BUFFERSIZE, 256L * 1024);
        curl_easy_setopt(h, CURLOPT_HEADERFUNCTION, onHeader);
        curl_easy_setopt(h, CURLOPT_HEADERDATA, &t);
        curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, onBody);
        curl_easy_setopt(h, CURLOPT_WRITEDATA, &t);
        const std::string method = c.method;
        if (method == "HEAD") {
            curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
        } else if (method == "PUT" || method == "POST") {
            curl_easy_setopt(h, CURLOPT_READFUNCTION, onRead);
            curl_easy_setopt(h, CURLOPT_READDATA, &t);
            curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, onSeek);
            curl_easy_setopt(h, CURLOPT_SEEKDATA, &t);
            if (method == "PUT") {
                curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
                curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(c.bodySize));
            } else {
                curl_easy_setopt(h, CURLOPT_POST, 1L);
                curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(c.bodySize));
            }
        } else if (method != "GET") {
            curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, c.method);
        }
        CURLcode rc = curl_easy_perform(h);
        if (rc != CURLE_OK) why = errbuf[0] ? trim(errbuf) : curl_easy_strerror(rc);
        curl_easy_setopt(h, CURLOPT_ERRORBUFFER, nullptr);
        return rc;
    }

    Reply perform(const Call& c) {
        HeaderList headers;
        // curl (7.88) signs but does not send the payload hash S3 wants in
        // this header: without it every request is refused.
        headers.add("x-amz-content-sha256: UNSIGNED-PAYLOAD");
        if (!cfg.sessionToken.empty()) headers.add("x-amz-security-token: " + cfg.sessionToken);
        for (const auto& h : c.headers) headers.add(h);
        const std::string url = c.url + queryString(c.query);

        const auto start = Clock::now();
        const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(std::max(0.001, cfg.deadlineSeconds)));
        thread_local std::mt19937_64 rng{std::random_device{}()};
        for (unsigned n = 1;; ++n) {
            requests[c.kind].fetch_add(1, std::memory_order_relaxed);
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
            long timeoutMs = static_cast<long>(
                std::max<double>(1, std::min<double>(cfg.requestTimeoutSeconds * 1000, static_cast<double>(left))));
            Reply r;
            r.attempts = n;
            std::string why;
            CURLcode rc = attempt(c, url, headers, timeoutMs, r, why);
            bool transient;
            if (rc != CURLE_OK) {
                if (r.overflow) fail(c, "the reply holds more than the " + std::to_string(c.intoSize) + " bytes asked for");
                transient = transientCurl(rc);
            } else {
                const bool success = r.status >= 200 && r.status < 300;
                std::string code = success ? std::string() : r.code();
                if (success && c.errorIn200 && r.body.find("<Error>") != std::string::npos) {
                    code = r.code();
                    transient = transientStatus(500, code);
                    why = describe(r.status, code, r.message());
                } else if (success || std::find(c.handBack.begin(), c.handBack.end(), r.status) != c.handBack.end()) {
                    return r;
                } else {
                    transient = transientStatus(r.status, code);
                    why = describe(r.status, code, r.message());
                }
            }
            if (!transient) fail(c, why);
            // Exponential back-off from 100 ms to 2 s, each wait drawn from
            // its upper half, so that clients that failed together spread out.
            const double ceiling = std::min(2000.0, 100.0 * static_cast<double>(1u << std::min(n - 1, 5u)));
            const auto wait = std::chrono::milliseconds(static_cast<long>(
                std::uniform_real_distribution<double>(ceiling / 2, ceiling)(rng)));
            if (Clock::now() + wait >= deadline)
                fail(c, why + " (gave up after " + std::to_string(n) + " attempts in " + seconds(Clock::now() - start) + ")");
            retries.fetch_add(1, std::memory_order_relaxed);
            std::this_thread::sleep_for(wait);
        }
    }

    void headBucket() {
        Call c = bucketCall(kOther, "HEAD", "HEAD", "");
        c.handBack = {404};
        Reply r = perform(c);
        if (r.status == 404) fail(c, "404 NoSuchBucket");
    }

    std::string beginUpload(const std::string& key) {
        Call c = objectCall(kMultipart, "POST", "CreateMultipartUpload", key);
        c.query = {{"uploads", ""}};
        c.headers = {"Content-Type: application/octet-stream"};
        Reply r = perform(c);
        std::string id = xmlFirst(r.body, "UploadId");
        if (id.empty()) fail(c, "the reply names no UploadId");
        return id;
    }

    std::string uploadPart(const std::string& key, const std::string& uploadId, uint64_t number, const std::string& data) {
        Call c = objectCall(kPut, "PUT", "UploadPart #" + std::to_string(number), key);
        c.query = {{"partNumber", std::to_string(number)}, {"uploadId", uploadId}};
        c.body = data.data();
        c.bodySize = data.size();
        Reply r = perform(c);
        std::string etag = r.header("etag");
        if (etag.empty()) fail(c, "the reply has no ETag");
        putBytes.fetch_add(data.size(), std::memory_order_relaxed);
        return etag;
    }

    void completeUpload(const std::string& key, const std::string& uploadId, const std::vector<std::string>& etags,
                        uint64_t size) {
        std::string xml = "<CompleteMultipartUpload>";
        for (size_t i = 0; i < etags.size(); ++i)
            xml += "<Part><PartNumber>" + std::to_string(i + 1) + "</PartNumber><ETag>" + xmlEscape(etags[i]) +
                   "</ETag></Part>";
        xml += "</CompleteMultipartUpload>";
        Call c = objectCall(kMultipart, "POST", "CompleteMultipartUpload", key);
        c.query = {{"uploadId", uploadId}};
        c.headers = {"Content-Type: application/xml"};
        c.body = xml.data();
        c.bodySize = xml.size();
        c.errorIn200 = true;
        c.handBack = {404};
        Reply r = perform(c);
        if (r.status != 404) return;
        // A repeated completion finds the upload gone when the first one
        // went through and only its reply was lost: then the object is there.
        if (r.code() == "NoSuchUpload" && r.attempts > 1) {
            Call h = objectCall(kHead, "HEAD", "HEAD", key);
            h.handBack = {404};
            Reply hr = perform(h);
            uint64_t got = 0;
            if (hr.status == 200 && parseU64(hr.header("content-length"), got) && got == size) return;
        }
        fail(c, describe(r.status, r.code(), r.message()));
    }

    // pread until `length` bytes are in; a file that ends sooner is an error.
    std::string readPart(const std::string& key, int fd, uint64_t offset, uint64_t length, uint64_t total) {
        std::string buf(length, '\0');
        uint64_t done = 0;
        Call c;
        c.name = name(key);
        c.op = "upload";
        while (done < length) {
            ssize_t n = ::pread(fd, &buf[done], length - done, static_cast<off_t>(offset + done));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) fail(c, "reading the file at byte " + std::to_string(offset + done) + ": " + std::strerror(errno));
            if (n == 0)
                fail(c, "the file ends at byte " + std::to_string(offset + done) + ", short of the " +
                            std::to_string(total) + " bytes to upload");
            done += static_cast<uint64_t>(n);
        }
        return buf;
    }
};

S3Client::S3Client(S3Config config, std::string bucket)
    : s_(std::make_unique<State>(std::move(config), std::move(bucket))) {}

S3Client::~S3Client() = default;

const std::string& S3Client::bucket() const { return s_->bucket; }
const S3Config& S3Client::config() const { return s_->cfg; }

S3ObjectInfo S3Client::head(const std::string& key) {
    Call c = s_->objectCall(kHead, "HEAD", "HEAD", key);
    c.handBack = {404};
    Reply r = s_->perform(c);
    S3ObjectInfo info;
    if (r.status == 404) {
        s_->headBucket();  // a missing bucket is an error, not a missing key
        return info;
    }
    if (!parseU64(r.header("content-length"), info.size)) s_->fail(c, "the reply has no Content-Length");
    info.exists = true;
    info.etag = unquote(r.header("etag"));
    return info;
}

void S3Client::getRange(const std::string& key, uint64_t offset, uint64_t length, void* buf, const std::string& ifMatch) {
    if (length == 0) return;
    if (offset > UINT64_MAX - length) throw StoreError(s_->name(key) + ": GET: range past 2^64");
    const uint64_t last = offset + length - 1;
    const std::string range = std::to_string(offset) + "-" + std::to_string(last);
    Call c = s_->objectCall(kGet, "GET", "GET bytes " + range, key);
    c.headers = {"Range: bytes=" + range};
    if (!ifMatch.empty()) {
        c.headers.push_back("If-Match: \"" + ifMatch + "\"");
        c.handBack = {412};
    }
    c.into = static_cast<char*>(buf);
    c.intoSize = length;
    Reply r = s_->perform(c);
    if (r.status == 412) s_->fail(c, "replaced since it was opened (its ETag is no longer " + ifMatch + ")");
    if (r.status == 206) {
        // "bytes FIRST-LAST/SIZE"
        const std::string cr = r.header("content-range");
        uint64_t first = 0, end = 0, size = 0;
        size_t dash = cr.find('-'), slash = cr.find('/');
        if (cr.compare(0, 6, "bytes ") != 0 || dash == std::string::npos || slash == std::string::npos || slash < dash ||
            !parseU64(cr.substr(6, dash - 6), first) || !parseU64(cr.substr(dash + 1, slash - dash - 1), end))
            s_->fail(c, "unreadable Content-Range '" + cr + "'");
        if (first == offset && end < last && parseU64(cr.substr(slash + 1), size))
            s_->fail(c, "the object is only " + std::to_string(size) + " bytes");
        if (first != offset || end != last) s_->fail(c, "the server sent bytes " + cr.substr(6));
    } else if (r.status != 200 || offset != 0) {
        // 200 is the whole object: right only when that is what was asked.
        s_->fail(c, "the server ignored the byte range (" + std::to_string(r.status) + ")");
    }
    if (r.received != length)
        s_->fail(c, std::to_string(r.received) + " of " + std::to_string(length) + " bytes arrived");
    s_->getBytes.fetch_add(length, std::memory_order_relaxed);
}

std::string S3Client::getObject(const std::string& key) {
    Call c = s_->objectCall(kGet, "GET", "GET", key);
    Reply r = s_->perform(c);
    uint64_t expected = 0;
    if (parseU64(r.header("content-length"), expected) && expected != r.body.size())
        s_->fail(c, std::to_string(r.body.size()) + " of " + std::to_string(expected) + " bytes arrived");
    s_->getBytes.fetch_add(r.body.size(), std::memory_order_relaxed);
    return std::move(r.body);
}

bool S3Client::putObject(const std::string& key, const std::string& data, bool ifNoneMatch) {
    Call c = s_->objectCall(kPut, "PUT", "PUT", key);
    c.headers = {"Content-Type: application/octet-stream"};
    if (ifNoneMatch) {
        c.headers.push_back("If-None-Match: *");
        c.handBack = {412};
    }
    c.body = data.data();
    c.bodySize = data.size();
    Reply r = s_->perform(c);
    if (r.status == 412) {
        // After a lost reply the object found may be our own first attempt's.
        if (r.attempts == 1) return false;
        S3ObjectInfo info = head(key);
        if (!info.exists || info.size != data.size() || getObject(key) != data) return false;
    }
    s_->putBytes.fetch_add(data.size(), std::memory_order_relaxed);
    return true;
}

void S3Client::uploadFile(const std::string& key, int fd, uint64_t size, uint64_t partSize, unsigned parallel) {
    partSize = std::max(partSize, kMinPartSize);
    if (size <= partSize) {
        putObject(key, s_->readPart(key, fd, 0, size, size));
        return;
    }
    // No more than S3's 10000 parts: larger parts, in whole MiB, where needed.
    const uint64_t least = (size + kMaxParts - 1) / kMaxParts;
    partSize = std::max(partSize, (least + kMiB - 1) / kMiB * kMiB);
    const uint64_t parts = (size + partSize - 1) / partSize;
    const std::string uploadId = s_->beginUpload(key);

    std::vector<std::string> etags(parts);
    std::atomic<uint64_t> next{0};
    std::atomic<bool> stop{false};
    std::mutex errorLock;
    std::string error;
    uint64_t errorPart = parts;
    auto work = [&] {
        uint64_t i = 0;
        try {
            while (!stop.load()) {
                i = next.fetch_add(1);
                if (i >= parts) break;
                const uint64_t offset = i * partSize, length = std::min(partSize, size - offset);
                etags[i] = s_->uploadPart(key, uploadId, i + 1, s_->readPart(key, fd, offset, length, size));
            }
        } catch (const std::exception& e) {
            // Parts fail in whatever order the threads reach them; the first
            // part's error is the one to report, so that it reads the same
            // every time (a short file names where it ends, not a later part).
            std::lock_guard<std::mutex> g(errorLock);
            if (i < errorPart) {
                errorPart = i;
                error = e.what();
            }
            stop = true;
        }
    };
    {
        std::vector<std::thread> helpers;
        const uint64_t workers = std::min<uint64_t>(std::max(1u, parallel), parts);
        try {
            for (uint64_t i = 1; i < workers; ++i) helpers.emplace_back(work);
        } catch (const std::system_error&) {
            // No more threads to be had: those running, and this one, do the work.
        }
        work();
        for (auto& t : helpers) t.join();
    }
    if (error.empty()) {
        try {
            s_->completeUpload(key, uploadId, etags, size);
            return;
        } catch (const std::exception& e) {
            error = e.what();
        }
    }
    // Leave no parts behind: they cost storage and no listing shows them.
    try {
        abortUpload(key, uploadId);
    } catch (const std::exception& e) {
        error += "; the upload " + uploadId + " was not aborted either: " + e.what();
    }
    throw StoreError(oneLine(error));
}

std::vector<S3ListEntry> S3Client::list(const std::string& prefix, unsigned pageSize) {
    std::vector<S3ListEntry> out;
    std::string token;
    for (;;) {
        Call c = s_->bucketCall(kList, "GET", "LIST", s_->name(prefix));
        c.query = {{"list-type", "2"}, {"max-keys", std::to_string(std::max(1u, std::min(pageSize, 1000u)))}};
        if (!prefix.empty()) c.query.emplace_back("prefix", prefix);
        if (!token.empty()) c.query.emplace_back("continuation-token", token);
        Reply r = s_->perform(c);
        for (const std::string& item : xmlAll(r.body, "Contents")) {
            S3ListEntry e;
            e.key = xmlFirst(item, "Key");
            if (e.key.empty() || !parseU64(xmlFirst(item, "Size"), e.size))
                s_->fail(c, "unreadable entry in the listing: " + oneLine(item, 200));
            e.etag = unquote(xmlFirst(item, "ETag"));
            out.push_back(std::move(e));
        }
        if (xmlFirst(r.body, "IsTruncated") != "true") return out;
        token = xmlFirst(r.body, "NextContinuationToken");
        if (token.empty()) s_->fail(c, "a listing cut short names no NextContinuationToken");
    }
}

std::vector<S3Upload> S3Client::listUploads(const std::string& prefix) {
    std::vector<S3Upload> out;
    std::string keyMarker, idMarker;
    for (;;) {
        Call c = s_->bucketCall(kList, "GET", "ListMultipartUploads", s_->name(prefix));
        c.query = {{"uploads", ""}};
        if (!prefix.empty()) c.query.emplace_back("prefix", prefix);
        if (!keyMarker.empty()) c.query.emplace_back("key-marker", keyMarker);
        if (!idMarker.empty()) c.query.emplace_back("upload-id-marker", idMarker);
        Reply r = s_->perform(c);
        for (const std::string& item : xmlAll(r.body, "Upload"))
            out.push_back({xmlFirst(item, "Key"), xmlFirst(item, "UploadId")});
        if (xmlFirst(r.body, "IsTruncated") != "true") return out;
        std::string nextKey = xmlFirst(r.body, "NextKeyMarker"), nextId = xmlFirst(r.body, "NextUploadIdMarker");
        if (nextKey.empty() || (nextKey == keyMarker && nextId == idMarker))
            s_->fail(c, "a listing cut short names no next marker");
        keyMarker = nextKey;
        idMarker = nextId;
    }
}

void S3Client::abortUpload(const std::string& key, const std::string& uploadId) {
    Call c = s_->objectCall(kMultipart, "DELETE", "AbortMultipartUpload", key);
    c.query = {{"uploadId", uploadId}};
    c.handBack = {404};
    Reply r = s_->perform(c);
    // Gone already (an earlier attempt whose reply was lost): done.
    if (r.status == 404 && r.code() != "NoSuchUpload") s_->fail(c, describe(r.status, r.code(), r.message()));
}

void S3Client::remove(const std::string& key) {
    Call c = s_->objectCall(kDelete, "DELETE", "DELETE", key);
    c.handBack = {404};
    Reply r = s_->perform(c);
    if (r.status == 404 && r.code() != "NoSuchKey") s_->fail(c, describe(r.status, r.code(), r.message()));
}

void S3Client::createBucket() {
    Call c = s_->bucketCall(kOther, "PUT", "CreateBucket", "");
    // us-east-1 is the default; any other region has to be named.
    std::string xml;
    if (s_->cfg.region != "us-east-1") {
        xml = "<CreateBucketConfiguration><LocationConstraint>" + s_->cfg.region +
              "</LocationConstraint></CreateBucketConfiguration>";
        c.headers = {"Content-Type: application/xml"};
    }
    c.body = xml.data();
    c.bodySize = xml.size();
    c.handBack = {409};
    Reply r = s_->perform(c);
    if (r.status == 409 && r.code() != "BucketAlreadyOwnedByYou") s_->fail(c, describe(r.status, r.code(), r.message()));
}

S3Stats S3Client::stats() const {
    S3Stats st;
    auto get = [&](Kind k) { return s_->requests[k].load(std::memory_order_relaxed); };
    st.heads = get(kHead);
    st.gets = get(kGet);
    st.puts = get(kPut);
    st.lists = get(kList);
    st.deletes = get(kDelete);
    st.multipart = get(kMultipart);
    st.other = get(kOther);
    st.getBytes = s_->getBytes.load(std::memory_order_relaxed);
    st.putBytes = s_->putBytes.load(std::memory_order_relaxed);
    st.retries = s_->retries.load(std::memory_order_relaxed);
    st.failures = s_->failures.load(std::memory_order_relaxed);
    return st;
}

}  // namespace zxblk
