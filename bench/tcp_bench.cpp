// Bulk throughput one way and round-trip latency of small messages through a tcp channel
// and channel server of the module, against raw blocking sockets on loopback as the
// reference, in one run. Each figure is measured several times, interleaved with its
// reference, and printed as min/median/max with the ratio of the medians.
#include <dlfcn.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include "corvane/corvane.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kBufferSize = 262144;
constexpr size_t kMessage = 64;

struct Figures {
    double min, median, max;
};
Figures summarize(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return {values.front(), values[values.size() / 2], values.back()};
}
double percentile(std::vector<double> values, double p) {
    std::sort(values.begin(), values.end());
    return values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))];
}

// ---- library side ------------------------------------------------------------------------

class CountingSink : public net::IChannelHandler {
public:
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        static thread_local std::vector<char> buffer(kBufferSize);
        for (;;) {
            int n = stream->recv(kBufferSize, buffer.data());
            if (n <= 0) {
                break;
            }
            received.fetch_add(static_cast<size_t>(n));
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override {}
    std::atomic<size_t> received{0};
};

class Source : public net::IChannelHandler {
public:
    explicit Source(size_t total) : remaining(total), m_chunk(kBufferSize, 'x') {}
    bool hasPendingWrite() override { return remaining.load() > 0; }
    void onRead(net::IReadDataStream * stream) override {
        char sink[4096];
        stream->recv(sizeof sink, sink);
    }
    void onWrite(net::IWriteDataStream * stream) override {
        while (remaining.load() > 0) {
            int want = static_cast<int>(std::min<size_t>(remaining.load(), m_chunk.size()));
            int n = stream->send(want, m_chunk.data());
            if (n <= 0) {
                return;
            }
            remaining.fetch_sub(static_cast<size_t>(n));
        }
    }
    void onClose() override {}
    std::atomic<size_t> remaining;

private:
    std::vector<char> m_chunk;
};

// Sends back at once what it reads.
class Echo : public net::IChannelHandler {
public:
    explicit Echo(net::IChannel * channel) : m_channel(channel) {}
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        char buffer[4096];
        int n = stream->recv(sizeof buffer, buffer);
        for (int sent = 0; n > 0 && sent < n;) {
            int k = m_channel->getWriteDataStream()->send(n - sent, buffer + sent);
            if (k < 0) {
                return;
            }
            sent += k;
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override { m_channel = nullptr; }

private:
    Common::SmartPtr<net::IChannel> m_channel;
};

class Acceptor : public net::IChannelAcceptor {
public:
    explicit Acceptor(bool echo) : m_echo(echo) {}
    net::IChannelHandler * accept(net::IChannel * channel) override {
        if (m_echo) {
            return new Echo(channel);
        }
        std::lock_guard<std::mutex> guard(mutex);
        sink = new CountingSink;
        return sink.get();
    }
    std::mutex mutex;
    Common::SmartPtr<CountingSink> sink;

private:
    bool m_echo;
};

// Measures one round trip per message: the next ping goes out from the read callback.
class PingPong : public net::IChannelHandler {
public:
    PingPong(int rounds) : m_rounds(rounds), m_message(kMessage, 'p') {}
    void start(net::IChannel * channel) {
        m_channel = channel;
        m_sentAt = Clock::now();
        send();
    }
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        char buffer[4096];
        int n = stream->recv(sizeof buffer, buffer);
        if (n <= 0) {
            return;
        }
        m_got += static_cast<size_t>(n);
        while (m_got >= kMessage) {
            m_got -= kMessage;
            samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - m_sentAt).count());
            if (static_cast<int>(samples.size()) == m_rounds) {
                std::lock_guard<std::mutex> guard(mutex);
                done = true;
                finished.notify_all();
                return;
            }
            m_sentAt = Clock::now();
            send();
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override {}

    std::vector<double> samples;
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;

private:
    void send() {
        for (size_t sent = 0; sent < kMessage;) {
            int k = m_channel->getWriteDataStream()->send(static_cast<int>(kMessage - sent), m_message.data() + sent);
            if (k < 0) {
                return;
            }
            sent += static_cast<size_t>(k);
        }
    }
    int m_rounds;
    std::string m_message;
    net::IChannel * m_channel = nullptr;
    size_t m_got = 0;
    Clock::time_point m_sentAt;
};

struct Library {
    net::IModule * module;
    Common::SmartPtr<net::IChannelFactory> factory;
    Common::SmartPtr<net::IReactor> serverReactor;
    Common::SmartPtr<net::IReactor> clientReactor;

    Library() {
        void * handle = dlopen(CORVANE_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            std::fprintf(stderr, "tcp_bench: %s\n", dlerror());
            std::exit(1);
        }
        module = reinterpret_cast<net::GetModuleFunction>(dlsym(handle, "GetModule"))();
        net::SocketOptions options;
        options.linger = false;
        factory = module->createChannelFactory(options);
        serverReactor = module->createReactor(5000, 300000, 20);
        clientReactor = module->createReactor(5000, 300000, 20);
        serverReactor->startProcessing();
        clientReactor->startProcessing();
    }
    ~Library() {
        clientReactor->stopProcessing();
        serverReactor->stopProcessing();
    }
};

double libraryThroughput(Library & lib, size_t total) {
    Common::SmartPtr<Acceptor> acceptor(new Acceptor(false));
    Common::SmartPtr<net::IChannelServer> server(
        lib.factory->startChannelServer(lib.serverReactor.get(), "tcp://127.0.0.1:0", acceptor.get(), nullptr));
    std::string uri = server->getLocalURI();
    Common::SmartPtr<Source> source(new Source(total));
    auto start = Clock::now();
    Common::SmartPtr<net::IChannel> channel(lib.factory->openChannel(lib.clientReactor.get(), uri.c_str(), source.get(), nullptr));
    for (;;) {
        {
            std::lock_guard<std::mutex> guard(acceptor->mutex);
            if (acceptor->sink && acceptor->sink->received.load() >= total) {
                break;
            }
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    channel->close();
    server->close();
    return static_cast<double>(total) / 1e6 / seconds;
}

std::vector<double> libraryLatency(Library & lib, int rounds) {
    Common::SmartPtr<Acceptor> acceptor(new Acceptor(true));
    Common::SmartPtr<net::IChannelServer> server(
        lib.factory->startChannelServer(lib.serverReactor.get(), "tcp://127.0.0.1:0", acceptor.get(), nullptr));
    std::string uri = server->getLocalURI();
    Common::SmartPtr<PingPong> pingPong(new PingPong(rounds));
    Common::SmartPtr<net::IChannel> channel(lib.factory->openChannel(lib.clientReactor.get(), uri.c_str(), pingPong.get(), nullptr));
    pingPong->start(channel.get());
    {
        std::unique_lock<std::mutex> lock(pingPong->mutex);
        pingPong->finished.wait_for(lock, std::chrono::seconds(60), [&] { return pingPong->done; });
    }
    channel->close();
    server->close();
    return pingPong->samples;
}

// ---- raw blocking sockets ----------------------------------------------------------------

void tune(int fd) {
    int one = 1;
    int size = kBufferSize;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
}

int rawListen(unsigned short & port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    tune(fd);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(fd, 16);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

int rawConnect(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    tune(fd);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    return fd;
}

double rawThroughput(size_t total) {
    unsigned short port = 0;
    int listener = rawListen(port);
    std::atomic<bool> done{false};
    std::thread server([&] {
        int fd = accept(listener, nullptr, nullptr);
        std::vector<char> buffer(kBufferSize);
        size_t received = 0;
        while (received < total) {
            ssize_t n = recv(fd, buffer.data(), buffer.size(), 0);
            if (n <= 0) {
                break;
            }
            received += static_cast<size_t>(n);
        }
        done = true;
        close(fd);
    });
    std::vector<char> chunk(kBufferSize, 'x');
    auto start = Clock::now();
    int fd = rawConnect(port);
    for (size_t sent = 0; sent < total;) {
        ssize_t n = send(fd, chunk.data(), std::min(chunk.size(), total - sent), MSG_NOSIGNAL);
        if (n <= 0) {
            break;
        }
        sent += static_cast<size_t>(n);
    }
    server.join();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    close(fd);
    close(listener);
    return static_cast<double>(total) / 1e6 / seconds;
}

std::vector<double> rawLatency(int rounds) {
    unsigned short port = 0;
    int listener = rawListen(port);
    std::thread server([&] {
        int fd = accept(listener, nullptr, nullptr);
        char buffer[4096];
        for (;;) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0 || send(fd, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
                break;
            }
        }
        close(fd);
    });
    int fd = rawConnect(port);
    std::string message(kMessage, 'p');
    char buffer[4096];
    std::vector<double> samples;
    for (int i = 0; i < rounds; ++i) {
        auto start = Clock::now();
        send(fd, message.data(), message.size(), MSG_NOSIGNAL);
        for (size_t got = 0; got < kMessage;) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                break;
            }
            got += static_cast<size_t>(n);
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    close(fd);
    server.join();
    close(listener);
    return samples;
}

}  // namespace

int main(int argc, char ** argv) {
    int repeats = argc > 1 ? std::atoi(argv[1]) : 5;
    size_t total = static_cast<size_t>(argc > 2 ? std::atol(argv[2]) : 256) << 20;
    // "throughput", "latency" or both (the default): bench/run measures latency apart, with
    // the process pinned to one CPU.
    const std::string figures = argc > 3 ? argv[3] : "all";
    const bool wantThroughput = figures != "latency";
    const bool wantLatency = figures != "throughput";
    const int rounds = 10000;
    // The module logs through the process's log4cxx; a benchmark wants none of it.
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    Library lib;

    std::vector<double> libRate;
    std::vector<double> rawRate;
    std::vector<double> libP50, libP99, rawP50, rawP99;
    for (int i = 0; i < repeats; ++i) {
        if (wantThroughput) {
            rawRate.push_back(rawThroughput(total));
            libRate.push_back(libraryThroughput(lib, total));
        }
        if (!wantLatency) {
            continue;
        }
        std::vector<double> raw = rawLatency(rounds);
        std::vector<double> ours = libraryLatency(lib, rounds);
        rawP50.push_back(percentile(raw, 0.50));
        rawP99.push_back(percentile(raw, 0.99));
        libP50.push_back(percentile(ours, 0.50));
        libP99.push_back(percentile(ours, 0.99));
    }
    auto print = [](const char * name, const char * unit, const std::vector<double> & ours,
                    const std::vector<double> & reference) {
        Figures a = summarize(ours);
        Figures b = summarize(reference);
        std::printf("%s: corvane %.1f %s (min %.1f, max %.1f), raw %.1f %s (min %.1f, max %.1f), corvane/raw %.2f\n",
                    name, a.median, unit, a.min, a.max, b.median, unit, b.min, b.max, a.median / b.median);
    };
    std::printf("tcp bench: %d repeats, %zu MiB one way, %d round trips of %zu bytes\n", repeats, total >> 20,
                rounds, kMessage);
    if (wantThroughput) {
        print("tcp throughput", "MB/s", libRate, rawRate);
    }
    if (wantLatency) {
        print("tcp latency p50", "us", libP50, rawP50);
        print("tcp latency p99", "us", libP99, rawP99);
    }
    return 0;
}
