// S3's XML: the replies it sends (error documents, listing pages, the ID of
// a new multipart upload) read with a real XML parser, and the few
// documents a request carries. Entities and character references are the
// parser's business; a reply that is not well-formed XML is an error, not
// an empty field.
#pragma once
#include <cstdint>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace zxblk {

// What is wrong with a reply, in words; the caller adds which object and
// operation it was for.
class S3XmlError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// One parsed reply. Elements are matched by their local name, whatever
// namespace prefix a server gives them.
class S3XmlDocument {
public:
    // Throws S3XmlError when `text` is not well-formed XML.
    explicit S3XmlDocument(const std::string& text);
    ~S3XmlDocument();
    S3XmlDocument(const S3XmlDocument&) = delete;
    S3XmlDocument& operator=(const S3XmlDocument&) = delete;

    std::string rootName() const;
    // The text of the root's first child element `name`; empty when none.
    std::string field(const std::string& name) const;
    // For each child element `name` of the root, in order, the texts of its
    // own child elements by name.
    std::vector<std::map<std::string, std::string>> records(const std::string& name) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_;
};

// The Code and Message of an S3 error document; both empty for a body that
// is not one (a HEAD reply has none, a proxy may send HTML), where the HTTP
// status is all there is to go by.
struct S3ErrorInfo {
    std::string code;
    std::string message;
};
S3ErrorInfo s3ErrorOf(const std::string& body);

struct S3ListEntry {
    std::string key;
    uint64_t size = 0;
    std::string etag;  // without quotes
};

// One page of a ListObjectsV2 reply.
struct S3ListPage {
    std::vector<S3ListEntry> entries;
    bool truncated = false;
    std::string nextToken;  // where the next page begins, when truncated
};
// Throws S3XmlError for a malformed reply, another document, an entry
// without key or size, or a page cut short that says not where to go on.
S3ListPage s3ListPage(const std::string& body);
// The UploadId of a CreateMultipartUpload reply; throws S3XmlError.
std::string s3UploadId(const std::string& body);

// The body of CompleteMultipartUpload: the ETag of part 1, 2, ... in order.
std::string s3CompleteUploadXml(const std::vector<std::string>& etags);
// The body of CreateBucket outside us-east-1, naming the region.
std::string s3CreateBucketXml(const std::string& region);

}  // namespace zxblk
