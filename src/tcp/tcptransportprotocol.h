// tcp::TCPTransportProtocol: serves the scheme "tcp". It turns a URI into a connected or
// listening socket and wraps it in a tcp::TCPChannel or tcp::TCPChannelServer. Created once
// by the channel factory, which owns it; it keeps no per-connection state. With the option
// EnableProxy=true it connects through the system's HTTP proxies.
#pragma once

#include <memory>

#include "common/lock.h"
#include "corvane/channel.h"
#include "proxy/proxyresolver.h"
#include "socketio/socketoptions.h"

namespace tcp {

class TCPTransportProtocol : public net::ITransportProtocol {
public:
    explicit TCPTransportProtocol(const socketio::socket_options & options);
    ~TCPTransportProtocol() override;

    const char * getName() const override { return "tcp"; }
    // Caller's thread; blocks on name resolution, connect and, with "EnableProxy" exactly
    // "true", the proxy exchange. Returns the channel registered with the reactor; the
    // reactor's reference is its only one.
    net::IChannel * openChannel(net::IReactor * reactor, const char * uri, net::IChannelHandler * handler,
                                const char * options) override;
    // Caller's thread; binds and listens. Options are not read for a plain TCP server.
    net::IChannelServer * startChannelServer(net::IReactor * reactor, const char * uri,
                                             net::IChannelAcceptor * acceptor, const char * options) override;

    const socketio::socket_options & socketOptions() const { return m_socketOptions; }

protected:
    socketio::socket_options m_socketOptions;
    // Made at the first connection that asks for a proxy: making one starts the system's
    // proxy discovery (a PAC engine among it), which a host that never uses proxies should
    // not carry. Asked anew for each proxied connection; never shared with another protocol.
    ProxyResolver::IResolver * proxyResolver();

    Common::Lock m_proxyResolverLock;
    std::unique_ptr<ProxyResolver::IResolver> m_proxyResolver;  // guarded by m_proxyResolverLock
};

}  // namespace tcp
