#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "platform/FXFile.h"
#include "read_path/read_fixture.h"

namespace readtest {
namespace {

const long long MiB = 1 << 20;

boost::shared_ptr<CExtentRestoreTarget> targetOf(const zxblk::RecallJob& job) {
    return boost::dynamic_pointer_cast<CExtentRestoreTarget>(job.target);
}

TEST_F(ReadPathTest, NeverConnectedThrows) {
    ZxBlkVhd d("disk", "C:\\vm\\disk.vhd");
    long len = 1;
    unsigned char* buf = new unsigned char(0);
    try {
        d.readData(&d, 0, &len, &buf);
        FAIL() << "no exception";
    } catch (const ZxException& e) {
        EXPECT_EQ(e.Message(), "C:\\vm\\disk.vhd cannot read: need state 1, curr(0)");
        EXPECT_EQ(e.Function(), "ZxBlkVhd::readData");
        EXPECT_EQ(e.Line(), 378);
        EXPECT_EQ(e.File(), "zxblk_vhd");
        EXPECT_EQ(e.Code(), -1);
    }
    delete buf;
}

TEST_F(ReadPathTest, InvalidArgumentsAreRefused) {
    ZxBlkVhd& d = makeDisk({{"/c0", 0, 7}}, MiB);
    zxblk::LogCapture capture;
    long len = 1;
    unsigned char* none = nullptr;
    EXPECT_FALSE(d.readData(&d, 0, &len, &none));
    EXPECT_FALSE(d.readData(nullptr, 0, &len, &none));
    EXPECT_EQ(capture.texts("ZxBlkVhd::readData").size(), 2u);
    EXPECT_EQ(capture.texts("ZxBlkVhd::readData")[0], "invalid arguments pDisk or buff\n");
}

TEST_F(ReadPathTest, OneCopyExtentPerDiskExtent) {
    std::mt19937 rng(1);
    ZxBlkVhd& d = makeDisk({{"/c0", 0, 7}}, MiB);
    Bytes data = randomBytes(rng, MiB);
    hold("/c0", 3, {data, {}, {}});
    zxblk::LogCapture capture;
    long len = 4096;
    unsigned char* buf = new unsigned char(0);
    ASSERT_TRUE(d.readData(&d, 3 * MiB, &len, &buf));
    EXPECT_EQ(len, MiB);
    EXPECT_EQ(buf, nullptr);
    EXPECT_EQ(slurp(store->extentPath(3)), data);
    EXPECT_TRUE(tempFiles().empty());
    auto jobs = restore->jobs();
    ASSERT_EQ(jobs.size(), 1u);
    EXPECT_EQ(jobs[0].srcPath, "1:2:0:1003:2003:1:11:/c0/Extent3");
    EXPECT_EQ(jobs[0].restoreOptions, 0x800000u);
    EXPECT_TRUE(jobs[0].fileExtentRequest);
    EXPECT_EQ(jobs[0].destPath.rfind(dir + "/tmp/", 0), 0u);
    EXPECT_EQ(jobs[0].seekFlags, 0x8000u);  // mounting
    auto t = targetOf(jobs[0]);
    EXPECT_TRUE(t->IsRestoreToExistingFile());
    EXPECT_EQ(t->GetExistingFileOffset(), 0u);
    EXPECT_EQ(t->GetExtentNumber(), 3u);
    EXPECT_EQ(t->GetSrcPath(), "/c0/Extent3");
    EXPECT_FALSE(t->IsBitmapInExtent());
    EXPECT_EQ(d.mountExtentList, std::vector<unsigned>{3});
    auto lines = capture.texts("ZxBlkVhd::readData");
    EXPECT_EQ(lines.front(),
              "Extent browse. offsetSectors:3145728, buff_len:4096, vhd_offset_byte:3145728, vhd_offset_mb:3, "
              "restore_file_offset_byte:0.\n");
    EXPECT_TRUE(capture.contains("all data recalled"));
    EXPECT_EQ(capture.texts("CreateDMRMetaData"),
              std::vector<std::string>{"meta_data [1:2:0:1003:2003:1:11:/c0/Extent3] for [/c0/Extent3]."});
}

TEST_F(ReadPathTest, FourCopyExtentsMakeOneDiskExtent) {
    std::mt19937 rng(2);
    const long long C = 256 * 1024;
    ZxBlkVhd& d = makeDisk({{"/c0", C, 7}}, 4 * C);
    Bytes expected;
    for (unsigned k = 8; k < 12; ++k) {  // disk extent 2 = copy extents 8..11
        Bytes part = randomBytes(rng, C);
        expected.insert(expected.end(), part.begin(), part.end());
        hold("/c0", k, {part, {}, {}});
    }
    ASSERT_TRUE(read(d, 2 * 4 * C));
    EXPECT_EQ(slurp(store->extentPath(2)), expected);
    auto jobs = restore->jobs();
    ASSERT_EQ(jobs.size(), 4u);
    for (unsigned i = 0; i < 4; ++i) {
        EXPECT_EQ(targetOf(jobs[i])->GetExistingFileOffset(), i * C);
        EXPECT_EQ(targetOf(jobs[i])->GetExtentNumber(), 8u);  // the first copy extent, for every piece
        EXPECT_EQ(pathOfMetadata(jobs[i].srcPath), "/c0/Extent" + std::to_string(8 + i));
    }
    EXPECT_EQ(d.mountExtentList, (std::vector<unsigned>{8, 8, 8, 8}));
}

TEST_F(ReadPathTest, MissingExtentsBecomeZeros) {
    // A copy extent larger than the disk extent (n = 0): nothing is looked up.
    ZxBlkVhd& wide = makeDisk({{"/wide", 4 * MiB, 7}}, MiB);
    ASSERT_TRUE(read(wide, 0));
    EXPECT_TRUE(lookup->lookups.empty());
    EXPECT_EQ(slurp(store->extentPath(0)), Bytes(MiB, 0));

    // Every copy answers "not here".
    ZxBlkVhd& none = makeDisk({{"/a", 0, 13}, {"/b", 0, 7}}, MiB);
    ASSERT_TRUE(read(none, 5 * MiB));
    EXPECT_EQ(slurp(store->extentPath(5)), Bytes(MiB, 0));
    EXPECT_EQ(lookup->lookups.size(), 2u);

    // No copies at all, and a copy whose extent length is not positive.
    ZxBlkVhd& empty = makeDisk({}, MiB);
    ASSERT_TRUE(read(empty, 6 * MiB));
    EXPECT_EQ(slurp(store->extentPath(6)), Bytes(MiB, 0));
    zxblk::LogCapture capture;
    ZxBlkVhd& bad = makeDisk({{"/bad", 512, 14}}, MiB);
    ASSERT_TRUE(read(bad, 7 * MiB));
    EXPECT_EQ(slurp(store->extentPath(7)), Bytes(MiB, 0));
    EXPECT_TRUE(capture.contains("copy /bad has extent length 0; skipped"));
    EXPECT_TRUE(restore->jobs().empty());
    EXPECT_TRUE(tempFiles().empty());
}

TEST_F(ReadPathTest, NewestCopyMissingOlderHolding) {
    std::mt19937 rng(3);
    ZxBlkVhd& d = makeDisk({{"/old", 0, 7}, {"/new", 0, 7}}, MiB);
    Bytes data = randomBytes(rng, MiB);
    hold("/old", 1, {data, {}, {}});
    zxblk::LogCapture capture;
    ASSERT_TRUE(read(d, MiB));
    EXPECT_EQ(slurp(store->extentPath(1)), data);
    EXPECT_EQ(lookup->lookups, (std::vector<std::pair<std::string, unsigned long long>>{{"/new", 1}, {"/old", 1}}));
    int sizings = 0;
    for (auto& l : capture.lines()) sizings += l.text.rfind("sizing temp file", 0) == 0;
    EXPECT_EQ(sizings, 1);  // one temporary file for the whole walk
    EXPECT_TRUE(capture.contains(
        "Extent is not found in current disk snapshot and may be found in next snapshot. Move to next extent."));
}

TEST_F(ReadPathTest, DiskTypesSetTheBitmapFlags) {
    std::mt19937 rng(4);
    Bytes full(512, 0xFF);
    ZxBlkVhd& d13 = makeDisk({{"/t13", 0, 13}}, MiB);
    hold("/t13", 0, {randomBytes(rng, MiB), full, {}});
    ZxBlkVhd& d14 = makeDisk({{"/t14", MiB + 512, 14}}, MiB);
    hold("/t14", 0, {randomBytes(rng, MiB), full, {}});
    ZxBlkVhd& d9 = makeDisk({{"/t9", 0, 9}}, MiB);
    hold("/t9", 0, {randomBytes(rng, MiB), {}, {}});
    ASSERT_TRUE(read(d13, 0));
    ASSERT_TRUE(read(d14, 0));
    ASSERT_TRUE(read(d9, 0));
    auto jobs = restore->jobs();
    ASSERT_EQ(jobs.size(), 3u);
    EXPECT_TRUE(targetOf(jobs[0])->IsBitmapInExtent() && targetOf(jobs[0])->IsSkipBitmapInExtent());
    EXPECT_TRUE(targetOf(jobs[1])->IsBitmapInExtent() && !targetOf(jobs[1])->IsSkipBitmapInExtent());
    EXPECT_TRUE(!targetOf(jobs[2])->IsBitmapInExtent() && !targetOf(jobs[2])->IsSkipBitmapInExtent());
}

TEST_F(ReadPathTest, FailuresOfLookupSubmissionRecallAndTimeOut) {
    std::mt19937 rng(5);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    zxblk::LogCapture capture;
    lookup->answers[{"/c", 0}] = zxtest::LookupAnswer{-5, 0, 0};
    EXPECT_FALSE(read(d, 0));
    EXPECT_TRUE(capture.contains("Browse fails. GetAFInfo() result:-5\n"));

    hold("/c", 1, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent1"].extra.refuse = true;
    EXPECT_FALSE(read(d, MiB));
    EXPECT_TRUE(capture.contains("Failed to submit DMR restore request."));

    hold("/c", 2, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent2"].extra.status = 9;  // the service reports the recall failed
    EXPECT_FALSE(read(d, 2 * MiB));
    EXPECT_TRUE(capture.contains("recall of /c/Extent2 failed: scripted failure"));

    ZxEventH::SetWaitDivisorForTests(3000);  // the five-minute wait lasts 100 ms
    hold("/c", 3, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent3"].extra.neverComplete = true;
    EXPECT_FALSE(read(d, 3 * MiB));
    EXPECT_TRUE(capture.contains("BrowseVHD /c/Extent3 timeout."));
    for (long long e = 0; e < 4; ++e) EXPECT_FALSE(store->hasExtent(e));
    restore->waitIdle();
    // Each failed read leaves its temporary file for the host to clear.
    EXPECT_EQ(tempFiles().size(), 4u);
    store->discardTemporary();
    EXPECT_EQ(tempFiles().size(), 3u);
}

TEST_F(ReadPathTest, StaleCompletionDoesNotEndALaterWait) {
    std::mt19937 rng(6);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    ZxEventH::SetWaitDivisorForTests(300);  // 1 s
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent0"].extra.waitForGate = true;  // completes only when released
    EXPECT_FALSE(read(d, 0));                          // times out
    Bytes data = randomBytes(rng, MiB);
    hold("/c", 1, {data, {}, {}});
    extents["/c/Extent1"].extra.delayBeforeMs = 400;  // its stream starts late
    zxblk::LogCapture capture;
    std::thread releaser([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        restore->releaseGate();  // the old recall completes during the new wait
    });
    EXPECT_TRUE(read(d, MiB));
    releaser.join();
    EXPECT_EQ(slurp(store->extentPath(1)), data);  // woken by its own completion, not the stale one
    restore->waitIdle();
    EXPECT_TRUE(capture.contains("ignoring stale completion of recall 1"));
}

TEST_F(ReadPathTest, MoveInFailureStillReturnsTrue) {
    std::mt19937 rng(7);
    store->setCapacity(MiB / 2);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    zxblk::LogCapture capture;
    EXPECT_TRUE(read(d, 0));
    EXPECT_FALSE(store->hasExtent(0));
    EXPECT_TRUE(tempFiles().empty());
    EXPECT_TRUE(capture.contains("Cache Full. Cannot move in additional extents!"));
}

TEST_F(ReadPathTest, SeekFlagsOnlyWhileMountingOrIdentifyingAndKept) {
    std::mt19937 rng(8);
    ZxBlkVhd& idle = makeDisk({{"/c", 0, 7}}, MiB);
    idle.mountComplete = 1;
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    ASSERT_TRUE(read(idle, 0));
    EXPECT_FALSE(idle.dmrRequest.SeekFlagsWereSet());
    idle.metadataPhase = 1;
    ASSERT_TRUE(read(idle, 0));
    EXPECT_EQ(idle.dmrRequest.GetSeekFlags(), 0x8000u);
    idle.metadataPhase = 0;
    ASSERT_TRUE(read(idle, 0));
    EXPECT_EQ(idle.dmrRequest.GetSeekFlags(), 0x8000u);  // kept from the earlier recall
    EXPECT_EQ(restore->jobs().back().seekFlags, 0x8000u);
}

// Builds the MSB-first sector bitmap of a copy extent.
Bytes bitmapOf(const std::vector<bool>& present) {
    Bytes b(512, 0);
    for (size_t s = 0; s < present.size(); ++s)
        if (present[s]) b[s / 8] |= static_cast<unsigned char>(0x80u >> (s % 8));
    return b;
}

TEST_F(ReadPathTest, DifferencingChainReadsAsTheMergedDisk) {
    const long long E = 256 * 1024;  // 512 sectors
    const unsigned sectors = E / 512;
    for (int seed = 0; seed < 6; ++seed) {
        std::mt19937 rng(100 + seed);
        disks.clear();
        {
            std::lock_guard<std::mutex> lock(extentsMutex);
            extents.clear();
        }
        lookup->answers.clear();
        // base (dynamic), two differencing children; oldest first.
        std::vector<std::string> names = {"/base" + std::to_string(seed), "/diff1-" + std::to_string(seed),
                                          "/diff2-" + std::to_string(seed)};
        ZxBlkVhd& d = makeDisk({{names[0], E, 13}, {names[1], E + 512, 14}, {names[2], E + 512, 14}}, E);
        for (unsigned k = 0; k < 4; ++k) {
            Bytes merged(E, 0);
            for (size_t c = 0; c < names.size(); ++c) {
                if (rng() % 4 == 0) continue;  // this copy does not hold the extent at all
                Bytes data = randomBytes(rng, E);
                std::vector<bool> present(sectors);
                for (unsigned s = 0; s < sectors; ++s) present[s] = c == 0 ? true : rng() % 3 == 0;
                for (unsigned s = 0; s < sectors; ++s)
                    if (present[s]) std::copy(data.begin() + s * 512, data.begin() + (s + 1) * 512, merged.begin() + s * 512);
                hold(names[c], k, {data, bitmapOf(present), {}});
            }
            chunk = 1000 + rng() % 70000;  // odd chunk sizes split sectors between writes
            ASSERT_TRUE(read(d, k * E));
            ASSERT_EQ(slurp(store->extentPath(k)), merged) << "seed " << seed << " extent " << k;
        }
    }
}

// A differencing copy added without an extent size works with extents of
// 2,047 sectors and a sectors bitmap of 2,040: the sectors past the bitmap
// are not wanted from it, and the copy beneath supplies them.
TEST_F(ReadPathTest, DifferencingCopyWithoutExtentSizeReadsAsTheMergedDisk) {
    const long long E = 1 << 20, C = E - 512;
    std::mt19937 rng(9);
    ZxBlkVhd& d = makeDisk({{"/base", E, 13}, {"/diff", 0, 14}}, E);
    Bytes base = randomBytes(rng, E), diff = randomBytes(rng, C), merged = base;
    std::vector<bool> present(4096);
    for (unsigned s = 0; s < 2040; ++s) present[s] = rng() % 3 == 0;
    for (unsigned s = 0; s < 2040; ++s)
        if (present[s]) std::copy(diff.begin() + s * 512, diff.begin() + (s + 1) * 512, merged.begin() + s * 512);
    hold("/base", 0, {base, bitmapOf(std::vector<bool>(4096, true)), {}});
    hold("/diff", 0, {diff, bitmapOf(present), {}});
    ASSERT_TRUE(read(d, 0));
    EXPECT_TRUE(slurp(store->extentPath(0)) == merged);
}

// A full disk fails a read before anything is recalled; a write that the
// disk refuses only when the buffered bytes finally go out fails the recall.
// Either way nothing is moved in and no temporary file stays. Extents of
// zeros, recalled or held by no copy, take no blocks in the cache.
TEST_F(ReadPathTest, FullDisksFailEarlyAndZeroExtentsStayHoles) {
    std::mt19937 rng(10);
    store->setExtentSize(MiB);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    hold("/c", 1, {Bytes(MiB, 0), {}, {}});
    zxblk::LogCapture capture;
    auto logged = [&](const std::string& a, const std::string& b) {
        for (auto& l : capture.lines())
            if (l.text.find(a) != std::string::npos && l.text.find(b) != std::string::npos) return true;
        return false;
    };
    zxblk::armFileFault({zxblk::FileOp::Reserve, 0, ENOSPC, 0});
    EXPECT_FALSE(read(d, 0));
    EXPECT_TRUE(restore->jobs().empty());
    EXPECT_TRUE(logged("Unable to reserve 1048576 bytes for temp file " + dir + "/tmp/", "No space left on device"));
    zxblk::armFileFault({zxblk::FileOp::Commit, 0, ENOSPC, 0});
    EXPECT_FALSE(read(d, 0));
    EXPECT_EQ(restore->jobs().size(), 1u);
    EXPECT_TRUE(logged("recall of /c/Extent0 failed: ", "No space left on device"));
    zxblk::clearFileFaults();
    EXPECT_FALSE(store->hasExtent(0));
    restore->waitIdle();
    EXPECT_EQ(tempFiles().size(), 2u);  // left for the host to clear

    for (long long e : {1, 2}) {  // extent 2 is held by no copy
        ASSERT_TRUE(read(d, e * MiB));
        std::string file = store->extentPath(e);
        EXPECT_EQ(slurp(file), Bytes(MiB, 0));
        struct stat st;
        ASSERT_EQ(stat(file.c_str(), &st), 0);
        EXPECT_EQ(st.st_blocks, 0) << "extent " << e;
        int fd = open(file.c_str(), O_RDONLY);
        EXPECT_EQ(lseek(fd, 0, SEEK_DATA), -1);
        EXPECT_EQ(errno, ENXIO);
        close(fd);
    }
}

}  // namespace
}  // namespace readtest
