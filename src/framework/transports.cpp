#include "framework/transports.h"

#include "corvane/channel.h"
#include "socketio/socketoptions.h"
#include "tcp/httptransportprotocol.h"
#include "tcp/tcptransportprotocol.h"
#include "tls/httpstransportprotocol.h"
#include "tls/ssltransportprotocol.h"
#include "websocket/websockettransportprotocol.h"

namespace net {

void registerBuiltinTransports(IChannelFactory & factory, const SocketOptions & options) {
    // Each protocol gets its own copy of the settings.
    factory.registerTransportProtocol(new tcp::TCPTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new tcp::HTTPTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new ssl::HTTPSTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new ssl::SSLTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new websocket::WebSocketTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new websocket::WebSocketSecureTransportProtocol(socketio::socket_options(options)));
}

}  // namespace net
