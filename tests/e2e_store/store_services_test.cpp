#include <gtest/gtest.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>

#include "platform/DMRService/RestoreTarget.h"
#include "store/importer.h"
#include "store/storage.h"
#include "store/store_services.h"
#include "support/vhd_writer.h"

namespace {

// Records the stream a restore target receives.
struct RecordingTarget : CRestoreTarget {
    std::vector<std::vector<uint8_t>> writes;
    std::vector<unsigned> holes;
    std::vector<std::string> calls;
    CUxError Open(void*) override { return calls.push_back("open"), CUxError(); }
    CUxError Write(const void* d, unsigned n) override {
        calls.push_back("write");
        writes.emplace_back(static_cast<const uint8_t*>(d), static_cast<const uint8_t*>(d) + n);
        return CUxError();
    }
    CUxError WriteHole(unsigned n) override { return calls.push_back("hole"), holes.push_back(n), CUxError(); }
    CUxError Flush() override { return calls.push_back("flush"), CUxError(); }
    CUxError Close(bool) override { return calls.push_back("close"), CUxError(); }
    bool Exists() override { return false; }
};

struct Completions {
    std::mutex m;
    std::condition_variable c;
    std::vector<DMRestoreCompleted_t> done;
    static void callback(void* ctx, DMRestoreCompleted_t* d) {
        auto* self = static_cast<Completions*>(ctx);
        std::lock_guard<std::mutex> lock(self->m);
        self->done.push_back(*d);
        self->c.notify_all();
    }
    DMRestoreCompleted_t waitFor(size_t n) {
        std::unique_lock<std::mutex> lock(m);
        c.wait(lock, [&] { return done.size() >= n; });
        return done[n - 1];
    }
};

class StoreServicesTest : public testing::Test {
protected:
    void SetUp() override {
        dir = std::string(testing::TempDir()) + "storesvc_" + std::to_string(getpid());
        std::system(("rm -rf '" + dir + "' && mkdir -p '" + dir + "/src'").c_str());
        vhdtest::ChainPlan plan;
        plan.size = 6 << 20;
        plan.blockSize = 1 << 20;
        plan.children = 1;
        plan.seed = 44;
        snaps = vhdtest::writeChain(dir + "/src", plan);
        zxblk::importImages(*zxblk::openFolderStorage(dir + "/store"), "d", {snaps[0].vhd, snaps[1].vhd}, zxblk::ImportSettings());
        services = zxblk::StoreServices::open(zxblk::openFolderStorage(dir + "/store"));
    }
    void TearDown() override {
        services.reset();
        std::system(("rm -rf '" + dir + "'").c_str());
    }
    zxblk::RecallJob job(const std::string& metadata, boost::shared_ptr<RecordingTarget> target, unsigned long long id) {
        zxblk::RecallJob j;
        j.srcPath = metadata;
        j.target = target;
        j.callback = &Completions::callback;
        j.context = &completions;
        j.requestId = id;
        return j;
    }
    std::string dir;
    std::vector<vhdtest::Snapshot> snaps;
    std::shared_ptr<zxblk::StoreServices> services;
    Completions completions;
};

TEST_F(StoreServicesTest, MalformedRecallsCompleteWithAnErrorOnce) {
    const char* bad[] = {
        "garbage", "1:2:0:1:0:1:3", "1:2:0:x:0:1:3:abc", "9:2:0:1:0:1:3:abc",
        "1:2:0:1:0:1:99:/localhost/default/d/snap0/Extent0",      // length field does not match
        "1:2:0:77:0:1:31:/localhost/default/d/snap0/Extent0",     // no such archive file
        "1:2:0:1:0:1:32:/localhost/default/d/snap0/Extent99",     // past the end of the disk
        "1:2:0:1:12345:1:31:/localhost/default/d/snap0/Extent0",  // position does not match
        "1:2:0:1:0:1:31:/localhost/default/d/snap1/Extent0",      // another copy's path
    };
    size_t n = 0;
    for (const char* m : bad) {
        auto target = boost::shared_ptr<RecordingTarget>(new RecordingTarget());
        std::string why;
        ASSERT_TRUE(services->submit(job(m, target, ++n), why));
        DMRestoreCompleted_t done = completions.waitFor(n);
        EXPECT_NE(done.status, 0) << m;
        EXPECT_EQ(done.requestId, n);
        EXPECT_FALSE(done.error.empty());
    }
    services->shutdown();
    EXPECT_EQ(completions.done.size(), n);  // exactly one callback each
    EXPECT_EQ(services->stats().failures, n);
    std::string why;
    EXPECT_FALSE(services->submit(job("x", boost::shared_ptr<RecordingTarget>(new RecordingTarget()), 99), why));
    EXPECT_NE(why.find("shutting down"), std::string::npos);
}

TEST_F(StoreServicesTest, DifferencingStreamCarriesAnMsbFirstBitmap) {
    unsigned long long first = 0, second = 0;
    size_t n = 0;
    for (unsigned long long k = 0; k < 6; ++k) {
        int held = services->lookup(SCParams(), "/localhost/default/d/snap1", k, first, second);
        ASSERT_TRUE(held == 0 || held == 1);
        if (held) continue;
        std::string path = "/localhost/default/d/snap1/Extent" + std::to_string(k);
        std::string meta = "1:2:0:" + std::to_string(first) + ":" + std::to_string(second) + ":1:" +
                           std::to_string(path.size()) + ":" + path;
        auto target = boost::shared_ptr<RecordingTarget>(new RecordingTarget());
        std::string why;
        ASSERT_TRUE(services->submit(job(meta, target, ++n), why));
        ASSERT_EQ(completions.waitFor(n).status, 0);
        ASSERT_GE(target->writes.size(), 1u);
        std::vector<uint8_t> bitmap;
        size_t w = 0;
        while (bitmap.size() < 512) bitmap.insert(bitmap.end(), target->writes[w].begin(), target->writes[w].end()), ++w;
        ASSERT_EQ(bitmap.size(), 512u);
        EXPECT_EQ(w, k % 3 == 1 ? 2u : 1u);  // now and then in two writes
        // Every sector the child changed must be marked, most significant bit first.
        const auto& before = snaps[0].merged;
        const auto& after = snaps[1].merged;
        for (unsigned s = 0; s < 2048; ++s) {
            size_t at = k * (1 << 20) + s * 512;
            if (std::equal(before.begin() + at, before.begin() + at + 512, after.begin() + at)) continue;
            EXPECT_TRUE(bitmap[s / 8] & (0x80 >> (s % 8))) << "extent " << k << " sector " << s;
        }
        EXPECT_EQ(target->calls.front(), "open");
        EXPECT_EQ(target->calls.back(), "close");
    }
    EXPECT_GT(n, 0u);
    EXPECT_EQ(services->lookup(SCParams(), "/no/such/copy", 0, first, second), 2);
    std::string why;
    EXPECT_FALSE(services->open(SCParams(), "/no/such/copy", why));
}

// One worker: a recall ahead of readers is running (held at its target's
// Open), two more ahead and then one a reader waits on are queued; the
// reader's runs next.
TEST_F(StoreServicesTest, AReadersRecallRunsBeforeThoseQueuedAhead) {
    struct HeldTarget : RecordingTarget {
        std::mutex m;
        std::condition_variable c;
        bool entered = false, released = false;
        CUxError Open(void* p) override {
            std::unique_lock<std::mutex> lock(m);
            entered = true;
            c.notify_all();
            c.wait(lock, [&] { return released; });
            return RecordingTarget::Open(p);
        }
    };
    zxblk::StoreServices::Options one;
    one.workers = 1;
    auto single = zxblk::StoreServices::open(zxblk::openFolderStorage(dir + "/store"), one);
    auto meta = [&](unsigned long long k) {
        unsigned long long first = 0, second = 0;
        EXPECT_EQ(single->lookup(SCParams(), "/localhost/default/d/snap0", k, first, second), 0);
        std::string path = "/localhost/default/d/snap0/Extent" + std::to_string(k);
        return "1:2:0:" + std::to_string(first) + ":" + std::to_string(second) + ":1:" + std::to_string(path.size()) +
               ":" + path;
    };
    auto held = boost::shared_ptr<HeldTarget>(new HeldTarget());
    std::string why;
    zxblk::recallsAhead() = true;
    ASSERT_TRUE(single->submit(job(meta(0), held, 1), why));
    {
        std::unique_lock<std::mutex> lock(held->m);
        held->c.wait(lock, [&] { return held->entered; });
    }
    for (unsigned long long id : {2, 3})
        ASSERT_TRUE(single->submit(job(meta(id - 1), boost::shared_ptr<RecordingTarget>(new RecordingTarget()), id), why));
    zxblk::recallsAhead() = false;
    ASSERT_TRUE(single->submit(job(meta(3), boost::shared_ptr<RecordingTarget>(new RecordingTarget()), 4), why));
    {
        std::lock_guard<std::mutex> lock(held->m);
        held->released = true;
    }
    held->c.notify_all();
    completions.waitFor(4);
    std::vector<unsigned long long> order;
    for (const auto& d : completions.done) {
        order.push_back(d.requestId);
        EXPECT_EQ(d.status, 0) << d.error;
    }
    EXPECT_EQ(order, (std::vector<unsigned long long>{1, 4, 2, 3}));
    single->shutdown();
}

}  // namespace
