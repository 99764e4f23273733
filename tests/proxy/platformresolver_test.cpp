#include "proxy/platformresolver.h"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>

#include "environment.h"
#include "logcapture.h"

namespace {

using ProxyResolver::PlatformResolver;
using Proxies = std::vector<std::string>;

Proxies parsed(const char * uri, const std::string & proxy, const std::string & bypass) {
    Proxies proxies;
    PlatformResolver::parse(uri, proxy, bypass, proxies);
    return proxies;
}

TEST(Parse, SchemeEntriesServeOnlyTheirSchemeAndBareEntriesServeAll) {
    EXPECT_EQ(parsed("https://h/", "http=a:1;https=b:2", ""), Proxies({"b:2"}));
    EXPECT_EQ(parsed("ftp://h/", "http=a:1;https=b:2", ""), Proxies());
    EXPECT_EQ(parsed("ftp://h/", "a:1;b:2", ""), Proxies({"a:1", "b:2"}));
    EXPECT_EQ(parsed("http://h/", "a:1 http=b:2", ""), Proxies({"a:1", "b:2"}));
    EXPECT_EQ(parsed("HTTP://h/", "http=a:1", ""), Proxies());
    EXPECT_EQ(parsed("http://h/", ";; a:1 ;", ""), Proxies({"a:1"}));
    EXPECT_EQ(parsed("http://h/", "http=x=y", ""), Proxies({"x=y"}));
    EXPECT_EQ(parsed("http://h/", "=a:1", ""), Proxies());
}

TEST(Parse, BypassTestsTheHostAloneWithoutUserPortOrPath) {
    EXPECT_EQ(parsed("http://10.1.2.3:8080/x/y", "a:1", "10.*"), Proxies());
    EXPECT_EQ(parsed("http://user:pw@web.corp.test:8080/", "a:1", "*.corp.test"), Proxies());
    EXPECT_EQ(parsed("http://web.corp.test/", "a:1", "corp.test;other"), Proxies({"a:1"}));
    EXPECT_EQ(parsed("http://intranet/", "a:1", "<local>"), Proxies());
    EXPECT_EQ(parsed("http://intranet:8080/", "a:1", "x <local>"), Proxies());
    EXPECT_EQ(parsed("http://web.corp.test/", "a:1", "<local>"), Proxies({"a:1"}));
    // "@" is looked for in the whole text, also behind the path.
    EXPECT_EQ(parsed("http://example.test/a@10.1.2.3", "a:1", "10.*"), Proxies());
}

TEST(Parse, AppendsAndLeavesAnyEarlierContent) {
    Proxies proxies{"earlier"};
    PlatformResolver::parse("http://h/", "a:1", "", proxies);
    PlatformResolver::parse("http://h/", "a:1", "h", proxies);
    EXPECT_EQ(proxies, Proxies({"earlier", "a:1"}));
}

TEST(Parse, UrlWithoutSchemeIsHttpWithAWarning) {
    corvane_test::LogCapture log;
    EXPECT_EQ(parsed("web.corp.test:80/x", "http=a:1;https=b:2", "web"), Proxies({"a:1"}));
    EXPECT_EQ(parsed("web/x", "a:1", "web"), Proxies());
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "WARN",
                        "unable to determine scheme in 'web.corp.test:80/x', assuming 'http' scheme"),
              1u);
    EXPECT_EQ(log.count("ProxyResolver.PlatformResolver", "TRACE", "parse('web/x', 'a:1', 'web' )"), 1u);
}

TEST(Parse, EmptyTextsGiveNoProxiesAndNoWarning) {
    corvane_test::LogCapture log;
    EXPECT_EQ(parsed("http://h/", "", ""), Proxies());
    EXPECT_EQ(parsed("", "", ""), Proxies());  // the empty URL does warn: it has no scheme
    EXPECT_EQ(log.count("", "WARN", ""), 1u);
}

// Any bytes in all three texts: no fault, no read outside them, and every proxy that comes
// out is a piece of the proxy text without separators.
TEST(Parse, RandomTextsNeverFault) {
    std::mt19937 random(42);
    const std::string alphabet = "*?.;: /@=<>localhtp";
    auto randomText = [&](std::size_t maximum) {
        std::string text(random() % (maximum + 1), '\0');
        for (char & c : text) {
            c = random() % 6 == 0 ? static_cast<char>(random() % 256) : alphabet[random() % alphabet.size()];
        }
        return text;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::string uri = randomText(20);
        const std::string proxy = randomText(20);
        Proxies proxies;
        PlatformResolver::parse(uri.c_str(), proxy, randomText(16), proxies);
        for (const std::string & entry : proxies) {
            ASSERT_EQ(entry.find_first_of("; "), std::string::npos);
            ASSERT_NE(proxy.find(entry), std::string::npos);
        }
    }
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

TEST_F(EnvironmentMapping, NoProxyOfAUsualShellSession) {
    m_environment.set("http_proxy", "http://127.0.0.1:3128");
    m_environment.set("https_proxy", "http://127.0.0.1:3129");
    m_environment.set("no_proxy", "localhost,.corp.test,10.*");
    EXPECT_EQ(resolved("http://example.test/"), Proxies({"127.0.0.1:3128"}));
    EXPECT_EQ(resolved("https://example.test:443/"), Proxies({"127.0.0.1:3129"}));
    EXPECT_EQ(resolved("http://localhost:8080/"), Proxies());
    EXPECT_EQ(resolved("http://web.corp.test/"), Proxies());
    EXPECT_EQ(resolved("http://corp.test/"), Proxies());  // a leading dot changes nothing
    EXPECT_EQ(resolved("http://notcorp.test/"), Proxies({"127.0.0.1:3128"}));
    EXPECT_EQ(resolved("http://10.0.0.1/"), Proxies());
    EXPECT_EQ(resolved("ftp://example.test/"), Proxies());
}

// What no_proxy covers goes direct before the proxy text and before discovery is asked.
TEST_F(EnvironmentMapping, NoProxyCoversNamesBelowItAndAddressRangesWithoutDiscovery) {
    m_environment.set("http_proxy", "http://127.0.0.1:3128");
    m_environment.set("https_proxy", "pac+http://127.0.0.1:9/proxy.pac");
    m_environment.set("no_proxy", ".Example.com,127.0.0.0/8,[::1]:8080");
    EXPECT_EQ(resolved("http://example.com/"), Proxies());
    EXPECT_EQ(resolved("http://a.b.EXAMPLE.com/"), Proxies());
    EXPECT_EQ(resolved("http://127.3.2.1:80/"), Proxies());
    EXPECT_EQ(resolved("http://[::1]:8080/"), Proxies());
    EXPECT_EQ(resolved("https://www.example.com/", {"http://pac:1"}), Proxies());
    EXPECT_TRUE(m_asked.empty());
    EXPECT_EQ(resolved("https://[::1]:8081/", {"http://pac:1"}), Proxies({"pac:1"}));
    EXPECT_EQ(resolved("https://notexample.com/", {"http://pac:1"}), Proxies({"pac:1"}));
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

TEST_F(EnvironmentMapping, RandomVariablesNeverFaultNorSplitEntries) {
    std::mt19937 random(7);
    const std::string alphabet = "hp:/.*;, =+ac";
    for (int round = 0; round < 300; ++round) {
        for (const char * name : corvane_test::ProxyEnvironment::kNames) {
            std::string value(random() % 16, 'x');
            for (char & c : value) {
                c = random() % 4 == 0 ? static_cast<char>(1 + random() % 255) : alphabet[random() % alphabet.size()];
            }
            m_environment.set(name, value);
        }
        for (const std::string & proxy : resolved("http://web.corp.test/")) {
            ASSERT_EQ(proxy.find_first_of("; "), std::string::npos) << proxy;
        }
    }
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
