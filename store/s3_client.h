// A client for S3 object storage (AWS, or any server that speaks the S3 API,
// such as Ceph's radosgw), on libcurl and its built-in request signing.
//
// Every call is one S3 operation; transient trouble (5xx, 429, timeouts,
// refused or dropped connections, short bodies) is retried with exponential
// back-off and jitter until the call's deadline; anything else (403, 404,
// other 4xx) fails at once. Failures throw StoreError with one line naming
// the object ("s3://bucket/key"), the operation and the S3 error code.
// Credentials never appear in any message.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace zxblk {

// True when `text` names an S3 location ("s3://...").
bool isS3Url(const std::string& text);

// Where a store lies in S3: "s3://BUCKET/PREFIX".
struct S3Location {
    std::string bucket;
    std::string prefix;  // empty, or no leading '/' and one trailing '/': "backups/site1/"

    // Parses `url`; false with the reason in `why` when it is not a valid
    // s3:// URL or the bucket name breaks S3's naming rules.
    static bool parse(const std::string& url, S3Location& out, std::string& why);
    std::string url() const;  // "s3://bucket/prefix"
};

// How to reach the service, and how long to keep trying.
struct S3Config {
    std::string endpoint;  // "http://127.0.0.1:7480", "https://s3.eu-west-1.amazonaws.com"
    std::string region = "us-east-1";
    std::string accessKey;
    std::string secretKey;
    std::string sessionToken;  // sent as x-amz-security-token when not empty
    // http(s)://ENDPOINT/BUCKET/KEY rather than http(s)://BUCKET.ENDPOINT/KEY.
    bool pathStyle = true;
    double deadlineSeconds = 20;       // one call, all its attempts
    double requestTimeoutSeconds = 10;  // one attempt
    double connectTimeoutSeconds = 3;

    // What the AWS command line tools would use: AWS_ENDPOINT_URL_S3 or
    // AWS_ENDPOINT_URL; AWS_REGION, AWS_DEFAULT_REGION or the profile's
    // region (else us-east-1); AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and
    // AWS_SESSION_TOKEN, or the profile's keys. The profile is AWS_PROFILE's
    // or "default": [NAME] in ~/.aws/credentials, [profile NAME] (or
    // [default]) in ~/.aws/config; AWS_SHARED_CREDENTIALS_FILE and
    // AWS_CONFIG_FILE name other files. Without an endpoint it is AWS's for
    // the region, addressed virtual-host style; any other endpoint is
    // addressed path style. Throws StoreError when no credentials are found.
    static S3Config fromEnvironment();
};

struct S3ObjectInfo {
    bool exists = false;
    uint64_t size = 0;
    std::string etag;  // without quotes
};

struct S3ListEntry {
    std::string key;
    uint64_t size = 0;
    std::string etag;  // without quotes
};

struct S3Upload {  // a multipart upload begun and neither completed nor aborted
    std::string key;
    std::string uploadId;
};

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

// One bucket of one service. Thread-safe: calls from several threads run at
// once, each on a connection of its own, and connections are kept open for
// the next call.
class S3Client {
public:
    S3Client(S3Config config, std::string bucket);
    ~S3Client();
    S3Client(const S3Client&) = delete;
    S3Client& operator=(const S3Client&) = delete;

    const std::string& bucket() const;
    const S3Config& config() const;

    // Size and ETag of `key`; exists=false when there is no such key. A
    // missing bucket is an error (NoSuchBucket).
    S3ObjectInfo head(const std::string& key);
    // Exactly `length` bytes of `key` from `offset` into `buf`; a range that
    // runs past the object's end is an error.
    // With `ifMatch` (an ETag), an object replaced since is an error at once.
    void getRange(const std::string& key, uint64_t offset, uint64_t length, void* buf,
                  const std::string& ifMatch = std::string());
    std::string getObject(const std::string& key);
    // Writes `key`. With ifNoneMatch the write happens only where no object
    // `key` exists, and false says one did.
    bool putObject(const std::string& key, const std::string& data, bool ifNoneMatch = false);
    // Writes `size` bytes of the file `fd` (from its offset 0) as `key`: one
    // PUT up to `partSize`, else a multipart upload of parts of `partSize`
    // bytes (at least 5 MiB; raised where the file would need more than
    // 10000 parts), `parallel` of them in flight at once. On failure the
    // upload is aborted, so no part of it stays behind.
    void uploadFile(const std::string& key, int fd, uint64_t size, uint64_t partSize, unsigned parallel);
    // Every object whose key starts with `prefix`, in key order, fetched
    // `pageSize` keys per request.
    std::vector<S3ListEntry> list(const std::string& prefix, unsigned pageSize = 1000);
    std::vector<S3Upload> listUploads(const std::string& prefix);
    void abortUpload(const std::string& key, const std::string& uploadId);
    // Removes `key`; removing a key that does not exist is no error.
    void remove(const std::string& key);
    // Creates the bucket; one that exists already and is ours is fine.
    void createBucket();

    S3Stats stats() const;

    struct State;

private:
    std::unique_ptr<State> s_;
};

}  // namespace zxblk
