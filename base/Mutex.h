// Locks that the compiler watches over: under clang, a member that says SENTREL_GUARDED_BY is touched with its mutex
// held, or the file does not compile. Other compilers see plain locks.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define SENTREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define SENTREL_THREAD_ANNOTATION(x)
#endif

/// Of a member: it is touched only with this mutex held.
#define SENTREL_GUARDED_BY(mutex) SENTREL_THREAD_ANNOTATION(guarded_by(mutex))
/// Of a function: its caller holds this mutex.
#define SENTREL_REQUIRES(mutex) SENTREL_THREAD_ANNOTATION(requires_capability(mutex))
/// Of a function: its caller does not hold this mutex, since the function takes it.
#define SENTREL_EXCLUDES(mutex) SENTREL_THREAD_ANNOTATION(locks_excluded(mutex))
/// Of a function whose caller holds this mutex although the compiler cannot see it, such as a callback of a C library.
#define SENTREL_ASSERTS(mutex) SENTREL_THREAD_ANNOTATION(assert_capability(mutex))

namespace Sentrel {

/// A mutex, to be held through a MutexLock. Not recursive.
/// Threads: thread-safe. Owner: the object whose members it guards.
class SENTREL_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() SENTREL_THREAD_ANNOTATION(acquire_capability()) { m_mutex.lock(); }
    void unlock() SENTREL_THREAD_ANNOTATION(release_capability()) { m_mutex.unlock(); }

    /// Tells the compiler that the caller holds it. For functions that a C library calls; does nothing else.
    void assertHeld() const SENTREL_ASSERTS(this) {}

private:
    friend class ConditionVariable;

    std::mutex m_mutex;
};

/// Holds a mutex for its own lifetime, except between unlock and lock.
/// Threads: the one that made it. Owner: a local; the mutex outlives it.
class SENTREL_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& mutex) SENTREL_THREAD_ANNOTATION(acquire_capability(mutex)) : m_mutex(mutex) {
        m_mutex.lock();
    }
    ~MutexLock() SENTREL_THREAD_ANNOTATION(release_capability()) {
        if (m_isHeld) {
            m_mutex.unlock();
        }
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    /// Releases the mutex, for work that must not be done under it. Requires that it is held.
    void unlock() SENTREL_THREAD_ANNOTATION(release_capability()) {
        m_isHeld = false;
        m_mutex.unlock();
    }
    /// Takes it again. Requires that unlock was called.
    void lock() SENTREL_THREAD_ANNOTATION(acquire_capability()) {
        m_mutex.lock();
        m_isHeld = true;
    }

private:
    Mutex& m_mutex;
    bool m_isHeld = true;
};

/// Where threads wait for a change of what a mutex guards. A wait may end without a change, so the caller waits in a
/// loop of its own. The compiler can check that loop, since the lock is held around it.
/// Threads: thread-safe. Owner: the owner of the mutex; all waits on one condition are with the same mutex.
class ConditionVariable {
public:
    ConditionVariable() = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    void notifyOne() noexcept { m_changed.notify_one(); }
    void notifyAll() noexcept { m_changed.notify_all(); }

    /// Releases @p mutex, sleeps until it is notified, and takes the mutex again.
    void wait(Mutex& mutex) SENTREL_REQUIRES(mutex) {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        m_changed.wait(lock);
        lock.release();
    }

    /// As wait, at most until @p deadline. @return false when that has passed.
    bool waitUntil(Mutex& mutex, std::chrono::steady_clock::time_point deadline) SENTREL_REQUIRES(mutex) {
        std::unique_lock lock(mutex.m_mutex, std::adopt_lock);
        const bool inTime = m_changed.wait_until(lock, deadline) == std::cv_status::no_timeout;
        lock.release();
        return inTime;
    }

private:
    std::condition_variable m_changed;
};

} // namespace Sentrel
