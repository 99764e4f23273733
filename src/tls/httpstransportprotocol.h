// ssl::HTTPSTransportProtocol: serves the scheme "https", which is "ssl" with port 443 when
// the URI names none and, for outgoing channels, proxy traversal unless the options say
// "EnableProxy" themselves. It speaks no HTTP. Created once by the channel factory.
#pragma once

#include "tls/ssltransportprotocol.h"

namespace ssl {

class HTTPSTransportProtocol : public SSLTransportProtocol {
public:
    explicit HTTPSTransportProtocol(const socketio::socket_options & options);

    const char * getName() const override { return "https"; }
    // Caller's thread; as SSLTransportProtocol::openChannel.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Caller's thread; as SSLTransportProtocol::startChannelServer.
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;
};

}  // namespace ssl
