// Out-of-line members of the error value and the error helpers.
#include <cstring>

#include "framework/CUxError.h"
#include "platform/FXErrorPrivate.h"
#include "platform/FXErrorUtil.h"
#include "platform/FXString.h"

CUxError::~CUxError() {}

FXErrorPrivate& CUxError::Details() {
    if (!m_details) m_details.reset(new FXErrorPrivate());
    return *m_details;
}

CUxError& CUxError::Push(FXCodeLocation const& location) {
    Details().entries.push_back({location.File(), location.Function(), location.Line(), std::string()});
    return *this;
}

CUxError& CUxError::Push(FXCodeLocation const& location, char const* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FXString::FormatV(format, args);
    va_end(args);
    Details().entries.push_back({location.File(), location.Function(), location.Line(), message});
    return *this;
}

unsigned int CUxError::Win32Code() const { return m_details ? m_details->win32Code : 0; }

std::string CUxError::AsString() const {
    if (!IsError() && (!m_details || m_details->entries.empty())) return "success";
    std::string out = FXString::Format("error %d", m_code);
    if (m_details && m_details->win32Code)
        out += FXString::Format(" (Win32 %u)", m_details->win32Code);
    if (m_details) {
        const char* sep = ": ";
        for (const FXErrorEntry& e : m_details->entries) {
            out += sep;
            out += FXString::Format("at %s:%d %s", e.file.c_str(), e.line, e.function.c_str());
            if (!e.message.empty()) out += " [" + e.message + "]";
            sep = " <- ";
        }
    }
    return out;
}

static int Win32ToCode(unsigned int code) {
    // HRESULT_FROM_WIN32: the facility bits make every Windows code negative.
    return static_cast<int>(0x80070000u | (code & 0xFFFFu));
}

CUxError FXErrorUtil::ErrorWin32(const FXCodeLocation& location, unsigned int code) {
    CUxError error(Win32ToCode(code));
    error.Details().win32Code = code;
    error.Push(location);
    return error;
}

CUxError FXErrorUtil::ErrorWin32(const FXCodeLocation& location, unsigned int code, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FXString::FormatV(format, args);
    va_end(args);
    CUxError error(Win32ToCode(code));
    error.Details().win32Code = code;
    error.Push(location, "%s", message.c_str());
    return error;
}

CUxError FXErrorUtil::ErrorErrno(const FXCodeLocation& location, int err, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string message = FXString::FormatV(format, args);
    va_end(args);
    CUxError error(err > 0 ? -err : -1);
    error.Details().osError = err;
    error.Push(location, "%s: %s", message.c_str(), std::strerror(err));
    return error;
}

std::string FXErrorUtil::Messages(const CUxError& error) {
    std::string out;
    if (const FXErrorPrivate* d = error.DetailsIfAny())
        for (auto e = d->entries.rbegin(); e != d->entries.rend(); ++e)
            if (!e->message.empty()) out += (out.empty() ? "" : ": ") + e->message;
    return out.empty() ? error.AsString() : out;
}

ZxException::ZxException(const char* function, const char* message, const char* file, int line, int code)
    : m_function(function ? function : ""),
      m_message(message ? message : ""),
      m_file(file ? file : ""),
      m_line(line),
      m_code(code) {
    m_what = FXString::Format("%s: %s (%s:%d, code %d)", m_function.c_str(), m_message.c_str(), m_file.c_str(),
                              m_line, m_code);
}
