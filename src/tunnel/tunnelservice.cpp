#include "tunnel/tunnelservice.h"

#include <utility>

#include "common/handover.h"
#include "common/logging.h"
#include "tunnel/tunnelcreatorthread.h"
#include "tunnel/tunnelendpoint.h"
#include "tunnel/tunnelstore.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.TunnelService");
}

TunnelService::TunnelService(TunnelCreatorThread * thread, TunnelStore * store, IChannelEndpoint * endpoint,
                             unsigned int bufferSize)
    : m_creatorThread(thread),
      m_store(store),
      m_bufferSize(bufferSize),
      m_endpoint(endpoint),
      m_directTarget(DirectConnect::TargetOf(endpoint, store->getFactory())) {}

TunnelService::~TunnelService() = default;

const char * TunnelService::getLocalURI() const {
    LOG4CXX_TRACE(logger, "getLocalURI()");
    return m_localURI.c_str();
}

void TunnelService::setServer(IChannelServer * server) {
    Common::ScopedLock guard(&m_lock);
    m_server = server;
    m_localURI = server->getLocalURI();
}

void TunnelService::close() {
    LOG4CXX_TRACE(logger, "close()");
    Common::SmartPtr<TunnelCreatorThread> thread;
    Common::SmartPtr<TunnelStore> store;
    Common::SmartPtr<IChannelServer> server;
    Common::SmartPtr<IChannelEndpoint> endpoint;
    {
        Common::ScopedLock guard(&m_lock);
        if (!m_store || !m_server) {
            LOG4CXX_DEBUG(logger, "close(): already closed");
            return;
        }
        // Signals the store's condition, so that a waiting stopTunnels can go on.
        m_store->removeTunnelService(this);
        thread = std::move(m_creatorThread);
        store = std::move(m_store);
        server = std::move(m_server);
        endpoint = std::move(m_endpoint);
    }
    // Outside m_lock: closing the server waits for the reactor thread, which may be inside
    // accept waiting for m_lock. From here on accept refuses.
    server->close();
}

IChannelHandler * TunnelService::accept(IChannel * channel) {
    LOG4CXX_TRACE(logger, "accept('" << channel->getPeerURI() << "')");
    Common::ScopedLock guard(&m_lock);
    if (!m_store || !m_server) {
        // Also the answer between the start of the server and the moment the store set it.
        LOG4CXX_WARN(logger, "Tunnel service in deinitialized state, returning 0");
        return nullptr;
    }
    Common::SmartPtr<TunnelEndPoint::SmartLock> lock(new TunnelEndPoint::SmartLock);
    Common::SmartPtr<TunnelEndPoint> endPoint(new TunnelEndPoint(lock.get(), m_store.get(), channel, m_bufferSize));
    // The channel holds the end point from here on, and this thread until the server has taken
    // the handler that this call returns: a target that refuses at once lets the creator thread
    // close the end point and its channel (which lets go of its handler) before that.
    channel->setChannelHandler(endPoint.get());
    Common::KeepForCaller(endPoint.get());
    bool stored = false;
    try {
        m_store->storeTunnel(endPoint.get());
        stored = true;
        if (!m_directTarget || !DirectConnect::Start(m_directTarget, m_store.get(), endPoint.get())) {
            m_creatorThread->submit(endPoint, m_endpoint.get());
        }
    } catch (...) {
        // Nothing would ever close it: undo, and the server closes the socket.
        if (stored) {
            m_store->removeTunnel(endPoint.get());
        }
        channel->setChannelHandler(nullptr);
        throw;
    }
    return endPoint.get();
}

}  // namespace net
