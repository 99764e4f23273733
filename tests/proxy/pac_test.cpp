// A real PAC script, fetched by libproxy from a server on loopback that the test runs.
#include "proxy/proxyresolver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include "environment.h"

namespace {

const char * const kPacScript =
    "function FindProxyForURL(url, host) {\n"
    "  if (dnsDomainIs(host, \".corp.test\")) return \"DIRECT\";\n"
    "  if (shExpMatch(url, \"https:*\")) return \"PROXY 127.0.0.1:3130\";\n"
    "  return \"PROXY 127.0.0.1:3128; SOCKS 127.0.0.1:1080; PROXY 127.0.0.1:3129; DIRECT\";\n"
    "}\n";

// Serves one file to every GET on 127.0.0.1, port chosen by the system, from its own
// thread; stops within 100 ms of the destructor, after at most 32 connections or 20 s.
class PacServer {
public:
    explicit PacServer(std::string body) : m_body(std::move(body)) {
        m_listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        if (m_listener < 0 || bind(m_listener, reinterpret_cast<sockaddr *>(&address), length) != 0 ||
            listen(m_listener, 8) != 0 || getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length) != 0) {
            throw std::runtime_error("cannot listen on loopback");
        }
        m_port = ntohs(address.sin_port);
        m_thread = std::thread([this] { serve(); });
    }
    ~PacServer() {
        m_stop = true;
        m_thread.join();
        close(m_listener);
    }

    unsigned short port() const { return m_port; }

private:
    void serve() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (int served = 0; served < 32 && !m_stop && std::chrono::steady_clock::now() < deadline;) {
            pollfd ready{m_listener, POLLIN, 0};
            if (poll(&ready, 1, 100) != 1) {
                continue;
            }
            int connection = accept(m_listener, nullptr, nullptr);
            if (connection < 0) {
                continue;
            }
            ++served;
            answer(connection);
            close(connection);
        }
    }

    void answer(int connection) {
        std::string request;
        char buffer[1024];
        for (int reads = 0; reads < 64 && request.find("\r\n\r\n") == std::string::npos; ++reads) {
            pollfd ready{connection, POLLIN, 0};
            ssize_t got = poll(&ready, 1, 2000) == 1 ? recv(connection, buffer, sizeof(buffer), 0) : -1;
            if (got <= 0) {
                return;
            }
            request.append(buffer, static_cast<std::size_t>(got));
        }
        const std::string response = "HTTP/1.0 200 OK\r\nContent-Type: application/x-ns-proxy-autoconfig\r\n"
                                     "Content-Length: " + std::to_string(m_body.size()) + "\r\nConnection: close\r\n\r\n" + m_body;
        send(connection, response.data(), response.size(), MSG_NOSIGNAL);
    }

    std::string m_body;
    int m_listener = -1;
    unsigned short m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

std::vector<std::string> proxiesFor(ProxyResolver::IResolver & resolver, const char * uri) {
    std::unique_ptr<ProxyResolver::IResult> result(resolver.resolve(uri));
    std::vector<std::string> proxies;
    for (unsigned int i = 0; i < result->proxyCount(); ++i) {
        proxies.emplace_back(result->proxy(i).URI());
    }
    return proxies;
}

TEST(PacScript, ServedOnLoopbackIsEvaluatedToItsHttpProxiesInOrder) {
    corvane_test::ProxyEnvironment environment;
    PacServer server(kPacScript);
    environment.set("http_proxy", "pac+http://127.0.0.1:" + std::to_string(server.port()) + "/proxy.pac");
    std::unique_ptr<ProxyResolver::IResolver> resolver(ProxyResolver::createResolver());

    EXPECT_EQ(proxiesFor(*resolver, "http://example.test/"), std::vector<std::string>({"127.0.0.1:3128", "127.0.0.1:3129"}));
    EXPECT_EQ(proxiesFor(*resolver, "https://example.test/"), std::vector<std::string>({"127.0.0.1:3130"}));
    EXPECT_EQ(proxiesFor(*resolver, "http://web.corp.test/"), std::vector<std::string>());
}

TEST(PacScript, UnreachableScriptMeansDirect) {
    corvane_test::ProxyEnvironment environment;
    unsigned short port;
    {
        PacServer gone("");
        port = gone.port();
    }
    environment.set("http_proxy", "pac+http://127.0.0.1:" + std::to_string(port) + "/proxy.pac");
    std::unique_ptr<ProxyResolver::IResolver> resolver(ProxyResolver::createResolver());
    EXPECT_EQ(proxiesFor(*resolver, "http://example.test/"), std::vector<std::string>());
}

}  // namespace
