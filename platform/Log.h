// Logging: the framework-wide writer g_ptrLogWriter and the EvDebug/EvEvent
// loggers of the disk object. Both channels end in one sink (zxblk::LogSink)
// that writes lines with time, thread, level and tag to stderr or a file,
// filtered by level, and that tests can capture.
#pragma once
#include <boost/shared_ptr.hpp>
#include <cstdarg>
#include <functional>
#include <string>
#include <vector>

class CLogWriterInterface {
public:
    virtual ~CLogWriterInterface() {}
    virtual int GetLogLevel() = 0;
    // Written only when the current level is at least `level`.
    virtual void WriteLog(int level, const char* function, int line, int reserved1, int reserved2,
                          const char* format, ...) __attribute__((format(printf, 7, 8))) = 0;
};

extern boost::shared_ptr<CLogWriterInterface> g_ptrLogWriter;

class EvDebug {
public:
    EvDebug() {}
    virtual ~EvDebug() {}
    // Debug lines are level 1, errors level -1.
    void Debug(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));
    void DebugLvl(const char* tag, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    void Error(const char* tag, const char* format, ...) __attribute__((format(printf, 3, 4)));
};

// A logger object that a function constructs locally.
class EvEvent : public EvDebug {
public:
    EvEvent() {}
    ~EvEvent() override {}
};

namespace zxblk {

enum : int { kLevelError = -1, kLevelDebug = 1 };

struct LogLine {
    int level;
    std::string tag;
    std::string text;  // exactly as formatted
};

class LogSink {
public:
    // Lines whose level is above this are dropped. Default 0 (errors and the
    // level-0 summaries), or ZXBLK_LOG_LEVEL from the environment.
    static void setLevel(int level);
    static int level();
    // Empty path: stderr. Returns false (and keeps the old target) when the
    // file cannot be opened.
    static bool setFile(const std::string& path);
    // Lines go to `handler` instead of stderr or the file while one is set
    // (an empty one restores them); it is called with the sink's lock held,
    // so it must not log through the sink itself.
    static void setHandler(std::function<void(int level, const std::string& tag, const std::string& text)> handler);
    static void write(int level, const char* tag, const std::string& text);
    static void vwrite(int level, const char* tag, const char* format, va_list args);
};

// While an object lives, every line (whatever the level filter) is also kept
// in memory so that tests can assert the exact text a call wrote.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<LogLine> lines() const;
    std::vector<std::string> texts(const std::string& tag) const;  // lines of one tag
    bool contains(const std::string& text) const;                  // any line with exactly this text
    void clear();

private:
    std::vector<LogLine>* m_lines;
};

}  // namespace zxblk
