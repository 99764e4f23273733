// A blocking echo server on 127.0.0.1, port 0, in threads of its own: one thread accepts,
// one thread per connection echoes until the peer's end. It shares no code with the
// library. The constructor returns when it listens; the destructor stops and joins it.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "sockets.h"

namespace corvane_test {

class EchoServer {
public:
    // silent: accept and read, but never answer (a peer that goes quiet).
    explicit EchoServer(bool silent = false) : m_silent(silent) {
        m_listen = LoopbackListen(m_port);
        m_acceptor = std::thread([this] { acceptLoop(); });
    }
    ~EchoServer() {
        shutdown(m_listen, SHUT_RDWR);
        m_acceptor.join();
        close(m_listen);
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            for (int fd : m_connections) {
                shutdown(fd, SHUT_RDWR);
            }
        }
        for (auto & worker : m_workers) {
            worker.join();
        }
    }
    EchoServer(const EchoServer &) = delete;
    EchoServer & operator=(const EchoServer &) = delete;

    unsigned short port() const { return m_port; }
    int accepted() const { return m_accepted.load(); }

private:
    void acceptLoop() {
        for (;;) {
            int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            ++m_accepted;
            std::lock_guard<std::mutex> guard(m_mutex);
            m_connections.push_back(fd);
            m_workers.emplace_back([this, fd] { echo(fd); });
        }
    }
    void echo(int fd) {
        char buffer[65536];
        for (;;) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                break;
            }
            for (ssize_t sent = 0; !m_silent && sent < n;) {
                ssize_t k = send(fd, buffer + sent, static_cast<size_t>(n - sent), MSG_NOSIGNAL);
                if (k <= 0) {
                    break;
                }
                sent += k;
            }
        }
        std::lock_guard<std::mutex> guard(m_mutex);
        for (auto it = m_connections.begin(); it != m_connections.end(); ++it) {
            if (*it == fd) {
                m_connections.erase(it);
                break;
            }
        }
        close(fd);
    }

    bool m_silent;
    int m_listen;
    unsigned short m_port = 0;
    std::atomic<int> m_accepted{0};
    std::thread m_acceptor;
    std::mutex m_mutex;
    std::vector<int> m_connections;  // guarded by m_mutex
    std::vector<std::thread> m_workers;  // guarded by m_mutex
};

}  // namespace corvane_test
