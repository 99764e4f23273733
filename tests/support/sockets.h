// Small socket helpers for tests: a port that is bound but not listening (connects to it
// are refused), descriptor counting, and a raised descriptor limit.
#pragma once

#include <sys/resource.h>
#include <sys/socket.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <random>
#include <algorithm>
#include <cstdint>
#include <string>

namespace corvane_test {

// Holds a loopback port that nobody listens on, so that a connect to it is refused.
class ScopedBoundPort {
public:
    explicit ScopedBoundPort(int family = AF_INET) {
        m_fd = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_storage address{};
        socklen_t length;
        if (family == AF_INET6) {
            auto * v6 = reinterpret_cast<sockaddr_in6 *>(&address);
            v6->sin6_family = AF_INET6;
            v6->sin6_addr = in6addr_loopback;
            length = sizeof *v6;
        } else {
            auto * v4 = reinterpret_cast<sockaddr_in *>(&address);
            v4->sin_family = AF_INET;
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            length = sizeof *v4;
        }
        bind(m_fd, reinterpret_cast<sockaddr *>(&address), length);
        getsockname(m_fd, reinterpret_cast<sockaddr *>(&address), &length);
        m_port = ntohs(family == AF_INET6 ? reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port
                                          : reinterpret_cast<sockaddr_in *>(&address)->sin_port);
    }
    ~ScopedBoundPort() { close(m_fd); }
    ScopedBoundPort(const ScopedBoundPort &) = delete;
    ScopedBoundPort & operator=(const ScopedBoundPort &) = delete;
    unsigned short port() const { return m_port; }

private:
    int m_fd;
    unsigned short m_port = 0;
};

// A listening socket on 127.0.0.1 with a port the system picks, stored in `port`.
inline int LoopbackListen(unsigned short & port, int backlog = 128) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(fd, backlog);
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length);
    port = ntohs(address.sin_port);
    return fd;
}

// Reads and writes on `fd` give up after 5 s, so that a test never hangs on a peer.
inline void BoundBlockingCalls(int fd) {
    timeval wait{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
}

// A loopback port that was free a moment ago, for servers that cannot be given port 0. It is
// taken below the system's ephemeral range: a port the system handed out and got back could be
// handed to any outgoing connection of the tests running beside this one before the server binds.
inline unsigned short FreeLoopbackPort() {
    unsigned low = 32768;
    if (FILE * range = std::fopen("/proc/sys/net/ipv4/ip_local_port_range", "r")) {
        if (std::fscanf(range, "%u", &low) != 1) {
            low = 32768;
        }
        std::fclose(range);
    }
    std::random_device seed;
    std::minstd_rand pick(seed());
    for (int attempt = 0; low > 10000 && attempt < 200; ++attempt) {
        const unsigned short port = static_cast<unsigned short>(10000 + pick() % (low - 10000));
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = htons(port);
        const bool free = bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
        close(fd);
        if (free) {
            return port;
        }
    }
    unsigned short port = 0;
    close(LoopbackListen(port));
    return port;
}

// A blocking client connected to 127.0.0.1:port with bounded calls; -1 when refused.
inline int LoopbackConnect(unsigned short port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    BoundBlockingCalls(fd);
    return fd;
}

// Waits up to `milliseconds` for a program started by the test to accept on 127.0.0.1:port.
inline bool WaitAccepting(unsigned short port, int milliseconds = 10000) {
    for (int waited = 0; waited < milliseconds; waited += 10) {
        const int fd = LoopbackConnect(port);
        if (fd >= 0) {
            close(fd);
            return true;
        }
        usleep(10000);
    }
    return false;
}

inline int CountOpenDescriptors() {
    int count = 0;
    if (DIR * dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr) {
            ++count;
        }
        closedir(dir);
    }
    return count;
}

// Raises the soft limit of open descriptors to at least `wanted` (within the hard limit).
inline bool RaiseDescriptorLimit(rlim_t wanted) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur >= wanted) {
        return true;
    }
    if (limit.rlim_max != RLIM_INFINITY && limit.rlim_max < wanted) {
        return false;
    }
    limit.rlim_cur = wanted;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

// Sends all of `data` (bounded by BoundBlockingCalls when set); false on a failure.
inline bool SendAll(int fd, const std::string & data) {
    for (std::size_t sent = 0; sent < data.size();) {
        ssize_t n = send(fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<std::size_t>(n);
    }
    return true;
}

// Reads exactly `size` bytes, or what came before the end, an error or the read time-out.
inline std::string RecvExact(int fd, std::size_t size) {
    std::string data;
    char buffer[65536];
    while (data.size() < size) {
        ssize_t n = recv(fd, buffer, std::min(sizeof buffer, size - data.size()), 0);
        if (n <= 0) {
            break;
        }
        data.append(buffer, static_cast<std::size_t>(n));
    }
    return data;
}

// True when the peer's end (or a reset) arrives within the read time-out of
// BoundBlockingCalls, which it sets; data before the end is skipped.
inline bool SeesEndOf(int fd) {
    BoundBlockingCalls(fd);
    char byte;
    for (int i = 0; i < 1000; ++i) {
        ssize_t n = recv(fd, &byte, 1, 0);
        if (n == 0 || (n < 0 && errno == ECONNRESET)) {
            return true;
        }
        if (n < 0) {
            return false;
        }
    }
    return false;
}

}  // namespace corvane_test
