// The one error value of the store and the host: what went wrong, as one
// line that names what failed, on which file, field or extent, and why; and
// its kind, for a program that acts on it.
#pragma once
#include <stdexcept>
#include <string>

namespace zxblk {

enum class ErrorKind {
    NotFound,         // no such store, disk, snapshot, file or object
    Corruption,       // bytes that are not what they must be: a bad image, catalog or block
    IO,               // the system refused a read or write
    Busy,             // held by another process (an extent cache, a store being changed)
    InvalidArgument,  // asked for something that cannot be: a range past the end, a bad name
    Unavailable,      // a service that did not answer in time, or stopped
};

// "not found", "corruption", "I/O error", "busy", "invalid argument", "unavailable".
const char* errorKindName(ErrorKind kind);

class StoreError : public std::runtime_error {
public:
    StoreError(ErrorKind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}
    explicit StoreError(const std::string& message) : StoreError(ErrorKind::IO, message) {}
    ErrorKind kind() const { return m_kind; }

private:
    ErrorKind m_kind;
};

}  // namespace zxblk
