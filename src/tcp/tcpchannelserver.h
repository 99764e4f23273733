// tcp::TCPChannelServer: owns a listening socket. Each read event accepts one connection,
// makes a tcp::TCPChannel, asks the acceptor for a handler and registers the channel with
// the same reactor. Holds its acceptor and, while registered, its reactor.
#pragma once

#include <memory>

#include <cstdint>
#include <string>

#include <log4cxx/logger.h>

#include "corvane/channel.h"
#include "corvane/uri.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/selectreactor.h"
#include "socketio/socketoptions.h"

namespace tcp {

// The accept step of a listening subscriber's read event, shared by the channel servers of
// every transport: the new socket with `options` applied and `peer` filled (scheme "tcp"), or
// the invalid handle once the failure is logged at Warn to `serverLogger`, once per burst of
// failures (`failing`, the server's own flag, tells whether the last accept failed).
// Reactor thread.
unsigned int AcceptConnection(unsigned int listenSocket, net::URI & peer, const socketio::socket_options & options,
                              const log4cxx::LoggerPtr & serverLogger, bool & failing) noexcept;

class TCPChannelServer : public net::IChannelServer, public socketio::ISelectEventSubscriber {
public:
    TCPChannelServer(unsigned int socket, net::IChannelAcceptor * acceptor, const socketio::socket_options & options);
    ~TCPChannelServer() override;

    const char * getLocalURI() const override { return m_localURI.c_str(); }
    // Any thread; stops listening. Channels already accepted live on. Harmless when repeated.
    void close() override;

    // Reactor thread only.
    short getEventMask() noexcept override { return socketio::SELECT_EVENT_READ; }
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_socket; }
    socketio::SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    // Servers are never swept.
    std::uint64_t getLastEventTime() const override { return 0; }

private:
    // Reactor thread. Any failure closes only this connection and leaves `socket` invalid.
    void onAccept(unsigned int & socket, const net::URI & peer) noexcept;

    unsigned int m_socket;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    Common::SmartPtr<socketio::SelectReactor> m_homeReactor;  // as in TCPChannel
    Common::SmartPtr<net::IChannelAcceptor> m_acceptor;
    socketio::socket_options m_socketOptions;
    std::string m_localURI;
    // The local address of every connection accepted here, when the server listens on one
    // address rather than on all of them; else asked of each connection.
    std::unique_ptr<net::URI> m_connectionLocal;
    bool m_bAcceptFailing;  // reactor thread only: the last accept failed
};

// Reactor thread: tells the handler of a connection that was accepted but could not run that
// it ended (onError), logging what it throws. For every channel server's accept path.
void TellHandlerOfFailure(net::IChannelHandler * handler) noexcept;

}  // namespace tcp
