#include "tcp/tcpchannelserver.h"

#include <cerrno>
#include <exception>

#include "common/handover.h"
#include "common/logging.h"
#include "socketio/socketexception.h"
#include "socketio/socketfunctions.h"
#include "tcp/tcpchannel.h"

namespace tcp {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tcp.TCPChannelServer");
}

void TellHandlerOfFailure(net::IChannelHandler * handler) noexcept {
    try {
        handler->onError();
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "accept failed due to exception: '" << e.what() << "'");
    } catch (...) {
        LOG4CXX_ERROR(logger, "accept failed due to an unknown exception caught");
    }
}

unsigned int AcceptConnection(unsigned int listenSocket, net::URI & peer, const socketio::socket_options & options,
                              const log4cxx::LoggerPtr & serverLogger, bool & failing) noexcept {
    unsigned int newSocket = socketio::INVALID_SOCKET_HANDLE;
    try {
        newSocket = socketio::SocketAccept(listenSocket, peer, options);
    } catch (const std::exception & e) {
        // Setting up the accepted socket failed; SocketAccept closed it. The server goes on.
        LOG4CXX_WARN(serverLogger, "onAccept on new socket failed: " << e.what());
        return socketio::INVALID_SOCKET_HANDLE;
    }
    if (newSocket == socketio::INVALID_SOCKET_HANDLE) {
        int error = errno;
        // Once per burst: at the descriptor limit every waiting connection fails alike.
        if (!failing) {
            failing = true;
            LOG4CXX_WARN(serverLogger, "onAccept on new socket failed with error code '"
                                           << error << "' : " << socketio::SystemErrorText(error));
        }
    } else {
        failing = false;
    }
    return newSocket;
}

TCPChannelServer::TCPChannelServer(unsigned int socket, net::IChannelAcceptor * acceptor,
                                   const socketio::socket_options & options)
    : m_socket(socket), m_acceptor(acceptor), m_socketOptions(options), m_bAcceptFailing(false) {
    m_localURI = socketio::SocketLocalURI(socket, false, "tcp").ToString();
    net::URI local = socketio::SocketLocalURI(socket, true, "tcp");
    if (!local.hostIsAnyInterface()) {
        m_connectionLocal.reset(new net::URI(local));
    }
}

TCPChannelServer::~TCPChannelServer() = default;

void TCPChannelServer::close() {
    LOG4CXX_INFO(logger, "close[" << m_localURI << "]()");
    socketio::CloseSubscriber(this, m_reactor, m_homeReactor.get(), m_socket);
}

void TCPChannelServer::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & /*now*/) {
    m_reactor = reactor;
    if (reactor != nullptr && !m_homeReactor) {
        m_homeReactor = reactor;
    }
}

bool TCPChannelServer::onEvents(const short & events, const std::uint64_t & /*now*/) noexcept {
    LOG4CXX_TRACE(logger, "OnEvents(" << events << ")");
    if ((events & socketio::SELECT_EVENT_READ) == 0) {
        LOG4CXX_WARN(logger, "unexpected event " << events << " on " << m_localURI);
        return false;
    }
    net::URI peer = net::URI::FromString("tcp://");
    unsigned int newSocket = AcceptConnection(m_socket, peer, m_socketOptions, logger, m_bAcceptFailing);
    if (newSocket != socketio::INVALID_SOCKET_HANDLE) {
        onAccept(newSocket, peer);
    }
    return true;
}

void TCPChannelServer::onAccept(unsigned int & socket, const net::URI & peer) noexcept {
    Common::SmartPtr<TCPChannel> channel;
    Common::SmartPtr<net::IChannelHandler> handler;
    // The reactor this server runs on. Not m_reactor: close() lets go of that on any thread,
    // the acceptor may do so from inside accept (a one-shot server), and the connection
    // accepted here lives on with the same reactor either way.
    Common::SmartPtr<socketio::SelectReactor> reactor = m_homeReactor;
    try {
        LOG4CXX_INFO(logger, "onAccept '" << peer.ToString() << "'");
        channel = new TCPChannel(socket, reactor.get(), &peer, m_connectionLocal.get(), true);
        // The accepted socket has the listener's options.
        channel->setAbortiveLinger(m_socketOptions.linger);
        handler = m_acceptor->accept(channel.get());
        // Taken: an acceptor that kept it for this thread (Common::KeepForCaller) lets it go.
        Common::KeepForCaller(nullptr);
        if (handler) {
            channel->setChannelHandler(handler.get());
            reactor->registerSubscriber(channel.get());
            return;
        }
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "accept failed due to exception: '" << e.what() << "'");
    } catch (...) {
        LOG4CXX_ERROR(logger, "accept failed due to an unknown exception caught");
    }
    // Refused or failed: the socket is closed through the channel too, so that an acceptor
    // that kept the channel cannot close the descriptor number again later.
    if (channel) {
        // The acceptor's side may close the channel on another thread at the same moment
        // (a tunnel whose target failed at once): whoever comes first closes the descriptor.
        socketio::SelectReactor::ForeignThreadGuard guard(reactor.get());
        channel->closeSocket();
    } else {
        socketio::SocketClose(socket);
    }
    socket = socketio::INVALID_SOCKET_HANDLE;
    // A handler was given but its channel never ran (the reactor refused it at its limit): it
    // hears of the end as of any failed connection, so that whatever it set up goes too.
    if (handler) {
        TellHandlerOfFailure(handler.get());
    }
}
}  // namespace tcp
