#pragma once
#include <cstdarg>
#include <string>

class FXString {
public:
    // printf-style formatting into a string of any length.
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static std::string FormatV(const char* format, va_list args);
};
