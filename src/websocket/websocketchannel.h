// websocket::WebSocketChannel: the client channel of a "ws" URI. It owns a connected TCP
// socket and a WebSocket client engine with the iostream transport, and does for the engine
// what a network transport would: received bytes are fed in by hand, the engine's output goes
// to the socket through a fixed ring. Everything sent goes out as binary messages; received
// binary messages are read as one byte stream.
//
// Opening and closing pump the socket on the caller's thread while the channel is not
// subscribed; in between the reactor thread pumps. Kept alive by the reactor while
// registered and by its owner's references. The socket is closed once, by whoever comes
// first: the owner's close(), or the reactor when the channel reports its end (or at the
// sweep), always through closeSocket; the destructor closes nothing. Nothing touches the
// socket after that close: every write and TLS call checks it under m_SendMutex, under which
// closeSocket closes it.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>

#include <websocketpp/client.hpp>

#include "corvane/channel.h"
#include "socketio/halfclose.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/readinterest.h"
#include "socketio/selectreactor.h"
#include "socketio/socketoptions.h"
#include "websocket/keepalive.h"
#include "websocket/loggerconfig.h"
#include "websocket/messagebuffer.h"
#include "websocket/readbuffer.h"
#include "websocket/ringbuf.h"

namespace websocket {

using ClientConfig = LoggerConfig<websocketpp::config::core>;
using Client = websocketpp::client<ClientConfig>;
using OutputRing = tools::basic_ringbuf<char, std::char_traits<char>>;

class WebSocketChannel : public net::IChannel,
                         public socketio::ISelectEventSubscriber,
                         public socketio::IHalfClose,
                         private net::IWriteDataStream {
public:
    // Takes a connected socket. The output ring holds options.receiveBufferSize bytes (the
    // receive size on purpose; the send size is only logged); so does one read.
    WebSocketChannel(unsigned int hSocket, const socketio::socket_options & options);
    ~WebSocketChannel() override;
    WebSocketChannel(const WebSocketChannel &) = delete;
    WebSocketChannel & operator=(const WebSocketChannel &) = delete;

    // Caller's thread, before the channel is subscribed and before a handler is set; blocks
    // until the opening handshake has ended, with no time limit of its own (only the peer's
    // answer, its close or a socket failure ends the wait). Failures throw
    // websocket::InternalException; a refused upgrade names the HTTP reason behind " : ".
    void openLogicalConnection(const char * szURI);
    // Before the handler is set. True: a text message's payload is read like a binary one;
    // without it text is dropped, with one Warn line the first time.
    void setTextMessages(bool textMessages) { m_bTextMessages = textMessages; }
    // Before the channel is subscribed: PingInterval and PingTimeout. The clock runs from the
    // subscription on; the reactor's cycle drives it.
    void setKeepAlive(const KeepAlive::Settings & settings) { m_KeepAlive.configure(settings); }
    // Reactor thread: the close frame follows what was sent so far, and a close() from then on
    // lets that output reach the peer before the socket closes (the engine reads no data after
    // its close frame, so both directions end with the peer's answer).
    bool shutdownWrite() override;

    const char * getLocalURI() const override { return m_strLocalURI.c_str(); }
    const char * getPeerURI() const override { return m_strPeerURI.c_str(); }
    const char * getDescription() const override { return m_strDescription.c_str(); }
    // Any thread: leaves the reactor, runs the close handshake on this thread, closes the
    // socket. On the reactor's thread the close frame goes out and no answer is awaited (it
    // may have to come through this very reactor). No handler call results. Harmless when
    // repeated.
    void close() override;
    net::IWriteDataStream * getWriteDataStream() override { return this; }
    net::IChannelHandler * getChannelHandler() const override { return m_ChannelHandler.get(); }
    // Before registering, or on the reactor thread: no lock.
    void setChannelHandler(net::IChannelHandler * handler) override;

    // Reactor thread only.
    short getEventMask() noexcept override;
    bool onEvents(const short & events, const std::uint64_t & now) noexcept override;
    unsigned int & getSocket() override { return m_hSocket; }
    // Under the reactor's lock: closes the number under m_SendMutex, which every write and
    // TLS call holds, so that none of another thread is using it meanwhile.
    void closeSocket() override;
    socketio::SelectReactor * getReactor() const override { return m_Reactor.get(); }
    void setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) override;
    std::uint64_t getLastEventTime() const override { return m_nLastEventTime; }

protected:
    // For the TLS twin: its own log category, and the bottom layer below.
    WebSocketChannel(unsigned int hSocket, const socketio::socket_options & options,
                     const log4cxx::LoggerPtr & classLogger);

    // The bottom layer: plain socket calls here, an SSL in the TLS twin.
    virtual bool secure() const { return false; }
    // Caller's thread, in openLogicalConnection once the socket is non-blocking.
    virtual void prepareTransport() {}
    // The read path: takes bytes from below and hands them to feedEngine. True while the
    // channel goes on living.
    virtual bool readDataFromSocketToWebSocket();
    // close() on the reactor thread after shutdownWrite, with output left: true when the
    // channel stays subscribed until that output is out.
    bool lingerForOutput();
    // The events of a lingering channel: false once its output is out (or lost).
    bool onLingeringEvents() noexcept;
    // Drains m_OutputBuffer; the bytes sent, or -1. m_SendMutex held.
    virtual int sendOutput_i();
    virtual const char * senderName() const { return "socket_send"; }
    // Decoded input that waits below, where the socket cannot show it. Reactor thread.
    virtual bool inputPending() { return false; }
    // In close(), after the close handshake and before the socket is closed. m_SendMutex held.
    virtual void releaseTransport_i() {}

    // Gives n received bytes of m_RecvBuffer to the engine and the engine's messages to the
    // handler. True while the channel goes on living.
    bool feedEngine(std::size_t n, net::IChannelHandler * handler);
    // The end of input: the engine is told, the pump loops stop.
    void endInput();
    // Reactor thread: tells the handler (if any) of the end of the connection, once.
    void reportEnd(net::IChannelHandler * handler, bool error);
    // The close code and reason the engine sent for a protocol violation of the peer; empty
    // when there was none. Takes m_SendMutex.
    std::string violationCause();

    const log4cxx::LoggerPtr & m_log;

private:
    // Any thread. One binary message of at most the ring's free room less 128 bytes (the
    // room kept for the frame header); 0 when no more fits now; -1 once the channel has
    // ended. Throws websocket::InternalException when the socket fails, except on the
    // reactor's thread, where it answers -1: inside a callback a failed send is a failed send.
    int send(int nMaxSize, const void * data) override;

    // Engine callbacks: they run inside an engine call, on the thread that made it, with
    // m_SendMutex held.
    std::error_code onWebSocketWrite(std::weak_ptr<void> hdl, const char * data, std::size_t size);
    void onWebSocketClose(std::weak_ptr<void> hdl);
    void onWebSocketOpen(std::weak_ptr<void> hdl);
    void onWebSocketFail(std::weak_ptr<void> hdl);
    void onWebSocketMessage(std::weak_ptr<void> hdl, Client::message_ptr message);
    bool onWebSocketPing(std::weak_ptr<void> hdl, std::string payload);

    bool dispatch(short events);
    // The end of a dispatch: a ping after PingInterval of silence; false once PingTimeout has
    // passed with no answer (the channel ends with the handler's onError).
    bool keepAlive();
    // m_SendMutex taken here; false when the engine's output failed.
    bool sendPing();
    // After onEvents failed (or a handler threw): tells the handler, lets go of the engine.
    void endAfterEvent() noexcept;
    bool onReactorThread() const;
    void markEnded();
    bool flushWriteToSocket();
    bool flushWriteToSocket_i();  // m_SendMutex held
    // send under m_SendMutex; `outputLeft`: bytes wait in the ring for the reactor.
    int sendLocked(int nMaxSize, const void * data, bool & outputLeft);
    void writeToHandlerAndFlush();
    bool outputWaiting();
    // Ends the engine's wait for input, so that the connection lets go of itself.
    void endEngineInput();
    // The pump of opening and closing, on the caller's thread, until `done` holds.
    template <typename Done>
    void processUntil(Done done);

    // The fields, in their order; the bottom layer of the TLS twin reaches the socket, the
    // description, the read storage, the lock and the ring.
protected:
    unsigned int m_hSocket;
    Client m_Client;
    bool m_bHandshakeDone;
    bool m_bOpen;
    Client::connection_ptr m_Connection;
    Common::SmartPtr<net::IChannelHandler> m_ChannelHandler;
    // The handler's read-interest face, looked up once when the handler is set; or null.
    socketio::IReadInterest * m_pReadInterest;
    Common::SmartPtr<socketio::SelectReactor> m_Reactor;
    // The reactor this channel was first registered with, kept after removal so that close()
    // on a host thread can synchronise with the reactor ending the channel.
    Common::SmartPtr<socketio::SelectReactor> m_homeReactor;
    std::uint64_t m_nLastEventTime;
    std::string m_strLocalURI;
    std::string m_strPeerURI;
    std::string m_strDescription;
    MessageBuffer m_ReadMessageBuffer;  // reactor thread (caller's thread while opening and closing)
    // Storage of one read: the receive buffer size rounded up to 16n-1 bytes, so that even a
    // size of 0 reads 15 bytes at a time.
    ReadBuffer m_RecvBuffer;
    // Set once a read found the end of the stream or a failure; the pump of opening and
    // closing then has nothing left to wait for.
    bool m_bInputEnded;
    // Serialises every entry into the engine and every touch of the output ring, writing and
    // draining alike (and in the TLS twin every OpenSSL call), so that a host thread's send
    // and the reactor's pumping never meet there. Never held while the handler runs.
    std::mutex m_SendMutex;
    OutputRing m_OutputBuffer;  // GUARDED_BY(m_SendMutex)
    bool m_bOutputOverflow;     // GUARDED_BY(m_SendMutex)
    // Set before the reactor or close() lets go of the socket: from then on send touches
    // neither the engine nor the socket, which may already be closed and its number reused.
    // (The sweep closes the socket first: there the invalid handle tells it.)
    bool m_bEnded;  // GUARDED_BY(m_SendMutex)
    // The socket refused a write: nothing more is written (nor logged) until the reactor
    // ends the channel at its next write event.
    bool m_bSendFailed = false;  // GUARDED_BY(m_SendMutex)
    std::string m_strHandshakeError;
    bool m_bTextMessages = false;
    bool m_bTextDropTold = false;  // reactor thread only
    KeepAlive m_KeepAlive;  // reactor thread (caller's thread while opening)
    bool m_bEndReported;  // reactor thread
    // shutdownWrite sent the close frame: the end is orderly, what is queued goes out.
    bool m_bOrderlyEnd = false;  // GUARDED_BY(m_SendMutex)
    // close() on the reactor thread found output the socket could not take yet: the channel
    // stays subscribed, without a handler, until that output is out.
    bool m_bLingering = false;  // reactor thread
    bool m_bHandlerThrew;  // reactor thread
};

}  // namespace websocket
