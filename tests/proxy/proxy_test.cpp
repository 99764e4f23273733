#include "proxy/proxy.h"
#include "proxy/resolver.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using ProxyResolver::Proxy;

std::string orNull(const char * part) {
    return part == nullptr ? "(null)" : part;
}

// scheme|user|password|host|port; the port is read like atoi and cut to 16 bits.
TEST(Proxy, SplitsSchemeCredentialsHostAndPort) {
    const std::pair<const char *, const char *> cases[] = {
        {"host:8080", "(null)|(null)|(null)|host|8080"},
        {"http://host:8080/x", "http|(null)|(null)|host|8080"},
        {"http://a:b@host:8080", "http|a|b|host|8080"},
        {"host", "(null)|(null)|(null)|host|0"},
        {"", "(null)|(null)|(null)||0"},
        {"a@host:1", "(null)|a|(null)|host|1"},
        {"a:@host:1", "(null)|a|(null)|host|1"},
        {"a:b:c@host", "(null)|a|b:c|host|0"},
        {"[::1]:3128", "(null)|(null)|(null)|[|0"},
        {"h:3128abc", "(null)|(null)|(null)|h|3128"},
        {"h:x", "(null)|(null)|(null)|h|0"},
        {"h:", "(null)|(null)|(null)|h|0"},
        {"h:65537", "(null)|(null)|(null)|h|1"},
        {"h:-1", "(null)|(null)|(null)|h|65535"},
        {"h:99999999999999999999", "(null)|(null)|(null)|h|65535"},
    };
    for (const auto & c : cases) {
        Proxy proxy;
        proxy.set(c.first);
        EXPECT_EQ(orNull(proxy.scheme()) + "|" + orNull(proxy.user()) + "|" + orNull(proxy.password()) + "|" +
                      orNull(proxy.host()) + "|" + std::to_string(proxy.port()),
                  c.second);
        EXPECT_EQ(std::string(proxy.URI()), c.first);
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
