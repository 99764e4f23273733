#include "proxy/wildcard.h"

#include <gtest/gtest.h>


namespace {

using ProxyResolver::wildcardMatch;

TEST(WildcardMatch, TellingCases) {
    struct Case {
        const char * pattern;
        const char * text;
        bool result;
    } const cases[] = {
        {"*.corp.test", "web.corp.test", true},
        {"*.corp.test", "corp.test", false},
        {"*.corp.test", ".corp.test", false},
        {"*", "anything", true},
        {"*", "", true},
        {"10.*", "10.1.2.3", true},
        {"a?c", "abc", true},
        {"a?c", "ac", false},
        {"*ab", "acab", true},
        {"*ab", "aacab", false},  // the star stopped at the second "a" and never returns
        {"WEB.corp.test", "web.corp.test", false},
        // A star takes at least one byte and ends an empty text only as the last pattern byte.
        {"*a", "", false},
        {"*ab", "ab", false},
        {"a*", "a", true},
        {"*?y", "x?y", true},  // the byte behind the star is compared literally
        {"*?y", "xzy", false},
    };
    for (const Case & c : cases) {
        EXPECT_EQ(wildcardMatch(c.text, c.pattern), c.result) << c.pattern << " on '" << c.text << "'";
    }
}

}  // namespace
