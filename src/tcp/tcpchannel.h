// tcp::TCPChannel: the plain channel over one connected socket. It adds nothing to the
// byte stream and has no buffer: reactor events become handler calls, reads and writes go
// straight to the socket. Kept alive by the reactor while registered and by its owner's
// references; it does not own its handler's thread rules: callbacks run on the reactor thread.
// Its descriptor is closed once, by the reactor when the connection ends or by close(), through
// closeSocket, which a send on another thread excludes.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "corvane/channel.h"
#include "corvane/uri.h"
#include "socketio/halfclose.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/readinterest.h"
#include "socketio/selectreactor.h"

namespace tcp {

class TCPChannel : public net::IChannel,
                   public socketio::ISelectEventSubscriber,
                   public net::IReadDataStream,
                   public net::IWriteDataStream,
                   public socketio::IHalfClose {
public:
    // Takes a connected socket and switches it to non-blocking mode. The destructor closes
    // nothing: close() is the owner's duty (or the reactor's, when the connection ends).
    // `home`: the reactor an accepted channel will be registered with, known before its
    // acceptor sees it, so that a close() on another thread before the registration
    // synchronises with it.
    // `peer` and `local`: the connection's addresses where the caller knows them already
    // (an accepted connection's peer, a server's bound address); the others are asked of the
    // socket. `nonBlocking`: the socket is in non-blocking mode already.
    explicit TCPChannel(unsigned int socket, socketio::SelectReactor * home = nullptr, const net::URI * peer = nullptr,
                        const net::URI * local = nullptr, bool nonBlocking = false);
    ~TCPChannel() override;

    const char * getLocalURI() const override { return m_localURI.c_str(); }
    const char * getPeerURI() const override { return m_peerURI.c_str(); }
    const char * getDescription() const override { return m_description.c_str(); }
    // Any thread; on another thread it waits until the reactor has let go of the socket,
    // then closes it. No handler call results. Harmless when repeated.
    void close() override;
    net::IWriteDataStream * getWriteDataStream() override { return this; }
    net::IChannelHandler * getChannelHandler() const override { return m_channelHandler.get(); }
    // Any thread, no lock: replacing the handler during a dispatch is the caller's risk.
    // A handler that implements socketio::IReadInterest is asked before each wait whether
    // it wants read events.
    void setChannelHandler(net::IChannelHandler * handler) override;

    // Reactor thread only.
    short getEventMask() noexcept override;
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_socket; }
    // Under the reactor's lock; waits for a send of another thread that is using the number.
    void closeSocket() override;
    socketio::SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    std::uint64_t getLastEventTime() const override { return m_lastEventTime; }
    bool interestAnnounced() const override { return m_interestAnnounced.load(); }

    // The socket's recv, result as it stands: negative also when no data is waiting.
    int recv(int length, void * buffer) override;
    // Any thread. Bytes taken; 0 when the socket buffer is full; -1 when the send failed or
    // the socket is closed already.
    int send(int length, const void * buffer) override;
    // Any thread. shutdown(2) SHUT_WR: the peer reads its end after the bytes sent so far.
    bool shutdownWrite() override;
    // Before the channel runs: false where the socket was set up without the abortive linger
    // (socket_options::linger off), so that an orderly end need not turn it off.
    void setAbortiveLinger(bool on) { m_abortiveLinger = on; }

private:
    // Written by closeSocket under m_socketLock (and the reactor's lock); read under either.
    unsigned int m_socket;
    // Keeps a send of a host thread and the close of the number apart: without it the send
    // could reach a connection that took the number after the close.
    std::mutex m_socketLock;
    Common::SmartPtr<net::IChannelHandler> m_channelHandler;
    // The handler's read-interest face, if it has one; found when the handler is set.
    socketio::IReadInterest * m_readInterest;
    // The handler's half-close face, if it has one; found when the handler is set.
    socketio::IReadEnd * m_readEnd;
    // Whether the handler is one that announces its changes of wishes (set with the handler).
    std::atomic<bool> m_interestAnnounced{false};
    // Reactor thread only: the peer's FIN was read and the handler kept the channel for
    // writing. No read events any more: poll would report the end again and again.
    bool m_readEnded;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    // The reactor this channel was first registered with, kept after removal so that close()
    // on a host thread can synchronise with the reactor ending the channel.
    Common::SmartPtr<socketio::SelectReactor> m_homeReactor;
    std::uint64_t m_lastEventTime;
    std::string m_localURI;
    std::string m_peerURI;
    std::string m_description;
    std::atomic<bool> m_sendFailureLogged;
    // Set by close(): a channel its owner closed before the reactor took it in calls no handler.
    std::atomic<bool> m_closedByOwner;
    // Set by the close() that lets go of the handler.
    std::atomic<bool> m_handlerReleased;
    bool m_abortiveLinger = true;
    bool m_handlerFailed = false;  // reactor thread only: the handler threw from its mask
};

}  // namespace tcp
