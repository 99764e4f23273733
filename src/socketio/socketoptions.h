// socketio::socket_options: each transport's own copy of the socket settings, and the two
// operations that apply them to a socket. Caller's thread; reentrant.
#pragma once

#include "corvane/socketoptions.h"

namespace socketio {

struct socket_options {
    bool linger = true;
    bool keepAlive = true;
    int receiveBufferSize = 262144;
    int sendBufferSize = 262144;
    bool noDelay = true;
    bool reuseAddress = true;
    bool ipv6Only = false;
    int backlog = 5;
    bool reusePort = false;

    socket_options() = default;
    // Field by field, the same fields in the same order.
    explicit socket_options(const net::SocketOptions & options)
        : linger(options.linger), keepAlive(options.keepAlive), receiveBufferSize(options.receiveBufferSize),
          sendBufferSize(options.sendBufferSize), noDelay(options.noDelay), reuseAddress(options.reuseAddress),
          ipv6Only(options.ipv6Only), backlog(options.backlog), reusePort(options.reusePort) {}

    // For a connected or accepted socket: SO_LINGER (when linger), SO_KEEPALIVE,
    // TCP_NODELAY, SO_RCVBUF and SO_SNDBUF (when not 0), in this order. The first failure
    // throws socketio::SocketException and no later option is set.
    void configureConnectedSocket(unsigned int socket) const;
    // For a socket before bind: SO_RCVBUF, SO_SNDBUF (when not 0), TCP_NODELAY, IPV6_V6ONLY
    // (IPv6 sockets only: Linux refuses it on IPv4 ones), SO_REUSEADDR, SO_REUSEPORT (when
    // reusePort), then SO_LINGER (when linger) and SO_KEEPALIVE. Every connection accepted on
    // it inherits the connected socket's settings from these.
    void configureListeningSocket(unsigned int socket) const;
};

}  // namespace socketio
