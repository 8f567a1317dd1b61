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
#include <string>
#include "framework/AutoHandles.h"
#include "framework/CUxError.h"
#include "framework/WinTypes.h"

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

// Test seam: make the n-th call (0-based, counted from arming) of one kind of
// file call fail with errno `error`, or, for writes with `shortBytes` > 0,
// write only that many bytes fewer and report success. Create, Write, Seek,
// Flush and Reserve count the FXFile calls of that name; Commit counts the
// writes of a handle's buffered run to the kernel, so that a failure the
// kernel would report late (a full disk) can be staged.
enum class FileOp { Create, Write, Seek, Flush, Commit, Reserve };
struct FileFault {
    FileOp op;
    int callIndex;
    int error;              // errno for a failure; 0 with shortBytes for a short write
    unsigned shortBytes;    // write: bytes left unwritten
};
void armFileFault(const FileFault& fault);
void clearFileFaults();

// System calls that FXFile has made since the process started, so that
// tests can tell that the file layer coalesces.
struct KernelFileCalls {
    unsigned long long writes;  // pwrite, pwritev
    unsigned long long others;  // lseek, fstat, fallocate, ftruncate
};
KernelFileCalls kernelFileCalls();

}  // namespace zxblk
