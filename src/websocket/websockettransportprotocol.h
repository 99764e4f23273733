// websocket::WebSocketTransportProtocol ("ws") and websocket::WebSocketSecureTransportProtocol
// ("wss"). A client connection is made whole on the caller's thread (connect, optional proxy
// traversal, for "wss" the TLS handshake, then the WebSocket handshake) and only the open
// channel goes to the reactor. A server is a websocket::WebSocketChannelServer over a TCP or
// TLS channel server. Created once by the channel factory, which owns them.
#pragma once

#include "corvane/channel.h"
#include "socketio/socketoptions.h"
#include "tcp/tcptransportprotocol.h"
#include "tls/ssltransportprotocol.h"

namespace websocket {

// The plain TCP transport underneath lends its connect, its proxy resolver and its server.
class WebSocketTransportProtocol : public tcp::TCPTransportProtocol {
public:
    explicit WebSocketTransportProtocol(const socketio::socket_options & options);

    const char * getName() const override { return "ws"; }
    // Caller's thread; blocks on connect, proxy exchange and the WebSocket handshake, the
    // last with no time limit. Port 80 when the URI has none; EnableProxy defaults to "true".
    // Connect failures throw websocket::InternalException.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Port 80 when the URI has none; the result's local URI has the scheme "http".
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;
    // The same client in the layered form: a websocket::WSChannel over a TCP channel, its
    // handshake limited to 5000 ms. Not reached through the factory.
    net::IChannel * openChannel2(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                 const char * options);
};

class WebSocketSecureTransportProtocol : public net::ITransportProtocol {
public:
    explicit WebSocketSecureTransportProtocol(const socketio::socket_options & options);
    ~WebSocketSecureTransportProtocol() override;

    const char * getName() const override { return "wss"; }
    // As "ssl" with port 443 and EnableProxy defaulting to "true", then the WebSocket
    // handshake. Null, with "unable to connect" at error, when the connect gave no socket.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Port 443 when the URI has none; the result's local URI has the scheme "https".
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;

private:
    socketio::socket_options m_socketOptions;
    // The TLS transport underneath: library guard, client contexts, proxy resolver, server.
    Common::SmartPtr<ssl::SSLTransportProtocol> m_tls;
};

}  // namespace websocket
