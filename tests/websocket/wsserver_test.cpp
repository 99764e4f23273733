// The "ws" and "wss" transports against python3-websockets: its client against the WebSocket
// servers (1 MiB echoed in mixed messages, both close handshakes), the clients of both
// protocols and the layered client against its server, plain HTTP and a silent client on a
// server port.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "childprocess.h"
#include "expect.h"
#include "logcapture.h"
#include "pattern.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "testacceptor.h"
#include "../tls/tlsmaterial.h"
#include "socketio/selectreactor.h"
#include "websocket/websockettransportprotocol.h"
#include "wsfixture.h"
#include "wspeer.h"

namespace {

using corvane_test::PythonPeer;
using corvane_test::TestAcceptor;
using corvane_test::waitFor;

const std::size_t kBytes = 1u << 20;

corvane_test::Material & material() {
    static corvane_test::Material instance;
    return instance;
}

// The first line of what the server answers to `request`, read within 5 s.
std::string answerTo(unsigned short port, const std::string & request) {
    int fd = corvane_test::LoopbackConnect(port);
    EXPECT_EQ(send(fd, request.data(), request.size(), MSG_NOSIGNAL), static_cast<ssize_t>(request.size()));
    std::string answer;
    char buffer[512];
    ssize_t n;
    while (answer.find("\r\n") == std::string::npos && (n = recv(fd, buffer, sizeof buffer, 0)) > 0) {
        answer.append(buffer, static_cast<std::size_t>(n));
    }
    close(fd);
    return answer.substr(0, answer.find("\r\n"));
}

// Fixed ports: the WebSocket servers turn port 0 into 80 and 443.
class WebSocketServerTest : public corvane_test::WebSocketFixture<bool> {
protected:
    bool secure() const { return GetParam(); }
    net::ITransportProtocol & protocol() {
        if (secure()) {
            return *m_wss;
        }
        return *m_ws;
    }
    std::string scheme() const { return secure() ? "wss" : "ws"; }

    Common::SmartPtr<net::IChannelServer> startServer(TestAcceptor * acceptor, unsigned short port) {
        const std::string options = "CertificateFile=" + material().serverCert + ";PrivateKeyFile=" + material().serverKey;
        const std::string uri = scheme() + "://127.0.0.1:" + std::to_string(port) + "/";
        return protocol().startChannelServer(m_reactor.get(), uri.c_str(), acceptor, options.c_str());
    }
    std::unique_ptr<PythonPeer> peer(const std::string & mode) {
        return secure() ? std::make_unique<PythonPeer>(mode, "0", material().serverCert, material().serverKey)
                        : std::make_unique<PythonPeer>(mode);
    }
    // Sends the pattern through `channel` from this host thread and waits for all of it to
    // come back.
    static void echoThrough(net::IChannel * channel, corvane_test::RecordingHandler * handler) {
        const std::string data = corvane_test::Pattern(kBytes);
        std::size_t sent = 0;
        EXPECT_TRUE(waitFor(
            [&] {
                int n = channel->getWriteDataStream()->send(static_cast<int>(std::min<std::size_t>(100000, kBytes - sent)),
                                                            data.data() + sent);
                sent += n > 0 ? static_cast<std::size_t>(n) : 0;
                return sent == kBytes || n < 0;
            },
            20000));
        ASSERT_TRUE(waitFor([&] { return handler->receivedSize() >= kBytes; }, 20000)) << handler->receivedSize();
        EXPECT_TRUE(handler->received() == data);
    }
};
INSTANTIATE_TEST_SUITE_P(, WebSocketServerTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> & param) { return param.param ? "wss" : "ws"; });

TEST_P(WebSocketServerTest, PythonClientEchoesOneMiBAndClosesNormally) {
    corvane_test::LogCapture log("INFO");
    Common::SmartPtr<TestAcceptor> acceptor(new TestAcceptor);
    const unsigned short port = corvane_test::FreeLoopbackPort();
    Common::SmartPtr<net::IChannelServer> server = startServer(acceptor.get(), port);
    const std::string category = secure() ? "corvane.websocket.WebSocketSecureTransportProtocol"
                                          : "corvane.websocket.WebSocketTransportProtocol";
    EXPECT_EQ(log.count(category, "WARN", "EXMPERIMENTAL SUPPORT for WebSocket SERVER"), 1u);
    EXPECT_EQ(std::string(server->getLocalURI()),
              (secure() ? "https" : "http") + std::string("://127.0.0.1:") + std::to_string(port) + "/");

    corvane_test::ChildProcess client({"/usr/bin/python3", CORVANE_WSPEER_SCRIPT, "client",
                                       scheme() + "://127.0.0.1:" + std::to_string(port) + "/", std::to_string(kBytes)});
    EXPECT_EQ(client.lineAfter("ok ", 30000), std::to_string(kBytes));
    EXPECT_EQ(client.lineAfter("closed ", 10000), "1000");
    EXPECT_EQ(client.wait(10000), 0);
    ASSERT_EQ(acceptor->accepted(), 1u);
    // The peer's close frame with 1000 ends the channel with onClose.
    EXPECT_TRUE(waitFor([&] { return acceptor->handlers[0]->ended(); }));
    EXPECT_EQ(acceptor->handlers[0]->closes.load(), 1);
    EXPECT_EQ(std::string(acceptor->channels[0]->getLocalURI()).rfind(scheme() + "://127.0.0.1:", 0), 0u);
    server->close();
    server->close();
}

TEST_P(WebSocketServerTest, ClientsOfBothFormsEchoThroughPythonAndTheServer) {
    // openChannel against the python server, then the layered client against corvane's own
    // server: each opens, carries 1 MiB both ways and closes within the close handshake.
    corvane_test::LogCapture log("INFO");
    std::unique_ptr<PythonPeer> echo = peer("echo");
    const int descriptors = corvane_test::CountOpenDescriptors();
    {
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        Common::SmartPtr<net::IChannel> channel(protocol().openChannel(
            m_reactor.get(), echo->uri().c_str(), handler.get(), ("EnableProxy=TRUE;ValidateServerName=false;LoadCryptoCertStore=false;CAFile=" + material().caFile).c_str()));
        EXPECT_EQ(log.countContaining("", "only trying a direct connection attempt"), 1u);
        echoThrough(channel.get(), handler.get());
        channel->close();
        EXPECT_EQ(handler->reads.load() > 0 && !handler->ended(), true);
    }
    if (!secure()) {
        Common::SmartPtr<TestAcceptor> acceptor(new TestAcceptor);
        const unsigned short port = corvane_test::FreeLoopbackPort();
        Common::SmartPtr<net::IChannelServer> server = startServer(acceptor.get(), port);
        for (const std::string & uri : {echo->uri(), "ws://127.0.0.1:" + std::to_string(port) + "/"}) {
            Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> channel(
                m_ws->openChannel2(m_reactor.get(), uri.c_str(), handler.get(), "EnableProxy=false"));
            echoThrough(channel.get(), handler.get());
            const auto started = std::chrono::steady_clock::now();
            channel->close();
            EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2)) << uri;
            EXPECT_FALSE(handler->ended());
        }
        ASSERT_EQ(acceptor->accepted(), 1u);
        EXPECT_TRUE(waitFor([&] { return acceptor->handlers[0]->closes.load() == 1; }));
        server->close();
        acceptor->channels.clear();
        acceptor->handlers.clear();
    }
    EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= descriptors; }));
}

// The layered client and plain HTTP exist for ws only.
class PlainWebSocketServerTest : public WebSocketServerTest {};
INSTANTIATE_TEST_SUITE_P(, PlainWebSocketServerTest, ::testing::Values(false),
                         [](const ::testing::TestParamInfo<bool> &) { return "ws"; });

// A peer that never answers the close frame: close() waits its 5000 ms, then lets go with one
// warning, and the process goes on.
TEST_P(PlainWebSocketServerTest, CloseGivesUpOnAPeerThatIgnoresTheCloseFrame) {
    std::unique_ptr<PythonPeer> deaf = peer("deaf");
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    Common::SmartPtr<net::IChannel> channel(
        m_ws->openChannel2(m_reactor.get(), deaf->uri().c_str(), handler.get(), "EnableProxy=false"));
    corvane_test::LogCapture log("WARN");
    const auto start = std::chrono::steady_clock::now();
    channel->close();
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(4900));
    EXPECT_LT(waited, std::chrono::milliseconds(7000));
    EXPECT_EQ(log.countContaining("corvane.websocket.WSChannel", "timeout while waiting for connection close to complete"),
              1u);
    EXPECT_EQ(handler->closes.load() + handler->errors.load(), 0) << "close() calls no handler";
}

TEST_P(PlainWebSocketServerTest, LayeredClientTellsItsHandlerOfThePeersClose) {
    std::unique_ptr<PythonPeer> closer = peer("close");
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    Common::SmartPtr<net::IChannel> channel(
        m_ws->openChannel2(m_reactor.get(), closer->uri().c_str(), handler.get(), "EnableProxy=false"));
    EXPECT_EQ(channel->getWriteDataStream()->send(5, "hello"), 5);
    ASSERT_TRUE(waitFor([&] { return handler->ended(); }));
    EXPECT_EQ(handler->received(), "hello");
    EXPECT_EQ(handler->closes.load(), 1);
    channel->close();
    // A refused upgrade fails the open and names the HTTP reason.
    std::unique_ptr<PythonPeer> reject = peer("reject");
    EXPECT_NE(corvane_test::thrownText([&] {
                  m_ws->openChannel2(m_reactor.get(), reject->uri().c_str(), handler.get(), "EnableProxy=false");
              }).find("Not Found"),
              std::string::npos);
}

TEST_P(PlainWebSocketServerTest, PlainHttpGetsUpgradeRequiredAndASilentClientHarmsNoOne) {
    corvane_test::LogCapture log("INFO");
    Common::SmartPtr<TestAcceptor> acceptor(new TestAcceptor);
    const unsigned short port = corvane_test::FreeLoopbackPort();
    Common::SmartPtr<net::IChannelServer> server = startServer(acceptor.get(), port);
    const int descriptors = corvane_test::CountOpenDescriptors();
    // A client that connects and never upgrades holds only its own connection.
    int silent = corvane_test::LoopbackConnect(port);
    EXPECT_EQ(answerTo(port, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n"), "HTTP/1.1 426 Upgrade Required");
    EXPECT_EQ(acceptor->accepted(), 2u);
    for (const auto & handler : acceptor->handlers) {
        EXPECT_EQ(handler->reads.load(), 0);
    }
    close(silent);
    server->close();
    acceptor->channels.clear();
    acceptor->handlers.clear();
    EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= descriptors - 1; }));
}

}  // namespace
