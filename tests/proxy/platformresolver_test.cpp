#include "proxy/platformresolver.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "environment.h"
#include "logcapture.h"

namespace {

using ProxyResolver::PlatformResolver;
using Proxies = std::vector<std::string>;

// Scheme entries serve only their scheme, bare entries serve all; the bypass list tests the
// host alone, without user, port or path.
TEST(Parse, ProxyAndBypassTexts) {
    const struct {
        const char * uri;
        const char * proxy;
        const char * bypass;
        Proxies expected;
    } cases[] = {
        {"https://h/", "http=a:1;https=b:2", "", {"b:2"}},
        {"ftp://h/", "http=a:1;https=b:2", "", {}},
        {"ftp://h/", "a:1;b:2", "", {"a:1", "b:2"}},
        {"http://h/", "a:1 http=b:2", "", {"a:1", "b:2"}},
        {"HTTP://h/", "http=a:1", "", {}},
        {"http://h/", ";; a:1 ;", "", {"a:1"}},
        {"http://h/", "http=x=y", "", {"x=y"}},
        {"http://h/", "=a:1", "", {}},
        {"http://h/", "", "", {}},
        {"http://10.1.2.3:8080/x/y", "a:1", "10.*", {}},
        {"http://user:pw@web.corp.test:8080/", "a:1", "*.corp.test", {}},
        {"http://web.corp.test/", "a:1", "corp.test;other", {"a:1"}},
        {"http://intranet/", "a:1", "<local>", {}},
        {"http://intranet:8080/", "a:1", "x <local>", {}},
        {"http://web.corp.test/", "a:1", "<local>", {"a:1"}},
        // "@" is looked for in the whole text, also behind the path.
        {"http://example.test/a@10.1.2.3", "a:1", "10.*", {}},
    };
    corvane_test::LogCapture log;
    for (const auto & c : cases) {
        Proxies proxies{"earlier"};
        PlatformResolver::parse(c.uri, c.proxy, c.bypass, proxies);
        Proxies expected{"earlier"};
        expected.insert(expected.end(), c.expected.begin(), c.expected.end());
        EXPECT_EQ(proxies, expected) << c.uri << " " << c.proxy << " " << c.bypass;
    }
    EXPECT_EQ(log.count("", "WARN", ""), 0u);
}

TEST(Parse, UrlWithoutSchemeIsHttpWithAWarning) {
    corvane_test::LogCapture log;
    Proxies proxies;
    PlatformResolver::parse("web.corp.test:80/x", "http=a:1;https=b:2", "web", proxies);
    PlatformResolver::parse("web/x", "a:1", "web", proxies);
    EXPECT_EQ(proxies, Proxies({"a:1"}));
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "WARN",
                        "unable to determine scheme in 'web.corp.test:80/x', assuming 'http' scheme"),
              1u);
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "TRACE", "parse('web/x', 'a:1', 'web' )"), 1u);
}

// Stands for libproxy: records what it was asked and answers as told.
class FakeDiscovery : public ProxyResolver::IProxyDiscovery {
public:
    FakeDiscovery(Proxies answer, bool answers, Proxies & asked) : m_answer(std::move(answer)), m_answers(answers), m_asked(asked) {}
    bool getProxies(const std::string & uri, std::vector<std::string> & answers) override {
        m_asked.push_back(uri);
        answers = m_answer;
        return m_answers;
    }

private:
    Proxies m_answer;
    bool m_answers;
    Proxies & m_asked;
};

class EnvironmentMapping : public ::testing::Test {
protected:
    // The proxy text and bypass text for `uri`, discovery answering `answer` (or failing).
    std::string texts(const char * uri, Proxies answer = {"direct://"}, bool answers = true) {
        PlatformResolver resolver(std::make_unique<FakeDiscovery>(std::move(answer), answers, m_asked));
        std::string proxy;
        std::string bypass;
        resolver.resolve(uri, proxy, bypass);
        return proxy + " | " + bypass;
    }
    Proxies resolved(const char * uri, Proxies answer = {"direct://"}) {
        PlatformResolver resolver(std::make_unique<FakeDiscovery>(std::move(answer), true, m_asked));
        Proxies proxies;
        resolver.resolve(uri, proxies);
        return proxies;
    }

    corvane_test::ProxyEnvironment m_environment;
    Proxies m_asked;
};

TEST_F(EnvironmentMapping, VariablesBecomeSchemeEntriesAndNoProxyBecomesPatterns) {
    m_environment.set("http_proxy", "http://127.0.0.1:3128/");
    m_environment.set("https_proxy", "secure.corp.test:3129");
    m_environment.set("all_proxy", "http://user:pw@fallback:8080");
    m_environment.set("no_proxy", "localhost, .corp.test,10.*,example.com,192.168.1.7");
    EXPECT_EQ(texts("http://x/"), "http=127.0.0.1:3128;https=secure.corp.test:3129;user:pw@fallback:8080 | "
                                  "localhost;*.localhost;*.corp.test;10.*;example.com;*.example.com;192.168.1.7");
    EXPECT_TRUE(m_asked.empty());  // static settings alone: no discovery
}

// What no_proxy covers goes direct before the proxy text and before discovery is asked.
TEST_F(EnvironmentMapping, NoProxyGoesDirectWithoutAskingDiscovery) {
    m_environment.set("http_proxy", "http://127.0.0.1:3128");
    m_environment.set("https_proxy", "pac+http://127.0.0.1:9/proxy.pac");
    m_environment.set("no_proxy", "localhost,.corp.test,[::1]:8080");  // the rules: the no_proxy table
    for (const char * uri : {"http://localhost:8080/", "http://web.corp.test/", "http://[::1]:8080/"}) {
        EXPECT_EQ(resolved(uri, {"http://pac:1"}), Proxies()) << uri;
    }
    EXPECT_TRUE(m_asked.empty());
    for (const char * uri : {"https://[::1]:8081/", "http://notcorp.test/"}) {
        EXPECT_EQ(resolved(uri, {"http://pac:1"}), Proxies({"pac:1"})) << uri;
    }
}

TEST_F(EnvironmentMapping, LowerCaseWinsEvenWhenEmpty) {
    m_environment.set("HTTP_PROXY", "upper:1");
    m_environment.set("HTTPS_PROXY", "upper:2");
    m_environment.set("https_proxy", "lower:2");
    m_environment.set("NO_PROXY", "upper.test");
    EXPECT_EQ(texts("http://x/"), "http=upper:1;https=lower:2 | upper.test;*.upper.test");
    m_environment.set("http_proxy", "");
    EXPECT_EQ(texts("http://x/"), "https=lower:2 | upper.test;*.upper.test");
}

TEST_F(EnvironmentMapping, GarbageIsLeftOutWithAWarning) {
    corvane_test::LogCapture log;
    m_environment.set("http_proxy", "a:1;b:2");
    m_environment.set("https_proxy", "socks5://s:1080");
    m_environment.set("all_proxy", "x=y:1");
    m_environment.set("no_proxy", std::string("ok.test,\xff\xfe,\x01"));
    EXPECT_EQ(texts("http://x/"), " | ok.test;*.ok.test");
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "WARN",
                        "ignoring https_proxy='socks5://s:1080': not the address of an http proxy"),
              1u);
    EXPECT_EQ(log.countContaining("ProxyResolver.PlatformResolver", "ignoring"), 5u);
}

TEST_F(EnvironmentMapping, PacUrlAsksDiscoveryWhoseProxiesReplaceTheStaticOnes) {
    corvane_test::LogCapture log("INFO");
    m_environment.set("http_proxy", "pac+http://127.0.0.1:9/proxy.pac");
    m_environment.set("https_proxy", "static:1");
    m_environment.set("no_proxy", ".corp.test");
    EXPECT_EQ(texts("http://x/", {"http://a:1", "socks://s:2", "http://b:2/", "direct://", "http://late:3"}),
              "a:1;b:2 | *.corp.test");
    EXPECT_EQ(m_asked, Proxies({"http://x/"}));
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "INFO", "Enable PAC script at 'http://127.0.0.1:9/proxy.pac'"), 1u);
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "INFO",
                        "Retrieved internet explorer settings: AutoDetect=False AutoConfigUrl='http://127.0.0.1:9/proxy.pac' "
                        "Proxy='https=static:1' ProxyBypass='*.corp.test'"),
              1u);
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "INFO",
                        "Using Proxy='a:1;b:2' and ProxyBypass='*.corp.test' for uri='http://x/'"),
              1u);
    // An answer of "direct" beats the static proxy.
    EXPECT_EQ(texts("https://x/", {"direct://"}), " | ");
}

TEST_F(EnvironmentMapping, FailedDiscoveryKeepsTheStaticSettings) {
    corvane_test::LogCapture log;
    m_environment.set("http_proxy", "wpad://");
    m_environment.set("https_proxy", "static:1");
    m_environment.set("all_proxy", "pac+http://127.0.0.1:9/ignored.pac");
    EXPECT_EQ(texts("https://x/", {}, false), "https=static:1 | ");
    EXPECT_EQ(log.countContaining("ProxyResolver.PlatformResolver", "ignored.pac"), 1u);  // the warning alone
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "INFO", "Enable autodetect of WPAD / PAC through DHCP and DNS"), 1u);
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "ERROR", "px_proxy_factory_get_proxies: error: no answer for 'https://x/'"), 1u);
}

TEST_F(EnvironmentMapping, NoVariableAsksTheDesktopSettings) {
    EXPECT_EQ(texts("http://x/", {"http://desk:8080"}), "desk:8080 | ");
    EXPECT_EQ(m_asked.size(), 1u);
}

TEST_F(EnvironmentMapping, BadUrlAndUnreadableSettingsThrow) {
    PlatformResolver resolver(std::make_unique<FakeDiscovery>(Proxies(), true, m_asked));
    Proxies proxies;
    const char * const badUris[] = {"http://h/\xff", "http://h/\xc0\xaf", "http://h/\xed\xa0\x80", "http://h/\xe2\x82", nullptr};
    for (const char * uri : badUris) {
        try {
            resolver.resolve(uri, proxies);
            ADD_FAILURE() << "no exception";
        } catch (const ProxyResolver::Exception & e) {
            EXPECT_EQ(e.code(), -2);
            EXPECT_STREQ(e.what(), "error in utf8/unicode conversion");
        }
    }
    EXPECT_NO_THROW(resolver.resolve("http://h/\xc3\xa9\xf0\x9f\x98\x80", proxies));

    PlatformResolver unreadable(nullptr);
    try {
        unreadable.resolve("http://h/", proxies);
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error & e) {
        EXPECT_STREQ(e.what(), "unable to get internet explorer settings");
    }
    EXPECT_TRUE(m_asked.size() == 1u && proxies.empty());
}

}  // namespace
