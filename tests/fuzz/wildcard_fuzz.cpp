// ProxyResolver::wildcardMatch on any text and pattern (one a line). The matcher reads
// forward without backtracking, so it may miss a match that a full search finds, but every
// match it reports must be a real one: "?" one byte, "*" one byte or more (none only as the
// last pattern byte at the end of the text), anything else itself. Without "*" nothing can be
// missed, and the two agree exactly.
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "fields.h"
#include "proxy/wildcard.h"

namespace {

// Full search over (text position, pattern position), from the ends backwards.
bool fullMatch(const std::string & text, const std::string & pattern) {
    const size_t n = text.size();
    const size_t m = pattern.size();
    // matches[i * (m + 1) + j]: text from i matches pattern from j.
    std::vector<char> matches((n + 1) * (m + 1), 0);
    auto at = [&](size_t i, size_t j) -> char & { return matches[i * (m + 1) + j]; };
    at(n, m) = 1;
    for (size_t i = n + 1; i-- > 0;) {
        for (size_t j = m; j-- > 0;) {
            const char p = pattern[j];
            if (p == '*') {
                at(i, j) = (i == n && j + 1 == m) || (i < n && (at(i + 1, j + 1) || at(i + 1, j)));
            } else {
                at(i, j) = i < n && (p == '?' || p == text[i]) && at(i + 1, j + 1);
            }
        }
    }
    return at(0, 0) != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    const auto texts = corvane_fuzz::fields(data, size, 2);
    const std::string & text = texts[0];
    const std::string & pattern = texts[1];
    const bool matched = ProxyResolver::wildcardMatch(text, pattern);
    if (text.size() * pattern.size() > 1000000) {
        return 0;
    }
    const bool full = fullMatch(text, pattern);
    const bool hasStar = pattern.find('*') != std::string::npos;
    if ((matched && !full) || (!hasStar && matched != full)) {
        std::cerr << "wildcard_fuzz: '" << pattern << "' on '" << text << "' gives " << matched
                  << ", a full search " << full << std::endl;
        std::abort();
    }
    return 0;
}
