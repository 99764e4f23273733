// Common::TimeDelta, a signed span of microseconds, and the monotonic millisecond tick.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <ctime>

namespace Common {

class TimeDelta {
public:
    explicit TimeDelta(std::int64_t microseconds) : m_microseconds(microseconds) {}

    std::int64_t InMicroseconds() const { return m_microseconds; }
    // Rounded up, so that a wait of a few microseconds is not a busy loop of zero waits.
    std::int64_t InMillisecondsRoundedUp() const { return m_microseconds <= 0 ? 0 : (m_microseconds + 999) / 1000; }
    timeval ToTimeVal() const {
        timeval value{};
        value.tv_sec = static_cast<time_t>(m_microseconds / 1000000);
        value.tv_usec = static_cast<suseconds_t>(m_microseconds % 1000000);
        return value;
    }

private:
    std::int64_t m_microseconds;
};

// Milliseconds from CLOCK_MONOTONIC. 0 means "no time recorded" to its users, and the
// monotonic clock of a running system is far past 0.
inline std::uint64_t GetTickCount64() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000u + static_cast<std::uint64_t>(now.tv_nsec) / 1000000u;
}

}  // namespace Common
