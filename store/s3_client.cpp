#include "store/s3_client.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "store/s3_text.h"
#include "store/store_error.h"

namespace zxblk {
namespace {

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kMinPartSize = 5 * kMiB;  // S3's least, for all parts but the last
constexpr uint64_t kMaxParts = 10000;

std::string unquote(const std::string& etag) {
    if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') return etag.substr(1, etag.size() - 2);
    return etag;
}

}  // namespace

struct S3Client::State {
    S3Config cfg;
    std::string bucket;
    std::shared_ptr<S3Transport> transport;
    std::string bucketUrl;
    S3Counters counters;

    State(S3Config c, std::string b, const std::function<std::shared_ptr<S3Transport>(const S3Config&)>& connect)
        : cfg(std::move(c)), bucket(std::move(b)) {
        if (bucket.empty()) throw StoreError("s3: no bucket given");
        try {
            transport = connect(cfg);
        } catch (const StoreError& e) {
            throw StoreError(bucketName() + ": " + e.what());
        }
        bucketUrl = transport->bucketUrl(bucket, cfg.pathStyle);
    }

    std::string name(const std::string& key) const { return "s3://" + bucket + "/" + key; }
    std::string bucketName() const { return "s3://" + bucket; }

    // Counts a failure of an upload that is not the service's and throws.
    [[noreturn]] void failUpload(const std::string& key, const std::string& why) {
        S3Request c = request(S3Kind::put, "PUT", "upload");
        c.name = name(key);
        s3Fail(c, why);
    }

    S3Request request(S3Kind kind, const char* method, std::string op) {
        S3Request c;
        c.kind = kind;
        c.method = method;
        c.op = std::move(op);
        c.timing = cfg;
        c.counters = &counters;
        return c;
    }
    S3Request objectCall(S3Kind kind, const char* method, std::string op, const std::string& key) {
        if (key.empty()) throw StoreError(bucketName() + ": " + op + ": empty object key");
        S3Request c = request(kind, method, std::move(op));
        c.name = name(key);
        c.url = bucketUrl + (bucketUrl.back() == '/' ? "" : "/") + s3::uriEncode(key, true);
        return c;
    }
    S3Request bucketCall(S3Kind kind, const char* method, std::string op, const std::string& what) {
        S3Request c = request(kind, method, std::move(op));
        c.name = what.empty() ? bucketName() : what;
        c.url = bucketUrl;
        return c;
    }

    S3Reply perform(const S3Request& c) { return transport->perform(c); }

    void headBucket() {
        S3Request c = bucketCall(S3Kind::other, "HEAD", "HEAD", "");
        c.handBack = {404};
        S3Reply r = perform(c);
        if (r.status == 404) s3Fail(c, "404 NoSuchBucket");
    }

    std::string beginUpload(const std::string& key) {
        S3Request c = objectCall(S3Kind::multipart, "POST", "CreateMultipartUpload", key);
        c.query = {{"uploads", ""}};
        c.headers = {"Content-Type: application/octet-stream"};
        S3Reply r = perform(c);
        try {
            return s3UploadId(r.body);
        } catch (const S3XmlError& e) {
            s3Fail(c, e.what());
        }
    }

    std::string uploadPart(const std::string& key, const std::string& uploadId, uint64_t number, const std::string& data) {
        S3Request c = objectCall(S3Kind::put, "PUT", "UploadPart #" + std::to_string(number), key);
        c.query = {{"partNumber", std::to_string(number)}, {"uploadId", uploadId}};
        c.body = data.data();
        c.bodySize = data.size();
        S3Reply r = perform(c);
        std::string etag = r.header("etag");
        if (etag.empty()) s3Fail(c, "the reply has no ETag");
        counters.putBytes.fetch_add(data.size(), std::memory_order_relaxed);
        return etag;
    }

    void completeUpload(const std::string& key, const std::string& uploadId, const std::vector<std::string>& etags,
                        uint64_t size) {
        const std::string xml = s3CompleteUploadXml(etags);
        S3Request c = objectCall(S3Kind::multipart, "POST", "CompleteMultipartUpload", key);
        c.query = {{"uploadId", uploadId}};
        c.headers = {"Content-Type: application/xml"};
        c.body = xml.data();
        c.bodySize = xml.size();
        c.errorIn200 = true;
        c.handBack = {404};
        S3Reply r = perform(c);
        if (r.status != 404) return;
        // A repeated completion finds the upload gone when the first one
        // went through and only its reply was lost: then the object is there.
        if (r.code == "NoSuchUpload" && r.attempts > 1) {
            S3Request h = objectCall(S3Kind::head, "HEAD", "HEAD", key);
            h.handBack = {404};
            S3Reply hr = perform(h);
            uint64_t got = 0;
            if (hr.status == 200 && s3::parseU64(hr.header("content-length"), got) && got == size) return;
        }
        s3Fail(c, r.describe());
    }

};

S3Client::S3Client(S3Config config, std::string bucket)
    : s_(std::make_unique<State>(std::move(config), std::move(bucket),
                                 [](const S3Config& c) { return std::make_shared<S3Transport>(c); })) {}

S3Client::S3Client(S3Config config, std::string bucket, S3Connections& connections)
    : s_(std::make_unique<State>(std::move(config), std::move(bucket),
                                 [&](const S3Config& c) { return connections.transport(c); })) {}

S3Client::~S3Client() = default;

S3ObjectInfo S3Client::head(const std::string& key) {
    S3Request c = s_->objectCall(S3Kind::head, "HEAD", "HEAD", key);
    c.handBack = {404};
    S3Reply r = s_->perform(c);
    S3ObjectInfo info;
    if (r.status == 404) {
        s_->headBucket();  // a missing bucket is an error, not a missing key
        return info;
    }
    if (!s3::parseU64(r.header("content-length"), info.size)) s3Fail(c, "the reply has no Content-Length");
    info.exists = true;
    info.etag = unquote(r.header("etag"));
    return info;
}

void S3Client::getRange(const std::string& key, uint64_t offset, uint64_t length, void* buf, const std::string& ifMatch,
                        uint64_t* objectSize) {
    if (length == 0) return;
    if (offset > UINT64_MAX - length) throw StoreError(s_->name(key) + ": GET: range past 2^64");
    const uint64_t last = offset + length - 1;
    const std::string range = std::to_string(offset) + "-" + std::to_string(last);
    S3Request c = s_->objectCall(S3Kind::get, "GET", "GET bytes " + range, key);
    c.headers = {"Range: bytes=" + range};
    c.handBack = {404};
    if (!ifMatch.empty()) {
        c.headers.push_back("If-Match: \"" + ifMatch + "\"");
        c.handBack.push_back(412);
    }
    c.into = static_cast<char*>(buf);
    c.intoSize = length;
    S3Reply r = s_->perform(c);
    if (r.status == 404) {
        s_->counters.failures.fetch_add(1, std::memory_order_relaxed);
        throw StoreError(ErrorKind::notFound, c.name + ": " + c.op + ": " + r.describe());
    }
    if (r.status == 412) {
        s_->counters.failures.fetch_add(1, std::memory_order_relaxed);
        throw StoreError(ErrorKind::corruption,
                         c.name + ": " + c.op + ": the object was replaced (its ETag is no longer " + ifMatch + ")");
    }
    if (objectSize) *objectSize = length;
    if (r.status == 206) {
        // "bytes FIRST-LAST/SIZE"
        const std::string cr = r.header("content-range");
        uint64_t first = 0, end = 0, size = 0;
        size_t dash = cr.find('-'), slash = cr.find('/');
        if (cr.compare(0, 6, "bytes ") != 0 || dash == std::string::npos || slash == std::string::npos || slash < dash ||
            !s3::parseU64(cr.substr(6, dash - 6), first) || !s3::parseU64(cr.substr(dash + 1, slash - dash - 1), end))
            s3Fail(c, "unreadable Content-Range '" + cr + "'");
        if (first == offset && end < last && s3::parseU64(cr.substr(slash + 1), size))
            s3Fail(c, "the object is only " + std::to_string(size) + " bytes");
        if (first != offset || end != last) s3Fail(c, "the server sent bytes " + cr.substr(6));
        if (objectSize && !s3::parseU64(cr.substr(slash + 1), *objectSize))
            s3Fail(c, "unreadable Content-Range '" + cr + "'");
    } else if (r.status != 200 || offset != 0) {
        // 200 is the whole object: right only when that is what was asked.
        s3Fail(c, "the server ignored the byte range (" + std::to_string(r.status) + ")");
    }
    if (r.received != length) s3Fail(c, std::to_string(r.received) + " of " + std::to_string(length) + " bytes arrived");
    s_->counters.getBytes.fetch_add(length, std::memory_order_relaxed);
}

std::string S3Client::getObject(const std::string& key) {
    S3Request c = s_->objectCall(S3Kind::get, "GET", "GET", key);
    S3Reply r = s_->perform(c);
    uint64_t expected = 0;
    if (s3::parseU64(r.header("content-length"), expected) && expected != r.body.size())
        s3Fail(c, std::to_string(r.body.size()) + " of " + std::to_string(expected) + " bytes arrived");
    s_->counters.getBytes.fetch_add(r.body.size(), std::memory_order_relaxed);
    return std::move(r.body);
}

S3Client::Fetched S3Client::fetch(const std::string& key, const std::string& ifNoneMatch) {
    S3Request c = s_->objectCall(S3Kind::get, "GET", "GET", key);
    c.handBack = {404};
    if (!ifNoneMatch.empty()) {
        c.headers.push_back("If-None-Match: \"" + ifNoneMatch + "\"");
        c.handBack.push_back(304);
    }
    S3Reply r = s_->perform(c);
    Fetched f;
    if (r.status == 404) {
        s_->headBucket();  // a missing bucket is an error, not a missing key
        return f;
    }
    f.exists = true;
    if (r.status == 304) {
        f.unchanged = true;
        f.etag = ifNoneMatch;
        return f;
    }
    uint64_t expected = 0;
    if (s3::parseU64(r.header("content-length"), expected) && expected != r.body.size())
        s3Fail(c, std::to_string(r.body.size()) + " of " + std::to_string(expected) + " bytes arrived");
    f.etag = unquote(r.header("etag"));
    f.body = std::move(r.body);
    s_->counters.getBytes.fetch_add(f.body.size(), std::memory_order_relaxed);
    return f;
}

bool S3Client::putObject(const std::string& key, const std::string& data, bool ifNoneMatch) {
    S3Request c = s_->objectCall(S3Kind::put, "PUT", "PUT", key);
    c.headers = {"Content-Type: application/octet-stream"};
    if (ifNoneMatch) {
        c.headers.push_back("If-None-Match: *");
        c.handBack = {412};
    }
    c.body = data.data();
    c.bodySize = data.size();
    S3Reply r = s_->perform(c);
    if (r.status == 412) {
        // After a lost reply the object found may be our own first attempt's.
        if (r.attempts == 1) return false;
        S3ObjectInfo info = head(key);
        if (!info.exists || info.size != data.size() || getObject(key) != data) return false;
    }
    s_->counters.putBytes.fetch_add(data.size(), std::memory_order_relaxed);
    return true;
}

// The parts of an upload on their way: a queue that the sending threads
// take from, and what came of each.
struct S3Client::Upload::Parts {
    S3Client::State& s;
    const std::string key;
    const unsigned parallel;
    std::string uploadId;
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<std::pair<uint64_t, std::string>> queue;  // (number, bytes)
    unsigned sending = 0;
    std::vector<std::thread> senders;
    std::vector<std::string> etags;
    uint64_t next = 1, total = 0;
    uint64_t errorPart = UINT64_MAX;
    std::string error;
    bool closed = false;

    Parts(S3Client::State& state, std::string k, unsigned p) : s(state), key(std::move(k)), parallel(std::max(1u, p)) {}

    void send() {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            changed.wait(lock, [&] { return !queue.empty() || closed; });
            if (queue.empty()) return;
            auto part = std::move(queue.front());
            queue.pop_front();
            ++sending;
            const bool stopped = !error.empty();
            lock.unlock();
            std::string etag, why;
            if (!stopped) {
                try {
                    etag = s.uploadPart(key, uploadId, part.first, part.second);
                } catch (const std::exception& e) {
                    why = e.what();
                }
            }
            lock.lock();
            --sending;
            if (!why.empty() && part.first < errorPart) errorPart = part.first, error = why;
            if (etags.size() < part.first) etags.resize(part.first);
            etags[part.first - 1] = etag;
            changed.notify_all();
        }
    }
    // Queues a full part, once fewer than `parallel` are queued or going.
    void add(std::string bytes) {
        if (uploadId.empty()) uploadId = s.beginUpload(key);
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return queue.size() + sending < parallel || !error.empty(); });
        if (!error.empty()) throw StoreError(s3::oneLine(error));
        total += bytes.size();
        queue.emplace_back(next++, std::move(bytes));
        if (senders.size() < parallel) {
            try {
                senders.emplace_back(&Parts::send, this);
            } catch (const std::system_error&) {
                if (senders.empty()) throw;  // none at all: nothing would send it
            }
        }
        changed.notify_all();
    }
    // Waits for every part; the first part's error, if any.
    std::string drain() {
        {
            std::lock_guard<std::mutex> lock(mutex);
            closed = true;
        }
        changed.notify_all();
        for (std::thread& t : senders) t.join();
        senders.clear();
        return error;
    }
};

S3Client::Upload::Upload(S3Client& client, std::string key, uint64_t sizeHint, uint64_t partSize, unsigned parallel)
    : m_client(client), m_key(std::move(key)) {
    // No more than S3's 10000 parts: larger parts, in whole MiB, where needed.
    const uint64_t least = (sizeHint + kMaxParts - 1) / kMaxParts;
    m_partSize = std::max({partSize, kMinPartSize, (least + kMiB - 1) / kMiB * kMiB});
    m_parts.reset(new Parts(*client.s_, m_key, parallel));
}

S3Client::Upload::~Upload() {
    if (m_finished) return;
    m_parts->drain();
    // Leave no parts behind: they cost storage and no listing shows them.
    if (!m_parts->uploadId.empty()) {
        try {
            m_client.abortUpload(m_key, m_parts->uploadId);
        } catch (const std::exception&) {
            // The service's lifecycle rules are the last resort.
        }
    }
}

void S3Client::Upload::partFull() {
    std::string full;
    full.swap(m_part);
    m_parts->add(std::move(full));
    m_part.reserve(static_cast<size_t>(m_partSize));
}

void S3Client::Upload::write(const void* data, size_t length) {
    const char* from = static_cast<const char*>(data);
    while (length) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length, m_partSize - m_part.size()));
        m_part.append(from, n);
        from += n, length -= n;
        if (m_part.size() == m_partSize) partFull();
    }
}

void S3Client::Upload::zeros(uint64_t length) {
    while (length) {
        size_t n = static_cast<size_t>(std::min<uint64_t>(length, m_partSize - m_part.size()));
        m_part.append(n, '\0');
        length -= n;
        if (m_part.size() == m_partSize) partFull();
    }
}

void S3Client::Upload::finish() {
    if (m_parts->uploadId.empty()) {
        m_client.putObject(m_key, m_part);
        m_finished = true;
        return;
    }
    if (!m_part.empty()) partFull();
    std::string error = m_parts->drain();
    if (error.empty()) {
        try {
            m_client.s_->completeUpload(m_key, m_parts->uploadId, m_parts->etags, m_parts->total);
            m_finished = true;
            return;
        } catch (const std::exception& e) {
            error = e.what();
        }
    }
    throw StoreError(s3::oneLine(error));  // the destructor aborts the upload
}

uint64_t S3Client::Upload::copyFrom(int fd, uint64_t at, uint64_t length) {
    uint64_t done = 0;
    while (done < length) {
        // Read straight into the part being filled.
        const size_t before = m_part.size();
        m_part.resize(before + static_cast<size_t>(std::min<uint64_t>(length - done, m_partSize - before)));
        ssize_t n = ::pread(fd, &m_part[before], m_part.size() - before, static_cast<off_t>(at + done));
        const int err = errno;
        m_part.resize(before + static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (n < 0 && err == EINTR) continue;
        if (n < 0)
            m_client.s_->failUpload(m_key, "reading the file at byte " + std::to_string(at + done) + ": " +
                                               std::strerror(err));
        if (n == 0) break;
        done += static_cast<uint64_t>(n);
        if (m_part.size() == m_partSize) partFull();
    }
    return done;
}

void S3Client::uploadFile(const std::string& key, int fd, uint64_t size, uint64_t partSize, unsigned parallel) {
    Upload upload(*this, key, size, partSize, parallel);
    const uint64_t got = upload.copyFrom(fd, 0, size);
    if (got < size)
        s_->failUpload(key, "the file ends at byte " + std::to_string(got) + ", short of the " + std::to_string(size) +
                                " bytes to upload");
    upload.finish();
}

std::vector<S3ListEntry> S3Client::list(const std::string& prefix, unsigned pageSize) {
    std::vector<S3ListEntry> out;
    std::string token;
    for (;;) {
        S3Request c = s_->bucketCall(S3Kind::list, "GET", "LIST", s_->name(prefix));
        c.query = {{"list-type", "2"}, {"max-keys", std::to_string(std::max(1u, std::min(pageSize, 1000u)))}};
        if (!prefix.empty()) c.query.emplace_back("prefix", prefix);
        if (!token.empty()) c.query.emplace_back("continuation-token", token);
        S3Reply r = s_->perform(c);
        S3ListPage page;
        try {
            page = s3ListPage(r.body);
        } catch (const S3XmlError& e) {
            s3Fail(c, e.what());
        }
        for (S3ListEntry& e : page.entries) out.push_back(std::move(e));
        if (!page.truncated) return out;
        token = page.nextToken;
    }
}

void S3Client::abortUpload(const std::string& key, const std::string& uploadId) {
    S3Request c = s_->objectCall(S3Kind::multipart, "DELETE", "AbortMultipartUpload", key);
    c.query = {{"uploadId", uploadId}};
    c.handBack = {404};
    S3Reply r = s_->perform(c);
    // Gone already (an earlier attempt whose reply was lost): done.
    if (r.status == 404 && r.code != "NoSuchUpload") s3Fail(c, r.describe());
}

void S3Client::remove(const std::string& key) {
    S3Request c = s_->objectCall(S3Kind::remove, "DELETE", "DELETE", key);
    c.handBack = {404};
    S3Reply r = s_->perform(c);
    if (r.status == 404 && r.code != "NoSuchKey") s3Fail(c, r.describe());
}

void S3Client::createBucket() {
    S3Request c = s_->bucketCall(S3Kind::other, "PUT", "CreateBucket", "");
    // us-east-1 is the default; any other region has to be named.
    std::string xml;
    if (s_->cfg.region != "us-east-1") {
        xml = s3CreateBucketXml(s_->cfg.region);
        c.headers = {"Content-Type: application/xml"};
    }
    c.body = xml.data();
    c.bodySize = xml.size();
    c.handBack = {409};
    S3Reply r = s_->perform(c);
    if (r.status == 409 && r.code != "BucketAlreadyOwnedByYou") s3Fail(c, r.describe());
}

S3Stats S3Client::stats() const { return s_->counters.snapshot(); }

LinkGauge::Figures S3Client::link() const { return s_->transport->link(); }

}  // namespace zxblk
