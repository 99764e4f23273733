// Test peer: an HTTP proxy on 127.0.0.1 (port 0) that plays a script, one entry per
// connection in the order they come. For each request it reads one header block, records
// it, and answers with the given segments, each sent on its own after a short pause; then
// it closes or, by default, echoes what comes until the peer's end (the tunnel's far side).
// Once the script has run, it stops listening.
// Its own thread; every blocking call is bounded. The destructor stops and joins it.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sockets.h"

namespace corvane_test {

struct ProxyConnectionScript {
    // One list of segments per request that the connection is to answer.
    std::vector<std::vector<std::string>> answers;
    bool closeAfterAnswers = false;
};

class ScriptedProxy {
public:
    explicit ScriptedProxy(std::vector<ProxyConnectionScript> script) : m_script(std::move(script)) {
        m_listen = LoopbackListen(m_port);
        m_thread = std::thread([this] { run(); });
    }
    ~ScriptedProxy() {
        m_stop = true;
        m_thread.join();
    }
    ScriptedProxy(const ScriptedProxy &) = delete;
    ScriptedProxy & operator=(const ScriptedProxy &) = delete;

    unsigned short port() const { return m_port; }
    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }
    // The header blocks received, per connection.
    std::vector<std::vector<std::string>> requests() const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_requests;
    }

    // A response whose segments are the single bytes of `text`.
    static std::vector<std::string> bytewise(const std::string & text) {
        std::vector<std::string> segments;
        for (char c : text) {
            segments.emplace_back(1, c);
        }
        return segments;
    }

private:
    bool waitReadable(int fd) {
        for (int i = 0; i < 500 && !m_stop; ++i) {
            pollfd entry{fd, POLLIN, 0};
            if (poll(&entry, 1, 10) > 0) {
                return true;
            }
        }
        return false;
    }
    void run() {
        runScript();
        // A connection beyond the script is refused rather than left waiting for an answer.
        close(m_listen);
    }
    void runScript() {
        for (const ProxyConnectionScript & connection : m_script) {
            if (!waitReadable(m_listen)) {
                return;
            }
            int fd = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                return;
            }
            BoundBlockingCalls(fd);
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            {
                std::lock_guard<std::mutex> guard(m_mutex);
                m_requests.emplace_back();
            }
            serve(fd, connection);
            close(fd);
        }
    }
    void serve(int fd, const ProxyConnectionScript & connection) {
        for (const auto & segments : connection.answers) {
            std::string request;
            char c;
            while (request.size() < 4 || request.compare(request.size() - 4, 4, "\r\n\r\n") != 0) {
                if (!waitReadable(fd) || recv(fd, &c, 1, 0) != 1) {
                    return;
                }
                request += c;
            }
            {
                std::lock_guard<std::mutex> guard(m_mutex);
                m_requests.back().push_back(request);
            }
            for (const std::string & segment : segments) {
                std::this_thread::sleep_for(std::chrono::milliseconds(segments.size() > 20 ? 1 : 30));
                if (send(fd, segment.data(), segment.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(segment.size())) {
                    return;
                }
            }
        }
        if (connection.closeAfterAnswers) {
            return;
        }
        char buffer[4096];
        while (waitReadable(fd)) {
            ssize_t n = recv(fd, buffer, sizeof buffer, 0);
            if (n <= 0 || send(fd, buffer, static_cast<size_t>(n), MSG_NOSIGNAL) != n) {
                return;
            }
        }
    }

    std::vector<ProxyConnectionScript> m_script;
    int m_listen;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::vector<std::vector<std::string>> m_requests;  // guarded by m_mutex
};

}  // namespace corvane_test
