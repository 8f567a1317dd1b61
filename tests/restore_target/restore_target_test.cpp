#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <random>

#include "BlockLevel/Utilities/Windows/ZXVirtualDiskLibrary/ExtentRestoreTarget.h"
#include "platform/FXFile.h"
#include "platform/Log.h"
#include "platform/ZxBlkBackingStore.h"
#include "restore_target/stream_model.h"
#include "support/fault_file_calls.h"

namespace {

std::vector<uint8_t> slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

void spit(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()), bytes.size());
}

bool has(const CUxError& e, const std::string& text) { return e.AsString().find(text) != std::string::npos; }

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
        zxtest::clearFileFaults();
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

std::vector<bool> parentOf(CExtentRestoreTarget& t, unsigned sectors) {
    boost::shared_ptr<CBitmapInfo> parent;
    t.GetParentSectors(parent);
    std::vector<bool> bits;
    for (unsigned i = 0; parent && i < sectors; ++i) bits.push_back(parent->IsBitSet(i));
    return bits;
}

// Drives a real target with the model's setup and calls and compares what it
// produced, and the summary line Close logs, with the model.
void expectMatchesModel(const std::string& path, const model::Setup& s, const std::vector<model::Call>& calls) {
    model::Outcome want = model::run(s, calls);
    if (s.toExisting) spit(path, s.initialFile);
    zxblk::LogCapture capture;
    CExtentRestoreTarget t(path, s.extentSize, s.sectorSize, false);
    t.SetExtentNumber(42);
    t.SetSrcPath("/copy/Extent42");
    if (s.hasSectorsToWrite) t.SetSectorsToWrite(bitmapOf(s.sectorsToWrite));
    if (s.toExisting) t.SetRestoreToExistingFileAt(s.existingOffset);
    if (s.skipBitmap) t.SetSkipBitmapInExtent();
    if (s.bitmapInExtent) t.SetBitmapInExtent();
    ASSERT_FALSE(t.Open(nullptr).IsError());
    for (const model::Call& c : calls) {
        CUxError e = c.hole ? t.WriteHole(c.length) : t.Write(c.data.data(), static_cast<unsigned>(c.data.size()));
        ASSERT_FALSE(e.IsError()) << e.AsString();
    }
    ASSERT_FALSE(t.Flush().IsError());
    ASSERT_FALSE(t.Close(false).IsError());
    ASSERT_EQ(t.GetCurrentOffset(), want.offset);
    ASSERT_EQ(parentOf(t, s.extentSize / s.sectorSize), want.parent);  // empty when none was made
    ASSERT_EQ(t.GetExtentDataSummary(), want.summary);
    ASSERT_TRUE(slurp(path) == want.file);
    std::vector<std::string> line{"Recalled Extent 42 from /copy/Extent42: " + want.summary};
    ASSERT_EQ(capture.texts("virtual CUxError CExtentRestoreTarget::Close(bool)"),
              want.summary.empty() ? std::vector<std::string>() : line);
    unlink(path.c_str());
}

std::vector<model::Call> randomStream(std::mt19937& rng, const model::Setup& s) {
    std::vector<model::Call> calls;
    uint32_t total = rng() % 4 == 0 ? static_cast<uint32_t>(rng() % (s.extentSize + 1)) : s.extentSize;
    std::vector<uint8_t> bitmap(s.bitmapInExtent ? s.sectorSize : 0);
    for (auto& b : bitmap) b = static_cast<uint8_t>(rng() % 3 == 0 ? 0xFF : rng());
    model::Call c;
    if (!s.bitmapInExtent && total == s.extentSize && rng() % 6 == 0) {
        c.hole = true;
        c.length = s.extentSize;  // a whole-extent hole
        return {c};
    }
    for (uint32_t pos = 0, bitmapUsed = 0; pos < total || bitmapUsed < bitmap.size(); calls.push_back(c)) {
        uint32_t step = std::min<uint32_t>(1 + rng() % (rng() % 2 ? 700 : s.extentSize), total - pos);
        c = model::Call();
        c.hole = rng() % 4 == 0 && step > 0 && bitmapUsed == bitmap.size();
        c.length = step;
        if (!c.hole) {
            // Bitmap bytes first, split at random points, possibly sharing a
            // call with the first content bytes.
            size_t take = std::min<size_t>(bitmap.size() - bitmapUsed, 1 + rng() % 600);
            c.data.assign(bitmap.begin() + bitmapUsed, bitmap.begin() + bitmapUsed + take);
            bitmapUsed += take;
            if (bitmapUsed < bitmap.size()) step = 0;
            for (uint32_t i = 0; i < step; ++i) c.data.push_back(static_cast<uint8_t>(rng() % 255 + 1));
        }
        pos += step;
    }
    return calls;
}

TEST_F(RestoreTargetTest, RandomStreamsMatchTheModel) {
    const uint32_t extents[] = {1024, 4096, 8192, 65536};
    for (uint32_t seed = 1; seed <= 400; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        std::mt19937 rng(seed);
        model::Setup s;
        s.extentSize = extents[rng() % 4];
        int bitmapMode = rng() % 3;  // off, applied, skipped
        s.bitmapInExtent = bitmapMode != 0;
        s.skipBitmap = bitmapMode == 2;
        int sectorsMode = rng() % 3;  // none, sparse, full
        s.hasSectorsToWrite = sectorsMode != 0;
        for (uint32_t i = 0; i < s.extentSize / s.sectorSize; ++i) s.sectorsToWrite.push_back(sectorsMode == 2 || rng() % 2);
        s.toExisting = rng() % 2;
        if (s.toExisting) {
            s.existingOffset = (rng() % 4) * s.extentSize + (rng() % 2 ? 0 : 512);
            s.initialFile.resize(s.existingOffset + s.extentSize + rng() % 1000);
            for (auto& b : s.initialFile) b = static_cast<uint8_t>(rng());
        }
        ASSERT_NO_FATAL_FAILURE(expectMatchesModel(path, s, randomStream(rng, s)));
    }
}

// Streams the random ones seldom or never make.
TEST_F(RestoreTargetTest, EdgeStreamsMatchTheModel) {
    auto bytes = [](size_t n, uint8_t b) { model::Call c; c.data.assign(n, b); return c; };
    auto hole = [](uint32_t n) { model::Call c; c.hole = true; c.length = n; return c; };
    model::Setup plain, bitmap, existing;
    bitmap.bitmapInExtent = true;
    existing.toExisting = true;
    existing.existingOffset = 4096;
    existing.initialFile.assign(8192, 0xEE);
    model::Call head = bytes(100, 0);
    head.data[0] = 0x80;  // only sector 0 present
    // The bitmap alone; a bitmap completed mid-call, a hole ending inside
    // sector 1; empty calls; an empty hole before a whole-extent hole.
    ASSERT_NO_FATAL_FAILURE(expectMatchesModel(path, bitmap, {bytes(512, 0xFF)}));
    ASSERT_NO_FATAL_FAILURE(expectMatchesModel(path, bitmap, {head, bytes(1000, 0x5A)}));
    ASSERT_NO_FATAL_FAILURE(expectMatchesModel(path, plain, {bytes(0, 1), hole(0)}));
    ASSERT_NO_FATAL_FAILURE(expectMatchesModel(path, existing, {hole(0), hole(4096)}));
}

TEST_F(RestoreTargetTest, SummaryFollowsTheLevelAtConstruction) {
    zxblk::LogSink::setLevel(2);
    CExtentRestoreTarget t(path, 4096, 512, false);
    zxblk::LogSink::setLevel(5);
    zxblk::LogCapture capture;
    EXPECT_FALSE(t.Close(false).IsError());  // without Open: succeeds, closes nothing
    ASSERT_FALSE(t.Open(nullptr).IsError());
    std::vector<uint8_t> d(4096, 1);
    ASSERT_FALSE(t.Write(d.data(), 4096).IsError());
    t.Close(false);
    EXPECT_EQ(t.GetExtentDataSummary(), "");
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(RestoreTargetTest, OpenDispositions) {
    CExtentRestoreTarget missing(path, 4096, 512, false);
    missing.SetRestoreToExistingFileAt(0);
    EXPECT_TRUE(has(missing.Open(nullptr), "Error opening restore target file " + path));
    for (bool update : {false, true}) {  // creating truncates; an update with sectors to write keeps the file
        spit(path, std::vector<uint8_t>(100, 7));
        CExtentRestoreTarget t(path, 4096, 512, update);
        if (update) t.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, true)));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        t.Close(false);
        EXPECT_EQ(slurp(path).size(), update ? 100u : 0u);
    }
}

TEST_F(RestoreTargetTest, OutOfRangeStreamsAreRefusedBeforeWriting) {
    spit(path, std::vector<uint8_t>(4096, 3));
    CExtentRestoreTarget t(path, 2048, 512, false);
    t.SetRestoreToExistingFileAt(0);
    ASSERT_FALSE(t.Open(nullptr).IsError());
    std::vector<uint8_t> d(3000, 9);
    CUxError e = t.Write(d.data(), 3000);
    EXPECT_EQ(e.Win32Code(), 1359u);
    EXPECT_TRUE(has(e, "offset 0 runs past the extent size 2048")) << e.AsString();
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
    std::vector<uint8_t> bm(1024, 0xFF);
    EXPECT_TRUE(has(big.Write(bm.data(), 1024), "hole bitmap covers 4096 sectors"));
    big.Close(false);
    EXPECT_TRUE(slurp(path).empty());

    // A sectors-to-write bitmap shorter than the extent: the sectors past
    // its end are not wanted, neither as data nor as missing sectors.
    spit(path, std::vector<uint8_t>(8192, 5));
    CExtentRestoreTarget narrow(path, 8192, 512, true);  // 16 sectors, a 1-byte bitmap
    narrow.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, true)));
    ASSERT_FALSE(narrow.Open(nullptr).IsError());
    std::vector<uint8_t> six(6 * 512, 6), want(8192, 5);
    EXPECT_FALSE(narrow.Write(six.data(), static_cast<unsigned>(six.size())).IsError());
    EXPECT_FALSE(narrow.WriteHole(10 * 512).IsError());
    narrow.Close(false);
    std::fill(want.begin(), want.begin() + 6 * 512, 6);
    EXPECT_EQ(slurp(path), want);
    std::vector<bool> parents(16, false);
    parents[6] = parents[7] = true;
    EXPECT_EQ(parentOf(narrow, 16), parents);
}

// Failures the kernel reports reach the target only where the file layer
// makes a kernel call: a write after a skipped sector (the run before it goes
// out), a flush after a skip, the positioning at open.
TEST_F(RestoreTargetTest, KernelFailuresCarryTheirPlace) {
    using zxtest::FileCall;
    std::vector<uint8_t> d(2048, 0x44);
    {  // A failed write names the file; the offset stays at the end of the last good chunk.
        CExtentRestoreTarget t(path, 4096, 512, false);
        std::vector<bool> wanted(8, true);
        wanted[2] = false;
        t.SetSectorsToWrite(bitmapOf(wanted));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        zxtest::armFileFault({FileCall::Write, 0, ENOSPC, 0});
        CUxError e = t.Write(d.data(), 2048);
        EXPECT_EQ(t.GetCurrentOffset(), 1536u);
        std::string trace = e.AsString();
        EXPECT_TRUE(has(e, "Error writing to restore target file " + path)) << trace;
        EXPECT_TRUE(has(e, "No space left on device")) << trace;
        size_t data = trace.find("CExtentRestoreTarget::WriteData(const void*, unsigned int)");
        size_t internal = trace.find("CExtentRestoreTarget::WriteInternal(const void*, unsigned int)");
        size_t write = trace.find("virtual CUxError CExtentRestoreTarget::Write(const void*, unsigned int)");
        EXPECT_TRUE(data < internal && internal < write && write != std::string::npos) << trace;
        t.Close(false);
    }
    {  // A failed flush and a failed positioning at open.
        CExtentRestoreTarget t(path, 4096, 512, false);
        t.SetSectorsToWrite(bitmapOf(std::vector<bool>(8, false)));
        ASSERT_FALSE(t.Open(nullptr).IsError());
        ASSERT_FALSE(t.Write(d.data(), 512).IsError());  // skipped
        zxtest::armFileFault({FileCall::Seek, 0, EIO, 0});
        EXPECT_TRUE(has(t.Flush(), "virtual CUxError CExtentRestoreTarget::Flush()"));
        t.Close(false);
        CExtentRestoreTarget at(path, 4096, 512, false);
        at.SetRestoreToExistingFileAt(4096);
        zxtest::armFileFault({FileCall::Seek, 0, EIO, 0});
        EXPECT_TRUE(has(at.Open(nullptr), "CExtentRestoreTarget::Open(void*)"));
    }
    EXPECT_EQ(zxtest::armedFileFaults(), 0);
}

// The stretches of a file that hold data, as the file system reports them.
std::vector<std::pair<off_t, off_t>> dataRanges(const std::string& file) {
    std::vector<std::pair<off_t, off_t>> ranges;
    int fd = open(file.c_str(), O_RDONLY);
    for (off_t at = 0, data; (data = lseek(fd, at, SEEK_DATA)) >= 0;) ranges.emplace_back(data, at = lseek(fd, data, SEEK_HOLE));
    close(fd);
    return ranges;
}

// An extent file is sized and its space reserved before the recall, as the
// read path does; what the stream leaves zero must cost no blocks once the
// file is in the cache, however the zeros came.
TEST_F(RestoreTargetTest, ZeroStretchesStayHolesAfterMoveIn) {
    const uint32_t E = 1 << 20, kData = 64 << 10;
    enum Stream { Nothing, WholeHole, ZeroBytes, DataThenZeros };
    const struct {
        Stream stream;
        bool bySector;  // a sectors-to-write bitmap: the target goes a sector at a time
    } cases[] = {{Nothing, false}, {WholeHole, false}, {WholeHole, true},
                 {ZeroBytes, false}, {ZeroBytes, true}, {DataThenZeros, true}};
    std::string dir = path + ".store";
    std::vector<uint8_t> zeros(E, 0), data(kData, 0x6B);
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.stream) + (c.bySector ? " by sector" : ""));
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
        if (c.stream == DataThenZeros && !(e = t.Write(data.data(), kData)).IsError()) e = t.Write(zeros.data(), E - kData);
        ASSERT_FALSE(e.IsError()) << e.AsString();
        ASSERT_FALSE(t.Flush().IsError());
        t.Close(false);
        ASSERT_FALSE(store.moveInExtentFile(temp, 0).IsError());
        using Ranges = std::vector<std::pair<off_t, off_t>>;
        bool hasData = c.stream == DataThenZeros;
        std::vector<uint8_t> expected(zeros);
        std::fill_n(expected.begin(), hasData ? kData : 0, 0x6B);
        EXPECT_TRUE(slurp(store.extentPath(0)) == expected);
        EXPECT_EQ(dataRanges(store.extentPath(0)), (hasData ? Ranges{{0, kData}} : Ranges{}));
        struct stat st;
        ASSERT_EQ(stat(store.extentPath(0).c_str(), &st), 0);
        EXPECT_EQ(static_cast<off_t>(st.st_blocks) * 512, hasData ? kData : 0);
    }
    std::system(("rm -rf '" + dir + "'").c_str());
}

}  // namespace
