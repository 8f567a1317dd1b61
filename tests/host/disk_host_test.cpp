// DiskHost over a real store made from the test VHD writer: every byte read
// is checked against the disk the writer's plan says each snapshot presents.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <numeric>
#include <random>
#include <set>
#include <thread>

#include "host/disk_host.h"
#include "platform/ZXPlatformInfo.h"
#include "store/importer.h"
#include "store/storage.h"
#include "store/store_error.h"
#include "support/vhd_writer.h"

namespace {

namespace fs = std::filesystem;
const uint64_t E = 65536;  // small extents keep every test quick, also under the sanitizers

// Reads a range into a buffer filled with a marker first: the bytes inside the
// disk must be the expected ones and nothing past its end may be written.
testing::AssertionResult readMatches(zxblk::DiskHost& host, const vhdtest::Bytes& merged, uint64_t offset,
                                     uint64_t length) {
    vhdtest::Bytes buf(length, 0xEE);
    try {
        host.read(offset, length, buf.data());
    } catch (const std::exception& e) {
        return testing::AssertionFailure() << "read(" << offset << ", " << length << "): " << e.what();
    }
    uint64_t inside = offset >= merged.size() ? 0 : std::min<uint64_t>(length, merged.size() - offset);
    auto bad = std::mismatch(buf.begin(), buf.begin() + inside, merged.begin() + offset);
    if (bad.first != buf.begin() + inside)
        return testing::AssertionFailure() << "read(" << offset << ", " << length << ") differs at disk byte "
                                           << offset + (bad.first - buf.begin());
    if (!std::all_of(buf.begin() + inside, buf.end(), [](uint8_t b) { return b == 0xEE; }))
        return testing::AssertionFailure() << "read(" << offset << ", " << length << ") wrote past the disk end";
    return testing::AssertionSuccess();
}

std::set<long long> cached(zxblk::DiskHost& host) {
    std::vector<long long> v = host.cache().extents();
    return std::set<long long>(v.begin(), v.end());
}

template <class F>
std::string errorOf(F f) {
    try {
        f();
    } catch (const zxblk::StoreError& e) {
        return e.what();
    }
    return "(no StoreError)";
}

// The index rows of one disk, read with plain SQL rather than through the service.
std::set<std::string> indexRows(const std::string& db, const std::string& disk) {
    std::set<std::string> out;
    sqlite3* h = nullptr;
    if (sqlite3_open_v2(db.c_str(), &h, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        sqlite3_close(h);
        return {"cannot open " + db};
    }
    sqlite3_stmt* q = nullptr;
    sqlite3_prepare_v2(h, "SELECT disk_id, snapshot, extent, kind, reports FROM extent_flags WHERE disk = ?1", -1, &q,
                       nullptr);
    sqlite3_bind_text(q, 1, disk.c_str(), -1, SQLITE_TRANSIENT);
    while (q && sqlite3_step(q) == SQLITE_ROW)
        out.insert("id" + std::to_string(sqlite3_column_int64(q, 0)) + " snap" +
                   std::to_string(sqlite3_column_int64(q, 1)) + " extent" +
                   std::to_string(sqlite3_column_int64(q, 2)) + " " +
                   reinterpret_cast<const char*>(sqlite3_column_text(q, 3)) + " x" +
                   std::to_string(sqlite3_column_int64(q, 4)));
    sqlite3_finalize(q);
    sqlite3_close(h);
    return out;
}

void writeFile(const std::string& path) { std::ofstream(path) << "left over"; }

// Bytes allocated under a folder, as du counts them.
uint64_t du(const std::string& dir) {
    FILE* p = ::popen(("du -s -B1 '" + dir + "'").c_str(), "r");
    unsigned long long bytes = 0;
    if (p && std::fscanf(p, "%llu", &bytes) != 1) bytes = 0;
    if (p) ::pclose(p);
    return bytes;
}

class DiskHostTest : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = std::string(testing::TempDir()) + "diskhost_XXXXXX";
        std::vector<char> name(pattern.begin(), pattern.end());
        name.push_back('\0');
        ASSERT_NE(::mkdtemp(name.data()), nullptr);
        dir = name.data();
        fs::create_directories(dir + "/src");
        vhdtest::ChainPlan plan;
        plan.size = (3 << 20) + 77 * 512;  // the last extent runs past the disk end
        plan.blockSize = 1 << 19;
        plan.children = 3;  // the last one is imported later by the test that needs it
        plan.seed = 71;
        snaps = vhdtest::writeChain(dir + "/src", plan);
        importOptions.extentSize = static_cast<int64_t>(E);
        zxblk::importImages(*zxblk::openFolderStorage(store()), "d", {snaps[0].vhd, snaps[1].vhd, snaps[2].vhd}, importOptions);
    }
    void TearDown() override { fs::remove_all(dir); }

    std::string store() const { return dir + "/store"; }
    // The store as it is now: a host opened after an import sees it.
    std::shared_ptr<zxblk::StoreServices> services() const {
        return zxblk::StoreServices::open(zxblk::openFolderStorage(store()));
    }
    uint64_t size() const { return snaps[0].merged.size(); }
    uint64_t extentCount() const { return (size() + E - 1) / E; }
    zxblk::HostOptions options(const std::string& cache, unsigned long long limit = 0, int snapshot = -1) const {
        zxblk::HostOptions o;
        o.disk = "d";
        o.snapshot = snapshot;
        o.cacheDir = cache;
        o.cacheLimit = limit;
        return o;
    }

    std::string dir;
    std::vector<vhdtest::Snapshot> snaps;
    zxblk::ImportSettings importOptions;
};

TEST_F(DiskHostTest, ReadsMatchTheMergedDiskAtAnyOffsetAndSnapshot) {
    ASSERT_NE(size() % E, 0u);
    ASSERT_NE(snaps[0].merged, snaps[2].merged);  // a read of the wrong snapshot shows
    const uint64_t n = size();
    const std::pair<uint64_t, uint64_t> ranges[] = {
        {0, 1},         {E - 1, 2},   {3 * E - 100, 2 * E + 333}, {12345, 200001}, {7 * E + 511, 513},
        {n - 70000, 70000}, {n - 5, 100}, {n, 10},                    {n + E, 1},      {0, n},
    };
    for (int snapshot : {-1, 0}) {
        const int expected = snapshot < 0 ? 2 : snapshot;
        zxblk::DiskHost host(services(), options(dir + "/cache" + std::to_string(expected), 0, snapshot));
        EXPECT_EQ(host.snapshot(), expected);
        EXPECT_EQ(host.size(), n);
        EXPECT_EQ(host.extentSize(), static_cast<int64_t>(E));
        for (const auto& r : ranges)
            EXPECT_TRUE(readMatches(host, snaps[expected].merged, r.first, r.second)) << "snapshot " << expected;
        EXPECT_EQ(host.stats().readErrors, 0u);
    }
}

TEST_F(DiskHostTest, CacheKeepsTheMostRecentlyUsedExtentsWithinItsLimit) {
    const vhdtest::Bytes& merged = snaps[2].merged;
    {
        zxblk::DiskHost host(services(), options(dir + "/lru", 3 * E));
        auto use = [&](uint64_t e) { EXPECT_TRUE(readMatches(host, merged, e * E + 100, 10)) << "extent " << e; };
        for (uint64_t e : {0, 1, 2}) use(e);
        EXPECT_EQ(cached(host), (std::set<long long>{0, 1, 2}));
        EXPECT_EQ(host.stats().evictions, 0u);
        use(0);  // 1 is now the least recently used
        use(3);
        EXPECT_EQ(cached(host), (std::set<long long>{0, 2, 3}));
        use(4);
        EXPECT_EQ(cached(host), (std::set<long long>{0, 3, 4}));
        EXPECT_EQ(host.stats().evictions, 2u);
        host.forget(3);  // leaves room for one more without an eviction
        use(5);
        EXPECT_EQ(cached(host), (std::set<long long>{0, 4, 5}));
        EXPECT_EQ(host.stats().evictions, 2u);
        EXPECT_EQ(host.stats().extentsRecalled, 6u);
    }
    {
        // The whole disk through a cache of two extents, in pieces that straddle extents.
        zxblk::DiskHost host(services(), options(dir + "/tiny", 2 * E));
        vhdtest::Bytes all(size());
        for (uint64_t at = 0; at < all.size(); at += 100003) {
            host.read(at, std::min<uint64_t>(100003, all.size() - at), all.data() + at);
            ASSERT_LE(host.cache().usedBytes(), 2 * E) << "after reading at " << at;
        }
        EXPECT_TRUE(all == merged);
        EXPECT_EQ(host.stats().extentsRecalled, extentCount());  // each one once: reads go forward
        EXPECT_EQ(host.stats().evictions, extentCount() - 2);
        EXPECT_EQ(host.stats().readErrors, 0u);
    }
    std::string why = errorOf([&] { zxblk::DiskHost host(services(), options(dir + "/none", E - 1)); });
    EXPECT_NE(why.find("cache limit of 65535 bytes holds no extent"), std::string::npos) << why;
}

TEST_F(DiskHostTest, ConcurrentReadersGetExactBytesWithASmallCache) {
    const vhdtest::Bytes& merged = snaps[2].merged;
    // Four extents: each reader pins at most one, so a move-in always finds one to evict.
    zxblk::DiskHost host(services(), options(dir + "/cache", 4 * E));
    std::atomic<int> wrong{0};
    std::mutex firstMutex;
    std::string first;  // the first wrong read, for the failure message
    std::vector<std::thread> readers;
    for (unsigned t = 0; t < 4; ++t)
        readers.emplace_back([&, t] {
            std::mt19937 rng(100 + t);
            const uint64_t quarter = merged.size() / 4;
            for (int i = 0; i < 40; ++i) {
                // Every other read stays in this reader's quarter; the rest go anywhere and overlap.
                uint64_t offset = i % 2 ? t * quarter + rng() % quarter : rng() % merged.size();
                uint64_t length = 1 + rng() % (2 * E + 1000);
                testing::AssertionResult r = readMatches(host, merged, offset, length);
                if (r) continue;
                std::lock_guard<std::mutex> lock(firstMutex);
                if (wrong++ == 0) first = r.message();
            }
        });
    for (std::thread& r : readers) r.join();
    EXPECT_EQ(wrong.load(), 0) << first;
    EXPECT_EQ(host.stats().readErrors, 0u);
    EXPECT_GT(host.stats().evictions, 0u);  // the cache really was too small for the readers
    EXPECT_LE(host.cache().usedBytes(), 4 * E);
}

TEST_F(DiskHostTest, RestartReusesTheCacheUntilTheSnapshotListChanges) {
    const std::string cache = dir + "/cache";
    const unsigned long long roomy = 64 * E;  // the whole disk fits
    {
        zxblk::DiskHost host(services(), options(cache, roomy));
        EXPECT_TRUE(readMatches(host, snaps[2].merged, 0, size()));
        EXPECT_GT(host.services().stats().jobs, 0u);
    }
    writeFile(cache + "/tmp/recall-stale");  // as a run that did not end cleanly leaves it
    {
        zxblk::DiskHost host(services(), options(cache, roomy));
        EXPECT_FALSE(fs::exists(cache + "/tmp/recall-stale"));
        EXPECT_EQ(host.cache().extents().size(), extentCount());
        EXPECT_TRUE(readMatches(host, snaps[2].merged, 0, size()));
        EXPECT_EQ(host.services().stats().jobs, 0u);
        EXPECT_EQ(host.stats().extentsRecalled, 0u);
    }
    {
        // A smaller limit than last time trims what the previous run left.
        zxblk::DiskHost host(services(), options(cache, 3 * E));
        EXPECT_EQ(host.cache().extents().size(), 3u);
        EXPECT_EQ(host.stats().evictions, extentCount() - 3);
        EXPECT_TRUE(readMatches(host, snaps[2].merged, 0, size()));
    }
    ASSERT_NE(snaps[3].merged, snaps[2].merged);
    zxblk::importImages(*zxblk::openFolderStorage(store()), "d", {snaps[3].vhd}, importOptions);
    {
        zxblk::DiskHost host(services(), options(cache, roomy));
        EXPECT_EQ(host.snapshot(), 3);
        EXPECT_TRUE(host.cache().extents().empty());  // the old snapshot's bytes are not served
        EXPECT_TRUE(readMatches(host, snaps[3].merged, 0, size()));
        EXPECT_GT(host.services().stats().jobs, 0u);
    }
    // The store made again at the same place from other images: same disk
    // name, extent size and number of snapshots, other bytes.
    vhdtest::ChainPlan other;
    other.size = size();
    other.blockSize = 1 << 19;
    other.children = 3;
    other.seed = 72;
    fs::create_directories(dir + "/other");
    std::vector<vhdtest::Snapshot> again = vhdtest::writeChain(dir + "/other", other);
    fs::remove_all(store());
    zxblk::importImages(*zxblk::openFolderStorage(store()), "d", {again[0].vhd, again[1].vhd, again[2].vhd, again[3].vhd}, importOptions);
    {
        zxblk::DiskHost host(services(), options(cache, roomy));
        EXPECT_EQ(host.snapshot(), 3);
        EXPECT_TRUE(host.cache().extents().empty());
        EXPECT_TRUE(readMatches(host, again[3].merged, 0, size()));
    }
}

TEST_F(DiskHostTest, RefusesASecondHostOnALiveCacheAndBadRequests) {
    const vhdtest::Bytes& merged = snaps[2].merged;
    zxblk::HostOptions unknown = options(dir + "/c");
    unknown.disk = "nosuch";
    std::string why = errorOf([&] { zxblk::DiskHost host(services(), unknown); });
    EXPECT_NE(why.find("no disk named 'nosuch'"), std::string::npos) << why;
    why = errorOf([&] { zxblk::DiskHost host(services(), options(dir + "/c", 0, 3)); });
    EXPECT_NE(why.find("snapshots 0 to 2, not 3"), std::string::npos) << why;

    const std::string cache = dir + "/cache";
    {
        zxblk::DiskHost first(services(), options(cache));
        EXPECT_TRUE(readMatches(first, merged, 5 * E - 7, 14));
        writeFile(cache + "/tmp/recall-inflight");  // as if the first host were mid-recall
        why = errorOf([&] { zxblk::DiskHost second(services(), options(cache)); });
        EXPECT_NE(why.find("is in use by another zxblk process (pid " + std::to_string(::getpid()) + ")"),
                  std::string::npos)
            << why;
        // The refused host touched nothing of the first one's.
        EXPECT_TRUE(fs::exists(cache + "/tmp/recall-inflight"));
        EXPECT_EQ(cached(first), (std::set<long long>{4, 5}));
        EXPECT_TRUE(readMatches(first, merged, 9 * E, 2 * E));
    }
    zxblk::DiskHost again(services(), options(cache));  // the lock went with the first host
    EXPECT_TRUE(readMatches(again, merged, 0, 3 * E));
}

TEST_F(DiskHostTest, MountAndMetadataExtentsReachTheIndex) {
    // The disk object reads its configuration when it is built.
    ::unsetenv("ZXBLK_CONFIG");
    ZXPlatformInfo::Reload();
    ZXPlatformInfo::setHostDefault("VirtualServer", "bEnableMetadataRestoreOptimization", "true");
    // A disk of one snapshot: each recall of an extent it holds is reported once.
    zxblk::importImages(*zxblk::openFolderStorage(store()), "base", {snaps[0].vhd}, importOptions);
    const vhdtest::Bytes& merged = snaps[0].merged;
    std::vector<uint64_t> held;  // extents of blocks the base allocates: those are not all zeros
    for (uint64_t e = 0; e < extentCount(); ++e)
        if (std::any_of(merged.begin() + e * E, merged.begin() + std::min<uint64_t>(size(), (e + 1) * E),
                        [](uint8_t b) { return b != 0; }))
            held.push_back(e);
    ASSERT_GE(held.size(), 8u);
    const std::string db = store() + "/index.sqlite";
    zxblk::HostOptions o = options(dir + "/phases");
    o.disk = "base";
    std::set<std::string> expected;
    std::string id;
    auto row = [&](uint64_t e, const char* kind, int reports) {
        return id + " snap0 extent" + std::to_string(e) + " " + kind + " x" + std::to_string(reports);
    };
    {
        zxblk::DiskHost host(services(), o);
        id = "id" + std::to_string(host.services().catalog().findDisk("base")->diskId);
        auto use = [&](uint64_t e) { EXPECT_TRUE(readMatches(host, merged, e * E, E)) << "extent " << e; };
        for (int i : {0, 1, 2}) use(held[i]);
        host.forget(held[0]);
        use(held[0]);
        EXPECT_TRUE(indexRows(db, "base").empty());  // gathered until the mount completes
        EXPECT_NE(host.statsText().find("mount_complete 0\n"), std::string::npos);
        EXPECT_EQ(host.markMountComplete(), "");
        EXPECT_NE(host.statsText().find("mount_complete 1\n"), std::string::npos);
        expected = {row(held[0], "mount", 2), row(held[1], "mount", 1), row(held[2], "mount", 1)};
        EXPECT_EQ(indexRows(db, "base"), expected);

        EXPECT_EQ(host.beginMetadata(), "");
        EXPECT_NE(host.statsText().find("metadata_phase 1\n"), std::string::npos);
        use(held[3]);
        use(held[4]);
        EXPECT_EQ(indexRows(db, "base"), expected);  // fewer than the flush threshold: not sent yet
        EXPECT_EQ(host.endMetadata(), "");
        expected.insert(row(held[3], "metadata", 1));
        expected.insert(row(held[4], "metadata", 1));
        EXPECT_EQ(indexRows(db, "base"), expected);

        use(held[5]);  // outside both phases: never reported
        EXPECT_EQ(host.beginMetadata(), "");
        EXPECT_EQ(host.endMetadata(), "");
        EXPECT_EQ(indexRows(db, "base"), expected);
    }
    {
        o.cacheDir = dir + "/phases-each";
        o.flushThreshold = 1;
        zxblk::DiskHost host(services(), o);
        EXPECT_EQ(host.markMountComplete(), "");
        EXPECT_EQ(host.beginMetadata(), "");
        EXPECT_TRUE(readMatches(host, merged, held[6] * E + 3, 5));
        expected.insert(row(held[6], "metadata", 1));
        EXPECT_EQ(indexRows(db, "base"), expected);  // sent as it came
        EXPECT_TRUE(readMatches(host, merged, held[7] * E, 1));
        expected.insert(row(held[7], "metadata", 1));
        EXPECT_EQ(indexRows(db, "base"), expected);
        EXPECT_EQ(host.endMetadata(), "");
        EXPECT_EQ(indexRows(db, "base"), expected);
    }
    EXPECT_TRUE(indexRows(db, "d").empty());
    ZXPlatformInfo::setHostDefault("VirtualServer", "bEnableMetadataRestoreOptimization", "false");
}

TEST_F(DiskHostTest, PrefetchMakesExtentsLocalWithoutARead) {
    const vhdtest::Bytes& merged = snaps[2].merged;
    const uint64_t n = extentCount();
    {
        zxblk::DiskHost host(services(), options(dir + "/cache", 64 * E));
        host.prefetch({7, n - 1, 2, n + 5});  // one past the end: skipped
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (host.stats().extentsRecalled < 3 && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        EXPECT_EQ(cached(host), (std::set<long long>{2, 7, static_cast<long long>(n - 1)}));
        const uint64_t jobs = host.services().stats().jobs;
        for (uint64_t e : {uint64_t(2), uint64_t(7), n - 1})
            EXPECT_TRUE(readMatches(host, merged, e * E, E)) << "extent " << e;
        EXPECT_EQ(host.services().stats().jobs, jobs);  // served from what the prefetch laid down
        EXPECT_EQ(host.stats().extentsRecalled, 3u);
    }
    {
        // An extent that no snapshot holds is neither recalled nor counted:
        // it reads as zeros without one.
        zxblk::DiskHost host(services(), options(dir + "/base", 64 * E, 0));
        uint64_t hole = 0;
        while (hole < n && host.holdsData(hole)) ++hole;
        ASSERT_LT(hole, n) << "the base holds every extent: no hole to prefetch";
        host.prefetch({hole});
        host.prefetch({});  // waits for the one before
        EXPECT_TRUE(cached(host).empty());
        EXPECT_EQ(host.stats().extentsRecalled, 0u);
        EXPECT_EQ(host.services().stats().jobs, 0u);
    }
    {
        // A host that goes while a prefetch is under way stops it and leaves no temporaries.
        zxblk::DiskHost host(services(), options(dir + "/gone", 64 * E));
        std::vector<uint64_t> all(n);
        std::iota(all.begin(), all.end(), 0);
        host.prefetch(all);
    }
    EXPECT_TRUE(fs::is_empty(dir + "/gone/tmp"));
}

TEST_F(DiskHostTest, ReadaheadFollowsSequentialReadersOnlyAndSparesExtentsInUse) {
    const vhdtest::Bytes& merged = snaps[2].merged;
    const uint64_t n = extentCount();
    // Until the readahead workers have gone quiet (recalls stop coming).
    auto settle = [](zxblk::DiskHost& host) {
        for (uint64_t before = ~0ull; before != host.stats().extentsRecalled;) {
            before = host.stats().extentsRecalled;
            std::this_thread::sleep_for(std::chrono::milliseconds(150));
        }
    };
    struct Case {
        const char* what;
        unsigned long long limit;  // in extents
        bool sequential;
        uint64_t share;  // percent of the disk read
    } cases[] = {{"sequential, roomy cache", 64, true, 100},
                 {"sequential, four-extent cache", 4, true, 100},
                 {"sequential, then gone at a third", 64, true, 33},
                 {"random", 64, false, 100}};
    for (const Case& c : cases) {
        zxblk::HostOptions o = options(dir + "/ra-" + std::to_string(&c - cases), c.limit * E);
        o.readahead = 16 * E;
        zxblk::DiskHost host(services(), o);
        // A reader holds extent 0 throughout: nothing may take it from the cache.
        std::unique_ptr<zxblk::ExtentHandle> held = host.acquire(0);
        std::mt19937 rng(7);
        const uint64_t upTo = size() * c.share / 100;
        for (uint64_t at = 0; at < upTo;) {
            uint64_t len = std::min<uint64_t>(32768, upTo - at);
            uint64_t offset = c.sequential ? at : rng() % (size() - len);
            ASSERT_TRUE(readMatches(host, merged, offset, len)) << c.what;
            at += len;
        }
        settle(host);
        zxblk::HostStats st = host.stats();
        EXPECT_EQ(st.readErrors, 0u) << c.what;
        for (long long e : cached(host)) EXPECT_LT(static_cast<uint64_t>(e), n) << c.what;
        EXPECT_TRUE(host.cache().hasExtent(0)) << c.what;
        vhdtest::Bytes first(E);
        ASSERT_EQ(::pread(held->fd(), first.data(), E, 0), static_cast<ssize_t>(E));
        EXPECT_TRUE(std::equal(first.begin(), first.end(), merged.begin())) << c.what;
        if (c.sequential)
            EXPECT_GT(st.readaheads, n * c.share / 400) << c.what;
        else
            EXPECT_EQ(st.readaheads, 0u) << c.what;
        // Read ahead and never read: in a roomy cache, exactly the extents
        // past the last one the reader entered.
        if (c.limit > n) {
            uint64_t past = 0;
            for (long long e : cached(host)) past += static_cast<uint64_t>(e) > (upTo - 1) / E;
            EXPECT_EQ(st.readaheadUnused, past) << c.what;
            EXPECT_EQ(past > 0, c.share < 100) << c.what;
        }
        EXPECT_LE(host.cache().usedBytes(), c.limit * E) << c.what;
    }
}

// The listing reads back what hosts recorded in their caches, measures each
// as du does and names the process holding one; a folder that is no cache,
// beside them, is left out.
TEST_F(DiskHostTest, CacheFoldersListWhatTheyHoldAndWhoHoldsThem) {
    const std::string root = dir + "/root";
    EXPECT_TRUE(zxblk::listCacheFolders(root).empty());
    {
        zxblk::DiskHost old(services(), options(root + "/old", 0, 0));
        EXPECT_TRUE(readMatches(old, snaps[0].merged, 0, 3 * E));
    }
    fs::create_directories(root + "/sample");
    writeFile(root + "/sample/disk.raw");
    writeFile(root + "/file");
    zxblk::DiskHost live(services(), options(root + "/live"));
    EXPECT_TRUE(readMatches(live, snaps[2].merged, 0, E));
    std::vector<zxblk::CacheListing> got = zxblk::listCacheFolders(root);
    ASSERT_EQ(got.size(), 2u);
    const struct {
        const char* dir;
        long snapshot;
        long holder;
    } want[] = {{"/old", 0, 0}, {"/live", 2, ::getpid()}};
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(got[i].dir, root + want[i].dir);
        EXPECT_EQ(got[i].store, zxblk::canonicalLocation(store()));
        EXPECT_EQ(got[i].disk, "d");
        EXPECT_EQ(got[i].snapshot, want[i].snapshot);
        EXPECT_EQ(got[i].holder.inUse, want[i].holder != 0) << got[i].dir;
        EXPECT_EQ(got[i].holder.pid, want[i].holder) << got[i].dir;
        EXPECT_EQ(got[i].bytes, du(got[i].dir)) << got[i].dir;
    }
    std::string why = errorOf([&] { zxblk::listCacheFolders(root + "/file"); });
    EXPECT_NE(why.find(root + "/file: cannot read it"), std::string::npos) << why;
}

}  // namespace
