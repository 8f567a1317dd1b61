#include "platform/FXFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "framework/ZeroBytes.h"
#include "platform/FXErrorUtil.h"
#include "platform/Log.h"

namespace zxblk {

FileCalls::~FileCalls() {}
int FileCalls::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t FileCalls::pwritev(int fd, const struct iovec* iov, int count, off_t offset) {
    return ::pwritev(fd, iov, count, offset);
}
off_t FileCalls::lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
int FileCalls::fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int FileCalls::fstatvfs(int fd, struct statvfs* fs) { return ::fstatvfs(fd, fs); }
int FileCalls::fallocate(int fd, int mode, off_t offset, off_t length) { return ::fallocate(fd, mode, offset, length); }
int FileCalls::ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }

namespace {

// Null while the system's calls are in force. Read without a lock before
// each system call: the file layer's calls are its hot path.
std::atomic<FileCalls*> g_fileCalls{nullptr};

FileCalls& kernel() {
    if (FileCalls* calls = g_fileCalls.load(std::memory_order_acquire)) return *calls;
    // Never destroyed: a holder with static storage may close its handle,
    // and so write out its run, while the process exits.
    static FileCalls* const system = new FileCalls;
    return *system;
}

}  // namespace

FileCalls* setFileCalls(FileCalls* calls) { return g_fileCalls.exchange(calls, std::memory_order_acq_rel); }

namespace {

// Large enough that a 1 MiB extent written a sector at a time reaches the
// kernel in one write, small enough to keep a handle's memory bounded.
const size_t kRunCapacity = 1 << 20;
// A stretch of zeros this short between data is cheaper written as bytes
// than punched out between two writes.
const off_t kAbsorbZeros = 64 * 1024;
// A write this large goes to the kernel at once, with the run before it, in
// one call: copying it into the run first would only add a copy.
const size_t kWriteThrough = 256 * 1024;

// One open handle: its position and the run not yet written. The run is
// `data` from runStart, then `zeros` zero bytes that are never held in
// memory.
struct OpenFile {
    std::mutex mutex;
    std::string path;
    off_t pos = 0;
    off_t kernelPos = 0;  // the descriptor's own offset
    off_t runStart = 0;
    std::vector<char> data;
    off_t zeros = 0;
    int lostErrno = 0;  // a run that could not be written: the file is not what was written to it
    bool pending() const { return !data.empty() || zeros != 0; }
    off_t runEnd() const { return runStart + static_cast<off_t>(data.size()) + zeros; }
};

// The open handles by descriptor. Never destroyed: a holder with static
// storage may still close its descriptor while the process exits.
struct OpenFiles {
    std::mutex mutex;
    std::unordered_map<int, std::shared_ptr<OpenFile>> byFd;
};
OpenFiles& openFiles() {
    static OpenFiles* files = new OpenFiles;
    return *files;
}

std::shared_ptr<OpenFile> registerFile(int fd, const std::string& path, off_t pos) {
    auto file = std::make_shared<OpenFile>();
    file->path = path;
    file->pos = file->kernelPos = pos;
    OpenFiles& files = openFiles();
    std::lock_guard<std::mutex> lock(files.mutex);
    files.byFd[fd] = file;  // an entry left by a descriptor closed behind FXFile's back is stale
    return file;
}

std::shared_ptr<OpenFile> findFile(int fd, bool forget = false) {
    OpenFiles& files = openFiles();
    std::lock_guard<std::mutex> lock(files.mutex);
    auto it = files.byFd.find(fd);
    if (it == files.byFd.end()) return nullptr;
    std::shared_ptr<OpenFile> file = it->second;
    if (forget) files.byFd.erase(it);
    return file;
}

// The state of a handle; a descriptor that FXFile did not open is taken on
// at its current offset.
std::shared_ptr<OpenFile> fileOf(int fd, int* err) {
    if (std::shared_ptr<OpenFile> file = findFile(fd)) return file;
    off_t pos = fd < 0 ? -1 : kernel().lseek(fd, 0, SEEK_CUR);
    if (pos < 0) {
        *err = fd < 0 ? EBADF : errno;
        return nullptr;
    }
    return registerFile(fd, "descriptor " + std::to_string(fd), pos);
}

// Writes all of iov at `at`, however the kernel splits it. Returns an errno.
int writeAllAt(int fd, struct iovec* iov, int count, off_t at) {
    while (count > 0) {
        ssize_t n = kernel().pwritev(fd, iov, count, at);
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (n == 0) return EIO;
        at += n;
        while (count > 0 && static_cast<size_t>(n) >= iov->iov_len) {
            n -= static_cast<ssize_t>(iov->iov_len);
            ++iov;
            --count;
        }
        if (count > 0) {
            iov->iov_base = static_cast<char*>(iov->iov_base) + n;
            iov->iov_len -= static_cast<size_t>(n);
        }
    }
    return 0;
}

int writeZerosAt(int fd, off_t at, off_t length) {
    std::vector<char> zeros(static_cast<size_t>(std::min<off_t>(length, kRunCapacity)), 0);
    while (length > 0) {
        struct iovec iov = {zeros.data(), static_cast<size_t>(std::min<off_t>(length, zeros.size()))};
        length -= static_cast<off_t>(iov.iov_len);
        if (int err = writeAllAt(fd, &iov, 1, at)) return err;
        at += static_cast<off_t>(iov.iov_len);
    }
    return 0;
}

// Makes [at, at + length) read as zeros at the least cost: nothing where it
// already is a hole (never written, or reserved and not yet written), a
// punched hole over data, zeros written where punching is not supported; a
// range past the end extends the file as a write would.
int zeroRange(int fd, off_t at, off_t length) {
    struct stat st;
    if (kernel().fstat(fd, &st) != 0) return errno;
    off_t end = at + length, inside = std::min(end, st.st_size);
    if (at < inside) {
        off_t data = kernel().lseek(fd, at, SEEK_DATA);
        if (data < 0) data = errno == ENXIO ? inside : at;  // cannot tell: take it for data
        if (data < inside) {
            if (kernel().fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, data, inside - data) != 0) {
                if (errno != EOPNOTSUPP && errno != ENOSYS) return errno;
                if (int err = writeZerosAt(fd, data, inside - data)) return err;
            }
        }
    }
    if (end > st.st_size) {
        if (kernel().ftruncate(fd, end) != 0) return errno;
    }
    return 0;
}

// Writes out the handle's run, with `extra` bytes that continue it when
// given, and forgets it. Returns an errno; a failure marks the file as lost.
int commitRun(int fd, OpenFile& f, const void* extra = nullptr, size_t extraLength = 0) {
    if (!f.pending() && extraLength == 0) return 0;
    off_t at = f.runStart;
    int err = 0;
    struct iovec iov[2] = {{f.data.data(), f.data.size()}, {const_cast<void*>(extra), extraLength}};
    int first = f.data.empty() ? 1 : 0, count = extraLength ? 2 - first : 1 - first;
    if (!err && count > 0) err = writeAllAt(fd, iov + first, count, at);
    if (!err && f.zeros) err = zeroRange(fd, at + static_cast<off_t>(f.data.size()), f.zeros);
    f.data.clear();
    f.zeros = 0;
    if (err && !f.lostErrno) f.lostErrno = err;
    return err;
}

// Writes out a handle's run ahead of a close; a failure is the close's to report.
void writeOut(int fd) {
    if (std::shared_ptr<OpenFile> file = findFile(fd)) {
        std::lock_guard<std::mutex> lock(file->mutex);
        commitRun(fd, *file);
    }
}

// Where a handle's run finally fails on a close, the caller cannot be told:
// the file is emptied so that nobody takes it for what was written to it.
void beforeClose(int fd) {
    std::shared_ptr<OpenFile> file = findFile(fd, true);
    if (!file) return;
    std::lock_guard<std::mutex> lock(file->mutex);
    int err = commitRun(fd, *file);
    if (!err && !file->lostErrno) return;
    if (!err) err = file->lostErrno;
    bool emptied = kernel().ftruncate(fd, 0) == 0;
    LogSink::write(kLevelError, "FXFile",
                   "closing " + file->path + ": buffered bytes could not be written (" + std::strerror(err) + "); " +
                       (emptied ? "the file is emptied" : "the file could not be emptied either"));
}

struct InstallCloseHook {
    InstallCloseHook() { g_autoHandleBeforeClose = &beforeClose; }
} g_installCloseHook;

}  // namespace
}  // namespace zxblk

#define FXFILE_LOCATION(fn) FXCodeLocation location("platform/FXFile", fn, __LINE__)

CUxError FXFile::ZXCreateFile(auto_handle& handle, const std::string& path, DWORD access, DWORD, void*,
                              DWORD disposition, DWORD, void*) {
    FXFILE_LOCATION("static CUxError FXFile::ZXCreateFile(auto_handle&, const std::string&, DWORD, DWORD, "
                    "void*, DWORD, DWORD, void*)");
    int flags = O_CLOEXEC;
    bool wantRead = access & GENERIC_READ, wantWrite = access & GENERIC_WRITE;
    flags |= wantRead && wantWrite ? O_RDWR : wantWrite ? O_WRONLY : O_RDONLY;
    switch (disposition) {
        case CREATE_NEW: flags |= O_CREAT | O_EXCL; break;
        case CREATE_ALWAYS: flags |= O_CREAT | O_TRUNC; break;
        case OPEN_EXISTING: break;
        case OPEN_ALWAYS: flags |= O_CREAT; break;
        case TRUNCATE_EXISTING: flags |= O_TRUNC; break;
        default: return FXErrorUtil::ErrorErrno(location, EINVAL, "bad disposition %u for %s", disposition, path.c_str());
    }
    // What the handle still holds for its old file goes out before the open,
    // which may truncate that same file.
    if (handle.is_valid()) zxblk::writeOut(handle.get());
    int fd = zxblk::kernel().open(path.c_str(), flags, 0644);
    if (fd < 0) return FXErrorUtil::ErrorErrno(location, errno, "cannot open %s", path.c_str());
    handle.reset(fd);
    zxblk::registerFile(fd, path, 0);
    return CUxError::Success();
}

CUxError FXFile::ZXWriteFile(auto_handle& handle, const void* buffer, DWORD length, DWORD* written, void*) {
    FXFILE_LOCATION("static CUxError FXFile::ZXWriteFile(auto_handle&, const void*, DWORD, DWORD*, void*)");
    using namespace zxblk;
    if (written) *written = 0;
    int err = buffer || !length ? 0 : EFAULT;
    std::shared_ptr<OpenFile> file = err ? nullptr : fileOf(handle.get(), &err);
    if (!file) return FXErrorUtil::ErrorErrno(location, err, "write of %u bytes failed", length);
    if (length == 0) return CUxError::Success();
    OpenFile& f = *file;
    std::lock_guard<std::mutex> lock(f.mutex);
    if (f.pos > LLONG_MAX - static_cast<off_t>(length))
        return FXErrorUtil::ErrorErrno(location, EFBIG, "write of %u bytes to %s failed", length, f.path.c_str());
    if (f.pending() && f.pos != f.runEnd()) err = commitRun(handle.get(), f);
    if (!err && !f.pending()) f.runStart = f.pos;
    if (!err && IsAllZeroBytes(buffer, length)) {
        f.zeros += length;
    } else if (!err) {
        if (f.zeros && f.zeros <= kAbsorbZeros && f.data.size() + f.zeros + length <= kRunCapacity) {
            f.data.resize(f.data.size() + static_cast<size_t>(f.zeros), 0);
            f.zeros = 0;
        } else if (f.zeros) {
            err = commitRun(handle.get(), f);
            f.runStart = f.pos;
        }
        if (!err && (f.data.size() + length > kRunCapacity || length >= kWriteThrough)) {
            err = commitRun(handle.get(), f, buffer, length);  // the full run and this write in one call
        } else if (!err) {
            if (f.data.capacity() < kRunCapacity) f.data.reserve(kRunCapacity);
            const char* p = static_cast<const char*>(buffer);
            f.data.insert(f.data.end(), p, p + length);
        }
    }
    if (err)
        return FXErrorUtil::ErrorErrno(location, err, "write of %u bytes to %s failed", length, f.path.c_str());
    f.pos += length;
    if (written) *written = length;
    return CUxError::Success();
}

CUxError FXFile::ZXSetFilePointer(auto_handle& handle, LONGLONG distance, DWORD method, ULONGLONG* newPosition) {
    FXFILE_LOCATION("static CUxError FXFile::ZXSetFilePointer(auto_handle&, LONGLONG, DWORD, ULONGLONG*)");
    using namespace zxblk;
    int err = 0;
    std::shared_ptr<OpenFile> file = fileOf(handle.get(), &err);
    if (!file)
        return FXErrorUtil::ErrorErrno(location, err, "seek by %lld failed", static_cast<long long>(distance));
    OpenFile& f = *file;
    std::lock_guard<std::mutex> lock(f.mutex);
    if (method == FILE_CURRENT && distance >= 0) {
        if (f.pos > LLONG_MAX - distance)
            return FXErrorUtil::ErrorErrno(location, EOVERFLOW, "seek by %lld in %s failed",
                                           static_cast<long long>(distance), f.path.c_str());
        f.pos += distance;
        if (newPosition) *newPosition = static_cast<ULONGLONG>(f.pos);
        return CUxError::Success();
    }
    if (method != FILE_BEGIN && method != FILE_CURRENT && method != FILE_END)
        return FXErrorUtil::ErrorErrno(location, EINVAL, "seek method %u in %s", method, f.path.c_str());
    err = commitRun(handle.get(), f);
    if (err)
        return FXErrorUtil::ErrorErrno(location, err, "seek by %lld in %s failed: buffered bytes could not be written",
                                       static_cast<long long>(distance), f.path.c_str());
    off_t target = method == FILE_CURRENT ? f.pos + distance : distance;
    off_t pos = kernel().lseek(handle.get(), target, method == FILE_END ? SEEK_END : SEEK_SET);
    if (pos < 0)
        return FXErrorUtil::ErrorErrno(location, errno, "seek by %lld in %s failed", static_cast<long long>(distance),
                                       f.path.c_str());
    f.pos = f.kernelPos = pos;
    if (newPosition) *newPosition = static_cast<ULONGLONG>(pos);
    return CUxError::Success();
}

CUxError FXFile::ZXFlushFileBuffers(auto_handle& handle) {
    FXFILE_LOCATION("static CUxError FXFile::ZXFlushFileBuffers(auto_handle&)");
    using namespace zxblk;
    int err = 0;
    std::shared_ptr<OpenFile> file = fileOf(handle.get(), &err);
    if (!file) return FXErrorUtil::ErrorErrno(location, err, "flush failed");
    OpenFile& f = *file;
    std::lock_guard<std::mutex> lock(f.mutex);
    err = commitRun(handle.get(), f);
    if (!err && f.lostErrno)
        return FXErrorUtil::ErrorErrno(location, f.lostErrno, "flush of %s failed: buffered bytes were lost earlier",
                                       f.path.c_str());
    if (err) return FXErrorUtil::ErrorErrno(location, err, "flush of %s failed", f.path.c_str());
    if (f.kernelPos != f.pos) {
        if (kernel().lseek(handle.get(), f.pos, SEEK_SET) < 0)
            return FXErrorUtil::ErrorErrno(location, errno, "flush of %s failed", f.path.c_str());
        f.kernelPos = f.pos;
    }
    return CUxError::Success();
}

CUxError FXFile::ZXReserveSpace(int fd, ULONGLONG length, const std::string& path) {
    FXFILE_LOCATION("static CUxError FXFile::ZXReserveSpace(int, ULONGLONG, const std::string&)");
    using namespace zxblk;
    if (length == 0) return CUxError::Success();
    if (length > static_cast<ULONGLONG>(LLONG_MAX))
        return FXErrorUtil::ErrorErrno(location, EFBIG, "cannot reserve %llu bytes for %s", length, path.c_str());
    if (kernel().fallocate(fd, 0, 0, static_cast<off_t>(length)) == 0) return CUxError::Success();
    if (errno != EOPNOTSUPP && errno != ENOSYS)
        return FXErrorUtil::ErrorErrno(location, errno, "cannot reserve %llu bytes for %s", length, path.c_str());
    // No reservation here: at least make sure the space is free now.
    struct stat st;
    struct statvfs fs;
    if (kernel().fstat(fd, &st) != 0 || kernel().fstatvfs(fd, &fs) != 0)
        return FXErrorUtil::ErrorErrno(location, errno, "cannot check the free space for %s", path.c_str());
    unsigned long long held = static_cast<unsigned long long>(st.st_blocks) * 512;
    unsigned long long available = static_cast<unsigned long long>(fs.f_bavail) * fs.f_frsize;
    if (held < length && length - held > available)
        return FXErrorUtil::ErrorErrno(location, ENOSPC, "cannot reserve %llu bytes for %s: %llu bytes free", length,
                                       path.c_str(), available);
    return CUxError::Success();
}
