#include "platform/ZxEventH.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace zxblk {
namespace {
WaitPolicy g_realTime;
std::atomic<WaitPolicy*> g_policy{&g_realTime};
}  // namespace

// The clock's deadline must not overflow (which would end the wait at
// once): a century is as good as forever.
const unsigned long long kCenturyMs = 100ull * 365 * 24 * 3600 * 1000;

std::chrono::milliseconds WaitPolicy::duration(unsigned long timeoutMs) const {
    return std::chrono::milliseconds(std::min<unsigned long long>(timeoutMs, kCenturyMs));
}

WaitPolicy* setWaitPolicy(WaitPolicy* policy) {
    WaitPolicy* before = g_policy.exchange(policy ? policy : &g_realTime);
    return before == &g_realTime ? nullptr : before;
}

}  // namespace zxblk

ZxEventH::ZxEventH(bool manualReset) : m_manualReset(manualReset), m_signaled(false) {}

ZxEventH::~ZxEventH() {}

bool ZxEventH::wait(unsigned long timeoutMs) {
    std::chrono::milliseconds effective = std::min(zxblk::g_policy.load()->duration(timeoutMs),
                                                   std::chrono::milliseconds(zxblk::kCenturyMs));
    std::unique_lock<std::mutex> lock(m_mutex);
    bool signaled = m_cond.wait_for(lock, effective, [this] { return m_signaled; });
    if (signaled && !m_manualReset) m_signaled = false;
    return signaled;
}

void ZxEventH::set() {
    // Notified under the lock: a waiter that wakes may destroy the event at
    // once (a read that ends frees its disk object), so the setter must be
    // done with the condition before the waiter can get the mutex.
    std::lock_guard<std::mutex> lock(m_mutex);
    m_signaled = true;
    m_cond.notify_all();
}

void ZxEventH::reset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_signaled = false;
}
