#include "store/s3_transport.h"

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>

#include "store/s3_text.h"
#include "store/s3_xml.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kMaxErrorBody = 64 * 1024;
constexpr size_t kIdleHandles = 32;

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

// One attempt's reply as it arrives.
struct Transfer {
    const S3Request* call;
    S3Reply* reply;
    size_t sent = 0;
    bool overflow = false;
    // A GET whose body measures the link: when its first byte came, and
    // what the gauge had counted then.
    LinkGauge* gauge = nullptr;
    bool flowing = false;
    Clock::time_point first{};
    uint64_t mark = 0;
};

double clockSeconds(Clock::time_point t) { return std::chrono::duration<double>(t.time_since_epoch()).count(); }

size_t onHeader(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    const size_t n = size * count;
    std::string line = s3::trim(std::string(data, n));
    if (line.compare(0, 5, "HTTP/") == 0) {  // a new reply (after "100 Continue", say)
        size_t sp = line.find(' ');
        t->reply->status = sp == std::string::npos ? 0 : std::strtol(line.c_str() + sp + 1, nullptr, 10);
        t->reply->headers.clear();
        return n;
    }
    size_t colon = line.find(':');
    if (colon != std::string::npos)
        t->reply->headers[s3::lower(s3::trim(line.substr(0, colon)))] = s3::trim(line.substr(colon + 1));
    return n;
}

size_t onBody(char* data, size_t size, size_t count, void* user) {
    auto* t = static_cast<Transfer*>(user);
    S3Reply& r = *t->reply;
    const size_t n = size * count;
    const bool success = r.status >= 200 && r.status < 300;
    if (success && t->call->into) {
        if (n > t->call->intoSize - r.received) {
            t->overflow = true;
            return 0;  // stops the transfer
        }
        std::memcpy(t->call->into + r.received, data, n);
        r.received += n;
        if (t->gauge) {
            if (!t->flowing) {
                t->flowing = true;
                t->first = Clock::now();
                t->mark = t->gauge->arrivedSoFar();
            }
            t->gauge->arrived(n);
        }
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
    for (auto& kv : q) kv = {s3::uriEncode(kv.first, false), s3::uriEncode(kv.second, false)};
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

void count(const S3Request& c, std::atomic<uint64_t> S3Counters::*what) {
    if (c.counters) (c.counters->*what).fetch_add(1, std::memory_order_relaxed);
}

std::string withoutTrailingSlashes(std::string s) {
    while (!s.empty() && s.back() == '/') s.pop_back();
    return s;
}

}  // namespace

S3Stats S3Counters::snapshot() const {
    auto get = [&](S3Kind k) { return requests[static_cast<int>(k)].load(std::memory_order_relaxed); };
    S3Stats st;
    st.heads = get(S3Kind::head);
    st.gets = get(S3Kind::get);
    st.puts = get(S3Kind::put);
    st.lists = get(S3Kind::list);
    st.deletes = get(S3Kind::remove);
    st.multipart = get(S3Kind::multipart);
    st.other = get(S3Kind::other);
    st.getBytes = getBytes.load(std::memory_order_relaxed);
    st.putBytes = putBytes.load(std::memory_order_relaxed);
    st.retries = retries.load(std::memory_order_relaxed);
    st.failures = failures.load(std::memory_order_relaxed);
    return st;
}

std::string S3Reply::header(const std::string& name) const {
    auto it = headers.find(name);
    return it == headers.end() ? std::string() : it->second;
}

std::string S3Reply::describe() const {
    std::string s = std::to_string(status) + " " + (code.empty() ? reason(status) : code);
    if (code == "SignatureDoesNotMatch" || code == "InvalidAccessKeyId")
        return s + " (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)";
    if (status == 403 && code.empty())  // a HEAD reply has no body to say which
        return s + " (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY and the bucket's permissions)";
    if (code == "RequestTimeTooSkewed") return s + " (check this machine's clock)";
    static const char* plain[] = {"NoSuchKey", "NoSuchBucket", "NoSuchUpload", "AccessDenied", "PreconditionFailed"};
    if (!message.empty() && std::find(std::begin(plain), std::end(plain), code) == std::end(plain))
        s += ": " + s3::oneLine(message, 200);
    return s;
}

void s3Fail(const S3Request& c, const std::string& why) {
    count(c, &S3Counters::failures);
    throw StoreError(s3::oneLine(c.name + ": " + c.op + ": " + why));
}

struct S3Transport::State {
    std::string endpoint;  // without a trailing '/'
    std::string accessKey, secretKey, sessionToken;
    std::string sigv4;
    std::mutex poolLock;
    std::vector<CURL*> idle;
    LinkGauge gauge;

    ~State() {
        for (CURL* h : idle) curl_easy_cleanup(h);
    }

    // A handle of the pool (its open connection with it), back when done.
    struct Handle {
        State& s;
        CURL* h = nullptr;
        Handle(State& st, const S3Request& c) : s(st) {
            {
                std::lock_guard<std::mutex> g(s.poolLock);
                if (!s.idle.empty()) {
                    h = s.idle.back();
                    s.idle.pop_back();
                }
            }
            if (!h) h = curl_easy_init();
            if (!h) s3Fail(c, "libcurl could not make a handle");
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

    // One attempt; curl's result code, and its words for it in `why`.
    CURLcode attempt(const S3Request& c, const std::string& url, const HeaderList& headers, long timeoutMs,
                     Transfer& t, std::string& why) {
        Handle handle(*this, c);
        CURL* h = handle.h;
        char errbuf[CURL_ERROR_SIZE] = "";
        curl_easy_setopt(h, CURLOPT_URL, url.c_str());
        curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(h, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
        curl_easy_setopt(h, CURLOPT_PATH_AS_IS, 1L);  // a key may hold "/../"
        curl_easy_setopt(h, CURLOPT_AWS_SIGV4, sigv4.c_str());
        curl_easy_setopt(h, CURLOPT_USERNAME, accessKey.c_str());
        curl_easy_setopt(h, CURLOPT_PASSWORD, secretKey.c_str());
        curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.list);
        curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errbuf);
        curl_easy_setopt(h, CURLOPT_TIMEOUT_MS, timeoutMs);
        curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT_MS,
                         std::min(timeoutMs, static_cast<long>(c.timing.connectTimeoutSeconds * 1000)));
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
        if (rc != CURLE_OK) why = errbuf[0] ? s3::trim(errbuf) : curl_easy_strerror(rc);
        curl_easy_setopt(h, CURLOPT_ERRORBUFFER, nullptr);
        return rc;
    }
};

S3Transport::S3Transport(const S3Config& cfg) : s_(std::make_unique<State>()) {
    if (cfg.accessKey.empty() || cfg.secretKey.empty())
        throw StoreError("no S3 credentials (AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)");
    if (!s3::validRegion(cfg.region))
        throw StoreError("the region '" + s3::oneLine(cfg.region, 100) + "' is not a region name");
    const std::string ep = withoutTrailingSlashes(cfg.endpoint);
    const size_t scheme = ep.find("://");
    if (scheme == std::string::npos || ep.size() == scheme + 3)
        throw StoreError("the endpoint '" + s3::oneLine(ep, 200) + "' is not a URL");
    s_->endpoint = ep;
    s_->accessKey = cfg.accessKey;
    s_->secretKey = cfg.secretKey;
    s_->sessionToken = cfg.sessionToken;
    s_->sigv4 = "aws:amz:" + cfg.region + ":s3";
    initCurlOnce();
}

S3Transport::~S3Transport() = default;

std::string S3Transport::bucketUrl(const std::string& bucket, bool pathStyle) const {
    // A dotted bucket name breaks the certificate check of virtual-host
    // style over https: such a bucket always goes path style.
    if (pathStyle || bucket.find('.') != std::string::npos) return s_->endpoint + "/" + s3::uriEncode(bucket, false);
    const size_t host = s_->endpoint.find("://") + 3;
    return s_->endpoint.substr(0, host) + bucket + "." + s_->endpoint.substr(host) + "/";
}

S3Reply S3Transport::perform(const S3Request& c) {
    HeaderList headers;
    // curl (7.88) signs but does not send the payload hash S3 wants in
    // this header: without it every request is refused.
    headers.add("x-amz-content-sha256: UNSIGNED-PAYLOAD");
    if (!s_->sessionToken.empty()) headers.add("x-amz-security-token: " + s_->sessionToken);
    for (const auto& h : c.headers) headers.add(h);
    const std::string url = c.url + queryString(c.query);

    const auto start = Clock::now();
    const auto deadline = start + std::chrono::duration_cast<Clock::duration>(
                                      std::chrono::duration<double>(std::max(0.001, c.timing.deadlineSeconds)));
    thread_local std::mt19937_64 rng{std::random_device{}()};
    for (unsigned n = 1;; ++n) {
        if (c.counters) c.counters->requests[static_cast<int>(c.kind)].fetch_add(1, std::memory_order_relaxed);
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        long timeoutMs = static_cast<long>(std::max<double>(
            1, std::min<double>(c.timing.requestTimeoutSeconds * 1000, static_cast<double>(left))));
        S3Reply r;
        r.attempts = n;
        Transfer t{&c, &r};
        std::string why;
        // A GET into a buffer is a read of the data: its reply measures the link.
        if (c.kind == S3Kind::get && c.into) t.gauge = &s_->gauge;
        const auto sent = Clock::now();
        CURLcode rc = s_->attempt(c, url, headers, timeoutMs, t, why);
        if (t.flowing && rc == CURLE_OK)
            s_->gauge.replied(clockSeconds(sent), clockSeconds(t.first), t.mark, r.received, clockSeconds(Clock::now()));
        bool transient;
        if (rc != CURLE_OK) {
            if (t.overflow)
                s3Fail(c, "the reply holds more than the " + std::to_string(c.intoSize) + " bytes asked for");
            transient = transientCurl(rc);
        } else if (r.status >= 200 && r.status < 300) {
            if (!c.errorIn200) return r;
            bool error;
            try {
                error = S3XmlDocument(r.body).rootName() == "Error";
            } catch (const S3XmlError& e) {
                s3Fail(c, e.what());
            }
            if (!error) return r;
            const S3ErrorInfo e = s3ErrorOf(r.body);
            r.code = e.code;
            r.message = e.message;
            transient = transientStatus(500, r.code);
            why = r.describe();
        } else {
            const S3ErrorInfo e = s3ErrorOf(r.body);
            r.code = e.code;
            r.message = e.message;
            if (std::find(c.handBack.begin(), c.handBack.end(), r.status) != c.handBack.end()) return r;
            transient = transientStatus(r.status, r.code);
            why = r.describe();
        }
        if (!transient) s3Fail(c, why);
        // Exponential back-off from 100 ms to 2 s, each wait drawn from
        // its upper half, so that clients that failed together spread out.
        const double ceiling = std::min(2000.0, 100.0 * static_cast<double>(1u << std::min(n - 1, 5u)));
        const auto wait = std::chrono::milliseconds(
            static_cast<long>(std::uniform_real_distribution<double>(ceiling / 2, ceiling)(rng)));
        if (Clock::now() + wait >= deadline)
            s3Fail(c, why + " (gave up after " + std::to_string(n) + " attempts in " + seconds(Clock::now() - start) + ")");
        count(c, &S3Counters::retries);
        std::this_thread::sleep_for(wait);
    }
}

LinkGauge::Figures S3Transport::link() const { return s_->gauge.figures(); }

std::shared_ptr<S3Transport> S3Connections::transport(const S3Config& config) {
    Key key{withoutTrailingSlashes(config.endpoint), config.region, config.accessKey, config.secretKey,
            config.sessionToken};
    std::lock_guard<std::mutex> lock(m_mutex);
    std::shared_ptr<S3Transport>& t = m_transports[key];
    if (!t) {
        try {
            t = std::make_shared<S3Transport>(config);
        } catch (...) {
            m_transports.erase(key);
            throw;
        }
    }
    return t;
}

}  // namespace zxblk
