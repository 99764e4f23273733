// tcp::HTTPTransportProtocol: serves the scheme "http" with the channels of "tcp": port 80
// when the URI names none, and connections through the system's HTTP proxies unless the
// options say EnableProxy. No HTTP is spoken on the channels. Created once by the channel
// factory, which owns it.
#pragma once

#include "tcp/tcptransportprotocol.h"

namespace tcp {

class HTTPTransportProtocol : public TCPTransportProtocol {
public:
    explicit HTTPTransportProtocol(const socketio::socket_options & options);

    const char * getName() const override { return "http"; }
    // Caller's thread; blocks on name resolution, connect and the proxy exchange.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Caller's thread; a plain TCP listener, on port 80 when the URI names none.
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;
};

}  // namespace tcp
