// One sink behind both logging channels.
#include "platform/Log.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <mutex>

#include "platform/FXString.h"

namespace zxblk {
namespace {

struct SinkState {
    std::mutex mutex;
    int level = 0;
    FILE* file = nullptr;  // null: stderr
    std::vector<std::vector<LogLine>*> captures;
    std::function<void(int, const std::string&, const std::string&)> handler;
    SinkState() {
        if (const char* env = std::getenv("ZXBLK_LOG_LEVEL")) level = std::atoi(env);
    }
};

SinkState& state() {
    static SinkState* s = new SinkState();  // never destroyed: logging may run during exit
    return *s;
}

void emit(SinkState& s, int level, const char* tag, const std::string& text) {
    std::string body = text;
    if (!body.empty() && body.back() == '\n') body.pop_back();
    auto now = std::chrono::system_clock::now();
    std::time_t secs = std::chrono::system_clock::to_time_t(now);
    int ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000);
    std::tm tm;
    localtime_r(&secs, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    std::fprintf(s.file ? s.file : stderr, "%s.%03d %ld L%d [%s] %s\n", stamp, ms,
                 static_cast<long>(syscall(SYS_gettid)), level, tag ? tag : "", body.c_str());
    if (s.file) std::fflush(s.file);
}

}  // namespace

void LogSink::setLevel(int level) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().level = level;
}

int LogSink::level() {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().level;
}

bool LogSink::setFile(const std::string& path) {
    SinkState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (path.empty()) {
        if (s.file) std::fclose(s.file);
        s.file = nullptr;
        return true;
    }
    FILE* f = std::fopen(path.c_str(), "a");
    if (!f) return false;
    if (s.file) std::fclose(s.file);
    s.file = f;
    return true;
}

void LogSink::write(int level, const char* tag, const std::string& text) {
    SinkState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    for (auto* capture : s.captures) capture->push_back({level, tag ? tag : "", text});
    if (level > s.level) return;
    if (s.handler) {
        std::string body = text;
        if (!body.empty() && body.back() == '\n') body.pop_back();
        s.handler(level, tag ? tag : "", body);
    } else {
        emit(s, level, tag, text);
    }
}

void LogSink::setHandler(std::function<void(int, const std::string&, const std::string&)> handler) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().handler = std::move(handler);
}


void LogSink::vwrite(int level, const char* tag, const char* format, va_list args) {
    write(level, tag, FXString::FormatV(format, args));
}

LogCapture::LogCapture() : m_lines(new std::vector<LogLine>()) {
    SinkState& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.captures.push_back(m_lines);
}

LogCapture::~LogCapture() {
    SinkState& s = state();
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        for (auto it = s.captures.begin(); it != s.captures.end(); ++it)
            if (*it == m_lines) {
                s.captures.erase(it);
                break;
            }
    }
    delete m_lines;
}

std::vector<LogLine> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(state().mutex);
    return *m_lines;
}

std::vector<std::string> LogCapture::texts(const std::string& tag) const {
    std::vector<std::string> out;
    for (const LogLine& l : lines())
        if (l.tag == tag) out.push_back(l.text);
    return out;
}

bool LogCapture::contains(const std::string& text) const {
    for (const LogLine& l : lines())
        if (l.text == text) return true;
    return false;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(state().mutex);
    m_lines->clear();
}

}  // namespace zxblk

namespace {

// The framework-wide writer: its level is the sink's, and a line is written
// (and captured) only when that level admits it, as callers expect.
class SinkLogWriter : public CLogWriterInterface {
public:
    int GetLogLevel() override { return zxblk::LogSink::level(); }
    void WriteLog(int level, const char* function, int, int, int, const char* format, ...) override {
        if (zxblk::LogSink::level() < level) return;
        va_list args;
        va_start(args, format);
        zxblk::LogSink::vwrite(level, function, format, args);
        va_end(args);
    }
};

}  // namespace

boost::shared_ptr<CLogWriterInterface> g_ptrLogWriter(new SinkLogWriter());

void EvDebug::Debug(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    zxblk::LogSink::vwrite(zxblk::kLevelDebug, tag, format, args);
    va_end(args);
}

void EvDebug::DebugLvl(const char* tag, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    zxblk::LogSink::vwrite(level, tag, format, args);
    va_end(args);
}

void EvDebug::Error(const char* tag, const char* format, ...) {
    va_list args;
    va_start(args, format);
    zxblk::LogSink::vwrite(zxblk::kLevelError, tag, format, args);
    va_end(args);
}
