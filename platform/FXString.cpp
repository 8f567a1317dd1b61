#include "platform/FXString.h"

#include <cstdio>
#include <vector>

std::string FXString::FormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (needed <= 0) return std::string();
    std::vector<char> buffer(static_cast<size_t>(needed) + 1);
    std::vsnprintf(buffer.data(), buffer.size(), format, args);
    return std::string(buffer.data(), static_cast<size_t>(needed));
}

std::string FXString::Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string result = FormatV(format, args);
    va_end(args);
    return result;
}
