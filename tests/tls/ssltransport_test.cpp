// The TLS transport end to end through the channel factory, against real peers (openssl
// s_server and s_client, raw sockets, an OpenSSL client of the test's own) that share no
// code with it.
#include <fcntl.h>
#include <log4cxx/appenderskeleton.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "channeltest.h"
#include "childprocess.h"
#include "corvane/uri.h"
#include "expect.h"
#include "pattern.h"
#include "framework/channelfactory.h"
#include "logcapture.h"
#include "recordinghandler.h"
#include "socketio/selectreactor.h"
#include "sockets.h"
#include "testacceptor.h"
#include "net/optionmap.h"
#include "tls/socketbio.h"
#include "tls/sslcontext.h"
#include "tls/sslexception.h"
#include "tls/sslinternalexception.h"
#include "tls/toolsinternalexception.h"
#include "tlsmaterial.h"

namespace {

using corvane_test::ChildProcess;
using corvane_test::material;
using corvane_test::RecordingHandler;
using corvane_test::TestAcceptor;
using corvane_test::waitFor;


unsigned short portOf(const char * uri) {
    return net::URI::FromString(uri).getPort();
}

const std::string kTrustTestCA = "LoadCryptoCertStore=false;CAFile=" + material().caFile;

std::string serverOptions(const std::string & certificate = material().serverCert) {
    return kTrustTestCA + ";CertificateFile=" + certificate + ";PrivateKeyFile=" + material().serverKey;
}

// A client context of the test's own that trusts the test CA.
tools::SSLContext trustingContext() {
    net::OptionMap options;
    options.parse(kTrustTestCA.c_str());
    return tools::SSLContext(options);
}

// openssl s_server on a free loopback port, sending back each line reversed.
struct OpenSSLServer {
    explicit OpenSSLServer(const std::string & certificate, std::vector<std::string> extra = {}) {
        std::vector<std::string> args = {"openssl", "s_server", "-accept", "127.0.0.1:0", "-rev",
                                         "-cert", certificate, "-key", material().serverKey};
        args.insert(args.end(), extra.begin(), extra.end());
        process.reset(new ChildProcess(args));
        const std::string line = process->lineAfter("ACCEPT 127.0.0.1:");
        port = line.empty() ? 0 : static_cast<unsigned short>(std::stoi(line));
    }
    std::string uri(const char * scheme = "ssl", const char * host = "localhost") const {
        return std::string(scheme) + "://" + host + ":" + std::to_string(port);
    }
    std::unique_ptr<ChildProcess> process;
    unsigned short port = 0;
};

// openssl s_client sending one line and showing what comes back.
std::unique_ptr<ChildProcess> openSSLClient(unsigned short port, std::vector<std::string> extra = {}) {
    std::vector<std::string> args = {"openssl", "s_client", "-quiet", "-verify_return_error", "-CAfile",
                                     material().caFile, "-connect", "127.0.0.1:" + std::to_string(port)};
    args.insert(args.end(), extra.begin(), extra.end());
    return std::unique_ptr<ChildProcess>(new ChildProcess(args));
}

class TlsTransport : public corvane_test::ChannelTest {
protected:
    void SetUp() override {
        ASSERT_FALSE(material().directory.empty());
        ChannelTest::SetUp();
        acceptor = new TestAcceptor;
    }
    void TearDown() override {
        reactor->stopProcessing();
        acceptor = nullptr;
        ChannelTest::TearDown();
    }
    Common::SmartPtr<net::IChannelServer> startServer(const std::string & options = serverOptions()) {
        return factory->startChannelServer(reactor.get(), "ssl://127.0.0.1:0", acceptor.get(), options.c_str());
    }
    Common::SmartPtr<net::IChannel> open(const std::string & uri, RecordingHandler * handler,
                                         const std::string & options = kTrustTestCA) {
        return factory->openChannel(reactor.get(), uri.c_str(), handler, options.c_str());
    }

    Common::SmartPtr<TestAcceptor> acceptor;
};

TEST_F(TlsTransport, ClientPresentsItsCertificateToAServerThatInsists) {
    OpenSSLServer peer(material().serverCert,
                       {"-Verify", "1", "-verify_return_error", "-verifyCAfile", material().caFile});
    ASSERT_NE(peer.port, 0);
    const std::string withCertificate =
        kTrustTestCA + ";CertificateFile=" + material().clientCert + ";PrivateKeyFile=" + material().clientKeyFile;
    // https with the key present connects directly, and the channel speaks of "ssl".
    for (const char * scheme : {"ssl", "https"}) {
        SCOPED_TRACE(scheme);
        Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
        Common::SmartPtr<net::IChannel> channel =
            open(peer.uri(scheme), client.get(), withCertificate + ";EnableProxy=false");
        EXPECT_EQ(std::string(channel->getPeerURI()), "ssl://127.0.0.1:" + std::to_string(peer.port));
        client->queue("hello corvane\n");
        ASSERT_TRUE(waitFor([&] { return client->received() == "enavroc olleh\n"; })) << client->received();
        channel->close();
    }
}

TEST_F(TlsTransport, ClientRefusesServersItCannotTrustAndLeavesNothingBehind) {
    OpenSSLServer localhost(material().serverCert);
    OpenSSLServer otherName(material().otherNameCert);
    OpenSSLServer expired(material().expiredServerCert);
    struct Case {
        const OpenSSLServer & server;
        std::string options;
        std::string failure;  // empty: accepted
    } cases[] = {
        {localhost, "", "SSL_connect:SSL_ERROR_SSL:"},
        // NoCertify accepts any certificate and any name on it.
        {localhost, "LoadCryptoCertStore=false;NoCertify=true", ""},
        {otherName, "LoadCryptoCertStore=false;NoCertify=true", ""},
        {localhost, "LoadCryptoCertStore=false;NoCertify=true;ValidateServerName=false;", ""},
        {localhost, kTrustTestCA, ""},
        {otherName, kTrustTestCA, "validateCertificates: Common name doesn't match host name"},
        {expired, kTrustTestCA, "SSL_connect:SSL_ERROR_SSL:"},
    };
    for (const auto & c : cases) {
        SCOPED_TRACE(c.options + " on port " + std::to_string(c.server.port));
        corvane_test::LogCapture log("WARN");
        Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
        std::string failure;
        try {
            open(c.server.uri(), client.get(), c.options)->close();
        } catch (const ssl::InternalException & e) {
            failure = e.what();
        } catch (const tools::InternalException & e) {
            failure = e.what();
            EXPECT_EQ(failure.find("validateCertificates:"), 0u);
        }
        EXPECT_EQ(failure.substr(0, c.failure.size()), c.failure);
        EXPECT_EQ(failure.empty(), c.failure.empty()) << failure;
        // A closed channel may still be on its way out of the reactor's last dispatch.
        EXPECT_TRUE(waitFor([&] { return client->refCount() == 1; })) << "no channel kept the handler";
        if (!failure.empty()) {
            EXPECT_EQ(client->reads + client->closes + client->errors, 0) << "a failed handshake reaches no handler";
        }
        if (&c.server == &expired) {
            EXPECT_EQ(log.count("corvane.tools.SSLContext", "WARN",
                                "SSL verify error or warning with certificate at depth 0: certificate has expired"),
                      1u);
        }
    }
}

// The client context is kept per option text and built again when a file it reads changes:
// the CA file itself, or a file inside CAPath replaced in place (the directory's own times stay).
TEST_F(TlsTransport, ReplacedCAFileInCAPathIsNoticed) {
    OpenSSLServer peer(material().serverCert);
    const std::string caPath = material().directory + "/changing-capath";
    std::filesystem::remove_all(caPath);
    std::filesystem::copy(material().caPath, caPath);
    const std::string hashFile = std::filesystem::directory_iterator(caPath)->path().string();
    const std::string caFile = material().directory + "/changing-ca.pem";
    std::filesystem::copy_file(material().caFile, caFile, std::filesystem::copy_options::overwrite_existing);
    for (const auto & [option, file] : {std::pair{"CAFile=" + caFile, caFile}, std::pair{"CAPath=" + caPath, hashFile}}) {
        SCOPED_TRACE(option);
        const std::string options = "LoadCryptoCertStore=false;" + option;
        Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
        corvane_test::LogCapture log("INFO");
        open(peer.uri(), client.get(), options)->close();
        open(peer.uri(), client.get(), options)->close();
        EXPECT_EQ(log.count("corvane.tools.SSLContext", "INFO", "disabling SSLv2 and SSLv3"), 1u);
        // Another CA written into the same file: the server is not trusted any more.
        std::ofstream(file, std::ios::trunc) << std::ifstream(material().expiredCert).rdbuf();
        EXPECT_EQ(corvane_test::thrownText([&] { open(peer.uri(), client.get(), options); }).rfind("SSL_connect:", 0), 0u);
        EXPECT_EQ(log.count("corvane.tools.SSLContext", "INFO", "disabling SSLv2 and SSLv3"), 2u);
    }
}

// A second connection to the same target resumes the first one's session, on either side
// and with each way of resuming (TLS 1.3 tickets, TLS 1.2 tickets and the server's session
// cache); SessionResumption=false makes every connection a full handshake again.
TEST_F(TlsTransport, SecondConnectionResumesUnlessTurnedOff) {
    for (const std::string off : {"", ";SessionResumption=false"}) {
        SCOPED_TRACE("options" + off);
        // The client side against openssl s_server, whose message trace shows a certificate
        // only in a full handshake.
        OpenSSLServer peer(material().serverCert, {"-msg"});
        ASSERT_NE(peer.port, 0);
        for (int round = 0; round < 2; ++round) {
            Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
            Common::SmartPtr<net::IChannel> channel = open(peer.uri(), client.get(), kTrustTestCA + off);
            // The answer comes after the server's tickets, so these have been kept by then.
            client->queue("ping\n");
            ASSERT_TRUE(waitFor([&] { return client->received() == "gnip\n"; })) << client->received();
            channel->close();
        }
        auto count = [](const std::string & text, const std::string & what) {
            size_t n = 0;
            for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) {
                ++n;
            }
            return n;
        };
        std::string said;
        EXPECT_TRUE(waitFor([&] { return count(said = peer.process->readUntil("\x01", 20), "CONNECTION CLOSED") == 2; }));
        EXPECT_EQ(count(said, "], Certificate\n"), off.empty() ? 1u : 2u) << said;

        // The server side against a client of the test's own. The second round of a ticket
        // goes to a twin of the same settings (a host's second reactor on the same port), whose
        // tickets are sealed with the same keys; the session cache is the first server's own.
        Common::SmartPtr<net::IChannelServer> server = startServer(serverOptions() + off);
        Common::SmartPtr<net::IChannelServer> twin = startServer(serverOptions() + off);
        tools::SSLContext context = trustingContext();
        for (const char * how : {"TLS 1.3", "TLS 1.2 ticket", "TLS 1.2 cache"}) {
            SCOPED_TRACE(how);
            SSL_SESSION * session = nullptr;
            for (int round = 0; round < 2; ++round) {
                const bool cache = std::string(how) == "TLS 1.2 cache";
                int fd = corvane_test::LoopbackConnect(portOf((round == 1 && !cache ? twin : server)->getLocalURI()));
                SSL * ssl = SSL_new(context.context());
                ASSERT_TRUE(ssl::SSL_set_socket(ssl, static_cast<unsigned int>(fd)));
                if (std::string(how) != "TLS 1.3") {
                    SSL_set_max_proto_version(ssl, TLS1_2_VERSION);
                }
                if (cache) {
                    SSL_set_options(ssl, SSL_OP_NO_TICKET);
                }
                if (session != nullptr) {
                    SSL_set_session(ssl, session);
                    SSL_SESSION_free(session);
                }
                ASSERT_EQ(SSL_connect(ssl), 1);
                char echo[4] = {};
                ASSERT_EQ(SSL_write(ssl, "echo", 4), 4);
                ASSERT_EQ(SSL_read(ssl, echo, sizeof echo), 4);
                EXPECT_EQ(SSL_session_reused(ssl) == 1, round == 1 && off.empty());
                session = SSL_get1_session(ssl);
                SSL_shutdown(ssl);
                SSL_free(ssl);
                close(fd);
            }
            SSL_SESSION_free(session);
        }
        server->close();
        twin->close();
    }
}

TEST_F(TlsTransport, ServerAsksForClientCertificatesAndRefusesOnesThatDoNotVerify) {
    corvane_test::LogCapture log("INFO");
    Common::SmartPtr<net::IChannelServer> server = startServer();
    const unsigned short port = portOf(server->getLocalURI());
    EXPECT_EQ(std::string(server->getLocalURI()), "ssl://127.0.0.1:" + std::to_string(port));
    {
        auto withCertificate = openSSLClient(port, {"-cert", material().clientCert, "-key", material().clientKeyFile});
        withCertificate->write("ping\n");
        EXPECT_NE(withCertificate->readUntil("ping\n").find("ping\n"), std::string::npos);
        auto without = openSSLClient(port);
        without->write("pong\n");
        EXPECT_NE(without->readUntil("pong\n").find("pong\n"), std::string::npos);
    }
    // A self-signed client certificate: the handshake fails under the reactor.
    auto untrusted = openSSLClient(port, {"-cert", material().expiredCert, "-key", material().otherKey});
    untrusted->write("never\n");
    ASSERT_TRUE(waitFor([&] { return acceptor->accepted() == 3 && acceptor->handlers[2]->ended(); }));
    EXPECT_EQ(acceptor->handlers[2]->errors.load(), 1);
    EXPECT_NE(untrusted->wait(), 0);
    EXPECT_EQ(log.countContaining("corvane.ssl.SSLChannel", "' error:SSL_accept:SSL_ERROR_SSL:"), 1u);
    EXPECT_EQ(log.countContaining("corvane.ssl.SSLChannelServer", "accept 'tcp://127.0.0.1:"), 3u);
    EXPECT_EQ(std::string(acceptor->channels[0]->getPeerURI()).rfind("ssl://127.0.0.1:", 0), 0u);
    server->close();
    server->close();

    // The same server from a PKCS#12 bundle.
    server = startServer(kTrustTestCA + ";PrivatePassword=" + material().password + ";PKCS12File=" + material().pkcs12File);
    auto client = openSSLClient(portOf(server->getLocalURI()));
    client->write("bundle\n");
    EXPECT_NE(client->readUntil("bundle\n").find("bundle\n"), std::string::npos);
    server->close();
}

TEST_F(TlsTransport, RecordSplitAcrossSegmentsRecordsHeldAheadAndCloseNotifyFromThePeer) {
    std::vector<int> received;  // recv results, reactor thread only
    acceptor->makeHandler = [&] {
        auto * handler = new RecordingHandler;
        handler->onReadHook = [&received](net::IReadDataStream * stream) {
            char buffer[64];
            received.push_back(stream->recv(sizeof buffer, buffer));
        };
        return handler;
    };
    Common::SmartPtr<net::IChannelServer> server = startServer();
    // A client of the test's own: OpenSSL over a blocking socket, its records sent by hand.
    tools::SSLContext context = trustingContext();
    int fd = corvane_test::LoopbackConnect(portOf(server->getLocalURI()));
    SSL * ssl = SSL_new(context.context());
    ASSERT_TRUE(ssl::SSL_set_socket(ssl, static_cast<unsigned int>(fd)));
    ASSERT_EQ(SSL_connect(ssl), 1);
    ASSERT_TRUE(waitFor([&] { return acceptor->accepted() == 1; }));
    BIO * records = BIO_new(BIO_s_mem());
    SSL_set0_wbio(ssl, records);  // the SSL owns it from now on
    auto sendRecords = [&](size_t from, size_t to) {
        char * data = nullptr;
        long size = BIO_get_mem_data(records, &data);
        ASSERT_LE(to, static_cast<size_t>(size));
        ASSERT_EQ(send(fd, data + from, to - from, MSG_NOSIGNAL), static_cast<ssize_t>(to - from));
    };
    ASSERT_EQ(SSL_write(ssl, "split", 5), 5);
    char * data = nullptr;
    const size_t recordSize = static_cast<size_t>(BIO_get_mem_data(records, &data));
    sendRecords(0, 3);
    ASSERT_TRUE(waitFor([&] { return acceptor->handlers[0]->reads.load() == 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    sendRecords(3, recordSize);
    ASSERT_TRUE(waitFor([&] { return acceptor->handlers[0]->reads.load() == 2; }));
    // Three records in one segment, each exactly what one read takes: the channel reads
    // ahead, so the second and third are held above a socket that has nothing more to show.
    size_t sent = static_cast<size_t>(BIO_get_mem_data(records, &data));
    for (char fill : {'a', 'b', 'c'}) {
        ASSERT_EQ(SSL_write(ssl, std::string(64, fill).data(), 64), 64);
    }
    sendRecords(sent, static_cast<size_t>(BIO_get_mem_data(records, &data)));
    ASSERT_TRUE(waitFor([&] { return acceptor->handlers[0]->reads.load() == 5; }));
    sent = static_cast<size_t>(BIO_get_mem_data(records, &data));
    // Data and close_notify in one segment: the data first, then onClose.
    ASSERT_EQ(SSL_write(ssl, "last", 4), 4);
    SSL_shutdown(ssl);
    sendRecords(sent, static_cast<size_t>(BIO_get_mem_data(records, &data)));
    ASSERT_TRUE(waitFor([&] { return acceptor->handlers[0]->ended(); }));
    EXPECT_EQ(acceptor->handlers[0]->closes.load(), 1);
    EXPECT_EQ(received, (std::vector<int>{0, 5, 64, 64, 64, 4}));
    SSL_free(ssl);
    close(fd);
    server->close();
}

TEST_F(TlsTransport, FailedStartsAndOpensLeaveNoSocketNoSubscriberAndNoPortBehind) {
    // A context failure after the bind frees the port again.
    const unsigned short port = corvane_test::FreeLoopbackPort();
    const std::string uri = "ssl://127.0.0.1:" + std::to_string(port);
    const std::string missing = "CertificateFile=" + material().directory + "/missing.pem";
    EXPECT_THROW(factory->startChannelServer(reactor.get(), uri.c_str(), acceptor.get(), missing.c_str()),
                 tools::SSLException);
    // A server that could finish no handshake refuses to start, saying what it lacks.
    const std::pair<std::string, std::string> incomplete[] = {
        {"LoadCryptoCertStore=false", "a TLS server needs a certificate: set CertificateFile and PrivateKeyFile, or PKCS12File"},
        {"LoadCryptoCertStore=false;CertificateFile=" + material().serverCert,
         "a TLS server needs the private key of its certificate: set PrivateKeyFile"},
    };
    for (const auto & c : incomplete) {
        corvane_test::LogCapture log;
        EXPECT_EQ(corvane_test::thrownText(
                      [&] { factory->startChannelServer(reactor.get(), uri.c_str(), acceptor.get(), c.first.c_str()); }),
                  c.second);
        EXPECT_EQ(log.count("corvane.tools.InternalException", "WARN", c.second), 1u);
    }
    EXPECT_EQ(acceptor->refCount(), 1);
    Common::SmartPtr<net::IChannelServer> server(
        factory->startChannelServer(reactor.get(), uri.c_str(), acceptor.get(), serverOptions().c_str()));
    server->close();

    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    corvane_test::ScopedBoundPort refused;
    EXPECT_EQ(corvane_test::thrownText([&] { open("ssl://127.0.0.1:" + std::to_string(refused.port()), client.get()); }),
              "while connecting to ssl://127.0.0.1:" + std::to_string(refused.port()));
    // https fills in port 443; the URI the connect saw says so.
    EXPECT_NE(corvane_test::thrownText([&] { open("https://127.0.0.1", client.get(), "EnableProxy=false"); })
                  .find("https://127.0.0.1:443"),
              std::string::npos);
    EXPECT_EQ(client->refCount(), 1);
}

// A host thread sends while the reactor reads the echo, and the owner closes the channel while
// both are busy: every OpenSSL call and the connection's release are under the channel's lock.
TEST_F(TlsTransport, HostThreadSendsWhileTheReactorReadsAndTheOwnerCloses) {
    Common::SmartPtr<net::IChannelServer> server = startServer();
    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    Common::SmartPtr<net::IChannel> channel =
        open("ssl://localhost:" + std::to_string(portOf(server->getLocalURI())), client.get());
    const std::string data = corvane_test::Pattern(1 << 20);
    std::atomic<size_t> sent{0};
    std::thread sender([&] {
        net::IWriteDataStream * stream = channel->getWriteDataStream();
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (size_t offset = 0; std::chrono::steady_clock::now() < deadline;) {
            // Nothing taken: repeated with the same bytes, as OpenSSL wants.
            const size_t at = offset % data.size();
            int n = stream->send(static_cast<int>(std::min<size_t>(data.size() - at, 100000)), data.data() + at);
            if (n < 0) {
                return;
            }
            offset += static_cast<size_t>(n);
            sent = offset;
            if (n == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(100));
            }
        }
    });
    ASSERT_TRUE(waitFor([&] { return client->receivedSize() >= 3 * data.size(); }, 20000));
    channel->close();
    sender.join();
    const std::string received = client->received();
    EXPECT_LE(received.size(), sent.load());
    EXPECT_TRUE(received.compare(0, data.size(), data) == 0 && received.compare(data.size(), data.size(), data) == 0);
    EXPECT_EQ(client->closes + client->errors, 0);
    // The server's side ends on the close before the reactor stops.
    EXPECT_TRUE(waitFor([&] { return acceptor->accepted() == 1 && acceptor->handlers[0]->ended(); }));
    server->close();
}

// An acceptor whose answer is the test's function, run on the reactor thread inside accept.
struct FunctionAcceptor : net::IChannelAcceptor {
    std::function<net::IChannelHandler *(net::IChannel *)> answer;
    net::IChannelHandler * accept(net::IChannel * channel) override { return answer(channel); }
};

unsigned int socketOf(net::IChannel * channel) {
    return dynamic_cast<socketio::ISelectEventSubscriber &>(*channel).getSocket();
}

// Socket pairs opened until one of them holds `number`, the lowest free one after a close: the
// kernel's next descriptor takes a closed number at once. All are kept open by the object.
struct NumberTaker {
    std::vector<int> descriptors;
    int taken = -1;  // the number itself; its pair's other end is `peer`
    int peer = -1;
    void take(unsigned int number) {
        for (int i = 0; i < 32 && taken < 0; ++i) {
            int pair[2];
            if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
                return;
            }
            descriptors.insert(descriptors.end(), pair, pair + 2);
            for (int end : {0, 1}) {
                if (static_cast<unsigned int>(pair[end]) == number) {
                    taken = pair[end];
                    peer = pair[1 - end];
                }
            }
        }
    }
    // The number is still open, and nothing was written into it.
    bool untouched() const {
        char byte;
        return taken >= 0 && fcntl(taken, F_GETFD) != -1 && recv(peer, &byte, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }
    ~NumberTaker() {
        for (int fd : descriptors) close(fd);
    }
};

namespace logging {
using namespace log4cxx;  // the object macros below name log4cxx's types unqualified

// Calls `hook` with the category and text of every log event, on the thread that logs.
class HookAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(HookAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(HookAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()
    HookAppender() = default;
    explicit HookAppender(std::function<void(const std::string &, const std::string &)> hook) : m_hook(std::move(hook)) {}
    void close() override {}
    bool requiresLayout() const override { return false; }

protected:
    void append(const spi::LoggingEventPtr & event, helpers::Pool &) override {
        m_hook(event->getLoggerName(), event->getRenderedMessage());
    }

private:
    std::function<void(const std::string &, const std::string &)> m_hook;
};
IMPLEMENT_LOG4CXX_OBJECT(HookAppender)
}  // namespace logging
using logging::HookAppender;

// The sweep closes a silent socket and tells its channel only afterwards. Between the two the
// reactor logs its removal; a descriptor opened right there takes the closed number, and the
// channel must not send its close_notify into it. Both ends of one connection are swept.
TEST_F(TlsTransport, SweepClosedSocketGetsNoCloseNotify) {
    startReactor(40, 200, 20);
    Common::SmartPtr<net::IChannelServer> server = startServer();
    Common::SmartPtr<RecordingHandler> client(new RecordingHandler);
    Common::SmartPtr<net::IChannel> channel =
        open("ssl://localhost:" + std::to_string(portOf(server->getLocalURI())), client.get());
    client->queue("ping");
    ASSERT_TRUE(waitFor([&] { return client->received() == "ping"; }));  // both handshakes are done
    ASSERT_EQ(acceptor->accepted(), 1u);
    const std::vector<unsigned int> numbers = {socketOf(channel.get()), socketOf(acceptor->channels[0].get())};

    corvane_test::LogCapture log("TRACE");
    std::mutex mutex;
    std::vector<std::unique_ptr<NumberTaker>> takers;
    bool sweeping = false;
    auto hook = std::make_shared<HookAppender>([&](const std::string & category, const std::string & text) {
        if (category != "corvane.socketio.SelectReactor") {
            return;
        }
        std::lock_guard<std::mutex> guard(mutex);
        if (text.rfind("clearDeadSockets: subscriber to peer", 0) == 0) {
            sweeping = true;
        } else if (sweeping && text == "removeSubscriber") {
            sweeping = false;
            for (unsigned int number : numbers) {
                if (fcntl(static_cast<int>(number), F_GETFD) == -1) {
                    takers.emplace_back(new NumberTaker);
                    takers.back()->take(number);
                }
            }
        }
    });
    log4cxx::Logger::getRootLogger()->addAppender(hook);
    ASSERT_TRUE(waitFor([&] { return client->ended() && acceptor->handlers[0]->ended(); }));
    log4cxx::Logger::getRootLogger()->removeAppender(hook);
    EXPECT_EQ(client->errors.load(), 1);
    channel->close();
    server->close();
    std::lock_guard<std::mutex> guard(mutex);  // the hook is gone: the lock only orders the reads
    ASSERT_FALSE(takers.empty()) << "no sweep closed a socket";
    for (const auto & taker : takers) {
        EXPECT_TRUE(taker->untouched()) << "TLS bytes went into descriptor " << taker->taken;
    }
}

// The acceptor closes the channel it is offered, and a descriptor it opens next takes the
// number; whether it then refuses the channel or answers a handler, that number is nobody
// else's to close, and the peer sees the end.
TEST_F(TlsTransport, RefusedChannelClosedByAcceptorKeepsReusedNumber) {
    for (bool refuse : {true, false}) {
        SCOPED_TRACE(refuse ? "refused" : "answered");
        NumberTaker taker;
        std::atomic<bool> answered{false};
        Common::SmartPtr<RecordingHandler> handler(new RecordingHandler);
        Common::SmartPtr<FunctionAcceptor> closing(new FunctionAcceptor);
        closing->answer = [&](net::IChannel * channel) -> net::IChannelHandler * {
            const unsigned int number = socketOf(channel);
            channel->close();
            taker.take(number);
            answered = true;
            return refuse ? nullptr : handler.get();
        };
        Common::SmartPtr<net::IChannelServer> server(factory->startChannelServer(
            reactor.get(), "ssl://127.0.0.1:0", closing.get(), serverOptions().c_str()));
        int fd = corvane_test::LoopbackConnect(portOf(server->getLocalURI()));
        EXPECT_TRUE(corvane_test::SeesEndOf(fd));
        ASSERT_TRUE(waitFor([&] { return answered.load(); }));
        server->close();
        // The reactor has let go of the channel: nothing closes the number later either.
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_TRUE(taker.untouched());
        EXPECT_EQ(handler->reads + handler->writes + handler->closes + handler->errors, 0);
        close(fd);
    }
}

// Bytes sent to an accepted channel before its handshake is done (from accept, and from a host
// thread while the client has not begun) wait for it: nothing is taken, nothing is lost, and
// the handler's write event after the handshake brings them to the client.
TEST_F(TlsTransport, SendBeforeHandshakeWaitsForIt) {
    corvane_test::LogCapture log("WARN");
    Common::SmartPtr<RecordingHandler> handler(new RecordingHandler);
    Common::SmartPtr<net::IChannel> accepted;
    std::atomic<int> sentInAccept{-2};
    Common::SmartPtr<FunctionAcceptor> early(new FunctionAcceptor);
    early->answer = [&](net::IChannel * channel) -> net::IChannelHandler * {
        accepted = channel;
        sentInAccept = channel->getWriteDataStream()->send(6, "first ");
        handler->queue("first ");
        return handler.get();
    };
    Common::SmartPtr<net::IChannelServer> server(
        factory->startChannelServer(reactor.get(), "ssl://127.0.0.1:0", early.get(), serverOptions().c_str()));
    int fd = corvane_test::LoopbackConnect(portOf(server->getLocalURI()));
    ASSERT_TRUE(waitFor([&] { return sentInAccept.load() != -2; }));
    EXPECT_EQ(sentInAccept.load(), 0);
    EXPECT_EQ(accepted->getWriteDataStream()->send(6, "then\n"), 0);
    handler->queue("then\n");

    tools::SSLContext context = trustingContext();
    SSL * ssl = SSL_new(context.context());
    ASSERT_TRUE(ssl::SSL_set_socket(ssl, static_cast<unsigned int>(fd)));
    ASSERT_EQ(SSL_connect(ssl), 1);
    std::string received;
    char buffer[64];
    for (int n; received.size() < 11 && (n = SSL_read(ssl, buffer, sizeof buffer)) > 0;) {
        received.append(buffer, static_cast<size_t>(n));
    }
    EXPECT_EQ(received, "first then\n");
    EXPECT_EQ(log.countContaining("corvane.ssl.SSLChannel", "send:"), 0u);
    SSL_free(ssl);
    close(fd);
    accepted->close();
    server->close();
}

}  // namespace
