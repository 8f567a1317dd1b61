// Small text helpers the S3 configuration, XML, transport and client share.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace zxblk {
namespace s3 {

// Percent-encodes all but RFC 3986's unreserved characters (and '/' when
// asked). Requests are signed exactly as written, and the server signs its
// own canonical form, which is this one.
std::string uriEncode(const std::string& s, bool keepSlash);
// `s` cut to `max` bytes, control characters (a key may hold any) made
// spaces, so that an error stays on one line.
std::string oneLine(const std::string& s, size_t max = 2000);
std::string lower(std::string s);
std::string trim(const std::string& s);
// Decimal digits only, no sign, no overflow.
bool parseU64(const std::string& s, uint64_t& out);
// Lower-case letters, digits and hyphens, as AWS names its regions; it ends
// up in the signature, where anything else would break the request.
bool validRegion(const std::string& r);

}  // namespace s3
}  // namespace zxblk
