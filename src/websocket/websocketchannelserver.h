// websocket::WebSocketChannelServer: the server side of "ws" and "wss". It owns no socket: it
// is the acceptor of a TCP or TLS channel server below and lays a server-role
// websocket::WSChannel over every connection accepted there, which it hands to the user's
// acceptor. The reactor holds the server below, whose acceptor reference keeps this one alive.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "corvane/channel.h"
#include "socketio/socketoptions.h"
#include "websocket/keepalive.h"

namespace websocket {

class WebSocketChannelServer : public net::IChannelServer, public net::IChannelAcceptor {
public:
    WebSocketChannelServer(net::IChannelAcceptor * acceptor, bool secure, const socketio::socket_options & options);
    // Before the server below starts: passed to each accepted channel (WSChannel::setMessageOptions).
    void setMessageOptions(bool textMessages, std::vector<std::string> allowedOrigins);
    // Before the server below starts: PingInterval and PingTimeout of each accepted channel.
    void setKeepAlive(const KeepAlive::Settings & settings) { m_KeepAlive = settings; }
    // Before the server below starts: HandshakeTimeout of each accepted channel (0: none).
    void setHandshakeTimeout(std::uint64_t milliseconds) { m_HandshakeTimeout = milliseconds; }

    // After the server below has started; `uri` is what getLocalURI answers.
    void setServer(net::IChannelServer * server, const char * uri);

    const char * getLocalURI() const override { return m_strLocalURI.c_str(); }
    // Any thread; stops the server below. Accepted channels live on. Harmless when repeated.
    void close() override;
    // Reactor thread, from the server below. Never throws; null refuses the connection.
    net::IChannelHandler * accept(net::IChannel * underlying) override;

private:
    Common::SmartPtr<net::IChannelAcceptor> m_Acceptor;
    bool m_bSecure;
    socketio::socket_options m_SocketOptions;
    Common::SmartPtr<net::IChannelServer> m_Server;
    std::string m_strLocalURI;
    bool m_bTextMessages = false;
    std::vector<std::string> m_AllowedOrigins;
    KeepAlive::Settings m_KeepAlive;
    std::uint64_t m_HandshakeTimeout = 0;
};

}  // namespace websocket
