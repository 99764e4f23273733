#include "proxy/noproxy.h"

#include <gtest/gtest.h>


namespace {

using ProxyResolver::NoProxyList;

struct Case {
    const char * noProxy;
    const char * url;
    bool direct;
};

// The rules Linux users know from curl: a name covers itself and the names below it at a
// label boundary, a leading dot changes nothing, case does not count, "*" covers all,
// addresses match as addresses or CIDR ranges, and a port narrows an entry to that port.
const Case kCases[] = {
    {"example.com", "http://example.com/", true},
    {"example.com", "http://a.b.example.com/x", true},
    {"example.com", "http://notexample.com/", false},
    {"example.com", "http://example.com.evil.test/", false},
    {".example.com", "http://example.com/", true},
    {".example.com", "https://www.example.com:8443/", true},
    {"Example.COM", "http://WWW.example.com/", true},
    {"example.com.", "http://www.example.com./", true},
    {"*", "http://anything.test/", true},
    {"a.test, *", "https://b.test/", true},
    {"a.test,,  b.test", "http://b.test/", true},
    {"localhost", "http://localhost:8080/", true},
    {"localhost", "http://127.0.0.1/", false},
    {"127.0.0.0/8", "http://127.1.2.3:9/", true},
    {"127.0.0.0/8", "http://128.0.0.1/", false},
    {"10.0.0.0/33", "http://10.0.0.1/", false},
    {"192.168.1.7", "http://192.168.1.7/", true},
    {"192.168.1.7", "http://192.168.1.70/", false},
    {"192.168.0.0/16", "http://example.test/", false},
    {"::1", "http://[::1]:8080/", true},
    {"fe80::/10", "http://[FE80::1234]/", true},
    {"fe80::/10", "http://[fec0::1]/", false},
    {"2001:db8::/32", "http://192.0.2.1/", false},
    {"example.com:8080", "http://example.com:8080/", true},
    {"example.com:8080", "http://example.com/", false},
    {"example.com:443", "https://www.example.com/", true},
    {"[::1]:8080", "http://[::1]:8080/", true},
    {"[::1]:8080", "http://[::1]:8081/", false},
    {"10.*", "http://10.1.2.3:8080/", true},
    {"*.corp.test", "http://web.CORP.test/", true},
    {"*.corp.test", "http://corp.test/", false},
    {"user.test", "http://name:pw@user.test/", true},
    {"example.com:x", "http://example.com/", false},
    {"", "http://example.com/", false},
};

TEST(NoProxyList, FollowsTheRulesOfCurl) {
    for (const Case & c : kCases) {
        EXPECT_EQ(!NoProxyList(c.noProxy).match(c.url).empty(), c.direct) << "no_proxy=" << c.noProxy << " url=" << c.url;
    }
}

}  // namespace
