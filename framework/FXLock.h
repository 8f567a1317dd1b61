// Lockable resource, the recursive process-shared critical section, and the
// scoped lock holder.
#pragma once
#include <boost/interprocess/sync/interprocess_recursive_mutex.hpp>
#include <cstdint>

class CTimeInterval {
public:
    CTimeInterval() : m_value(0) {}
    explicit CTimeInterval(int64_t value) : m_value(value) {}
    int64_t Value() const { return m_value; }

private:
    int64_t m_value;
};

unsigned long GetCurrentThreadId();

class FXLockableResource {
public:
    FXLockableResource() : m_owner(0) {}
    virtual ~FXLockableResource() {}
    virtual bool TryLock() = 0;
    virtual bool TryLock(CTimeInterval interval) = 0;
    virtual void Lock() = 0;
    virtual void Unlock() = 0;

    uint32_t Owner() const { return m_owner; }

protected:
    void SetLockOwner();
    void ClearLockOwner() { m_owner = 0; }

private:
    uint32_t m_owner;
};

class FXCriticalSection : public FXLockableResource {
public:
    FXCriticalSection();
    ~FXCriticalSection() override;
    FXCriticalSection(const FXCriticalSection&) = delete;
    FXCriticalSection& operator=(const FXCriticalSection&) = delete;

    bool TryLock() override;
    bool TryLock(CTimeInterval interval) override;
    void Lock() override;
    void Unlock() override;

private:
    boost::interprocess::interprocess_recursive_mutex m_mutex;
};

class auto_lock {
public:
    auto_lock(FXLockableResource* resource, bool lockNow) : m_resource(resource), m_locked(false) {
        if (lockNow) Lock();
    }
    ~auto_lock() { Unlock(); }
    auto_lock(const auto_lock&) = delete;
    auto_lock& operator=(const auto_lock&) = delete;

    void Lock() {
        if (m_resource && !m_locked) {
            m_resource->Lock();
            m_locked = true;
        }
    }
    void Unlock() {
        if (m_resource && m_locked) {
            m_resource->Unlock();
            m_locked = false;
        }
    }
    bool IsLocked() const { return m_locked; }

private:
    FXLockableResource* m_resource;
    bool m_locked;
};
