#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"
#include "platform/FXFile.h"
#include "platform/Log.h"
#include "platform/ZxBlkBackingStore.h"
#include "restore_target/stream_model.h"

namespace {

std::vector<uint8_t> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void spit(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

class RestoreTargetTest : public testing::Test {
protected:
    void SetUp() override {
        path = std::string(testing::TempDir()) + "ert_" + std::to_string(getpid()) + "_" +
               testing::UnitTest::GetInstance()->current_test_info()->name();
        unlink(path.c_str());
        savedLevel = zxblk::LogSink::level();
        zxblk::LogSink::setLevel(3);  // summaries are built only above level 2
    }
    void TearDown() override {
        zxblk::LogSink::setLevel(savedLevel);
        zxblk::clearFileFaults();
        unlink(path.c_str());
    }
    std::string path;
    int savedLevel = 0;
};

boost::shared_ptr<CBitmapInfo> bitmapOf(const std::vector<bool>& bits) {
    boost::shared_ptr<CBitmapInfo> b(new CBitmapInfo((bits.size() + 7) / 8));
    for (size_t i = 0; i < bits.size(); ++i)
        if (bits[i]) b->SetBit(i);
    return b;
}

// Drives a real target with the model's setup and calls; returns what the
// target produced in the model's terms.
model::Outcome drive(const std::string& path, const model::Setup& s, const std::vector<model::Call>& calls,
                     std::string* closeLine) {
    if (s.toExisting) spit(path, s.initialFile);
    zxblk::LogCapture capture;
    CExtentRestoreTarget t(path, s.extentSize, s.sectorSize, false);
    t.SetExtentNumber(42);
    t.SetSrcPath("/copy/Extent42");
    if (s.hasSectorsToWrite) t.SetSectorsToWrite(bitmapOf(s.sectorsToWrite));
    if (s.toExisting) t.SetRestoreToExistingFileAt(s.existingOffset);
    if (s.skipBitmap) t.SetSkipBitmapInExtent();
    if (s.bitmapInExtent) t.SetBitmapInExtent();
    EXPECT_FALSE(t.Open(nullptr).IsError());
    for (const model::Call& c : calls) {
        CUxError e = c.hole ? t.WriteHole(c.length) : t.Write(c.data.data(), static_cast<unsigned>(c.data.size()));
        EXPECT_FALSE(e.IsError()) << e.AsString();
    }
    EXPECT_FALSE(t.Flush().IsError());
    EXPECT_FALSE(t.Close(false).IsError());
    model::Outcome o;
    o.file = slurp(path);
    o.offset = t.GetCurrentOffset();
    o.summary = t.GetExtentDataSummary();
    boost::shared_ptr<CBitmapInfo> parent;
    t.GetParentSectors(parent);
    o.parentMade = parent != nullptr;
    if (parent)
        for (uint32_t i = 0; i < s.extentSize / s.sectorSize; ++i) o.parent.push_back(parent->IsBitSet(i));
    auto lines = capture.texts("virtual CUxError CExtentRestoreTarget::Close(bool)");
    if (closeLine) *closeLine = lines.empty() ? "" : lines.back();
    return o;
}

std::vector<model::Call> randomStream(std::mt19937& rng, const model::Setup& s) {
    std::vector<model::Call> calls;
    uint32_t total = rng() % 4 == 0 ? static_cast<uint32_t>(rng() % (s.extentSize + 1)) : s.extentSize;
    std::vector<uint8_t> bitmap;
    if (s.bitmapInExtent) {
        bitmap.resize(s.sectorSize);
        for (auto& b : bitmap) b = static_cast<uint8_t>(rng() % 3 == 0 ? 0xFF : rng());
    }
    size_t bitmapUsed = 0;
    if (!s.bitmapInExtent && total == s.extentSize && rng() % 6 == 0) {
        model::Call c;
        c.hole = true;
        c.length = s.extentSize;  // a whole-extent hole
        return {c};
    }
    uint32_t pos = 0;
    while (pos < total || bitmapUsed < bitmap.size()) {
        uint32_t step = 1 + rng() % (rng() % 2 ? 700 : s.extentSize);
        step = std::min(step, total - pos);
        bool hole = rng() % 4 == 0 && step > 0 && bitmapUsed == bitmap.size();
        model::Call c;
        if (hole) {
            c.hole = true;
            c.length = step;
        } else {
            // Bitmap bytes first, split at random points, possibly sharing a
            // call with the first content bytes.
            size_t take = std::min(bitmap.size() - bitmapUsed, static_cast<size_t>(1 + rng() % 600));
            c.data.insert(c.data.end(), bitmap.begin() + bitmapUsed, bitmap.begin() + bitmapUsed + take);
            bitmapUsed += take;
            if (bitmapUsed < bitmap.size()) step = 0;
            for (uint32_t i = 0; i < step; ++i) c.data.push_back(static_cast<uint8_t>(rng() % 255 + 1));
        }
        pos += step;
        calls.push_back(c);
    }
    return calls;
}

TEST_F(RestoreTargetTest, RandomStreamsMatchTheModel) {
    const uint32_t extents[] = {1024, 4096, 8192, 65536};
    for (uint32_t seed = 1; seed <= 400; ++seed) {
        std::mt19937 rng(seed);
        model::Setup s;
        s.extentSize = extents[rng() % 4];
        s.sectorSize = 512;
        int bitmapMode = rng() % 3;  // off, applied, skipped
        s.bitmapInExtent = bitmapMode != 0;
        s.skipBitmap = bitmapMode == 2;
        int sectorsMode = rng() % 3;  // none, sparse, full
        uint32_t sectors = s.extentSize / s.sectorSize;
        s.hasSectorsToWrite = sectorsMode != 0;
        for (uint32_t i = 0; i < sectors; ++i) s.sectorsToWrite.push_back(sectorsMode == 2 || rng() % 2);
        s.toExisting = rng() % 2;
        if (s.toExisting) {
            s.existingOffset = (rng() % 4) * s.extentSize + (rng() % 2 ? 0 : 512);
            s.initialFile.resize(s.existingOffset + s.extentSize + rng() % 1000);
            for (auto& b : s.initialFile) b = static_cast<uint8_t>(rng());
        }
        std::vector<model::Call> calls = randomStream(rng, s);
        SCOPED_TRACE("seed " + std::to_string(seed));
        model::Outcome expected = model::run(s, calls);
        std::string closeLine;
        model::Outcome got = drive(path, s, calls, &closeLine);
        ASSERT_EQ(got.offset, expected.offset);
        ASSERT_EQ(got.parentMade, expected.parentMade);
        ASSERT_EQ(got.parent, expected.parent);
        ASSERT_EQ(got.summary, expected.summary);
        ASSERT_EQ(got.file.size(), expected.file.size());
        ASSERT_TRUE(got.file == expected.file);
        ASSERT_EQ(closeLine, expected.summary.empty() ? ""
                                                      : "Recalled Extent 42 from /copy/Extent42: " + expected.summary);
        unlink(path.c_str());
    }
}

TEST_F(RestoreTargetTest, HoleBitmapHeadEdgeCases) {
    // A first write of exactly one sector only fills the bitmap.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetBitmapInExtent();
        ASSERT_FALSE(t.Open(nullptr).IsError());
        std::vector<uint8_t> bitmap(512, 0xFF);
        EXPECT_FALSE(t.Write(bitmap.data(), 512).IsError());
        EXPECT_EQ(t.GetCurrentOffset(), 0u);
        t.Close(false);
        EXPECT_TRUE(slurp(path).empty());
    }
    // 100 bitmap bytes, then 1000 bytes: 412 complete the bitmap, 588 are
    // sector 0 and the first 76 bytes of sector 1. Sector 1 is clear in the
    // bitmap (0x80 = only sector 0 present), so its bytes become a hole.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetBitmapInExtent();
        ASSERT_FALSE(t.Open(nullptr).IsError());
        std::vector<uint8_t> head(100, 0);
        head[0] = 0x80;
        EXPECT_FALSE(t.Write(head.data(), 100).IsError());
        EXPECT_EQ(t.GetCurrentOffset(), 0u);
        std::vector<uint8_t> rest(1000, 0x5A);
        EXPECT_FALSE(t.Write(rest.data(), 1000).IsError());
        EXPECT_EQ(t.GetCurrentOffset(), 588u);
        t.Close(false);
        EXPECT_EQ(slurp(path), std::vector<uint8_t>(512, 0x5A));
        boost::shared_ptr<CBitmapInfo> parent;
        t.GetParentSectors(parent);
        ASSERT_TRUE(parent);
        EXPECT_EQ(parent->Size(), 1u);
        EXPECT_FALSE(parent->IsBitSet(0));
        EXPECT_TRUE(parent->IsBitSet(1));  // the hole ends inside sector 1: recorded
        EXPECT_EQ(t.GetExtentDataSummary(), "|--DATA(512)--||--HOLE(76)--|");
    }
}

TEST_F(RestoreTargetTest, HolesZerosAndEmptyHoles) {
    std::vector<uint8_t> junk(8192, 0xEE);
    spit(path, junk);
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetRestoreToExistingFileAt(4096);
        ASSERT_FALSE(t.Open(nullptr).IsError());
        EXPECT_FALSE(t.WriteHole(0).IsError());
        boost::shared_ptr<CBitmapInfo> parent;
        t.GetParentSectors(parent);
        EXPECT_FALSE(parent);  // an empty hole records nothing
        EXPECT_FALSE(t.WriteHole(4096).IsError());  // a whole-extent hole is written as zeros
        EXPECT_EQ(t.GetCurrentOffset(), 4096u);
        t.GetParentSectors(parent);
        EXPECT_FALSE(parent);
        t.Close(false);
        EXPECT_EQ(t.GetExtentNumber(), 0u);
    }
    std::vector<uint8_t> expected(4096, 0xEE);
    expected.resize(8192, 0);
    EXPECT_EQ(slurp(path), expected);

    // A shorter hole records its sectors and writes nothing.
    CExtentRestoreTarget t(path, 4096, 512, false);
    t.SetRestoreToExistingFileAt(0);
    ASSERT_FALSE(t.Open(nullptr).IsError());
    EXPECT_FALSE(t.WriteHole(1024).IsError());
    std::vector<uint8_t> data(3072, 0x11);
    EXPECT_FALSE(t.Write(data.data(), 3072).IsError());
    t.Close(false);
    boost::shared_ptr<CBitmapInfo> parent;
    t.GetParentSectors(parent);
    ASSERT_TRUE(parent);
    EXPECT_TRUE(parent->IsBitSet(0) && parent->IsBitSet(1) && !parent->IsBitSet(2));
    std::vector<uint8_t> file = slurp(path);
    EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 1024), std::vector<uint8_t>(1024, 0xEE));
    EXPECT_EQ(std::vector<uint8_t>(file.begin() + 1024, file.begin() + 4096), data);
    EXPECT_EQ(t.GetExtentDataSummary(), "|--HOLE(1024)--||--DATA(3072)--|");
}

TEST_F(RestoreTargetTest, SummarySwitchAndDefaults) {
    zxblk::LogSink::setLevel(2);  // not above 2 at construction: no summary, whatever comes later
    CExtentRestoreTarget t(path, 4096, 512, false);
    zxblk::LogSink::setLevel(5);
    zxblk::LogCapture capture;
    EXPECT_FALSE(t.Close(false).IsError());  // without Open: succeeds, closes nothing
    ASSERT_FALSE(t.Open(nullptr).IsError());
    std::vector<uint8_t> d(4096, 1);
    t.Write(d.data(), 4096);
    t.Close(false);
    EXPECT_TRUE(capture.lines().empty());
    EXPECT_FALSE(t.Exists());
    EXPECT_EQ(t.GetTargetFilePath(), "");
    CUxError info = t.GetFileInfo(nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(info.Win32Code(), 50u);
    EXPECT_NE(info.AsString().find("DMRService/RestoreTarget"), std::string::npos);

    // Runs of length 0 leave the summary empty and Close logs nothing.
    zxblk::LogSink::setLevel(3);
    CExtentRestoreTarget z(path, 4096, 512, false);
    ASSERT_FALSE(z.Open(nullptr).IsError());
    z.Write(d.data(), 0);
    z.WriteHole(0);
    z.Close(false);
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(RestoreTargetTest, OpenDispositions) {
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetRestoreToExistingFileAt(0);
        CUxError e = t.Open(nullptr);  // missing file, existing one required
        ASSERT_TRUE(e.IsError());
        EXPECT_NE(e.AsString().find("Error opening restore target file " + path), std::string::npos);
        EXPECT_NE(e.AsString().find("virtual CUxError CExtentRestoreTarget::Open(void*)"), std::string::npos);
    }
    spit(path, std::vector<uint8_t>(100, 7));
    {
        CExtentRestoreTarget t(path, 4096, 512, false);  // creates anew: truncates
        ASSERT_FALSE(t.Open(nullptr).IsError());
        t.Close(false);
        EXPECT_TRUE(slurp(path).empty());
    }
    spit(path, std::vector<uint8_t>(100, 7));
    {
        CExtentRestoreTarget t(path, 4096, 512, true);  // update + sectors to write: opens the existing file
        t.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, true)));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        t.Close(false);
        EXPECT_EQ(slurp(path).size(), 100u);
    }
}

TEST_F(RestoreTargetTest, OutOfRangeStreamsAreRefusedBeforeWriting) {
    spit(path, std::vector<uint8_t>(4096, 3));
    CExtentRestoreTarget t(path, 2048, 512, false);
    t.SetRestoreToExistingFileAt(0);
    ASSERT_FALSE(t.Open(nullptr).IsError());
    std::vector<uint8_t> d(3000, 9);
    CUxError e = t.Write(d.data(), 3000);
    ASSERT_TRUE(e.IsError());
    EXPECT_EQ(e.Win32Code(), 1359u);
    EXPECT_NE(e.AsString().find("offset 0 runs past the extent size 2048"), std::string::npos);
    EXPECT_FALSE(t.Write(d.data(), 2000).IsError());
    EXPECT_TRUE(t.WriteHole(49).IsError());
    EXPECT_EQ(t.GetCurrentOffset(), 2000u);
    t.Close(false);
    std::vector<uint8_t> file = slurp(path);
    EXPECT_EQ(std::count(file.begin(), file.end(), 9), 2000);

    // A hole bitmap that cannot cover the extent is refused as well.
    CExtentRestoreTarget big(path, 8 * 512 * 512 + 512 * 8, 512, false);
    big.SetBitmapInExtent();
    ASSERT_FALSE(big.Open(nullptr).IsError());
    std::vector<uint8_t> bm(512 + 512, 0xFF);
    e = big.Write(bm.data(), static_cast<unsigned>(bm.size()));
    ASSERT_TRUE(e.IsError());
    EXPECT_NE(e.AsString().find("hole bitmap covers 4096 sectors"), std::string::npos);
    big.Close(false);
    EXPECT_TRUE(slurp(path).empty());

    // A sectors-to-write bitmap shorter than the extent: the sectors past
    // its end are not wanted, neither as data nor as missing sectors.
    spit(path, std::vector<uint8_t>(8192, 5));
    CExtentRestoreTarget narrow(path, 8192, 512, true);  // 16 sectors, a 1-byte bitmap
    narrow.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, true)));
    ASSERT_FALSE(narrow.Open(nullptr).IsError());
    std::vector<uint8_t> six(6 * 512, 6);
    EXPECT_FALSE(narrow.Write(six.data(), static_cast<unsigned>(six.size())).IsError());
    EXPECT_FALSE(narrow.WriteHole(10 * 512).IsError());
    narrow.Close(false);
    std::vector<uint8_t> want(8192, 5);
    std::fill(want.begin(), want.begin() + 6 * 512, 6);
    EXPECT_EQ(slurp(path), want);
    boost::shared_ptr<CBitmapInfo> parents;
    narrow.GetParentSectors(parents);
    ASSERT_TRUE(parents);
    for (unsigned s = 0; s < 16; ++s) EXPECT_EQ(parents->IsBitSet(s), s == 6 || s == 7) << "sector " << s;
}

TEST_F(RestoreTargetTest, InjectedFailuresKeepWhatWasWritten) {
    std::vector<uint8_t> d(2048, 0x44);
    // A short write: code 1359, the offset stays at the end of the last good chunk.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, true)));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        zxblk::armFileFault({zxblk::FileOp::Write, 2, 0, 10});
        CUxError e = t.Write(d.data(), 2048);
        ASSERT_TRUE(e.IsError());
        EXPECT_EQ(e.Win32Code(), 1359u);
        EXPECT_EQ(t.GetCurrentOffset(), 1024u);
        std::string trace = e.AsString();
        EXPECT_NE(trace.find("ExtentRestoreTarget"), std::string::npos);
        size_t data = trace.find("CExtentRestoreTarget::WriteData(const void*, unsigned int)");
        size_t internal = trace.find("CExtentRestoreTarget::WriteInternal(const void*, unsigned int)");
        size_t write = trace.find("virtual CUxError CExtentRestoreTarget::Write(const void*, unsigned int)");
        EXPECT_TRUE(data < internal && internal < write) << trace;
        t.Close(false);
        std::vector<uint8_t> file = slurp(path);
        ASSERT_GE(file.size(), 1024u);
        EXPECT_EQ(std::vector<uint8_t>(file.begin(), file.begin() + 1024), std::vector<uint8_t>(1024, 0x44));
    }
    // A failed write names the file.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        ASSERT_FALSE(t.Open(nullptr).IsError());
        zxblk::armFileFault({zxblk::FileOp::Write, 0, 28, 0});
        CUxError e = t.Write(d.data(), 512);
        ASSERT_TRUE(e.IsError());
        EXPECT_NE(e.AsString().find("Error writing to restore target file " + path), std::string::npos);
        t.Close(false);
    }
    // A failed seek in a hole: the sectors recorded before it stay.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        ASSERT_FALSE(t.Open(nullptr).IsError());
        zxblk::armFileFault({zxblk::FileOp::Seek, 0, 5, 0});
        CUxError e = t.WriteHole(1024);
        ASSERT_TRUE(e.IsError());
        EXPECT_NE(e.AsString().find("Error seeking in restore target file " + path), std::string::npos);
        EXPECT_NE(e.AsString().find("SetMissingSectorBits"), std::string::npos);
        boost::shared_ptr<CBitmapInfo> parent;
        t.GetParentSectors(parent);
        ASSERT_TRUE(parent);
        EXPECT_TRUE(parent->IsBitSet(0) && parent->IsBitSet(1));
        t.Close(false);
    }
    // A failed skip, a failed positioning at open and a failed flush.
    {
        CExtentRestoreTarget t(path, 4096, 512, false);
        std::vector<bool> sparse(8, false);
        t.SetSectorsToWrite(bitmapOf(sparse));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        zxblk::armFileFault({zxblk::FileOp::Seek, 0, 5, 0});
        EXPECT_NE(t.Write(d.data(), 512).AsString().find("CExtentRestoreTarget::SeekData(unsigned int)"),
                  std::string::npos);
        zxblk::armFileFault({zxblk::FileOp::Flush, 0, 5, 0});
        EXPECT_NE(t.Flush().AsString().find("virtual CUxError CExtentRestoreTarget::Flush()"), std::string::npos);
        t.Close(false);
        CExtentRestoreTarget at(path, 4096, 512, false);
        at.SetRestoreToExistingFileAt(4096);
        zxblk::armFileFault({zxblk::FileOp::Seek, 0, 5, 0});
        EXPECT_NE(at.Open(nullptr).AsString().find("CExtentRestoreTarget::Open(void*)"), std::string::npos);
        at.Close(false);
    }
}

// The stretches of a file that hold data, as the file system reports them.
std::vector<std::pair<off_t, off_t>> dataRanges(const std::string& file) {
    std::vector<std::pair<off_t, off_t>> ranges;
    int fd = open(file.c_str(), O_RDONLY);
    for (off_t at = 0;;) {
        off_t data = lseek(fd, at, SEEK_DATA);
        if (data < 0) break;
        at = lseek(fd, data, SEEK_HOLE);
        ranges.emplace_back(data, at);
    }
    close(fd);
    return ranges;
}

// An extent file is sized and its space reserved before the recall, as the
// read path does; what the stream leaves zero must cost no blocks once the
// file is in the cache, however the zeros came (never written, a whole-extent
// hole, zero bytes, with or without a sector at a time).
TEST_F(RestoreTargetTest, ZeroStretchesStayHolesAfterMoveIn) {
    const uint32_t E = 1 << 20, kData = 64 << 10;
    enum Stream { Nothing, WholeHole, ZeroBytes, DataThenZeros };
    struct Case {
        const char* what;
        Stream stream;
        bool bySector;  // a sectors-to-write bitmap: the target goes a sector at a time
    };
    const Case cases[] = {
        {"never written", Nothing, false},         {"whole-extent hole", WholeHole, false},
        {"hole, by sector", WholeHole, true},      {"zero bytes", ZeroBytes, false},
        {"zero bytes, by sector", ZeroBytes, true}, {"data then zeros, by sector", DataThenZeros, true},
    };
    std::string dir = path + ".store";
    std::vector<uint8_t> zeros(E, 0), data(kData, 0x6B);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        std::system(("rm -rf '" + dir + "'").c_str());
        ZxBlkBackingStore store(dir, 0);
        store.setExtentSize(E);
        std::string temp;
        FILE* f = nullptr;
        ASSERT_FALSE(store.openTempFile(&temp, &f).IsError());
        ASSERT_EQ(ftruncate(fileno(f), E), 0);
        ASSERT_FALSE(FXFile::ZXReserveSpace(fileno(f), E, temp).IsError());
        fclose(f);
        CExtentRestoreTarget t(temp, E, 512, false);
        t.SetRestoreToExistingFileAt(0);
        if (c.bySector) t.SetSectorsToWrite(bitmapOf(std::vector<bool>(E / 512, true)));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        CUxError e;
        if (c.stream == WholeHole) e = t.WriteHole(E);
        if (c.stream == ZeroBytes) e = t.Write(zeros.data(), E);
        if (c.stream == DataThenZeros) {
            e = t.Write(data.data(), kData);
            if (!e.IsError()) e = t.Write(zeros.data(), E - kData);
        }
        ASSERT_FALSE(e.IsError()) << e.AsString();
        ASSERT_FALSE(t.Flush().IsError());
        t.Close(false);
        ASSERT_FALSE(store.moveInExtentFile(temp, 0).IsError());
        std::vector<uint8_t> expected(zeros);
        std::vector<std::pair<off_t, off_t>> expectedRanges;
        if (c.stream == DataThenZeros) {
            std::fill(expected.begin(), expected.begin() + kData, 0x6B);
            expectedRanges.emplace_back(0, kData);
        }
        EXPECT_TRUE(slurp(store.extentPath(0)) == expected);
        EXPECT_EQ(dataRanges(store.extentPath(0)), expectedRanges);
        struct stat st;
        ASSERT_EQ(stat(store.extentPath(0).c_str(), &st), 0);
        EXPECT_EQ(static_cast<off_t>(st.st_blocks) * 512, expectedRanges.empty() ? 0 : kData);
    }
    std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
