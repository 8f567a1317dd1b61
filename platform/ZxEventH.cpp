#include "platform/ZxEventH.h"

#include <atomic>
#include <chrono>

static std::atomic<unsigned long> g_waitDivisor{1};

void ZxEventH::SetWaitDivisorForTests(unsigned long divisor) { g_waitDivisor = divisor ? divisor : 1; }

ZxEventH::ZxEventH(bool manualReset) : m_manualReset(manualReset), m_signaled(false) {}

ZxEventH::~ZxEventH() {}

bool ZxEventH::wait(unsigned long timeoutMs) {
    unsigned long divisor = g_waitDivisor.load();
    unsigned long effective = timeoutMs / divisor;
    if (divisor > 1 && effective == 0 && timeoutMs > 0) effective = 1;
    // The clock's deadline must not overflow (which would end the wait at
    // once): a century is as good as forever.
    const unsigned long kCentury = 100ul * 365 * 24 * 3600 * 1000;
    if (effective > kCentury) effective = kCentury;
    std::unique_lock<std::mutex> lock(m_mutex);
    bool signaled =
        m_cond.wait_for(lock, std::chrono::milliseconds(effective), [this] { return m_signaled; });
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
