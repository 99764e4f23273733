#include "websocket/wschannel.h"

#include <algorithm>

#include <chrono>
#include <functional>
#include <utility>

#include "common/logging.h"
#include "common/timedelta.h"
#include "corvane/uri.h"
#include "socketio/connectabort.h"
#include "socketio/iselecteventsubscriber.h"
#include "websocket/handshakeerror.h"
#include "websocket/internalexception.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.WSChannel");
const log4cxx::LoggerPtr accessLogger = Common::GetLogger(kEngineAccessCategory);
const log4cxx::LoggerPtr errorLogger = Common::GetLogger(kEngineErrorCategory);

// Both waits of the channel are fixed.
constexpr int kWaitMilliseconds = 5000;
constexpr unsigned int kMaxMessageSize = 65536;
}  // namespace

WSChannel::WSChannel(unsigned int sendBufferSize, unsigned int receiveBufferSize, bool secure, bool server)
    : m_Endpoint(server),
      m_nMaxBytesPending(sendBufferSize),
      m_nMaxMessageSize(kMaxMessageSize),
      m_bClosing(false),
      m_bHandshakeDone(false),
      m_bOpen(false),
      m_RecvBuffer(receiveBufferSize | 15u),
      m_nTotalBytesPending(0),
      m_bEndedWithError(false) {
    m_Endpoint.set_secure(secure);
    m_Endpoint.get_alog().setLogger(accessLogger);
    m_Endpoint.get_elog().setLogger(errorLogger);
    using std::placeholders::_1;
    using std::placeholders::_2;
    using std::placeholders::_3;
    m_Endpoint.set_open_handler(std::bind(&WSChannel::onWebSocketOpen, this, _1));
    m_Endpoint.set_fail_handler(std::bind(&WSChannel::onWebSocketFail, this, _1));
    m_Endpoint.set_close_handler(std::bind(&WSChannel::onWebSocketClose, this, _1));
    m_Endpoint.set_message_handler(std::bind(&WSChannel::onWebSocketMessage, this, _1, _2));
    m_Endpoint.set_write_handler(std::bind(&WSChannel::onWebSocketWrite, this, _1, _2, _3));
    m_Endpoint.set_shutdown_handler(std::bind(&WSChannel::onWebSocketShutdown, this, _1));
    m_Endpoint.set_ping_handler(std::bind(&WSChannel::onWebSocketPing, this, _1, _2));
    m_Endpoint.set_validate_handler(std::bind(&WSChannel::onWebSocketValidate, this, _1));
    m_Endpoint.set_http_handler(std::bind(&WSChannel::onWebSocketHTTP, this, _1));
}

WSChannel::~WSChannel() {
    LOG4CXX_TRACE(logger, "dtor");
    // A connection still waiting for input holds itself alive through that wait.
    std::lock_guard<std::mutex> lock(m_Mutex);
    terminateConnection_i();
}

void WSChannel::setupNames(net::IChannel * underlying, const std::string & peer) {
    net::URI local = net::URI::FromString(underlying->getLocalURI());
    local.setScheme(m_Endpoint.is_secure() ? "wss" : "ws");
    m_strLocalURI = local.ToString();
    m_strPeerURI = net::URI::FromString(peer).ToString();
    m_strDescription = m_strLocalURI + " <-> " + m_strPeerURI;
}

template <typename Steps>
void WSChannel::setUp(net::IChannel * underlying, Steps steps) {
    // A failure always closes the channel below: nobody else would.
    Common::SmartPtr<net::IChannel> below(underlying);
    try {
        steps();
    } catch (const websocketpp::exception & e) {
        abandon();
        below->close();
        throw InternalException(e.what());
    } catch (...) {
        abandon();
        below->close();
        throw;
    }
}

void WSChannel::open(net::IChannel * underlying, const char * szURI, int /*timeoutMs*/) {
    LOG4CXX_INFO(logger, "open( szURI = '" << szURI << "', timeoutMs = " << kWaitMilliseconds);
    setUp(underlying, [&] {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_UnderlyingChannel = underlying;
        setupNames(underlying, szURI);
        std::error_code ec;
        m_Connection = m_Endpoint.get_connection(szURI, ec);
        if (ec) {
            throw InternalException(("unable to connect:" + ec.message()).c_str());
        }
        m_Endpoint.connect(m_Connection);
        if (m_Connection->get_ec()) {
            throw InternalException(("unable to connect:" + m_Connection->get_ec().message()).c_str());
        }
        // ConnectTimeout, if set, bounds the handshake with what remains of it instead.
        const int left = socketio::ConnectTimeLeft();
        if (!m_Condition.wait_for(lock, std::chrono::milliseconds(left >= 0 ? left : kWaitMilliseconds),
                                  [this] { return m_bHandshakeDone.load() || m_bBelowEnded.load(); })) {
            throw InternalException(
                ("timeout while waiting for connection handshake to complete with '" + std::string(szURI) + "'").c_str());
        }
        if (!m_bOpen || m_bBelowEnded) {
            // A peer that closed during the handshake has taken the connection with it.
            std::string text = m_Connection && !m_bBelowEnded ? HandshakeFailureText(m_Connection)
                                                              : "connection closed during the handshake";
            if (!m_strHandshakeError.empty()) {
                text += " : " + m_strHandshakeError;
            }
            throw InternalException(text.c_str());
        }
    });
    finishDeferred();
}

void WSChannel::abandon() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_UnderlyingChannel = nullptr;
        terminateConnection_i();
    }
    finishDeferred();
}

void WSChannel::takeNamesOf(net::IChannel * underlying) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    setupNames(underlying, underlying->getPeerURI());
}

void WSChannel::accept(net::IChannel * underlying) {
    LOG4CXX_INFO(logger, "accept( underlyingChannel = '" << underlying->getPeerURI());
    // The server below accepts on its reactor's thread: a close() there, even before the
    // first event, must not wait for an answer that only this thread could bring.
    m_ReactorThread = std::this_thread::get_id();
    setUp(underlying, [&] {
        // The channel below is not registered yet: nothing can race; the lock keeps the
        // fields' publication in order for the reactor thread all the same.
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_UnderlyingChannel = underlying;
        setupNames(underlying, underlying->getPeerURI());
        ConnectionPtr con = m_Endpoint.create_connection();
        con->start();
        m_Connection = con;
        // From the accept of the connection below: over TLS the limit covers that handshake too.
        if (m_HandshakeLimit != 0) {
            m_UpgradeDeadline = Common::GetTickCount64() + m_HandshakeLimit;
        }
    });
}

bool WSChannel::shutdownWrite() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_Connection || !m_bOpen || m_bClosing || !m_UnderlyingChannel ||
            m_Connection->get_state() != websocketpp::session::state::open) {
            return false;
        }
        std::error_code ec;
        m_Connection->close(websocketpp::close::status::normal, "close", ec);
        if (ec) {
            return false;
        }
        m_bClosing = true;
        m_bOrderlyEnd = true;
    }
    // What the channel below is asked for has changed: the close frame may wait for room.
    wakeReactor();
    return true;
}

void WSChannel::endInOrder_i() {
    if (auto * below = dynamic_cast<socketio::IHalfClose *>(m_UnderlyingChannel.get())) {
        below->shutdownWrite();
    }
    terminateConnection_i();
}

void WSChannel::terminateConnection() {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        terminateConnection_i();
    }
    finishDeferred();
}

void WSChannel::terminateConnection_i() {
    LOG4CXX_TRACE(logger, "terminateConnection[" << m_strDescription);
    // The channel below ended, or the owner closes: what waits for the handler is lost.
    endAfterReader_i();
    if (!m_Connection) {
        return;
    }
    ConnectionPtr con = std::move(m_Connection);
    m_Connection.reset();
    try {
        con->eof();
    } catch (const websocketpp::exception & e) {
        LOG4CXX_DEBUG(logger, "terminateConnection[" << m_strDescription << "]: " << e.what());
    }
    // An open() waiting for the handshake, or a close() waiting for the answer, learns at once
    // that none will come: the engine tells no handler when the connection ends this way.
    m_bHandshakeDone = true;
    m_bOpen = false;
    m_Condition.notify_all();
}

void WSChannel::finishDeferred() {
    Common::SmartPtr<net::IChannel> toClose;
    Common::SmartPtr<net::IChannelHandler> ended;
    bool withError;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        toClose = std::move(m_ClosingChannel);
        m_ClosingChannel = nullptr;
        ended = std::move(m_EndedHandler);
        m_EndedHandler = nullptr;
        withError = m_bEndedWithError;
    }
    if (toClose) {
        toClose->close();
    }
    if (ended) {
        if (withError) {
            ended->onError();
        } else {
            ended->onClose();
        }
    }
}

Common::SmartPtr<net::IChannelHandler> WSChannel::handler() const {
    std::lock_guard<std::mutex> lock(m_HandlerMutex);
    return m_ChannelHandler;
}

net::IChannelHandler * WSChannel::getChannelHandler() const {
    std::lock_guard<std::mutex> lock(m_HandlerMutex);
    return m_ChannelHandler.get();
}

void WSChannel::setChannelHandler(net::IChannelHandler * newHandler) {
    LOG4CXX_TRACE(logger, "setChannelHandler[" << m_strDescription << "]( " << static_cast<void *>(newHandler) << " )");
    Common::SmartPtr<net::IChannelHandler> old;
    {
        std::lock_guard<std::mutex> lock(m_HandlerMutex);
        old = std::move(m_ChannelHandler);
        m_ChannelHandler = newHandler;
    }
    // Messages that came with the handshake, or output the new handler wants to write: the
    // reactor asks for the mask again.
    wakeReactor();
}

void WSChannel::wakeReactor() {
    Common::SmartPtr<socketio::SelectReactor> reactor;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        reactor = m_Reactor;
    }
    if (reactor) {
        reactor->wakeUp();
    }
}

void WSChannel::learnReactor_i() {
    if (!m_Reactor && m_UnderlyingChannel) {
        auto * subscriber = dynamic_cast<socketio::ISelectEventSubscriber *>(m_UnderlyingChannel.get());
        if (subscriber != nullptr) {
            m_Reactor = subscriber->getReactor();
        }
    }
    m_ReactorThread = std::this_thread::get_id();
}

bool WSChannel::wantsRead() {
    // Messages wait for the handler: the channel below is not read meanwhile, so that the
    // peer's close frame cannot overtake the data that came before it. A full output stops the
    // reading as well: each control frame read may add an answer to it.
    return m_ReadBuffer.empty() && !m_bBelowFailed && !outputFull() && handlerWantsRead();
}

bool WSChannel::handlerWantsRead() {
    Common::SmartPtr<net::IChannelHandler> current = handler();
    auto * interest = dynamic_cast<socketio::IReadInterest *>(current.get());
    try {
        return interest == nullptr || interest->wantsRead();
    } catch (...) {
        // Asked under the reactor's lock, where nothing can be ended: reading on finds the
        // handler again in onRead.
        return true;
    }
}

bool WSChannel::upgradeOverdue() const {
    return m_UpgradeDeadline != 0 && !m_bHandshakeDone && Common::GetTickCount64() >= m_UpgradeDeadline;
}

bool WSChannel::hasPendingWrite() {
    // The write event that this asks for ends the channel: a slow or silent client's upgrade
    // must not hold its connection beyond the limit, however often it drips a byte.
    if (upgradeOverdue()) {
        return true;
    }
    // A failed channel below asks for the write event that ends this channel.
    if (m_bBelowFailed || m_nTotalBytesPending != 0) {
        return true;
    }
    // Messages the handler did not take yet, also after the peer's close: a write event
    // brings them to it again, as the peer may send nothing more that would.
    if (!m_ReadBuffer.empty() && handlerWantsRead()) {
        return true;
    }
    if (m_bClosing || !m_bOpen) {
        return false;
    }
    if (keepAliveDue()) {
        return true;
    }
    Common::SmartPtr<net::IChannelHandler> current = handler();
    if (!current) {
        return false;
    }
    try {
        return current->hasPendingWrite();
    } catch (...) {
        // Asked under the reactor's lock: the write event that this asks for meets the
        // handler again in onWrite, where a failure ends the channel.
        return true;
    }
}

bool WSChannel::keepAliveDue() {
    if (!m_KeepAlive.enabled()) {
        return false;
    }
    const std::uint64_t now = Common::GetTickCount64();
    if (!handlerWantsRead()) {
        // Nothing is read for the handler meanwhile: the peer's silence cannot be told from that.
        m_KeepAlive.heard(now);
        return false;
    }
    return m_KeepAlive.check(now) != KeepAlive::Due::Nothing;
}

bool WSChannel::keepAlive_i() {
    if (!m_bOpen || m_bClosing || !m_Connection) {
        return true;
    }
    const KeepAlive::Due due = m_KeepAlive.next(Common::GetTickCount64(), logger, m_strDescription);
    if (due != KeepAlive::Due::Ping) {
        return due == KeepAlive::Due::Nothing;
    }
    LOG4CXX_DEBUG(logger, "ping[" << m_strDescription << "]");
    // Refused only when the connection is no longer open: its end is near anyway.
    std::error_code ec;
    m_Connection->ping("", ec);
    return true;
}

void WSChannel::onRead(net::IReadDataStream * stream) {
    guarded("onRead", [&] { onRead_i(stream); });
}

void WSChannel::onRead_i(net::IReadDataStream * stream) {
    LOG4CXX_TRACE(logger, "onRead[" << m_strDescription << "]");
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        learnReactor_i();
        const int n = stream->recv(static_cast<int>(m_RecvBuffer.size()), m_RecvBuffer.data());
        if (n > 0) {
            // Whatever the bytes are (a pong, data, a close frame), the peer is alive.
            m_KeepAlive.heard(Common::GetTickCount64());
        }
        if (n < 1) {
            LOG4CXX_WARN(logger, "onRead[" << m_strDescription << "]: nRecv =  " << n);
        } else if (m_Connection) {
            try {
                const std::size_t consumed = m_Connection->read_all(m_RecvBuffer.data(), static_cast<std::size_t>(n));
                if (consumed != static_cast<std::size_t>(n)) {
                    LOG4CXX_WARN(logger, "onRead[" << m_strDescription << "]: processed " << consumed << " bytes while "
                                                   << n << " bytes received");
                }
            } catch (const websocketpp::exception & e) {
                LOG4CXX_WARN(logger, "onRead[" << m_strDescription << "]: exception: " << e.what());
            }
        }
    }
    deliver();
    finishDeferred();
}

void WSChannel::deliver() {
    Common::SmartPtr<net::IChannelHandler> current = handler();
    if (current && !m_ReadBuffer.empty()) {
        // Stops when a call takes nothing: the rest waits for the handler's next write event.
        m_ReadBuffer.deliverTo(current.get());
    }
    if (m_bEndAfterReader && m_ReadBuffer.empty()) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        endAfterReader_i();
    }
}

void WSChannel::endAfterReader_i() {
    if (!m_bEndAfterReader) {
        return;
    }
    m_bEndAfterReader = false;
    {
        std::lock_guard<std::mutex> handlerLock(m_HandlerMutex);
        m_EndedHandler = std::move(m_ChannelHandler);
        m_ChannelHandler = nullptr;
    }
    m_ClosingChannel = std::move(m_UnderlyingChannel);
    m_UnderlyingChannel = nullptr;
}

int WSChannel::recv(int length, void * buffer) {
    return m_ReadBuffer.recv(length, buffer);
}

void WSChannel::onWebSocketMessage(std::weak_ptr<void>, MessagePtr message) {
    try {
        LOG4CXX_TRACE(logger, "onWebSocketMessage[" << m_strDescription
                                                    << "]( msg = " << static_cast<const void *>(message.get()) << ")");
        const auto opcode = message->get_opcode();
        if (opcode == websocketpp::frame::opcode::binary ||
            (opcode == websocketpp::frame::opcode::text && m_bTextMessages)) {
            m_ReadBuffer.addMessage(std::move(message->get_raw_payload()));
            LOG4CXX_TRACE(logger, "onWebSocketMessage[" << m_strDescription
                                                        << "]: m_ReadBuffer.size = " << m_ReadBuffer.size());
        } else if (opcode == websocketpp::frame::opcode::text && !m_bTextDropTold) {
            m_bTextDropTold = true;
            LOG4CXX_WARN(logger, "text message dropped on " << m_strDescription
                                                             << " (TextMessages=true reads text messages)");
        }
    } catch (const std::exception & e) {
        LOG4CXX_INFO(logger, "exception caught during onWebSocketMessage: " << e.what());
    } catch (...) {
        LOG4CXX_INFO(logger, "unknown exception caught during onWebSocketMessage");
    }
}

int WSChannel::send(int nMaxSize, const void * data) {
    LOG4CXX_TRACE(logger, "send[" << m_strDescription << "]( nMaxSize = " << nMaxSize << " )");
    Common::SmartPtr<socketio::SelectReactor> reactor;
    int sent = 0;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_Connection || (m_bHandshakeDone && !m_bOpen) || m_bBelowFailed) {
            // Never opened, ended, or failed below: a sender waiting for room would wait for ever.
            return -1;
        }
        if (!m_bOpen) {
            // The server role's handshake is still running: nothing is taken, the handler's
            // write event comes once the connection is open.
            return 0;
        }
        const auto * bytes = static_cast<const char *>(data);
        try {
            while (sent < nMaxSize && m_nTotalBytesPending < m_nMaxBytesPending) {
                const int n = std::min<int>(nMaxSize - sent, static_cast<int>(m_nMaxMessageSize));
                std::error_code ignored =
                    m_Connection->send(bytes + sent, static_cast<std::size_t>(n), websocketpp::frame::opcode::binary);
                (void)ignored;
                sent += n;
            }
        } catch (const websocketpp::exception & e) {
            // Inside a callback a failed send is a failed send: the callback's caller must
            // not throw.
            if (std::this_thread::get_id() == m_ReactorThread.load()) {
                LOG4CXX_ERROR(logger, "send[" << m_strDescription << "]: " << e.what());
                return -1;
            }
            throw InternalException(e.what());
        }
        if (m_bBelowFailed) {
            // The channel below failed under this send: the reactor ends this channel.
            reactor = m_Reactor;
            sent = -1;
        }
        // On the reactor thread the masks are asked again after this dispatch anyway, and the
        // reactor's lock must not be taken under the handler's own locks there.
        if ((m_nTotalBytesPending != 0 || m_bBelowFailed) && std::this_thread::get_id() != m_ReactorThread.load()) {
            reactor = m_Reactor;
        }
    }
    // Output waits for the reactor's write events; a running wait would ask for them only
    // after its time-out.
    if (reactor && std::this_thread::get_id() != m_ReactorThread.load()) {
        reactor->wakeUp();
    }
    return sent;
}

std::error_code WSChannel::onWebSocketWrite(std::weak_ptr<void> hdl, const char * data, std::size_t size) {
    LOG4CXX_TRACE(logger, "onWebSocketWrite[" << m_strDescription << "]( size = " << size << " )");
    if (!m_UnderlyingChannel || m_bBelowFailed) {
        // Nothing can be delivered any more: the output is dropped, not kept.
        return std::error_code();
    }
    std::string refusal;
    if (!m_bHandshakeDone && versionMissing(hdl)) {
        // An upgrade without Sec-WebSocket-Version is taken by the engine for the draft before
        // RFC 6455, which it fails with 500 before any handler is asked: the client is told
        // the version spoken here instead (RFC 6455, 4.4).
        LOG4CXX_INFO(logger, "upgrade without Sec-WebSocket-Version refused on " << m_strDescription);
        refusal = "HTTP/1.1 426 Upgrade Required\r\nSec-WebSocket-Version: 13\r\nContent-Length: 0\r\n\r\n";
        data = refusal.data();
        size = refusal.size();
    }
    int n = 0;
    if (m_WriteBuffer.empty()) {
        try {
            n = m_UnderlyingChannel->getWriteDataStream()->send(static_cast<int>(size), data);
        } catch (const std::exception & e) {
            // A channel below whose send throws has failed like one that answers -1.
            LOG4CXX_ERROR(logger, "onWebSocketWrite[" << m_strDescription << "]: " << e.what());
            n = -1;
        }
    }
    if (n < 0) {
        // The channel below has said why, once; this channel ends at its next write event
        // (the read side may never come: a peer that reads nothing is not read from either).
        failBelow_i();
        return std::error_code();
    }
    if (static_cast<std::size_t>(n) < size) {
        m_WriteBuffer.emplace_back(data + n, data + size);
        m_nTotalBytesPending += static_cast<unsigned int>(size - static_cast<std::size_t>(n));
        LOG4CXX_TRACE(logger, "onWebSocketMessage[" << m_strDescription
                                                    << "]:m_nTotalBytesPending = " << m_nTotalBytesPending);
    }
    return std::error_code();
}

void WSChannel::onWrite(net::IWriteDataStream * stream) {
    guarded("onWrite", [&] { onWrite_i(stream); });
}

void WSChannel::onWrite_i(net::IWriteDataStream * stream) {
    LOG4CXX_TRACE(logger, "onWrite[" << m_strDescription << "]");
    if (upgradeOverdue()) {
        LOG4CXX_INFO(logger, "upgrade on " << m_strDescription << " not done within HandshakeTimeout="
                                           << m_HandshakeLimit << " ms: the connection ends");
        endWithError("onWrite");
        return;
    }
    bool drained = true;
    bool alive;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        learnReactor_i();
        // Before the drain: a ping joins the queue behind what waits already.
        alive = !m_bBelowFailed && keepAlive_i();
        while (alive && m_nTotalBytesPending != 0) {
            std::string & first = m_WriteBuffer.front();
            int n;
            try {
                n = stream->send(static_cast<int>(first.size()), first.data());
            } catch (const std::exception & e) {
                LOG4CXX_ERROR(logger, "onWrite[" << m_strDescription << "]: " << e.what());
                n = -1;
            }
            if (n < 0) {
                failBelow_i();
                alive = false;
                break;
            }
            m_nTotalBytesPending -= static_cast<unsigned int>(n);
            if (static_cast<std::size_t>(n) < first.size()) {
                first.erase(0, static_cast<std::size_t>(n));
                drained = false;
                break;
            }
            m_WriteBuffer.erase(m_WriteBuffer.begin());
        }
        if (m_bLingering && drained) {
            m_bLingering = false;
            endInOrder_i();
        }
    }
    if (!alive) {
        Common::SmartPtr<net::IChannelHandler> current = handler();
        if (m_bBelowFailed && current && current->hasPendingWrite()) {
            // A handler with output learns of the failure from its send, as on any channel
            // whose send fails (a tunnel then ends both of its sides at once).
            current->onWrite(this);
        }
        endWithError("onWrite");
        return;
    }
    if (drained) {
        deliver();
        Common::SmartPtr<net::IChannelHandler> current = handler();
        if (current && m_bOpen && !m_bClosing && current->hasPendingWrite()) {
            current->onWrite(this);
        }
    }
    finishDeferred();
}

bool WSChannel::versionMissing(std::weak_ptr<void> hdl) {
    try {
        ConnectionPtr con = m_Endpoint.get_con_from_hdl(hdl);
        return con->get_response_code() == websocketpp::http::status_code::internal_server_error &&
               !con->get_request_header("Upgrade").empty() && con->get_request_header("Sec-WebSocket-Version").empty();
    } catch (const websocketpp::exception &) {
        return false;
    }
}

void WSChannel::failBelow_i() {
    m_bBelowFailed = true;
    m_WriteBuffer.clear();
    m_nTotalBytesPending = 0;
}

void WSChannel::onClose() {
    LOG4CXX_TRACE(logger, "onClose[" << m_strDescription << "]");
    m_bBelowEnded = true;
    guarded("onClose", [this] { terminateConnection(); });
    wakeWaiters();
}

void WSChannel::onError() {
    LOG4CXX_TRACE(logger, "onError[" << m_strDescription << "]");
    m_bBelowEnded = true;
    guarded("onError", [this] { terminateConnection(); });
    wakeWaiters();
}

void WSChannel::wakeWaiters() {
    // Taken once after the flag was set: a waiter is then either before its check or asleep.
    { std::lock_guard<std::mutex> lock(m_Mutex); }
    m_Condition.notify_all();
}

template <typename Body>
void WSChannel::guarded(const char * where, Body body) {
    // The channel below calls these from its reactor dispatch, which must not throw: a
    // handler above that throws (or a send it makes) ends this channel, and only this one.
    try {
        body();
        return;
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, where << "[" << m_strDescription << "]: exception caught: " << e.what());
    } catch (...) {
        LOG4CXX_ERROR(logger, where << "[" << m_strDescription << "]: unknown exception caught");
    }
    endWithError(where);
}

void WSChannel::endWithError(const char * where) {
    try {
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            if (m_UnderlyingChannel) {
                m_ClosingChannel = std::move(m_UnderlyingChannel);
                m_UnderlyingChannel = nullptr;
            }
            terminateConnection_i();
            std::lock_guard<std::mutex> handlerLock(m_HandlerMutex);
            if (m_ChannelHandler) {
                m_EndedHandler = std::move(m_ChannelHandler);
                m_ChannelHandler = nullptr;
                m_bEndedWithError = true;
            }
        }
        finishDeferred();
    } catch (...) {
        LOG4CXX_ERROR(logger, where << "[" << m_strDescription << "]: exception caught while ending the channel");
    }
}

void WSChannel::onWebSocketOpen(std::weak_ptr<void>) {
    LOG4CXX_INFO(logger, "onWebSocketOpen[" << m_strDescription << "]()");
    m_bHandshakeDone = true;
    m_bOpen = true;
    m_Condition.notify_all();
}

void WSChannel::onWebSocketFail(std::weak_ptr<void> hdl) {
    LOG4CXX_INFO(logger, "onWebSocketFail[" << m_strDescription << "]()");
    try {
        m_strHandshakeError = m_Endpoint.get_con_from_hdl(hdl)->get_response_msg();
    } catch (const websocketpp::exception &) {
    }
    m_bHandshakeDone = true;
    m_bOpen = false;
    m_Condition.notify_all();
}

void WSChannel::onWebSocketClose(std::weak_ptr<void> hdl) {
    m_bOpen = false;
    Common::SmartPtr<net::IChannelHandler> local;
    if (!m_bEndAfterReader) {
        std::lock_guard<std::mutex> lock(m_HandlerMutex);
        local = std::move(m_ChannelHandler);
        m_ChannelHandler = nullptr;
    }
    m_Condition.notify_all();
    websocketpp::close::status::value code = websocketpp::close::status::abnormal_close;
    std::string reason;
    try {
        ConnectionPtr con = m_Endpoint.get_con_from_hdl(hdl);
        code = con->get_remote_close_code();
        reason = con->get_remote_close_reason();
    } catch (const websocketpp::exception &) {
    }
    const bool normal = code == websocketpp::close::status::normal;
    // After a failed send below, whose line gave the cause, the end is no news.
    if (normal || m_bBelowFailed) {
        LOG4CXX_INFO(logger, "onWebSocketClose[" << m_strDescription << "](): (" << code << ") "
                                                 << websocketpp::close::status::get_string(code) << ": " << reason);
    } else {
        LOG4CXX_WARN(logger, "onWebSocketClose[" << m_strDescription << "](): (" << code << ") "
                                                 << websocketpp::close::status::get_string(code) << ": " << reason);
    }
    // Told once the lock is let go, so that the handler may close this channel; after the
    // messages that came before the close, when some still wait (see deliver).
    m_bEndedWithError = !normal;
    if (local) {
        m_EndedHandler = std::move(local);
    }
}

std::error_code WSChannel::onWebSocketShutdown(std::weak_ptr<void>) {
    LOG4CXX_TRACE(logger, "onWebSocketShutdown[" << m_strDescription << "]");
    if (!m_ReadBuffer.empty() && handler()) {
        // Messages that came before the close still wait for the handler: the channel below
        // stays, its write events bring them; the end follows them (endAfterReader_i).
        m_bEndAfterReader = true;
    } else if (m_UnderlyingChannel) {
        // Closed once the lock is let go: closing it from a host thread waits for the
        // reactor, which may be waiting for this channel's lock.
        m_ClosingChannel = std::move(m_UnderlyingChannel);
        m_UnderlyingChannel = nullptr;
    }
    return std::error_code();
}

bool WSChannel::onWebSocketValidate(std::weak_ptr<void> hdl) {
    ConnectionPtr con = m_Endpoint.get_con_from_hdl(hdl);
    LOG4CXX_TRACE(logger, "onWebSocketValidate[" << m_strDescription << "]: request = " << con->get_request().raw());
    // Browsers send Origin and let any page open a WebSocket: without this check every page
    // the user visits could reach what the server fronts. Other clients send no Origin.
    const std::string origin = con->get_request_header("Origin");
    if (m_AllowedOrigins.empty() || origin.empty() ||
        std::find(m_AllowedOrigins.begin(), m_AllowedOrigins.end(), origin) != m_AllowedOrigins.end()) {
        return true;
    }
    LOG4CXX_WARN(logger, "upgrade from Origin '" << origin << "' refused on " << m_strDescription
                                                 << ": not in AllowedOrigins");
    con->set_status(websocketpp::http::status_code::forbidden);
    return false;
}

void WSChannel::setMessageOptions(bool textMessages, std::vector<std::string> allowedOrigins) {
    m_bTextMessages = textMessages;
    m_AllowedOrigins = std::move(allowedOrigins);
}

void WSChannel::onWebSocketHTTP(std::weak_ptr<void> hdl) {
    ConnectionPtr con = m_Endpoint.get_con_from_hdl(hdl);
    LOG4CXX_TRACE(logger, "onWebSocketHTTP[" << m_strDescription << "]: request = " << con->get_request().raw());
    con->set_status(websocketpp::http::status_code::upgrade_required);
}

bool WSChannel::onWebSocketPing(std::weak_ptr<void>, std::string payload) {
    LOG4CXX_DEBUG(logger, "onWebSocketPing[" << m_strDescription << "]( payload = " << payload << " )");
    return true;
}

void WSChannel::close() {
    LOG4CXX_INFO(logger, "close[" << m_strDescription << "]()");
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        {
            std::lock_guard<std::mutex> handlerLock(m_HandlerMutex);
            m_ChannelHandler = nullptr;
        }
        try {
            // A connection that has ended already has nobody to answer a close frame.
            const bool answerExpected = m_Connection && m_bOpen;
            // After shutdownWrite the close frame is out already.
            if (m_Connection && !m_bOrderlyEnd) {
                m_Connection->close(websocketpp::close::status::normal, "close");
                m_bClosing = true;
            }
            if (m_bOrderlyEnd && m_bOpen && std::this_thread::get_id() == m_ReactorThread.load()) {
                // Handed over to onWrite, which ends the channel below once the output is out.
                m_bLingering = m_nTotalBytesPending != 0;
                if (m_bLingering) {
                    LOG4CXX_DEBUG(logger, "close[" << m_strDescription << "]: the output goes out first");
                } else {
                    endInOrder_i();
                }
            }
            // On the reactor thread the answer could never arrive during the wait.
            if (answerExpected && std::this_thread::get_id() != m_ReactorThread.load() &&
                !m_Condition.wait_for(lock, std::chrono::milliseconds(kWaitMilliseconds),
                                      [this] { return !m_bOpen; })) {
                throw InternalException("timeout while waiting for connection close to complete");
            }
            if ((m_bOpen && !m_bLingering) || m_bEndAfterReader) {
                terminateConnection_i();
            }
        } catch (const websocketpp::exception & e) {
            LOG4CXX_WARN(logger, "close[" << m_strDescription << "]: got websocket error: " << e.what());
            terminateConnection_i();
        } catch (const std::exception & e) {
            LOG4CXX_WARN(logger, "close[" << m_strDescription << "]: exception occured: " << e.what());
            terminateConnection_i();
        } catch (...) {
            LOG4CXX_WARN(logger, "close[" << m_strDescription << "]: unknown exception occured");
            terminateConnection_i();
        }
    }
    finishDeferred();
}

}  // namespace websocket
