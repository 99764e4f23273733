// Tunnels between any two of the six schemes: for each (listen, target) pair a tunnel in
// front of an echo server of the target's scheme carries 1 MiB both ways at once for a client
// that speaks the listen scheme, beside a second connection opened at once, and leaves no
// descriptor open behind it. TunnelMatrix of tunnels (raw tcp -> listen -> target -> raw tcp) show
// what each pair does with the ends of a connection: a target that sends and closes at once,
// and a client that half-closes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "expect.h"
#include "pattern.h"
#include "framework/channelfactory.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "testacceptor.h"
#include "../tls/tlsmaterial.h"
#include "childprocess.h"
#include "corvane/uri.h"
#include "socketio/selectreactor.h"
#include "tunnel/tunnelstore.h"
#include "wspeer.h"

namespace {

using corvane_test::waitFor;

const char * const kSchemes[] = {"tcp", "http", "https", "ssl", "ws", "wss"};
const std::size_t kBytes = 1u << 20;

using corvane_test::material;
const auto serverOptions = corvane_test::ServerOptions;
const auto clientOptions = corvane_test::ClientOptions;

// A port that was free a moment ago: several transports turn port 0 into their default port.
std::string uriOn(const std::string & scheme) {
    return scheme + "://127.0.0.1:" + std::to_string(corvane_test::FreeLoopbackPort()) + "/";
}

std::string pattern(std::size_t length, unsigned seed) {
    return corvane_test::Pattern(length, std::uint64_t{seed} << 32);
}

// Sends without pause and reads what comes back until the connection ends or 10 s pass;
// true when it ended.
bool pumpUntilEnd(int fd) {
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
    const std::string chunk(16384, 'r');
    char buffer[65536];
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN | POLLOUT, 0};
        poll(&entry, 1, 100);
        if ((entry.revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN)) {
                return true;
            }
        }
        if ((entry.revents & POLLOUT) != 0 && send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL) < 0 &&
            errno != EAGAIN) {
            return true;
        }
    }
    return false;
}

std::string exchange(int fd, const std::string & text) {
    return corvane_test::SendAll(fd, text) ? corvane_test::RecvExact(fd, text.size()) : "";
}

// A reactor, a factory and a store whose small rings make sure that most of the bytes are
// still inside the tunnels when a side ends; everyPair() runs an exchange through a chain raw
// client -> tcp -> listen -> target -> tcp -> raw target for every (listen, target) pair.
class TunnelMatrix : public ::testing::Test {
protected:
    void SetUp() override {
        material();
        m_descriptors = corvane_test::CountOpenDescriptors();
        net::SocketOptions options;
        options.backlog = 128;
        factory = new net::ChannelFactory(options);
        reactor = new socketio::SelectReactor(1000, 600000, 20);
        reactor->startProcessing();
        store = new net::TunnelStore(reactor.get(), factory.get(), 4096);
        target = corvane_test::LoopbackListen(targetPort, 16);
    }
    void TearDown() override {
        store->shutdown();
        reactor->stopProcessing();
        close(target);
        store = nullptr;
        factory = nullptr;
        reactor = nullptr;
        EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= m_descriptors; }))
            << corvane_test::CountOpenDescriptors() << " open, " << m_descriptors << " before";
    }
    // The tunnels of one chain; the port of its raw tcp front.
    unsigned short chain(const std::string & listen, const std::string & to) {
        const std::string back = "tcp://127.0.0.1:" + std::to_string(targetPort) + "/";
        const std::string middle = uriOn(listen);
        const std::string last = uriOn(to);
        services.emplace_back(store->startTunnel(last.c_str(), serverOptions().c_str(), back.c_str(), ""));
        services.emplace_back(store->startTunnel(middle.c_str(), serverOptions().c_str(), last.c_str(), clientOptions().c_str()));
        services.emplace_back(store->startTunnel("tcp://127.0.0.1:0", "", middle.c_str(), clientOptions().c_str()));
        return net::URI::FromString(services.back()->getLocalURI()).getPort();
    }
    int acceptTarget() {
        pollfd entry{target, POLLIN, 0};
        if (poll(&entry, 1, 10000) != 1) {
            return -1;
        }
        int accepted = accept4(target, nullptr, nullptr, SOCK_CLOEXEC);
        corvane_test::BoundBlockingCalls(accepted);
        return accepted;
    }
    // `exchange(client, server)` for a chain through every pair, CORVANE_MATRIX_ROUNDS times (1
    // unless set, at most 100); then the client must see the end, and the chain must leave no
    // tunnel behind.
    void everyPair(const std::function<void(int client, int server, bool halfClose)> & exchange) {
        const char * text = std::getenv("CORVANE_MATRIX_ROUNDS");
        const int rounds = text == nullptr ? 1 : std::max(1, std::min(100, std::atoi(text)));
        for (int round = 0; round < rounds; ++round) {
            for (const std::string listen : kSchemes) {
                for (const std::string to : kSchemes) {
                    SCOPED_TRACE(listen + " -> " + to + ", round " + std::to_string(round));
                    int client = corvane_test::LoopbackConnect(chain(listen, to));
                    int server = acceptTarget();
                    ASSERT_GE(server, 0);
                    // The WebSocket engine reads nothing after a close frame: no half-close.
                    exchange(client, server, listen.compare(0, 2, "ws") != 0 && to.compare(0, 2, "ws") != 0);
                    EXPECT_TRUE(corvane_test::SeesEndOf(client));
                    close(client);
                    for (auto & service : services) {
                        service->close();
                    }
                    services.clear();
                    EXPECT_TRUE(waitFor([&] { return store->tunnelCount() == 0; })) << store->tunnelCount() << " left";
                }
            }
        }
    }

    Common::SmartPtr<socketio::SelectReactor> reactor;
    Common::SmartPtr<net::ChannelFactory> factory;
    Common::SmartPtr<net::TunnelStore> store;
    std::vector<Common::SmartPtr<net::ITunnelService>> services;
    int target = -1;
    unsigned short targetPort = 0;

private:
    int m_descriptors = 0;
};

TEST_F(TunnelMatrix, EveryPairOfSchemesCarriesOneMiBBothWays) {
    Common::SmartPtr<net::TunnelStore> wide(new net::TunnelStore(reactor.get(), factory.get(), 1 << 16));
    unsigned seed = 0;
    for (const std::string listen : kSchemes) {
        for (const std::string to : kSchemes) {
            SCOPED_TRACE(listen + " -> " + to);
            Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
            const std::string targetUri = uriOn(to);
            Common::SmartPtr<net::IChannelServer> echo(
                factory->startChannelServer(reactor.get(), targetUri.c_str(), acceptor.get(), serverOptions().c_str()));
            ASSERT_TRUE(echo);
            const std::string listenUri = uriOn(listen);
            Common::SmartPtr<net::ITunnelService> tunnel(wide->startTunnel(
                listenUri.c_str(), serverOptions().c_str(), targetUri.c_str(), clientOptions().c_str()));
            ASSERT_TRUE(tunnel);

            Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> client(
                factory->openChannel(reactor.get(), listenUri.c_str(), handler.get(), clientOptions().c_str()));
            ASSERT_TRUE(client);
            // A second connection at once: a tunnel keys its end points by their channels' names,
            // which an accepted channel must have before the tunnel sees it.
            Common::SmartPtr<corvane_test::RecordingHandler> second(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> secondClient(
                factory->openChannel(reactor.get(), listenUri.c_str(), second.get(), clientOptions().c_str()));
            second->queue("second");
            reactor->wakeUp();
            // Written from this thread while the echo comes back on the reactor's.
            const std::string data = pattern(kBytes, ++seed);
            std::size_t sent = 0;
            EXPECT_TRUE(waitFor(
                [&] {
                    int n = client->getWriteDataStream()->send(
                        static_cast<int>(std::min<std::size_t>(65536, kBytes - sent)), data.data() + sent);
                    sent += n > 0 ? static_cast<std::size_t>(n) : 0;
                    return sent == kBytes || n < 0;
                },
                20000));
            EXPECT_TRUE(waitFor([&] { return handler->receivedSize() >= kBytes; }, 20000)) << handler->receivedSize();
            EXPECT_TRUE(handler->received() == data);
            EXPECT_TRUE(waitFor([&] { return second->received() == "second"; })) << second->received();

            client->close();
            secondClient->close();
            tunnel->close();
            echo->close();
            // The tunnel's outgoing connection ends with it.
            EXPECT_TRUE(waitFor([&] {
                return acceptor->accepted() == 2 && acceptor->handlers[0]->ended() && acceptor->handlers[1]->ended();
            })) << "the target's connections did not end";
            for (const auto & channel : acceptor->channels) {
                channel->close();
            }
            acceptor->channels.clear();
            acceptor->handlers.clear();
        }
    }
    wide->shutdown();
}

TEST_F(TunnelMatrix, TargetThatSendsAndClosesAtOnceReachesTheClientWholeThroughEveryPair) {
    const std::string data = pattern(300000, 3);
    everyPair([&](int client, int server, bool) {
        EXPECT_TRUE(corvane_test::SendAll(server, data));
        close(server);
        const std::string got = corvane_test::RecvExact(client, data.size());
        EXPECT_TRUE(got == data) << got.size() << " of " << data.size() << " bytes";
    });
}

// Where both schemes carry a half-close, the client that shut down its sending side gets the
// target's whole answer; where one cannot, the connection ends and nothing is left waiting.
TEST_F(TunnelMatrix, HalfClosingClientGetsItsReplyWhereThePairCarriesTheHalfClose) {
    const std::string request = pattern(70000, 5);
    const std::string reply = pattern(200000, 6);
    everyPair([&](int client, int server, bool halfClose) {
        ASSERT_TRUE(corvane_test::SendAll(client, request));
        ASSERT_EQ(shutdown(client, SHUT_WR), 0);
        const std::string got = corvane_test::RecvExact(server, request.size() + 1);
        EXPECT_TRUE(got == request) << got.size() << " of " << request.size() << " bytes";
        if (halfClose) {
            EXPECT_TRUE(corvane_test::SendAll(server, reply));
        }
        close(server);
        if (halfClose) {
            const std::string answer = corvane_test::RecvExact(client, reply.size());
            EXPECT_TRUE(answer == reply) << answer.size() << " of " << reply.size() << " bytes";
        }
    });
}

// The target resets while the tunnel forwards to it: the failed send on the reactor thread
// ends that connection alone, and another connection of the same tunnel goes on.
TEST_F(TunnelMatrix, WsTargetResetDuringTunnelSendEndsOnlyThatConnection) {
    corvane_test::PythonPeer resetting("reset", "262144");
    // The store's usual ring size.
    Common::SmartPtr<net::TunnelStore> usual(new net::TunnelStore(reactor.get(), factory.get(), 1 << 16));
    const unsigned short port = net::URI::FromString(
        usual->startTunnel("tcp://127.0.0.1:0", "", resetting.uri().c_str(), "EnableProxy=false")->getLocalURI()).getPort();
    int bystander = corvane_test::LoopbackConnect(port);
    ASSERT_EQ(exchange(bystander, "before"), "before");
    for (int round = 0; round < 3; ++round) {
        int client = corvane_test::LoopbackConnect(port);
        EXPECT_TRUE(pumpUntilEnd(client)) << "round " << round;
        close(client);
    }
    EXPECT_EQ(exchange(bystander, "after"), "after");
    close(bystander);
    usual->shutdown();
}

// A download from an HTTPS server through a tcp -> https tunnel arrives whole: the server
// sends the file and closes, and everything the tunnel holds then still reaches the client.
TEST_F(TunnelMatrix, HttpsDownloadThroughATunnelArrivesWhole) {
    const std::string file = pattern(10u << 20, 8);
    std::ofstream(material().directory + "/download.bin", std::ios::binary) << file;
    corvane_test::ChildProcess server({"sh", "-c",
                                       "cd '" + material().directory + "' && exec openssl s_server -WWW -accept 127.0.0.1:0 -cert " +
                                           material().serverCert + " -key " + material().serverKey});
    const std::string line = server.lineAfter("ACCEPT 127.0.0.1:");
    ASSERT_FALSE(line.empty()) << "openssl s_server did not start";
    const std::string https = "https://127.0.0.1:" + std::to_string(std::stoi(line)) + "/";
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round);
        net::ITunnelService * service = store->startTunnel("tcp://127.0.0.1:0", "", https.c_str(), clientOptions().c_str());
        int client = corvane_test::LoopbackConnect(net::URI::FromString(service->getLocalURI()).getPort());
        ASSERT_TRUE(corvane_test::SendAll(client, "GET /download.bin HTTP/1.0\r\n\r\n"));
        std::string answer;
        for (std::string piece; !(piece = corvane_test::RecvExact(client, 1u << 20)).empty();) {
            answer += piece;
        }
        close(client);
        const std::size_t body = answer.find("\r\n\r\n");
        ASSERT_NE(body, std::string::npos) << answer.substr(0, 200);
        EXPECT_EQ(answer.size() - body - 4, file.size());
        EXPECT_TRUE(answer.compare(body + 4, std::string::npos, file) == 0) << "the download differs";
        service->close();
    }
}

}  // namespace
