// scalebench: the two ends of bench/scale.sh, each one epoll thread.
//   scalebench echo                 listens on a free loopback port, prints "port N", echoes
//   scalebench client PORT N SECONDS PID[,PID...] [WARMUP]
//       holds N connections to PORT, each sending 1 KiB per second (phases spread over the
//       second; none while two of its messages wait for their echo) and reading its echo; after a warm-up (2 s, and on until every connection has
//       had an echo, at most WARMUP s, 2 by default) measures for SECONDS and prints "kept K p50 MS p99 MS cpu PERCENT rss KIB": connections still
//       open that got echoes in the window, echo delays, and the CPU share (of one core) and
//       RSS of the processes PID (summed).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kMessage = 1024;

void raiseLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void nonBlocking(int fd) { fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK); }

int echoServer() {
    raiseLimit();
    int listener = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 || listen(listener, 4096) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        std::perror("scalebench echo");
        return 1;
    }
    std::printf("port %d\n", ntohs(address.sin_port));
    std::fflush(stdout);
    nonBlocking(listener);
    int epoll = epoll_create1(0);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = listener;
    epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event);
    std::vector<std::string> pending;  // by descriptor: what the peer did not take yet
    std::vector<epoll_event> events(256);
    char buffer[16384];
    for (;;) {
        int ready = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < ready; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd == listener) {
                for (int client; (client = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK)) >= 0;) {
                    setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    event.events = EPOLLIN;
                    event.data.fd = client;
                    epoll_ctl(epoll, EPOLL_CTL_ADD, client, &event);
                }
                continue;
            }
            if (pending.size() <= static_cast<std::size_t>(fd)) {
                pending.resize(static_cast<std::size_t>(fd) + 1);
            }
            std::string & out = pending[static_cast<std::size_t>(fd)];
            bool closed = false;
            if ((events[static_cast<std::size_t>(i)].events & (EPOLLIN | EPOLLHUP | EPOLLERR)) != 0) {
                ssize_t n = recv(fd, buffer, sizeof buffer, 0);
                if (n > 0) {
                    out.append(buffer, static_cast<std::size_t>(n));
                } else if (n == 0 || (errno != EAGAIN && errno != EINTR)) {
                    closed = true;
                }
            }
            if (!closed && !out.empty()) {
                ssize_t sent = send(fd, out.data(), out.size(), MSG_NOSIGNAL);
                if (sent > 0) {
                    out.erase(0, static_cast<std::size_t>(sent));
                } else if (sent < 0 && errno != EAGAIN) {
                    closed = true;
                }
                event.events = out.empty() ? EPOLLIN : EPOLLIN | EPOLLOUT;
                event.data.fd = fd;
                epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &event);
            }
            if (closed) {
                out.clear();
                close(fd);
            }
        }
    }
}

struct Connection {
    int fd = -1;
    Clock::time_point nextSend;
    std::deque<Clock::time_point> sent;  // send times of messages whose echo is incomplete
    std::size_t received = 0;            // bytes of the echo of the oldest message
    bool inWindow = false;               // got an echo in the measured window
    bool echoed = false;                 // got an echo at all
};

std::vector<int> parsePids(const char * text) {
    std::vector<int> pids;
    std::istringstream list(text);
    for (std::string pid; std::getline(list, pid, ',');) {
        pids.push_back(std::atoi(pid.c_str()));
    }
    return pids;
}

std::uint64_t cpuTicks(int pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    std::uint64_t utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) {
            utime = std::strtoull(field.c_str(), nullptr, 10);
        } else if (i == 15) {
            stime = std::strtoull(field.c_str(), nullptr, 10);
        }
    }
    return utime + stime;
}

long rssKiB(int pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

std::uint64_t cpuTicks(const std::vector<int> & pids) {
    std::uint64_t ticks = 0;
    for (int pid : pids) {
        ticks += cpuTicks(pid);
    }
    return ticks;
}

long rssKiB(const std::vector<int> & pids) {
    long rss = 0;
    for (int pid : pids) {
        rss += rssKiB(pid);
    }
    return rss;
}

int client(int port, int count, int seconds, const std::vector<int> & pid, int warmup) {
    raiseLimit();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    std::vector<Connection> connections(static_cast<std::size_t>(count));
    int epoll = epoll_create1(0);
    std::mt19937 random(12345);
    int one = 1;
    for (std::size_t i = 0; i < connections.size(); ++i) {
        Connection & c = connections[i];
        c.fd = socket(AF_INET, SOCK_STREAM, 0);
        if (c.fd < 0 || connect(c.fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            if (c.fd >= 0) {
                close(c.fd);
            }
            c.fd = -1;
            continue;
        }
        setsockopt(c.fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        nonBlocking(c.fd);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u64 = i;
        epoll_ctl(epoll, EPOLL_CTL_ADD, c.fd, &event);
    }
    // Phases spread over the second, served in order by one cursor: every period is the same.
    const Clock::time_point start = Clock::now() + std::chrono::milliseconds(100);
    std::vector<std::size_t> order(connections.size());
    for (std::size_t i = 0; i < order.size(); ++i) {
        order[i] = i;
        connections[i].nextSend = start + std::chrono::microseconds(random() % 1000000);
    }
    std::sort(order.begin(), order.end(),
              [&](std::size_t a, std::size_t b) { return connections[a].nextSend < connections[b].nextSend; });
    // Connections through a proxy that makes a TLS handshake per connection may take a while
    // to carry their first echo: the window waits for them, up to the longest warm-up.
    const Clock::time_point shortestWarmup = start + std::chrono::seconds(std::min(2, warmup));
    const Clock::time_point longestWarmup = start + std::chrono::seconds(warmup);
    Clock::time_point windowEnd = longestWarmup + std::chrono::seconds(seconds);
    std::size_t echoed = 0;
    std::size_t open = 0;
    for (const Connection & c : connections) {
        open += c.fd >= 0 ? 1 : 0;
    }
    // A connection that ends before its first echo is not waited for.
    auto drop = [&](Connection & c) {
        close(c.fd);
        c.fd = -1;
        open -= c.echoed ? 0 : 1;
    };
    std::vector<double> delays;
    std::uint64_t ticksBefore = 0;
    Clock::time_point windowOpened;
    bool windowOpen = false;
    char message[kMessage];
    std::memset(message, 'x', sizeof message);
    char buffer[16384];
    std::vector<epoll_event> events(256);
    std::size_t cursor = 0;
    for (;;) {
        Clock::time_point now = Clock::now();
        if (!windowOpen && now >= shortestWarmup && (echoed >= open || now >= longestWarmup)) {
            windowOpen = true;
            windowEnd = now + std::chrono::seconds(seconds);
            ticksBefore = cpuTicks(pid);
            windowOpened = now;
        }
        if (now >= windowEnd) {
            break;
        }
        for (std::size_t served = 0; served < order.size() && connections[order[cursor]].nextSend <= now; ++served) {
            Connection & c = connections[order[cursor]];
            // A client that fell behind (a saturated machine) skips the seconds it missed and
            // keeps its phase, so the order of the cursor holds: no burst of old messages.
            c.nextSend += std::chrono::duration_cast<std::chrono::seconds>(now - c.nextSend) + std::chrono::seconds(1);
            cursor = (cursor + 1) % order.size();
            // Two messages without their echo: a proxy that has not joined the connection yet,
            // or that fell behind, is not buried under more.
            if (c.fd < 0 || c.sent.size() >= 2) {
                continue;
            }
            ssize_t sent = send(c.fd, message, sizeof message, MSG_NOSIGNAL);
            if (sent == static_cast<ssize_t>(sizeof message)) {
                c.sent.push_back(now);
            } else if (sent < 0 && errno != EAGAIN) {
                drop(c);
            }  // a partial send would shift the message boundaries: not at 1 KiB/s on loopback
        }
        const auto wait = order.empty() ? std::chrono::milliseconds(10)
                                        : std::chrono::duration_cast<std::chrono::milliseconds>(
                                              connections[order[cursor]].nextSend - now);
        int timeout = static_cast<int>(std::max<long long>(0, std::min<long long>(wait.count(), 10)));
        int ready = epoll_wait(epoll, events.data(), static_cast<int>(events.size()), timeout);
        now = Clock::now();
        for (int i = 0; i < ready; ++i) {
            Connection & c = connections[events[static_cast<std::size_t>(i)].data.u64];
            if (c.fd < 0) {
                continue;
            }
            ssize_t n = recv(c.fd, buffer, sizeof buffer, 0);
            if (n == 0 || (n < 0 && errno != EAGAIN && errno != EINTR)) {
                drop(c);
                continue;
            }
            for (std::size_t got = n > 0 ? static_cast<std::size_t>(n) : 0; got > 0 && !c.sent.empty();) {
                const std::size_t take = std::min(got, kMessage - c.received);
                c.received += take;
                got -= take;
                if (c.received == kMessage) {
                    if (!c.echoed) {
                        c.echoed = true;
                        ++echoed;
                    }
                    if (windowOpen) {
                        delays.push_back(std::chrono::duration<double, std::milli>(now - c.sent.front()).count());
                        c.inWindow = true;
                    }
                    c.sent.pop_front();
                    c.received = 0;
                }
            }
        }
    }
    const std::uint64_t ticks = cpuTicks(pid) - ticksBefore;
    // A client that falls behind (a saturated machine) stays longer than SECONDS in the window.
    const double window = windowOpen ? std::chrono::duration<double>(Clock::now() - windowOpened).count() : seconds;
    const long rss = rssKiB(pid);
    int kept = 0;
    for (const Connection & c : connections) {
        kept += (c.fd >= 0 && c.inWindow) ? 1 : 0;
    }
    std::sort(delays.begin(), delays.end());
    auto percentile = [&](double p) {
        return delays.empty() ? 0.0 : delays[std::min(delays.size() - 1, static_cast<std::size_t>(p * delays.size()))];
    };
    const double cpu = 100.0 * static_cast<double>(ticks) / static_cast<double>(sysconf(_SC_CLK_TCK)) / window;
    std::printf("kept %d p50 %.3f p99 %.3f cpu %.1f rss %ld\n", kept, percentile(0.5), percentile(0.99), cpu, rss);
    for (Connection & c : connections) {
        if (c.fd >= 0) {
            close(c.fd);
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char ** argv) {
    if (argc == 2 && std::strcmp(argv[1], "echo") == 0) {
        return echoServer();
    }
    if ((argc == 6 || argc == 7) && std::strcmp(argv[1], "client") == 0) {
        return client(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), parsePids(argv[5]),
                      argc == 7 ? std::atoi(argv[6]) : 2);
    }
    std::fprintf(stderr, "usage: scalebench echo | scalebench client PORT N SECONDS PID[,PID...] [WARMUP]\n");
    return 2;
}
