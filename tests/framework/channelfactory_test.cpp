#include "framework/channelfactory.h"

#include <gtest/gtest.h>

#include <string>

#include "corvane/exception.h"
#include "expect.h"
#include "logcapture.h"

namespace {

using corvane_test::thrownText;

// A protocol that counts its destruction.
class CountedProtocol : public net::ITransportProtocol {
public:
    CountedProtocol(const char * name, int & destroyed) : m_name(name), m_destroyed(destroyed) {}
    ~CountedProtocol() override { ++m_destroyed; }
    const char * getName() const override { return m_name; }
    net::IChannel * openChannel(net::IReactor *, const char *, net::IChannelHandler *, const char *) override {
        return nullptr;
    }
    net::IChannelServer * startChannelServer(net::IReactor *, const char *, net::IChannelAcceptor *,
                                             const char *) override {
        return nullptr;
    }

private:
    const char * m_name;
    int & m_destroyed;
};

TEST(ChannelFactory, LookupIsExactAndUnknownOrUnregisteredSchemesAreNotRecognized) {
    corvane_test::LogCapture log;
    Common::SmartPtr<net::ChannelFactory> factory(new net::ChannelFactory(net::SocketOptions()));
    for (const char * scheme : {"tcp", "http", "https", "ssl", "ws", "wss"}) {
        ASSERT_NE(factory->getTransportProtocol(scheme), nullptr) << scheme;
        EXPECT_STREQ(factory->getTransportProtocol(scheme)->getName(), scheme);
    }
    EXPECT_EQ(factory->getTransportProtocol("TCP"), nullptr);
    factory->unregisterTransportProtocol("tcp");
    EXPECT_EQ(factory->getTransportProtocol("tcp"), nullptr);
    EXPECT_EQ(thrownText([&] { factory->openChannel(nullptr, "tcp://127.0.0.1:1", nullptr, nullptr); }),
              "transport protocol 'tcp' not recognized");
    EXPECT_EQ(thrownText([&] { factory->startChannelServer(nullptr, "gopher://h", nullptr, nullptr); }),
              "transport protocol 'gopher' not recognized");
    EXPECT_THROW(factory->openChannel(nullptr, "not a uri", nullptr, nullptr), net::URIException);

    log.clear();
    factory->unregisterTransportProtocol("nope");
    EXPECT_EQ(log.count("corvane.net.ChannelFactory", "DEBUG", "unregisterTransportProtocol: 'nope' not found, ignoring it"), 1u);
    EXPECT_EQ(log.count("", "WARN", ""), 0u);
}

// A refused protocol is released at once, the registered ones with the factory.
TEST(ChannelFactory, DuplicateRegistrationThrowsAndKeepsTheFirst) {
    corvane_test::LogCapture log;
    int destroyed = 0;
    {
        Common::SmartPtr<net::ChannelFactory> factory(new net::ChannelFactory(net::SocketOptions()));
        Common::SmartPtr<net::ITransportProtocol> first(factory->getTransportProtocol("tcp"));
        factory->registerTransportProtocol(new CountedProtocol("a", destroyed));
        EXPECT_EQ(thrownText([&] { factory->registerTransportProtocol(new CountedProtocol("tcp", destroyed)); }),
                  "transport protocol 'tcp' already registered");
        EXPECT_EQ(destroyed, 1) << "the refused protocol must not leak";
        EXPECT_EQ(factory->getTransportProtocol("tcp"), first.get());
    }
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(log.count("corvane.net.InternalException", "WARN", "transport protocol 'tcp' already registered"), 1u);
    EXPECT_EQ(log.count("corvane.net.ChannelFactory", "TRACE", "registerTransportProtocol('tcp')"), 2u)
        << "the factory's own registration and the refused one";
}

}  // namespace
