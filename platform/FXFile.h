// File calls with Win32 access/share/disposition values, mapped to POSIX.
//
// The restore target writes and skips a sector at a time when a bitmap is in
// force; a system call per sector would cost more than the recall. So each
// handle keeps one run of bytes in memory (at most 1 MiB) that contiguous
// writes extend and that goes to the kernel in one positioned write when it
// is full, when a gap or a backward or absolute seek breaks it, on
// ZXFlushFileBuffers and when the handle closes. Forward relative seeks only
// move the handle's position. A write of nothing but zero bytes costs no
// write at all: where the file already reads as a hole there it is skipped,
// otherwise the range is punched out (written as zeros where punching is not
// supported), and a range past the end still extends the file.
//
// Handles are meant to be positioned through FXFile only: the descriptor's
// own offset is brought in step at ZXFlushFileBuffers and at every backward
// or absolute seek, not after each call.
#pragma once
#include <sys/types.h>

#include <string>

#include "framework/AutoHandles.h"
#include "framework/CUxError.h"
#include "framework/WinTypes.h"

struct iovec;
struct stat;
struct statvfs;

class FXFile {
public:
    static CUxError ZXCreateFile(auto_handle& handle, const std::string& path, DWORD access, DWORD share,
                                 void* security, DWORD disposition, DWORD flags, void* templ);
    // Bytes are taken into the handle's run; an error that the kernel
    // reports when that run is finally written comes back from the call that
    // writes it, and from every ZXFlushFileBuffers of the handle after it.
    static CUxError ZXWriteFile(auto_handle& handle, const void* buffer, DWORD length, DWORD* written,
                                void* overlapped);
    static CUxError ZXSetFilePointer(auto_handle& handle, LONGLONG distance, DWORD method,
                                     ULONGLONG* newPosition);
    // Writes out the handle's run and puts the descriptor's offset where the
    // handle is. It does not sync: an extent file is made durable together
    // with the rest of the extent cache by its owner, and a sync per extent
    // would cost more than the recall itself.
    static CUxError ZXFlushFileBuffers(auto_handle& handle);
    // Reserves disk space for the first `length` bytes of an open file, so
    // that a full disk shows before anything is recalled into it rather than
    // half way. Where the file system cannot reserve, its free space is
    // checked instead. `path` only names the file in the error.
    static CUxError ZXReserveSpace(int fd, ULONGLONG length, const std::string& path);
};

namespace zxblk {

// The system calls through which FXFile reaches the kernel, one method each,
// with the call's own arguments and results (-1 and errno on a failure, the
// count written for pwritev). The base class makes the system's calls. A
// subclass installed with setFileCalls sees, and may alter, every call the
// file layer makes: tests count calls and stage failures that only the
// kernel reports (a full disk, a short write), and a host may use it to
// observe the file layer. Closing is left out: auto_handle closes the
// descriptor itself, after FXFile has written out what it held for it.
class FileCalls {
public:
    virtual ~FileCalls();
    virtual int open(const char* path, int flags, mode_t mode);
    virtual ssize_t pwritev(int fd, const struct iovec* iov, int count, off_t offset);
    virtual off_t lseek(int fd, off_t offset, int whence);
    virtual int fstat(int fd, struct stat* st);
    virtual int fstatvfs(int fd, struct statvfs* fs);
    virtual int fallocate(int fd, int mode, off_t offset, off_t length);
    virtual int ftruncate(int fd, off_t length);
};

// Sends every later file call of the process through `calls` (nullptr: the
// system's) and returns the one installed before. FXFile is called as a set
// of static functions, so the choice is process-wide. `calls` is not owned
// and must outlive every call that may go through it; a handle may be
// written out as late as its holder closes it, so an implementation that is
// taken out again must only be destroyed once no file is busy.
FileCalls* setFileCalls(FileCalls* calls);

}  // namespace zxblk
