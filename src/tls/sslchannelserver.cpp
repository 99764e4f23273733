#include "tls/sslchannelserver.h"

#include <exception>

#include "common/handover.h"
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
    unsigned int socket = tcp::AcceptConnection(m_socket, peer, m_socketOptions, logger, m_bAcceptFailing);
    if (socket != socketio::INVALID_SOCKET_HANDLE) {
        onAccept(peer, socket);
    }
    return true;
}

void SSLChannelServer::onAccept(const net::URI & peer, unsigned int socket) noexcept {
    // The acceptor may close this server from inside accept (a one-shot server), which clears
    // m_reactor; the connection accepted before that still goes to the reactor this server
    // runs on, as channels accepted earlier live on.
    Common::SmartPtr<socketio::SelectReactor> reactor = m_homeReactor;
    Common::SmartPtr<SSLChannel> channel;
    Common::SmartPtr<net::IChannelHandler> handler;
    SSL * ssl = nullptr;
    try {
        LOG4CXX_INFO(logger, "accept '" << peer.ToString() << "'");
        ssl = SSL_new(m_context.context());
        if (ssl == nullptr || !SSL_set_socket(ssl, socket)) {
            // Nothing to hand to an acceptor: a channel without a connection could only fail.
            throw tools::SSLException();
        }
        // The handshake has not begun: the acceptor knows the peer's address and nothing more.
        channel = new SSLChannel(socket, ssl, false, reactor.get());
        channel->setHandshakeTimeout(m_handshakeTimeout);
        handler = m_acceptor->accept(channel.get());
        // Taken: an acceptor that kept it for this thread (Common::KeepForCaller) lets it go.
        Common::KeepForCaller(nullptr);
        if (handler && reactor) {
            channel->setChannelHandler(handler.get());
            reactor->registerSubscriber(channel.get());
            return;
        }
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "accept failed due to exception: '" << e.what() << "'");
    } catch (...) {
        LOG4CXX_ERROR(logger, "accept failed due to an unknown exception caught");
    }
    // Refused or failed: no TLS alert for the peer. The connection is freed through the channel
    // and its socket closed there too, so that an acceptor that kept the channel cannot free or
    // close anything again later.
    if (channel) {
        channel->terminateConnection();
        // The acceptor's side may have closed the channel already, or close it on another thread
        // at this moment: whoever comes first closes the descriptor, and the number, perhaps
        // taken by a new descriptor since, is not closed again.
        socketio::SelectReactor::ForeignThreadGuard guard(reactor.get());
        channel->closeSocket();
    } else {
        if (ssl != nullptr) {
            SSL_free(ssl);
        }
        socketio::SocketClose(socket);
    }
    // A handler whose channel the reactor refused at its limit hears of the end.
    if (handler) {
        tcp::TellHandlerOfFailure(handler.get());
    }
}

}  // namespace ssl
