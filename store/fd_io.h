// Writing a whole buffer to a descriptor, which the kernel may take in parts.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

namespace zxblk {

// Writes [data, data + length) to `fd` at offset `at` (pwrite), or at the
// descriptor's position when `at` is negative (write: pipes, terminals);
// goes on after short writes and EINTR. Throws StoreError "what: reason".
void writeFully(int fd, const void* data, size_t length, int64_t at, const std::string& what);

}  // namespace zxblk
