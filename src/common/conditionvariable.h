// Common::ConditionVariable, bound for life to one Common::Lock. Wait, Signal and Broadcast
// are called with that lock held; a wake-up does not promise the awaited state, so callers
// test it in a loop. There is no timed wait.
#pragma once

#include <condition_variable>

#include "common/lock.h"

namespace Common {

class ConditionVariable {
public:
    explicit ConditionVariable(Lock * lock) : m_lock(lock) {}
    ConditionVariable(const ConditionVariable &) = delete;
    ConditionVariable & operator=(const ConditionVariable &) = delete;

    void Wait() {
        std::unique_lock<std::mutex> held(m_lock->m_mutex, std::adopt_lock);
        m_condition.wait(held);
        held.release();
    }
    void Signal() { m_condition.notify_one(); }
    void Broadcast() { m_condition.notify_all(); }

private:
    Lock * m_lock;
    std::condition_variable m_condition;
};

}  // namespace Common
