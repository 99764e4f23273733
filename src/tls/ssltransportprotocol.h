// ssl::SSLTransportProtocol: serves the scheme "ssl". A client connection is made whole on the
// caller's thread (connect, optional proxy traversal, TLS handshake, name check) and only the
// finished connection goes to the reactor; a server listens with one TLS context for all its
// connections. Created once by the channel factory, which owns it.
#pragma once

#include <memory>
#include <mutex>

#include <openssl/ssl.h>

#include "corvane/channel.h"
#include "corvane/uri.h"
#include "net/optionmap.h"
#include "socketio/socketoptions.h"
#include "tls/clientcontextcache.h"
#include "tls/ssllibraryguard.h"

namespace ProxyResolver {
class IResolver;
}

namespace ssl {

class SSLTransportProtocol : public net::ITransportProtocol {
public:
    explicit SSLTransportProtocol(const socketio::socket_options & options);
    ~SSLTransportProtocol() override;

    const char * getName() const override { return "ssl"; }
    // Caller's thread; blocks on name resolution, connect, proxy negotiation and the TLS
    // handshake, with no time limit of its own. Returns the channel registered with the
    // reactor. A failed handshake throws ssl::InternalException ("SSL_connect:..."), a refused
    // name check tools::InternalException; the handler never hears of either, and no socket
    // or subscriber is left behind.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Caller's thread; binds and listens, then sets up the TLS context from `options`. A
    // context failure throws and frees the port again.
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;

    // The client connection of openChannel up to a finished TLS handshake and name check:
    // true with `socket` and `ssl` handed to the caller; false when the connect gave no socket.
    // The socket is non-blocking if a ConnectTimeout bounded the handshake, else blocking;
    // the caller's channel sets the mode it needs. Throws as openChannel does, and then
    // leaves nothing open.
    bool connectSecure(const net::URI & uri, const net::OptionMap & options, bool viaProxy, unsigned int & socket,
                       SSL *& ssl);

private:
    void ensureLibrary();
    // The connect of openChannel: through the system's proxies when `viaProxy`, else direct.
    // A connected socket, blocking unless `nonBlocking` says it came non-blocking (a direct
    // connect under a ConnectTimeout); throws when none could be made.
    unsigned int connect(const net::URI & uri, bool viaProxy, bool & nonBlocking);

    socketio::socket_options m_socketOptions;
    std::once_flag m_libraryOnce;
    std::unique_ptr<SSLLibraryGuard> m_library;
    std::once_flag m_proxyResolverOnce;
    std::unique_ptr<ProxyResolver::IResolver> m_proxyResolver;
    ClientContextCache m_clientContexts;
};

}  // namespace ssl
