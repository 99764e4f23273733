// ssl::SSLChannel: a connected TLS socket driven by the select reactor. Every byte goes through
// its OpenSSL connection; nothing is buffered here. A client channel starts with the handshake
// done (the protocol ran it on the caller's thread); an accepted one finishes it under the
// reactor. Kept alive by the reactor while registered and by its owner's references; handler
// callbacks run on the reactor thread.
//
// One lock of the channel guards the OpenSSL connection (OpenSSL allows no two threads on one
// SSL), the handler reference and the handshake state. It is a leaf lock: held only around
// OpenSSL calls and member access, never across a handler callback.
//
// The descriptor is closed once: by close(), by the server that refuses the channel, or by the
// reactor (when onEvents answers false, or by its sweep of silent sockets, which closes first
// and tells the channel afterwards), always through closeSocket, which takes the channel's lock.
// No TLS I/O (a record, close_notify, a peek) goes through the number after that close, since
// the kernel may have given it to another connection: every OpenSSL call runs under the same
// lock and looks at the handle first, and the SSL is freed without a word to the peer once the
// socket is gone.
#pragma once

#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "common/lock.h"
#include "corvane/channel.h"
#include "socketio/halfclose.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/readinterest.h"
#include "socketio/selectreactor.h"

namespace ssl {

class SSLChannel : public net::IChannel,
                   public socketio::ISelectEventSubscriber,
                   public net::IReadDataStream,
                   public net::IWriteDataStream,
                   public socketio::IHalfClose {
public:
    // Takes over the connected socket (switched to non-blocking here) and the SSL bound to it.
    // The URIs carry the scheme "ssl", whatever the channel was opened as. The destructor frees
    // neither: the connection ends by close(), or by the reactor when the channel reports its end.
    // `home`: the reactor the channel will be registered with, known before anyone else sees the
    // channel, so that a close() or send() on another thread synchronises with that reactor
    // closing the socket.
    SSLChannel(unsigned int socket, SSL * ssl, bool handshakeDone, socketio::SelectReactor * home = nullptr);
    ~SSLChannel() override;

    const char * getLocalURI() const override { return m_localURI.c_str(); }
    const char * getPeerURI() const override { return m_peerURI.c_str(); }
    const char * getDescription() const override { return m_description.c_str(); }
    // Any thread: sends close_notify if the handshake was done, frees the connection, leaves the
    // reactor (waiting for it on another thread) and closes the socket. No handler call
    // results. Harmless when repeated.
    void close() override;
    net::IWriteDataStream * getWriteDataStream() override { return this; }
    net::IChannelHandler * getChannelHandler() const override;
    // Any thread; null is accepted.
    void setChannelHandler(net::IChannelHandler * handler) override;

    // Reactor thread only.
    short getEventMask() noexcept override;
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_socket; }
    // Under the reactor's lock: closes the number under the channel's lock, so that no OpenSSL
    // call of another thread is using it meanwhile.
    void closeSocket() override;
    socketio::SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    std::uint64_t getLastEventTime() const override { return m_lastEventTime; }

    // Reactor thread, from onRead. What OpenSSL has decoded, up to `length`: 0 when nothing is
    // there at this moment (that is not the peer's end, which shows in the next event), -1 when
    // the connection failed or is closed. Never waits for the socket.
    int recv(int length, void * buffer) override;
    // Any thread. One SSL_write(3): the bytes taken (fewer than `length` possible); 0 when
    // nothing was taken now, also when OpenSSL wants the write repeated (then with the same
    // bytes, at least as many) and while an accepted channel's handshake runs (the handler's
    // write event comes once it is done); -1 when the connection failed or is closed.
    int send(int length, const void * buffer) override;
    // Any thread. Sends close_notify (SSL_shutdown(3), whose answer is not awaited) and goes on
    // reading until the peer's own close_notify; false before the handshake or once closed.
    bool shutdownWrite() override;

    // Before the channel joins its reactor: an accepted channel whose handshake is not done
    // `milliseconds` after it joined ends with one line and onError (HandshakeTimeout). The
    // silence sweep cannot do this: it starts again at each byte a slow peer drips. 0: none.
    void setHandshakeTimeout(std::uint64_t milliseconds) { m_handshakeLimit = milliseconds; }

    // Reactor thread: one step of the server handshake. False when it failed.
    bool handleAccept();
    // Any thread: close_notify if the handshake was done and the socket is still open (without
    // waiting for the peer's), then the connection is freed. The socket is left to whoever
    // closes it: close(), or the reactor once onEvents has answered false.
    void terminateConnection();

private:
    // m_lock held.
    bool handleAccept_i();
    // On the reactor thread or under the home reactor's lock as well, so that the socket
    // cannot be closed meanwhile.
    void terminateConnection_i();
    // m_lock held, handshake done, socket open: sends (the rest of) the close_notify.
    void sendCloseNotify_i();
    // Reactor thread: the handler's part of an event, which may throw.
    bool dispatch(net::IChannelHandler * handler, short events);

    unsigned int m_socket;
    std::uint64_t m_lastEventTime;
    Common::SmartPtr<socketio::SelectReactor> m_reactor;
    // The reactor this channel belongs to (given at construction, else the first registration),
    // kept after removal so that close() on a host thread can synchronise with the reactor
    // ending the channel. Not changed once set.
    Common::SmartPtr<socketio::SelectReactor> m_homeReactor;
    SSL * m_ssl;  // GUARDED_BY(m_lock)
    std::string m_localURI;
    std::string m_peerURI;
    std::string m_description;
    Common::SmartPtr<net::IChannelHandler> m_handler;  // GUARDED_BY(m_lock)
    // The handler's read-interest face, looked up once when the handler is set; null when it
    // has none.
    socketio::IReadInterest * m_readInterest;  // GUARDED_BY(m_lock)
    // The handler's half-close face, if it has one; found when the handler is set.
    socketio::IReadEnd * m_readEnd;            // GUARDED_BY(m_lock)
    // The peer's close_notify was read and the handler kept the channel for writing: no read
    // events any more.
    bool m_readEnded;                          // GUARDED_BY(m_lock)
    // OpenSSL reads ahead: it may hold records that the socket no longer shows. This flag says
    // that the last read found only part of a record there, which waits for the socket.
    bool m_inputStarved = false;               // GUARDED_BY(m_lock)
    bool m_handshakeDone;                      // GUARDED_BY(m_lock)
    // recv met the peer's end or a failure after bytes it delivered: the next cycle's peek
    // reports it, even with a silent socket.
    bool m_endPending;                         // GUARDED_BY(m_lock)
    // shutdownWrite met a full socket: the close_notify goes out at the next write event, or
    // the peer, waiting for it to answer, would wait for ever.
    bool m_closeNotifyPending;                 // GUARDED_BY(m_lock)
    short m_handshakeEvents;                   // reactor thread only
    std::uint64_t m_handshakeLimit;            // set before registration
    // The tick by which the handshake must be done; 0: no limit. Reactor thread only.
    std::uint64_t m_handshakeDeadline;
    // The handler threw while the reactor asked for its mask: the next event ends the channel.
    bool m_handlerFailed;                      // reactor thread only
    // A send failed: later sends are refused without another line, so that a handler that
    // keeps sending into a dead connection cannot fill a disk.
    bool m_sendFailed = false;                 // GUARDED_BY(m_lock)
    mutable Common::Lock m_lock;
};

}  // namespace ssl
