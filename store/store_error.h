// The one error value of the store and the host: what went wrong, as one
// line that names what failed, on which file, field or extent, and why; and
// its kind (the library's kinds, zxblk/error.h), for a program that acts on it.
#pragma once
#include <stdexcept>
#include <string>

#include "zxblk/error.h"

namespace zxblk {

class StoreError : public std::runtime_error {
public:
    StoreError(ErrorKind kind, const std::string& message) : std::runtime_error(message), m_kind(kind) {}
    explicit StoreError(const std::string& message) : StoreError(ErrorKind::io, message) {}
    ErrorKind kind() const { return m_kind; }

private:
    ErrorKind m_kind;
};

}  // namespace zxblk
