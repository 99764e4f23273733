// net::TunnelStore: the root of local port forwarding. It listens on local URIs, and for each
// connection that comes in opens a channel to a target and splices the two, byte for byte.
// Held by the host and, deliberately, by every running service, end point and the creator
// thread: those cycles keep it alive while anything of it runs, and only closing the services
// and end points (stopTunnels, shutdown) breaks them. Its operations run on any thread.
//
// Lock order of the tunnels: a service's lock or a tunnel's SmartLock, then m_lock, then the
// creator thread's lock. m_lock is never held while a service or an end point is closed.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "corvane/channel.h"

namespace net {

class TunnelCreatorThread;
class TunnelEndPoint;
class TunnelService;

class TunnelStore : public ITunnelStore {
public:
    // The module refuses a null reactor and replaces a null factory; they are not tested here.
    // bufferSize: bytes of each ring of each end point; 0 gives tunnels that carry nothing.
    TunnelStore(IReactor * reactor, IChannelFactory * factory, unsigned int bufferSize);
    // Frees the members; stops nothing.
    ~TunnelStore() override;

    // Caller's thread; binds and listens. A bad URI fails before anything is made. The result
    // is held by the store's map, not counted for the caller.
    ITunnelService * startTunnel(const char * localURI, const char * localOptions, const char * remoteURI,
                                 const char * remoteOptions) override;
    // Caller's thread. Closes every service, then joins the creator thread (without m_lock, so
    // that a connection still being made can finish), and waits until the services have left
    // the map. Live tunnels go on.
    void stopTunnels() override;
    // Caller's thread: stopTunnels, then closeTunnels, so that no new tunnel comes in while
    // the running ones are closed.
    void shutdown() override;
    // As startTunnel; `endpoint` is asked for the target anew on every connection.
    ITunnelService * startTunnel2(const char * localURI, const char * localOptions,
                                  IChannelEndpoint * endpoint) override;

    // Caller's thread. Closes every end point and waits, without a time limit, until the map
    // of tunnels is empty.
    void closeTunnels();
    // Throw net::InternalException "uri '...' already exists in map" for a duplicate key.
    void storeTunnelService(TunnelService * service);
    void removeTunnelService(TunnelService * service);
    void storeTunnel(TunnelEndPoint * endPoint);
    void removeTunnel(TunnelEndPoint * endPoint);
    // Makes and starts the creator thread on first use (again after stopTunnels).
    TunnelCreatorThread * getTunnelCreatorThread();
    // Creator thread only; blocks on the outgoing connection to `uri`. Builds the outgoing end
    // point of `peer`'s tunnel and joins the pair. Every failure is an exception; the caller
    // closes `peer`.
    void connectEndpoints(TunnelEndPoint * peer, const std::string & uri, const std::string & options);
    // The second half of connectEndpoints, also for a connection opened on the reactor thread:
    // `newEndPoint` is `channel`'s handler, the channel runs; stores and joins the pair and
    // passes on what came before the join. Every failure is an exception; the caller closes
    // `peer`.
    void joinTarget(TunnelEndPoint * peer, TunnelEndPoint * newEndPoint, Common::SmartPtr<IChannel> & channel,
                    const std::string & uri);
    IChannelFactory * getFactory() const { return m_factory.get(); }
    std::uint32_t getBufferSize() const { return m_bufferSize; }

    // Any thread; sizes of the two maps, for hosts and tests that wait for a store to drain.
    std::size_t tunnelCount() const;
    std::size_t serviceCount() const;
    // The reactor of every channel of this store's tunnels; fixed at construction.
    IReactor * getReactor() const { return m_reactor.get(); }

private:
    Common::SmartPtr<IReactor> m_reactor;
    const std::uint32_t m_bufferSize;
    Common::SmartPtr<IChannelFactory> m_factory;
    mutable Common::Lock m_lock;
    Common::ConditionVariable m_condition;                                  // bound to m_lock
    Common::SmartPtr<TunnelCreatorThread> m_creatorThread;                  // GUARDED_BY(m_lock)
    std::map<std::string, Common::SmartPtr<TunnelEndPoint>> m_tunnels;     // GUARDED_BY(m_lock)
    std::map<std::string, Common::SmartPtr<TunnelService>> m_services;     // GUARDED_BY(m_lock)
};

}  // namespace net
