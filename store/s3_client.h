// The S3 operations on one bucket (AWS, or any server that speaks the S3
// API, such as Ceph's radosgw), over an S3Transport that does the sending,
// signing and retrying. Failures throw StoreError with one line naming the
// object ("s3://bucket/key"), the operation and the S3 error code.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "store/s3_config.h"
#include "store/s3_transport.h"
#include "store/s3_xml.h"

namespace zxblk {

struct S3ObjectInfo {
    bool exists = false;
    uint64_t size = 0;
    std::string etag;  // without quotes
};

// One bucket of one service. Thread-safe: calls from several threads run at
// once, each on a connection of its own, and connections are kept open for
// the next call. Its statistics are its own, whoever shares its transport.
class S3Client {
public:
    // With connections of its own.
    S3Client(S3Config config, std::string bucket);
    // With the connections `connections` keeps for its endpoint, region and
    // keys, shared with every other client there.
    S3Client(S3Config config, std::string bucket, S3Connections& connections);
    ~S3Client();
    S3Client(const S3Client&) = delete;
    S3Client& operator=(const S3Client&) = delete;

    // Size and ETag of `key`; exists=false when there is no such key. A
    // missing bucket is an error (NoSuchBucket).
    S3ObjectInfo head(const std::string& key);
    // Exactly `length` bytes of `key` from `offset` into `buf`; a range that
    // runs past the object's end is an error, and so is a missing object
    // (of kind notFound). With `ifMatch` (an ETag), an object replaced
    // since is an error at once (of kind corruption). `objectSize`, when given, gets the size of
    // the whole object, as the reply tells it.
    void getRange(const std::string& key, uint64_t offset, uint64_t length, void* buf,
                  const std::string& ifMatch = std::string(), uint64_t* objectSize = nullptr);
    std::string getObject(const std::string& key);
    // The whole object in one request. With `ifNoneMatch` (an ETag) an
    // object still of that ETag is not sent again: `unchanged` says so.
    struct Fetched {
        bool exists = false, unchanged = false;
        std::string etag, body;
    };
    Fetched fetch(const std::string& key, const std::string& ifNoneMatch = std::string());
    // Writes `key`. With ifNoneMatch the write happens only where no object
    // `key` exists, and false says one did.
    bool putObject(const std::string& key, const std::string& data, bool ifNoneMatch = false);
    // Writes `size` bytes of the file `fd` (from its offset 0) as `key`: one
    // PUT up to `partSize`, else a multipart upload of parts of `partSize`
    // bytes (at least 5 MiB; raised where the file would need more than
    // 10000 parts), `parallel` of them in flight at once. On failure the
    // upload is aborted, so no part of it stays behind, and the error told
    // is that of the lowest-numbered part that failed.
    void uploadFile(const std::string& key, int fd, uint64_t size, uint64_t partSize, unsigned parallel);

    // An object written as its bytes come, in order: parts of `partSize`
    // (at least 5 MiB; raised where `sizeHint` bytes would need more than
    // 10000 parts) go up `parallel` at once while the next is filled, so at
    // most parallel + 1 parts are ever held. An object of one part is one
    // PUT. Dropped before finish(), it is aborted: no part of it stays.
    // Errors throw from the call that meets them, the lowest-numbered
    // failed part's first.
    class Upload {
    public:
        Upload(S3Client& client, std::string key, uint64_t sizeHint, uint64_t partSize, unsigned parallel);
        ~Upload();
        Upload(const Upload&) = delete;
        Upload& operator=(const Upload&) = delete;
        void write(const void* data, size_t length);
        void zeros(uint64_t length);
        // Bytes [at, at + length) of the file `fd`, read into the parts;
        // returns how many there were (fewer where the file ends sooner).
        uint64_t copyFrom(int fd, uint64_t at, uint64_t length);
        // Sends what is left and completes the object.
        void finish();

        struct Parts;

    private:
        void partFull();
        S3Client& m_client;
        std::string m_key;
        uint64_t m_partSize;
        std::string m_part;
        std::unique_ptr<Parts> m_parts;
        bool m_finished = false;
    };
    // Every object whose key starts with `prefix`, in key order, fetched
    // `pageSize` keys per request.
    std::vector<S3ListEntry> list(const std::string& prefix, unsigned pageSize = 1000);
    void abortUpload(const std::string& key, const std::string& uploadId);
    // Removes `key`; removing a key that does not exist is no error.
    void remove(const std::string& key);
    // Creates the bucket; one that exists already and is ours is fine.
    void createBucket();

    S3Stats stats() const;
    // What the replies of GETs on this client's endpoint tell of the link.
    LinkGauge::Figures link() const;

    struct State;

private:
    std::unique_ptr<State> s_;
};

}  // namespace zxblk
