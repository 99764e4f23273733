#include "proxy/wildcard.h"

namespace ProxyResolver {

bool wildcardMatch(const std::string & text, const std::string & pattern) {
    std::string::size_type t = 0;
    std::string::size_type p = 0;
    const std::string::size_type textEnd = text.size();
    const std::string::size_type patternEnd = pattern.size();
    while (p < patternEnd) {
        const char current = pattern[p];
        if (t == textEnd) {
            // Only a star that ends the pattern accepts an exhausted text.
            return current == '*' && p + 1 == patternEnd;
        }
        if (current == '*') {
            // The star takes this byte in any case; it hands over to the pattern byte behind
            // it as soon as the next text byte equals that one.
            ++t;
            if (p + 1 < patternEnd && t < textEnd && text[t] == pattern[p + 1]) {
                ++p;
            }
            continue;
        }
        if (current != '?' && current != text[t]) {
            return false;
        }
        ++t;
        ++p;
    }
    return t == textEnd;
}

}  // namespace ProxyResolver
