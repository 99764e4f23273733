// net::SocketOptions: the socket settings that a host gives to createChannelFactory.
// Copied by value; each transport keeps its own copy.
#pragma once

namespace net {

struct SocketOptions {
    bool linger = true;               // SO_LINGER on, time 0: close drops unsent data and resets
    bool keepAlive = true;            // SO_KEEPALIVE on connected sockets
    int receiveBufferSize = 262144;   // SO_RCVBUF in bytes; 0 keeps the system's value
    int sendBufferSize = 262144;      // SO_SNDBUF in bytes; 0 keeps the system's value
    bool noDelay = true;              // TCP_NODELAY
    bool reuseAddress = true;         // SO_REUSEADDR on listening sockets
    bool ipv6Only = false;            // IPV6_V6ONLY on listening sockets; also tries IPv6 first on connect
    int backlog = 5;                  // second argument of listen
    // SO_REUSEPORT on listening sockets: several channel servers or tunnels, each on a reactor
    // of its own, listen on one port and the kernel spreads the connections among them.
    bool reusePort = false;
};

}  // namespace net
