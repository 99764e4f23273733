// net::TunnelService: the listening side of one tunnel, the acceptor of its channel server.
// For each accepted channel it makes the tunnel's shared lock and first end point and queues
// the outgoing half on the creator thread (or, for a tcp address, opens it on the reactor
// thread: DirectConnect). Held by the store's map (and by its server, as
// acceptor); the end points do not hold it, so running tunnels outlive it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "common/lock.h"
#include "corvane/channel.h"
#include "tunnel/directconnect.h"

namespace net {

class TunnelCreatorThread;
class TunnelStore;

class TunnelService : public ITunnelService, public IChannelAcceptor {
public:
    TunnelService(TunnelCreatorThread * thread, TunnelStore * store, IChannelEndpoint * endpoint,
                  unsigned int bufferSize);
    ~TunnelService() override;

    // The URI that the server reports, with the real port; empty until the store set it.
    const char * getLocalURI() const override;
    // Any thread. Leaves the store's map and stops listening; running tunnels go on.
    void close() override;

    // Reactor thread, once per accepted connection. Null (a refusal) once closed or before
    // the store has set the server.
    IChannelHandler * accept(IChannel * channel) override;

    // Any thread; the store calls it once its server runs. Takes m_lock.
    void setServer(IChannelServer * server);

private:
    Common::Lock m_lock;
    Common::SmartPtr<TunnelCreatorThread> m_creatorThread;  // GUARDED_BY(m_lock)
    Common::SmartPtr<TunnelStore> m_store;                  // GUARDED_BY(m_lock)
    const std::uint32_t m_bufferSize;
    Common::SmartPtr<IChannelEndpoint> m_endpoint;          // GUARDED_BY(m_lock)
    Common::SmartPtr<IChannelServer> m_server;              // GUARDED_BY(m_lock)
    // Written once by setServer, before the service enters the store's map.
    std::string m_localURI;
    // Fixed at construction: a target whose connections open on the reactor thread.
    const std::shared_ptr<const DirectConnect::Target> m_directTarget;
};

}  // namespace net
