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

}  // namespace
