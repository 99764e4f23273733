#include "tcp/tcpchannelserver.h"

#include <cerrno>
#include <exception>

#include "common/logging.h"
#include "socketio/socketexception.h"
#include "socketio/socketfunctions.h"
#include "tcp/tcpchannel.h"

namespace tcp {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tcp.TCPChannelServer");
}

unsigned int AcceptConnection(unsigned int listenSocket, net::URI & peer, const socketio::socket_options & options,
                              const log4cxx::LoggerPtr & serverLogger) noexcept {
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
        LOG4CXX_WARN(serverLogger, "onAccept on new socket failed with error code '" << error
                                                                                << "' : " << socketio::SystemErrorText(error));
    }
    return newSocket;
}

TCPChannelServer::TCPChannelServer(unsigned int socket, net::IChannelAcceptor * acceptor,
                                   const socketio::socket_options & options)
    : m_socket(socket), m_acceptor(acceptor), m_socketOptions(options) {
    m_localURI = socketio::SocketLocalURI(socket, false, "tcp").ToString();
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
    unsigned int newSocket = AcceptConnection(m_socket, peer, m_socketOptions, logger);
    if (newSocket != socketio::INVALID_SOCKET_HANDLE) {
        onAccept(newSocket, peer);
    }
    return true;
}

void TCPChannelServer::onAccept(unsigned int & socket, const net::URI & peer) noexcept {
    Common::SmartPtr<TCPChannel> channel;
    try {
        LOG4CXX_INFO(logger, "onAccept '" << peer.ToString() << "'");
        channel = new TCPChannel(socket);
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
    // Refused or failed: the socket is closed through the channel too, so that an acceptor
    // that kept the channel cannot close the descriptor number again later.
    if (channel) {
        channel->getSocket() = socketio::INVALID_SOCKET_HANDLE;
    }
    socketio::SocketClose(socket);
    socket = socketio::INVALID_SOCKET_HANDLE;
}
}  // namespace tcp
