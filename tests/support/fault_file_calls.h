// Counts the system calls the file layer (FXFile) makes and makes chosen
// ones fail, through the layer's replaceable set of system calls. The first
// use installs it for the rest of the process; it is never taken out again,
// since a handle may be written out on any thread for as long as it is open.
#pragma once

namespace zxtest {

// The system calls FXFile makes, by kind. Write is how a handle's buffered
// run reaches the kernel (pwritev); Stat is fstat and fstatvfs; Allocate is
// fallocate, both reserving space and punching holes.
enum class FileCall { Open, Write, Seek, Stat, Allocate, Truncate };

struct FileFault {
    FileCall call;
    int callIndex;        // 0-based among the calls of that kind since arming
    int error;            // errno the call fails with; 0 for a short write
    unsigned shortBytes;  // a write: this many bytes fewer written and reported
};

// Arms a fault; each fires once. Calls are counted from the arming of a
// fault while none is armed.
void armFileFault(const FileFault& fault);
// Disarms every fault.
void clearFileFaults();
// Faults armed that have not fired yet.
int armedFileFaults();

struct FileCallCounts {
    unsigned long long writes;  // pwritev
    unsigned long long others;  // lseek, fstat, fstatvfs, fallocate, ftruncate
};
// Calls made since the first use of this file's functions.
FileCallCounts fileCallCounts();

}  // namespace zxtest
