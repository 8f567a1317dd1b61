// Events whose waits last a fraction of their time-out, while the object
// lives: a five-minute recall time-out runs in a test's time without
// changing what the code passes.
#pragma once
#include <algorithm>

#include "platform/ZxEventH.h"

namespace zxtest {

class ShortWaits : public zxblk::WaitPolicy {
public:
    // Each wait lasts timeoutMs / divisor, at least 1 ms.
    explicit ShortWaits(unsigned long divisor) : m_divisor(divisor ? divisor : 1) { m_before = zxblk::setWaitPolicy(this); }
    ~ShortWaits() override { zxblk::setWaitPolicy(m_before); }
    ShortWaits(const ShortWaits&) = delete;
    ShortWaits& operator=(const ShortWaits&) = delete;
    std::chrono::milliseconds duration(unsigned long timeoutMs) const override {
        return std::chrono::milliseconds(timeoutMs ? std::max(1ul, timeoutMs / m_divisor) : 0);
    }

private:
    unsigned long m_divisor;
    zxblk::WaitPolicy* m_before;
};

}  // namespace zxtest
