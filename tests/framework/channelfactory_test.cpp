#include "framework/channelfactory.h"

#include <gtest/gtest.h>

#include <string>

#include "corvane/exception.h"
#include "expect.h"
#include "logcapture.h"

namespace {

using corvane_test::thrownText;

// A protocol that records what the factory forwards to it.
class RecordingProtocol : public net::ITransportProtocol {
public:
    explicit RecordingProtocol(const char * name, int * destroyed = nullptr) : m_name(name), m_destroyed(destroyed) {}
    ~RecordingProtocol() override {
        if (m_destroyed != nullptr) {
            ++*m_destroyed;
        }
    }
    const char * getName() const override { return m_name; }
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler *,
                                const char * options) override {
        lastReactor = reactor;
        lastUri = uri;
        lastOptions = options != nullptr ? options : "<null>";
        return nullptr;
    }
    net::IChannelServer * startChannelServer(net::IReactor *, const char * uri, net::IChannelAcceptor *,
                                             const char *) override {
        lastUri = std::string("server:") + uri;
        return nullptr;
    }

    net::IReactor * lastReactor = nullptr;
    std::string lastUri;
    std::string lastOptions;

private:
    const char * m_name;
    int * m_destroyed;
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
        factory->registerTransportProtocol(new RecordingProtocol("a", &destroyed));
        EXPECT_EQ(thrownText([&] { factory->registerTransportProtocol(new RecordingProtocol("tcp", &destroyed)); }),
                  "transport protocol 'tcp' already registered");
        EXPECT_EQ(destroyed, 1) << "the refused protocol must not leak";
        EXPECT_EQ(factory->getTransportProtocol("tcp"), first.get());
    }
    EXPECT_EQ(destroyed, 2);
    EXPECT_EQ(log.count("corvane.net.InternalException", "WARN", "transport protocol 'tcp' already registered"), 1u);
    EXPECT_EQ(log.count("corvane.net.ChannelFactory", "TRACE", "registerTransportProtocol('tcp')"), 2u)
        << "the factory's own registration and the refused one";
}

TEST(ChannelFactory, ForwardsArgumentsUnchangedToTheSchemesProtocol) {
    Common::SmartPtr<net::ChannelFactory> factory(new net::ChannelFactory(net::SocketOptions()));
    Common::SmartPtr<RecordingProtocol> ws(new RecordingProtocol("ws"));
    // The factory's own "ws" makes room for the recording one.
    factory->unregisterTransportProtocol("ws");
    factory->registerTransportProtocol(ws.get());
    auto * reactor = reinterpret_cast<net::IReactor *>(0x1234);
    factory->openChannel(reactor, "ws://h:1/x?y", nullptr, "a=b");
    EXPECT_EQ(ws->lastReactor, reactor);
    EXPECT_EQ(ws->lastUri, "ws://h:1/x?y");
    EXPECT_EQ(ws->lastOptions, "a=b");
    factory->startChannelServer(reactor, "ws://:9", nullptr, nullptr);
    EXPECT_EQ(ws->lastUri, "server:ws://:9");
}

}  // namespace
