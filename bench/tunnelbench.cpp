// tunnelbench: the loopback peer and client of bench/tunnel.sh.
//   tunnelbench serve               listens on 127.0.0.1, port 0, prints the port, serves until killed
//   tunnelbench bulk PORT BYTES     one connection carries BYTES; prints MB/s
//   tunnelbench rate PORT SECONDS   connections one after another, each a small exchange; prints conn/s
//   tunnelbench latency PORT COUNT  one connection, COUNT exchanges of 64 bytes; prints p50 and p99 in us
//   tunnelbench stall PORT SECONDS  one connection that sends as fast as it can and reads nothing for
//                                   SECONDS (its peer is an echo server); prints the bytes taken
// Exchange: the client sends an 8-byte length and that many bytes; the server answers one byte
// once it has them all. Nobody half-closes, since a tunnel ends a connection on the first end.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

bool readFull(int fd, void * buffer, size_t size) {
    auto * at = static_cast<char *>(buffer);
    while (size > 0) {
        ssize_t n = recv(fd, at, size, 0);
        if (n <= 0) {
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool writeFull(int fd, const void * buffer, size_t size) {
    const auto * at = static_cast<const char *>(buffer);
    while (size > 0) {
        ssize_t n = send(fd, at, size, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

void serveOne(int fd) {
    std::vector<char> buffer(1 << 20);
    for (;;) {
        std::uint64_t length = 0;
        if (!readFull(fd, &length, sizeof length)) {
            break;
        }
        while (length > 0) {
            ssize_t n = recv(fd, buffer.data(), std::min<std::uint64_t>(length, buffer.size()), 0);
            if (n <= 0) {
                close(fd);
                return;
            }
            length -= static_cast<std::uint64_t>(n);
        }
        char done = 1;
        if (!writeFull(fd, &done, 1)) {
            break;
        }
    }
    close(fd);
}

int connectTo(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("connect");
        std::exit(1);
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    return fd;
}

bool exchange(int fd, const std::vector<char> & payload, std::uint64_t bytes) {
    if (!writeFull(fd, &bytes, sizeof bytes)) {
        return false;
    }
    for (std::uint64_t left = bytes; left > 0;) {
        size_t chunk = static_cast<size_t>(std::min<std::uint64_t>(left, payload.size()));
        if (!writeFull(fd, payload.data(), chunk)) {
            return false;
        }
        left -= chunk;
    }
    char done;
    return readFull(fd, &done, 1);
}

double seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int main(int argc, char ** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "serve") {
        int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int one = 1;
        setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        if (bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || listen(listener, 512) != 0) {
            perror("listen");
            return 1;
        }
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
        std::printf("%d\n", ntohs(address.sin_port));
        std::fflush(stdout);
        for (;;) {
            int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                std::thread(serveOne, fd).detach();
            }
        }
    }
    if (mode == "latency" && argc == 4) {
        int fd = connectTo(std::atoi(argv[2]));
        const long count = std::atol(argv[3]);
        std::vector<char> payload(64, 'x');
        std::vector<double> samples;
        for (long i = 0; i < count; ++i) {
            auto start = std::chrono::steady_clock::now();
            if (!exchange(fd, payload, payload.size())) {
                std::fprintf(stderr, "latency: connection ended early\n");
                return 1;
            }
            samples.push_back(seconds(start) * 1e6);
        }
        close(fd);
        std::sort(samples.begin(), samples.end());
        std::printf("%.1f %.1f\n", samples[samples.size() / 2], samples[samples.size() * 99 / 100]);
        return 0;
    }
    if (mode == "stall" && argc == 4) {
        int fd = connectTo(std::atoi(argv[2]));
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        std::vector<char> payload(1 << 16, 'x');
        auto start = std::chrono::steady_clock::now();
        const double limit = std::atof(argv[3]);
        long long taken = 0;
        while (seconds(start) < limit) {
            ssize_t n = send(fd, payload.data(), payload.size(), MSG_NOSIGNAL);
            if (n > 0) {
                taken += n;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        std::printf("%lld\n", taken);
        close(fd);
        return 0;
    }
    if ((mode == "bulk" || mode == "rate") && argc == 4) {
        int port = std::atoi(argv[2]);
        std::vector<char> payload(1 << 20, 'x');
        if (mode == "bulk") {
            auto bytes = static_cast<std::uint64_t>(std::atoll(argv[3]));
            int fd = connectTo(port);
            auto start = std::chrono::steady_clock::now();
            if (!exchange(fd, payload, bytes)) {
                std::fprintf(stderr, "bulk: connection ended early\n");
                return 1;
            }
            std::printf("%.1f\n", static_cast<double>(bytes) / 1e6 / seconds(start));
            close(fd);
            return 0;
        }
        double limit = std::atof(argv[3]);
        auto start = std::chrono::steady_clock::now();
        long done = 0;
        while (seconds(start) < limit) {
            int fd = connectTo(port);
            if (!exchange(fd, payload, 64)) {
                std::fprintf(stderr, "rate: connection ended early\n");
                return 1;
            }
            close(fd);
            ++done;
        }
        std::printf("%.0f\n", static_cast<double>(done) / seconds(start));
        return 0;
    }
    std::fprintf(stderr, "usage: tunnelbench serve | bulk PORT BYTES | rate PORT SECONDS | latency PORT COUNT | "
                         "stall PORT SECONDS\n");
    return 2;
}
