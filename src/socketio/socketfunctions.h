// The plain functions that turn a URI and settings into a socket. Caller's thread; they
// block and are reentrant. Every socket they return is close-on-exec, and in blocking mode
// unless said otherwise.
#pragma once

#include <netdb.h>

#include <string>

#include "corvane/uri.h"
#include "socketio/socketoptions.h"

namespace socketio {

// Resolves the host, then tries every IPv4 address before any IPv6 one (the other way round
// with options.ipv6Only), within the calling thread's ConnectTimeout if one is set (see
// socketio::ConnectDeadlineScope), else with no time limit of its own. Throws
// socketio::InternalException "while connecting to <uri>" when no address takes the connection.
// With `connected`, for a caller that hands the socket straight to a non-blocking channel:
// the socket stays non-blocking if it was made so for the limit (connected->nonBlocking), and
// connected->peer is the address that took the connection, so that nobody asks the socket.
struct ConnectedTo {
    bool nonBlocking = false;
    net::URI peer;
};
unsigned int SocketConnect(const net::URI & uri, const socket_options & options, ConnectedTo * connected = nullptr);

// Caller's thread, before a blocking call on `socket` while a connection is opened: waits
// until it is ready for `events` (POLLIN, POLLOUT) within the calling thread's ConnectTimeout.
// False once that has passed (errno ETIMEDOUT); true at once without a limit, since the
// blocking call then waits by itself.
bool WaitWithinConnectTime(unsigned int socket, short events);

// Binds one address of the URI (a wildcard host prefers IPv6, which also takes IPv4 unless
// ipv6Only) and listens. Throws "while creating socket for <uri>", "while binding to <uri>" or
// "while listening on <uri>: <the system's text>".
unsigned int SocketListen(const net::URI & uri, const socket_options & options);

// The invalid handle when accept fails; `peer` is then untouched. The peer's scheme is "tcp".
// At the descriptor limit (EMFILE, ENFILE) the waiting connection is accepted with the spare
// descriptor and closed at once, so that the listening socket does not stay readable; errno is
// then EMFILE. The new socket's options are those it inherits from a listening socket that
// SocketListen set up with the same `options`: none is set on it again. It is non-blocking.
unsigned int SocketAccept(unsigned int listenSocket, net::URI & peer, const socket_options & options);

// Gives the process's spare descriptor up for a moment to accept and close one waiting
// connection; SocketAccept's remedy at the descriptor limit.
void ShedConnectionWithSpareDescriptor(unsigned int listenSocket);

// The socket's own address; channels pass unmapIPv4 true, servers false.
net::URI SocketLocalURI(unsigned int socket, bool unmapIPv4, const char * scheme);
net::URI SocketPeerURI(unsigned int socket, const char * scheme);

// Whether `host` is an IPv4 or IPv6 address (no name to resolve).
bool IsAddressLiteral(const char * host);

// "host:port" of the peer, numeric, with IPv4-mapped addresses as plain IPv4; for log lines.
std::string SocketPeerAddress(unsigned int socket);

// Closes a socket descriptor; the caller then stores the invalid handle.
void SocketClose(unsigned int socket);

namespace detail {
// The connect walk over an already resolved list: the list of the preferred family first,
// the other only if the first gave no socket. The invalid handle when none connected.
unsigned int ConnectToAddresses(const addrinfo * addresses, const socket_options & options,
                                ConnectedTo * connected = nullptr);
}  // namespace detail

}  // namespace socketio
