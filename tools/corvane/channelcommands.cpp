// corvane serve and corvane connect: a channel server that echoes or discards, and a
// netcat-like client that joins stdin and stdout to a channel.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "commands.h"
#include "host.h"

namespace cli {

namespace {

// Echoes what it reads. Reads pause while echoed data waits for the socket, so memory stays
// bounded; what is left when the peer ends is flushed for a short while before the close.
class EchoHandler : public net::IChannelHandler, public net::IReadInterest {
public:
    explicit EchoHandler(net::IChannel * channel) : m_channel(channel) {}

    bool hasPendingWrite() override { return m_offset < m_pending.size(); }
    // A peer that sends without reading makes the channel stop asking for reads, instead of
    // waking the reactor for bytes that cannot be taken.
    bool wantsRead() override { return !hasPendingWrite(); }
    void onRead(net::IReadDataStream * stream) override {
        if (hasPendingWrite()) {
            flush(m_channel->getWriteDataStream());
            if (hasPendingWrite()) {
                return;
            }
        }
        m_pending.resize(kChunk);
        m_offset = 0;
        int n = stream->recv(static_cast<int>(kChunk), &m_pending[0]);
        m_pending.resize(n > 0 ? static_cast<size_t>(n) : 0);
        flush(m_channel->getWriteDataStream());
    }
    void onWrite(net::IWriteDataStream * stream) override { flush(stream); }
    void onClose() override {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (hasPendingWrite() && std::chrono::steady_clock::now() < deadline) {
            if (!flush(m_channel->getWriteDataStream())) {
                break;
            }
            if (hasPendingWrite()) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        m_channel = nullptr;
    }

private:
    static constexpr size_t kChunk = 256 * 1024;

    // False when the connection failed.
    bool flush(net::IWriteDataStream * stream) {
        while (m_offset < m_pending.size()) {
            int n = stream->send(static_cast<int>(m_pending.size() - m_offset), m_pending.data() + m_offset);
            if (n < 0) {
                m_offset = m_pending.size();
                return false;
            }
            if (n == 0) {
                return true;
            }
            m_offset += static_cast<size_t>(n);
        }
        return true;
    }

    // Not counted: the channel holds this handler, and a count back would keep both alive for
    // good when the reactor drops the channel without a close (stopProcessing does).
    net::IChannel * m_channel;
    std::vector<char> m_pending;
    size_t m_offset = 0;
};

class DiscardHandler : public net::IChannelHandler {
public:
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        static thread_local char buffer[256 * 1024];
        while (stream->recv(sizeof buffer, buffer) > 0) {
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override {}
};

class ServeAcceptor : public net::IChannelAcceptor {
public:
    explicit ServeAcceptor(bool echo) : m_echo(echo) {}
    net::IChannelHandler * accept(net::IChannel * channel) override {
        if (m_echo) {
            return new EchoHandler(channel);
        }
        return new DiscardHandler;
    }

private:
    bool m_echo;
};

// Everything the peer sends goes to stdout, from the reactor thread.
class StdoutHandler : public net::IChannelHandler {
public:
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        char buffer[64 * 1024];
        int n = stream->recv(sizeof buffer, buffer);
        for (int written = 0; n > 0 && written < n;) {
            ssize_t k = ::write(STDOUT_FILENO, buffer + written, static_cast<size_t>(n - written));
            if (k < 0 && errno == EINTR) {
                continue;
            }
            if (k <= 0) {
                stdoutFailed = true;
                break;
            }
            written += static_cast<int>(k);
        }
        if (n > 0) {
            received += n;
            lastReceive = std::chrono::steady_clock::now().time_since_epoch().count();
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override { ended = true; }
    void onError() override {
        failed = true;
        ended = true;
    }

    std::atomic<bool> ended{false};
    std::atomic<bool> failed{false};
    std::atomic<bool> stdoutFailed{false};
    std::atomic<long long> received{0};
    std::atomic<long long> lastReceive{0};
};

const char * const kServeUsage =
    "usage: corvane serve URI [--echo|--discard] [--options TEXT] [--handshake-timeout MS] [--threads N]\n"
    "\n"
    "Starts a channel server on URI (e.g. tcp://127.0.0.1:7000; port 0 picks a free one),\n"
    "prints 'listening on URI' with the real address, and serves until SIGINT or SIGTERM.\n"
    "  --echo          send back what each connection sends (the default)\n"
    "  --discard       read and drop what each connection sends\n"
    "  --options TEXT  the option text of the server, key=value;key=value\n"
    "  --handshake-timeout MS  drop a connection whose TLS handshake or WebSocket upgrade is not\n"
    "                  done within MS milliseconds (default 10000; 0: no limit)\n"
    "  --threads N     reactor threads, 1 to 64 (default: one per core), each with a server of\n"
    "                  its own on the same port (SO_REUSEPORT), 1022 connections each at most\n";

const char * const kConnectUsage =
    "usage: corvane connect URI [--options TEXT] [--wait MS] [--connect-timeout MS] [--stats]\n"
    "\n"
    "Opens a channel to URI and joins it to stdin and stdout, like nc: what stdin gives is\n"
    "sent, what the peer sends is written to stdout. It ends when the peer closes; after\n"
    "the end of stdin it waits until the peer closes or sends nothing for MS milliseconds\n"
    "(default 1000). SIGINT or SIGTERM end it at once.\n"
    "  --options TEXT  the option text of the channel, key=value;key=value\n"
    "  --connect-timeout MS  give up a connection (each proxy, then directly) that is not open\n"
    "                  within MS milliseconds, handshakes included (default 30000; 0: no limit)\n"
    "  --stats         print the bytes sent and received and the rate to stderr at the end\n";

bool wantsHelp(const std::vector<std::string> & args) {
    for (const auto & arg : args) {
        if (arg == "--help" || arg == "-h") {
            return true;
        }
    }
    return false;
}

}  // namespace

Common::SmartPtr<net::IChannelAcceptor> makeServeAcceptor(bool echo) {
    return Common::SmartPtr<net::IChannelAcceptor>(new ServeAcceptor(echo));
}

int commandServe(const Context & context, const std::vector<std::string> & args) {
    if (wantsHelp(args)) {
        std::cout << kServeUsage;
        return 0;
    }
    std::string uri;
    std::string options;
    std::string handshakeTimeout = kHandshakeTimeoutDefault;
    bool echo = true;
    int threads = defaultThreads();
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--threads") {
            threads = parseThreads("serve", optionValue(args, i));
        } else if (args[i] == "--echo") {
            echo = true;
        } else if (args[i] == "--discard") {
            echo = false;
        } else if (args[i] == "--options") {
            options = optionValue(args, i);
        } else if (args[i] == "--handshake-timeout") {
            handshakeTimeout = millisecondsValue(args, i);
        } else if (args[i].rfind("--", 0) == 0 || !uri.empty()) {
            throw UsageError("serve: unexpected argument '" + args[i] + "'");
        } else {
            uri = args[i];
        }
    }
    if (uri.empty()) {
        throw UsageError("serve: a URI to listen on is needed");
    }
    options = withTimeLimit(options, "HandshakeTimeout", handshakeTimeout);
    // A server per reactor thread, all on one port (SO_REUSEPORT): each connection stays on
    // the reactor whose server accepted it.
    Common::SmartPtr<net::IChannelFactory> factory(
        context.module->createChannelFactory(sharedListenerOptions(threads, uri)));
    Common::SmartPtr<net::IChannelAcceptor> acceptor(new ServeAcceptor(echo));
    std::vector<Common::SmartPtr<net::IReactor>> reactors;
    std::vector<Common::SmartPtr<net::IChannelServer>> servers;
    auto stopAll = [&]() {
        for (auto & server : servers) {
            server->close();
        }
        for (auto & reactor : reactors) {
            reactor->stopProcessing();
        }
    };
    const std::string localURI = listenOnReactors(
        context, threads, uri, reactors,
        [&](net::IReactor * reactor, const std::string & listenURI) {
            servers.emplace_back(factory->startChannelServer(reactor, listenURI.c_str(), acceptor.get(), options.c_str()));
            return std::string(servers.back()->getLocalURI());
        },
        stopAll);
    std::cout << "listening on " << localURI << std::endl;
    waitForStopSignal();
    StopGuard stopping("stopping the server", kStopMilliseconds);
    stopAll();
    return 0;
}

int commandConnect(const Context & context, const std::vector<std::string> & args) {
    if (wantsHelp(args)) {
        std::cout << kConnectUsage;
        return 0;
    }
    std::string uri;
    std::string options;
    std::string connectTimeout = kConnectTimeoutDefault;
    int waitMilliseconds = 1000;
    bool stats = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--options") {
            options = optionValue(args, i);
        } else if (args[i] == "--connect-timeout") {
            connectTimeout = millisecondsValue(args, i);
        } else if (args[i] == "--wait") {
            std::string value = optionValue(args, i);
            try {
                size_t used = 0;
                waitMilliseconds = std::stoi(value, &used);
                if (used != value.size() || waitMilliseconds < 0) {
                    throw std::invalid_argument(value);
                }
            } catch (const std::exception &) {
                throw UsageError("connect: --wait needs a number of milliseconds, not '" + value + "'");
            }
        } else if (args[i] == "--stats") {
            stats = true;
        } else if (args[i].rfind("--", 0) == 0 || !uri.empty()) {
            throw UsageError("connect: unexpected argument '" + args[i] + "'");
        } else {
            uri = args[i];
        }
    }
    if (uri.empty()) {
        throw UsageError("connect: a URI to connect to is needed");
    }
    options = withTimeLimit(options, "ConnectTimeout", connectTimeout);

    Common::SmartPtr<net::IChannelFactory> factory(context.module->createChannelFactory(hostSocketOptions()));
    Common::SmartPtr<net::IReactor> reactor(context.module->createReactor(5000, 300000, 20));
    reactor->startProcessing();
    Common::SmartPtr<StdoutHandler> handler(new StdoutHandler);
    Common::SmartPtr<net::IChannel> channel;
    {
        StopGuard connecting("connecting to " + uri);
        try {
            channel = factory->openChannel(reactor.get(), uri.c_str(), handler.get(), options.c_str());
        } catch (const std::exception & e) {
            reactor->stopProcessing();
            throw std::runtime_error(connectFailure(uri, e));
        }
    }

    auto started = std::chrono::steady_clock::now();
    long long sent = 0;
    bool stdinOpen = true;
    bool sendFailed = false;
    bool stopped = false;
    auto stdinEnded = started;
    std::vector<char> buffer(64 * 1024);
    while (!handler->ended && !handler->stdoutFailed && !sendFailed && !stopped) {
        if (waitForStopSignal(0) != 0) {
            break;
        }
        if (!stdinOpen) {
            long long idleSince = std::max<long long>(stdinEnded.time_since_epoch().count(), handler->lastReceive.load());
            auto idle = std::chrono::steady_clock::now().time_since_epoch().count() - idleSince;
            if (idle > std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                           std::chrono::milliseconds(waitMilliseconds)).count()) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        pollfd input{STDIN_FILENO, POLLIN, 0};
        if (poll(&input, 1, 50) <= 0) {
            continue;
        }
        ssize_t n = ::read(STDIN_FILENO, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            stdinOpen = false;
            stdinEnded = std::chrono::steady_clock::now();
            continue;
        }
        for (ssize_t offset = 0; offset < n && !handler->ended;) {
            int k = channel->getWriteDataStream()->send(static_cast<int>(n - offset), buffer.data() + offset);
            if (k < 0) {
                sendFailed = true;
                break;
            }
            if (k == 0) {
                // A peer that reads nothing keeps this loop here: it must still hear a stop.
                if (waitForStopSignal(0) != 0) {
                    stopped = true;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(200));
                continue;
            }
            offset += k;
            sent += k;
        }
    }
    // The rate counts up to the last byte that moved, not the wait after it.
    auto lastMoved = std::chrono::steady_clock::time_point(std::chrono::steady_clock::duration(
        std::max<long long>(stdinEnded.time_since_epoch().count(), handler->lastReceive.load())));
    double seconds = std::chrono::duration<double>(std::max(lastMoved, started) - started).count();
    StopGuard stopping("closing the connection", kStopMilliseconds);
    channel->close();
    reactor->stopProcessing();
    if (stats) {
        double megabytes = static_cast<double>(sent + handler->received.load()) / 1e6;
        std::fprintf(stderr, "sent %lld bytes, received %lld bytes in %.3f s (%.1f MB/s both ways)\n", sent,
                     handler->received.load(), seconds, seconds > 0 ? megabytes / seconds : 0.0);
    }
    if (handler->failed || sendFailed) {
        std::cerr << "corvane: the connection to " << uri << " failed\n";
        return 1;
    }
    return 0;
}

}  // namespace cli
