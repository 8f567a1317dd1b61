// The shared details behind a CUxError: the Windows code it came from and the
// locations and messages pushed by every level, innermost first.
#pragma once
#include <string>
#include <vector>

struct FXErrorEntry {
    std::string file;
    std::string function;
    int line;
    std::string message;
};

class FXErrorPrivate {
public:
    unsigned int win32Code = 0;
    int osError = 0;
    std::vector<FXErrorEntry> entries;
};
