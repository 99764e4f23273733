#include "socketio/socketfunctions.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>
#include <vector>

#include "socketio/connectabort.h"
#include "socketio/internalexception.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/socketexception.h"

namespace socketio {

namespace {

void setOption(unsigned int socket, int level, int name, const void * value, socklen_t length, const char * context) {
    if (setsockopt(static_cast<int>(socket), level, name, value, length) != 0) {
        throw SocketException(context);
    }
}

void setInt(unsigned int socket, int level, int name, int value, const char * context) {
    setOption(socket, level, name, &value, sizeof value, context);
}

int socketFamily(unsigned int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getsockname(static_cast<int>(socket), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        return AF_UNSPEC;
    }
    return address.ss_family;
}

// A blocking connect that a signal interrupts goes on in the background: wait for its end.
// `limited`: the socket was made non-blocking (SOCK_NONBLOCK) for the limit; it leaves
// blocking, as every caller expects it, unless `keepNonBlocking`.
bool connectBlocking(int fd, const sockaddr * address, socklen_t length, bool limited, bool keepNonBlocking) {
    const bool done = connect(fd, address, length) == 0;
    const int connectErrno = errno;
    if (limited && !keepNonBlocking) {
        fcntl(fd, F_SETFL, O_RDWR);
    }
    if (done) {
        return true;
    }
    if (connectErrno != EINTR && !(limited && connectErrno == EINPROGRESS)) {
        errno = connectErrno;
        return false;
    }
    pollfd entry{fd, POLLOUT, 0};
    for (;;) {
        const int left = ConnectTimeLeft();
        if (left == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        const int ready = poll(&entry, 1, left);
        if (ready > 0) {
            break;
        }
        if (ready < 0 && errno != EINTR) {
            return false;
        }
    }
    // Writable and neither hung up nor failed: connected, no need to ask.
    if ((entry.revents & (POLLHUP | POLLERR)) == 0) {
        return true;
    }
    // A stop shuts the connecting socket down, which ends the wait with no error recorded.
    sockaddr_storage peer{};
    socklen_t peerLength = sizeof peer;
    if (getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &peerLength) != 0 && errno == ENOTCONN) {
        int error = 0;
        socklen_t size = sizeof error;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
        errno = error != 0 ? error : ECONNABORTED;
        return false;
    }
    int error = 0;
    socklen_t size = sizeof error;
    if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0) {
        errno = error;
        return false;
    }
    return true;
}

unsigned int attempt(const std::vector<const addrinfo *> & entries, const socket_options & options,
                     ConnectedTo * connected) {
    for (const addrinfo * entry : entries) {
        const bool limited = ConnectTimeLimit() != 0;
        // Under a limit the connect runs non-blocking, so that a silent address (a dropped
        // SYN) cannot outlast it.
        int fd = socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | (limited ? SOCK_NONBLOCK : 0),
                        entry->ai_protocol);
        if (fd < 0) {
            continue;
        }
        ConnectAbort * abort = CurrentConnectAbort();
        if (abort != nullptr && !abort->track(fd)) {
            close(fd);
            errno = ECANCELED;
            return INVALID_SOCKET_HANDLE;
        }
        try {
            options.configureConnectedSocket(static_cast<unsigned int>(fd));
        } catch (...) {
            SocketClose(static_cast<unsigned int>(fd));
            throw;
        }
        if (connectBlocking(fd, entry->ai_addr, entry->ai_addrlen, limited, connected != nullptr)) {
            if (connected != nullptr) {
                connected->nonBlocking = limited;
                try {
                    connected->peer = net::URI::FromSockAddr(entry->ai_addr, entry->ai_addrlen, true, "tcp");
                } catch (...) {
                    SocketClose(static_cast<unsigned int>(fd));
                    throw;
                }
            }
            return static_cast<unsigned int>(fd);
        }
        SocketClose(static_cast<unsigned int>(fd));
        if (abort != nullptr && abort->aborted()) {
            errno = ECANCELED;
            return INVALID_SOCKET_HANDLE;
        }
    }
    return INVALID_SOCKET_HANDLE;
}

}  // namespace

void socket_options::configureConnectedSocket(unsigned int socket) const {
    if (linger) {
        // On, with time 0: a close drops unsent data and resets the connection at once.
        struct linger value{1, 0};
        setOption(socket, SOL_SOCKET, SO_LINGER, &value, sizeof value, "setsockopt[SO_LINGER]");
    }
    setInt(socket, SOL_SOCKET, SO_KEEPALIVE, keepAlive ? 1 : 0, "setsockopt[SO_KEEPALIVE]");
    setInt(socket, IPPROTO_TCP, TCP_NODELAY, noDelay ? 1 : 0, "setsockopt[TCP_NODELAY]");
    if (receiveBufferSize != 0) {
        setInt(socket, SOL_SOCKET, SO_RCVBUF, receiveBufferSize, "setsockopt[SO_RCVBUF]");
    }
    if (sendBufferSize != 0) {
        setInt(socket, SOL_SOCKET, SO_SNDBUF, sendBufferSize, "setsockopt[SO_SNDBUF]");
    }
}

void socket_options::configureListeningSocket(unsigned int socket) const {
    if (receiveBufferSize != 0) {
        setInt(socket, SOL_SOCKET, SO_RCVBUF, receiveBufferSize, "setsockopt[SO_RCVBUF]");
    }
    if (sendBufferSize != 0) {
        setInt(socket, SOL_SOCKET, SO_SNDBUF, sendBufferSize, "setsockopt[SO_SNDBUF]");
    }
    setInt(socket, IPPROTO_TCP, TCP_NODELAY, noDelay ? 1 : 0, "setsockopt[TCP_NODELAY]");
    if (socketFamily(socket) == AF_INET6) {
        setInt(socket, IPPROTO_IPV6, IPV6_V6ONLY, ipv6Only ? 1 : 0, "setsockopt[IPV6_V6ONLY]");
    }
    setInt(socket, SOL_SOCKET, SO_REUSEADDR, reuseAddress ? 1 : 0, "setsockopt[SO_REUSEADDR]");
    if (reusePort) {
        setInt(socket, SOL_SOCKET, SO_REUSEPORT, 1, "setsockopt[SO_REUSEPORT]");
    }
    // A connection accepted on this socket inherits these and the buffer sizes and TCP_NODELAY
    // above (Linux copies the listener's socket and TCP settings into each new connection), so
    // accepting one costs no further system call for its options.
    if (linger) {
        struct linger value{1, 0};
        setOption(socket, SOL_SOCKET, SO_LINGER, &value, sizeof value, "setsockopt[SO_LINGER]");
    }
    setInt(socket, SOL_SOCKET, SO_KEEPALIVE, keepAlive ? 1 : 0, "setsockopt[SO_KEEPALIVE]");
}

unsigned int detail::ConnectToAddresses(const addrinfo * addresses, const socket_options & options,
                                        ConnectedTo * connected) {
    std::vector<const addrinfo *> ipv4;
    std::vector<const addrinfo *> ipv6;
    for (const addrinfo * entry = addresses; entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == AF_INET) {
            ipv4.push_back(entry);
        } else if (entry->ai_family == AF_INET6) {
            ipv6.push_back(entry);
        }
    }
    const auto & first = options.ipv6Only ? ipv6 : ipv4;
    const auto & second = options.ipv6Only ? ipv4 : ipv6;
    unsigned int socket = attempt(first, options, connected);
    if (socket == INVALID_SOCKET_HANDLE) {
        socket = attempt(second, options, connected);
    }
    return socket;
}

unsigned int SocketConnect(const net::URI & uri, const socket_options & options, ConnectedTo * connected) {
    net::URI::SocketAddress addresses;
    uri.ToSockAddress(addresses, true);
    unsigned int socket = detail::ConnectToAddresses(addresses.get(), options, connected);
    if (socket == INVALID_SOCKET_HANDLE) {
        throw InternalException(("while connecting to " + uri.ToString()).c_str(), true);
    }
    return socket;
}

namespace {
// One descriptor kept in reserve for the whole process: at the descriptor limit a listening
// socket stays readable while every accept fails, and the reactor would wake for it again and
// again. Giving the reserve up for a moment lets the waiting connection be accepted and closed
// (the libev documentation's remedy, as muduo's Acceptor applies it).
// Opened when the module loads, before any limit can be near.
std::mutex g_spareMutex;
int g_spareDescriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);  // GUARDED_BY(g_spareMutex)
}  // namespace

void ShedConnectionWithSpareDescriptor(unsigned int listenSocket) {
    std::lock_guard<std::mutex> guard(g_spareMutex);
    if (g_spareDescriptor >= 0) {
        close(g_spareDescriptor);
        g_spareDescriptor = -1;
    }
    int fd = accept4(static_cast<int>(listenSocket), nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        close(fd);
    }
    g_spareDescriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

unsigned int SocketListen(const net::URI & uri, const socket_options & options) {
    net::URI::SocketAddress addresses;
    uri.ToSockAddress(addresses, true);
    int wanted = uri.hostIsAnyInterface() || options.ipv6Only ? AF_INET6 : AF_INET;
    const addrinfo * chosen = addresses.get();
    for (const addrinfo * entry = addresses.get(); entry != nullptr; entry = entry->ai_next) {
        if (entry->ai_family == wanted) {
            chosen = entry;
            break;
        }
    }
    int fd = chosen == nullptr ? -1 : socket(chosen->ai_family, chosen->ai_socktype | SOCK_CLOEXEC, chosen->ai_protocol);
    if (fd < 0) {
        throw InternalException(("while creating socket for " + uri.ToString()).c_str(), true);
    }
    // A socket that cannot be set up or bound is closed here: the caller never sees it.
    try {
        options.configureListeningSocket(static_cast<unsigned int>(fd));
    } catch (...) {
        close(fd);
        throw;
    }
    if (bind(fd, chosen->ai_addr, chosen->ai_addrlen) != 0) {
        close(fd);
        throw InternalException(("while binding to " + uri.ToString()).c_str(), true);
    }
    if (listen(fd, options.backlog) != 0) {
        int error = errno;
        close(fd);
        throw InternalException(("while listening on " + uri.ToString() + ": " + SystemErrorText(error)).c_str(), true);
    }
    return static_cast<unsigned int>(fd);
}

unsigned int SocketAccept(unsigned int listenSocket, net::URI & peer, const socket_options & options) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    int fd;
    do {
        fd = accept4(static_cast<int>(listenSocket), reinterpret_cast<sockaddr *>(&address), &length,
                     SOCK_CLOEXEC | SOCK_NONBLOCK);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
        ShedConnectionWithSpareDescriptor(listenSocket);
        errno = EMFILE;
    }
    if (fd < 0) {
        return INVALID_SOCKET_HANDLE;
    }
    static_cast<void>(options);  // set on the listening socket, and inherited from it
    try {
        peer = net::URI::FromSockAddr(reinterpret_cast<sockaddr *>(&address), length, true, "tcp");
    } catch (...) {
        close(fd);
        throw;
    }
    return static_cast<unsigned int>(fd);
}

net::URI SocketLocalURI(unsigned int socket, bool unmapIPv4, const char * scheme) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    // A peer that reset at once leaves no address: the system's cause is the useful text.
    if (getsockname(static_cast<int>(socket), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        throw SocketException("getsockname");
    }
    return net::URI::FromSockAddr(reinterpret_cast<sockaddr *>(&address), length, unmapIPv4, scheme);
}

net::URI SocketPeerURI(unsigned int socket, const char * scheme) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (getpeername(static_cast<int>(socket), reinterpret_cast<sockaddr *>(&address), &length) != 0) {
        throw SocketException("getpeername");
    }
    return net::URI::FromSockAddr(reinterpret_cast<sockaddr *>(&address), length, true, scheme);
}

bool IsAddressLiteral(const char * host) {
    unsigned char address[sizeof(in6_addr)];
    return host != nullptr && (inet_pton(AF_INET, host, address) == 1 || inet_pton(AF_INET6, host, address) == 1);
}

std::string SocketPeerAddress(unsigned int socket) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getpeername(static_cast<int>(socket), reinterpret_cast<sockaddr *>(&address), &length);
    char host[1025] = {};
    char service[32] = {};
    int rc = getnameinfo(reinterpret_cast<sockaddr *>(&address), length, host, sizeof host, service, sizeof service,
                         NI_NUMERICHOST | NI_NUMERICSERV);
    if (rc != 0) {
        errno = rc == EAI_SYSTEM ? errno : EINVAL;
    }
    std::string text = host;
    if (text.compare(0, 7, "::ffff:") == 0) {
        text.erase(0, 7);
    }
    return text + ":" + service;
}

bool WaitWithinConnectTime(unsigned int socket, short events) {
    pollfd entry{static_cast<int>(socket), events, 0};
    for (;;) {
        const int left = ConnectTimeLeft();
        if (left < 0) {
            return true;
        }
        if (left == 0) {
            errno = ETIMEDOUT;
            return false;
        }
        const int ready = poll(&entry, 1, left);
        // Ready, or failed or shut down: the call that follows tells which.
        if (ready > 0 || (ready < 0 && errno != EINTR)) {
            return true;
        }
    }
}

void SocketClose(unsigned int socket) {
    if (ConnectAbort * abort = CurrentConnectAbort()) {
        abort->forget(static_cast<int>(socket));
    }
    close(static_cast<int>(socket));
}

}  // namespace socketio
