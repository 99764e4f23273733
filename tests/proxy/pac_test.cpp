// A real PAC script, fetched by libproxy from a web server (python3's http.server) on loopback.
#include "proxy/proxyresolver.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "childprocess.h"
#include "environment.h"
#include "sockets.h"

namespace {

const char * const kPacScript =
    "function FindProxyForURL(url, host) {\n"
    "  if (dnsDomainIs(host, \".corp.test\")) return \"DIRECT\";\n"
    "  if (shExpMatch(url, \"https:*\")) return \"PROXY 127.0.0.1:3130\";\n"
    "  return \"PROXY 127.0.0.1:3128; SOCKS 127.0.0.1:1080; PROXY 127.0.0.1:3129; DIRECT\";\n"
    "}\n";

// Serves the script from a directory of its own; stopped by its PID.
class PacServer {
public:
    PacServer() : m_dir("corvane-pac"), m_port(corvane_test::FreeLoopbackPort()) {
        corvane_test::WriteFile(m_dir.path() + "/proxy.pac", kPacScript);
        m_pid = corvane_test::Spawn({"/usr/bin/python3", "-m", "http.server", "--bind", "127.0.0.1", "--directory",
                                     m_dir.path(), std::to_string(m_port)},
                                    m_dir.path() + "/server.out");
        corvane_test::WaitAccepting(m_port);
    }
    ~PacServer() { corvane_test::Kill(m_pid); }
    std::string url() const { return "pac+http://127.0.0.1:" + std::to_string(m_port) + "/proxy.pac"; }

private:
    corvane_test::TempDir m_dir;
    unsigned short m_port;
    pid_t m_pid;
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
    PacServer server;
    environment.set("http_proxy", server.url());
    std::unique_ptr<ProxyResolver::IResolver> resolver(ProxyResolver::createResolver());

    EXPECT_EQ(proxiesFor(*resolver, "http://example.test/"), std::vector<std::string>({"127.0.0.1:3128", "127.0.0.1:3129"}));
    EXPECT_EQ(proxiesFor(*resolver, "https://example.test/"), std::vector<std::string>({"127.0.0.1:3130"}));
    EXPECT_EQ(proxiesFor(*resolver, "http://web.corp.test/"), std::vector<std::string>());
}

TEST(PacScript, UnreachableScriptMeansDirect) {
    corvane_test::ProxyEnvironment environment;
    corvane_test::ScopedBoundPort refusing;
    environment.set("http_proxy", "pac+http://127.0.0.1:" + std::to_string(refusing.port()) + "/proxy.pac");
    std::unique_ptr<ProxyResolver::IResolver> resolver(ProxyResolver::createResolver());
    EXPECT_EQ(proxiesFor(*resolver, "http://example.test/"), std::vector<std::string>());
}

}  // namespace
