// S3's XML as the client reads and writes it, against replies written out
// by hand as S3 and radosgw send them; and a malformed reply from a server
// of the test's own, which must fail the call in one line. No S3 needed.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "store/s3_client.h"
#include "store/s3_xml.h"
#include "store/store_error.h"

namespace {

using namespace zxblk;

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
const std::string kNs = " xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"";

std::string contents(const std::string& key, const std::string& size, const std::string& etag) {
    return "<Contents><Key>" + key + "</Key><LastModified>2024-05-01T10:00:00.000Z</LastModified><ETag>" + etag +
           "</ETag><Size>" + size + "</Size><Owner><ID>u</ID><DisplayName>u</DisplayName></Owner>"
           "<StorageClass>STANDARD</StorageClass></Contents>";
}

TEST(S3Xml, ErrorDocuments) {
    const struct {
        std::string body, code, message;
    } cases[] = {
        {kDecl + "<Error><Code>NoSuchKey</Code><Message>The specified key does not exist.</Message>"
                 "<Key>a&amp;b</Key><RequestId>4442587FB7D0A2F9</RequestId></Error>",
         "NoSuchKey", "The specified key does not exist."},
        {"<Error><Code>InvalidArgument</Code><Message>&lt;Part&gt; &#x263A; &#233; &quot;x&quot;</Message></Error>",
         "InvalidArgument", "<Part> \xe2\x98\xba \xc3\xa9 \"x\""},
        {"<Error><Code>NoSuchBucket</Code><BucketName>nb</BucketName><RequestId>tx0</RequestId>"
         "<HostId>h</HostId></Error>",
         "NoSuchBucket", ""},
        {"<s3:Error xmlns:s3=\"urn:x\"><s3:Code>SlowDown</s3:Code></s3:Error>", "SlowDown", ""},
        // Not an error document: the HTTP status is all there is.
        {"", "", ""},
        {"<html><body><h1>502 Bad Gateway</h1></body></html>", "", ""},
        {"Service Unavailable", "", ""},
        {"<Error><Code>SlowDown</Code><Mess", "", ""},
        {kDecl + "<ListBucketResult" + kNs + "><Name>b</Name></ListBucketResult>", "", ""},
    };
    for (const auto& c : cases) {
        const S3ErrorInfo e = s3ErrorOf(c.body);
        EXPECT_EQ(e.code, c.code) << c.body;
        EXPECT_EQ(e.message, c.message) << c.body;
    }
}

TEST(S3Xml, ListingPages) {
    const std::string head = kDecl + "<ListBucketResult" + kNs + "><Name>b</Name><Prefix></Prefix><KeyCount>4</KeyCount>";
    const std::string md5 = "&quot;0cc175b9c0f1b6a831c399e269772661&quot;";
    const struct {
        std::string body;
        std::vector<S3ListEntry> entries;
        bool truncated;
        std::string token, error;
    } cases[] = {
        {head + "<IsTruncated>true</IsTruncated><NextContinuationToken>1ueGcxLPRx1Tr/XYExHnhbYLgveDs2J+w=" +
             "</NextContinuationToken>" + contents("list/d&amp;&lt;&gt;&quot;&apos;", "1", md5) +
             contents("list/&#233;t&#xE9;", "12345678901", "&quot;3858f62230ac3c915f300c664312c63f-5&quot;") +
             contents(" ", "0", md5) + contents("a&#13;b", "7", "plain") + "</ListBucketResult>",
         {{"list/d&<>\"'", 1, "0cc175b9c0f1b6a831c399e269772661"},
          {"list/\xc3\xa9t\xc3\xa9", 12345678901ull, "3858f62230ac3c915f300c664312c63f-5"},
          {" ", 0, "0cc175b9c0f1b6a831c399e269772661"},
          {"a\rb", 7, "plain"}},
         true, "1ueGcxLPRx1Tr/XYExHnhbYLgveDs2J+w=", ""},
        {head + "<IsTruncated>false</IsTruncated></ListBucketResult>", {}, false, "", ""},
        {head + "<IsTruncated>false</IsTruncated>" + contents("<![CDATA[k<1>]]>", "5", md5) + "</ListBucketResult>",
         {{"k<1>", 5, "0cc175b9c0f1b6a831c399e269772661"}}, false, "", ""},
        // What must not pass for a page.
        {head + "<IsTruncated>true</IsTruncated>" + contents("a", "1", md5) + "</ListBucketResult>", {}, false, "",
         "a listing cut short names no NextContinuationToken"},
        {head + "<IsTruncated>false</IsTruncated><Contents><Key>a</Key></Contents></ListBucketResult>", {}, false, "",
         "unreadable entry in the listing: <Contents><Key>a</Key></Contents>"},
        {head + "<Contents><Key>a</Key><Size>-1</Size></Contents></ListBucketResult>", {}, false, "",
         "unreadable entry in the listing: <Contents><Key>a</Key><Size>-1</Size></Contents>"},
        {"<Error><Code>InternalError</Code></Error>", {}, false, "", "the reply is a <Error> document, not a listing"},
        {"<ListBucketResult><Contents><Key>a</Key>", {}, false, "",
         "the reply is not well-formed XML (Start-end tags mismatch at byte 39)"},
        {"<ListBucketResult><Key>a</Kex></ListBucketResult>", {}, false, "",
         "the reply is not well-formed XML (Start-end tags mismatch at byte 26)"},
        {"", {}, false, "", "the reply is not well-formed XML (No document element found at byte 0)"},
    };
    for (const auto& c : cases) {
        std::string error;
        S3ListPage page;
        try {
            page = s3ListPage(c.body);
        } catch (const S3XmlError& e) {
            error = e.what();
        }
        EXPECT_EQ(error, c.error) << c.body;
        if (!error.empty()) continue;
        ASSERT_EQ(page.entries.size(), c.entries.size()) << c.body;
        for (size_t i = 0; i < c.entries.size(); ++i) {
            EXPECT_EQ(page.entries[i].key, c.entries[i].key);
            EXPECT_EQ(page.entries[i].size, c.entries[i].size) << c.entries[i].key;
            EXPECT_EQ(page.entries[i].etag, c.entries[i].etag) << c.entries[i].key;
        }
        EXPECT_EQ(page.truncated, c.truncated);
        EXPECT_EQ(page.nextToken, c.token);
    }
}

TEST(S3Xml, MultipartUploadDocuments) {
    EXPECT_EQ(s3UploadId(kDecl + "<InitiateMultipartUploadResult" + kNs + "><Bucket>b</Bucket><Key>k</Key>" +
                         "<UploadId>2~iCw&amp;Z</UploadId></InitiateMultipartUploadResult>"),
              "2~iCw&Z");
    for (const std::string& bad : {std::string("<InitiateMultipartUploadResult/>"),
                                    std::string("<Error><UploadId>x</UploadId></Error>"), std::string("")}) {
        try {
            s3UploadId(bad);
            ADD_FAILURE() << "no UploadId in " << bad;
        } catch (const S3XmlError& e) {
            EXPECT_NE(std::string(e.what()).find(bad.empty() ? "not well-formed" : "names no UploadId"),
                      std::string::npos)
                << e.what();
        }
    }
    EXPECT_EQ(s3CompleteUploadXml({"\"a1\"", "\"b&<c\""}),
              "<CompleteMultipartUpload><Part><PartNumber>1</PartNumber><ETag>\"a1\"</ETag></Part>"
              "<Part><PartNumber>2</PartNumber><ETag>\"b&amp;&lt;c\"</ETag></Part></CompleteMultipartUpload>");
    EXPECT_EQ(s3CreateBucketXml("eu-west-1"),
              "<CreateBucketConfiguration><LocationConstraint>eu-west-1</LocationConstraint>"
              "</CreateBucketConfiguration>");
}

// Answers one request on 127.0.0.1 with `reply`, whatever it asked.
class OneReplyServer {
public:
    explicit OneReplyServer(std::string reply) : m_reply(std::move(reply)) {
        m_listen = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (m_listen < 0 || ::bind(m_listen, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
            ::listen(m_listen, 4) != 0 || ::getsockname(m_listen, reinterpret_cast<sockaddr*>(&a), &len) != 0)
            throw std::runtime_error("no socket to listen on");
        m_port = ntohs(a.sin_port);
        m_thread = std::thread([this] { serve(); });
    }
    ~OneReplyServer() {
        m_thread.join();
        ::close(m_listen);
    }
    std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(m_port); }

private:
    void serve() {
        pollfd p{m_listen, POLLIN, 0};
        if (::poll(&p, 1, 20000) != 1) return;  // the client never came: its own error tells
        int fd = ::accept(m_listen, nullptr, nullptr);
        if (fd < 0) return;
        std::string request;
        char buf[4096];
        ssize_t n;
        while (request.find("\r\n\r\n") == std::string::npos && (n = ::read(fd, buf, sizeof buf)) > 0)
            request.append(buf, static_cast<size_t>(n));
        (void)!::write(fd, m_reply.data(), m_reply.size());
        ::close(fd);
    }
    std::string m_reply;
    int m_listen = -1;
    uint16_t m_port = 0;
    std::thread m_thread;
};

std::string httpReply(const std::string& status, const std::string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
}

TEST(S3Xml, ReplyProblemsAreOneLineErrorsOfTheCall) {
    const struct {
        std::string reply;
        std::function<void(S3Client&)> call;
        std::string error;
    } cases[] = {
        {httpReply("200 OK", "<ListBucketResult><Contents>\n<Key>a</Key>"), [](S3Client& c) { c.list("p/"); },
         "s3://bucket/p/: LIST: the reply is not well-formed XML (Start-end tags mismatch at byte 40)"},
        {httpReply("404 Not Found", "<html><body>no</body></html>"), [](S3Client& c) { c.getObject("k"); },
         "s3://bucket/k: GET: 404 Not Found"},
        {httpReply("409 Conflict", "<Error><Code>BucketAlreadyExists</Code><Message>taken &amp; not yours</Message>"
                                   "</Error>"),
         [](S3Client& c) { c.createBucket(); }, "s3://bucket: CreateBucket: 409 BucketAlreadyExists: taken & not yours"},
    };
    for (const auto& c : cases) {
        OneReplyServer server(c.reply);
        S3Config cfg;
        cfg.endpoint = server.endpoint();
        cfg.accessKey = "K";
        cfg.secretKey = "S";
        cfg.deadlineSeconds = 5;
        S3Client client(cfg, "bucket");
        std::string error;
        try {
            c.call(client);
        } catch (const StoreError& e) {
            error = e.what();
        }
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(client.stats().failures, 1u) << c.error;
        EXPECT_EQ(client.stats().retries, 0u) << c.error;
    }
}

}  // namespace
