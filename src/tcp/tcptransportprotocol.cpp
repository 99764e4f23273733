#include "tcp/tcptransportprotocol.h"

#include "common/handover.h"
#include "common/logging.h"
#include "corvane/uri.h"
#include "net/optionmap.h"
#include "proxy/proxysocketconnect.h"
#include "socketio/internalexception.h"
#include "socketio/selectreactor.h"
#include "socketio/socketfunctions.h"
#include "tcp/tcpchannel.h"
#include "tcp/tcpchannelserver.h"

namespace tcp {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tcp.TCPTransportProtocol");

const char * text(const char * value) {
    return value != nullptr ? value : "";
}
}  // namespace

TCPTransportProtocol::TCPTransportProtocol(const socketio::socket_options & options) : m_socketOptions(options) {}

TCPTransportProtocol::~TCPTransportProtocol() = default;

ProxyResolver::IResolver * TCPTransportProtocol::proxyResolver() {
    Common::ScopedLock guard(&m_proxyResolverLock);
    if (!m_proxyResolver) {
        m_proxyResolver.reset(ProxyResolver::createResolver());
    }
    // The resolver itself may serve several threads at once.
    return m_proxyResolver.get();
}

net::IChannel * TCPTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                  net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel(uri='" << text(uri) << "', options='" << text(options) << "')");
    auto * selectReactor = dynamic_cast<socketio::SelectReactor *>(reactor);
    net::URI parsedUri = net::URI::FromString(text(uri));
    net::OptionMap optionMap;
    optionMap.parse(options);
    unsigned int socket;
    // A direct connection tells where it went and may stay non-blocking: the channel asks
    // the socket neither.
    const bool direct = !net::OptionMap::isTrue(optionMap.get("EnableProxy", "false"));
    socketio::ConnectedTo connected;
    if (direct) {
        socket = socketio::SocketConnect(parsedUri, m_socketOptions, &connected);
    } else {
        socket = socketio::SocketConnectAttemptProxy(parsedUri, proxyResolver(), m_socketOptions);
    }
    Common::SmartPtr<TCPChannel> channel;
    try {
        channel = direct ? new TCPChannel(socket, nullptr, &connected.peer, nullptr, connected.nonBlocking)
                         : new TCPChannel(socket);
        channel->setAbortiveLinger(m_socketOptions.linger);
        channel->setChannelHandler(handler);
        if (selectReactor == nullptr) {
            throw socketio::InternalException("openChannel needs a reactor made by this module", true);
        }
        selectReactor->registerSubscriber(channel.get());
    } catch (...) {
        // Nobody else will ever close this socket.
        socketio::SocketClose(socket);
        if (channel) {
            channel->getSocket() = socketio::INVALID_SOCKET_HANDLE;
            channel->setChannelHandler(nullptr);
        }
        throw;
    }
    // The reactor may drop the channel at once (a peer that closed right after connecting):
    // the caller's reference is kept until it has taken the pointer.
    Common::KeepForCaller(channel.get());
    return channel.get();
}

net::IChannelServer * TCPTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                               net::IChannelAcceptor * acceptor,
                                                               const char * options) {
    LOG4CXX_INFO(logger, "startChannelServer(uri='" << text(uri) << "', options='" << text(options) << "')");
    auto * selectReactor = dynamic_cast<socketio::SelectReactor *>(reactor);
    net::URI parsedUri = net::URI::FromString(text(uri));
    unsigned int socket = socketio::SocketListen(parsedUri, m_socketOptions);
    Common::SmartPtr<TCPChannelServer> server;
    try {
        server = new TCPChannelServer(socket, acceptor, m_socketOptions);
        if (selectReactor == nullptr) {
            throw socketio::InternalException("startChannelServer needs a reactor made by this module", true);
        }
        selectReactor->registerSubscriber(server.get());
    } catch (...) {
        socketio::SocketClose(socket);
        if (server) {
            server->getSocket() = socketio::INVALID_SOCKET_HANDLE;
        }
        throw;
    }
    Common::KeepForCaller(server.get());
    return server.get();
}

}  // namespace tcp
