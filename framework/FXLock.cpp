#include "framework/FXLock.h"

#include <pthread.h>

#include <boost/interprocess/exceptions.hpp>

unsigned long GetCurrentThreadId() { return static_cast<unsigned long>(pthread_self()); }

void FXLockableResource::SetLockOwner() { m_owner = static_cast<uint32_t>(GetCurrentThreadId()); }

// A timed attempt is a single attempt: the interval is accepted for the
// interface's sake and not waited on.
bool FXLockableResource::TryLock(CTimeInterval) { return TryLock(); }

FXCriticalSection::FXCriticalSection() {}

FXCriticalSection::~FXCriticalSection() {}

bool FXCriticalSection::TryLock() {
    bool result = false;
    try {
        result = m_mutex.try_lock();
    } catch (const boost::interprocess::interprocess_exception&) {
        result = false;
    }
    if (result) SetLockOwner();
    return result;
}

bool FXCriticalSection::TryLock(CTimeInterval interval) {
    CTimeInterval copy(interval);
    return FXLockableResource::TryLock(copy);
}

void FXCriticalSection::Lock() {
    try {
        m_mutex.lock();
    } catch (const boost::interprocess::interprocess_exception&) {
        // A broken mutex leaves the caller without the lock; the framework's
        // callers have no way to act on it, so nothing is reported.
        return;
    }
    SetLockOwner();
}

void FXCriticalSection::Unlock() {
    ClearLockOwner();
    m_mutex.unlock();
}
