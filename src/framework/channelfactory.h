// net::ChannelFactory: the registry of transport protocols by exact URI scheme. It sends
// openChannel and startChannelServer to the protocol that the scheme names. Owned by the
// host's references; it owns its protocols. The registry takes no lock: it is filled in
// the constructor or before the factory is shared, and only read afterwards.
#pragma once

#include <map>
#include <string>

#include "corvane/channel.h"

namespace net {

class ChannelFactory : public IChannelFactory {
public:
    // Creates and registers the built-in transports, each with its own copy of `options`.
    explicit ChannelFactory(SocketOptions options);
    ~ChannelFactory() override;

    // Throws net::InternalException when the name is registered already.
    void registerTransportProtocol(ITransportProtocol * protocol) override;
    void unregisterTransportProtocol(const char * name) override;
    ITransportProtocol * getTransportProtocol(const char * name) const override;
    // Any thread; the URI's parse errors pass through, an unknown scheme throws
    // net::InternalException "transport protocol '<scheme>' not recognized". The option
    // ConnectTimeout=MS bounds each route of the opening (socketio::ConnectDeadlineScope).
    IChannel * openChannel(IReactor * reactor, const char * uri, IChannelHandler * handler,
                           const char * options) override;
    IChannelServer * startChannelServer(IReactor * reactor, const char * uri, IChannelAcceptor * acceptor,
                                        const char * options) override;

    const SocketOptions & getSocketOptions() const { return m_socketOptions; }

private:
    ITransportProtocol * protocolFor(const char * uri) const;

    std::map<std::string, Common::SmartPtr<ITransportProtocol>> m_mapTransportProtocol;
    SocketOptions m_socketOptions;
};

}  // namespace net
