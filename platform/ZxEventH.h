// Manual-reset event of the platform: a set() that comes before wait() is
// never lost. Time-outs are in milliseconds.
#pragma once
#include <condition_variable>
#include <mutex>

class ZxEventH {
public:
    explicit ZxEventH(bool manualReset);
    ~ZxEventH();
    bool wait(unsigned long timeoutMs);
    void set();
    void reset();

    // Test seam: every wait lasts timeoutMs / divisor (at least 1 ms), so a
    // test can run a five-minute time-out without changing what the code
    // passes. 1 restores real time.
    static void SetWaitDivisorForTests(unsigned long divisor);

private:
    bool m_manualReset;
    bool m_signaled;
    std::mutex m_mutex;
    std::condition_variable m_cond;
};
