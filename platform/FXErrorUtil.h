// Error helpers of the platform: Win32-coded errors and the exception that
// set-up throws.
#pragma once
#include <exception>
#include <string>
#include "framework/CUxError.h"

class FXErrorUtil {
public:
    // A Windows system code becomes a negative error (HRESULT style,
    // 0x80070000 | code); AsString shows the original code.
    static CUxError ErrorWin32(const FXCodeLocation& location, unsigned int code);
    static CUxError ErrorWin32(const FXCodeLocation& location, unsigned int code, const char* format,
                               ...) __attribute__((format(printf, 3, 4)));
    // An errno value as an error (used by FXFile and the backing store).
    static CUxError ErrorErrno(const FXCodeLocation& location, int err, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // The messages pushed onto an error, outermost first, for a person to
    // read: "cannot move a to b: No space left on device". Its AsString()
    // when none was pushed.
    static std::string Messages(const CUxError& error);
};

class ZxException : public std::exception {
public:
    ZxException(const char* function, const char* message, const char* file, int line, int code);
    const char* what() const noexcept override { return m_what.c_str(); }
    const std::string& Function() const { return m_function; }
    const std::string& Message() const { return m_message; }
    const std::string& File() const { return m_file; }
    int Line() const { return m_line; }
    int Code() const { return m_code; }

private:
    std::string m_function, m_message, m_file;
    int m_line, m_code;
    std::string m_what;
};
