// How requests reach an S3 service: libcurl handles kept open in a pool,
// each request signed by libcurl (SigV4) and tried until it succeeds, fails
// for good or runs out of time. Transient trouble (5xx, 429, timeouts,
// refused or dropped connections, short bodies) is retried with exponential
// back-off and jitter until the call's deadline; anything else (403, 404,
// other 4xx) fails at once. Failures throw StoreError with one line naming
// the object, the operation and the S3 error code; credentials never
// appear in any message.
//
// One transport serves every bucket and prefix on its endpoint: stores on
// one service share its connections (S3Connections hands them out), while
// each client counts its own requests (S3Counters).
#pragma once
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "store/link_gauge.h"
#include "store/s3_config.h"

namespace zxblk {

// What a client did so far, for the caller's statistics. Requests count
// every HTTP request sent, retries included.
struct S3Stats {
    uint64_t heads = 0;
    uint64_t gets = 0;
    uint64_t puts = 0;       // object PUTs and uploaded parts
    uint64_t lists = 0;      // listing pages of objects or of uploads
    uint64_t deletes = 0;
    uint64_t multipart = 0;  // begin, complete and abort of multipart uploads
    uint64_t other = 0;      // bucket calls
    uint64_t getBytes = 0;   // object bytes received by successful GETs
    uint64_t putBytes = 0;   // object bytes sent by successful PUTs and parts
    uint64_t retries = 0;    // attempts repeated after a transient failure
    uint64_t failures = 0;   // calls that ended in an error
};

// Which of S3Stats's request counts a request adds to.
enum class S3Kind { head, get, put, list, remove, multipart, other, count };

// The running counts behind S3Stats; safe to update from any thread.
struct S3Counters {
    std::atomic<uint64_t> requests[static_cast<int>(S3Kind::count)] = {};
    std::atomic<uint64_t> getBytes{0}, putBytes{0}, retries{0}, failures{0};
    S3Stats snapshot() const;
};

// One S3 call.
struct S3Request {
    S3Kind kind = S3Kind::get;
    const char* method = "GET";
    std::string op;    // what error lines call it: "GET", "UploadPart #3"
    std::string name;  // what they name: "s3://bucket/key"
    std::string url;   // without the query
    std::vector<std::pair<std::string, std::string>> query;  // encoded and sorted when sent
    std::vector<std::string> headers;                        // "Name: value"
    const char* body = nullptr;                              // PUT and POST
    size_t bodySize = 0;
    char* into = nullptr;  // where a 2xx body goes, at most intoSize bytes (else S3Reply::body)
    uint64_t intoSize = 0;
    std::vector<long> handBack;  // statuses besides 2xx returned to the caller rather than thrown
    bool errorIn200 = false;     // a 200 reply may carry an <Error> document (CompleteMultipartUpload)
    S3Timing timing;
    S3Counters* counters = nullptr;  // where requests, retries and failures are counted
};

struct S3Reply {
    long status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
    std::string code, message;  // of the error document, when the status is not 2xx
    uint64_t received = 0;      // bytes laid into S3Request::into
    unsigned attempts = 0;

    std::string header(const std::string& name) const;
    // "404 NoSuchKey", "403 SignatureDoesNotMatch (check ...)", "400 InvalidArgument: message".
    std::string describe() const;
};

// Counts a failure of `request` and throws StoreError "NAME: OP: WHY".
[[noreturn]] void s3Fail(const S3Request& request, const std::string& why);

class S3Transport {
public:
    // Throws StoreError when the keys are missing, or the region or
    // endpoint is not one (the message names neither bucket nor key).
    explicit S3Transport(const S3Config& config);
    ~S3Transport();
    S3Transport(const S3Transport&) = delete;
    S3Transport& operator=(const S3Transport&) = delete;

    // Where the bucket's requests go: ending without '/' for path style,
    // with one for virtual-host style.
    std::string bucketUrl(const std::string& bucket, bool pathStyle) const;
    // Sends `request` until it succeeds (or its status is one it hands
    // back), and returns the reply; throws StoreError otherwise. Thread-safe:
    // calls run at once, each on a connection of its own.
    S3Reply perform(const S3Request& request);
    // What the GETs laid into a buffer tell of the link to the endpoint.
    LinkGauge::Figures link() const;

    struct State;

private:
    std::unique_ptr<State> s_;
};

// The transports of one program, one per endpoint, region and credentials:
// clients of every bucket and prefix on one service share its connections.
class S3Connections {
public:
    // The transport for `config`'s endpoint, region and keys, made at the
    // first call; its timing and addressing style are the client's own.
    std::shared_ptr<S3Transport> transport(const S3Config& config);

private:
    using Key = std::tuple<std::string, std::string, std::string, std::string, std::string>;
    std::mutex m_mutex;
    std::map<Key, std::shared_ptr<S3Transport>> m_transports;
};

}  // namespace zxblk
