// Bounded waits and exception texts for tests.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include "corvane/exception.h"

namespace corvane_test {

// Polls `done` until it holds or `milliseconds` passed; false on time-out.
inline bool waitFor(const std::function<bool()> & done, int milliseconds = 5000) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// The what() of the net::RuntimeException that `call` throws, or "<nothing thrown>".
inline std::string thrownText(const std::function<void()> & call) {
    try {
        call();
    } catch (const net::RuntimeException & e) {
        return e.what();
    }
    return "<nothing thrown>";
}

}  // namespace corvane_test
