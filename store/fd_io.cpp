#include "store/fd_io.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "store/store_error.h"

namespace zxblk {

void writeFully(int fd, const void* data, size_t length, int64_t at, const std::string& what) {
    const char* bytes = static_cast<const char*>(data);
    while (length > 0) {
        ssize_t n = at < 0 ? ::write(fd, bytes, length) : ::pwrite(fd, bytes, length, static_cast<off_t>(at));
        if (n < 0 && errno == EINTR) continue;
        // Nothing written and no error: the kernel will not take more.
        if (n <= 0) throw StoreError(what + ": " + std::strerror(n < 0 ? errno : EIO));
        bytes += n, length -= static_cast<size_t>(n);
        if (at >= 0) at += n;
    }
}

}  // namespace zxblk
