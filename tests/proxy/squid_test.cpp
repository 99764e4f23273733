#include "proxy/sspiexception.h"
#include "proxy/sspiproxyauthenticator.h"

#include <gtest/gtest.h>

#include <memory>

#include "childprocess.h"
#include "echoserver.h"
#include "kerberosrealm.h"
#include "logcapture.h"
#include "squidproxy.h"

namespace {

using corvane_test::EchoServer;
using corvane_test::KerberosRealm;
using corvane_test::LogCapture;
using corvane_test::ScopedEnv;
using corvane_test::SquidProxy;
using corvane_test::TempDir;
using corvane_test::WriteFile;
using socketio::SSPIProxyAuthenticator;

// A blocking loopback connection with a bounded receive, for driving the dialogue by hand.
class Connection {
public:
    explicit Connection(unsigned short port) {
        m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        timeval limit{5, 0};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(m_fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
            throw std::runtime_error("connect failed");
        }
    }
    ~Connection() { close(m_fd); }
    Connection(const Connection &) = delete;
    Connection & operator=(const Connection &) = delete;

    void send(const std::string & data) {
        for (std::size_t sent = 0; sent < data.size();) {
            const ssize_t n = ::send(m_fd, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
            if (n <= 0) {
                throw std::runtime_error("send failed");
            }
            sent += static_cast<std::size_t>(n);
        }
    }

    // One response, its body read and dropped, so that the next one starts clean.
    websocketpp::http::parser::response receiveResponse() {
        websocketpp::http::parser::response response;
        char buffer[4096];
        while (!response.ready()) {
            if (response.headers_ready() && response.get_header("Content-Length").empty()) {
                break;
            }
            const ssize_t n = recv(m_fd, buffer, sizeof buffer, 0);
            if (n <= 0) {
                throw std::runtime_error("the proxy closed or went quiet");
            }
            response.consume(buffer, static_cast<std::size_t>(n));
        }
        return response;
    }

    std::string receive(std::size_t length) {
        std::string data;
        char buffer[4096];
        while (data.size() < length) {
            const ssize_t n = recv(m_fd, buffer, std::min(sizeof buffer, length - data.size()), 0);
            if (n <= 0) {
                break;
            }
            data.append(buffer, static_cast<std::size_t>(n));
        }
        return data;
    }

private:
    int m_fd;
};

// The CONNECT dialogue with one proxy: the plain request, and on a 407 the offered method on
// a new connection for as long as the authenticator goes on. The tunnel's connection, or
// null when the proxy was given up.
std::unique_ptr<Connection> openTunnel(const SquidProxy & squid, unsigned short target) {
    const std::string where = "127.0.0.1:" + std::to_string(target);
    auto connection = std::make_unique<Connection>(squid.port());
    connection->send("CONNECT " + where + " HTTP/1.1\r\nHost: " + where + "\r\n\r\n");
    websocketpp::http::parser::response response = connection->receiveResponse();
    if (response.get_status_code() != websocketpp::http::status_code::proxy_authentication_required) {
        return nullptr;
    }
    const std::string offer = response.get_header("Proxy-Authenticate");
    const char * method = offer.find("Negotiate") != std::string::npos ? "Negotiate" : "NTLM";
    SSPIProxyAuthenticator authenticator(method, net::URI::FromString("http://localhost:" + std::to_string(squid.port())),
                                         net::URI::FromString("tcp://" + where), "corvane-test");
    connection = std::make_unique<Connection>(squid.port());
    for (int leg = 0; leg < 4; ++leg) {
        connection->send(authenticator.getRequest().raw());
        switch (authenticator.handleResponse(connection->receiveResponse())) {
        case socketio::PROXY_AUTH_SUCCESS:
            return connection;
        case socketio::PROXY_AUTH_CONTINUE:
            continue;
        default:
            return nullptr;
        }
    }
    return nullptr;
}

void expectEcho(Connection & tunnel) {
    const std::string data = "through the proxy";
    tunnel.send(data);
    EXPECT_EQ(tunnel.receive(data.size()), data);
}

// gss-ntlmssp's user file for the proxy's helper, and the squid lines of the tests' own
// GSSAPI helper (in NTLM or Negotiate mode).
std::string helperLines(const char * scheme, const char * arguments) {
    return std::string("auth_param ") + scheme + " program " + CORVANE_SQUID_GSS_AUTH + arguments +
           "\nauth_param " + scheme + " children 2\n";
}

class SquidTest : public ::testing::Test {
protected:
    SquidTest()
        : m_users("corvane-ntlm"),
          m_serverUsers("NTLM_USER_FILE", (m_users.path() + "/proxy").c_str()) {
        WriteFile(m_users.path() + "/proxy", "TESTDOM:user:userpw\n");
        WriteFile(m_users.path() + "/user", "TESTDOM:user:userpw\n");
        WriteFile(m_users.path() + "/wrong", "TESTDOM:user:wrongpw\n");
    }

    // After squid started: the logged-on user's own NTLM user file.
    std::unique_ptr<ScopedEnv> logOn(const char * file) {
        return std::make_unique<ScopedEnv>("NTLM_USER_FILE",
                                           file != nullptr ? (m_users.path() + "/" + file).c_str() : nullptr);
    }

    KerberosRealm m_realm;
    TempDir m_users;
    ScopedEnv m_serverUsers;
    EchoServer m_echo;
    LogCapture m_log;
};

TEST_F(SquidTest, KerberosTicketOpensTheTunnelAndNoTicketGivesTheProxyUp) {
    chown(m_realm.keytab().c_str(), 0, getgrnam("proxy")->gr_gid);
    chmod(m_realm.keytab().c_str(), 0640);
    SquidProxy squid("auth_param negotiate program /usr/lib/squid/negotiate_kerberos_auth -s HTTP/localhost@TEST.LOCAL -k " +
                     m_realm.keytab() + "\nauth_param negotiate children 2\n");
    auto noNtlm = logOn(nullptr);
    std::unique_ptr<Connection> tunnel = openTunnel(squid, m_echo.port());
    ASSERT_NE(tunnel, nullptr) << squid.cacheLog();
    expectEcho(*tunnel);
    tunnel.reset();
    EXPECT_TRUE(squid.accessLogShows("user@TEST.LOCAL"));

    ScopedEnv noTicket("KRB5CCNAME", ("FILE:" + m_realm.dir() + "/nothing").c_str());
    EXPECT_THROW(openTunnel(squid, m_echo.port()), socketio::SSPIException);
}

TEST_F(SquidTest, NtlmOpensTheTunnelAndAWrongPasswordGivesTheProxyUp) {
    SquidProxy squid(helperLines("ntlm", ""));
    auto user = logOn("user");
    std::unique_ptr<Connection> tunnel = openTunnel(squid, m_echo.port());
    ASSERT_NE(tunnel, nullptr) << squid.cacheLog();
    expectEcho(*tunnel);
    tunnel.reset();
    EXPECT_TRUE(squid.accessLogShows("TESTDOM"));

    auto wrong = logOn("wrong");
    EXPECT_EQ(openTunnel(squid, m_echo.port()), nullptr);
    EXPECT_EQ(m_log.count("corvane.socketio.SSPIProxyAuthenticator", "ERROR",
                          "exception caught: gss_init_sec_context:GSS_S_DEFECTIVE_TOKEN:Invalid token was supplied"),
              1u);
}

TEST_F(SquidTest, NegotiateWithoutATicketFallsBackToNtlm) {
    SquidProxy squid(helperLines("negotiate", " -n"));
    auto user = logOn("user");
    ScopedEnv noTicket("KRB5CCNAME", ("FILE:" + m_realm.dir() + "/nothing").c_str());
    std::unique_ptr<Connection> tunnel = openTunnel(squid, m_echo.port());
    ASSERT_NE(tunnel, nullptr) << squid.cacheLog();
    expectEcho(*tunnel);
    tunnel.reset();
    EXPECT_TRUE(squid.accessLogShows("TESTDOM"));
}

}  // namespace
