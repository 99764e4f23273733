#include "corvane/uri.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using net::URI;

TEST(URI, ParsesTheFormsHostsWrite) {
    struct Case {
        const char * text;
        const char * scheme;
        const char * host;
        unsigned short port;
        const char * path;
        const char * query;
    };
    const Case cases[] = {
        {"tcp://", "tcp", "", 0, "", ""},
        {"tcp://127.0.0.1", "tcp", "127.0.0.1", 0, "", ""},
        {"tcp://127.0.0.1:8080", "tcp", "127.0.0.1", 8080, "", ""},
        {"tcp://:0", "tcp", "", 0, "", ""},
        {"ws://localhost:9002/chat?room=a&x=1", "ws", "localhost", 9002, "/chat", "room=a&x=1"},
        {"https://[::1]:443/", "https", "::1", 443, "/", ""},
        {"tcp://[::]:65535", "tcp", "::", 65535, "", ""},
        {"tcp://[fe80::1%25eth0]:80", "tcp", "fe80::1%eth0", 80, "", ""},
        {"tcp://host:", "tcp", "host", 0, "", ""},
        {"http://example.com?q", "http", "example.com", 0, "", "q"},
        {"svn+ssh://a.b-c_d~e", "svn+ssh", "a.b-c_d~e", 0, "", ""},
        {"TCP://X", "TCP", "X", 0, "", ""},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.text);
        URI uri = URI::FromString(c.text);
        EXPECT_EQ(uri.getScheme(), c.scheme);
        EXPECT_EQ(uri.getHost(), c.host);
        EXPECT_EQ(uri.getPort(), c.port);
        EXPECT_EQ(uri.getPath(), c.path);
        EXPECT_EQ(uri.getQuery(), c.query);
        EXPECT_EQ(URI::FromString(uri.ToString()), uri);
    }
    URI full = URI::FromString("http://user:pw@h:1/p?q#frag");
    EXPECT_EQ(full.getUserInfo(), "user:pw");
    EXPECT_EQ(full.getFragment(), "frag");
    EXPECT_EQ(full.ToString(), "http://user:pw@h:1/p?q#frag");
}

TEST(URI, RefusesMalformedTextWithAClearMessage) {
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"", "expected scheme://host:port"},
        {"127.0.0.1:80", "expected scheme://host:port"},
        {"://host", "the scheme must start with a letter"},
        {"1tcp://host", "the scheme must start with a letter"},
        {"tc p://host", "space or a control character"},
        {std::string("tcp://ho\0st", 11), "space or a control character"},
        {"tcp://host:65536", "the port must be a number from 0 to 65535"},
        {"tcp://host:123456", "the port must be a number from 0 to 65535"},
        {"tcp://host:8o", "the port must be a number from 0 to 65535"},
        {"tcp://::1:80", "an IPv6 address must stand in brackets"},
        {"tcp://[::1:80", "lacks its closing ']'"},
        {"tcp://[::g]:80", "not a valid IPv6 address"},
        {"tcp://[::1]x", "unexpected text after ']'"},
        {"tcp://a@b@c", "more than one '@'"},
        {"tcp://h\xc3\xa9st", "invalid character in the host"},
        {"tcp://[fe80::1%]", "an empty IPv6 zone"},
    };
    for (const auto & c : bad) {
        SCOPED_TRACE(c.first);
        try {
            URI::FromString(c.first);
            ADD_FAILURE() << "parsed";
        } catch (const net::URIException & e) {
            EXPECT_NE(std::string(e.what()).find(c.second), std::string::npos) << e.what();
            EXPECT_EQ(std::string(e.what()).find('\0'), std::string::npos);
        }
    }
}

TEST(URI, AnyInterfaceHosts) {
    for (const char * text : {"tcp://", "tcp://*:1", "tcp://0.0.0.0:1", "tcp://[::]:1", "tcp://[0:0::0]"}) {
        EXPECT_TRUE(URI::FromString(text).hostIsAnyInterface()) << text;
    }
    for (const char * text : {"tcp://127.0.0.1", "tcp://[::1]", "tcp://localhost", "tcp://0.0.0.1"}) {
        EXPECT_FALSE(URI::FromString(text).hostIsAnyInterface()) << text;
    }
}

TEST(URI, UnresolvableHostNamesTheHost) {
    URI::SocketAddress addresses;
    try {
        URI::FromString("tcp://no-such-host.invalid:80").ToSockAddress(addresses, true);
        ADD_FAILURE() << "resolved";
    } catch (const net::URIException & e) {
        EXPECT_NE(std::string(e.what()).find("cannot resolve 'no-such-host.invalid' port 80"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(addresses.get(), nullptr);
}

}  // namespace
