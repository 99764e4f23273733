// The "tcp" and "http" transports with and without proxy traversal, through the channel
// factory: a real proxy (tinyproxy) between the channel and a loopback echo server.
#include <gtest/gtest.h>

#include <string>

#include "childprocess.h"
#include "echoserver.h"
#include "environment.h"
#include "expect.h"
#include "framework/channelfactory.h"
#include "logcapture.h"
#include "recordinghandler.h"
#include "scriptedproxy.h"
#include "socketio/selectreactor.h"
#include "testacceptor.h"
#include "tinyproxy.h"

namespace {

using corvane_test::RecordingHandler;
using corvane_test::waitFor;

const char * const kConnectLog = "corvane.socketio.ProxySocketConnect";

class ProxyTransport : public ::testing::Test {
protected:
    void SetUp() override {
        factory = new net::ChannelFactory(net::SocketOptions());
        reactor = new socketio::SelectReactor(5000, 300000, 5);
        reactor->startProcessing();
    }
    void TearDown() override {
        reactor->stopProcessing();
        factory = nullptr;
        reactor = nullptr;
    }
    // Opens a channel, sends a line and waits for its echo; returns the channel's peer.
    std::string echoOver(const std::string & uri, const char * options) {
        Common::SmartPtr<RecordingHandler> handler(new RecordingHandler);
        Common::SmartPtr<net::IChannel> channel(
            factory->openChannel(reactor.get(), uri.c_str(), handler.get(), options));
        handler->queue("echo me");
        EXPECT_TRUE(waitFor([&] { return handler->receivedSize() >= 7; })) << uri;
        EXPECT_EQ(handler->received(), "echo me");
        std::string peer = channel->getPeerURI();
        channel->close();
        return peer;
    }

    corvane_test::ProxyEnvironment environment;
    corvane_test::LogCapture log{"INFO"};
    Common::SmartPtr<net::IChannelFactory> factory;
    Common::SmartPtr<socketio::SelectReactor> reactor;
};

// "http" goes through the proxy by default, "tcp" only with EnableProxy exactly "true"; the
// resolver is asked for those two alone.
TEST_F(ProxyTransport, TcpWithEnableProxyAndHttpByDefaultTunnelThroughTinyproxy) {
    corvane_test::Tinyproxy proxy;
    ASSERT_TRUE(proxy.ready());
    environment.set("http_proxy", "http://" + proxy.address());
    environment.set("all_proxy", proxy.address());
    corvane_test::EchoServer target;
    const std::string authority = "127.0.0.1:" + std::to_string(target.port());
    const struct {
        const char * scheme;
        const char * options;
        bool proxied;
    } cases[] = {
        {"tcp://", "EnableProxy=true", true},  {"http://", nullptr, true},
        {"tcp://", nullptr, false},            {"tcp://", "EnableProxy=TRUE", false},
        {"http://", "EnableProxy=false", false}, {"http://", "EnableProxy=TRUE", false},
    };
    for (const auto & c : cases) {
        EXPECT_EQ(echoOver(c.scheme + authority, c.options), "tcp://" + (c.proxied ? proxy.address() : authority))
            << c.scheme << " " << (c.options != nullptr ? c.options : "(none)");
    }
    EXPECT_TRUE(waitFor([&] { return proxy.logged("): CONNECT " + authority) == 2; }));
    EXPECT_EQ(log.countContaining(kConnectLog, "Resolving proxy information for "), 2u);
    EXPECT_EQ(log.count(kConnectLog, "INFO", "initiating connection with proxy '" + proxy.address() + "'"), 2u);
    EXPECT_EQ(log.count(kConnectLog, "INFO", "Connecting directly"), 0u);
    EXPECT_EQ(target.accepted(), 6);
}

TEST_F(ProxyTransport, HttpWithoutAPortAsksForPort80) {
    corvane_test::ScriptedProxy proxy({{{{"HTTP/1.1 200 Connection established\r\n\r\n"}}}});
    environment.set("http_proxy", proxy.address());
    EXPECT_EQ(echoOver("http://127.0.0.1", ""), "tcp://" + proxy.address());
    ASSERT_EQ(proxy.requests().size(), 1u);
    EXPECT_EQ(proxy.requests()[0][0].rfind("CONNECT 127.0.0.1:80 HTTP/1.1\r\nHost: 127.0.0.1:80\r\n", 0), 0u);
}

// A WebSocket channel asks the resolver as "http" and tunnels through the proxy like any other.
TEST_F(ProxyTransport, WsWithEnableProxyTunnelsThroughTinyproxyToAWebSocketServer) {
    corvane_test::Tinyproxy proxy;
    ASSERT_TRUE(proxy.ready());
    environment.set("http_proxy", proxy.address());
    Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
    // A ws server given port 0 would take port 80.
    const std::string authority = "127.0.0.1:" + std::to_string(corvane_test::FreeLoopbackPort());
    Common::SmartPtr<net::IChannelServer> server(
        factory->startChannelServer(reactor.get(), ("ws://" + authority).c_str(), acceptor.get(), ""));
    echoOver("ws://" + authority, "EnableProxy=true");
    EXPECT_TRUE(waitFor([&] { return proxy.logged("): CONNECT " + authority) == 1; }));
    EXPECT_EQ(log.count(kConnectLog, "INFO",
                        "Resolving proxy information for 'ws://" + authority + "' using 'http://" + authority + "'"),
              1u);
    EXPECT_EQ(log.count(kConnectLog, "INFO", "Connecting directly"), 0u);
    server->close();
    for (const auto & channel : acceptor->channels) {
        channel->close();
    }
}

}  // namespace
