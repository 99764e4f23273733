#include "proxy/wildcard.h"

#include <gtest/gtest.h>

#include <random>

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
    };
    for (const Case & c : cases) {
        EXPECT_EQ(wildcardMatch(c.text, c.pattern), c.result) << c.pattern << " on '" << c.text << "'";
    }
}

TEST(WildcardMatch, StarTakesAtLeastOneByteAndOnlyEndsAnEmptyTextAtTheEnd) {
    EXPECT_FALSE(wildcardMatch("", "*a"));
    EXPECT_FALSE(wildcardMatch("ab", "*ab"));   // the star takes the "a", the pattern needs another
    EXPECT_TRUE(wildcardMatch("a", "a*"));      // a text at its end matches a final star
    EXPECT_TRUE(wildcardMatch("x?y", "*?y"));  // the byte behind the star is compared literally
    EXPECT_FALSE(wildcardMatch("xzy", "*?y"));
}

// Any bytes in either argument: no read outside them (the sanitizer build watches), and the
// plain cases keep their meaning.
TEST(WildcardMatch, RandomBytesKeepTheInvariants) {
    std::mt19937 random(1234);
    const std::string alphabet = "*?ab.";
    auto randomText = [&](std::size_t maximum) {
        std::string text(random() % (maximum + 1), '\0');
        for (char & c : text) {
            c = random() % 5 == 0 ? static_cast<char>(random() % 256) : alphabet[random() % alphabet.size()];
        }
        return text;
    };
    for (int round = 0; round < 50000; ++round) {
        const std::string text = randomText(12);
        const std::string pattern = randomText(8);
        const bool matched = wildcardMatch(text, pattern);
        if (pattern.find_first_of("*?") == std::string::npos) {
            ASSERT_EQ(matched, text == pattern) << pattern << " on " << text;
        }
        if (pattern == "*") {
            ASSERT_TRUE(matched);
        }
        if (pattern.find('*') == std::string::npos && matched) {
            ASSERT_EQ(text.size(), pattern.size());
        }
    }
}

}  // namespace
