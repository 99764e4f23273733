// Loads the built module as a host does and checks what it exports.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <string>

#include "corvane/corvane.h"
#include "logcapture.h"
#include "pattern.h"
#include "sockets.h"

namespace {

class LoadedModule : public ::testing::Test {
protected:
    void SetUp() override {
        m_handle = dlopen(CORVANE_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_handle, nullptr) << dlerror();
        m_getModule = reinterpret_cast<net::GetModuleFunction>(dlsym(m_handle, "GetModule"));
        ASSERT_NE(m_getModule, nullptr) << dlerror();
    }
    void TearDown() override {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }

    void * m_handle = nullptr;
    net::GetModuleFunction m_getModule = nullptr;
};

TEST_F(LoadedModule, GetModuleIsASingletonAndMakesWorkingFactories) {
    net::IModule * module = m_getModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module, m_getModule());

    Common::SmartPtr<net::IChannelFactory> factory(module->createChannelFactory(net::SocketOptions()));
    ASSERT_TRUE(factory);
    EXPECT_EQ(factory->getTransportProtocol("ftp"), nullptr);
    // An exception thrown inside the module is caught by the host's own types.
    try {
        factory->openChannel(nullptr, "ftp://127.0.0.1:21", nullptr, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const net::RuntimeException & e) {
        EXPECT_STREQ(e.what(), "transport protocol 'ftp' not recognized");
    }
    EXPECT_THROW(factory->openChannel(nullptr, "::", nullptr, nullptr), net::URIException);
}

TEST_F(LoadedModule, CreateTunnelStoreRefusesANullReactor) {
    try {
        m_getModule()->createTunnelStore(nullptr, nullptr, 65536);
        ADD_FAILURE() << "no exception";
    } catch (const net::RuntimeException & e) {
        EXPECT_STREQ(e.what(), "reactor argument to createTunnelStore cannot be null");
    }
}

TEST_F(LoadedModule, SelfChecksPassAndSayWhichRan) {
    corvane_test::LogCapture log;
    auto selfChecks = reinterpret_cast<net::RegisterUnitTestsFunction>(dlsym(m_handle, "registerUnitTests"));
    ASSERT_NE(selfChecks, nullptr);
    selfChecks();
    EXPECT_EQ(log.countContaining("corvane.net.ModuleImpl", "passed"), 3u);
    EXPECT_EQ(log.countContaining("corvane.net.ModuleImpl", "failed"), 0u);
}

// A host's relay from an accepted channel into an output channel, through a buffer of fixed
// size; everything runs on the one reactor thread.
struct Relay {
    static constexpr size_t kCapacity = 64 * 1024;
    std::string pending;
    std::atomic<size_t> buffered{0};
    std::atomic<int> readsWhileFull{0};
};

class RelayInput : public net::IChannelHandler, public net::IReadInterest {
public:
    explicit RelayInput(Relay & relay) : m_relay(relay) {}
    bool wantsRead() override { return m_relay.pending.size() < Relay::kCapacity; }
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        const size_t room = Relay::kCapacity - m_relay.pending.size();
        if (room == 0) {
            ++m_relay.readsWhileFull;
            return;
        }
        char buffer[Relay::kCapacity];
        const int n = stream->recv(static_cast<int>(room), buffer);
        if (n > 0) {
            m_relay.pending.append(buffer, static_cast<size_t>(n));
            m_relay.buffered = m_relay.pending.size();
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override {}

private:
    Relay & m_relay;
};

class RelayOutput : public net::IChannelHandler {
public:
    explicit RelayOutput(Relay & relay) : m_relay(relay) {}
    bool hasPendingWrite() override { return !m_relay.pending.empty(); }
    void onRead(net::IReadDataStream *) override {}
    void onWrite(net::IWriteDataStream * stream) override {
        const int n = stream->send(static_cast<int>(m_relay.pending.size()), m_relay.pending.data());
        if (n > 0) {
            m_relay.pending.erase(0, static_cast<size_t>(n));
            m_relay.buffered = m_relay.pending.size();
        }
    }
    void onClose() override {}

private:
    Relay & m_relay;
};

class RelayAcceptor : public net::IChannelAcceptor {
public:
    explicit RelayAcceptor(Relay & relay) : m_relay(relay) {}
    net::IChannelHandler * accept(net::IChannel *) override { return new RelayInput(m_relay); }

private:
    Relay & m_relay;
};

TEST_F(LoadedModule, RelayWhoseOutputIsFullStopsReadingAndResumesWithoutLosingBytes) {
    net::IModule * module = m_getModule();
    Common::SmartPtr<net::IChannelFactory> factory(module->createChannelFactory(net::SocketOptions()));
    Common::SmartPtr<net::IReactor> reactor(module->createReactor(5000, 300000, 5));
    reactor->startProcessing();
    Relay relay;

    // The output goes to a peer that reads nothing until the test lets it.
    unsigned short sinkPort = 0;
    const int sinkListener = corvane_test::LoopbackListen(sinkPort);
    Common::SmartPtr<net::IChannel> output(factory->openChannel(
        reactor.get(), ("tcp://127.0.0.1:" + std::to_string(sinkPort)).c_str(), new RelayOutput(relay), ""));
    const int sink = accept4(sinkListener, nullptr, nullptr, SOCK_CLOEXEC);
    ASSERT_GE(sink, 0);
    Common::SmartPtr<net::IChannelAcceptor> acceptor(new RelayAcceptor(relay));
    Common::SmartPtr<net::IChannelServer> server(
        factory->startChannelServer(reactor.get(), "tcp://127.0.0.1:0", acceptor.get(), ""));
    const std::string local = server->getLocalURI();
    const int client = corvane_test::LoopbackConnect(
        static_cast<unsigned short>(std::stoi(local.substr(local.rfind(':') + 1))));
    ASSERT_GE(client, 0);
    fcntl(client, F_SETFL, O_NONBLOCK);

    // The client sends until its sends stall for half a second: the relay's buffer is full,
    // and so are the system's buffers on both sides.
    constexpr size_t kLimit = 256u << 20;
    size_t sent = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (sent < kLimit && std::chrono::steady_clock::now() < deadline) {
        char chunk[16384];
        for (size_t i = 0; i < sizeof chunk; ++i) {
            chunk[i] = corvane_test::PatternByte(sent + i);
        }
        const ssize_t n = send(client, chunk, sizeof chunk, MSG_NOSIGNAL);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        pollfd writable{client, POLLOUT, 0};
        if (poll(&writable, 1, 500) == 0) {
            break;
        }
    }
    EXPECT_LT(sent, kLimit) << "the relay never stopped reading";
    EXPECT_EQ(relay.buffered.load(), Relay::kCapacity);
    EXPECT_EQ(relay.readsWhileFull.load(), 0) << "onRead came while the handler wanted no bytes";

    // Once the output drains, reading resumes and every byte arrives in order.
    corvane_test::BoundBlockingCalls(sink);
    const std::string received = corvane_test::RecvExact(sink, sent);
    EXPECT_EQ(received.size(), sent);
    size_t firstWrong = 0;
    while (firstWrong < received.size() && received[firstWrong] == corvane_test::PatternByte(firstWrong)) {
        ++firstWrong;
    }
    EXPECT_EQ(firstWrong, received.size()) << "bytes lost or out of order";
    EXPECT_EQ(relay.readsWhileFull.load(), 0);

    close(client);
    server->close();
    output->close();
    reactor->stopProcessing();
    close(sink);
    close(sinkListener);
}

TEST(ModuleExports, OnlyGetModuleAndRegisterUnitTestsAreDefined) {
    std::string command = std::string("nm -D --defined-only ") + CORVANE_MODULE_PATH;
    FILE * pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> symbols;
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        // "address type name"; the toolchain's own section and version markers have type A.
        std::size_t space = text.rfind(' ');
        char type = text.size() > 17 ? text[17] : ' ';
        std::string name = text.substr(space + 1);
        name.erase(name.find_last_not_of("\n") + 1);
        if (type != 'A' && type != 'a') {
            symbols.insert(name);
        }
    }
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_EQ(symbols, (std::set<std::string>{"GetModule", "registerUnitTests"}));
}

}  // namespace
