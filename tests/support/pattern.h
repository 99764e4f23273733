// Test data without short periods, so that lost, doubled or reordered pieces show.
#pragma once

#include <cstdint>
#include <string>

namespace corvane_test {

inline char PatternByte(std::uint64_t offset) {
    std::uint64_t x = offset * 0x9E3779B97F4A7C15ull;
    return static_cast<char>((x >> 29) ^ (offset >> 16));
}

// `length` bytes of the pattern from `offset` on.
inline std::string Pattern(std::size_t length, std::uint64_t offset = 0) {
    std::string data(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        data[i] = PatternByte(offset + i);
    }
    return data;
}

}  // namespace corvane_test
