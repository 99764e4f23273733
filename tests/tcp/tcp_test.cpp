// The TCP transport end to end through the channel factory, against blocking peers that
// share no code with it.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvane/uri.h"
#include "channeltest.h"
#include "echoserver.h"
#include "framework/channelfactory.h"
#include "expect.h"
#include "logcapture.h"
#include "pattern.h"
#include "recordinghandler.h"
#include "socketio/selectreactor.h"
#include "sockets.h"
#include "testacceptor.h"

namespace {

using corvane_test::Pattern;
using corvane_test::thrownText;
using corvane_test::waitFor;

using corvane_test::EchoHandler;
using corvane_test::RecordingHandler;
using corvane_test::TestAcceptor;

class TcpTransport : public corvane_test::ChannelTest {
protected:
    void TearDown() override {
        reactor->stopProcessing();
        acceptor = nullptr;
        ChannelTest::TearDown();
    }
    Common::SmartPtr<net::IChannelServer> startServer(const char * uri = "tcp://127.0.0.1:0") {
        if (!acceptor) {
            acceptor = new TestAcceptor;
        }
        return factory->startChannelServer(reactor.get(), uri, acceptor.get(), "whatever=1;unknown");
    }
    static unsigned short portOf(net::IChannelServer * server) {
        return net::URI::FromString(server->getLocalURI()).getPort();
    }
    static std::string rawExchange(int fd, const std::string & message) {
        return corvane_test::SendAll(fd, message) ? corvane_test::RecvExact(fd, message.size()) : "";
    }

    Common::SmartPtr<TestAcceptor> acceptor;
};

TEST_F(TcpTransport, EchoesAMegabyteBothWaysByteForByte) {
    Common::SmartPtr<net::IChannelServer> server = startServer();
    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    std::string uri = "tcp://127.0.0.1:" + std::to_string(portOf(server.get()));
    Common::SmartPtr<net::IChannel> channel(factory->openChannel(reactor.get(), uri.c_str(), client.get(), nullptr));
    EXPECT_EQ(std::string(channel->getPeerURI()), uri);
    EXPECT_EQ(std::string(channel->getDescription()),
              std::string(channel->getLocalURI()) + " <-> " + channel->getPeerURI());

    const std::string data = Pattern(1 << 20);
    client->queue(data);
    ASSERT_TRUE(waitFor([&] { return client->receivedSize() >= data.size(); }));
    EXPECT_TRUE(client->received() == data);
    channel->close();
    channel->close();
    EXPECT_EQ(client->closes.load() + client->errors.load(), 0) << "close() calls no handler";
    // Linger is on by default: the close resets, and the server's channel sees an error.
    ASSERT_TRUE(waitFor([&] { return acceptor->accepted() == 1 && acceptor->handlers[0]->errors.load() == 1; }));
    server->close();
    server->close();
}

TEST_F(TcpTransport, PeerClosingWithUnreadDataIsReadToTheEndBeforeOnClose) {
    Common::SmartPtr<net::IChannelServer> server = startServer();
    acceptor->makeHandler = [] { return new RecordingHandler; };
    const std::string data = Pattern(300000);
    int fd = corvane_test::LoopbackConnect(portOf(server.get()));
    ASSERT_EQ(send(fd, data.data(), data.size(), 0), static_cast<ssize_t>(data.size()));
    close(fd);
    ASSERT_TRUE(waitFor([&] { return acceptor->accepted() == 1 && acceptor->handlers[0]->ended(); }));
    RecordingHandler & handler = *acceptor->handlers[0];
    EXPECT_TRUE(handler.received() == data);
    EXPECT_EQ(handler.closes.load(), 1);
    EXPECT_EQ(handler.errors.load(), 0);
    acceptor->channels[0]->close();  // after onClose: harmless
    server->close();
}

TEST_F(TcpTransport, CloseInsideOnReadStillDeliversOnWriteWhoseSendFails) {
    corvane_test::LogCapture log("ERROR");
    corvane_test::EchoServer peer;
    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    client->alwaysWantWrite = true;
    std::atomic<net::IChannel *> opened{nullptr};
    std::atomic<bool> closed{false};
    // Nothing is sent before the channel is known, so the first echo, and with it the first
    // onRead, comes after it.
    client->onReadHook = [&](net::IReadDataStream *) {
        opened.load()->close();
        closed = true;
    };
    client->onWriteHook = [&](net::IWriteDataStream * stream) { return opened.load() ? stream->send(1, "x") : 0; };
    std::string uri = "tcp://127.0.0.1:" + std::to_string(peer.port());
    Common::SmartPtr<net::IChannel> channel(factory->openChannel(reactor.get(), uri.c_str(), client.get(), nullptr));
    opened = channel.get();
    ASSERT_TRUE(waitFor([&] { return closed.load() && client->lastSend.load() == -1; }));
    EXPECT_EQ(client->writes.load() > 0, true);
    EXPECT_EQ(log.count("corvane.tcp.TCPChannel", "ERROR", "send: failed with error code '9' : Bad file descriptor"), 1u);
    EXPECT_EQ(client->closes.load() + client->errors.load(), 0);
}

// At the descriptor limit a listening socket stays readable while accept fails: the server must
// neither spin nor flood the log, and must serve again once descriptors are free.
TEST_F(TcpTransport, DescriptorLimitOnAcceptCostsNoBusyLoopAndServesAgainAfterwards) {
    Common::SmartPtr<net::IChannelServer> server = startServer();
    const unsigned short port = portOf(server.get());
    std::vector<int> clients;
    for (int i = 0; i < 5; ++i) {
        clients.push_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));  // made before the limit
    }
    rlimit saved{};
    getrlimit(RLIMIT_NOFILE, &saved);
    rlimit lowered = saved;
    lowered.rlim_cur = static_cast<rlim_t>(corvane_test::CountOpenDescriptors() + 8);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &lowered), 0);
    std::vector<int> fillers;
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;) {
        fillers.push_back(fd);
    }
    corvane_test::LogCapture log("WARN");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    for (int fd : clients) {
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    }
    timespec before{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &before);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    timespec after{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &after);
    long cpuMilliseconds = (after.tv_sec - before.tv_sec) * 1000 + (after.tv_nsec - before.tv_nsec) / 1000000;
    EXPECT_LT(cpuMilliseconds, 50) << "the server spins on a listening socket it cannot accept from";
    EXPECT_LE(log.countContaining("corvane.tcp.TCPChannelServer", "onAccept on new socket failed"), 1u);
    for (int fd : clients) {
        EXPECT_TRUE(corvane_test::SeesEndOf(fd)) << "a connection that could not be taken is closed";
        close(fd);
    }

    for (int fd : fillers) {
        close(fd);
    }
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    int fd = corvane_test::LoopbackConnect(port);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(rawExchange(fd, "served again"), "served again");
    close(fd);
    server->close();
}

TEST_F(TcpTransport, ConnectFailuresAreClearAndLeaveNothingBehind) {
    corvane_test::ScopedBoundPort refused;
    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    std::string uri = "tcp://127.0.0.1:" + std::to_string(refused.port());
    try {
        factory->openChannel(reactor.get(), uri.c_str(), client.get(), nullptr);
        ADD_FAILURE() << "connected";
    } catch (const net::RuntimeException & e) {
        EXPECT_EQ(std::string(e.what()), "while connecting to " + uri);
    }
    EXPECT_THROW(factory->openChannel(reactor.get(), "tcp://127.0.0.1:99999", client.get(), nullptr), net::URIException);
    EXPECT_EQ(client->refCount(), 1) << "no channel kept the handler";

    // A stopped reactor refuses the registration; the connected socket is closed again.
    corvane_test::EchoServer peer;
    reactor->stopProcessing();
    std::string good = "tcp://127.0.0.1:" + std::to_string(peer.port());
    EXPECT_THROW(factory->openChannel(reactor.get(), good.c_str(), client.get(), nullptr), net::RuntimeException);
    EXPECT_EQ(client->refCount(), 1);
    reactor->startProcessing();
}

}  // namespace
