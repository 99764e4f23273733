// The CONNECT exchange against a scripted proxy on loopback: the order of proxies, the
// direct fall-back, responses cut into single bytes or cut off, bodies on kept-open
// connections, and the choice of authentication method.
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "childprocess.h"
#include "echoserver.h"
#include "expect.h"
#include "environment.h"
#include "logcapture.h"
#include "proxy/proxy.h"
#include "proxy/resolver.h"
#include "proxy/proxysocketconnect.h"
#include "proxy/standardproxyauthenticator.h"
#include "scriptedproxy.h"
#include "socketio/socketfunctions.h"
#include "sockets.h"

namespace {

using corvane_test::ProxyConnectionScript;
using corvane_test::ScriptedProxy;
using websocketpp::http::parser::request;
using websocketpp::http::parser::response;

const char * const kConnectLog = "corvane.socketio.ProxySocketConnect";
const char * const kAuthLog = "corvane.socketio.StandardProxyAuthenticator";

std::string plainRequest(unsigned short port) {
    std::string target = "127.0.0.1:" + std::to_string(port);
    return "CONNECT " + target + " HTTP/1.1\r\nHost: " + target +
           "\r\nProxy-Connection: Keep-Alive\r\nUser-Agent: corvane/2.0.1.34\r\n\r\n";
}

// Reads what is there within 5 s, up to `size` bytes.
std::string receiveSome(unsigned int socket, size_t size) {
    corvane_test::BoundBlockingCalls(static_cast<int>(socket));
    return corvane_test::RecvExact(static_cast<int>(socket), size);
}

std::string echoThrough(unsigned int socket, const std::string & text) {
    corvane_test::SendAll(static_cast<int>(socket), text);
    return receiveSome(socket, text.size());
}

// A method of the tests' own: one more request per 407 that names its method, success on 200.
class FakeMethod : public socketio::IProxyAuthenticator {
public:
    FakeMethod(std::string method, unsigned short targetPort) : m_method(std::move(method)), m_port(targetPort) {
        build();
    }
    const request & getRequest() override { return m_request; }
    socketio::ProxyAuthenticateResult handleResponse(const response & answer) override {
        if (answer.get_status_code() == websocketpp::http::status_code::ok) {
            return socketio::PROXY_AUTH_SUCCESS;
        }
        if (answer.get_status_code() != websocketpp::http::status_code::proxy_authentication_required ||
            answer.get_header("Proxy-Authenticate").compare(0, m_method.size(), m_method) != 0) {
            return socketio::PROXY_AUTH_FAILED;
        }
        build();
        return socketio::PROXY_AUTH_CONTINUE;
    }

private:
    void build() {
        std::string target = "127.0.0.1:" + std::to_string(m_port);
        m_request = request();
        m_request.set_method("CONNECT");
        m_request.set_uri(target);
        m_request.set_version("HTTP/1.1");
        m_request.append_header("Host", target);
        m_request.append_header("Proxy-Authorization", m_method + " leg " + std::to_string(++m_leg));
    }
    std::string m_method;
    unsigned short m_port;
    int m_leg = 0;
    request m_request;
};

// The same proxies for every URL, as a system configured with a fixed list would name them.
class FixedProxies : public ProxyResolver::IPlatformResolver {
public:
    explicit FixedProxies(std::vector<std::string> proxies) : m_proxies(std::move(proxies)) {}
    void resolve(const char *, std::vector<std::string> & proxies) override {
        proxies.insert(proxies.end(), m_proxies.begin(), m_proxies.end());
    }

private:
    std::vector<std::string> m_proxies;
};

class ProxyConnect : public ::testing::Test {
protected:
    void SetUp() override { m_descriptors = corvane_test::CountOpenDescriptors(); }
    void TearDown() override {
        socketio::StandardProxyAuthenticator::setMethodMaker(nullptr);
        EXPECT_EQ(corvane_test::CountOpenDescriptors(), m_descriptors) << "a descriptor leaked";
    }

    // Methods are made by the tests: fake ones, or ones that fail like a user without credentials.
    void makeMethods(bool fake) {
        socketio::StandardProxyAuthenticator::setMethodMaker(
            [this, fake](const char * method, const net::URI &, const net::URI & target, std::string) {
                made.push_back(method);
                if (!fake) {
                    throw std::runtime_error(std::string("no credentials for ") + method);
                }
                return std::make_shared<FakeMethod>(method, target.getPort());
            });
    }
    unsigned int connectThrough(const std::string & uri) {
        return socketio::SocketConnectAttemptProxy(net::URI::FromString(uri), resolver.get(), options);
    }
    unsigned int connectVia(const ScriptedProxy & proxy, unsigned short targetPort) {
        ProxyResolver::Proxy entry;
        entry.set(proxy.address());
        return socketio::ProxySocketConnect(net::URI::FromString("tcp://127.0.0.1:" + std::to_string(targetPort)),
                                            entry, options);
    }
    size_t logged(const char * category, const char * level, const std::string & text) {
        return log.count(category, level, text);
    }

    corvane_test::ProxyEnvironment environment;
    corvane_test::LogCapture log{"INFO"};
    socketio::socket_options options;
    std::unique_ptr<ProxyResolver::IResolver> resolver{ProxyResolver::createResolver()};
    std::vector<std::string> made;

private:
    int m_descriptors = 0;
};

TEST_F(ProxyConnect, FirstProxyAnswering503IsSkippedAndTheSecondStartsAFreshDialogue) {
    ScriptedProxy first({{{{"HTTP/1.1 503 Service Unavailable\r\nContent-Length: 5\r\n\r\nsorry"}}}});
    ScriptedProxy second({{{{"HTTP/1.1 200 Connection established\r\n\r\n"}}}});
    environment.set("http_proxy", "http://" + first.address());
    environment.set("all_proxy", second.address());
    corvane_test::ScopedBoundPort target;  // refuses: only a proxy can answer
    std::string port = std::to_string(target.port());

    unsigned int socket = connectThrough("ws://127.0.0.1:" + port);
    EXPECT_EQ(echoThrough(socket, "through the second"), "through the second");
    socketio::SocketClose(socket);

    // Asked for as http, but the CONNECT names what the transport passed.
    EXPECT_EQ(first.requests(), std::vector<std::vector<std::string>>{{plainRequest(target.port())}});
    EXPECT_EQ(second.requests(), first.requests());
    EXPECT_EQ(logged(kConnectLog, "INFO",
                     "Resolving proxy information for 'ws://127.0.0.1:" + port + "' using 'http://127.0.0.1:" + port +
                         "'"),
              1u);
    EXPECT_EQ(logged(kConnectLog, "INFO", "Found 2 proxies available for connecting to 'http://127.0.0.1:" + port + "'"),
              1u);
    EXPECT_EQ(logged(kConnectLog, "INFO", "initiating connection with proxy '" + first.address() + "'"), 1u);
    EXPECT_EQ(logged(kAuthLog, "ERROR", "Unable to open connection with proxy server"), 1u);
    EXPECT_EQ(logged(kConnectLog, "ERROR",
                     "SocketConnectAttemptProxy: InternalException caught: ProxySocketConnect: unable to initialize "
                     "connection to proxy"),
              1u);
    EXPECT_EQ(logged(kConnectLog, "INFO", "initiating connection with proxy '" + second.address() + "'"), 1u);
    EXPECT_EQ(logged(kConnectLog, "INFO", "Connecting directly"), 0u);
}

TEST_F(ProxyConnect, ResponseInSingleBytesIsReadToItsEndAndTheTargetsFirstBytesStay) {
    std::string head = "HTTP/1.1 200 Connection established\r\nVia: 1.1 scripted\r\n\r\n";
    std::vector<std::string> segments = ScriptedProxy::bytewise(head.substr(0, head.size() - 1));
    segments.push_back("\nhello from the target");
    ScriptedProxy proxy({{{segments}}});
    unsigned int socket = connectVia(proxy, 9);
    EXPECT_EQ(receiveSome(socket, 21), "hello from the target");
    socketio::SocketClose(socket);
    EXPECT_EQ(logged(kConnectLog, "INFO", "got response: " + head), 1u);
}

TEST_F(ProxyConnect, BrokenAnswersSkipTheProxyForTheDirectConnection) {
    corvane_test::EchoServer target;
    std::string uri = "http://127.0.0.1:" + std::to_string(target.port());
    struct Case {
        std::string answer;
        std::vector<std::string> errors;
    };
    const Case cases[] = {
        {"HTTP/1.1 200 Conn",
         {"Unable to receive data through proxy-socket, ret=0", "ProxySocketConnect: error receiving proxy-handshake data",
          "SocketConnectAttemptProxy: exception caught: error receiving proxy-handshake data"}},
        {"HTTP/1.1 200 OK\r\nX-Filler: " + std::string(17000, 'f') + "\r\n\r\n",
         {"ProxySocketConnect: Maximum header size exceeded.",
          "SocketConnectAttemptProxy: exception caught: Maximum header size exceeded."}},
        // No status has four digits; the parser would store it unchecked.
        {"HTTP/1.1 4207 Proxy Authentication Required\r\n\r\n",
         {"ProxySocketConnect: malformed status line from proxy: HTTP/1.1 4207 Proxy Authentication Required",
          "SocketConnectAttemptProxy: exception caught: malformed status line from proxy: HTTP/1.1 4207 Proxy "
          "Authentication Required"}},
    };
    for (const Case & c : cases) {
        log.clear();
        ScriptedProxy proxy({{{{c.answer}}, true}});
        environment.set("http_proxy", proxy.address());
        unsigned int socket = connectThrough(uri);
        EXPECT_EQ(echoThrough(socket, "direct"), "direct");
        socketio::SocketClose(socket);
        for (const std::string & error : c.errors) {
            EXPECT_EQ(logged(kConnectLog, "ERROR", error), 1u) << error;
        }
        EXPECT_EQ(logged(kConnectLog, "INFO", "Connecting directly"), 1u);
    }
    EXPECT_EQ(target.accepted(), 3);
}

TEST_F(ProxyConnect, OnlyNegotiateOrNtlmAreTriedAndNegotiateWins) {
    makeMethods(false);
    ScriptedProxy basic({{{{"HTTP/1.1 407 Proxy Authentication Required\r\n"
                            "Proxy-Authenticate: Basic realm=\"corp\"\r\nContent-Length: 0\r\n\r\n"}}}});
    ScriptedProxy both({{{{"HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: NTLM\r\n"
                           "Proxy-Authenticate: NEGOTIATE\r\nContent-Length: 0\r\n\r\n"}}}});
    ScriptedProxy ntlm({{{{"HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: NTLM\r\n\r\n"}}}});
    resolver.reset(new ProxyResolver::Resolver(new FixedProxies({basic.address(), both.address(), ntlm.address()})));
    corvane_test::EchoServer target;

    unsigned int socket = connectThrough("tcp://127.0.0.1:" + std::to_string(target.port()));
    EXPECT_EQ(echoThrough(socket, "direct"), "direct");
    socketio::SocketClose(socket);

    EXPECT_EQ(made, (std::vector<std::string>{"Negotiate", "NTLM"}));
    EXPECT_EQ(logged(kAuthLog, "WARN",
                     "no supported authenticate methods where found for Proxy-Authenticate header 'Basic realm=\"corp\"'"),
              1u);
    EXPECT_EQ(logged(kAuthLog, "INFO",
                     "adding Negotiate authenticate method for Proxy-Authenticate header 'NTLM, NEGOTIATE'"),
              1u);
    EXPECT_EQ(logged(kAuthLog, "INFO", "adding NTLM authenticate method for Proxy-Authenticate header 'NTLM'"), 1u);
    EXPECT_EQ(log.countContaining(kAuthLog, "adding"), 2u);
    EXPECT_EQ(logged(kConnectLog, "ERROR", "SocketConnectAttemptProxy: exception caught: no credentials for Negotiate"),
              1u);
    EXPECT_EQ(logged(kConnectLog, "INFO", "Connecting directly"), 1u);
    // A method that cannot start costs no second connection.
    for (const ScriptedProxy * proxy : {&basic, &both, &ntlm}) {
        EXPECT_EQ(proxy->requests().size(), 1u);
    }
    EXPECT_EQ(target.accepted(), 1);
}

std::string chunk(const std::string & data) {
    char size[16];
    snprintf(size, sizeof size, "%zx", data.size());
    return std::string(size) + ";ext=1\r\n" + data + "\r\n";
}

TEST_F(ProxyConnect, BodiesOfChallengesOnAKeptConnectionAreDrainedBeforeTheNextResponse) {
    makeMethods(true);
    // Bodies that would read as a response if they were taken for one.
    const std::string decoy = "HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n";
    const std::string body = decoy + std::string(3052 - decoy.size(), 'b');
    const std::string challenge = "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: NTLM ";
    const std::string chunked = chunk(decoy) + chunk(std::string(3000, 'c'));
    ScriptedProxy proxy({
        {{{challenge.substr(0, challenge.size() - 1) + "\r\nContent-Length: 4\r\n\r\nbody"}}},
        {{{challenge + "first\r\nContent-Length: 3052\r\n\r\n", body},
          {challenge + "second\r\nTransfer-Encoding: chunked\r\n\r\n", chunked.substr(0, 30), chunked.substr(30),
           "0\r\nX-Trailer: t\r\n\r\n"},
          {"HTTP/1.1 200 Connection established\r\n\r\n"}}},
    });
    unsigned int socket = connectVia(proxy, 9);
    EXPECT_EQ(echoThrough(socket, "tunnel"), "tunnel");
    socketio::SocketClose(socket);

    EXPECT_EQ(made, std::vector<std::string>{"NTLM"});
    auto requests = proxy.requests();
    ASSERT_EQ(requests.size(), 2u) << "the method's first request goes out on a new connection";
    EXPECT_EQ(requests[0], std::vector<std::string>{plainRequest(9)});
    ASSERT_EQ(requests[1].size(), 3u);
    for (size_t leg = 0; leg < 3; ++leg) {
        EXPECT_NE(requests[1][leg].find("Proxy-Authorization: NTLM leg " + std::to_string(leg + 1) + "\r\n"),
                  std::string::npos);
    }
}

TEST_F(ProxyConnect, AnotherMethodsChallengeInTheMiddleOfADialogueEndsIt) {
    makeMethods(true);
    socketio::StandardProxyAuthenticator authenticator(net::URI::FromString("tcp://proxy.test:3128"),
                                                       net::URI::FromString("tcp://target.test:443"));
    auto parsed = [](const std::string & text) {
        response answer;
        answer.consume(text.data(), text.size());
        return answer;
    };
    EXPECT_EQ(corvane_test::thrownText([&] { authenticator.handleResponse(parsed("HTTP/1.1 407 Proxy")); }),
              "response-headers are not ready");
    EXPECT_EQ(authenticator.getRequest().get_header("Host"), "target.test:443");
    // An IPv6 target in brackets, or the proxy could not tell its port from the address.
    socketio::StandardProxyAuthenticator v6(net::URI::FromString("tcp://proxy.test:3128"),
                                            net::URI::FromString("tcp://[::1]:443"));
    EXPECT_EQ(v6.getRequest().raw().rfind("CONNECT [::1]:443 HTTP/1.1\r\nHost: [::1]:443\r\n", 0), 0u);
    EXPECT_EQ(authenticator.handleResponse(
                  parsed("HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: NTLM\r\n\r\n")),
              socketio::PROXY_AUTH_RECONNECT);
    EXPECT_EQ(authenticator.getRequest().get_header("Proxy-Authorization"), "NTLM leg 1");
    EXPECT_EQ(authenticator.handleResponse(
                  parsed("HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Negotiate\r\n\r\n")),
              socketio::PROXY_AUTH_FAILED);
    EXPECT_EQ(made, std::vector<std::string>{"NTLM"}) << "a challenge in the middle adds no method";
    EXPECT_EQ(corvane_test::thrownText([&] { authenticator.getRequest(); }),
              "no more authentication methods left to obtain request from");
    EXPECT_EQ(corvane_test::thrownText(
                  [&] { authenticator.handleResponse(parsed("HTTP/1.1 200 Connection established\r\n\r\n")); }),
              "no more authentication methods left to handle response");
}

}  // namespace
