#include <fcntl.h>
#include <sys/stat.h>

#include <thread>

#include "read_path/read_fixture.h"
#include "support/short_waits.h"
#include "support/fault_file_calls.h"

namespace readtest {
namespace {

const long long MiB = 1 << 20;

boost::shared_ptr<CExtentRestoreTarget> targetOf(const zxblk::RecallJob& job) {
    return boost::dynamic_pointer_cast<CExtentRestoreTarget>(job.target);
}

// Builds the MSB-first sector bitmap of a copy extent.
Bytes bitmapOf(const std::vector<bool>& present) {
    Bytes b(512, 0);
    for (size_t s = 0; s < present.size(); ++s)
        if (present[s]) b[s / 8] |= static_cast<unsigned char>(0x80u >> (s % 8));
    return b;
}

// `merged` with the sectors of `data` that `present` marks laid over it.
void overlay(Bytes& merged, const Bytes& data, const std::vector<bool>& present) {
    for (size_t s = 0; s < present.size() && (s + 1) * 512 <= data.size(); ++s)
        if (present[s]) std::copy(data.begin() + s * 512, data.begin() + (s + 1) * 512, merged.begin() + s * 512);
}

TEST_F(ReadPathTest, RefusesANeverConnectedDiskAndMissingArguments) {
    ZxBlkVhd d("disk", "C:\\vm\\disk.vhd");
    long len = 1;
    unsigned char* buf = new unsigned char(0);
    EXPECT_THROW(d.readData(&d, 0, &len, &buf), ZxException);
    delete buf;
    ZxBlkVhd& connected = makeDisk({{"/c0", 0, 7}}, MiB);
    unsigned char* none = nullptr;
    EXPECT_FALSE(connected.readData(&connected, 0, &len, &none));
    EXPECT_FALSE(connected.readData(nullptr, 0, &len, &none));
}

TEST_F(ReadPathTest, OneCopyExtentPerDiskExtent) {
    std::mt19937 rng(1);
    ZxBlkVhd& d = makeDisk({{"/c0", 0, 7}}, MiB);
    Bytes data = randomBytes(rng, MiB);
    hold("/c0", 3, {data, {}, {}});
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
    // A copy extent larger than the disk extent: nothing is looked up.
    ZxBlkVhd& wide = makeDisk({{"/wide", 4 * MiB, 7}}, MiB);
    ASSERT_TRUE(read(wide, 0));
    EXPECT_TRUE(lookup->lookups.empty());
    // Every copy answers "not here".
    ZxBlkVhd& none = makeDisk({{"/a", 0, 13}, {"/b", 0, 7}}, MiB);
    ASSERT_TRUE(read(none, 5 * MiB));
    EXPECT_EQ(lookup->lookups.size(), 2u);
    // No copies at all, and a copy whose extent length is not positive.
    ASSERT_TRUE(read(makeDisk({}, MiB), 6 * MiB));
    ASSERT_TRUE(read(makeDisk({{"/bad", 512, 14}}, MiB), 7 * MiB));
    for (long long e : {0, 5, 6, 7}) EXPECT_EQ(slurp(store->extentPath(e)), Bytes(MiB, 0)) << e;
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
}

TEST_F(ReadPathTest, DiskTypesSetTheBitmapFlags) {
    std::mt19937 rng(4);
    const struct {
        const char* path;
        long long storedExtentSize;
        unsigned long type;
        bool bitmap, inExtent, skip;
    } cases[] = {{"/t13", 0, 13, true, true, true}, {"/t14", MiB + 512, 14, true, true, false}, {"/t9", 0, 9, false, false, false}};
    for (const auto& c : cases) {
        ZxBlkVhd& d = makeDisk({{c.path, c.storedExtentSize, c.type}}, MiB);
        hold(c.path, 0, {randomBytes(rng, MiB), c.bitmap ? Bytes(512, 0xFF) : Bytes(), {}});
        ASSERT_TRUE(read(d, 0));
        auto t = targetOf(restore->jobs().back());
        EXPECT_EQ(t->IsBitmapInExtent(), c.inExtent) << c.path;
        EXPECT_EQ(t->IsSkipBitmapInExtent(), c.skip) << c.path;
    }
}

TEST_F(ReadPathTest, FailuresOfLookupSubmissionRecallAndTimeOut) {
    std::mt19937 rng(5);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    zxblk::LogCapture capture;
    lookup->answers[{"/c", 0}] = zxtest::LookupAnswer{-5, 0, 0};
    EXPECT_FALSE(read(d, 0));
    for (unsigned k = 1; k < 4; ++k) hold("/c", k, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent1"].extra.refuse = true;
    EXPECT_FALSE(read(d, MiB));
    extents["/c/Extent2"].extra.status = 9;  // the service reports the recall failed
    EXPECT_FALSE(read(d, 2 * MiB));
    EXPECT_TRUE(capture.contains("recall of /c/Extent2 failed: scripted failure"));
    zxtest::ShortWaits quick(3000);  // the five-minute wait lasts 100 ms
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
    zxtest::ShortWaits quick(300);  // 1 s
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    extents["/c/Extent0"].extra.waitForGate = true;  // completes only when released
    EXPECT_FALSE(read(d, 0));                          // times out
    Bytes data = randomBytes(rng, MiB);
    hold("/c", 1, {data, {}, {}});
    extents["/c/Extent1"].extra.delayBeforeMs = 400;  // its stream starts late
    std::thread releaser([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        restore->releaseGate();  // the old recall completes during the new wait
    });
    EXPECT_TRUE(read(d, MiB));
    releaser.join();
    EXPECT_EQ(slurp(store->extentPath(1)), data);  // woken by its own completion, not the stale one
    restore->waitIdle();
}

TEST_F(ReadPathTest, MoveInFailureStillReturnsTrue) {
    std::mt19937 rng(7);
    store->setCapacity(MiB / 2);
    ZxBlkVhd& d = makeDisk({{"/c", 0, 7}}, MiB);
    hold("/c", 0, {randomBytes(rng, MiB), {}, {}});
    EXPECT_TRUE(read(d, 0));
    EXPECT_FALSE(store->hasExtent(0));
    EXPECT_TRUE(tempFiles().empty());
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
    EXPECT_EQ(restore->jobs().back().seekFlags, 0x8000u);  // kept from the earlier recall
}

TEST_F(ReadPathTest, DifferencingChainReadsAsTheMergedDisk) {
    const long long E = 256 * 1024;  // 512 sectors
    for (int seed = 0; seed < 6; ++seed) {
        std::mt19937 rng(100 + seed);
        // base (dynamic), two differencing children; oldest first.
        const std::string s = std::to_string(seed);
        std::vector<std::string> names = {"/base" + s, "/diff1-" + s, "/diff2-" + s};
        ZxBlkVhd& d = makeDisk({{names[0], E, 13}, {names[1], E + 512, 14}, {names[2], E + 512, 14}}, E);
        for (unsigned k = 0; k < 4; ++k) {
            Bytes merged(E, 0);
            for (size_t c = 0; c < names.size(); ++c) {
                if (rng() % 4 == 0) continue;  // this copy does not hold the extent at all
                Bytes data = randomBytes(rng, E);
                std::vector<bool> present(E / 512);
                for (size_t s = 0; s < present.size(); ++s) present[s] = c == 0 || rng() % 3 == 0;
                overlay(merged, data, present);
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
    std::mt19937 rng(9);
    ZxBlkVhd& d = makeDisk({{"/base", MiB, 13}, {"/diff", 0, 14}}, MiB);
    Bytes base = randomBytes(rng, MiB), diff = randomBytes(rng, MiB - 512), merged = base;
    std::vector<bool> present(4096);
    for (unsigned s = 0; s < 2040; ++s) present[s] = rng() % 3 == 0;
    overlay(merged, diff, present);
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
    zxtest::armFileFault({zxtest::FileCall::Allocate, 0, ENOSPC, 0});
    EXPECT_FALSE(read(d, 0));
    EXPECT_TRUE(restore->jobs().empty());
    zxtest::armFileFault({zxtest::FileCall::Write, 0, ENOSPC, 0});
    EXPECT_FALSE(read(d, 0));
    EXPECT_EQ(restore->jobs().size(), 1u);
    zxtest::clearFileFaults();
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
        close(fd);
    }
}

}  // namespace
}  // namespace readtest
