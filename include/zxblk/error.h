// zxblk: the error value every call of the library throws, and its kinds.
// Part of zxblk/zxblk.h; the kinds are the library's own throughout.
#pragma once
#include <stdexcept>
#include <string>

// The library is built with every other symbol hidden.
#define ZXBLK_API __attribute__((visibility("default")))

namespace zxblk {

enum class ErrorKind {
    notFound,         // no such store, disk, snapshot, client, file or object
    corruption,       // bytes that are not what they must be: a bad image, catalog or block
    io,               // the system refused a read or a write
    busy,             // held by another process: an extent cache, a store being changed
    invalidArgument,  // something that cannot be: a range past the end, a bad name or size
    unavailable,      // a service that did not answer in time, or stopped
};
// "not found", "corruption", "I/O error", "busy", "invalid argument", "unavailable".
inline const char* errorKindName(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::notFound: return "not found";
        case ErrorKind::corruption: return "corruption";
        case ErrorKind::io: return "I/O error";
        case ErrorKind::busy: return "busy";
        case ErrorKind::invalidArgument: return "invalid argument";
        case ErrorKind::unavailable: return "unavailable";
    }
    return "error";
}

// What every call throws when it fails.
class ZXBLK_API Error : public std::runtime_error {
public:
    explicit Error(const std::string& message, ErrorKind kind = ErrorKind::io);
    ~Error() override;
    ErrorKind kind() const { return m_kind; }

private:
    ErrorKind m_kind;
};

}  // namespace zxblk
