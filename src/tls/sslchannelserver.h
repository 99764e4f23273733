// ssl::SSLChannelServer: owns a listening socket and one set-up TLS context. Each read event
// accepts one connection, binds a fresh SSL to it, wraps both in an ssl::SSLChannel whose
// handshake then runs under the reactor, asks the acceptor for a handler and registers the
// channel. Holds its protocol (and with it the OpenSSL library guard), its acceptor and, while
// registered, its reactor.
#pragma once

#include <cstdint>
#include <string>

#include "corvane/channel.h"
#include "corvane/uri.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/selectreactor.h"
#include "socketio/socketoptions.h"
#include "tls/sslcontext.h"

namespace ssl {

class SSLTransportProtocol;

class SSLChannelServer : public net::IChannelServer, public socketio::ISelectEventSubscriber {
public:
    // Moves `context`, set up already, in. The destructor closes no socket.
    SSLChannelServer(unsigned int socket, SSLTransportProtocol * protocol, tools::SSLContext & context,
                     net::IChannelAcceptor * acceptor, const socketio::socket_options & options);
    ~SSLChannelServer() override;

    const char * getLocalURI() const override { return m_localURI.c_str(); }
    // Any thread; stops listening. Channels already accepted live on: each SSL holds its own
    // reference to the context. Harmless when repeated.
    void close() override;

    // Reactor thread only.
    short getEventMask() noexcept override { return socketio::SELECT_EVENT_READ; }
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_socket; }
    socketio::SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    // Servers are never swept.
    std::uint64_t getLastEventTime() const override { return 0; }

    // Before registration: the HandshakeTimeout of every channel accepted (0: none).
    void setHandshakeTimeout(std::uint64_t milliseconds) { m_handshakeTimeout = milliseconds; }

    // Reactor thread. Any failure closes only this connection.
    void onAccept(const net::URI & peer, unsigned int socket) noexcept;

private:
    unsigned int m_socket;
    Common::SmartPtr<SSLTransportProtocol> m_protocol;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    // The reactor this server was registered with, kept after close(): each accepted channel
    // belongs to it, also one accepted while the acceptor closes the server.
    Common::SmartPtr<socketio::SelectReactor> m_homeReactor;
    tools::SSLContext m_context;
    Common::SmartPtr<net::IChannelAcceptor> m_acceptor;
    socketio::socket_options m_socketOptions;
    std::string m_localURI;
    std::uint64_t m_handshakeTimeout = 0;
    bool m_bAcceptFailing = false;  // reactor thread only: the last accept failed
};

}  // namespace ssl
