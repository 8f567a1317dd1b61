// Manual-reset event of the platform: a set() that comes before wait() is
// never lost. Time-outs are in milliseconds.
#pragma once
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zxblk {

// How long an event's wait lasts for the time-out it is given: the time-out
// itself, unless another policy is installed for the whole process (tests
// run the provider's five-minute recall time-out in a fraction of a second
// without changing what the code passes).
class WaitPolicy {
public:
    virtual ~WaitPolicy() = default;
    virtual std::chrono::milliseconds duration(unsigned long timeoutMs) const;
};
// Installs `policy` (null: the time-out itself) and returns the one before;
// the caller keeps it alive while it is installed.
WaitPolicy* setWaitPolicy(WaitPolicy* policy);

}  // namespace zxblk

class ZxEventH {
public:
    explicit ZxEventH(bool manualReset);
    ~ZxEventH();
    bool wait(unsigned long timeoutMs);
    void set();
    void reset();

private:
    bool m_manualReset;
    bool m_signaled;
    std::mutex m_mutex;
    std::condition_variable m_cond;
};
