#include "websocket/websocketchannelserver.h"

#include <exception>

#include "common/handover.h"
#include "common/logging.h"
#include "websocket/wschannel.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.WebSocketChannelServer");
}  // namespace

WebSocketChannelServer::WebSocketChannelServer(net::IChannelAcceptor * acceptor, bool secure,
                                               const socketio::socket_options & options)
    : m_Acceptor(acceptor), m_bSecure(secure), m_SocketOptions(options) {}

void WebSocketChannelServer::setServer(net::IChannelServer * server, const char * uri) {
    m_Server = server;
    m_strLocalURI = uri;
}

void WebSocketChannelServer::close() {
    LOG4CXX_INFO(logger, "close[" << m_strLocalURI << "]()");
    if (m_Server) {
        Common::SmartPtr<net::IChannelServer> server = std::move(m_Server);
        m_Server = nullptr;
        server->close();
    }
}

void WebSocketChannelServer::setMessageOptions(bool textMessages, std::vector<std::string> allowedOrigins) {
    m_bTextMessages = textMessages;
    m_AllowedOrigins = std::move(allowedOrigins);
}

net::IChannelHandler * WebSocketChannelServer::accept(net::IChannel * underlying) {
    try {
        Common::SmartPtr<WSChannel> channel(
            new WSChannel(static_cast<unsigned int>(m_SocketOptions.sendBufferSize),
                          static_cast<unsigned int>(m_SocketOptions.receiveBufferSize), m_bSecure, true));
        channel->takeNamesOf(underlying);
        channel->setMessageOptions(m_bTextMessages, m_AllowedOrigins);
        channel->setKeepAlive(m_KeepAlive);
        channel->setHandshakeTimeout(m_HandshakeTimeout);
        // A server made without an acceptor refuses every connection.
        Common::SmartPtr<net::IChannelHandler> handler(m_Acceptor ? m_Acceptor->accept(channel.get()) : nullptr);
        if (!handler) {
            LOG4CXX_INFO(logger, "not accepting connection '" << underlying->getDescription());
            return nullptr;
        }
        channel->accept(underlying);
        channel->setChannelHandler(handler.get());
        // The pointer returned carries no count: this thread keeps the channel until the server
        // below has taken it, as openChannel does for its caller.
        Common::KeepForCaller(channel.get());
        return channel.get();
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "accept failed due to exception: '" << e.what());
    } catch (...) {
        LOG4CXX_ERROR(logger, "accept failed due to an unknown exception caught");
    }
    return nullptr;
}

}  // namespace websocket
