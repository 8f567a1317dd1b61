#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "framework/FXLock.h"
#include "framework/ZxEvent.h"
#include "platform/ZxEventH.h"
#include "support/short_waits.h"

namespace {

bool tryFromOtherThread(FXCriticalSection& cs, bool timed) {
    bool got = true;
    std::thread t([&] {
        got = timed ? cs.TryLock(CTimeInterval(60000)) : cs.TryLock();
        if (got) cs.Unlock();
    });
    t.join();
    return got;
}

TEST(CriticalSection, RecursionOwnershipAndCrossThreadTryLock) {
    FXCriticalSection cs;
    EXPECT_EQ(cs.Owner(), 0u);
    EXPECT_TRUE(tryFromOtherThread(cs, false));  // free: another thread may take it

    cs.Lock();
    EXPECT_EQ(cs.Owner(), static_cast<uint32_t>(GetCurrentThreadId()));
    EXPECT_TRUE(cs.TryLock());  // recursive for the holder
    EXPECT_FALSE(tryFromOtherThread(cs, false));
    EXPECT_FALSE(tryFromOtherThread(cs, true));  // a timed attempt does not wait
    cs.Unlock();

    // Lock, Lock, Unlock: still held by this thread, owner field already 0.
    cs.Lock();
    cs.Unlock();
    EXPECT_EQ(cs.Owner(), 0u);
    EXPECT_FALSE(tryFromOtherThread(cs, false));
    cs.Unlock();
    EXPECT_TRUE(tryFromOtherThread(cs, false));
}

TEST(CriticalSection, ExcludesOtherThreads) {
    FXCriticalSection cs;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 20000; ++i) {
                auto_lock lock(&cs, true);
                ++counter;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(counter, 80000);
}

class CountingResource : public FXLockableResource {
public:
    int locks = 0, unlocks = 0;
    bool TryLock() override { return true; }
    bool TryLock(CTimeInterval i) override { return FXLockableResource::TryLock(i); }
    void Lock() override { ++locks; }
    void Unlock() override { ++unlocks; }
};

TEST(AutoLock, NeverLocksOrUnlocksTwice) {
    CountingResource r;
    {
        auto_lock l(&r, false);
        EXPECT_EQ(r.locks, 0);
        l.Lock();
        l.Lock();
        l.Unlock();
        l.Unlock();
        EXPECT_TRUE(r.locks == 1 && r.unlocks == 1);
    }  // nothing held, nothing released
    { auto_lock l(&r, true); }
    EXPECT_TRUE(r.locks == 2 && r.unlocks == 2);
    auto_lock none(nullptr, true);  // a null resource is a no-op
    none.Lock();
    none.Unlock();
    EXPECT_FALSE(none.IsLocked());
}

TEST(Event, SetBeforeAndDuringWaitAndTimeOut) {
    ZxEvent ev(true);
    ev.set();
    EXPECT_TRUE(ev.wait(10));  // a set() before the wait is not lost
    EXPECT_TRUE(ev.wait(10));  // manual reset: stays set
    ev.reset();
    EXPECT_FALSE(ev.wait(20));
    // Set during the wait, also when the time-out is too long for the clock.
    for (unsigned long timeout : {60000ul, static_cast<unsigned long>(-1)}) {
        ev.reset();
        std::thread setter([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(30));
            ev.set();
        });
        EXPECT_TRUE(ev.wait(timeout));
        setter.join();
    }

    ev.reset();
    auto start = std::chrono::steady_clock::now();
    {
        zxtest::ShortWaits quick(1000);  // 300000 ms becomes 300 ms
        EXPECT_FALSE(ev.wait(300000));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
}

TEST(Event, AutoResetClearsOnWake) {
    ZxEventH ev(false);
    ev.set();
    EXPECT_TRUE(ev.wait(10));
    EXPECT_FALSE(ev.wait(10));
}

}  // namespace
