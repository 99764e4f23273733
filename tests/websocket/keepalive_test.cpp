// PingInterval and PingTimeout against python3-websockets peers, which answer pings by
// themselves and count them: the clients of ws and wss and the layered client against a
// counting server, and the ws and wss servers against a counting client. A peer stopped with
// SIGSTOP answers nothing and must be told from one that answers through silence.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "childprocess.h"
#include "expect.h"
#include "logcapture.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "testacceptor.h"
#include "../tls/tlsmaterial.h"
#include "socketio/selectreactor.h"
#include "websocket/websockettransportprotocol.h"
#include "wsfixture.h"
#include "wspeer.h"

namespace {

using corvane_test::waitFor;
using Clock = std::chrono::steady_clock;

const char * const kPingOptions = "PingInterval=1;PingTimeout=1";
// Interval + timeout, and a second for reactor cycles on a loaded machine (sanitizer builds).
const auto kDetectionLimit = std::chrono::milliseconds(3000);

using corvane_test::material;

enum class Client { Ws, Wss, Layered };

class KeepAliveTest : public corvane_test::WebSocketFixture<Client> {
protected:
    bool secure() const { return GetParam() == Client::Wss; }
};

// Queues `text` and waits for `handler` to have received `expected` in all.
// The peer's answer to `text`, once one has come (empty after 3 s).
std::string exchange(corvane_test::RecordingHandler * handler, const std::string & text) {
    handler->queue(text);
    waitFor([&] { return !handler->received().empty(); }, 3000);
    return handler->received();
}

TEST_P(KeepAliveTest, ClientPingsAtTheIntervalAndEndsWhenTheStoppedPeerDoesNotAnswer) {
    corvane_test::LogCapture log("WARN");
    auto peer = secure() ? std::make_unique<corvane_test::PythonPeer>("pings", "0", material().serverCert,
                                                                        material().serverKey)
                         : std::make_unique<corvane_test::PythonPeer>("pings");
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    const std::string options = std::string(kPingOptions) + ";EnableProxy=false;ValidateServerName=false;NoCertify=true";
    Common::SmartPtr<net::IChannel> channel(
        GetParam() == Client::Layered
            ? m_ws->openChannel2(m_reactor.get(), peer->uri().c_str(), handler.get(), options.c_str())
            : (secure() ? static_cast<net::ITransportProtocol &>(*m_wss) : *m_ws)
                  .openChannel(m_reactor.get(), peer->uri().c_str(), handler.get(), options.c_str()));
    // Three intervals of silence: a ping each, each answered, and the connection stays.
    std::this_thread::sleep_for(std::chrono::milliseconds(3500));
    EXPECT_FALSE(handler->ended());
    // About one a second: 3, give or take the cycle on a loaded machine.
    const std::string pings = exchange(handler.get(), "count?");
    ASSERT_TRUE(pings == "2" || pings == "3" || pings == "4") << pings;

    kill(peer->pid(), SIGSTOP);
    const auto stopped = Clock::now();
    EXPECT_TRUE(waitFor([&] { return handler->ended(); }, 5000));
    EXPECT_LT(Clock::now() - stopped, kDetectionLimit);
    EXPECT_EQ(handler->errors.load(), 1);
    EXPECT_EQ(handler->closes.load(), 0);
    EXPECT_EQ(log.countContaining("", "no pong within PingTimeout=1 s after a ping on " +
                                          std::string(channel->getDescription())),
              1u);
    kill(peer->pid(), SIGCONT);
    channel->close();
}

INSTANTIATE_TEST_SUITE_P(, KeepAliveTest, ::testing::Values(Client::Ws, Client::Wss, Client::Layered),
                         [](const ::testing::TestParamInfo<Client> & param) {
                             return param.param == Client::Ws ? "ws" : param.param == Client::Wss ? "wss" : "layered";
                         });

class KeepAliveServerTest : public KeepAliveTest {};
INSTANTIATE_TEST_SUITE_P(, KeepAliveServerTest, ::testing::Values(Client::Ws, Client::Wss),
                         [](const ::testing::TestParamInfo<Client> & param) {
                             return param.param == Client::Ws ? "ws" : "wss";
                         });

TEST_P(KeepAliveServerTest, ServerPingsAtTheIntervalAndEndsWhenTheStoppedClientDoesNotAnswer) {
    corvane_test::LogCapture log("WARN");
    Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
    const std::string scheme = secure() ? "wss" : "ws";
    const std::string options = std::string(kPingOptions) + ";CertificateFile=" + material().serverCert +
                                ";PrivateKeyFile=" + material().serverKey;
    Common::SmartPtr<net::IChannelServer> server(
        (secure() ? static_cast<net::ITransportProtocol &>(*m_wss) : *m_ws)
            .startChannelServer(m_reactor.get(), (scheme + "://127.0.0.1:0/").c_str(), acceptor.get(), options.c_str()));
    const std::string local = server->getLocalURI();
    const std::string port = local.substr(local.rfind(':') + 1);
    corvane_test::ChildProcess client({"/usr/bin/python3", CORVANE_WSPEER_SCRIPT, "pingclient",
                                       scheme + "://127.0.0.1:" + port.substr(0, port.find('/')) + "/"});
    ASSERT_NE(client.readUntil("open\n", 10000).find("open\n"), std::string::npos);
    const auto opened = Clock::now();
    EXPECT_NE(client.readUntil("ping 3\n", 4500).find("ping 1\nping 2\nping 3\n"), std::string::npos);
    // One a second of silence: the third after about 3 s, not sooner.
    EXPECT_GT(Clock::now() - opened, std::chrono::milliseconds(2800));
    ASSERT_EQ(acceptor->accepted(), 1u);
    EXPECT_FALSE(acceptor->handlers[0]->ended());

    kill(client.pid(), SIGSTOP);
    const auto stopped = Clock::now();
    EXPECT_TRUE(waitFor([&] { return acceptor->handlers[0]->ended(); }, 5000));
    EXPECT_LT(Clock::now() - stopped, kDetectionLimit);
    EXPECT_EQ(acceptor->handlers[0]->errors.load(), 1);
    EXPECT_EQ(log.countContaining("corvane.websocket.WSChannel", "no pong within PingTimeout=1 s after a ping on "), 1u);
    kill(client.pid(), SIGCONT);
    // The client finds the connection gone.
    EXPECT_NE(client.readUntil("closed\n", 10000).find("closed\n"), std::string::npos);
    server->close();
}

TEST(KeepAliveOptionTest, ANonNumberIsRefusedNamingTheOption) {
    socketio::socket_options options;
    Common::SmartPtr<websocket::WebSocketTransportProtocol> ws(new websocket::WebSocketTransportProtocol(options));
    Common::SmartPtr<socketio::SelectReactor> reactor(new socketio::SelectReactor(1000, 600000, 50));
    reactor->startProcessing();
    Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
    EXPECT_NE(corvane_test::thrownText([&] {
                  ws->startChannelServer(reactor.get(), "ws://127.0.0.1:0/", acceptor.get(), "PingTimeout=-1");
              }).find("PingTimeout must be a number of seconds"),
              std::string::npos);
    reactor->stopProcessing();
}

}  // namespace
