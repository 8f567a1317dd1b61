#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "platform/FXErrorUtil.h"
#include "platform/FXFile.h"
#include "platform/FXString.h"
#include "platform/Log.h"
#include "platform/ZXPlatformInfo.h"
#include "platform/ZxServices.h"

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

TEST(Errors, Win32CodesPushesAndTrace) {
    CUxError e = FXErrorUtil::ErrorWin32(FXCodeLocation("lib/Inner", "void inner()", 10), 1359,
                                         "offset %u past %u", 9u, 8u);
    EXPECT_TRUE(e.IsError());
    EXPECT_EQ(static_cast<unsigned>(e.Code()), 0x8007054Fu);
    EXPECT_EQ(e.Win32Code(), 1359u);
    e.Push(FXCodeLocation("lib/Outer", "int outer(int)", 20));
    e.Push(FXCodeLocation("lib/Top", "void top()", 30), "while recalling %s", "x/Extent4");
    std::string text = e.AsString();
    EXPECT_EQ(text, "error -2147023537 (Win32 1359): at lib/Inner:10 void inner() [offset 9 past 8] <- "
                    "at lib/Outer:20 int outer(int) <- at lib/Top:30 void top() [while recalling x/Extent4]");
    EXPECT_EQ(text.find('\n'), std::string::npos);
    EXPECT_EQ(FXErrorUtil::ErrorWin32(FXCodeLocation("a", "b", 1), 50).Win32Code(), 50u);
    EXPECT_EQ(CUxError::Success().AsString(), "success");
}

TEST(Errors, ZxExceptionCarriesEverything) {
    try {
        throw ZxException("ZxBlkVhd::setSpecialOpts", "setSpecialOpts failed for block level init", "zxblk_vhd",
                          175, -1);
    } catch (const ZxException& e) {
        EXPECT_EQ(e.Function(), "ZxBlkVhd::setSpecialOpts");
        EXPECT_EQ(e.Line(), 175);
        EXPECT_EQ(e.Code(), -1);
        EXPECT_STREQ(e.what(),
                     "ZxBlkVhd::setSpecialOpts: setSpecialOpts failed for block level init (zxblk_vhd:175, code -1)");
    }
}

TEST(FXStringFormat, NoLengthLimit) {
    std::string big(10000, 'a');
    EXPECT_EQ(FXString::Format("<%s|%d>", big.c_str(), -3), "<" + big + "|-3>");
    EXPECT_EQ(FXString::Format("%s", ""), "");
}

TEST(FXFileCalls, DispositionsWritesSeeksAndInjectedFaults) {
    std::string path = tempPath("file");
    unlink(path.c_str());
    auto_handle h;
    CUxError e = FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 7, nullptr, OPEN_EXISTING,
                                      FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_TRUE(e.IsError());
    EXPECT_NE(e.AsString().find("No such file or directory"), std::string::npos);
    ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL, nullptr)
                     .IsError());
    DWORD written = 0;
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "hello", 5, &written, nullptr).IsError());
    EXPECT_EQ(written, 5u);
    ASSERT_FALSE(FXFile::ZXSetFilePointer(h, 2, FILE_CURRENT, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "!", 1, &written, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    EXPECT_EQ(slurp(path), std::string("hello\0\0!", 8));
    EXPECT_EQ(lseek(h.get(), 0, SEEK_CUR), 8);  // the descriptor is in step after a flush

    // The second write comes out three bytes short; the third fails outright.
    zxblk::armFileFault({zxblk::FileOp::Write, 1, 0, 3});
    zxblk::armFileFault({zxblk::FileOp::Write, 2, 28 /*ENOSPC*/, 0});
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "abcd", 4, &written, nullptr).IsError());
    EXPECT_EQ(written, 4u);
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "abcd", 4, &written, nullptr).IsError());
    EXPECT_EQ(written, 1u);
    e = FXFile::ZXWriteFile(h, "abcd", 4, &written, nullptr);
    ASSERT_TRUE(e.IsError());
    EXPECT_NE(e.AsString().find("FXFile::ZXWriteFile"), std::string::npos);
    EXPECT_NE(e.AsString().find("No space left on device"), std::string::npos);
    zxblk::armFileFault({zxblk::FileOp::Seek, 0, 5 /*EIO*/, 0});
    EXPECT_TRUE(FXFile::ZXSetFilePointer(h, 1, FILE_CURRENT, nullptr).IsError());
    zxblk::armFileFault({zxblk::FileOp::Flush, 0, 5, 0});
    EXPECT_TRUE(FXFile::ZXFlushFileBuffers(h).IsError());
    zxblk::armFileFault({zxblk::FileOp::Create, 0, 13 /*EACCES*/, 0});
    auto_handle other;
    EXPECT_TRUE(FXFile::ZXCreateFile(other, path, GENERIC_READ, 7, nullptr, OPEN_EXISTING, 0, nullptr).IsError());
    zxblk::clearFileFaults();
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    EXPECT_EQ(slurp(path), std::string("hello\0\0!abcda", 13));

    // The kernel refuses the buffered run only when it is written: every
    // flush from then on fails, and the space check fails on its own.
    zxblk::armFileFault({zxblk::FileOp::Commit, 0, 28, 0});
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "late", 4, &written, nullptr).IsError());
    for (int i = 0; i < 2; ++i) {
        e = FXFile::ZXFlushFileBuffers(h);
        ASSERT_TRUE(e.IsError());
        EXPECT_NE(e.AsString().find("No space left on device"), std::string::npos) << e.AsString();
    }
    zxblk::armFileFault({zxblk::FileOp::Reserve, 0, 28, 0});
    e = FXFile::ZXReserveSpace(h.get(), 4096, path);
    EXPECT_NE(e.AsString().find("cannot reserve 4096 bytes for " + path), std::string::npos) << e.AsString();
    EXPECT_FALSE(FXFile::ZXReserveSpace(h.get(), 4096, path).IsError());
    zxblk::clearFileFaults();

    // CREATE_ALWAYS truncates an existing file.
    ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr).IsError());
    EXPECT_EQ(slurp(path), "");

    // A run that fails when the handle closes cannot be reported: the file is
    // emptied so that it is never taken for what was written, and one line says so.
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "kept", 4, &written, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    ASSERT_FALSE(FXFile::ZXWriteFile(h, "lost", 4, &written, nullptr).IsError());
    zxblk::armFileFault({zxblk::FileOp::Commit, 0, 28, 0});
    {
        zxblk::LogCapture capture;
        h.reset();
        auto lines = capture.texts("FXFile");
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0], "closing " + path + ": buffered bytes could not be written (No space left on device); "
                            "the file is emptied");
    }
    zxblk::clearFileFaults();
    EXPECT_EQ(slurp(path), "");
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
        ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr)
                         .IsError());
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
            if (kind < 11) {
                LONGLONG d = rng() % 2 ? 512 * (rng() % 8) : rng() % 100000;
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, d, FILE_CURRENT, &reported).IsError());
                pos += d;
            } else if (kind == 11) {
                LONGLONG d = -static_cast<LONGLONG>(rng() % (pos + 1));
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, d, FILE_CURRENT, &reported).IsError());
                pos += d;
            } else if (kind == 12) {
                LONGLONG d = rng() % (4 << 20);
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, d, FILE_BEGIN, &reported).IsError());
                pos = d;
            } else if (kind == 13) {
                LONGLONG d = -static_cast<LONGLONG>(rng() % 4096);
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, d, FILE_END, &reported).IsError());
                pos = static_cast<long long>(model.size()) + d;
            } else if (kind == 14) {
                ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
                ASSERT_EQ(lseek(h.get(), 0, SEEK_CUR), pos);
                ASSERT_TRUE(slurp(path) == model) << "after a flush, op " << op;
            } else {
                h.reset();  // written out on close, without a flush
                ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                                  0, nullptr)
                                 .IsError());
                pos = 0;
            }
            if (kind < 14) {
                ASSERT_EQ(reported, static_cast<ULONGLONG>(pos));
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
    struct Case {
        const char* what;
        int writes, seeks, zeroWrites;  // per 512-byte step: calls in this order
        unsigned long long maxWrites, maxOthers;  // flush included
    };
    const Case cases[] = {
        {"data sectors", 1, 0, 0, 2, 1},
        {"skipped sectors", 0, 1, 0, 0, 1},
        {"zero sectors past the end", 0, 0, 1, 0, 4},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        zxblk::KernelFileCalls before = zxblk::kernelFileCalls();
        for (int i = 0; i < 2048; ++i) {
            if (c.writes) {
                ASSERT_FALSE(FXFile::ZXWriteFile(h, sector.data(), 512, &written, nullptr).IsError());
            }
            if (c.seeks) {
                ASSERT_FALSE(FXFile::ZXSetFilePointer(h, 512, FILE_CURRENT, nullptr).IsError());
            }
            if (c.zeroWrites) {
                ASSERT_FALSE(FXFile::ZXWriteFile(h, zeros.data(), 512, &written, nullptr).IsError());
            }
            expected.insert(expected.end(), c.writes ? sector.begin() : zeros.begin(), c.writes ? sector.end() : zeros.end());
        }
        ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
        zxblk::KernelFileCalls after = zxblk::kernelFileCalls();
        EXPECT_LE(after.writes - before.writes, c.maxWrites);
        EXPECT_LE(after.others - before.others, c.maxOthers);
    }
    EXPECT_TRUE(slurp(path) == std::string(expected.begin(), expected.end()));

    // The whole file again as one write of zeros: no write, its data punched out.
    zxblk::KernelFileCalls before = zxblk::kernelFileCalls();
    std::vector<char> all(expected.size(), 0);
    ASSERT_FALSE(FXFile::ZXSetFilePointer(h, 0, FILE_BEGIN, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXWriteFile(h, all.data(), static_cast<DWORD>(all.size()), &written, nullptr).IsError());
    ASSERT_FALSE(FXFile::ZXFlushFileBuffers(h).IsError());
    EXPECT_EQ(zxblk::kernelFileCalls().writes, before.writes);
    EXPECT_TRUE(slurp(path) == std::string(all.begin(), all.end()));
    struct stat st;
    ASSERT_EQ(fstat(h.get(), &st), 0);
    EXPECT_EQ(st.st_blocks, 0);
    h.reset();
    unlink(path.c_str());
}

TEST(Configuration, IniBooleansAndMissingFiles) {
    std::string path = tempPath("config.ini");
    std::ofstream(path) << "[VirtualServer]\nbOn=true\nbOff=0\nbYes=YES\nbJunk=maybe\ncount=42\n"
                           "[Other]\nbOn=false\n";
    setenv("ZXBLK_CONFIG", path.c_str(), 1);
    ZXPlatformInfo::ReloadForTests();
    ZXPlatformInfo info;
    bool v = false;
    EXPECT_TRUE(info.getBoolean("VirtualServer", "bOn", &v));
    EXPECT_TRUE(v);
    EXPECT_TRUE(info.getBoolean("VirtualServer", "bOff", &v));
    EXPECT_FALSE(v);
    v = false;
    EXPECT_TRUE(info.getBoolean("VirtualServer", "bYes", &v));
    EXPECT_TRUE(v);
    EXPECT_FALSE(info.getBoolean("VirtualServer", "bJunk", &v));  // unchanged
    EXPECT_TRUE(v);
    EXPECT_FALSE(info.getBoolean("VirtualServer", "absent", &v));
    EXPECT_TRUE(v);
    EXPECT_TRUE(info.getBoolean("Other", "bOn", &v));
    EXPECT_FALSE(v);
    long long n = 0;
    EXPECT_TRUE(info.getInteger("VirtualServer", "count", &n));
    EXPECT_EQ(n, 42);
    // The host's defaults fill only what the file leaves unset.
    ZXPlatformInfo::setHostDefault("VirtualServer", "bOff", "true");
    ZXPlatformInfo::setHostDefault("VirtualServer", "bHostOnly", "true");
    EXPECT_TRUE(info.getBoolean("VirtualServer", "bOff", &v));
    EXPECT_FALSE(v);
    v = false;
    EXPECT_TRUE(info.getBoolean("VirtualServer", "bHostOnly", &v));
    EXPECT_TRUE(v);
    EXPECT_FALSE(info.getBoolean("Other", "bHostOnly", &v));

    setenv("ZXBLK_CONFIG", (path + ".missing").c_str(), 1);
    ZXPlatformInfo::ReloadForTests();
    v = true;
    EXPECT_FALSE(ZXPlatformInfo().getBoolean("VirtualServer", "bOn", &v));
    EXPECT_TRUE(v);
    unsetenv("ZXBLK_CONFIG");
    ZXPlatformInfo::ReloadForTests();
    unlink(path.c_str());

    info.setFocus(ZXPI_Focus::getFocus());
    char host[256] = {0};
    gethostname(host, sizeof host - 1);
    EXPECT_STREQ(info.getPhysicalMachine(), host);
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
        EXPECT_EQ(g_ptrLogWriter->GetLogLevel(), 1);
        g_ptrLogWriter->WriteLog(0, "void f()", 1, 0, 0, "written %d", 0);
        g_ptrLogWriter->WriteLog(3, "void f()", 1, 0, 0, "dropped");
        auto lines = capture.lines();
        ASSERT_EQ(lines.size(), 4u);  // every EvDebug line, writer lines that pass its level
        EXPECT_EQ(lines[0].text, "x=5\n");
        EXPECT_EQ(lines[0].level, 1);
        EXPECT_EQ(lines[1].text, "hidden line");
        EXPECT_EQ(lines[2].level, -1);
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

TEST(Registry, SlotsAreReplaceable) {
    class Records : public zxblk::RecordsService {
    public:
        bool subclient(uint32_t, AppIdInfo&) override { return false; }
        bool clientName(uint64_t, std::string&) override { return false; }
        bool instanceName(uint64_t, std::string&) override { return false; }
        bool backupSetName(uint64_t, std::string&) override { return false; }
    };
    auto r = std::make_shared<Records>();
    zxblk::setRecordsService(r);
    EXPECT_EQ(zxblk::recordsService(), r);
    zxblk::setRecordsService(nullptr);
    EXPECT_EQ(zxblk::recordsService(), nullptr);
}

}  // namespace
