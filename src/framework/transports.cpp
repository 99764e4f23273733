#include "framework/transports.h"

#include "corvane/channel.h"
#include "socketio/socketoptions.h"
#include "tcp/tcptransportprotocol.h"
#include "tls/httpstransportprotocol.h"
#include "tls/ssltransportprotocol.h"

namespace net {

void registerBuiltinTransports(IChannelFactory & factory, const SocketOptions & options) {
    // Each protocol gets its own copy of the settings.
    factory.registerTransportProtocol(new tcp::TCPTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new ssl::HTTPSTransportProtocol(socketio::socket_options(options)));
    factory.registerTransportProtocol(new ssl::SSLTransportProtocol(socketio::socket_options(options)));
}

}  // namespace net
