// Lock annotations that clang's -Wthread-safety checks at compile time: which
// mutex guards a member, which a function needs held or must not hold. Other
// compilers see nothing. Mutex, MutexLock and CondVar are std::mutex, a scoped
// holder and std::condition_variable dressed so that the analysis can follow
// them; std::mutex itself carries no annotations in libstdc++.
#pragma once
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZX_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ZX_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) ZX_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY ZX_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) ZX_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) ZX_THREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRED_BEFORE(...) ZX_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) ZX_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define REQUIRES(...) ZX_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define REQUIRES_SHARED(...) ZX_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define ACQUIRE(...) ZX_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ACQUIRE_SHARED(...) ZX_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define RELEASE(...) ZX_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define RELEASE_SHARED(...) ZX_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) ZX_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define EXCLUDES(...) ZX_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ASSERT_CAPABILITY(x) ZX_THREAD_ANNOTATION(assert_capability(x))
#define RETURN_CAPABILITY(x) ZX_THREAD_ANNOTATION(lock_returned(x))
#define NO_THREAD_SAFETY_ANALYSIS ZX_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace zxblk {

class CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() ACQUIRE() { m_mutex.lock(); }
    void unlock() RELEASE() { m_mutex.unlock(); }
    bool try_lock() TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

private:
    friend class CondVar;
    std::mutex m_mutex;
};

// Holds a mutex for its scope; unlock() and lock() let a caller step out of
// the lock for a call that must not run under it and come back.
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLock() RELEASE() {
        if (m_held) m_mutex.unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void lock() ACQUIRE() {
        m_mutex.lock();
        m_held = true;
    }
    void unlock() RELEASE() {
        m_held = false;
        m_mutex.unlock();
    }

private:
    Mutex& m_mutex;
    bool m_held = true;
};

// Waits are written as loops over the condition in the waiting function
// itself (while (!ready) cond.wait(mutex);): the analysis then sees the
// guarded members read with the lock held, which it cannot in a predicate.
class CondVar {
public:
    // Releases the mutex while it waits and holds it again on return; may
    // return without a notification.
    void wait(Mutex& mutex) REQUIRES(mutex) {
        std::unique_lock<std::mutex> lock(mutex.m_mutex, std::adopt_lock);
        m_cond.wait(lock);
        lock.release();
    }
    void notifyOne() noexcept { m_cond.notify_one(); }
    void notifyAll() noexcept { m_cond.notify_all(); }

private:
    std::condition_variable m_cond;
};

}  // namespace zxblk
