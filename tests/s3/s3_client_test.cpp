// S3Client against a live radosgw, which s3_test.sh starts for it (with the
// AWS_* variables that reach it) along with net_proxy --faults in front of it
// (ZXBLK_S3_FAULTY_ENDPOINT), a bucket (ZXBLK_S3_BUCKET) holding one upload
// begun by curl and left open (abort/dangling), and a folder for files
// (ZXBLK_S3_WORK). What is read back is compared with the bytes written.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "store/s3_client.h"
#include "store/store_error.h"

namespace {

using zxblk::S3Client;
using zxblk::S3Config;
using zxblk::S3Stats;
using zxblk::StoreError;

constexpr uint64_t kMiB = 1024 * 1024;

std::string env(const char* name) {
    const char* v = std::getenv(name);
    if (!v || !*v) throw std::runtime_error(std::string(name) + " is not set: run this through s3_test.sh");
    return v;
}

const std::string& bucket() {
    static const std::string b = env("ZXBLK_S3_BUCKET");
    return b;
}

S3Config config() { return S3Config::fromEnvironment(); }

S3Client& client() {
    static S3Client c(config(), bucket());
    return c;
}

// Bytes from xorshift64*, a different run for every seed.
std::string pattern(size_t n, uint64_t seed) {
    std::string s(n, '\0');
    uint64_t x = seed * 0x9E3779B97F4A7C15ull + 1;
    for (size_t i = 0; i < n; i += 8) {
        x ^= x >> 12, x ^= x << 25, x ^= x >> 27;
        uint64_t v = x * 0x2545F4914F6CDD1Dull;
        std::memcpy(&s[i], &v, std::min<size_t>(8, n - i));
    }
    return s;
}

std::string writeFile(const std::string& name, const std::string& bytes) {
    std::string path = env("ZXBLK_S3_WORK") + "/" + name;
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    EXPECT_GE(fd, 0) << path;
    EXPECT_EQ(::write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    ::close(fd);
    return path;
}

struct Fd {
    int fd;
    explicit Fd(const std::string& path) : fd(::open(path.c_str(), O_RDONLY)) {}
    ~Fd() { ::close(fd); }
};

std::string errorOf(const std::function<void()>& f) {
    try {
        f();
    } catch (const StoreError& e) {
        return e.what();
    }
    return "(no error)";
}

// The multipart uploads begun under `prefix` and neither completed nor
// aborted (key, upload ID): a request of the test's own, as the product
// never lists them. There are few enough for one page.
std::vector<std::pair<std::string, std::string>> openUploads(const std::string& prefix) {
    const S3Config cfg = config();
    zxblk::S3Transport transport(cfg);
    zxblk::S3Request r;
    r.kind = zxblk::S3Kind::list;
    r.op = "ListMultipartUploads";
    r.name = "s3://" + bucket() + "/" + prefix;
    r.url = transport.bucketUrl(bucket(), cfg.pathStyle);
    r.query = {{"uploads", ""}, {"prefix", prefix}};
    const zxblk::S3XmlDocument page(transport.perform(r).body);
    EXPECT_EQ(page.rootName(), "ListMultipartUploadsResult");
    EXPECT_NE(page.field("IsTruncated"), "true");
    std::vector<std::pair<std::string, std::string>> out;
    for (auto& upload : page.records("Upload")) out.emplace_back(upload["Key"], upload["UploadId"]);
    return out;
}

class Bucket : public ::testing::Environment {
    void SetUp() override { client().createBucket(); }
};
[[maybe_unused]] const auto* const kBucketEnv = ::testing::AddGlobalTestEnvironment(new Bucket);

TEST(S3Client, RangeReadsMatchTheBytesWritten) {
    // 13 MiB and a bit: radosgw stores 4 MiB stripes, and the ranges cross them.
    const std::string src = pattern(13 * kMiB + 123, 1);
    const uint64_t n = src.size();
    client().putObject("data/blob", src);
    const struct {
        uint64_t offset, length;
    } ranges[] = {
        {0, 1}, {0, 4096}, {4 * kMiB - 10, 20}, {4 * kMiB - 1, 4 * kMiB + 2}, {12345678, kMiB},
        {n - 1, 1}, {n - 4097, 4097}, {0, n},
    };
    const S3Stats before = client().stats();
    uint64_t total = 0;
    for (const auto& r : ranges) {
        std::string got(r.length, '\0');
        client().getRange("data/blob", r.offset, r.length, &got[0]);
        EXPECT_TRUE(got == src.substr(r.offset, r.length)) << "bytes " << r.offset << " +" << r.length;
        total += r.length;
    }
    const S3Stats after = client().stats();
    EXPECT_EQ(after.gets - before.gets, std::size(ranges));
    EXPECT_EQ(after.getBytes - before.getBytes, total);
    EXPECT_EQ(after.retries, before.retries);

    EXPECT_TRUE(client().getObject("data/blob") == src);
    auto info = client().head("data/blob");
    EXPECT_TRUE(info.exists);
    EXPECT_EQ(info.size, n);
    EXPECT_EQ(info.etag.size(), 32u) << info.etag;  // the MD5 of a single PUT
    EXPECT_FALSE(client().head("data/blob2").exists);

    std::string buf(100, '\0');
    const std::string name = "s3://" + bucket() + "/data/blob";
    EXPECT_EQ(errorOf([&] { client().getRange("data/blob", n - 50, 100, &buf[0]); }),
              name + ": GET bytes " + std::to_string(n - 50) + "-" + std::to_string(n + 49) + ": the object is only " +
                  std::to_string(n) + " bytes");
    EXPECT_EQ(errorOf([&] { client().getRange("data/blob", n, 100, &buf[0]); }),
              name + ": GET bytes " + std::to_string(n) + "-" + std::to_string(n + 99) + ": 416 InvalidRange");
}

TEST(S3Client, ConditionalPutAndRemove) {
    const std::string key = "cond/marker";
    EXPECT_TRUE(client().putObject(key, "one", true));
    EXPECT_FALSE(client().putObject(key, "two", true));
    EXPECT_EQ(client().getObject(key), "one");
    EXPECT_TRUE(client().putObject(key, "three"));
    EXPECT_EQ(client().getObject(key), "three");
    EXPECT_TRUE(client().putObject("cond/empty", ""));
    EXPECT_EQ(client().head("cond/empty").size, 0u);
    EXPECT_EQ(client().getObject("cond/empty"), "");
    client().remove(key);
    EXPECT_FALSE(client().head(key).exists);
    client().remove(key);  // gone already: no error
}

TEST(S3Client, ClientsSharingConnectionsCountTheirOwnRequests) {
    zxblk::S3Connections connections;
    S3Client a(config(), bucket(), connections), b(config(), bucket(), connections);
    EXPECT_TRUE(a.putObject("shared/x", "xyz"));
    EXPECT_EQ(b.getObject("shared/x"), "xyz");
    EXPECT_EQ(b.getObject("shared/x"), "xyz");
    const S3Stats sa = a.stats(), sb = b.stats();
    EXPECT_EQ(sa.puts, 1u);
    EXPECT_EQ(sa.putBytes, 3u);
    EXPECT_EQ(sa.gets, 0u);
    EXPECT_EQ(sb.puts, 0u);
    EXPECT_EQ(sb.gets, 2u);
    EXPECT_EQ(sb.getBytes, 6u);
}

TEST(S3Client, ListsByPrefixPageByPage) {
    // Keys whose characters must be encoded in the path and in the query, and
    // escaped in the XML of the listing; each object holds its own key.
    const std::vector<std::string> inside = {
        "list/a",     "list/b b",   "list/c+d=e:f", "list/d&<>\"'", "list/e%41?x#y",
        "list/sub/x", "list/~tilde", "list/\xc3\xa9t\xc3\xa9",
    };
    const std::vector<std::string> outside = {"lisT/a", "list0", "other/list/a"};
    for (const auto& k : inside) client().putObject(k, k);
    for (const auto& k : outside) client().putObject(k, k);

    const struct {
        std::string prefix;
        unsigned pageSize;
        size_t pages;
    } cases[] = {{"list/", 3, 3}, {"list/", 1000, 1}, {"list/", 1, 8}, {"list/sub/", 2, 1}, {"nothing/", 5, 1}};
    for (const auto& c : cases) {
        std::vector<std::string> want;
        for (const auto& k : inside)
            if (k.compare(0, c.prefix.size(), c.prefix) == 0) want.push_back(k);
        std::sort(want.begin(), want.end());  // bytewise, as S3 orders keys
        const S3Stats before = client().stats();
        auto got = client().list(c.prefix, c.pageSize);
        EXPECT_EQ(client().stats().lists - before.lists, c.pages) << c.prefix << " by " << c.pageSize;
        ASSERT_EQ(got.size(), want.size()) << c.prefix;
        for (size_t i = 0; i < want.size(); ++i) {
            EXPECT_EQ(got[i].key, want[i]);
            EXPECT_EQ(got[i].size, want[i].size()) << want[i];
            EXPECT_EQ(got[i].etag.size(), 32u) << want[i];
        }
    }
    for (const auto& k : inside) EXPECT_EQ(client().getObject(k), k);
}

TEST(S3Client, MultipartUploadMatchesTheFile) {
    const std::string src = pattern(20 * kMiB + 777, 2);
    const std::string path = writeFile("big.bin", src);  // s3_test.sh reads it back with curl too
    Fd f(path);
    const S3Stats before = client().stats();
    client().uploadFile("multipart/big.bin", f.fd, src.size(), 5 * kMiB, 3);
    const S3Stats after = client().stats();
    EXPECT_EQ(after.puts - before.puts, 5u);      // five parts
    EXPECT_EQ(after.multipart - before.multipart, 2u);  // begun and completed
    EXPECT_EQ(after.putBytes - before.putBytes, src.size());
    auto info = client().head("multipart/big.bin");
    EXPECT_EQ(info.size, src.size());
    EXPECT_EQ(info.etag.substr(info.etag.size() - 2), "-5") << info.etag;  // an object made of five parts
    EXPECT_TRUE(client().getObject("multipart/big.bin") == src);
    std::string got(40, '\0');
    client().getRange("multipart/big.bin", 15 * kMiB - 20, 40, &got[0]);
    EXPECT_TRUE(got == src.substr(15 * kMiB - 20, 40));

    // Up to one part's size: a single PUT.
    const std::string small = pattern(3 * kMiB, 3);
    Fd g(writeFile("small.bin", small));
    const S3Stats b2 = client().stats();
    client().uploadFile("multipart/small.bin", g.fd, small.size(), 5 * kMiB, 3);
    EXPECT_EQ(client().stats().puts - b2.puts, 1u);
    EXPECT_EQ(client().stats().multipart - b2.multipart, 0u);
    EXPECT_TRUE(client().getObject("multipart/small.bin") == small);
}

TEST(S3Client, FailedUploadLeavesNothingBehind) {
    // The upload curl began and left open is there to be seen and aborted.
    auto open = openUploads("abort/");
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].first, "abort/dangling");
    EXPECT_FALSE(open[0].second.empty());
    client().abortUpload(open[0].first, open[0].second);
    EXPECT_TRUE(openUploads("abort/").empty());

    // A file 12 MiB long announced as 20 MiB: the upload fails on the third
    // part, after others went up, and is aborted.
    const std::string src = pattern(12 * kMiB, 4);
    Fd f(writeFile("short.bin", src));
    const std::string err = errorOf([&] { client().uploadFile("abort/short.bin", f.fd, 20 * kMiB, 5 * kMiB, 2); });
    EXPECT_EQ(err, "s3://" + bucket() + "/abort/short.bin: upload: the file ends at byte " + std::to_string(12 * kMiB) +
                       ", short of the " + std::to_string(20 * kMiB) + " bytes to upload");
    EXPECT_TRUE(openUploads("abort/").empty());
    EXPECT_FALSE(client().head("abort/short.bin").exists);
    EXPECT_TRUE(client().list("abort/").empty());
}

TEST(S3Client, ClientErrorsFailAtOnceInOneLineWithoutSecrets) {
    const S3Config good = config();
    S3Config wrongSecret = good, wrongKey = good;
    wrongSecret.secretKey = "not" + good.secretKey.substr(3);
    wrongKey.accessKey = "NOSUCHACCESSKEY00001";
    S3Client badSecret(wrongSecret, bucket()), badKey(wrongKey, bucket()), noBucket(good, "zxblk-no-such-bucket");
    client().putObject("errors/x", "x");
    const std::string b = "s3://" + bucket();
    const std::string check = " (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY)";
    std::string buf(10, '\0');
    const struct {
        S3Client* c;
        std::function<void(S3Client&)> call;
        std::string want;
    } cases[] = {
        {&client(), [](S3Client& c) { c.getObject("no/such/key"); }, b + "/no/such/key: GET: 404 NoSuchKey"},
        {&client(), [&](S3Client& c) { c.getRange("no/such/key", 0, 10, &buf[0]); },
         b + "/no/such/key: GET bytes 0-9: 404 NoSuchKey"},
        {&noBucket, [](S3Client& c) { c.getObject("k"); }, "s3://zxblk-no-such-bucket/k: GET: 404 NoSuchBucket"},
        {&noBucket, [](S3Client& c) { c.head("k"); }, "s3://zxblk-no-such-bucket: HEAD: 404 NoSuchBucket"},
        {&noBucket, [](S3Client& c) { c.list("p/"); }, "s3://zxblk-no-such-bucket/p/: LIST: 404 NoSuchBucket"},
        {&noBucket, [](S3Client& c) { c.putObject("k", "v"); }, "s3://zxblk-no-such-bucket/k: PUT: 404 NoSuchBucket"},
        {&badSecret, [](S3Client& c) { c.getObject("errors/x"); },
         b + "/errors/x: GET: 403 SignatureDoesNotMatch" + check},
        {&badSecret, [](S3Client& c) { c.putObject("errors/y", "y"); },
         b + "/errors/y: PUT: 403 SignatureDoesNotMatch" + check},
        {&badSecret, [](S3Client& c) { c.list(""); }, b + "/: LIST: 403 SignatureDoesNotMatch" + check},
        {&badSecret, [](S3Client& c) { c.head("errors/x"); },
         b + "/errors/x: HEAD: 403 Forbidden (check AWS_ACCESS_KEY_ID/AWS_SECRET_ACCESS_KEY and the bucket's "
             "permissions)"},
        {&badKey, [](S3Client& c) { c.getObject("errors/x"); }, b + "/errors/x: GET: 403 InvalidAccessKeyId" + check},
    };
    for (const auto& c : cases) {
        const S3Stats before = c.c->stats();
        const std::string err = errorOf([&] { c.call(*c.c); });
        EXPECT_EQ(err, c.want);
        EXPECT_EQ(err.find('\n'), std::string::npos);
        EXPECT_EQ(err.find(good.secretKey), std::string::npos);
        EXPECT_EQ(err.find(wrongSecret.secretKey), std::string::npos);
        EXPECT_EQ(c.c->stats().retries, before.retries) << c.want;
        EXPECT_EQ(c.c->stats().failures, before.failures + 1) << c.want;
    }
    EXPECT_FALSE(client().head("errors/y").exists);
}

TEST(S3Client, GivesUpOnRefusedConnectionsAtTheDeadline) {
    // A port bound but not listening refuses every connection, and stays ours.
    int s = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(s, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len), 0);
    S3Config cfg = config();
    cfg.endpoint = "http://127.0.0.1:" + std::to_string(ntohs(a.sin_port));
    cfg.deadlineSeconds = 3;
    S3Client c(cfg, bucket());
    const std::string err = errorOf([&] { c.getObject("k"); });
    ::close(s);
    const std::string head = "s3://" + bucket() + "/k: GET: ";
    EXPECT_EQ(err.compare(0, head.size(), head), 0) << err;
    EXPECT_NE(err.find("gave up after"), std::string::npos) << err;
    EXPECT_NE(err.find("onnect"), std::string::npos) << err;
    EXPECT_EQ(err.find(cfg.secretKey), std::string::npos);
    EXPECT_GT(c.stats().retries, 0u);
    EXPECT_EQ(c.stats().failures, 1u);
    EXPECT_EQ(c.stats().gets, c.stats().retries + 1);
}

TEST(S3Client, RightBytesThroughDroppedAndStalledConnections) {
    const std::string src = pattern(9 * kMiB + 5, 5);
    client().putObject("faulty/blob", src);
    S3Config cfg = config();
    cfg.endpoint = env("ZXBLK_S3_FAULTY_ENDPOINT");
    cfg.requestTimeoutSeconds = 1;  // the proxy's stalls last longer
    cfg.deadlineSeconds = 60;
    S3Client c(cfg, bucket());

    // Four threads read ranges at once, each on connections of its own.
    std::vector<std::thread> threads;
    std::vector<int> wrong(4, 0);
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (uint64_t i = 0; i < 8; ++i) {
                const uint64_t length = kMiB + i * 1000 + static_cast<uint64_t>(t);
                const uint64_t offset = (i * 2654435761u + static_cast<uint64_t>(t) * 40503u) % (src.size() - length);
                std::string got(length, '\0');
                try {
                    c.getRange("faulty/blob", offset, length, &got[0]);
                    wrong[t] += got != src.substr(offset, length);
                } catch (const std::exception& e) {
                    ADD_FAILURE() << e.what();
                    wrong[t]++;
                }
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
    EXPECT_TRUE(c.getObject("faulty/blob") == src);
    EXPECT_EQ(c.head("faulty/blob").size, src.size());

    // Writes through it too: a PUT and a multipart upload, read back directly.
    const std::string up = pattern(2 * kMiB + 3, 6);
    c.putObject("faulty/put", up);
    EXPECT_TRUE(client().getObject("faulty/put") == up);
    const std::string big = pattern(11 * kMiB, 7);
    Fd f(writeFile("faulty.bin", big));
    c.uploadFile("faulty/multipart", f.fd, big.size(), 5 * kMiB, 2);
    EXPECT_TRUE(client().getObject("faulty/multipart") == big);

    const S3Stats st = c.stats();
    EXPECT_GT(st.retries, 0u);
    EXPECT_EQ(st.failures, 0u);
    std::printf("through the fault proxy: %llu GETs, %llu PUTs, %llu retries\n",
                static_cast<unsigned long long>(st.gets), static_cast<unsigned long long>(st.puts),
                static_cast<unsigned long long>(st.retries));
}

}  // namespace
