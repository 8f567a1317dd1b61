#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

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
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
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
    EXPECT_EQ(slurp(path), std::string("hello\0\0!abcda", 13));

    // CREATE_ALWAYS truncates an existing file.
    ASSERT_FALSE(FXFile::ZXCreateFile(h, path, GENERIC_WRITE, 7, nullptr, CREATE_ALWAYS, 0, nullptr).IsError());
    EXPECT_EQ(slurp(path), "");
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
