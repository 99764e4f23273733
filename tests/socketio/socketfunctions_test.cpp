#include "socketio/socketfunctions.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "expect.h"
#include "logcapture.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/socketexception.h"
#include "sockets.h"

namespace {

using corvane_test::thrownText;
using corvane_test::waitFor;

using socketio::socket_options;

int intOption(unsigned int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    getsockopt(static_cast<int>(fd), level, name, &value, &length);
    return value;
}

unsigned short localPort(unsigned int fd) {
    return socketio::SocketLocalURI(fd, true, "tcp").getPort();
}

TEST(SocketOptions, ConnectedSocketGetsEachOptionAsConfigured) {
    socket_options options;
    options.receiveBufferSize = 32768;
    options.sendBufferSize = 0;
    unsigned int server = socketio::SocketListen(net::URI::FromString("tcp://127.0.0.1:0"), options);
    unsigned int client = socketio::SocketConnect(
        net::URI::FromString("tcp://127.0.0.1:" + std::to_string(localPort(server))), options);

    net::URI peer = net::URI::FromString("tcp://");
    // The accepted end has the same options, inherited from the listening socket.
    unsigned int accepted = socketio::SocketAccept(server, peer, options);
    ASSERT_NE(accepted, socketio::INVALID_SOCKET_HANDLE);

    linger value{};
    socklen_t length = sizeof value;
    for (unsigned int end : {client, accepted}) {
        SCOPED_TRACE(end == client ? "connected" : "accepted");
        length = sizeof value;
        getsockopt(static_cast<int>(end), SOL_SOCKET, SO_LINGER, &value, &length);
        EXPECT_EQ(value.l_onoff, 1);
        EXPECT_EQ(value.l_linger, 0);
        EXPECT_EQ(intOption(end, SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(intOption(end, IPPROTO_TCP, TCP_NODELAY), 1);
    }

    // The kernel reports its own reading of a buffer size: compare with a socket set by hand.
    int reference = socket(AF_INET, SOCK_STREAM, 0);
    int size = 32768;
    setsockopt(reference, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    EXPECT_EQ(intOption(client, SOL_SOCKET, SO_RCVBUF), intOption(static_cast<unsigned>(reference), SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(intOption(accepted, SOL_SOCKET, SO_RCVBUF), intOption(static_cast<unsigned>(reference), SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(intOption(server, SOL_SOCKET, SO_RCVBUF), intOption(static_cast<unsigned>(reference), SOL_SOCKET, SO_RCVBUF));
    EXPECT_EQ(intOption(server, SOL_SOCKET, SO_REUSEADDR), 1);
    close(reference);
    socketio::SocketClose(accepted);
    socketio::SocketClose(client);
    socketio::SocketClose(server);
}

TEST(SocketOptions, FailureNamesTheCallAndTheSystemErrorWithoutLogging) {
    corvane_test::LogCapture log;
    int pipeEnds[2];
    ASSERT_EQ(pipe(pipeEnds), 0);
    socket_options options;
    EXPECT_EQ(thrownText([&] { options.configureConnectedSocket(static_cast<unsigned>(pipeEnds[0])); }),
              "setsockopt[SO_LINGER] failed with error code '88' : Socket operation on non-socket");
    EXPECT_EQ(thrownText([&] { options.configureListeningSocket(static_cast<unsigned>(pipeEnds[0])); }),
              "setsockopt[SO_RCVBUF] failed with error code '88' : Socket operation on non-socket");
    EXPECT_EQ(log.events().size(), 0u);
    close(pipeEnds[0]);
    close(pipeEnds[1]);
}

// A hand-made address list, as getaddrinfo would give for a host with both families.
struct AddressList {
    std::vector<sockaddr_storage> storage;
    std::vector<addrinfo> entries;

    void add(int family, unsigned short port) {
        sockaddr_storage address{};
        if (family == AF_INET6) {
            auto * v6 = reinterpret_cast<sockaddr_in6 *>(&address);
            v6->sin6_family = AF_INET6;
            v6->sin6_addr = in6addr_loopback;
            v6->sin6_port = htons(port);
        } else {
            auto * v4 = reinterpret_cast<sockaddr_in *>(&address);
            v4->sin_family = AF_INET;
            v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            v4->sin_port = htons(port);
        }
        storage.push_back(address);
        addrinfo entry{};
        entry.ai_family = family;
        entry.ai_socktype = SOCK_STREAM;
        entry.ai_addrlen = family == AF_INET6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        entries.push_back(entry);
    }
    const addrinfo * head() {
        for (size_t i = 0; i < entries.size(); ++i) {
            entries[i].ai_addr = reinterpret_cast<sockaddr *>(&storage[i]);
            entries[i].ai_next = i + 1 < entries.size() ? &entries[i + 1] : nullptr;
        }
        return entries.data();
    }
};

TEST(SocketConnect, TriesEveryAddressOfThePreferredFamilyFirst) {
    socket_options options;
    unsigned int v4 = socketio::SocketListen(net::URI::FromString("tcp://127.0.0.1:0"), options);
    unsigned int v6 = socketio::SocketListen(net::URI::FromString("tcp://[::1]:0"), options);
    corvane_test::ScopedBoundPort refused4;
    corvane_test::ScopedBoundPort refused6(AF_INET6);

    auto peerFamily = [](unsigned int fd) {
        return socketio::SocketPeerURI(fd, "tcp").getHost() == "::1" ? AF_INET6 : AF_INET;
    };
    {
        AddressList list;
        list.add(AF_INET6, localPort(v6));
        list.add(AF_INET, refused4.port());
        list.add(AF_INET, localPort(v4));
        unsigned int fd = socketio::detail::ConnectToAddresses(list.head(), options);
        ASSERT_NE(fd, socketio::INVALID_SOCKET_HANDLE);
        EXPECT_EQ(peerFamily(fd), AF_INET);
        EXPECT_EQ(socketio::SocketPeerURI(fd, "tcp").getPort(), localPort(v4));
        close(static_cast<int>(fd));
    }
    options.ipv6Only = true;
    {
        AddressList list;
        list.add(AF_INET, localPort(v4));
        list.add(AF_INET6, refused6.port());
        list.add(AF_INET6, localPort(v6));
        unsigned int fd = socketio::detail::ConnectToAddresses(list.head(), options);
        EXPECT_EQ(peerFamily(fd), AF_INET6);
        close(static_cast<int>(fd));
    }
    {
        AddressList onlyIPv4;
        onlyIPv4.add(AF_INET, localPort(v4));
        unsigned int fd = socketio::detail::ConnectToAddresses(onlyIPv4.head(), options);
        EXPECT_EQ(peerFamily(fd), AF_INET) << "the second list is tried when the first gave nothing";
        close(static_cast<int>(fd));
    }
    socketio::SocketClose(v4);
    socketio::SocketClose(v6);
}

TEST(SocketListen, WildcardListensDualStackAndPeersReadAsIPv4) {
    socket_options options;
    unsigned int server = socketio::SocketListen(net::URI::FromString("tcp://:0"), options);
    net::URI local = socketio::SocketLocalURI(server, false, "tcp");
    EXPECT_EQ(local.getHost(), "::");
    unsigned int client =
        socketio::SocketConnect(net::URI::FromString("tcp://127.0.0.1:" + std::to_string(local.getPort())), options);
    net::URI peer = net::URI::FromString("tcp://untouched");
    unsigned int accepted = socketio::SocketAccept(server, peer, options);
    ASSERT_NE(accepted, socketio::INVALID_SOCKET_HANDLE);
    EXPECT_EQ(peer.getHost(), "127.0.0.1");
    EXPECT_EQ(peer.getPort(), localPort(client));
    EXPECT_EQ(socketio::SocketPeerAddress(accepted), "127.0.0.1:" + std::to_string(localPort(client)));
    EXPECT_EQ(socketio::SocketLocalURI(accepted, true, "ssl").ToString(),
              "ssl://127.0.0.1:" + std::to_string(local.getPort()));

    // accept on a socket that does not listen gives the invalid handle and leaves peer alone.
    EXPECT_EQ(socketio::SocketAccept(client, peer, options), socketio::INVALID_SOCKET_HANDLE);
    EXPECT_EQ(peer.getHost(), "127.0.0.1");
    for (unsigned int fd : {server, client, accepted}) {
        socketio::SocketClose(fd);
    }
}

}  // namespace
