#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "platform/FXErrorUtil.h"
#include "platform/FXFile.h"
#include "platform/FXString.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "support/fault_file_calls.h"

namespace {

std::string tempPath(const char* name) {
    return std::string(testing::TempDir()) + "zxplatform_" + std::to_string(getpid()) + "_" + name;
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    std::string bytes(in ? static_cast<size_t>(in.tellg()) : 0, '\0');
    in.seekg(0);
    in.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
    return bytes;
}

TEST(Errors, TraceAndFormatting) {
    CUxError e = FXErrorUtil::ErrorWin32(FXCodeLocation("lib/Inner", "void inner()", 10), 1359,
                                         "offset %u past %u", 9u, 8u);
    EXPECT_EQ(static_cast<unsigned>(e.Code()), 0x8007054Fu);
    EXPECT_EQ(e.Win32Code(), 1359u);
    e.Push(FXCodeLocation("lib/Outer", "int outer(int)", 20));
    e.Push(FXCodeLocation("lib/Top", "void top()", 30), "while recalling %s", "x/Extent4");
    EXPECT_EQ(e.AsString(), "error -2147023537 (Win32 1359): at lib/Inner:10 void inner() [offset 9 past 8] <- "
                            "at lib/Outer:20 int outer(int) <- at lib/Top:30 void top() [while recalling x/Extent4]");
    EXPECT_STREQ(ZxException("F::g", "failed", "zxblk_vhd", 175, -1).what(), "F::g: failed (zxblk_vhd:175, code -1)");
    std::string big(10000, 'a');  // no length limit
    EXPECT_EQ(FXString::Format("<%s|%d>", big.c_str(), -3), "<" + big + "|-3>");
}

bool has(const CUxError& e, const std::string& text) { return e.AsString().find(text) != std::string::npos; }

TEST(FXFileCalls, DispositionsWritesAndSeeks) {
    std::string path = tempPath("file");
    unlink(path.c_str());
    auto_handle h;
    auto create = [&](DWORD disposition) {
        return FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 7, nullptr, disposition, 0, nullptr);
    };
    DWORD written = 0;
    auto write = [&](const char* s) { return FXFile::ZXWriteFile(h, s, DWORD(strlen(s)), &written, nullptr); };
    EXPECT_TRUE(has(create(OPEN_EXISTING), "No such file or directory"));
    ASSERT_FALSE(create(CREATE_ALWAYS).IsError());
    ASSERT_FALSE(write("hello").IsError());
    EXPECT_EQ(written, 5u);
    ASSERT_FALSE(FXFile::ZXSetFilePointer(h, 2, FILE_CURRENT, nullptr).IsError());
    ASSERT_FALSE(write("!").IsError());
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    EXPECT_EQ(slurp(path), std::string("hello\0\0!", 8));
    EXPECT_EQ(lseek(h.get(), 0, SEEK_CUR), 8);  // the descriptor is in step after a flush
    ASSERT_FALSE(create(CREATE_ALWAYS).IsError());  // truncates
    EXPECT_EQ(slurp(path), "");
    h.reset();
    unlink(path.c_str());
}

// Failures that only the kernel reports, each staged on one system call of
// a handle open on "0123456789", reach the caller that made the kernel call;
// a buffered run that the kernel refused leaves the file emptied at close,
// with one line in the log, so that nobody takes it for what was written.
TEST(FXFileCalls, KernelFailuresReachTheCaller) {
    using zxtest::FileCall;
    std::string path = tempPath("faults");
    auto_handle h;
    DWORD written = 0;
    auto write = [&](const std::string& s) {
        return FXFile::ZXWriteFile(h, s.data(), DWORD(s.size()), &written, nullptr);
    };
    auto seek = [&](LONGLONG d, DWORD how) { return FXFile::ZXSetFilePointer(h, d, how, nullptr); };
    auto flush = [&] { return FXFile::ZXFlushFileBuffers(h); };
    auto reserve = [&](ULONGLONG n) { return FXFile::ZXReserveSpace(h.get(), n, path); };
    // The first failure of a sequence of calls, or success.
    auto first = [](std::initializer_list<std::function<CUxError()>> steps) {
        for (const auto& step : steps)
            if (CUxError e = step(); e.IsError()) return e;
        return CUxError::Success();
    };
    const std::string zeros4(4, '\0');
    const struct {
        const char* what;
        zxtest::FileFault fault;
        std::function<CUxError()> act;
        std::string error;  // in the error the act returns; empty: it succeeds
        std::string file;   // after the handle closes; empty: emptied, one line logged
    } cases[] = {
        {"open refused", {FileCall::Open, 0, EACCES, 0},
         [&] {
             auto_handle other;
             return FXFile::ZXCreateFile(other, path, GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
         },
         "cannot open " + path + ": Permission denied", "0123456789"},
        {"a short write is carried on", {FileCall::Write, 0, 0, 3},
         [&] { return first({[&] { return write("abcd"); }, flush}); }, "", "abcd456789"},
        {"the run written by a write after a gap", {FileCall::Write, 0, ENOSPC, 0},
         [&] {
             return first({[&] { return write("ab"); }, [&] { return seek(2, FILE_CURRENT); },
                           [&] { return write("cd"); }});
         },
         "write of 2 bytes to " + path + " failed: No space left on device", ""},
        {"the run written by a flush, then every flush", {FileCall::Write, 0, ENOSPC, 0},
         [&] { return first({[&] { return write("late"); }, [&] { flush(); return flush(); }}); },
         "flush of " + path + " failed: buffered bytes were lost earlier: No space left on device", ""},
        {"the run written at close", {FileCall::Write, 0, ENOSPC, 0}, [&] { return write("lost"); }, "", ""},
        {"an absolute seek", {FileCall::Seek, 0, EIO, 0}, [&] { return seek(5, FILE_BEGIN); },
         "seek by 5 in " + path + " failed: Input/output error", "0123456789"},
        {"a flush bringing the descriptor in step", {FileCall::Seek, 0, EIO, 0},
         [&] { return first({[&] { return seek(3, FILE_CURRENT); }, flush}); },
         "flush of " + path + " failed: Input/output error", "0123456789"},
        {"a reservation", {FileCall::Allocate, 0, ENOSPC, 0}, [&] { return reserve(4096); },
         "cannot reserve 4096 bytes for " + path + ": No space left on device", "0123456789"},
        {"no reservation: enough free space", {FileCall::Allocate, 0, EOPNOTSUPP, 0}, [&] { return reserve(4096); }, "",
         "0123456789"},
        {"no reservation: too little free space", {FileCall::Allocate, 0, EOPNOTSUPP, 0},
         [&] { return reserve(1ull << 60); }, "bytes free: No space left on device", "0123456789"},
        {"no hole punched: zeros written", {FileCall::Allocate, 0, EOPNOTSUPP, 0},
         [&] { return first({[&] { return write(zeros4); }, flush}); }, "", zeros4 + "456789"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::ofstream(path, std::ios::binary | std::ios::trunc) << "0123456789";
        ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                         .IsError());
        zxtest::armFileFault(c.fault);
        CUxError e = c.act();
        EXPECT_EQ(e.IsError(), !c.error.empty()) << e.AsString();
        EXPECT_TRUE(has(e, c.error)) << e.AsString();
        zxblk::LogCapture capture;
        h.reset();
        EXPECT_EQ(zxtest::armedFileFaults(), 0);  // the fault was met
        zxtest::clearFileFaults();
        EXPECT_EQ(capture.texts("FXFile").size(), c.file.empty() ? 1u : 0u);
        EXPECT_EQ(slurp(path), c.file);
    }
    unlink(path.c_str());
}

// Random mixes of writes (data and all-zero, sector-sized and odd), seeks of
// every kind, flushes and reopenings give the bytes of a plain in-memory
// model, over a file that starts with data, holes and reserved space.
TEST(FXFileCalls, RandomMixesMatchAPlainModel) {
    std::string path = tempPath("model");
    for (unsigned seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        std::vector<char> pool(2 << 20);  // random bytes that writes copy from
        for (char& c : pool) c = static_cast<char>(rng());
        std::string model(pool.data(), 1 << 20);  // the file's bytes, as plain as can be
        model.resize(3 << 20, '\0');
        {
            std::ofstream(path, std::ios::binary | std::ios::trunc).write(model.data(), 1 << 20);
            int fd = open(path.c_str(), O_RDWR);
            ASSERT_EQ(fallocate(fd, 0, 2 << 20, 1 << 20), 0);  // reserved, never written: reads as zeros
            close(fd);
        }
        long long pos = 0;
        auto_handle h;
        auto reopen = [&] {
            return FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        };
        ASSERT_FALSE(reopen().IsError());
        std::vector<char> buf;
        for (int op = 0; op < 300; ++op) {
            unsigned kind = rng() % 16;
            ULONGLONG reported = ~0ull;
            if (kind < 9) {  // a write
                unsigned shape = rng() % 4;
                size_t n = shape == 0 ? 512 : shape == 1 ? 1 + rng() % 5000 : shape == 2 ? (1 + rng() % 64) * 512
                                                                                         : rng() % (1280 << 10);
                buf.assign(n, 0);
                if (rng() % 3) {
                    size_t from = rng() % (pool.size() - n);
                    std::copy(pool.begin() + from, pool.begin() + from + n, buf.begin());
                }
                int repeat = shape == 0 ? 1 + rng() % 64 : 1;  // a stretch of sectors, one call each
                for (int r = 0; r < repeat && pos + n <= (5u << 20); ++r) {
                    DWORD written = 0;
                    ASSERT_FALSE(FXFile::ZXWriteFile(h, buf.data(), static_cast<DWORD>(n), &written, nullptr).IsError());
                    ASSERT_EQ(written, n);
                    if (model.size() < pos + n) model.resize(pos + n, '\0');
                    model.replace(pos, n, buf.data(), n);
                    pos += static_cast<long long>(n);
                }
                continue;
            }
            if (kind < 14) {  // forward, backward, absolute and from-the-end seeks
                DWORD how = kind < 12 ? FILE_CURRENT : kind == 12 ? FILE_BEGIN : FILE_END;
                LONGLONG d = kind < 11    ? (rng() % 2 ? 512 * (rng() % 8) : rng() % 100000)
                             : kind == 11 ? -static_cast<LONGLONG>(rng() % (pos + 1))
                             : kind == 12 ? rng() % (4 << 20)
                                          : -static_cast<LONGLONG>(rng() % 4096);
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, d, how, &reported).IsError());
                pos = (how == FILE_CURRENT ? pos : how == FILE_BEGIN ? 0 : static_cast<long long>(model.size())) + d;
                ASSERT_EQ(reported, static_cast<ULONGLONG>(pos));
            } else if (kind == 14) {
                ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
                ASSERT_EQ(lseek(h.get(), 0, SEEK_CUR), pos);
                ASSERT_TRUE(slurp(path) == model) << "after a flush, op " << op;
            } else {
                h.reset();  // written out on close, without a flush
                ASSERT_FALSE(reopen().IsError());
                pos = 0;
            }
        }
        h.reset();
        ASSERT_TRUE(slurp(path) == model);
    }
    unlink(path.c_str());
}

// A sector at a time costs no system call per sector: 2,048 sector writes of
// data reach the kernel as at most two writes, forward seeks and zero
// sectors as none, and zeros over data give its blocks back.
TEST(FXFileCalls, SectorCallsCoalesce) {
    std::string path = tempPath("coalesce");
    auto_handle h;
    ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr)
                     .IsError());
    std::vector<char> sector(512, 'x'), zeros(512, 0), expected;
    DWORD written = 0;
    const struct {
        const char* what;
        bool data, seek;  // per 512-byte step: a data write, a seek or a write of zeros
        unsigned long long maxWrites, maxOthers;  // flush included
    } cases[] = {{"data sectors", true, false, 2, 1}, {"skipped sectors", false, true, 0, 1},
                 {"zero sectors past the end", false, false, 0, 4}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        zxtest::FileCallCounts before = zxtest::fileCallCounts();
        for (int i = 0; i < 2048; ++i) {
            ASSERT_FALSE((c.seek ? FXFile::ZXSetFilePointer(h, 512, FILE_CURRENT, nullptr)
                                 : FXFile::ZXWriteFile(h, c.data ? sector.data() : zeros.data(), 512, &written, nullptr))
                             .IsError());
            expected.insert(expected.end(), c.data ? sector.begin() : zeros.begin(), c.data ? sector.end() : zeros.end());
        }
        ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
        zxtest::FileCallCounts after = zxtest::fileCallCounts();
        EXPECT_LE(after.writes - before.writes, c.maxWrites);
        EXPECT_LE(after.others - before.others, c.maxOthers);
    }
    EXPECT_TRUE(slurp(path) == std::string(expected.begin(), expected.end()));

    // The whole file again as one write of zeros: no write, its data punched out.
    zxtest::FileCallCounts before = zxtest::fileCallCounts();
    std::vector<char> all(expected.size(), 0);
    ASSERT_FALSE(FXFile::ZXSetFilePointer(h, 0, FILE_BEGIN, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXWriteFile(h, all.data(), static_cast<DWORD>(all.size()), &written, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    EXPECT_EQ(zxtest::fileCallCounts().writes, before.writes);
    EXPECT_TRUE(slurp(path) == std::string(all.begin(), all.end()));
    struct stat st;
    ASSERT_EQ(fstat(h.get(), &st), 0);
    EXPECT_EQ(st.st_blocks, 0);
    h.reset();
    unlink(path.c_str());
}

TEST(Configuration, IniBooleansHostDefaultsAndMissingFiles) {
    std::string path = tempPath("config.ini");
    std::ofstream(path) << "[VirtualServer]\nbOn=true\nbOff=0\nbYes=YES\nbJunk=maybe\ncount=42\n"
                           "[Other]\nbOn=false\n";
    setenv("ZXBLK_CONFIG", path.c_str(), 1);
    ZXPlatformInfo::Reload();
    // The host's defaults fill only what the file leaves unset.
    ZXPlatformInfo::setHostDefault("VirtualServer", "bOff", "true");
    ZXPlatformInfo::setHostDefault("VirtualServer", "bHostOnly", "true");
    const struct {
        const char *section, *key;
        bool found, value;  // when not found, the value is left as it was
    } cases[] = {{"VirtualServer", "bOn", true, true},       {"VirtualServer", "bOff", true, false},
                 {"VirtualServer", "bYes", true, true},      {"VirtualServer", "bJunk", false, true},
                 {"VirtualServer", "absent", false, false},  {"Other", "bOn", true, false},
                 {"VirtualServer", "bHostOnly", true, true}, {"Other", "bHostOnly", false, true}};
    ZXPlatformInfo info;
    for (const auto& c : cases) {
        bool v = c.found ? !c.value : c.value;
        EXPECT_EQ(info.getBoolean(c.section, c.key, &v), c.found) << c.section << "/" << c.key;
        EXPECT_EQ(v, c.value) << c.section << "/" << c.key;
    }
    long long n = 0;
    EXPECT_TRUE(info.getInteger("VirtualServer", "count", &n));
    EXPECT_EQ(n, 42);

    setenv("ZXBLK_CONFIG", (path + ".missing").c_str(), 1);
    ZXPlatformInfo::Reload();
    bool v = true;
    EXPECT_FALSE(ZXPlatformInfo().getBoolean("VirtualServer", "bOn", &v));
    EXPECT_TRUE(v);
    unsetenv("ZXBLK_CONFIG");
    ZXPlatformInfo::Reload();
    unlink(path.c_str());
}

TEST(Logging, CaptureLevelsAndFileSink) {
    std::string path = tempPath("log");
    unlink(path.c_str());
    int saved = zxblk::LogSink::level();
    zxblk::LogSink::setLevel(1);
    ASSERT_TRUE(zxblk::LogSink::setFile(path));
    {
        zxblk::LogCapture capture;
        EvDebug log;
        log.Debug("T::a", "x=%d\n", 5);
        log.DebugLvl("T::b", 2, "hidden %s", "line");
        log.Error("T::c", "broke");
        g_ptrLogWriter->WriteLog(0, "void f()", 1, 0, 0, "written %d", 0);
        g_ptrLogWriter->WriteLog(3, "void f()", 1, 0, 0, "dropped");
        auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 4u);  // every EvDebug line, writer lines that pass its level
        EXPECT_EQ(lines[1].text, "hidden line");
        EXPECT_EQ(capture.texts("void f()"), std::vector<std::string>{"written 0"});
    }
    zxblk::LogSink::setFile("");
    zxblk::LogSink::setLevel(saved);
    std::string text = slurp(path);
    EXPECT_NE(text.find("L1 [T::a] x=5\n"), std::string::npos);
    EXPECT_EQ(text.find("hidden line"), std::string::npos);  // level 2 filtered out of the sink
    EXPECT_NE(text.find("L-1 [T::c] broke\n"), std::string::npos);
    unlink(path.c_str());
}

}  // namespace
