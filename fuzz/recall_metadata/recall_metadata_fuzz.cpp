// The recall metadata string travels from the disk library, which writes it
// (CreateDMRMetaData), to the store's restore service, which reads it
// (parseRecallMetadata). This target checks that the two agree, both ways:
//
//  - its input as a string: parsing must not crash; a refusal says why; a
//    string that parses ends with the path it gives, and written again by
//    CreateDMRMetaData it parses to the same fields;
//  - its input as fields (archive file id, position, path): what
//    CreateDMRMetaData writes from them parses back to the same fields.
//
// Two limits of the writer are left out on purpose: it writes the path as a
// C string, so a path with a NUL byte cannot pass, and it writes into a
// 4096-byte buffer, so a longer string is cut. Extent paths have neither.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/Log.h"
#include "store/store_services.h"
#include "vhd/ZxBlkVhd.h"

using zxblk::RecallMetadata;

namespace {

void check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "recall_metadata_fuzz: invariant broken: %s\n", what);
        std::abort();
    }
}

// The longest string the writer's buffer holds, less its terminating NUL.
const size_t kWriterLimit = 4095;

bool writable(const std::string& path) {
    if (path.find('\0') != std::string::npos) return false;
    // "1:2:0:" + two numbers of at most 20 characters + ":1:" + a length of at most 20 + ":"
    return path.size() + 6 + 20 + 1 + 20 + 3 + 20 + 1 <= kWriterLimit;
}

void checkRoundTrip(unsigned long long afid, unsigned long long position, const std::string& path) {
    std::string text;
    CreateDMRMetaData(afid, position, path, text);
    RecallMetadata back;
    std::string why;
    if (!zxblk::parseRecallMetadata(text, back, why)) {
        std::fprintf(stderr, "recall_metadata_fuzz: '%s' refused: %s\n", text.c_str(), why.c_str());
        check(false, "what CreateDMRMetaData writes parses");
    }
    check(back.archiveFileId == afid, "the archive file id comes back");
    check(back.position == position, "the position comes back");
    check(back.extentPath == path, "the path comes back");
}

uint64_t take64(const uint8_t*& p, size_t& n) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) {
        v <<= 8;
        if (n) v |= *p++, --n;
    }
    return v;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static bool quiet = (zxblk::LogSink::setLevel(0), zxblk::LogSink::setFile("/dev/null"), true);
    (void)quiet;

    std::string text(reinterpret_cast<const char*>(data), size);
    RecallMetadata parsed;
    std::string why;
    if (zxblk::parseRecallMetadata(text, parsed, why)) {
        const std::string& path = parsed.extentPath;
        check(text.size() > path.size() && text.compare(text.size() - path.size(), path.size(), path) == 0,
              "the path is the end of the string");
        check(text[text.size() - path.size() - 1] == ':', "the path follows a colon");
        if (writable(path)) checkRoundTrip(parsed.archiveFileId, parsed.position, path);
    } else {
        check(!why.empty(), "a refusal says why");
    }

    const uint8_t* p = data;
    size_t n = size;
    unsigned long long afid = take64(p, n), position = take64(p, n);
    std::string path(reinterpret_cast<const char*>(p), n);
    if (writable(path)) checkRoundTrip(afid, position, path);
    return 0;
}
