#include "tunnel/tunnelstore.h"

#include <utility>
#include <vector>

#include "common/handover.h"
#include "common/logging.h"
#include "corvane/uri.h"
#include "net/internalexception.h"
#include "tunnel/directconnect.h"
#include "tunnel/tunnelcreatorthread.h"
#include "tunnel/tunnelendpoint.h"
#include "tunnel/tunnelservice.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.TunnelStore");

const char * logText(const char * value) {
    return value != nullptr ? value : "<null>";
}

const char * text(const char * value) {
    return value != nullptr ? value : "";
}
}  // namespace

TunnelStore::TunnelStore(IReactor * reactor, IChannelFactory * factory, unsigned int bufferSize)
    : m_reactor(reactor), m_bufferSize(bufferSize), m_factory(factory), m_condition(&m_lock) {}

TunnelStore::~TunnelStore() {
    LOG4CXX_TRACE(logger, "dtor");
}

ITunnelService * TunnelStore::startTunnel(const char * localURI, const char * localOptions, const char * remoteURI,
                                          const char * remoteOptions) {
    LOG4CXX_INFO(logger, "startTunnel('" << logText(localURI) << "', '" << logText(localOptions) << "', '"
                                         << logText(remoteURI) << "', '" << logText(remoteOptions) << "')");
    URI::FromString(text(remoteURI));
    Common::SmartPtr<IChannelEndpoint> endpoint(new FixedEndpoint(remoteURI, remoteOptions));
    return static_cast<ITunnelStore *>(this)->startTunnel2(localURI, localOptions, endpoint.get());
}

ITunnelService * TunnelStore::startTunnel2(const char * localURI, const char * localOptions,
                                           IChannelEndpoint * endpoint) {
    LOG4CXX_INFO(logger, "startTunnel2('" << logText(localURI) << "', '" << logText(localOptions) << "', ... )");
    URI::FromString(text(localURI));
    TunnelCreatorThread * thread = getTunnelCreatorThread();
    Common::SmartPtr<TunnelService> service(new TunnelService(thread, this, endpoint, m_bufferSize));
    Common::SmartPtr<IChannelServer> server(
        m_factory->startChannelServer(m_reactor.get(), localURI, service.get(), localOptions));
    service->setServer(server.get());
    try {
        storeTunnelService(service.get());
    } catch (...) {
        // A refused duplicate would otherwise listen on, with nobody to close it.
        server->close();
        throw;
    }
    return service.get();
}

TunnelCreatorThread * TunnelStore::getTunnelCreatorThread() {
    LOG4CXX_TRACE(logger, "getTunnelCreatorThread()");
    Common::ScopedLock guard(&m_lock);
    if (!m_creatorThread) {
        Common::SmartPtr<TunnelCreatorThread> thread(new TunnelCreatorThread);
        thread->startProcessing(this);
        m_creatorThread = thread;
    }
    return m_creatorThread.get();
}

void TunnelStore::storeTunnelService(TunnelService * service) {
    const std::string uri = service->getLocalURI();
    LOG4CXX_TRACE(logger, "storeTunnelService('" << uri << "')");
    Common::ScopedLock guard(&m_lock);
    if (m_services.find(uri) != m_services.end()) {
        throw InternalException(("uri '" + uri + "' already exists in map").c_str(), true);
    }
    m_services.emplace(uri, service);
}

void TunnelStore::removeTunnelService(TunnelService * service) {
    const std::string uri = service->getLocalURI();
    LOG4CXX_TRACE(logger, "removeTunnelService('" << uri << "')");
    Common::SmartPtr<TunnelService> removed;
    Common::ScopedLock guard(&m_lock);
    auto found = m_services.find(uri);
    if (found == m_services.end()) {
        LOG4CXX_ERROR(logger, "TunnelService with uri '" << uri << "' not found in map)");
    } else {
        // The service calls this under its own lock and holds a reference of its own.
        removed = std::move(found->second);
        m_services.erase(found);
    }
    m_condition.Broadcast();
}

void TunnelStore::storeTunnel(TunnelEndPoint * endPoint) {
    const std::string & description = endPoint->getDescription();
    LOG4CXX_TRACE(logger, "storeTunnel('" << description << "')");
    Common::ScopedLock guard(&m_lock);
    if (m_tunnels.find(description) != m_tunnels.end()) {
        throw InternalException(("uri '" + description + "' already exists in map").c_str(), true);
    }
    m_tunnels.emplace(description, endPoint);
}

void TunnelStore::removeTunnel(TunnelEndPoint * endPoint) {
    const std::string & description = endPoint->getDescription();
    LOG4CXX_TRACE(logger, "removeTunnel('" << description << "')");
    Common::ScopedLock guard(&m_lock);
    auto found = m_tunnels.find(description);
    if (found == m_tunnels.end()) {
        LOG4CXX_WARN(logger, "Tunnel with desc '" << description << "' not found in map)");
    } else if (found->second.get() == endPoint) {
        // The end point calls this while it holds a reference of its own.
        m_tunnels.erase(found);
    } else {
        LOG4CXX_WARN(logger, "Tunnel with desc '" << description << "' not found in map)");
    }
    m_condition.Broadcast();
}

void TunnelStore::connectEndpoints(TunnelEndPoint * peer, const std::string & uri, const std::string & options) {
    // The accepted side ended while its job waited (its channel was refused, or its client
    // left): nobody would ever use the target's connection.
    if (peer->m_closed.load()) {
        return;
    }
    URI parsed = URI::FromString(uri);
    LOG4CXX_DEBUG(logger, "initiating connection to '" << parsed.ToString() << "' on behalf of '"
                                                       << peer->getDescription() << "'");
    Common::SmartPtr<TunnelEndPoint> newEndPoint(new TunnelEndPoint(peer->getLock().get(), this, m_bufferSize));
    // Blocks for as long as the connection takes, proxy traversal and handshakes included.
    Common::SmartPtr<IChannel> channel(m_factory->openChannel(m_reactor.get(), uri.c_str(), newEndPoint.get(),
                                                              options.c_str()));
    // Taken: this worker need not keep the channel (and its ring) for its next connection.
    Common::KeepForCaller(nullptr);
    joinTarget(peer, newEndPoint.get(), channel, uri);
}

void TunnelStore::joinTarget(TunnelEndPoint * peer, TunnelEndPoint * newEndPoint, Common::SmartPtr<IChannel> & channel,
                             const std::string & uri) {
    try {
        newEndPoint->setChannel(channel.get());
        storeTunnel(newEndPoint);
    } catch (...) {
        // The channel runs already, with the new end point as its handler: nothing else would
        // ever close it.
        newEndPoint->setChannel(nullptr);
        channel->close();
        throw;
    }
    // The target may have ended its connection before the pair is joined; its onClose then
    // found neither a peer nor (before storeTunnel) an entry in the map.
    const bool targetEnded = !TunnelEndPoint::JoinPair(peer, newEndPoint);
    if (targetEnded) {
        removeTunnel(newEndPoint);
        {
            Common::ScopedLock guard(&peer->getLock()->m_lock);
            channel = nullptr;
            newEndPoint->m_channel = nullptr;
        }
        throw InternalException(("connection to '" + uri + "' ended before the tunnel was joined").c_str(), true);
    }
    // Ends that came while the connection was being made are passed on now: a client that
    // sent its request and shut down its side, or one that has gone and left bytes behind.
    if (peer->afterJoin()) {
        newEndPoint->close();
        return;
    }
    // What the client sent before the join waits in its ring.
    if (!newEndPoint->sendWhatWaits()) {
        newEndPoint->close("send to the target failed");
    }
}

void TunnelStore::closeTunnels() {
    LOG4CXX_TRACE(logger, "closeTunnels()");
    std::vector<Common::SmartPtr<TunnelEndPoint>> tunnels;
    {
        Common::ScopedLock guard(&m_lock);
        for (const auto & entry : m_tunnels) {
            tunnels.push_back(entry.second);
        }
    }
    LOG4CXX_TRACE(logger, "shutting down " << tunnels.size() << " Tunnels");
    for (const auto & endPoint : tunnels) {
        endPoint->close();
    }
    tunnels.clear();
    Common::ScopedLock guard(&m_lock);
    while (!m_tunnels.empty()) {
        m_condition.Wait();
    }
}

void TunnelStore::stopTunnels() {
    LOG4CXX_INFO(logger, "stopTunnels()");
    std::vector<Common::SmartPtr<TunnelService>> services;
    Common::SmartPtr<TunnelCreatorThread> thread;
    {
        Common::ScopedLock guard(&m_lock);
        thread = std::move(m_creatorThread);
        for (const auto & entry : m_services) {
            services.push_back(entry.second);
        }
    }
    // The services stop accepting first; the creator thread is joined without m_lock, so
    // that a connection it is still making can reach storeTunnel and finish.
    for (const auto & service : services) {
        service->close();
    }
    services.clear();
    if (thread) {
        thread->stopProcessing();
    }
    thread = nullptr;
    Common::ScopedLock guard(&m_lock);
    while (!m_services.empty()) {
        m_condition.Wait();
    }
}

void TunnelStore::shutdown() {
    LOG4CXX_INFO(logger, "shutdown()");
    // The services stop accepting first: while clients keep connecting, the map of tunnels
    // would never be empty. Jobs the creator thread leaves undone close their end points.
    static_cast<ITunnelStore *>(this)->stopTunnels();
    closeTunnels();
}

std::size_t TunnelStore::tunnelCount() const {
    Common::ScopedLock guard(&m_lock);
    return m_tunnels.size();
}

std::size_t TunnelStore::serviceCount() const {
    Common::ScopedLock guard(&m_lock);
    return m_services.size();
}

}  // namespace net
