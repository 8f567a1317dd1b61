#include "store/s3_xml.h"

#include <pugixml.hpp>

#include <cstring>
#include <sstream>

#include "store/s3_text.h"

namespace zxblk {
namespace {

// A text of spaces alone is kept: a key may be one.
constexpr unsigned kParse = pugi::parse_default | pugi::parse_ws_pcdata_single;

void parse(pugi::xml_document& d, const std::string& text) {
    const pugi::xml_parse_result r = d.load_buffer(text.data(), text.size(), kParse, pugi::encoding_utf8);
    if (!r)
        throw S3XmlError("the reply is not well-formed XML (" + std::string(r.description()) + " at byte " +
                         std::to_string(r.offset) + ")");
}

// "ListBucketResult" of "s3:ListBucketResult".
const char* localName(const pugi::xml_node& n) {
    const char* name = n.name();
    const char* colon = std::strrchr(name, ':');
    return colon ? colon + 1 : name;
}

bool named(const pugi::xml_node& n, const std::string& name) {
    return n.type() == pugi::node_element && name == localName(n);
}

std::string text(const pugi::xml_node& parent, const std::string& name) {
    for (pugi::xml_node c = parent.first_child(); c; c = c.next_sibling())
        if (named(c, name)) return c.text().get();
    return std::string();
}

std::string unquote(const std::string& etag) {
    if (etag.size() >= 2 && etag.front() == '"' && etag.back() == '"') return etag.substr(1, etag.size() - 2);
    return etag;
}

std::string print(const pugi::xml_node& n) {
    std::ostringstream out;
    n.print(out, "", pugi::format_raw | pugi::format_no_declaration);
    return out.str();
}

}  // namespace

struct S3XmlDocument::Impl {
    pugi::xml_document doc;
};

S3XmlDocument::S3XmlDocument(const std::string& text) : m_(std::make_unique<Impl>()) { parse(m_->doc, text); }

S3XmlDocument::~S3XmlDocument() = default;

std::string S3XmlDocument::rootName() const { return localName(m_->doc.document_element()); }

std::string S3XmlDocument::field(const std::string& name) const { return text(m_->doc.document_element(), name); }

std::vector<std::map<std::string, std::string>> S3XmlDocument::records(const std::string& name) const {
    std::vector<std::map<std::string, std::string>> out;
    for (pugi::xml_node r = m_->doc.document_element().first_child(); r; r = r.next_sibling()) {
        if (!named(r, name)) continue;
        std::map<std::string, std::string> fields;
        for (pugi::xml_node f = r.first_child(); f; f = f.next_sibling())
            if (f.type() == pugi::node_element) fields.emplace(localName(f), f.text().get());
        out.push_back(std::move(fields));
    }
    return out;
}

S3ErrorInfo s3ErrorOf(const std::string& body) {
    S3ErrorInfo e;
    pugi::xml_document d;
    if (body.empty() || !d.load_buffer(body.data(), body.size(), kParse, pugi::encoding_utf8)) return e;
    const pugi::xml_node root = d.document_element();
    if (!named(root, "Error")) return e;
    e.code = text(root, "Code");
    e.message = text(root, "Message");
    return e;
}

S3ListPage s3ListPage(const std::string& body) {
    pugi::xml_document d;
    parse(d, body);
    const pugi::xml_node root = d.document_element();
    if (!named(root, "ListBucketResult"))
        throw S3XmlError("the reply is a <" + s3::oneLine(localName(root), 100) + "> document, not a listing");
    S3ListPage page;
    for (pugi::xml_node item = root.first_child(); item; item = item.next_sibling()) {
        if (!named(item, "Contents")) continue;
        S3ListEntry e;
        e.key = text(item, "Key");
        if (e.key.empty() || !s3::parseU64(text(item, "Size"), e.size))
            throw S3XmlError("unreadable entry in the listing: " + s3::oneLine(print(item), 200));
        e.etag = unquote(text(item, "ETag"));
        page.entries.push_back(std::move(e));
    }
    page.truncated = text(root, "IsTruncated") == "true";
    if (page.truncated) {
        page.nextToken = text(root, "NextContinuationToken");
        if (page.nextToken.empty()) throw S3XmlError("a listing cut short names no NextContinuationToken");
    }
    return page;
}

std::string s3UploadId(const std::string& body) {
    pugi::xml_document d;
    parse(d, body);
    const pugi::xml_node root = d.document_element();
    std::string id = named(root, "InitiateMultipartUploadResult") ? text(root, "UploadId") : std::string();
    if (id.empty()) throw S3XmlError("the reply names no UploadId");
    return id;
}

std::string s3CompleteUploadXml(const std::vector<std::string>& etags) {
    pugi::xml_document d;
    pugi::xml_node root = d.append_child("CompleteMultipartUpload");
    for (size_t i = 0; i < etags.size(); ++i) {
        pugi::xml_node part = root.append_child("Part");
        part.append_child("PartNumber").text().set(std::to_string(i + 1).c_str());
        part.append_child("ETag").text().set(etags[i].c_str());
    }
    return print(d);
}

std::string s3CreateBucketXml(const std::string& region) {
    pugi::xml_document d;
    d.append_child("CreateBucketConfiguration").append_child("LocationConstraint").text().set(region.c_str());
    return print(d);
}

}  // namespace zxblk
