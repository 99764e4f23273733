// The fuzz input as text fields: the bytes split at each newline, the last field taking the
// rest. Seeds stay readable one field a line; the fuzzer is free to put any byte in a field.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace corvane_fuzz {

inline std::vector<std::string> fields(const uint8_t * data, size_t size, size_t count) {
    std::vector<std::string> out;
    const std::string text(reinterpret_cast<const char *>(data), size);
    std::string::size_type start = 0;
    while (out.size() + 1 < count) {
        const std::string::size_type end = text.find('\n', start);
        if (end == std::string::npos) {
            break;
        }
        out.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    out.push_back(text.substr(start));
    out.resize(count);
    return out;
}

// The text that a C string at an interface carries: everything before the first NUL.
inline std::string cText(const std::string & field) {
    return field.substr(0, field.find('\0'));
}

}  // namespace corvane_fuzz
