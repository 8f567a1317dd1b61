#include "platform/FXFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>
#include <vector>

#include "platform/FXErrorUtil.h"

namespace zxblk {
namespace {

std::mutex g_faultMutex;
std::vector<FileFault> g_faults;
int g_calls[4] = {0, 0, 0, 0};

// Returns the armed fault for this call, if any (and consumes it).
bool takeFault(FileOp op, FileFault* out) {
    std::lock_guard<std::mutex> lock(g_faultMutex);
    if (g_faults.empty()) return false;
    int index = g_calls[static_cast<int>(op)]++;
    for (auto it = g_faults.begin(); it != g_faults.end(); ++it) {
        if (it->op == op && it->callIndex == index) {
            *out = *it;
            g_faults.erase(it);
            return true;
        }
    }
    return false;
}

}  // namespace

void armFileFault(const FileFault& fault) {
    std::lock_guard<std::mutex> lock(g_faultMutex);
    if (g_faults.empty())
        for (int& c : g_calls) c = 0;
    g_faults.push_back(fault);
}

void clearFileFaults() {
    std::lock_guard<std::mutex> lock(g_faultMutex);
    g_faults.clear();
    for (int& c : g_calls) c = 0;
}

}  // namespace zxblk

#define FXFILE_LOCATION(fn) FXCodeLocation location("platform/FXFile", fn, __LINE__)

CUxError FXFile::ZXCreateFile(auto_handle& handle, const std::string& path, DWORD access, DWORD, void*,
                              DWORD disposition, DWORD, void*) {
    FXFILE_LOCATION("static CUxError FXFile::ZXCreateFile(auto_handle&, const std::string&, DWORD, DWORD, "
                    "void*, DWORD, DWORD, void*)");
    zxblk::FileFault fault;
    if (zxblk::takeFault(zxblk::FileOp::Create, &fault))
        return FXErrorUtil::ErrorErrno(location, fault.error ? fault.error : EIO, "cannot open %s",
                                       path.c_str());
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
    int fd = ::open(path.c_str(), flags, 0644);
    if (fd < 0) return FXErrorUtil::ErrorErrno(location, errno, "cannot open %s", path.c_str());
    handle.reset(fd);
    return CUxError::Success();
}

CUxError FXFile::ZXWriteFile(auto_handle& handle, const void* buffer, DWORD length, DWORD* written, void*) {
    FXFILE_LOCATION("static CUxError FXFile::ZXWriteFile(auto_handle&, const void*, DWORD, DWORD*, void*)");
    if (written) *written = 0;
    zxblk::FileFault fault;
    DWORD toWrite = length;
    if (zxblk::takeFault(zxblk::FileOp::Write, &fault)) {
        if (fault.error) return FXErrorUtil::ErrorErrno(location, fault.error, "write of %u bytes failed", length);
        toWrite = fault.shortBytes >= length ? 0 : length - fault.shortBytes;
    }
    const char* p = static_cast<const char*>(buffer);
    DWORD done = 0;
    while (done < toWrite) {
        ssize_t n = ::write(handle.get(), p + done, toWrite - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (written) *written = done;
            return FXErrorUtil::ErrorErrno(location, errno, "write of %u bytes failed", length);
        }
        if (n == 0) break;
        done += static_cast<DWORD>(n);
    }
    if (written) *written = done;
    return CUxError::Success();
}

CUxError FXFile::ZXSetFilePointer(auto_handle& handle, LONGLONG distance, DWORD method, ULONGLONG* newPosition) {
    FXFILE_LOCATION("static CUxError FXFile::ZXSetFilePointer(auto_handle&, LONGLONG, DWORD, ULONGLONG*)");
    zxblk::FileFault fault;
    if (zxblk::takeFault(zxblk::FileOp::Seek, &fault))
        return FXErrorUtil::ErrorErrno(location, fault.error ? fault.error : EIO, "seek by %lld failed",
                                       static_cast<long long>(distance));
    int whence = method == FILE_BEGIN ? SEEK_SET : method == FILE_CURRENT ? SEEK_CUR : SEEK_END;
    off_t pos = ::lseek(handle.get(), static_cast<off_t>(distance), whence);
    if (pos < 0)
        return FXErrorUtil::ErrorErrno(location, errno, "seek by %lld failed", static_cast<long long>(distance));
    if (newPosition) *newPosition = static_cast<ULONGLONG>(pos);
    return CUxError::Success();
}

CUxError FXFile::ZXFlushFileBuffers(auto_handle& handle) {
    FXFILE_LOCATION("static CUxError FXFile::ZXFlushFileBuffers(auto_handle&)");
    zxblk::FileFault fault;
    if (zxblk::takeFault(zxblk::FileOp::Flush, &fault))
        return FXErrorUtil::ErrorErrno(location, fault.error ? fault.error : EIO, "flush failed");
    if (::fsync(handle.get()) != 0) return FXErrorUtil::ErrorErrno(location, errno, "flush failed");
    return CUxError::Success();
}
