// Descriptors of the store's local files: a scoped holder, and writing a
// whole buffer, which the kernel may take in parts.
#pragma once
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace zxblk {

// A file descriptor closed when it goes out of scope.
struct ScopedFd {
    int fd;
    explicit ScopedFd(int f) : fd(f) {}
    ~ScopedFd() {
        if (fd >= 0) ::close(fd);
    }
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;
};

// Writes [data, data + length) to `fd` at offset `at` (pwrite), or at the
// descriptor's position when `at` is negative (write: pipes, terminals);
// goes on after short writes and EINTR. Throws StoreError "what: reason".
void writeFully(int fd, const void* data, size_t length, int64_t at, const std::string& what);

}  // namespace zxblk
