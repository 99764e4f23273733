// Channels through squid demanding Negotiate or NTLM, with the logged-on user's credentials
// only: a Kerberos ticket from a throw-away KDC, or gss-ntlmssp's user file. squid checks
// NTLM (and SPNEGO falling back to NTLM) with the tests' own GSSAPI helper, Kerberos also
// with Debian's. A proxy that refuses the user is given up for the next one or for the
// direct connection.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "childprocess.h"
#include "echoserver.h"
#include "environment.h"
#include "expect.h"
#include "framework/channelfactory.h"
#include "kerberosrealm.h"
#include "logcapture.h"
#include "recordinghandler.h"
#include "socketio/selectreactor.h"
#include "squidproxy.h"

namespace {

using corvane_test::ScopedEnv;
using corvane_test::SquidProxy;
using corvane_test::WriteFile;

const char * const kConnectLog = "corvane.socketio.ProxySocketConnect";

// squid's lines for Debian's Kerberos helper, with the realm's keytab.
std::string kerberosHelper(const corvane_test::KerberosRealm & realm) {
    return "auth_param negotiate program /usr/lib/squid/negotiate_kerberos_auth -s HTTP/localhost@TEST.LOCAL -k " +
           realm.keytab() + "\nauth_param negotiate children 2\n";
}

class SquidAuthentication : public ::testing::Test {
protected:
    SquidAuthentication() : m_users("corvane-ntlm"), m_proxyUsers("NTLM_USER_FILE", userFile("proxy").c_str()) {
        WriteFile(userFile("proxy"), "TESTDOM:user:userpw\n");
        WriteFile(userFile("user"), "TESTDOM:user:userpw\n");
        WriteFile(userFile("wrong"), "TESTDOM:user:wrongpw\n");
        // squid runs the helper as user proxy, who may not reach into the build tree.
        corvane_test::Run({"cp", CORVANE_SQUID_GSS_AUTH, userFile("squid-gss-auth")}, "/dev/null");
        // Debian's Kerberos helper runs as user proxy and reads the keytab itself.
        if (chown(m_realm.keytab().c_str(), 0, getgrnam("proxy")->gr_gid) != 0) {
            throw std::runtime_error("the keytab cannot be given to group proxy");
        }
        chmod(m_realm.keytab().c_str(), 0640);
        m_factory = new net::ChannelFactory(net::SocketOptions());
        m_reactor = new socketio::SelectReactor(5000, 300000, 5);
        m_reactor->startProcessing();
    }
    ~SquidAuthentication() override { m_reactor->stopProcessing(); }

    std::string userFile(const char * name) const { return m_users.path() + "/" + name; }

    // squid's lines for the tests' own GSSAPI helper, for `scheme` "ntlm" or "negotiate".
    std::string gssHelper(const std::string & scheme) const {
        return "auth_param " + scheme + " program " + userFile("squid-gss-auth") +
               (scheme == "negotiate" ? " -n" : "") + "\nauth_param " + scheme + " children 2\n";
    }

    // The logged-on user's NTLM identity (a user file, or none), set after the proxies
    // started with theirs.
    void logOn(const char * file) {
        m_user.reset();
        m_user.reset(new ScopedEnv("NTLM_USER_FILE", file != nullptr ? userFile(file).c_str() : nullptr));
    }

    // Opens an "http" channel to the echo server, checks the echo, returns the channel's peer.
    std::string echoThroughChannel() {
        Common::SmartPtr<corvane_test::RecordingHandler> handler(new corvane_test::RecordingHandler);
        const std::string uri = "http://127.0.0.1:" + std::to_string(m_echo.port());
        Common::SmartPtr<net::IChannel> channel(m_factory->openChannel(m_reactor.get(), uri.c_str(), handler.get(), ""));
        handler->queue("echo me");
        EXPECT_TRUE(corvane_test::waitFor([&] { return handler->receivedSize() >= 7; }));
        EXPECT_EQ(handler->received(), "echo me");
        std::string peer = channel->getPeerURI();
        channel->close();
        return peer;
    }

    static std::string viaSquid(const SquidProxy & squid) { return "localhost:" + std::to_string(squid.port()); }
    // A channel's peer is the address it is connected to: the proxy's, or the target's.
    static std::string peerOf(const SquidProxy & squid) { return "tcp://127.0.0.1:" + std::to_string(squid.port()); }
    std::string direct() const { return "tcp://127.0.0.1:" + std::to_string(m_echo.port()); }

    corvane_test::ProxyEnvironment m_environment;
    corvane_test::KerberosRealm m_realm;
    corvane_test::TempDir m_users;
    ScopedEnv m_proxyUsers;
    std::unique_ptr<ScopedEnv> m_user;
    corvane_test::EchoServer m_echo;
    corvane_test::LogCapture m_log{"INFO"};
    Common::SmartPtr<net::IChannelFactory> m_factory;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
};

TEST_F(SquidAuthentication, KerberosTicketOpensTheChannelAndWithoutOneTheChannelGoesDirect) {
    SquidProxy squid(kerberosHelper(m_realm));
    logOn(nullptr);
    m_environment.set("http_proxy", "http://" + viaSquid(squid));
    EXPECT_EQ(echoThroughChannel(), peerOf(squid));
    EXPECT_EQ(m_log.count("corvane.socketio.StandardProxyAuthenticator", "INFO",
                          "adding Negotiate authenticate method for Proxy-Authenticate header 'Negotiate'"),
              1u);
    EXPECT_TRUE(squid.accessLogShows("user@TEST.LOCAL"));
    EXPECT_EQ(m_log.count(kConnectLog, "INFO", "Connecting directly"), 0u);

    ScopedEnv noTicket("KRB5CCNAME", ("FILE:" + m_realm.dir() + "/nothing").c_str());
    EXPECT_EQ(echoThroughChannel(), direct());
    EXPECT_EQ(m_log.count(kConnectLog, "ERROR",
                          "SocketConnectAttemptProxy: InternalException caught: gss_acquire_cred:GSS_S_NO_CRED:No "
                          "credentials were supplied, or the credentials were unavailable or inaccessible; SPNEGO "
                          "cannot find mechanisms to negotiate"),
              1u);
    EXPECT_EQ(m_log.count(kConnectLog, "INFO", "Connecting directly"), 1u);
}

TEST_F(SquidAuthentication, NtlmUserFileOpensTheChannelAndAWrongPasswordGoesDirect) {
    SquidProxy squid(gssHelper("ntlm"));
    m_environment.set("http_proxy", "http://" + viaSquid(squid));
    logOn("user");
    EXPECT_EQ(echoThroughChannel(), peerOf(squid));
    EXPECT_TRUE(squid.accessLogShows("TESTDOM"));

    logOn("wrong");
    EXPECT_EQ(echoThroughChannel(), direct());
    EXPECT_EQ(m_log.count("corvane.socketio.SSPIProxyAuthenticator", "ERROR",
                          "exception caught: gss_init_sec_context:GSS_S_DEFECTIVE_TOKEN:Invalid token was supplied"),
              1u);
    EXPECT_EQ(m_log.count(kConnectLog, "ERROR",
                          "SocketConnectAttemptProxy: InternalException caught: ProxySocketConnect: unable to "
                          "initialize connection to proxy"),
              1u);
    EXPECT_EQ(m_log.count(kConnectLog, "INFO", "Connecting directly"), 1u);
}

// Without a ticket SPNEGO offers NTLM: a proxy that takes Kerberos only refuses it with the
// bare method, and the next one, whose helper takes both, lets the user in by NTLM.
TEST_F(SquidAuthentication, NegotiateWithoutATicketFallsBackToNtlmAtTheNextProxy) {
    std::unique_ptr<SquidProxy> kerberosOnly;
    {
        ScopedEnv noNtlm("NTLM_USER_FILE", nullptr);
        kerberosOnly.reset(new SquidProxy(kerberosHelper(m_realm)));
    }
    SquidProxy both(gssHelper("negotiate"));
    m_environment.set("http_proxy", "http://" + viaSquid(*kerberosOnly));
    m_environment.set("all_proxy", viaSquid(both));
    logOn("user");
    ScopedEnv noTicket("KRB5CCNAME", ("FILE:" + m_realm.dir() + "/nothing").c_str());
    EXPECT_EQ(echoThroughChannel(), peerOf(both));
    EXPECT_EQ(m_log.count(kConnectLog, "INFO", "initiating connection with proxy '" + viaSquid(*kerberosOnly) + "'"),
              1u);
    // The refusal is the bare method again, which gss-ntlmssp must never be handed.
    EXPECT_EQ(m_log.count("corvane.socketio.SSPIProxyAuthenticator", "ERROR",
                          "exception caught: gss_init_sec_context:GSS_S_DEFECTIVE_TOKEN:Invalid token was supplied"),
              1u);
    EXPECT_EQ(m_log.countContaining(kConnectLog, "SocketConnectAttemptProxy: "), 1u);
    EXPECT_EQ(m_log.count(kConnectLog, "INFO", "Connecting directly"), 0u);
    EXPECT_TRUE(both.accessLogShows("TESTDOM"));
}

}  // namespace
