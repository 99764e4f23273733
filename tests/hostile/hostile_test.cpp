// Hostile peers against every scheme, one table and one driver. As a client the host opens
// channels to peers that close, reset or babble at once; as a server it faces clients that
// leave, reset, send garbage, stall in the handshake or die mid-transfer. Whatever they do, the
// host gets a clear exception or a channel that stays alive until it lets go and ends with one
// onClose/onError, the server keeps serving, and descriptors come back to where they were.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <cerrno>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "expect.h"
#include "framework/channelfactory.h"
#include "logcapture.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "testacceptor.h"
#include "../tls/tlsmaterial.h"
#include "socketio/selectreactor.h"
#include "socketio/socketfunctions.h"
#include "websocket/websockettransportprotocol.h"

namespace {

using corvane_test::waitFor;

using corvane_test::material;
const auto serverOptions = corvane_test::ServerOptions;
const auto clientOptions = corvane_test::ClientOptions;

const char * const kSchemes[] = {"tcp", "http", "ssl", "https", "ws", "wss"};

void resetAndClose(int fd) {
    linger value{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &value, sizeof value);
    close(fd);
}

// What a peer does with each connection, on either side.
enum class Peer {
    CloseAtOnce, ResetAtOnce, BannerThenClose, ResetWhileHostSends, HalfHandshakeThenClose, DieMidTransfer, Silent
};

const char * name(Peer peer) {
    switch (peer) {
        case Peer::CloseAtOnce: return "close at once";
        case Peer::ResetAtOnce: return "reset at once";
        case Peer::BannerThenClose: return "banner then close";
        case Peer::ResetWhileHostSends: return "reset while the host sends";
        case Peer::HalfHandshakeThenClose: return "half a handshake then close";
        case Peer::DieMidTransfer: return "die mid-transfer";
        case Peer::Silent: return "silent";
    }
    return "?";
}

// The first bytes of a TLS ClientHello or of an upgrade request: whatever the server expects,
// it gets a beginning and then nothing.
const std::string kHalfHandshake = std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11) + "GET / HTTP/1.1\r\nHo";

void behave(Peer peer, int fd) {
    corvane_test::BoundBlockingCalls(fd);
    char buffer[4096];
    switch (peer) {
        case Peer::CloseAtOnce:
            close(fd);
            return;
        case Peer::ResetAtOnce:
            resetAndClose(fd);
            return;
        case Peer::BannerThenClose: {
            const std::string banner = "220 not what you expected\r\n\x16\x03garbage\r\n\r\n";
            (void)!send(fd, banner.data(), banner.size(), MSG_NOSIGNAL);
            close(fd);
            return;
        }
        case Peer::ResetWhileHostSends:
            (void)!recv(fd, buffer, sizeof buffer, 0);
            resetAndClose(fd);
            return;
        case Peer::HalfHandshakeThenClose:
            (void)!send(fd, kHalfHandshake.data(), kHalfHandshake.size(), MSG_NOSIGNAL);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            close(fd);
            return;
        case Peer::DieMidTransfer: {
            const std::string block(65536, 'x');
            (void)!send(fd, block.data(), block.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            resetAndClose(fd);
            return;
        }
        case Peer::Silent:  // HostileServer holds it open
            return;
    }
}

// A loopback server that treats every connection as `peer` says, on its own thread.
class HostileServer {
public:
    explicit HostileServer(Peer peer) : m_peer(peer) {
        m_fd = corvane_test::LoopbackListen(m_port);
        m_thread = std::thread([this] {
            while (!m_stop.load()) {
                pollfd entry{m_fd, POLLIN, 0};
                if (poll(&entry, 1, 50) <= 0) {
                    continue;
                }
                int client = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
                if (client >= 0 && m_peer == Peer::Silent) {
                    m_held.push_back(client);
                } else if (client >= 0) {
                    behave(m_peer, client);
                }
            }
        });
    }
    ~HostileServer() {
        m_stop = true;
        m_thread.join();
        for (int held : m_held) {
            close(held);
        }
        close(m_fd);
    }
    unsigned short port() const { return m_port; }

private:
    Peer m_peer;
    int m_fd;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::vector<int> m_held;  // the server thread's, until the destructor
    std::thread m_thread;
};

class Hostile : public ::testing::Test {
protected:
    void SetUp() override {
        material();
        reactor = new socketio::SelectReactor(1000, 600000, 20);
        reactor->startProcessing();
        net::SocketOptions options;
        options.backlog = 128;  // a burst of hostile clients must not wait for SYN retries
        factory = new net::ChannelFactory(options);
        baseline = corvane_test::CountOpenDescriptors();
    }
    void TearDown() override {
        // Descriptors come back once the reactor has ended every channel.
        EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= baseline; }))
            << corvane_test::CountOpenDescriptors() << " open, " << baseline << " before";
        reactor->stopProcessing();
    }

    // One outgoing channel to `uri`: either a clear exception, or a live channel whose handler
    // hears one end. `layered` opens the WebSocket channel over a tcp channel (openChannel2).
    void openAgainst(const std::string & uri, bool layered, Peer peer) {
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        Common::SmartPtr<net::IChannel> channel;
        try {
            if (layered) {
                auto * ws = dynamic_cast<websocket::WebSocketTransportProtocol *>(
                    factory->getTransportProtocol(uri.substr(0, uri.find(':')).c_str()));
                channel = ws->openChannel2(reactor.get(), uri.c_str(), handler.get(), clientOptions().c_str());
            } else {
                channel = factory->openChannel(reactor.get(), uri.c_str(), handler.get(), clientOptions().c_str());
            }
        } catch (const net::RuntimeException & e) {
            EXPECT_STRNE("", e.what());
            ++refused;
            return;
        }
        ASSERT_TRUE(channel);
        // Read through the pointer the factory returned: freed memory shows under ASan.
        EXPECT_NE(std::string(channel->getDescription()).find(" <-> "), std::string::npos);
        if (peer == Peer::ResetWhileHostSends) {
            const std::string block(16384, 'y');
            waitFor([&] {
                try {
                    return channel->getWriteDataStream()->send(static_cast<int>(block.size()), block.data()) < 0 ||
                           handler->ended();
                } catch (const net::RuntimeException &) {
                    return true;  // the socket-owning WebSocket channels throw from a failed send
                }
            }, 3000);
        }
        EXPECT_TRUE(waitFor([&] { return handler->ended(); }, 3000)) << uri;
        EXPECT_LE(handler->closes + handler->errors, 1);
        channel->close();
        ++opened;
    }

    Common::SmartPtr<socketio::SelectReactor> reactor;
    Common::SmartPtr<net::ChannelFactory> factory;
    int baseline = 0;
    int refused = 0;
    int opened = 0;
};

TEST_F(Hostile, ClientSurvivesEveryPeerOnEveryScheme) {
    const Peer peers[] = {Peer::CloseAtOnce, Peer::ResetAtOnce, Peer::BannerThenClose, Peer::ResetWhileHostSends};
    for (Peer peer : peers) {
        HostileServer server(peer);
        for (const std::string scheme : kSchemes) {
            for (bool layered : {false, true}) {
                if (layered && scheme != "ws") {  // openChannel2: the ws transport only
                    continue;
                }
                SCOPED_TRACE(scheme + (layered ? " (layered)" : "") + ": " + name(peer));
                const std::string uri = scheme + "://127.0.0.1:" + std::to_string(server.port()) + "/";
                // The racy case, a peer gone before openChannel returns, is looped.
                const int rounds = peer == Peer::CloseAtOnce ? (scheme == "tcp" ? 300 : layered ? 10 : 40) : 5;
                for (int round = 0; round < rounds && !HasFatalFailure(); ++round) {
                    openAgainst(uri, layered, peer);
                }
            }
        }
    }
    EXPECT_GT(opened, 0);
    EXPECT_GT(refused, 0);
}

TEST_F(Hostile, ServerSurvivesEveryClientOnEveryScheme) {
    const Peer clients[] = {Peer::CloseAtOnce, Peer::ResetAtOnce, Peer::BannerThenClose, Peer::HalfHandshakeThenClose,
                            Peer::DieMidTransfer};
    corvane_test::LogCapture log("WARN");
    for (const std::string scheme : kSchemes) {
        SCOPED_TRACE(scheme);
        const unsigned short port = corvane_test::FreeLoopbackPort();  // the WebSocket servers turn port 0 into 80
        const std::string uri = scheme + "://127.0.0.1:" + std::to_string(port) + "/";
        Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
        Common::SmartPtr<net::IChannelServer> server(
            factory->startChannelServer(reactor.get(), uri.c_str(), acceptor.get(), serverOptions().c_str()));
        ASSERT_TRUE(server);
        const int listening = corvane_test::CountOpenDescriptors();
        int hostile = 0;
        for (Peer client : clients) {
            SCOPED_TRACE(name(client));
            for (int round = 0; round < 10; ++round, ++hostile) {
                int fd = corvane_test::LoopbackConnect(port);
                ASSERT_GE(fd, 0);
                behave(client, fd);
            }
        }
        // Every hostile connection is gone, and the server still serves.
        EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= listening; }))
            << corvane_test::CountOpenDescriptors() << " open, " << listening << " listening";
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        Common::SmartPtr<net::IChannel> good(
            factory->openChannel(reactor.get(), uri.c_str(), handler.get(), clientOptions().c_str()));
        handler->queue("still serving");
        reactor->wakeUp();
        EXPECT_TRUE(waitFor([&] { return handler->received() == "still serving"; })) << handler->received();
        good->close();
        server->close();
        // A failure is worth a line, not a flood.
        EXPECT_LE(log.events().size(), static_cast<std::size_t>(3 * hostile));
        log.clear();
    }
}

long long millisecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
}

// Slow clients: the start of a handshake and then nothing, or a byte every 50 ms. The silence
// sweep restarts at each byte; HandshakeTimeout ends both on the limit all the same.
TEST_F(Hostile, StalledHandshakeEndsOnTheLimitOnEveryServerScheme) {
    for (const std::string scheme : {"ssl", "https", "ws", "wss"}) {
        const bool tls = scheme != "ws";
        // A TLS record header announcing 16 KiB, or an upgrade request inside a header.
        const std::string opening = tls ? std::string("\x16\x03\x01\x40\x00", 5) : "GET / HTTP/1.1\r\nX-Slow: ";
        const unsigned short port = corvane_test::FreeLoopbackPort();
        const std::string uri = scheme + "://127.0.0.1:" + std::to_string(port) + "/";
        Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
        Common::SmartPtr<net::IChannelServer> server(factory->startChannelServer(
            reactor.get(), uri.c_str(), acceptor.get(), (serverOptions() + ";HandshakeTimeout=300").c_str()));
        ASSERT_TRUE(server);
        const int listening = corvane_test::CountOpenDescriptors();
        for (bool drip : {false, true}) {
            SCOPED_TRACE(scheme + (drip ? ": drip" : ": silent"));
            int fd = corvane_test::LoopbackConnect(port);
            ASSERT_GE(fd, 0);
            const auto start = std::chrono::steady_clock::now();
            ASSERT_EQ(static_cast<ssize_t>(opening.size()), send(fd, opening.data(), opening.size(), MSG_NOSIGNAL));
            bool ended = false;
            for (int round = 0; round < 40 && !ended; ++round) {
                if (drip) {
                    (void)!send(fd, tls ? "\x01" : "a", 1, MSG_NOSIGNAL);
                }
                pollfd entry{fd, POLLIN, 0};
                char buffer[512];
                const ssize_t n = poll(&entry, 1, 50) > 0 ? recv(fd, buffer, sizeof buffer, MSG_DONTWAIT) : 1;
                ended = n == 0 || (n < 0 && errno != EAGAIN);
            }
            EXPECT_TRUE(ended);
            EXPECT_GE(millisecondsSince(start), 250);
            EXPECT_LT(millisecondsSince(start), 1500);
            close(fd);
        }
        EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= listening; }));
        server->close();
    }
}

// A target that accepts and never answers holds no opening beyond ConnectTimeout, whatever
// handshake the scheme waits for.
TEST_F(Hostile, SilentTargetEndsOpenChannelOnConnectTimeout) {
    HostileServer silent(Peer::Silent);
    for (const std::string scheme : {"ssl", "https", "ws", "wss"}) {
        SCOPED_TRACE(scheme);
        const std::string uri = scheme + "://127.0.0.1:" + std::to_string(silent.port()) + "/";
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        const auto start = std::chrono::steady_clock::now();
        const std::string text = corvane_test::thrownText([&] {
            factory->openChannel(reactor.get(), uri.c_str(), handler.get(),
                                 (clientOptions() + ";EnableProxy=false;ConnectTimeout=300").c_str());
        });
        // The TLS handshake names the limit; the WebSocket one keeps its text of old.
        EXPECT_TRUE(text.find("not done within ConnectTimeout=300 ms") != std::string::npos ||
                    text.find("timeout while waiting for connection handshake") != std::string::npos)
            << text;
        EXPECT_GE(millisecondsSince(start), 250);
        EXPECT_LT(millisecondsSince(start), 1500);
    }
}

// A one-shot server: the acceptor closes the server from inside accept, and the connection it
// took lives on with the server's reactor.
TEST_F(Hostile, ServerClosedInsideAcceptKeepsAcceptedChannel) {
    for (const std::string scheme : {"tcp", "ssl"}) {
        SCOPED_TRACE(scheme);
        Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
        Common::SmartPtr<net::IChannelServer> server(factory->startChannelServer(
            reactor.get(), (scheme + "://127.0.0.1:0").c_str(), acceptor.get(), serverOptions().c_str()));
        acceptor->makeHandler = [&] {
            server->close();
            return new corvane_test::EchoHandler;
        };
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        Common::SmartPtr<net::IChannel> client(
            factory->openChannel(reactor.get(), server->getLocalURI(), handler.get(), clientOptions().c_str()));
        handler->queue("once");
        reactor->wakeUp();
        EXPECT_TRUE(waitFor([&] { return handler->received() == "once"; })) << handler->received();
        client->close();
        acceptor->makeHandler = nullptr;
    }
}

// Acceptors that refuse or throw, and accepted handlers that throw from onRead or while the
// reactor asks for their mask: each ends only its own connection, a throw with one ERROR line,
// and the server goes on serving.
TEST_F(Hostile, FailingAcceptorOrHandlerEndsOnlyItsConnectionOnEveryServerScheme) {
    struct ThrowingHandler : corvane_test::EchoHandler {
        explicit ThrowingHandler(bool throwsInMask) : inMask(throwsInMask) {}
        bool hasPendingWrite() override {
            if (inMask && reads.load() > 0) throw std::runtime_error("handler fails");
            return EchoHandler::hasPendingWrite();
        }
        void onRead(net::IReadDataStream * stream) override {
            EchoHandler::onRead(stream);
            ++reads;
            if (!inMask) throw std::runtime_error("handler fails");
        }
        const bool inMask;
    };
    const struct {
        const char * scheme;
        const char * category;  // of the line a throwing handler costs
        const char * text;
        std::size_t refusalLines;  // "not accepting connection '...", a WebSocket server's
    } rows[] = {
        {"tcp", "corvane.tcp.TCPChannel", "]: handler fails", 0},
        {"ssl", "corvane.ssl.SSLChannel", "exception caught while dispatching socket event: handler fails", 0},
        {"ws", "corvane.websocket.WSChannel", "]: exception caught: handler fails", 1},
        {"wss", "corvane.websocket.WSChannel", "]: exception caught: handler fails", 1},
    };
    for (const auto & row : rows) {
        SCOPED_TRACE(row.scheme);
        const unsigned short port = corvane_test::FreeLoopbackPort();
        const std::string uri = std::string(row.scheme) + "://127.0.0.1:" + std::to_string(port) + "/";
        Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
        Common::SmartPtr<net::IChannelServer> server(
            factory->startChannelServer(reactor.get(), uri.c_str(), acceptor.get(), serverOptions().c_str()));
        corvane_test::LogCapture log("INFO");
        acceptor->answers = {corvane_test::TestAcceptor::Answer::Refuse, corvane_test::TestAcceptor::Answer::Throw};
        for (int i = 0; i < 2; ++i) {
            int fd = corvane_test::LoopbackConnect(port);
            EXPECT_TRUE(corvane_test::SeesEndOf(fd));
            close(fd);
        }
        EXPECT_EQ(log.countContaining("", "accept failed due to exception: 'acceptor says no"), 1u);
        EXPECT_EQ(log.countContaining("corvane.websocket.WebSocketChannelServer", "not accepting connection '"),
                  row.refusalLines);
        // The next connection accepted gets a handler that throws (0 in onRead, 1 in its mask).
        std::atomic<int> nextThrows{-1};
        acceptor->makeHandler = [&nextThrows]() -> corvane_test::RecordingHandler * {
            const int kind = nextThrows.exchange(-1);
            return kind < 0 ? new corvane_test::EchoHandler : new ThrowingHandler(kind == 1);
        };
        for (bool inMask : {false, true}) {
            SCOPED_TRACE(inMask ? "hasPendingWrite throws" : "onRead throws");
            log.clear();
            nextThrows = inMask ? 1 : 0;
            Common::SmartPtr<corvane_test::RecordingHandler> victim(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> failing(
                factory->openChannel(reactor.get(), uri.c_str(), victim.get(), clientOptions().c_str()));
            victim->queue("boom");
            reactor->wakeUp();
            EXPECT_TRUE(waitFor([&] { return victim->ended(); }));
            EXPECT_EQ(log.countContaining(row.category, row.text), 1u);
            Common::SmartPtr<corvane_test::RecordingHandler> other(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> healthy(
                factory->openChannel(reactor.get(), uri.c_str(), other.get(), clientOptions().c_str()));
            other->queue("still here");
            reactor->wakeUp();
            EXPECT_TRUE(waitFor([&] { return other->received() == "still here"; }));
            failing->close();
            healthy->close();
        }
        acceptor->makeHandler = nullptr;
        server->close();
    }
}

TEST(HostileSocket, PeerResetRightAfterConnectNamesTheSystemCause) {
    unsigned short port = 0;
    int listener = corvane_test::LoopbackListen(port);
    int client = corvane_test::LoopbackConnect(port);
    int accepted = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    resetAndClose(accepted);
    char byte;
    EXPECT_EQ(-1, recv(client, &byte, 1, 0));
    EXPECT_EQ("getpeername failed with error code '107' : Transport endpoint is not connected",
              corvane_test::thrownText([&] { socketio::SocketPeerURI(static_cast<unsigned>(client), "tcp"); }));
    close(client);
    close(listener);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Without a thread (pids.max, RLIMIT_NPROC, address space) the start fails with an exception
// instead of waiting for ever. A fresh process (no cached thread stacks) gets an address space
// too small for a stack.
void startWithoutAddressSpace() {
    Common::SmartPtr<socketio::SelectReactor> reactor(new socketio::SelectReactor(1000, 1000, 20));
    FILE * status = fopen("/proc/self/statm", "r");
    unsigned long pages = 0;
    if (status == nullptr || fscanf(status, "%lu", &pages) != 1) {
        _exit(3);
    }
    fclose(status);
    const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    rlimit limit{bytes, bytes};
    setrlimit(RLIMIT_AS, &limit);
    alarm(10);
    std::string text;
    try {
        reactor->startProcessing();
    } catch (const net::RuntimeException & e) {
        text = e.what();
    }
    _exit(text.find("cannot start the reactor thread") == 0 ? 0 : 1);
}

TEST(HostileSocketDeathTest, StartProcessingWithoutThreadThrows) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(startWithoutAddressSpace(), ::testing::ExitedWithCode(0), "");
}
#endif

}  // namespace
