// The framework's error value: a signed code (0 success, negative error) and
// shared details onto which every level pushes its code location.
#pragma once
#include <boost/shared_ptr.hpp>
#include <string>

class FXCodeLocation {
public:
    FXCodeLocation(const char* file, const char* function, int line)
        : m_file(file), m_function(function), m_line(line) {}
    ~FXCodeLocation() {}
    const char* File() const { return m_file; }
    const char* Function() const { return m_function; }
    int Line() const { return m_line; }

private:
    const char* m_file;
    const char* m_function;
    int m_line;
};

// Defined by the platform library: the pushed locations and messages.
class FXErrorPrivate;

class CUxError {
public:
    CUxError() : m_code(0) {}
    explicit CUxError(int code) : m_code(code) {}
    CUxError(CUxError const& other) : m_code(other.m_code), m_details(other.m_details) {}
    CUxError& operator=(CUxError const& other) {
        m_code = other.m_code;
        m_details = other.m_details;
        return *this;
    }
    ~CUxError();

    static CUxError Success() { return CUxError(); }
    bool IsError() const { return m_code < 0; }
    int Code() const { return m_code; }

    // Out of line, in the platform library.
    CUxError& Push(FXCodeLocation const& location);
    CUxError& Push(FXCodeLocation const& location, char const* format, ...)
        __attribute__((format(printf, 3, 4)));
    // One line: the code, then every pushed location and message, innermost first.
    std::string AsString() const;
    // The Windows system code the error was made from, or 0.
    unsigned int Win32Code() const;
    // Details for the platform library (created on first push).
    FXErrorPrivate& Details();
    const FXErrorPrivate* DetailsIfAny() const { return m_details.get(); }

private:
    int m_code;
    boost::shared_ptr<FXErrorPrivate> m_details;
};
