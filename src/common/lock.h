// Common::Lock, a non-recursive mutual exclusion lock, and its two scoped guards:
// ScopedLock acquires for a scope, ScopedUnlock releases for a scope inside one.
#pragma once

#include <mutex>

namespace Common {

class ConditionVariable;

class Lock {
public:
    Lock() = default;
    Lock(const Lock &) = delete;
    Lock & operator=(const Lock &) = delete;

    void Acquire() { m_mutex.lock(); }
    void Release() { m_mutex.unlock(); }

private:
    friend class ConditionVariable;
    std::mutex m_mutex;
};

class ScopedLock {
public:
    explicit ScopedLock(Lock * lock) : m_lock(lock) { m_lock->Acquire(); }
    ~ScopedLock() { m_lock->Release(); }
    ScopedLock(const ScopedLock &) = delete;
    ScopedLock & operator=(const ScopedLock &) = delete;

private:
    Lock * m_lock;
};

// For a moment of unlocked work inside a ScopedLock's scope.
class ScopedUnlock {
public:
    explicit ScopedUnlock(Lock * lock) : m_lock(lock) { m_lock->Release(); }
    ~ScopedUnlock() { m_lock->Acquire(); }
    ScopedUnlock(const ScopedUnlock &) = delete;
    ScopedUnlock & operator=(const ScopedUnlock &) = delete;

private:
    Lock * m_lock;
};

}  // namespace Common
