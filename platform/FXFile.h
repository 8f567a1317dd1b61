// File calls with Win32 access/share/disposition values, mapped to POSIX.
#pragma once
#include <string>
#include "framework/AutoHandles.h"
#include "framework/CUxError.h"
#include "framework/WinTypes.h"

class FXFile {
public:
    static CUxError ZXCreateFile(auto_handle& handle, const std::string& path, DWORD access, DWORD share,
                                 void* security, DWORD disposition, DWORD flags, void* templ);
    static CUxError ZXWriteFile(auto_handle& handle, const void* buffer, DWORD length, DWORD* written,
                                void* overlapped);
    static CUxError ZXSetFilePointer(auto_handle& handle, LONGLONG distance, DWORD method,
                                     ULONGLONG* newPosition);
    static CUxError ZXFlushFileBuffers(auto_handle& handle);
};

namespace zxblk {

// Test seam: make the n-th call (0-based, counted from arming) of one kind of
// file call fail with errno `error`, or, for writes with `shortBytes` > 0,
// write only that many bytes fewer and report success.
enum class FileOp { Create, Write, Seek, Flush };
struct FileFault {
    FileOp op;
    int callIndex;
    int error;              // errno for a failure; 0 with shortBytes for a short write
    unsigned shortBytes;    // write: bytes left unwritten
};
void armFileFault(const FileFault& fault);
void clearFileFaults();

}  // namespace zxblk
