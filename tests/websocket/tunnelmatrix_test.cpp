// Tunnels between any two of the six schemes: for each (listen, target) pair a tunnel in
// front of an echo server of the target's scheme carries 1 MiB both ways at once for a client
// that speaks the listen scheme, and leaves no descriptor open behind it.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "expect.h"
#include "framework/channelfactory.h"
#include "recordinghandler.h"
#include "sockets.h"
#include "testacceptor.h"
#include "../tls/tlsmaterial.h"
#include "socketio/selectreactor.h"
#include "tunnel/tunnelstore.h"
#include "wspeer.h"

namespace {

using corvane_test::waitFor;

const char * const kSchemes[] = {"tcp", "http", "https", "ssl", "ws", "wss"};
const std::size_t kBytes = 1u << 20;

corvane_test::Material & material() {
    static corvane_test::Material instance;
    return instance;
}

// Every server and client gets both kinds of settings; each transport reads its own keys.
std::string serverOptions() {
    return "CertificateFile=" + material().serverCert + ";PrivateKeyFile=" + material().serverKey;
}
std::string clientOptions() {
    return "EnableProxy=false;ValidateServerName=false;LoadCryptoCertStore=false;CAFile=" + material().caFile;
}

// A port that was free a moment ago: several transports turn port 0 into their default port.
std::string uriOn(const std::string & scheme) {
    unsigned short port = 0;
    close(corvane_test::LoopbackListen(port));
    return scheme + "://127.0.0.1:" + std::to_string(port) + "/";
}

std::string pattern(std::size_t length, unsigned seed) {
    std::string data(length, '\0');
    for (std::size_t i = 0; i < length; ++i) {
        data[i] = static_cast<char>((i * 131 + seed + (i >> 11)) & 255);
    }
    return data;
}

TEST(TunnelMatrix, EveryPairOfSchemesCarriesOneMiBBothWays) {
    Common::SmartPtr<socketio::SelectReactor> reactor(new socketio::SelectReactor(1000, 600000, 50));
    reactor->startProcessing();
    Common::SmartPtr<net::ChannelFactory> factory(new net::ChannelFactory(net::SocketOptions()));
    Common::SmartPtr<net::TunnelStore> store(new net::TunnelStore(reactor.get(), factory.get(), 1 << 16));
    material();
    const int descriptors = corvane_test::CountOpenDescriptors();
    unsigned seed = 0;
    for (const std::string listen : kSchemes) {
        for (const std::string target : kSchemes) {
            SCOPED_TRACE(listen + " -> " + target);
            Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
            const std::string targetUri = uriOn(target);
            Common::SmartPtr<net::IChannelServer> echo(
                factory->startChannelServer(reactor.get(), targetUri.c_str(), acceptor.get(), serverOptions().c_str()));
            ASSERT_TRUE(echo);
            const std::string listenUri = uriOn(listen);
            Common::SmartPtr<net::ITunnelService> tunnel(store->startTunnel(
                listenUri.c_str(), serverOptions().c_str(), targetUri.c_str(), clientOptions().c_str()));
            ASSERT_TRUE(tunnel);

            Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
            Common::SmartPtr<net::IChannel> client(
                factory->openChannel(reactor.get(), listenUri.c_str(), handler.get(), clientOptions().c_str()));
            ASSERT_TRUE(client);
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

            client->close();
            tunnel->close();
            echo->close();
            // The tunnel's outgoing connection ends with it.
            EXPECT_TRUE(waitFor([&] { return acceptor->accepted() == 1 && acceptor->handlers[0]->ended(); }))
                << "the target's connection did not end";
            for (const auto & channel : acceptor->channels) {
                channel->close();
            }
            acceptor->channels.clear();
            acceptor->handlers.clear();
        }
    }
    store->shutdown();
    EXPECT_TRUE(waitFor([&] { return corvane_test::CountOpenDescriptors() <= descriptors; }, 10000))
        << corvane_test::CountOpenDescriptors() << " open, " << descriptors << " before";
    reactor->stopProcessing();
}

// A tunnel keys its end points by their channels' names: an accepted WebSocket channel must
// have its names before the tunnel sees it, or the second connection at once is refused.
TEST(TunnelMatrix, WebSocketListenersCarrySeveralConnectionsAtOnce) {
    Common::SmartPtr<socketio::SelectReactor> reactor(new socketio::SelectReactor(1000, 600000, 50));
    reactor->startProcessing();
    Common::SmartPtr<net::ChannelFactory> factory(new net::ChannelFactory(net::SocketOptions()));
    Common::SmartPtr<net::TunnelStore> store(new net::TunnelStore(reactor.get(), factory.get(), 1 << 16));
    Common::SmartPtr<corvane_test::TestAcceptor> acceptor(new corvane_test::TestAcceptor);
    const std::string targetUri = uriOn("tcp");
    Common::SmartPtr<net::IChannelServer> echo(
        factory->startChannelServer(reactor.get(), targetUri.c_str(), acceptor.get(), ""));
    for (const std::string listen : {"ws", "wss"}) {
        SCOPED_TRACE(listen);
        const std::string listenUri = uriOn(listen);
        Common::SmartPtr<net::ITunnelService> tunnel(store->startTunnel(
            listenUri.c_str(), serverOptions().c_str(), targetUri.c_str(), clientOptions().c_str()));
        std::vector<Common::SmartPtr<corvane_test::RecordingHandler>> handlers;
        std::vector<Common::SmartPtr<net::IChannel>> clients;
        for (int i = 0; i < 3; ++i) {
            handlers.emplace_back(new corvane_test::RecordingHandler);
            clients.emplace_back(
                factory->openChannel(reactor.get(), listenUri.c_str(), handlers.back().get(), clientOptions().c_str()));
        }
        for (int i = 0; i < 3; ++i) {
            handlers[i]->queue("connection " + std::to_string(i));
        }
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(waitFor([&] { return handlers[i]->received() == "connection " + std::to_string(i); }))
                << i << ": " << handlers[i]->received();
            clients[i]->close();
        }
        tunnel->close();
    }
    store->shutdown();
    echo->close();
    for (const auto & channel : acceptor->channels) {
        channel->close();
    }
    reactor->stopProcessing();
}

// A tunnel from tcp to a WebSocket peer, on one reactor, with the store's usual ring size.
struct TcpToWsTunnel {
    explicit TcpToWsTunnel(const std::string & target)
        : reactor(new socketio::SelectReactor(1000, 600000, 20)),
          factory(new net::ChannelFactory(net::SocketOptions())),
          store(new net::TunnelStore(reactor.get(), factory.get(), 1 << 16)) {
        reactor->startProcessing();
        unsigned short port = 0;
        close(corvane_test::LoopbackListen(port));
        listenPort = port;
        const std::string listen = "tcp://127.0.0.1:" + std::to_string(port) + "/";
        service = store->startTunnel(listen.c_str(), "", target.c_str(), "EnableProxy=false");
    }
    ~TcpToWsTunnel() {
        service->close();
        store->shutdown();
        reactor->stopProcessing();
    }
    Common::SmartPtr<socketio::SelectReactor> reactor;
    Common::SmartPtr<net::ChannelFactory> factory;
    Common::SmartPtr<net::TunnelStore> store;
    Common::SmartPtr<net::ITunnelService> service;
    unsigned short listenPort = 0;
};

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
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    std::string back(text.size(), '\0');
    std::size_t got = 0;
    while (got < back.size()) {
        ssize_t n = recv(fd, &back[got], back.size() - got, 0);
        if (n <= 0) {
            break;
        }
        got += static_cast<std::size_t>(n);
    }
    return back.substr(0, got);
}

// The target resets while the tunnel forwards to it: the failed send on the reactor thread
// ends that connection alone, and another connection of the same tunnel goes on.
TEST(TunnelToWebSocket, WsTargetResetDuringTunnelSendEndsOnlyThatConnection) {
    corvane_test::PythonPeer target("reset", "262144");
    TcpToWsTunnel tunnel(target.uri());
    int bystander = corvane_test::LoopbackConnect(tunnel.listenPort);
    ASSERT_EQ(exchange(bystander, "before"), "before");
    for (int round = 0; round < 3; ++round) {
        int client = corvane_test::LoopbackConnect(tunnel.listenPort);
        EXPECT_TRUE(pumpUntilEnd(client)) << "round " << round;
        close(client);
    }
    EXPECT_EQ(exchange(bystander, "after"), "after");
    close(bystander);
}

}  // namespace
