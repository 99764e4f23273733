#include "tls/ssltransportprotocol.h"

#include <sys/ioctl.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <poll.h>

#include <string>

#include "common/handover.h"
#include "common/logging.h"
#include "net/optionmap.h"
#include "proxy/proxyresolver.h"
#include "proxy/proxysocketconnect.h"
#include "socketio/connectabort.h"
#include "socketio/selectreactor.h"
#include "socketio/socketfunctions.h"
#include "tls/socketbio.h"
#include "tls/sslchannel.h"
#include "tls/sslchannelserver.h"
#include "tls/sslcontext.h"
#include "tls/sslexception.h"
#include "tls/sslinternalexception.h"

namespace ssl {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.ssl.SSLTransportProtocol");

const char * text(const char * value) {
    return value != nullptr ? value : "";
}

// Holds the socket and the SSL of a connection being made; on the way out by an exception it
// frees the SSL (without close_notify) and closes the socket. Cleared once a channel or server
// has taken them over.
struct HandleGuard {
    unsigned int socket = socketio::INVALID_SOCKET_HANDLE;
    SSL * ssl = nullptr;

    HandleGuard() = default;
    HandleGuard(const HandleGuard &) = delete;
    HandleGuard & operator=(const HandleGuard &) = delete;
    ~HandleGuard() {
        if (ssl != nullptr) {
            SSL_free(ssl);
        }
        if (socket != socketio::INVALID_SOCKET_HANDLE) {
            socketio::SocketClose(socket);
        }
    }
    void release() {
        ssl = nullptr;
        socket = socketio::INVALID_SOCKET_HANDLE;
    }
};

// SSL_connect on the blocking socket. Under a ConnectTimeout the socket is non-blocking for
// the handshake (`nonBlocking`: it is already) and stays so, and each wait for the server is
// bounded by what remains of the limit, so that a server that accepts and never answers (or
// drips) cannot hold the caller.
int connectWithinTime(SSL * ssl, unsigned int socket, bool nonBlocking, const std::string & host) {
    if (socketio::ConnectTimeLimit() == 0) {
        return SSL_connect(ssl);
    }
    if (!nonBlocking) {
        int on = 1;
        ioctl(static_cast<int>(socket), FIONBIO, &on);
    }
    int result;
    for (;;) {
        ERR_clear_error();
        result = SSL_connect(ssl);
        if (result == 1) {
            break;
        }
        const int error = SSL_get_error(ssl, result);
        const short events = error == SSL_ERROR_WANT_READ ? POLLIN : error == SSL_ERROR_WANT_WRITE ? POLLOUT : 0;
        if (events == 0) {
            break;
        }
        if (!socketio::WaitWithinConnectTime(socket, events)) {
            ERR_clear_error();
            throw InternalException(("TLS/SSL handshake with '" + host + "' not done within ConnectTimeout=" +
                                     std::to_string(socketio::ConnectTimeLimit()) + " ms")
                                        .c_str(),
                                    true);
        }
    }
    return result;
}

socketio::SelectReactor * selectReactorOf(net::IReactor * reactor, const char * operation) {
    auto * selectReactor = dynamic_cast<socketio::SelectReactor *>(reactor);
    if (selectReactor == nullptr) {
        throw InternalException((std::string(operation) + " needs a reactor made by this module").c_str(), true);
    }
    return selectReactor;
}
}  // namespace

SSLTransportProtocol::SSLTransportProtocol(const socketio::socket_options & options) : m_socketOptions(options) {}

SSLTransportProtocol::~SSLTransportProtocol() = default;

void SSLTransportProtocol::ensureLibrary() {
    // Two first calls at once make one guard, not two.
    std::call_once(m_libraryOnce, [this] { m_library.reset(new SSLLibraryGuard); });
}

unsigned int SSLTransportProtocol::connect(const net::URI & uri, bool viaProxy, bool & nonBlocking) {
    nonBlocking = false;
    if (viaProxy) {
        std::call_once(m_proxyResolverOnce, [this] { m_proxyResolver.reset(ProxyResolver::createResolver()); });
        return socketio::SocketConnectAttemptProxy(uri, m_proxyResolver.get(), m_socketOptions);
    }
    socketio::ConnectedTo connected;
    const unsigned int socket = socketio::SocketConnect(uri, m_socketOptions, &connected);
    nonBlocking = connected.nonBlocking;
    return socket;
}

bool SSLTransportProtocol::connectSecure(const net::URI & parsedUri, const net::OptionMap & optionMap, bool viaProxy,
                                         unsigned int & socket, SSL *& ssl) {
    ensureLibrary();
    // The context of these options, built when they were first used or a file they name changed.
    // Before the connect, and ConnectTimeout counted from after it: loading a CA store is no
    // wait for a peer, and takes no time of the server's handshake limit either.
    std::shared_ptr<tools::SSLContext> context = m_clientContexts.get(optionMap);
    socketio::RestartConnectDeadline();
    HandleGuard guard;
    bool nonBlocking = false;
    guard.socket = connect(parsedUri, viaProxy, nonBlocking);
    if (guard.socket == socketio::INVALID_SOCKET_HANDLE) {
        return false;
    }

    guard.ssl = SSL_new(context->context());
    if (guard.ssl == nullptr) {
        throw tools::SSLException();
    }
    // A record's header and its body in one read, not two. What is read beyond the handshake
    // stays in the SSL object, where the channel made of it looks first.
    SSL_set_read_ahead(guard.ssl, 1);
    const std::string host = parsedUri.getHost();
    ClientContextCache::prepareConnection(guard.ssl, host + ':' + std::to_string(parsedUri.getPort()));
    ERR_clear_error();
    // Server Name Indication is sent for a name and an address literal alike.
    int result = static_cast<int>(SSL_set_tlsext_host_name(guard.ssl, host.c_str()));
    if (result <= 0) {
        throw InternalException(
            tools::sslErrorText(SSL_get_error(guard.ssl, result), "SSL_set_tlsext_host_name", nullptr).c_str(), true);
    }
    if (!SSL_set_socket(guard.ssl, guard.socket)) {
        throw tools::SSLException();
    }
    // Blocking, or within ConnectTimeout if one is set.
    result = connectWithinTime(guard.ssl, guard.socket, nonBlocking, host);
    if (result <= 0) {
        std::string text = tools::sslErrorText(SSL_get_error(guard.ssl, result), "SSL_connect", nullptr);
        // "certificate verify failed" alone does not tell an expired certificate from an
        // untrusted one: the verification's own reason does (SSL_get_verify_result(3)).
        const long verified = SSL_get_verify_result(guard.ssl);
        if (verified != X509_V_OK) {
            while (!text.empty() && text.back() == '\n') {
                text.pop_back();
            }
            text += std::string(" (") + X509_verify_cert_error_string(verified) + ")";
        }
        throw InternalException(text.c_str(), true);
    }
    // NoCertify accepts any certificate, and so any name on it: the name check is part of
    // verifying the server.
    if (!net::OptionMap::isTrue(optionMap.get("NoCertify", "")) &&
        net::OptionMap::isTrue(optionMap.get("ValidateServerName", "true"))) {
        tools::SSLContext::validateCertificates(guard.ssl, host.c_str());
    }

    socket = guard.socket;
    ssl = guard.ssl;
    guard.release();
    return true;
}

net::IChannel * SSLTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                  net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel('" << text(uri) << "', " << static_cast<const void *>(handler) << ", '"
                                         << text(options) << "')");
    socketio::SelectReactor * selectReactor = selectReactorOf(reactor, "openChannel");
    const net::URI parsedUri = net::URI::FromString(text(uri));
    net::OptionMap optionMap;
    optionMap.parse(options);
    HandleGuard guard;
    if (!connectSecure(parsedUri, optionMap, net::OptionMap::isTrue(optionMap.get("EnableProxy", "false")), guard.socket,
                       guard.ssl)) {
        LOG4CXX_ERROR(logger, "unable to connect");
        return nullptr;
    }

    Common::SmartPtr<SSLChannel> channel(new SSLChannel(guard.socket, guard.ssl, true, selectReactor));
    guard.release();
    try {
        channel->setChannelHandler(handler);
        selectReactor->registerSubscriber(channel.get());
    } catch (...) {
        // Nobody else would ever free this connection or close its socket.
        channel->terminateConnection();
        socketio::SocketClose(channel->getSocket());
        channel->getSocket() = socketio::INVALID_SOCKET_HANDLE;
        channel->setChannelHandler(nullptr);
        throw;
    }
    Common::KeepForCaller(channel.get());
    return channel.get();
}

net::IChannelServer * SSLTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                               net::IChannelAcceptor * acceptor,
                                                               const char * options) {
    LOG4CXX_INFO(logger, "startChannelServer('" << text(uri) << "', " << static_cast<const void *>(acceptor) << ", '"
                                                << text(options) << "')");
    socketio::SelectReactor * selectReactor = selectReactorOf(reactor, "startChannelServer");
    const net::URI parsedUri = net::URI::FromString(text(uri));
    ensureLibrary();

    HandleGuard guard;
    guard.socket = socketio::SocketListen(parsedUri, m_socketOptions);
    if (guard.socket == socketio::INVALID_SOCKET_HANDLE) {
        LOG4CXX_ERROR(logger, "unable to listen");
        return nullptr;
    }
    // The port is held while certificates load; a failure here frees it through the guard.
    net::OptionMap optionMap;
    optionMap.parse(options);
    tools::SSLContext context(optionMap);
    context.setup(false);
    context.requireServerIdentity();

    const std::uint64_t handshakeTimeout = optionMap.getMilliseconds("HandshakeTimeout");
    Common::SmartPtr<SSLChannelServer> server(new SSLChannelServer(guard.socket, this, context, acceptor, m_socketOptions));
    guard.release();
    server->setHandshakeTimeout(handshakeTimeout);
    try {
        selectReactor->registerSubscriber(server.get());
    } catch (...) {
        socketio::SocketClose(server->getSocket());
        server->getSocket() = socketio::INVALID_SOCKET_HANDLE;
        throw;
    }
    Common::KeepForCaller(server.get());
    return server.get();
}

}  // namespace ssl
