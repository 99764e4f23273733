// websocket::WSChannel: WebSocket over any other channel. It is the handler of the channel
// below and the channel of the user's handler above; it owns no socket and is no reactor
// subscriber, so the reactor reaches it only through the callbacks of the channel below. The
// engine endpoint takes the client role (open) or the server role (accept). Everything sent
// goes out as binary messages of at most 64 KiB; received binary messages are read as one
// byte stream.
//
// The user's handler is called with no lock of this channel held, so that it may send on or
// close this channel from inside its callbacks; the channel below is closed, and the user's
// handler told of the end, only after the lock has been let go for the same reason.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <websocketpp/endpoint.hpp>
#include <websocketpp/uri.hpp>

#include "corvane/channel.h"
#include "socketio/readinterest.h"
#include "socketio/selectreactor.h"
#include "websocket/keepalive.h"
#include "websocket/loggerconfig.h"
#include "socketio/halfclose.h"
#include "websocket/messagebuffer.h"
#include "websocket/readbuffer.h"

namespace websocket {

class WSChannel : public net::IChannel,
                  public net::IChannelHandler,
                  public net::IReadDataStream,
                  public net::IWriteDataStream,
                  public socketio::IReadInterest,
                  public socketio::IHalfClose {
public:
    // The engine endpoint of either role, with the client's operations.
    template <typename Config>
    class websocket : public websocketpp::endpoint<websocketpp::connection<Config>, Config> {
    public:
        using endpoint_type = websocketpp::endpoint<websocketpp::connection<Config>, Config>;
        using connection_ptr = typename endpoint_type::connection_ptr;
        using transport_con_type = typename Config::transport_type::transport_con_type;

        explicit websocket(bool server) : endpoint_type(server) {}

        connection_ptr get_connection(const std::string & u, std::error_code & ec) {
            auto location = std::make_shared<websocketpp::uri>(u);
            if (!location->get_valid()) {
                ec = websocketpp::error::make_error_code(websocketpp::error::invalid_uri);
                return connection_ptr();
            }
            if (location->get_secure() && !this->is_secure()) {
                ec = websocketpp::error::make_error_code(websocketpp::error::endpoint_not_secure);
                return connection_ptr();
            }
            connection_ptr con = endpoint_type::create_connection();
            if (!con) {
                ec = websocketpp::error::make_error_code(websocketpp::error::con_creation_failed);
                return con;
            }
            con->set_uri(location);
            ec = std::error_code();
            return con;
        }

        void connect(connection_ptr con) {
            Config::transport_type::async_connect(std::static_pointer_cast<transport_con_type>(con), con->get_uri(),
                                                  [con](const std::error_code & ec) {
                                                      if (ec) {
                                                          con->terminate(ec);
                                                      } else {
                                                          con->start();
                                                      }
                                                  });
        }

        connection_ptr create_connection() { return endpoint_type::create_connection(); }
    };

    using Endpoint = websocket<LoggerConfig<websocketpp::config::core>>;
    using ConnectionPtr = Endpoint::connection_ptr;
    using MessagePtr = Endpoint::message_ptr;

    WSChannel(unsigned int sendBufferSize, unsigned int receiveBufferSize, bool secure, bool server);
    ~WSChannel() override;
    WSChannel(const WSChannel &) = delete;
    WSChannel & operator=(const WSChannel &) = delete;

    // Client role, caller's thread: `underlying` is connected, registered and has this object
    // as its handler. Blocks until the opening handshake has ended, for at most 5000 ms, or
    // what remains of the calling thread's ConnectTimeout if one is set (`timeoutMs` is not used). Throws websocket::InternalException; the channel below is
    // closed then.
    void open(net::IChannel * underlying, const char * szURI, int timeoutMs);
    // Server role, reactor thread: the names of the accepted channel below, before the
    // acceptor sees this channel (a tunnel keys its end points by them).
    void takeNamesOf(net::IChannel * underlying);
    // Server role, reactor thread, before `underlying` works for this object: the handshake
    // runs later through onRead.
    void accept(net::IChannel * underlying);
    // Before open or accept. textMessages: a text message's payload is read like a binary
    // one (without it text is dropped, with one Warn line the first time). allowedOrigins,
    // server role: an upgrade whose Origin is not listed is answered 403; empty allows all,
    // and an upgrade without Origin is always allowed.
    void setMessageOptions(bool textMessages, std::vector<std::string> allowedOrigins);
    // Before open or accept: PingInterval and PingTimeout. The write events of the channel
    // below drive the clock: hasPendingWrite asks for one when a ping or the end is due.
    void setKeepAlive(const KeepAlive::Settings & settings) { m_KeepAlive.configure(settings); }
    // Server role, before accept: an upgrade not done `milliseconds` after accept ends the
    // channel with one line and onError (HandshakeTimeout); 0: none. The write events of the
    // channel below drive the clock, as for the keep-alive.
    void setHandshakeTimeout(std::uint64_t milliseconds) { m_HandshakeLimit = milliseconds; }
    // Ends the engine's wait for input. Harmless when repeated.
    void terminateConnection();
    // Reactor thread: the close frame follows what was sent so far, and a close() from then on
    // lets that output reach the peer, and shuts the channel below in order, before ending.
    bool shutdownWrite() override;

    const char * getLocalURI() const override { return m_strLocalURI.c_str(); }
    const char * getPeerURI() const override { return m_strPeerURI.c_str(); }
    const char * getDescription() const override { return m_strDescription.c_str(); }
    // Any thread: close frame, then a wait of at most 5000 ms for the peer's answer (none on
    // the reactor thread, which alone could bring it). No handler call results.
    void close() override;
    net::IWriteDataStream * getWriteDataStream() override { return this; }
    net::IChannelHandler * getChannelHandler() const override;
    void setChannelHandler(net::IChannelHandler * handler) override;

    // The channel below's handler face; reactor thread.
    bool hasPendingWrite() override;
    void onRead(net::IReadDataStream * stream) override;
    void onWrite(net::IWriteDataStream * stream) override;
    void onClose() override;
    void onError() override;
    bool wantsRead() override;

    // Inside the user's onRead only.
    int recv(int length, void * buffer) override;
    // Any thread; binary messages of at most 65536 bytes while fewer than sendBufferSize bytes
    // wait for the channel below. The engine's failure throws websocket::InternalException,
    // except on the reactor's thread, where it answers -1.
    int send(int nMaxSize, const void * data) override;

    // Engine callbacks, run inside an engine call whose caller holds m_Mutex.
    void onWebSocketOpen(std::weak_ptr<void> hdl);
    void onWebSocketFail(std::weak_ptr<void> hdl);
    void onWebSocketClose(std::weak_ptr<void> hdl);
    void onWebSocketMessage(std::weak_ptr<void> hdl, MessagePtr message);
    std::error_code onWebSocketWrite(std::weak_ptr<void> hdl, const char * data, std::size_t size);
    std::error_code onWebSocketShutdown(std::weak_ptr<void> hdl);
    bool onWebSocketPing(std::weak_ptr<void> hdl, std::string payload);
    bool onWebSocketValidate(std::weak_ptr<void> hdl);
    void onWebSocketHTTP(std::weak_ptr<void> hdl);

private:
    void onRead_i(net::IReadDataStream * stream);
    void onWrite_i(net::IWriteDataStream * stream);
    // Reactor thread, under the reactor's lock: whether a ping or the end is due (cheap).
    bool keepAliveDue();
    // Reactor thread: the upgrade has outlived HandshakeTimeout (cheap).
    bool upgradeOverdue() const;
    // Reactor thread, m_Mutex held: a ping after PingInterval of silence; false once
    // PingTimeout has passed with no answer.
    bool keepAlive_i();
    // Ends this channel: the channel below is closed and the user's handler gets onError.
    void endWithError(const char * where);
    // Runs a callback of the channel below; an exception ends this channel instead of
    // leaving the callback.
    template <typename Body>
    void guarded(const char * where, Body body);
    void setupNames(net::IChannel * underlying, const std::string & peer);
    void terminateConnection_i();
    // m_Mutex held: a send below failed; the queued output is dropped.
    void failBelow_i();
    // Server role, inside the engine's write of its answer to an upgrade: the engine refused
    // it for want of a Sec-WebSocket-Version.
    bool versionMissing(std::weak_ptr<void> hdl);
    // After m_Mutex is let go: closes a channel below that the engine let go of, and tells
    // the user's handler of the end of the connection.
    void finishDeferred();
    void deliver();
    Common::SmartPtr<net::IChannelHandler> handler() const;
    // A failed open or accept: the engine lets go, the channel below is no longer ours.
    void abandon();
    // Runs the steps of open or accept; on a failure abandons and closes `underlying`.
    template <typename Steps>
    void setUp(net::IChannel * underlying, Steps steps);
    void wakeReactor();
    // Reactor thread, m_Mutex held.
    void learnReactor_i();

    std::mutex m_Mutex;
    std::condition_variable m_Condition;
    Common::SmartPtr<net::IChannel> m_UnderlyingChannel;
    Endpoint m_Endpoint;
    ConnectionPtr m_Connection;
    unsigned int m_nMaxBytesPending;
    unsigned int m_nMaxMessageSize;
    std::atomic<bool> m_bClosing;
    // shutdownWrite sent the close frame: the end is orderly, what is queued goes out.
    bool m_bOrderlyEnd = false;  // GUARDED_BY(m_Mutex)
    // close() on the reactor thread found output the channel below could not take yet: the
    // channel below is ended once that output is out.
    bool m_bLingering = false;  // GUARDED_BY(m_Mutex)
    // m_Mutex held: the channel below ends its sending side in order (when it can), so that
    // what its kernel holds still reaches the peer; then the engine's input ends.
    void endInOrder_i();
    // Read without the lock by hasPendingWrite on the reactor thread.
    std::atomic<bool> m_bHandshakeDone;
    // After m_bBelowEnded: open() and close() stop waiting for an answer.
    void wakeWaiters();
    // The channel below reported its end: no handshake can finish any more.
    std::atomic<bool> m_bBelowEnded{false};
    // A send on the channel below failed: nothing more is written, the next write event ends
    // this channel (read without the lock by hasPendingWrite).
    std::atomic<bool> m_bBelowFailed{false};
    // The host's sends stop at m_nMaxBytesPending (plus one message); the engine's answers
    // to what the peer sends (pongs, a close) come on top. Past this room nothing more is
    // read, so that a peer that sends control frames and reads nothing cannot grow the queue
    // without bound. The host's data alone never stops the reading: two such channels
    // echoing into each other would otherwise wait for each other for ever.
    bool outputFull() const { return m_nTotalBytesPending >= m_nMaxBytesPending + 2 * m_nMaxMessageSize; }
    // The user's handler wants bytes (or has no say).
    bool handlerWantsRead();
    std::atomic<bool> m_bOpen;
    // Guards the handler reference alone: hasPendingWrite reads it on the reactor thread
    // under the reactor's lock, where m_Mutex must not be taken.
    mutable std::mutex m_HandlerMutex;
    Common::SmartPtr<net::IChannelHandler> m_ChannelHandler;
    std::string m_strLocalURI;
    std::string m_strPeerURI;
    std::string m_strDescription;
    // Storage of one read: the receive buffer size rounded up to 16n-1 bytes, so that even a
    // size of 0 reads 15 bytes at a time.
    ReadBuffer m_RecvBuffer;
    // The engine ended while messages still waited for the handler: the handler and the
    // channel below stay until they are delivered. Reactor thread, under m_Mutex.
    bool m_bEndAfterReader = false;
    // m_Mutex held: hands the handler and the channel below over to finishDeferred.
    void endAfterReader_i();
    MessageBuffer m_ReadBuffer;  // reactor thread only
    bool m_bTextMessages = false;
    bool m_bTextDropTold = false;  // reactor thread only
    KeepAlive m_KeepAlive;         // reactor thread only
    std::uint64_t m_HandshakeLimit = 0;
    // The tick by which the server role's upgrade must be done; 0: no limit. Reactor thread.
    std::uint64_t m_UpgradeDeadline = 0;
    std::vector<std::string> m_AllowedOrigins;
    std::atomic<unsigned int> m_nTotalBytesPending;
    std::vector<std::string> m_WriteBuffer;
    std::string m_strHandshakeError;
    // Set under m_Mutex, acted on by finishDeferred.
    Common::SmartPtr<net::IChannel> m_ClosingChannel;
    Common::SmartPtr<net::IChannelHandler> m_EndedHandler;
    bool m_bEndedWithError;
    // The reactor of the channel below, learnt on the reactor thread: a host thread's send
    // that leaves output queued wakes it, so that it asks for write events at once.
    Common::SmartPtr<socketio::SelectReactor> m_Reactor;  // GUARDED_BY(m_Mutex)
    std::atomic<std::thread::id> m_ReactorThread;
};

}  // namespace websocket
