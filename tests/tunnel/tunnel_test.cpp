// Tunnels end to end over loopback: a tunnel store on a real reactor and factory, raw
// blocking clients and targets that share no code with the library.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "corvane/uri.h"
#include "channeltest.h"
#include "echoserver.h"
#include "expect.h"
#include "pattern.h"
#include "framework/channelfactory.h"
#include "logcapture.h"
#include "net/internalexception.h"
#include "socketio/selectreactor.h"
#include "sockets.h"
#include "tunnel/tunnelcreatorthread.h"
#include "tunnel/tunnelstore.h"

namespace {

using Clock = std::chrono::steady_clock;

// CPU time of the whole process (the reactor thread included) over a span of sleep.
long cpuMillisecondsOver(std::chrono::milliseconds span) {
    auto cpu = [] {
        timespec now{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return static_cast<long>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    };
    long before = cpu();
    std::this_thread::sleep_for(span);
    return cpu() - before;
}

using corvane_test::waitFor;
constexpr auto connectTo = corvane_test::LoopbackConnect;
constexpr auto sendAll = corvane_test::SendAll;
constexpr auto recvExact = corvane_test::RecvExact;
constexpr auto seesEnd = corvane_test::SeesEndOf;

std::string pattern(std::size_t size, unsigned seed = 0) {
    return corvane_test::Pattern(size, std::uint64_t{seed} << 32);
}

unsigned short portOf(const char * uri) {
    return net::URI::FromString(uri).getPort();
}

// A listening target on 127.0.0.1, port 0, accepting only when the test asks.
struct RawTarget {
    RawTarget() { fd = corvane_test::LoopbackListen(port, 16); }
    ~RawTarget() { close(fd); }
    int acceptWithin(int milliseconds = 5000) {
        pollfd entry{fd, POLLIN, 0};
        if (poll(&entry, 1, milliseconds) != 1) {
            return -1;
        }
        int accepted = accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        corvane_test::BoundBlockingCalls(accepted);
        return accepted;
    }
    std::string uri() const { return "tcp://127.0.0.1:" + std::to_string(port); }
    int fd;
    unsigned short port;
};

// Names a target anew for each connection: the next URI of its list, the last one for ever.
class TargetList : public net::IChannelEndpoint {
public:
    explicit TargetList(std::vector<std::string> uris) : m_uris(std::move(uris)) {}
    void getEndpoint(std::string & uri, std::string & options) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        uri = m_uris[std::min(m_next, m_uris.size() - 1)];
        ++m_next;
        options.clear();
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_uris;
    std::size_t m_next = 0;
};

class Tunnels : public corvane_test::ChannelTest {
protected:
    void SetUp() override {
        ChannelTest::SetUp();
        store = new net::TunnelStore(reactor.get(), factory.get(), 65536);
    }
    void TearDown() override {
        store->shutdown();
        EXPECT_EQ(store->tunnelCount(), 0u);
        EXPECT_EQ(store->serviceCount(), 0u);
        reactor->stopProcessing();
        store = nullptr;
        ChannelTest::TearDown();
    }
    unsigned short startTunnel(const std::string & target, unsigned int bufferSize = 65536) {
        if (bufferSize != 65536) {
            store = new net::TunnelStore(reactor.get(), factory.get(), bufferSize);
        }
        net::ITunnelService * service = store->startTunnel("tcp://127.0.0.1:0", "", target.c_str(), "");
        return portOf(service->getLocalURI());
    }
    bool drained() {
        return waitFor([this] { return store->tunnelCount() == 0; });
    }
    // A new client through `port` reaches `target` with `text`; both ends are closed after.
    void expectCarried(unsigned short port, RawTarget & target, const std::string & text) {
        int client = connectTo(port);
        int server = target.acceptWithin();
        ASSERT_GE(server, 0);
        ASSERT_TRUE(sendAll(client, text));
        EXPECT_EQ(recvExact(server, text.size()), text);
        close(client);
        close(server);
    }

    Common::SmartPtr<net::TunnelStore> store;
};

TEST_F(Tunnels, RingFullStopsOnlyItsDirection) {
    RawTarget target;
    unsigned short port = startTunnel(target.uri(), 4096);
    int client = connectTo(port);
    int server = target.acceptWithin();
    ASSERT_GE(server, 0);

    // The target reads nothing: client to target fills the kernel buffers and the 4 KiB ring
    // until the client's sends would block.
    fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
    const std::string upstream = pattern(64 << 20, 1);
    std::size_t sent = 0;
    auto quietSince = Clock::now();
    while (sent < upstream.size() && Clock::now() - quietSince < std::chrono::milliseconds(300)) {
        ssize_t n = send(client, upstream.data() + sent, std::min<std::size_t>(65536, upstream.size() - sent),
                         MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<std::size_t>(n);
            quietSince = Clock::now();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ASSERT_LT(sent, upstream.size()) << "the stalled direction never pushed back";
    // While stalled, the full ring costs no busy loop of the reactor.
    EXPECT_LT(cpuMillisecondsOver(std::chrono::milliseconds(500)), 100) << "the reactor spins on a full ring";

    // The other direction goes on, byte for byte.
    fcntl(client, F_SETFL, fcntl(client, F_GETFL) & ~O_NONBLOCK);
    const std::string downstream = pattern(1 << 20, 2);
    std::thread writer([&] { EXPECT_TRUE(sendAll(server, downstream)); });
    EXPECT_TRUE(recvExact(client, downstream.size()) == downstream);
    writer.join();

    // The stalled direction then delivers everything that was taken, in order.
    EXPECT_TRUE(recvExact(server, sent) == upstream.substr(0, sent));
    close(client);
    EXPECT_TRUE(seesEnd(server));
    close(server);
    EXPECT_TRUE(drained());
}

// One line per connection when both ends are gone: who, where, the bytes each way as they
// were delivered, and which side ended it.
TEST_F(Tunnels, ConnectionEndLineCountsEachDirectionAndNamesWhoEndedIt) {
    corvane_test::LogCapture log("INFO");
    RawTarget target;
    corvane_test::ScopedBoundPort refusing;
    Common::SmartPtr<net::IChannelEndpoint> targets(
        new TargetList({target.uri(), target.uri(), target.uri(),
                        "tcp://127.0.0.1:" + std::to_string(refusing.port()), target.uri()}));
    const unsigned short port = portOf(store->startTunnel2("tcp://127.0.0.1:0", nullptr, targets.get())->getLocalURI());
    const auto lines = [&log] {
        std::vector<std::string> texts;
        for (const corvane_test::LogEvent & event : log.events()) {
            if (event.category == "corvane.net.TunnelConnection") {
                EXPECT_EQ(event.level, "INFO");
                texts.push_back(event.text);
            }
        }
        return texts;
    };
    for (const char * ending : {"closed by the client", "closed by the target", "closed by the host"}) {
        int client = connectTo(port);
        int server = target.acceptWithin();
        ASSERT_GE(server, 0);
        sockaddr_in local{};
        socklen_t length = sizeof local;
        getsockname(client, reinterpret_cast<sockaddr *>(&local), &length);
        ASSERT_TRUE(sendAll(client, pattern(1000)));
        EXPECT_EQ(recvExact(server, 1000).size(), 1000u);
        ASSERT_TRUE(sendAll(server, pattern(250)));
        EXPECT_EQ(recvExact(client, 250).size(), 250u);
        const std::string ended = ending;
        if (ended == "closed by the host") {
            store->closeTunnels();
        } else {
            // The other side sees the end as a half-close and ends in its turn.
            const bool clientCloses = ended == "closed by the client";
            close(clientCloses ? client : server);
            EXPECT_TRUE(seesEnd(clientCloses ? server : client));
            close(clientCloses ? server : client);
        }
        EXPECT_TRUE(drained());
        const std::vector<std::string> texts = lines();
        ASSERT_FALSE(texts.empty());
        const std::string & line = texts.back();
        const std::string head = "connection from tcp://127.0.0.1:" + std::to_string(ntohs(local.sin_port)) +
                                 " on tcp://127.0.0.1:" + std::to_string(port) + " to " + target.uri() + " ended after ";
        EXPECT_EQ(line.rfind(head, 0), 0u) << line;
        EXPECT_NE(line.find(" s: 1000 bytes to the target, 250 bytes to the client, " + ended), std::string::npos) << line;
        if (ended == "closed by the host") {
            close(client);
            close(server);
        }
    }
    int refused = connectTo(port);
    EXPECT_TRUE(seesEnd(refused));
    close(refused);
    EXPECT_TRUE(waitFor([&] { return lines().size() == 4; }));
    EXPECT_NE(lines().back().find(" to tcp://127.0.0.1:" + std::to_string(refusing.port()) +
                                  " ended after "), std::string::npos) << lines().back();
    EXPECT_NE(lines().back().find(": 0 bytes to the target, 0 bytes to the client, connect to the target failed: while "
                                  "connecting to"), std::string::npos) << lines().back();
    EXPECT_EQ(log.countContaining("corvane.net.TunnelCreatorThread", "' exception caught:"), 1u);
    EXPECT_EQ(log.countContaining("corvane.net.TunnelCreatorThread",
                                  "while creating a connection on behalf of '{TunnelEndPoint, tcp://127.0.0.1:"), 1u);
    // The refusal costs the next client nothing.
    expectCarried(port, target, "after the refusal");
    EXPECT_TRUE(drained());
}

TEST_F(Tunnels, StartLineAndMisuseRefusedWithItsText) {
    corvane_test::LogCapture log("INFO");
    // No port: the system picks one.
    net::ITunnelService * chosen = store->startTunnel("tcp://127.0.0.1", nullptr, "tcp://127.0.0.1:9", nullptr);
    EXPECT_EQ(log.count("corvane.net.TunnelStore", "INFO", "startTunnel('tcp://127.0.0.1', '<null>', 'tcp://127.0.0.1:9', '<null>')"), 1u);
    EXPECT_NE(portOf(chosen->getLocalURI()), 0) << chosen->getLocalURI();
    chosen->close();
    EXPECT_EQ(store->serviceCount(), 0u);
    EXPECT_THROW(store->startTunnel("tcp://127.0.0.1:0", "", "no uri at all", ""), net::URIException);
    EXPECT_THROW(store->startTunnel("not a uri", "", "tcp://127.0.0.1:1", ""), net::URIException);
    EXPECT_EQ(store->serviceCount(), 0u);

    Common::SmartPtr<net::TunnelCreatorThread> thread(new net::TunnelCreatorThread);
    const auto textOf = corvane_test::thrownText;
    EXPECT_EQ(textOf([&] { thread->stopProcessing(); }), "Thread already stopped");
    thread->startProcessing(store.get());
    EXPECT_EQ(textOf([&] { thread->startProcessing(store.get()); }), "Thread already running");
    thread->stopProcessing();
    EXPECT_EQ(textOf([&] { thread->stopProcessing(); }), "Thread already stopped");
    EXPECT_EQ(log.count("corvane.net.InternalException", "WARN", "Thread already stopped"), 2u);
    EXPECT_EQ(log.count("corvane.net.InternalException", "WARN", "Thread already running"), 1u);

    // A service that is closed refuses further connections; a second close does nothing.
    RawTarget target;
    net::ITunnelService * service = store->startTunnel("tcp://127.0.0.1:0", "", target.uri().c_str(), "");
    Common::SmartPtr<net::ITunnelService> kept(service);
    service->close();
    service->close();
    EXPECT_EQ(store->serviceCount(), 0u);
    // A port in use is the error of the channel server, and nothing is stored.
    RawTarget busy;
    EXPECT_THROW(store->startTunnel(busy.uri().c_str(), "", target.uri().c_str(), ""), net::RuntimeException);
    EXPECT_EQ(store->serviceCount(), 0u);
    // A store that never served shuts down at once, twice.
    Common::SmartPtr<net::TunnelStore> unused(new net::TunnelStore(reactor.get(), factory.get(), 0));
    unused->shutdown();
    unused->shutdown();
}

TEST_F(Tunnels, HundredConcurrentTunnelsCarryCheckedData) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    const std::size_t perConnection = 256 << 10;
#else
    const std::size_t perConnection = 1 << 20;
#endif
    const int connections = 100;
    ASSERT_TRUE(corvane_test::RaiseDescriptorLimit(2048));
    {
        corvane_test::EchoServer echo;
        unsigned short port = startTunnel("tcp://127.0.0.1:" + std::to_string(echo.port()), 1 << 20);
        struct Client {
            int fd;
            std::string data;
            std::size_t sent = 0;
            std::size_t received = 0;
            bool mismatch = false;
        };
        std::vector<Client> clients;
        for (int i = 0; i < connections; ++i) {
            Client client{connectTo(port), pattern(perConnection, static_cast<unsigned>(i) + 3)};
            fcntl(client.fd, F_SETFL, fcntl(client.fd, F_GETFL) | O_NONBLOCK);
            clients.push_back(std::move(client));
        }
        // One poll loop drives all clients: send what the socket takes, check what comes back.
        const auto deadline = Clock::now() + std::chrono::seconds(45);
        std::vector<pollfd> sets(clients.size());
        char buffer[65536];
        std::size_t finished = 0;
        while (finished < clients.size() && Clock::now() < deadline) {
            for (std::size_t i = 0; i < clients.size(); ++i) {
                const Client & c = clients[i];
                bool done = c.received == c.data.size() || c.mismatch;
                sets[i] = pollfd{done ? -1 : c.fd, static_cast<short>(POLLIN | (c.sent < c.data.size() ? POLLOUT : 0)), 0};
            }
            if (poll(sets.data(), sets.size(), 100) <= 0) {
                continue;
            }
            finished = 0;
            for (std::size_t i = 0; i < clients.size(); ++i) {
                Client & c = clients[i];
                if ((sets[i].revents & POLLOUT) != 0 && c.sent < c.data.size()) {
                    ssize_t n = send(c.fd, c.data.data() + c.sent, std::min<std::size_t>(65536, c.data.size() - c.sent),
                                     MSG_NOSIGNAL);
                    if (n > 0) {
                        c.sent += static_cast<std::size_t>(n);
                    }
                }
                if ((sets[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
                    ssize_t n = recv(c.fd, buffer, sizeof buffer, 0);
                    if (n > 0) {
                        c.mismatch = c.mismatch || c.data.compare(c.received, static_cast<std::size_t>(n), buffer,
                                                                  static_cast<std::size_t>(n)) != 0;
                        c.received += static_cast<std::size_t>(n);
                    } else if (n == 0) {
                        c.mismatch = true;  // ended early
                    }
                }
                finished += (c.received == c.data.size() || c.mismatch) ? 1 : 0;
            }
        }
        std::size_t complete = 0;
        for (const Client & c : clients) {
            complete += (!c.mismatch && c.received == c.data.size()) ? 1 : 0;
            close(c.fd);
        }
        EXPECT_EQ(complete, clients.size()) << "connections that carried their data unchanged";
        EXPECT_TRUE(drained());
    }
    store->shutdown();
    EXPECT_EQ(store->serviceCount(), 0u);
}

// A client that writes without reading until everything is full, then dies: the ring toward it
// is full, so only the failed send can tell the tunnel. It must end at once and say so briefly.
TEST_F(Tunnels, DeadClientBehindAFullRingEndsThePairAtOnce) {
    corvane_test::EchoServer echo;
    unsigned short port = startTunnel("tcp://127.0.0.1:" + std::to_string(echo.port()), 4096);
    int client = connectTo(port);
    fcntl(client, F_SETFL, fcntl(client, F_GETFL) | O_NONBLOCK);
    const std::string data = pattern(1 << 20);
    auto quietSince = Clock::now();
    while (Clock::now() - quietSince < std::chrono::milliseconds(300)) {
        if (send(client, data.data(), data.size(), MSG_NOSIGNAL) > 0) {
            quietSince = Clock::now();
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    ASSERT_EQ(store->tunnelCount(), 2u);
    corvane_test::LogCapture log("INFO");
    close(client);  // unread data: the kernel resets the connection, as for a killed process
    auto closed = Clock::now();
    EXPECT_TRUE(waitFor([&] { return store->tunnelCount() == 0; }, 1000)) << "the pair outlived its client";
    EXPECT_LT(Clock::now() - closed, std::chrono::seconds(1));
    EXPECT_LT(log.events().size(), 10u) << "a dead peer floods the log";
}

// An idle subscriber without a socket: fills the reactor up to its limit.
class Placeholder : public socketio::ISelectEventSubscriber {
public:
    short getEventMask() noexcept override { return 0; }
    bool onEvents(const short &, const std::uint64_t &) noexcept override { return true; }
    unsigned int & getSocket() override { return m_socket; }
    socketio::SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t &) override { m_reactor = reactor; }
    std::uint64_t getLastEventTime() const override { return 0; }

private:
    unsigned int m_socket = socketio::INVALID_SOCKET_HANDLE;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
};

TEST_F(Tunnels, AcceptedChannelRefusedAtTheLimitLeavesNoOutgoingConnectionAndNoEntry) {
    RawTarget target;
    unsigned short port = startTunnel(target.uri());
    std::vector<Common::SmartPtr<Placeholder>> fillers;
    for (int i = 0; i < 1022; ++i) {  // the listening server plus 1022: the list is full
        fillers.emplace_back(new Placeholder);
        reactor->registerSubscriber(fillers.back().get());
    }
    int client = connectTo(port);
    EXPECT_TRUE(seesEnd(client)) << "the refused client is closed";
    close(client);
    // The creator may have begun before the refusal; then its connection is closed at once.
    int outgoing = target.acceptWithin(300);
    if (outgoing >= 0) {
        EXPECT_TRUE(seesEnd(outgoing)) << "the outgoing half of a refused client stays open";
        close(outgoing);
    }
    EXPECT_TRUE(drained());

    // With room again for both channels of a tunnel, the next client is served.
    reactor->unregisterSubscriber(fillers[0].get());
    reactor->unregisterSubscriber(fillers[1].get());
    expectCarried(port, target, "ping");
    EXPECT_TRUE(drained());
    for (auto & filler : fillers) {
        reactor->unregisterSubscriber(filler.get());
    }
}

// A target whose backlog is full leaves its connect hanging (its SYNs are dropped): other
// connections of the same store must not wait for it, and the store's shutdown abandons it.
TEST_F(Tunnels, HangingTargetDelaysNoOtherConnectionAndShutdownAbandonsIt) {
    unsigned short slowPort = 0;
    int slow = corvane_test::LoopbackListen(slowPort, 0);
    std::vector<int> queued;
    for (int i = 0; i < 3; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(slowPort);
        connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
        queued.push_back(fd);
    }
    corvane_test::EchoServer echo;
    unsigned short hangingTunnel = startTunnel("tcp://127.0.0.1:" + std::to_string(slowPort));
    unsigned short quickTunnel = startTunnel("tcp://127.0.0.1:" + std::to_string(echo.port()));
    int waiting = connectTo(hangingTunnel);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));

    auto start = Clock::now();
    int client = connectTo(quickTunnel);
    ASSERT_TRUE(sendAll(client, "ping"));
    EXPECT_EQ(recvExact(client, 4), "ping");
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200)) << "a hanging target held another connection";
    close(client);

    // Under ConnectTimeout the hanging connect ends on the limit, with a failed connect's line.
    corvane_test::LogCapture log("WARN");
    const std::string hanging = "tcp://127.0.0.1:" + std::to_string(slowPort);
    start = Clock::now();
    int limited = connectTo(
        portOf(store->startTunnel("tcp://127.0.0.1:0", "", hanging.c_str(), "ConnectTimeout=200")->getLocalURI()));
    EXPECT_TRUE(seesEnd(limited));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(150)) << "ended before the limit";
    close(limited);
    EXPECT_EQ(log.countContaining("corvane.net.TunnelCreatorThread", "exception caught:while connecting to " + hanging), 1u);

    start = Clock::now();
    store->shutdown();
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(1)) << "shutdown waited for a hanging connect";
    EXPECT_TRUE(seesEnd(waiting));
    close(waiting);
    for (int fd : queued) {
        close(fd);
    }
    close(slow);
}

}  // namespace

namespace {

// Counts how many getEndpoint calls overlap and in which order the clients arrived.
class SerialTargets : public net::IChannelEndpoint {
public:
    explicit SerialTargets(std::string uri) : m_uri(std::move(uri)) {}
    void getEndpoint(std::string & uri, std::string & options) override {
        if (m_inside.fetch_add(1) != 0) {
            m_overlapped = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        m_calls.fetch_add(1);
        m_inside.fetch_sub(1);
        uri = m_uri;
        options.clear();
    }
    std::atomic<int> m_calls{0};
    std::atomic<bool> m_overlapped{false};

private:
    const std::string m_uri;
    std::atomic<int> m_inside{0};
};

}  // namespace

// A tunnel without rings carries nothing, but still ends the target's connection as soon as
// the client has gone.
TEST_F(Tunnels, RingOfZeroSeesTheClientsEnd) {
    RawTarget target;
    const unsigned short port = startTunnel(target.uri(), 0);
    int client = connectTo(port);
    int server = target.acceptWithin();
    ASSERT_GE(server, 0);
    close(client);
    EXPECT_TRUE(seesEnd(server));
    close(server);
    EXPECT_TRUE(drained());
}

TEST_F(Tunnels, GetEndpointRunsOneAtATimeInOrderOfArrival) {
    corvane_test::EchoServer echo;
    Common::SmartPtr<SerialTargets> targets(new SerialTargets("tcp://127.0.0.1:" + std::to_string(echo.port())));
    const unsigned short port = portOf(store->startTunnel2("tcp://127.0.0.1:0", nullptr, targets.get())->getLocalURI());
    std::vector<int> clients;
    for (int i = 0; i < 24; ++i) {
        clients.push_back(connectTo(port));
    }
    EXPECT_TRUE(waitFor([&] { return targets->m_calls.load() == 24; }));
    EXPECT_FALSE(targets->m_overlapped.load());
    for (int client : clients) {
        EXPECT_TRUE(sendAll(client, "x"));
        EXPECT_EQ(recvExact(client, 1), "x");
        close(client);
    }
    EXPECT_TRUE(drained());
}

TEST_F(Tunnels, ShutdownUnderAStreamOfConnectsReturnsWithinASecond) {
    corvane_test::EchoServer echo;
    const unsigned short port = startTunnel("tcp://127.0.0.1:" + std::to_string(echo.port()));
    std::atomic<bool> stop{false};
    std::vector<std::thread> clients;
    for (int t = 0; t < 3; ++t) {
        clients.emplace_back([&] {
            for (int i = 0; i < 5000 && !stop.load(); ++i) {
                int fd = corvane_test::LoopbackConnect(port);
                if (fd >= 0) {
                    send(fd, "y", 1, MSG_NOSIGNAL);
                    close(fd);
                }
            }
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto started = Clock::now();
    store->shutdown();
    const auto took = Clock::now() - started;
    stop = true;
    for (std::thread & client : clients) {
        client.join();
    }
    EXPECT_LT(took, std::chrono::seconds(1));
    EXPECT_EQ(store->tunnelCount(), 0u);
}
