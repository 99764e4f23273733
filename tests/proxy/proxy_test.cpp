#include "proxy/proxy.h"
#include "proxy/resolver.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

namespace {

using ProxyResolver::Proxy;

Proxy split(const std::string & text) {
    Proxy proxy;
    proxy.set(text);
    return proxy;
}

std::string orNull(const char * part) {
    return part == nullptr ? "(null)" : part;
}

std::string parts(const std::string & text) {
    Proxy proxy = split(text);
    return orNull(proxy.scheme()) + "|" + orNull(proxy.user()) + "|" + orNull(proxy.password()) + "|" +
           orNull(proxy.host()) + "|" + std::to_string(proxy.port());
}

TEST(Proxy, SplitsSchemeCredentialsHostAndPort) {
    EXPECT_EQ(parts("host:8080"), "(null)|(null)|(null)|host|8080");
    EXPECT_EQ(parts("http://host:8080/x"), "http|(null)|(null)|host|8080");
    EXPECT_EQ(parts("http://a:b@host:8080"), "http|a|b|host|8080");
    EXPECT_EQ(parts("host"), "(null)|(null)|(null)|host|0");
    EXPECT_EQ(parts(""), "(null)|(null)|(null)||0");
    EXPECT_EQ(parts("a@host:1"), "(null)|a|(null)|host|1");
    EXPECT_EQ(parts("a:@host:1"), "(null)|a|(null)|host|1");
    EXPECT_EQ(parts("a:b:c@host"), "(null)|a|b:c|host|0");
    EXPECT_EQ(parts("[::1]:3128"), "(null)|(null)|(null)|[|0");
    EXPECT_STREQ(split("http://a:b@host:8080/x").URI(), "http://a:b@host:8080/x");
}

TEST(Proxy, PortIsReadLikeAtoiAndCutTo16Bits) {
    EXPECT_EQ(split("h:3128abc").port(), 3128);
    EXPECT_EQ(split("h:x").port(), 0);
    EXPECT_EQ(split("h:").port(), 0);
    EXPECT_EQ(split("h:65537").port(), 1);
    EXPECT_EQ(split("h:-1").port(), 65535);
    EXPECT_EQ(split("h:99999999999999999999").port(), 65535);
}

// Any bytes but NUL, which a text at the interface cannot hold: no read outside the text,
// the text kept as it is, the host taken from it.
TEST(Proxy, RandomTextsSplitWithoutFault) {
    std::mt19937 random(6);
    const std::string alphabet = ":/@ab1";
    for (int round = 0; round < 20000; ++round) {
        std::string text(random() % 24, '\0');
        for (char & c : text) {
            c = random() % 4 == 0 ? static_cast<char>(1 + random() % 255) : alphabet[random() % alphabet.size()];
        }
        Proxy proxy = split(text);
        ASSERT_EQ(std::string(proxy.URI()), text);
        ASSERT_NE(text.find(proxy.host()), std::string::npos);
    }
}

class FakePlatform : public ProxyResolver::IPlatformResolver {
public:
    explicit FakePlatform(std::vector<std::string> answer, bool fail = false) : m_answer(std::move(answer)), m_fail(fail) {}
    void resolve(const char *, std::vector<std::string> & proxies) override {
        if (m_fail) {
            throw std::runtime_error("unable to get internet explorer settings");
        }
        proxies.insert(proxies.end(), m_answer.begin(), m_answer.end());
    }

private:
    std::vector<std::string> m_answer;
    bool m_fail;
};

TEST(Resolver, ResultHoldsThePlatformsProxiesInOrder) {
    ProxyResolver::Resolver resolver(new FakePlatform({"b:2", "http://a:1", ""}));
    std::unique_ptr<ProxyResolver::IResult> result(resolver.resolve("http://example.test/"));
    EXPECT_STREQ(result->URI(), "http://example.test/");
    ASSERT_EQ(result->proxyCount(), 3u);
    EXPECT_STREQ(result->proxy(0).URI(), "b:2");
    EXPECT_STREQ(result->proxy(1).host(), "a");
    EXPECT_STREQ(result->proxy(2).host(), "");

    ProxyResolver::Resolver direct(new FakePlatform({}));
    result.reset(direct.resolve("http://example.test/"));
    EXPECT_EQ(result->proxyCount(), 0u);
}

// The sanitizer build shows a leaked Result or platform resolver.
TEST(Resolver, PlatformFailureReachesTheCallerWithoutLeak) {
    ProxyResolver::Resolver resolver(new FakePlatform({}, true));
    EXPECT_THROW(resolver.resolve("http://example.test/"), std::runtime_error);
}

}  // namespace
