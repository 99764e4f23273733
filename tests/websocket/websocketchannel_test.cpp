// The client channels against real WebSocket peers (python3-websockets in a process of its
// own, over ws and over wss): data both ways byte for byte, the engine's automatic answers,
// the ways a handshake fails, and a host thread sending while the reactor pumps.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <thread>

#include "expect.h"
#include "logcapture.h"
#include "pattern.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "../tls/tlsmaterial.h"
#include "tls/socketbio.h"
#include "websocket/websocketchannel.h"
#include "websocket/websocketsslchannel.h"
#include "wspeer.h"

namespace {

using corvane_test::Pattern;
using corvane_test::PatternByte;
using corvane_test::PythonPeer;
using corvane_test::waitFor;
using websocket::WebSocketChannel;

const char * const kCategory = "corvane.websocket.WebSocketChannel";

// Message sizes that cycle: single bytes, small frames, 16- and 64-bit length forms.
const std::size_t kSizes[] = {1, 7, 125, 126, 1000, 4096, 65535, 65536, 200000, 3};

class WebSocketChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_reactor = new socketio::SelectReactor(1000, 600000, 5);
        m_reactor->startProcessing();
    }
    void TearDown() override { m_reactor->stopProcessing(); }

    static Common::SmartPtr<WebSocketChannel> open(const PythonPeer & peer, socketio::socket_options options = {}) {
        int fd = corvane_test::LoopbackConnect(peer.port());
        Common::SmartPtr<WebSocketChannel> channel;
        if (peer.uri().rfind("wss:", 0) == 0) {
            // The TLS handshake runs first, blocking, as the wss protocol runs it.
            SSL_CTX * context = SSL_CTX_new(TLS_client_method());
            SSL * ssl = SSL_new(context);
            SSL_CTX_free(context);
            EXPECT_TRUE(ssl::SSL_set_socket(ssl, static_cast<unsigned int>(fd)));
            EXPECT_EQ(SSL_connect(ssl), 1);
            channel = new websocket::WebSocketSSLChannel(static_cast<unsigned int>(fd), ssl, nullptr, options);
        } else {
            channel = new WebSocketChannel(static_cast<unsigned int>(fd), options);
        }
        try {
            channel->openLogicalConnection(peer.uri().c_str());
        } catch (...) {
            channel->close();
            throw;
        }
        return channel;
    }
    Common::SmartPtr<WebSocketChannel> start(const PythonPeer & peer, net::IChannelHandler * handler,
                                             socketio::socket_options options = {}) {
        Common::SmartPtr<WebSocketChannel> channel = open(peer, options);
        channel->setChannelHandler(handler);
        m_reactor->registerSubscriber(channel.get());
        return channel;
    }
    bool subscribed(WebSocketChannel * channel) {
        socketio::SelectReactor::ForeignThreadGuard guard(m_reactor.get());
        return m_reactor->hasSubscriber(channel);
    }
    // The text of the exception that the opening handshake ends with.
    static std::string openFailure(const PythonPeer & peer) {
        return corvane_test::thrownText([&] { open(peer); });
    }

    Common::SmartPtr<socketio::SelectReactor> m_reactor;
};

// The cases that both channels must pass alike: false for ws, true for wss.
class BothSchemes : public WebSocketChannelTest, public ::testing::WithParamInterface<bool> {
protected:
    std::unique_ptr<PythonPeer> peer(const std::string & mode, const std::string & seconds = "0") {
        if (!GetParam()) {
            return std::make_unique<PythonPeer>(mode, seconds);
        }
        static corvane_test::Material material;
        return std::make_unique<PythonPeer>(mode, seconds, material.serverCert, material.serverKey);
    }
};
INSTANTIATE_TEST_SUITE_P(, BothSchemes, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool> & param) { return param.param ? "wss" : "ws"; });

TEST_F(WebSocketChannelTest, HandshakeCarriesTheFixedKeyAndNamesBothEnds) {
    corvane_test::LogCapture log("INFO");
    PythonPeer peer("headers");
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> channel = start(peer, handler.get());
    ASSERT_TRUE(waitFor([&] { return handler->receivedSize() > 0; }));
    EXPECT_EQ(handler->received(), "AAAAAAAAAAAAAAAAAAAAAA==|WebSocket++/0.8.2");
    const std::string local = channel->getLocalURI();
    EXPECT_EQ(local.rfind("ws://127.0.0.1:", 0), 0u) << local;
    EXPECT_EQ(std::string(channel->getPeerURI()), peer.uri());
    EXPECT_EQ(std::string(channel->getDescription()), local + " <-> " + peer.uri());
    EXPECT_EQ(log.count(kCategory, "INFO", "initializing using rcvBuf=262144 and sndBuf=262144"), 1u);
    EXPECT_EQ(log.count(kCategory, "INFO", "onWebSocketOpen[]()"), 1u);
    EXPECT_EQ(log.count("com.ventrel.websocketpp.access", "INFO", "[connect] Successful connection"), 1u);
    channel->close();
    EXPECT_EQ(log.count(kCategory, "INFO", std::string("close[") + channel->getDescription() + "]()"), 1u);
    EXPECT_EQ(log.count(kCategory, "INFO", std::string("onWebSocketClose[") + channel->getDescription() + "]()"), 1u);
}

TEST_P(BothSchemes, ServerPingIsAnsweredAndTextOrFragmentsArriveAsBinaryOnly) {
    std::unique_ptr<PythonPeer> pinging = peer("ping");
    Common::SmartPtr<corvane_test::RecordingHandler> first(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> one = start(*pinging, first.get());
    ASSERT_TRUE(waitFor([&] { return first->receivedSize() >= 9; }, 15000));
    EXPECT_EQ(first->received(), "pong seen");
    one->close();

    std::unique_ptr<PythonPeer> frames = peer("frames");
    Common::SmartPtr<corvane_test::RecordingHandler> second(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> two = start(*frames, second.get());
    ASSERT_TRUE(waitFor([&] { return second->received().find("|end") != std::string::npos; }));
    EXPECT_EQ(second->received(), "fragmented|end");
    two->close();
}

// The peer's close handshake ends the channel with onClose. A dropped connection ends it once
// as well: without close_notify the end of a TLS stream is a failure, a plain stream just
// ends. After the end a send reports the failed connection and touches nothing.
TEST_P(BothSchemes, PeerThatClosesOrDropsEndsTheChannelOnce) {
    for (const std::string mode : {"close", "drop"}) {
        SCOPED_TRACE(mode);
        corvane_test::LogCapture log("INFO");
        std::unique_ptr<PythonPeer> ending = peer(mode);
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        handler->queue("hello");
        Common::SmartPtr<WebSocketChannel> channel = start(*ending, handler.get());
        ASSERT_TRUE(waitFor([&] { return handler->ended() && !subscribed(channel.get()); }));
        EXPECT_EQ(handler->received(), "hello");
        if (mode == "close" || GetParam()) {
            EXPECT_EQ(mode == "close" ? handler->closes.load() : handler->errors.load(), 1);
        }
        EXPECT_EQ(channel->getWriteDataStream()->send(5, "later"), -1);
        channel->close();
        if (mode == "close") {
            EXPECT_EQ(log.countContaining(GetParam() ? "corvane.websocket.WebSocketSSLChannel" : kCategory,
                                          "]: got websocket error: "),
                      1u);
        }
        channel->close();
        EXPECT_EQ(channel->getSocket(), socketio::INVALID_SOCKET_HANDLE);
        EXPECT_EQ(handler->closes + handler->errors, 1);
    }
}

TEST_F(WebSocketChannelTest, FailedHandshakesThrowWithTheEnginesWordsAndTheReason) {
    PythonPeer refusing("reject");
    EXPECT_EQ(openFailure(refusing), "Invalid HTTP status. : Not Found");

    PythonPeer cutting("cut");
    const std::string cut = openFailure(cutting);
    EXPECT_NE(cut, "<nothing thrown>");
    EXPECT_EQ(cut.find(" : "), std::string::npos) << cut;

    // Nothing limits the wait but the peer: the open lasts until the silent peer closes.
    PythonPeer silent("silent", "1.5");
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(openFailure(silent), cut);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1400));
}

TEST_F(WebSocketChannelTest, SendKeepsRoomForTheFrameHeader) {
    PythonPeer peer("echo");
    socketio::socket_options small;
    small.receiveBufferSize = 300;
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> channel = start(peer, handler.get(), small);
    const std::string data = Pattern(1000);
    EXPECT_EQ(channel->getWriteDataStream()->send(1000, data.data()), 300 - 128);
    ASSERT_TRUE(waitFor([&] { return handler->receivedSize() >= 172; }));
    EXPECT_EQ(handler->received(), data.substr(0, 172));
    channel->close();
}

// A pong that does not fit the output ring ends that channel with onError; the process and the
// reactor go on.
TEST_F(WebSocketChannelTest, AutomaticReplyThatDoesNotFitEndsOnlyThatChannel) {
    corvane_test::LogCapture log("ERROR");
    PythonPeer flood("flood");
    PythonPeer echo("echo");
    Common::SmartPtr<corvane_test::RecordingHandler> flooded(new corvane_test::RecordingHandler);
    socketio::socket_options small;
    small.receiveBufferSize = 1000;
    int fd = corvane_test::LoopbackConnect(flood.port());
    int sendBuffer = 4096;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof sendBuffer);
    Common::SmartPtr<WebSocketChannel> channel(new WebSocketChannel(static_cast<unsigned int>(fd), small));
    channel->openLogicalConnection(flood.uri().c_str());
    channel->setChannelHandler(flooded.get());
    m_reactor->registerSubscriber(channel.get());

    Common::SmartPtr<corvane_test::RecordingHandler> other(new corvane_test::RecordingHandler);
    other->queue("still here");
    Common::SmartPtr<WebSocketChannel> bystander = start(echo, other.get());

    ASSERT_TRUE(waitFor([&] { return flooded->ended(); }, 20000));
    EXPECT_EQ(flooded->errors.load(), 1);
    EXPECT_EQ(flooded->closes.load(), 0);
    EXPECT_EQ(log.countContaining(kCategory, "WebSocketSSLChannel::onWebSocketWrite: Buffer overflow"), 1u);
    ASSERT_TRUE(waitFor([&] { return other->receivedSize() == 10; }));
    channel->close();
    bystander->close();
    EXPECT_FALSE(other->ended());
}

// A handler that cannot take more keeps the socket unread until it can.
class Reluctant : public corvane_test::RecordingHandler, public socketio::IReadInterest {
public:
    bool wantsRead() override { return ready.load(); }
    std::atomic<bool> ready{false};
};

TEST_F(WebSocketChannelTest, HandlerWithoutReadInterestIsNotReadFor) {
    PythonPeer peer("echo");
    Common::SmartPtr<Reluctant> handler(new Reluctant);
    handler->queue("abc");
    Common::SmartPtr<WebSocketChannel> channel = start(peer, handler.get());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(handler->reads.load(), 0);
    handler->ready = true;
    ASSERT_TRUE(waitFor([&] { return handler->receivedSize() == 3; }));
    EXPECT_EQ(handler->received(), "abc");
    channel->close();
}

// Verifies what it reads against the pattern as it goes, keeping only a count.
class PatternChecker : public corvane_test::RecordingHandler {
public:
    void onRead(net::IReadDataStream * stream) override {
        char buffer[65536];
        int n = stream->recv(sizeof buffer, buffer);
        for (int i = 0; i < n; ++i) {
            if (buffer[i] != PatternByte(m_checked + static_cast<std::uint64_t>(i))) {
                ++mismatches;
            }
        }
        if (n > 0) {
            m_checked += static_cast<std::uint64_t>(n);
            checked = m_checked;
        }
    }
    std::atomic<std::uint64_t> checked{0};
    std::atomic<std::uint64_t> mismatches{0};

private:
    std::uint64_t m_checked = 0;
};

// The host thread sends messages of mixed sizes while the reactor reads the echo and answers
// the server's pings: both enter the engine and the output ring, never at the same time.
TEST_P(BothSchemes, HostThreadAndReactorExchangeSixtyFourMiB) {
    corvane_test::LogCapture log("WARN");
    std::unique_ptr<PythonPeer> echo = peer("echo", "0.25");
    const int descriptors = corvane_test::CountOpenDescriptors();
    const std::uint64_t total = 64u << 20;
    Common::SmartPtr<PatternChecker> handler(new PatternChecker);
    Common::SmartPtr<WebSocketChannel> channel = start(*echo, handler.get());
    net::IWriteDataStream * stream = channel->getWriteDataStream();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(180);
    std::thread sender([&] {
        std::string chunk;
        std::uint64_t offset = 0;
        for (std::size_t next = 0; offset < total && std::chrono::steady_clock::now() < deadline;) {
            std::size_t want = static_cast<std::size_t>(std::min<std::uint64_t>(kSizes[next % std::size(kSizes)], total - offset));
            chunk.resize(want);
            for (std::size_t i = 0; i < want; ++i) {
                chunk[i] = PatternByte(offset + i);
            }
            int n = stream->send(static_cast<int>(want), chunk.data());
            if (n < 0) {
                break;
            }
            if (n == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            offset += static_cast<std::uint64_t>(n);
            ++next;
        }
    });
    sender.join();
    EXPECT_TRUE(waitFor([&] { return handler->checked.load() >= total; }, 120000)) << handler->checked.load();
    EXPECT_EQ(handler->checked.load(), total);
    EXPECT_EQ(handler->mismatches.load(), 0u);
    EXPECT_FALSE(handler->ended());
    EXPECT_EQ(log.events().size(), 0u);
    for (const auto & event : log.events()) {
        ADD_FAILURE() << event.category << " " << event.level << " " << event.text;
    }
    channel->close();
    channel->close();
    EXPECT_EQ(channel->getSocket(), socketio::INVALID_SOCKET_HANDLE);
    EXPECT_FALSE(subscribed(channel.get()));
    EXPECT_EQ(corvane_test::CountOpenDescriptors(), descriptors);
}

// The reactor freed the number at the channel's end; the owner's close() after that must send
// nothing through it (no close frame, no close_notify), as the next descriptor takes it.
TEST_P(BothSchemes, CloseAfterOnCloseWritesNothingToReusedNumber) {
    std::unique_ptr<PythonPeer> closing = peer("close");
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    handler->queue("hello");
    Common::SmartPtr<WebSocketChannel> channel = open(*closing);
    const int number = static_cast<int>(channel->getSocket());
    channel->setChannelHandler(handler.get());
    m_reactor->registerSubscriber(channel.get());
    ASSERT_TRUE(waitFor([&] { return handler->ended() && !subscribed(channel.get()); }));
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, pair), 0);
    EXPECT_EQ(pair[0], number);
    channel->close();
    char byte;
    EXPECT_EQ(::recv(pair[1], &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    ::close(pair[0]);
    ::close(pair[1]);
}

// The sweep closes an idle channel's socket before it tells the channel: the read path must
// see the closed handle and not peek through the number, which OpenSSL keeps for itself.
TEST_F(WebSocketChannelTest, SweptWssChannelPeeksAtNoClosedNumber) {
    static corvane_test::Material material;
    PythonPeer echo("echo", "0", material.serverCert, material.serverKey);
    Common::SmartPtr<socketio::SelectReactor> sweeping(new socketio::SelectReactor(40, 200, 20));
    sweeping->startProcessing();
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> channel = open(echo);
    channel->setChannelHandler(handler.get());
    corvane_test::LogCapture log("TRACE");
    sweeping->registerSubscriber(channel.get());
    EXPECT_TRUE(waitFor([&] { return handler->ended(); }, 3000));
    EXPECT_EQ(handler->errors.load(), 1);
    EXPECT_EQ(log.countContaining("corvane.websocket.WebSocketSSLChannel", "SSL_peek("), 0u);
    channel->close();
    sweeping->stopProcessing();
}

// A tunnel lets go of the channel that reported the end, without close(): its SSL must go with
// it (LeakSanitizer tells), and the socket, which the reactor closed, is not closed twice.
TEST_F(WebSocketChannelTest, ReleasedWssChannelFreesItsSsl) {
    static corvane_test::Material material;
    PythonPeer closing("close", "0", material.serverCert, material.serverKey);
    const int descriptors = corvane_test::CountOpenDescriptors();
    Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
    handler->queue("hello");
    Common::SmartPtr<WebSocketChannel> channel = start(closing, handler.get());
    ASSERT_TRUE(waitFor([&] { return handler->ended() && !subscribed(channel.get()); }));
    channel = nullptr;
    EXPECT_EQ(corvane_test::CountOpenDescriptors(), descriptors);
}

// A tunnel whose client leaves closes the target's channel on the reactor thread, possibly
// before that channel saw an event: close() must not wait there for the peer's answer.
TEST_F(WebSocketChannelTest, CloseOnReactorThreadBeforeFirstEventDoesNotBlock) {
    auto deaf = std::make_unique<PythonPeer>("deaf");
    PythonPeer echo("echo");
    Common::SmartPtr<corvane_test::RecordingHandler> idle(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> quiet = start(*deaf, idle.get());
    std::atomic<long long> closeMilliseconds{-1};
    Common::SmartPtr<corvane_test::RecordingHandler> trigger(new corvane_test::RecordingHandler);
    trigger->onReadHook = [&](net::IReadDataStream * stream) {
        char buffer[16];
        stream->recv(sizeof buffer, buffer);
        const auto begin = std::chrono::steady_clock::now();
        quiet->close();
        closeMilliseconds = std::chrono::duration_cast<std::chrono::milliseconds>(
                                std::chrono::steady_clock::now() - begin).count();
    };
    trigger->queue("x");
    Common::SmartPtr<WebSocketChannel> other = start(echo, trigger.get());
    if (!waitFor([&] { return closeMilliseconds.load() >= 0; }, 3000)) {
        deaf.reset();  // the blocked reactor goes on once the peer is gone
        ADD_FAILURE() << "close() blocked the reactor thread";
    }
    EXPECT_LT(closeMilliseconds.load(), 1000);
    EXPECT_EQ(quiet->getSocket(), socketio::INVALID_SOCKET_HANDLE);
    other->close();
}

// A peer that answers the upgrade and hangs up at once: the engine's connect handler runs on
// this thread, the end on the reactor's, the release here again; the threaded build runs this
// under ThreadSanitizer.
TEST_F(WebSocketChannelTest, PeerThatAnswersAndHangsUpEndsEachChannel) {
    PythonPeer hangup("hangup");
    const int descriptors = corvane_test::CountOpenDescriptors();
    for (int round = 0; round < 40; ++round) {
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        Common::SmartPtr<WebSocketChannel> channel = start(hangup, handler.get());
        ASSERT_TRUE(waitFor([&] { return handler->ended() && !subscribed(channel.get()); })) << "round " << round;
        EXPECT_EQ(handler->closes.load(), 1);
    }
    EXPECT_EQ(corvane_test::CountOpenDescriptors(), descriptors);
}

// A handler that throws, or a send in a callback on a failed socket, ends that channel alone
// with onError: the reactor's dispatch must not throw, and the bystander goes on.
TEST_F(WebSocketChannelTest, HandlerThatThrowsEndsOnlyItsChannel) {
    corvane_test::LogCapture log("ERROR");
    PythonPeer echo("echo");
    Common::SmartPtr<corvane_test::RecordingHandler> thrower(new corvane_test::RecordingHandler);
    thrower->onReadHook = [](net::IReadDataStream *) { throw std::runtime_error("handler failed"); };
    thrower->queue("x");
    Common::SmartPtr<WebSocketChannel> failing = start(echo, thrower.get());
    Common::SmartPtr<corvane_test::RecordingHandler> bystander(new corvane_test::RecordingHandler);
    Common::SmartPtr<WebSocketChannel> other = start(echo, bystander.get());
    ASSERT_TRUE(waitFor([&] { return thrower->ended() && !subscribed(failing.get()); }));
    EXPECT_EQ(thrower->errors.load(), 1);
    EXPECT_EQ(log.countContaining(kCategory, "]: exception caught: handler failed"), 1u);
    EXPECT_EQ(failing->getWriteDataStream()->send(1, "y"), -1);
    bystander->queue("still here");
    EXPECT_TRUE(waitFor([&] { return bystander->received() == "still here"; }));
    failing->close();
    other->close();
}

}  // namespace
