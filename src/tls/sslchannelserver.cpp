#include "tls/sslchannelserver.h"

#include <exception>

#include "common/logging.h"
#include "socketio/socketfunctions.h"
#include "tcp/tcpchannelserver.h"
#include "tls/socketbio.h"
#include "tls/sslchannel.h"
#include "tls/sslexception.h"
#include "tls/ssltransportprotocol.h"

namespace ssl {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.ssl.SSLChannelServer");
}

SSLChannelServer::SSLChannelServer(unsigned int socket, SSLTransportProtocol * protocol, tools::SSLContext & context,
                                   net::IChannelAcceptor * acceptor, const socketio::socket_options & options)
    : m_socket(socket),
      m_protocol(protocol),
      m_context(std::move(context)),
      m_acceptor(acceptor),
      m_socketOptions(options) {
    m_localURI = socketio::SocketLocalURI(socket, false, "ssl").ToString();
}

SSLChannelServer::~SSLChannelServer() = default;

void SSLChannelServer::close() {
    LOG4CXX_TRACE(logger, "close()");
    socketio::CloseSubscriber(this, m_reactor, m_homeReactor.get(), m_socket);
}

void SSLChannelServer::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & /*now*/) {
    m_reactor = reactor;
    if (reactor != nullptr && !m_homeReactor) {
        m_homeReactor = reactor;
    }
}

bool SSLChannelServer::onEvents(const short & events, const std::uint64_t & /*now*/) noexcept {
    LOG4CXX_TRACE(logger, "OnEvents(" << events << ")");
    if ((events & socketio::SELECT_EVENT_READ) == 0) {
        LOG4CXX_WARN(logger, "unexpected event " << events << " on " << m_localURI);
        return false;
    }
    // One connection per event: a backlog is worked off by the following cycles.
    net::URI peer = net::URI::FromString("tcp://");
    unsigned int socket = tcp::AcceptConnection(m_socket, peer, m_socketOptions, logger);
    if (socket != socketio::INVALID_SOCKET_HANDLE) {
        onAccept(peer, socket);
    }
    return true;
}

void SSLChannelServer::onAccept(const net::URI & peer, unsigned int socket) noexcept {
    Common::SmartPtr<SSLChannel> channel;
    SSL * ssl = nullptr;
    try {
        LOG4CXX_INFO(logger, "accept '" << peer.ToString() << "'");
        ssl = SSL_new(m_context.context());
        if (ssl == nullptr || !SSL_set_socket(ssl, socket)) {
            // Nothing to hand to an acceptor: a channel without a connection could only fail.
            throw tools::SSLException();
        }
        // The handshake has not begun: the acceptor knows the peer's address and nothing more.
        channel = new SSLChannel(socket, ssl, false);
        Common::SmartPtr<net::IChannelHandler> handler(m_acceptor->accept(channel.get()));
        if (handler) {
            channel->setChannelHandler(handler.get());
            m_reactor->registerSubscriber(channel.get());
            return;
        }
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "accept failed due to exception: '" << e.what() << "'");
    } catch (...) {
        LOG4CXX_ERROR(logger, "accept failed due to an unknown exception caught");
    }
    // Refused or failed: no TLS alert for the peer. The connection is freed through the channel
    // and its socket marked closed there too, so that an acceptor that kept the channel cannot
    // free or close anything again later.
    if (channel) {
        channel->terminateConnection();
        channel->getSocket() = socketio::INVALID_SOCKET_HANDLE;
    } else if (ssl != nullptr) {
        SSL_free(ssl);
    }
    socketio::SocketClose(socket);
}

}  // namespace ssl
