#include "websocket/websocketchannel.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <functional>

#include "common/logging.h"
#include "common/timedelta.h"
#include "socketio/connectabort.h"
#include "socketio/socketexception.h"
#include "socketio/socketfunctions.h"
#include "websocket/handshakeerror.h"
#include "websocket/internalexception.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.WebSocketChannel");
const log4cxx::LoggerPtr accessLogger = Common::GetLogger(kEngineAccessCategory);
const log4cxx::LoggerPtr errorLogger = Common::GetLogger(kEngineErrorCategory);

// Room kept free in the output ring for the header of the next frame.
constexpr std::int64_t kFrameHeaderReserve = 128;
constexpr int kProcessLoopWaitMilliseconds = 1000;
constexpr const char * kOverflowText = "WebSocketSSLChannel::onWebSocketWrite: Buffer overflow";

int handleSocketSendError(int nSent) {
    const int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK || error == EINTR) {
        LOG4CXX_TRACE(logger, "socket_send: ==> WOULDBLOCK ");
        return nSent;
    }
    LOG4CXX_ERROR(logger, "socket_send: failed with error code '" << error << "' : " << socketio::SystemErrorText(error));
    return -1;
}

// Drains the ring into the socket, piece by piece, until it is empty or the socket is full.
// The bytes sent, or -1 when the socket failed.
int socket_send(unsigned int hSocket, OutputRing & buffer) {
    LOG4CXX_TRACE(logger, "socket_send( hSocket, buffer = " << buffer.toString());
    int total = 0;
    while (buffer.readAvailable() > 0) {
        const char * piece = buffer.readPointer();
        const std::int64_t length = buffer.readPieceLength();
        LOG4CXX_TRACE(logger, "send( hSocket, data=" << static_cast<const void *>(piece) << ", size=" << length
                                                     << " ) [buffer=" << buffer.toString());
        // MSG_NOSIGNAL: a peer that has gone must never kill the host with SIGPIPE.
        const ssize_t sent =
            ::send(static_cast<int>(hSocket), piece, static_cast<std::size_t>(length), MSG_NOSIGNAL);
        if (sent == 0) {
            return total;
        }
        if (sent < 0) {
            return handleSocketSendError(total);
        }
        buffer.consume(sent);
        total += static_cast<int>(sent);
    }
    return total;
}
}  // namespace

WebSocketChannel::WebSocketChannel(unsigned int hSocket, const socketio::socket_options & options)
    : WebSocketChannel(hSocket, options, logger) {}

WebSocketChannel::WebSocketChannel(unsigned int hSocket, const socketio::socket_options & options,
                                   const log4cxx::LoggerPtr & classLogger)
    : m_log(classLogger),
      m_hSocket(hSocket),
      m_bHandshakeDone(false),
      m_bOpen(false),
      m_pReadInterest(nullptr),
      m_nLastEventTime(0),
      m_RecvBuffer(static_cast<std::size_t>(std::max(0, options.receiveBufferSize)) | 15u),
      m_bInputEnded(false),
      m_OutputBuffer(static_cast<std::int64_t>(options.receiveBufferSize)),
      m_bOutputOverflow(false),
      m_bEnded(false),
      m_bEndReported(false),
      m_bHandlerThrew(false) {
    LOG4CXX_TRACE(m_log, "ctor");
    LOG4CXX_INFO(m_log, "initializing using rcvBuf=" << options.receiveBufferSize
                                                      << " and sndBuf=" << options.sendBufferSize);
    m_Client.get_alog().setLogger(accessLogger);
    m_Client.get_elog().setLogger(errorLogger);
    using std::placeholders::_1;
    using std::placeholders::_2;
    using std::placeholders::_3;
    m_Client.set_close_handler(std::bind(&WebSocketChannel::onWebSocketClose, this, _1));
    m_Client.set_message_handler(std::bind(&WebSocketChannel::onWebSocketMessage, this, _1, _2));
    m_Client.set_write_handler(std::bind(&WebSocketChannel::onWebSocketWrite, this, _1, _2, _3));
    m_Client.set_open_handler(std::bind(&WebSocketChannel::onWebSocketOpen, this, _1));
    m_Client.set_fail_handler(std::bind(&WebSocketChannel::onWebSocketFail, this, _1));
    m_Client.set_ping_handler(std::bind(&WebSocketChannel::onWebSocketPing, this, _1, _2));
}

WebSocketChannel::~WebSocketChannel() {
    LOG4CXX_TRACE(m_log, "dtor");
    // A connection still waiting for input holds itself alive through that wait.
    endEngineInput();
}

void WebSocketChannel::openLogicalConnection(const char * szURI) {
    LOG4CXX_TRACE(m_log, "openLogicalConnection( szURI = " << szURI << " )");
    // One call that sets only the non-blocking flag, without reading the others first.
    int nonBlocking = 1;
    ioctl(static_cast<int>(m_hSocket), FIONBIO, &nonBlocking);
    prepareTransport();
    try {
        {
            std::lock_guard<std::mutex> guard(m_SendMutex);
            m_Client.set_secure(secure());
            std::error_code ec;
            m_Connection = m_Client.get_connection(szURI, ec);
            if (ec) {
                throw InternalException(("unable to connect:" + ec.message()).c_str());
            }
            m_bHandshakeDone = false;
            m_Client.connect(m_Connection);
            if (m_bOutputOverflow) {
                throw InternalException(kOverflowText);
            }
            // The request goes out at once: a fresh socket has room for it, and the pump then
            // waits for the answer alone. A failure shows there.
            flushWriteToSocket_i();
            ec = m_Connection->get_ec();
            if (ec) {
                throw InternalException(("unable to connect:" + ec.message()).c_str());
            }
        }
        // Within ConnectTimeout if one is set; the loop's own waits have no limit.
        processUntil([this] { return m_bHandshakeDone || socketio::ConnectTimeLeft() == 0; });
        if (!m_bHandshakeDone && !m_bInputEnded && m_hSocket != socketio::INVALID_SOCKET_HANDLE) {
            throw InternalException(
                ("timeout while waiting for connection handshake to complete with '" + std::string(szURI) + "'").c_str());
        }
        if (!m_bOpen) {
            std::string text;
            bool failed;
            {
                std::lock_guard<std::mutex> guard(m_SendMutex);
                failed = static_cast<bool>(m_Connection->get_ec());
                text = HandshakeFailureText(m_Connection);
            }
            // Open, then ended before this returned: a violation in the bytes that came with
            // the 101, or the peer's end; the engine's code then says only "Success".
            const std::string violation = violationCause();
            if (!violation.empty()) {
                text = "the peer broke the WebSocket protocol " + violation;
            } else if (!failed) {
                text = "the connection ended during the handshake";
            }
            if (!m_strHandshakeError.empty()) {
                text += " : " + m_strHandshakeError;
            }
            throw InternalException(text.c_str());
        }
    } catch (const websocketpp::exception & e) {
        throw InternalException(e.what());
    }
    net::URI local = socketio::SocketLocalURI(m_hSocket, true, "tcp");
    local.setScheme(secure() ? "wss" : "ws");
    m_strLocalURI = local.ToString();
    m_strPeerURI = net::URI::FromString(szURI).ToString();
    m_strDescription = m_strLocalURI + " <-> " + m_strPeerURI;
}

template <typename Done>
void WebSocketChannel::processUntil(Done done) {
    LOG4CXX_TRACE(m_log, "enter websocketProcessLoop()");
    // poll, not select: descriptors above 1023 are as good as any other.
    while (!done() && !m_bInputEnded && m_hSocket != socketio::INVALID_SOCKET_HANDLE) {
        if (inputPending()) {
            // Held below already (read ahead by OpenSSL): the socket may never show it again.
            readDataFromSocketToWebSocket();
            continue;
        }
        const bool writing = outputWaiting();
        pollfd entry{static_cast<int>(m_hSocket), static_cast<short>(POLLIN | (writing ? POLLOUT : 0)), 0};
        // Never past the time left to open the connection, if that is limited.
        const int left = socketio::ConnectTimeLeft();
        if (poll(&entry, 1, left >= 0 && left < kProcessLoopWaitMilliseconds ? left : kProcessLoopWaitMilliseconds) <= 0) {
            continue;
        }
        if (writing && (entry.revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
            writeToHandlerAndFlush();
        }
        if ((entry.revents & (POLLIN | POLLERR | POLLHUP | POLLNVAL)) != 0) {
            readDataFromSocketToWebSocket();
        }
    }
    LOG4CXX_TRACE(m_log, "leave websocketProcessLoop()");
}

bool WebSocketChannel::outputWaiting() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    return m_OutputBuffer.readAvailable() > 0;
}

void WebSocketChannel::endEngineInput() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (!m_Connection) {
        return;
    }
    try {
        m_Connection->eof();
    } catch (const websocketpp::exception & e) {
        LOG4CXX_DEBUG(m_log, "endEngineInput[" << m_strDescription << "]: " << e.what());
    }
}

bool WebSocketChannel::readDataFromSocketToWebSocket() {
    Common::SmartPtr<net::IChannelHandler> handler = m_ChannelHandler;
    const ssize_t n = ::recv(static_cast<int>(m_hSocket), m_RecvBuffer.data(), m_RecvBuffer.size(), 0);
    LOG4CXX_TRACE(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: recv( socket = " << m_hSocket
                                                          << ", buf = " << static_cast<const void *>(m_RecvBuffer.data())
                                                          << ", len = " << m_RecvBuffer.size() << ", flags = 0 ) -> "
                                                          << n << " bytes");
    if (n <= 0) {
        endInput();
        reportEnd(handler.get(), n != 0);
        return false;
    }
    return feedEngine(static_cast<std::size_t>(n), handler.get());
}

void WebSocketChannel::endInput() {
    m_bInputEnded = true;
    endEngineInput();
}

std::string WebSocketChannel::violationCause() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (!m_Connection) {
        return std::string();
    }
    // The engine answers a peer's protocol violation with a close frame of its own whose
    // code names the violation (RFC 6455, 7.4.1); the host's own close says "normal".
    const auto code = m_Connection->get_local_close_code();
    namespace status = websocketpp::close::status;
    if (code == status::blank || code == status::normal || code == status::going_away ||
        code == status::no_status || code == status::abnormal_close) {
        return std::string();
    }
    return "(" + std::to_string(code) + ") " + status::get_string(code) + ": " + m_Connection->get_local_close_reason();
}

void WebSocketChannel::reportEnd(net::IChannelHandler * handler, bool error) {
    if (handler == nullptr || m_bEndReported) {
        return;
    }
    m_bEndReported = true;
    const std::string violation = violationCause();
    if (!violation.empty()) {
        // The one line of this failure: the peer's close or end that follows is its consequence.
        LOG4CXX_ERROR(m_log, "onEvents[" << m_strDescription << "]: the peer broke the WebSocket protocol " << violation);
        error = true;
    }
    if (error) {
        handler->onError();
    } else {
        handler->onClose();
    }
}

bool WebSocketChannel::feedEngine(std::size_t n, net::IChannelHandler * handler) {
    // Whatever the bytes are (a pong, data, a close frame), the peer is alive.
    m_KeepAlive.heard(Common::GetTickCount64());
    try {
        std::size_t consumed;
        bool overflow;
        {
            std::lock_guard<std::mutex> guard(m_SendMutex);
            consumed = m_Connection->read_all(m_RecvBuffer.data(), n);
            overflow = m_bOutputOverflow;
        }
        if (overflow) {
            // An automatic reply (pong, close) found no room: the channel cannot keep its word
            // to the peer, so it ends, and the handler hears of it.
            LOG4CXX_ERROR(m_log, "readDataFromSocketToWebSocket[" << m_strDescription
                                                                  << "]: reply of the engine does not fit the output buffer, "
                                                                  << kOverflowText);
            endInput();
            reportEnd(handler, true);
            return false;
        }
        if (consumed < n) {
            LOG4CXX_WARN(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: processed " << consumed
                                                                 << " bytes while " << n << " bytes received");
            return false;
        }
        if (handler == nullptr) {
            // A channel that receives data needs a handler.
            return false;
        }
        m_ReadMessageBuffer.deliverTo(handler);
        return true;
    } catch (const websocketpp::exception & e) {
        LOG4CXX_WARN(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: exception caught: " << e.what());
        return false;
    }
}

int WebSocketChannel::sendOutput_i() {
    return socket_send(m_hSocket, m_OutputBuffer);
}

bool WebSocketChannel::flushWriteToSocket() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    return flushWriteToSocket_i();
}

bool WebSocketChannel::flushWriteToSocket_i() {
    if (m_OutputBuffer.readAvailable() == 0) {
        return true;
    }
    if (m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
        // The reactor has closed the socket (the channel had ended): its number may belong to
        // another connection by now, so nothing is written, not even a close frame.
        return false;
    }
    if (m_bSendFailed) {
        // Said once already: the channel ends at its next event.
        return false;
    }
    const int n = sendOutput_i();
    LOG4CXX_TRACE(m_log, "flushWriteToSocket[" << m_strDescription << "]: " << senderName() << "() -> " << n << " bytes");
    if (n < 0) {
        // The bottom layer has given the cause in its own line.
        LOG4CXX_DEBUG(m_log, "flushWriteToSocket[" << m_strDescription << "]: nSend = " << n);
        m_bSendFailed = true;
        return false;
    }
    return true;
}

void WebSocketChannel::writeToHandlerAndFlush() {
    Common::SmartPtr<net::IChannelHandler> handler = m_ChannelHandler;
    if (handler && handler->hasPendingWrite()) {
        handler->onWrite(this);
    }
    flushWriteToSocket();
}

int WebSocketChannel::send(int nMaxSize, const void * data) {
    bool outputLeft = false;
    if (onReactorThread()) {
        // Inside a callback: an exception would end the process in the reactor's dispatch,
        // which must not throw. The failure of the socket shows on the channel's own events.
        // The reactor asks for the masks again after the dispatch, so no wake-up is needed.
        try {
            return sendLocked(nMaxSize, data, outputLeft);
        } catch (const std::exception &) {
            return -1;
        }
    }
    // The socket is closed through closeSocket, under m_SendMutex, which sendLocked holds: the
    // socket that is written is still this one.
    int sent;
    try {
        sent = sendLocked(nMaxSize, data, outputLeft);
    } catch (...) {
        // The reactor ends the channel at its next write event: at once, not after its wait.
        if (m_homeReactor) {
            m_homeReactor->wakeUp();
        }
        throw;
    }
    // What the socket did not take waits in the ring for the reactor's write events: a running
    // wait would otherwise ask for them only after its time-out. Outside the send lock, which
    // the reactor thread takes under its own lock.
    if (outputLeft && m_homeReactor) {
        m_homeReactor->wakeUp();
    }
    return sent;
}

bool WebSocketChannel::onReactorThread() const {
    return m_homeReactor && m_homeReactor->onReactorThread();
}

int WebSocketChannel::sendLocked(int nMaxSize, const void * data, bool & outputLeft) {
    LOG4CXX_TRACE(m_log, "send[" << m_strDescription << "]( nMaxSize = " << nMaxSize << ", data = " << data << " )");
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (!m_Connection || m_bEnded || m_bSendFailed || m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
        // Never opened, failed, or the reactor or close() has let go of the socket: the
        // connection has failed as far as the sender is concerned, and a sender waiting for
        // room would otherwise wait for ever.
        return -1;
    }
    const std::int64_t writable = m_OutputBuffer.writeAvailable();
    if (writable <= kFrameHeaderReserve || nMaxSize < 0) {
        return 0;
    }
    const auto n = static_cast<unsigned int>(
        std::min<std::int64_t>(static_cast<unsigned int>(nMaxSize), writable - kFrameHeaderReserve));
    const bool wasEmpty = m_OutputBuffer.readAvailable() == 0;
    try {
        // The engine's refusal (a connection no longer open) is not reported: the count is.
        std::error_code ignored = m_Connection->send(data, n, websocketpp::frame::opcode::binary);
        (void)ignored;
    } catch (const websocketpp::exception & e) {
        throw InternalException(e.what());
    }
    if (m_bOutputOverflow) {
        throw InternalException(kOverflowText);
    }
    // A busy sender leaves the drain to the reactor: one system call per cycle, not per message.
    if (wasEmpty && !flushWriteToSocket_i()) {
        throw InternalException("flushWriteToSocket failed");
    }
    outputLeft = m_OutputBuffer.readAvailable() > 0;
    return static_cast<int>(n);
}

std::error_code WebSocketChannel::onWebSocketWrite(std::weak_ptr<void>, const char * data, std::size_t size) {
    LOG4CXX_TRACE(m_log, "onWebSocketWrite[" << m_strDescription << "]( hdl = ..., data = "
                                              << static_cast<const void *>(data) << ", maxSize = " << size
                                              << "), m_OutputBuffer=" << m_OutputBuffer.toString());
    if (!m_bOutputOverflow) {
        const auto length = static_cast<std::int64_t>(size);
        if (m_OutputBuffer.write(data, length) == length) {
            return std::error_code();
        }
        m_bOutputOverflow = true;
    }
    // Not an exception: it would unwind through the engine. The engine ends the connection on
    // a failed write, and the caller of the engine reports the overflow.
    return websocketpp::transport::iostream::error::make_error_code(websocketpp::transport::iostream::error::general);
}

void WebSocketChannel::onWebSocketClose(std::weak_ptr<void>) {
    LOG4CXX_INFO(m_log, "onWebSocketClose[" << m_strDescription << "]()");
    m_bOpen = false;
}

void WebSocketChannel::onWebSocketOpen(std::weak_ptr<void>) {
    LOG4CXX_INFO(m_log, "onWebSocketOpen[" << m_strDescription << "]()");
    m_bHandshakeDone = true;
    m_bOpen = true;
}

void WebSocketChannel::onWebSocketFail(std::weak_ptr<void>) {
    LOG4CXX_INFO(m_log, "onWebSocketFail[" << m_strDescription << "]()");
    m_strHandshakeError = m_Connection->get_response_msg();
    m_bHandshakeDone = true;
    m_bOpen = false;
}

void WebSocketChannel::onWebSocketMessage(std::weak_ptr<void>, Client::message_ptr message) {
    try {
        LOG4CXX_TRACE(m_log, "onWebSocketMessage[" << m_strDescription << "]( hdl = ..., msg = "
                                                    << static_cast<const void *>(message.get()));
        // The channel is a binary byte stream: text joins it only when asked for.
        const auto opcode = message->get_opcode();
        if (opcode == websocketpp::frame::opcode::binary ||
            (opcode == websocketpp::frame::opcode::text && m_bTextMessages)) {
            m_ReadMessageBuffer.addMessage(std::move(message->get_raw_payload()));
            LOG4CXX_TRACE(m_log, "onWebSocketMessage[" << m_strDescription
                                                        << "]: m_ReadMessageBuffer.size = " << m_ReadMessageBuffer.size());
        } else if (opcode == websocketpp::frame::opcode::text && !m_bTextDropTold) {
            m_bTextDropTold = true;
            LOG4CXX_WARN(m_log, "text message dropped on " << m_strDescription
                                                            << " (TextMessages=true reads text messages)");
        }
    } catch (const std::exception & e) {
        LOG4CXX_INFO(m_log, "exception caught during onWebSocketMessage: " << e.what());
    } catch (...) {
        LOG4CXX_INFO(m_log, "unknown exception caught during onWebSocketMessage");
    }
}

bool WebSocketChannel::onWebSocketPing(std::weak_ptr<void>, std::string payload) {
    LOG4CXX_DEBUG(m_log, "onWebSocketPing[" << m_strDescription << "]( hdl = ..., payload = " << payload << " )");
    return true;
}

void WebSocketChannel::setChannelHandler(net::IChannelHandler * handler) {
    LOG4CXX_TRACE(m_log, "setChannelHandler[" << m_strDescription << "]( " << static_cast<void *>(handler) << " )");
    m_ChannelHandler = handler;
    m_pReadInterest = dynamic_cast<socketio::IReadInterest *>(handler);
}

void WebSocketChannel::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) {
    LOG4CXX_TRACE(m_log, "setReactor[" << m_strDescription << "](" << static_cast<void *>(reactor) << ", " << now << ")");
    m_Reactor = reactor;
    if (reactor != nullptr && !m_homeReactor) {
        m_homeReactor = reactor;
    }
    m_nLastEventTime = now;
    if (reactor != nullptr) {
        m_KeepAlive.heard(now);
    }
}

short WebSocketChannel::getEventMask() noexcept {
    if (m_bLingering) {
        return socketio::SELECT_EVENT_WRITE;
    }
    short mask = 0;
    try {
        if (!m_ReadMessageBuffer.empty()) {
            // Messages wait for the handler: the socket is not read meanwhile, which is the
            // channel's flow control towards the peer. While the handler has no room nothing
            // is asked for them either (an event due at once would spin the reactor): the
            // next cycle after its room comes back delivers them.
            if (m_pReadInterest == nullptr || m_pReadInterest->wantsRead()) {
                mask = socketio::SELECT_EVENT_PENDING;
            }
        } else if (m_pReadInterest == nullptr || m_pReadInterest->wantsRead()) {
            mask = socketio::SELECT_EVENT_READ;
            if (inputPending()) {
                mask |= socketio::SELECT_EVENT_PENDING;
            }
        }
        if (outputWaiting() || (m_ChannelHandler && m_ChannelHandler->hasPendingWrite())) {
            mask |= socketio::SELECT_EVENT_WRITE;
        }
        if (m_KeepAlive.enabled()) {
            // Asked every cycle, so at least every selectTimeout: the clock check is all that
            // happens here, under the reactor's lock; the ping goes out in the dispatch.
            const std::uint64_t now = Common::GetTickCount64();
            if ((mask & socketio::SELECT_EVENT_READ) == 0) {
                // The channel holds back its reads for the handler: the peer's silence
                // cannot be told from that, so it does not count.
                m_KeepAlive.heard(now);
            } else if (m_KeepAlive.check(now) != KeepAlive::Due::Nothing) {
                mask |= socketio::SELECT_EVENT_PENDING;
            }
        }
    } catch (...) {
        // The handler threw: the channel ends at the event that this asks for at once.
        m_bHandlerThrew = true;
        mask = socketio::SELECT_EVENT_PENDING;
    }
    return mask;
}

bool WebSocketChannel::onEvents(const short & events, const std::uint64_t & now) noexcept {
    m_nLastEventTime = now;
    if (m_bLingering) {
        return onLingeringEvents();
    }
    try {
        if (m_bHandlerThrew) {
            LOG4CXX_ERROR(m_log, "onEvents[" << m_strDescription << "]: exception caught in getEventMask");
        } else if (dispatch(events)) {
            return true;
        }
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(m_log, "onEvents[" << m_strDescription << "]: exception caught: " << e.what());
    } catch (...) {
        LOG4CXX_ERROR(m_log, "onEvents[" << m_strDescription << "]: unknown exception caught");
    }
    endAfterEvent();
    return false;
}

void WebSocketChannel::endAfterEvent() noexcept {
    // Every end reaches the handler, once (a failed write or a refused read too): a tunnel
    // would otherwise keep the other half of the connection open. An owner that closed the
    // channel has no handler left here.
    try {
        endInput();
        reportEnd(m_ChannelHandler.get(), true);
    } catch (...) {
        LOG4CXX_ERROR(m_log, "onEvents[" << m_strDescription << "]: exception caught while ending the channel");
    }
    markEnded();
}

void WebSocketChannel::markEnded() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    m_bEnded = true;
}

bool WebSocketChannel::dispatch(short events) {
    Common::SmartPtr<net::IChannelHandler> handler = m_ChannelHandler;
    if (handler && ((events & socketio::SELECT_EVENT_PENDING) != 0 || !m_ReadMessageBuffer.empty())) {
        m_ReadMessageBuffer.deliverTo(handler.get());
    }
    if (m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
        // The sweep closed the socket: the end is told without a read, which would reach
        // through the closed number (in the TLS twin, OpenSSL keeps the number for itself).
        endInput();
        reportEnd(handler.get(), true);
        return false;
    }
    const bool readable = (events & socketio::SELECT_EVENT_READ) != 0 ||
                          ((events & socketio::SELECT_EVENT_PENDING) != 0 && inputPending());
    if (m_ReadMessageBuffer.empty() && readable) {
        if (!readDataFromSocketToWebSocket()) {
            return false;
        }
        bool closing;
        {
            std::lock_guard<std::mutex> guard(m_SendMutex);
            closing = m_Connection->get_state() == websocketpp::session::state::closing;
        }
        if (closing) {
            LOG4CXX_TRACE(m_log, "onEvents[" << m_strDescription << "]: state is closing");
            writeToHandlerAndFlush();
        }
    }
    if ((events & socketio::SELECT_EVENT_WRITE) != 0) {
        if (handler && handler->hasPendingWrite()) {
            handler->onWrite(this);
        }
        if (!flushWriteToSocket()) {
            endEngineInput();
            return false;
        }
    }
    return keepAlive();
}

bool WebSocketChannel::keepAlive() {
    // Asked after the read of this dispatch: an answer that came with it counts.
    const KeepAlive::Due due = m_KeepAlive.next(Common::GetTickCount64(), m_log, m_strDescription);
    if (due != KeepAlive::Due::Ping) {
        return due == KeepAlive::Due::Nothing;
    }
    return sendPing();
}

bool WebSocketChannel::sendPing() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (!m_Connection || m_bEnded || m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
        return false;
    }
    if (m_OutputBuffer.writeAvailable() <= kFrameHeaderReserve) {
        // No room for the frame now; the next interval tries again. The ping counts as sent
        // all the same: a peer that reads nothing any more is as gone as one that answers
        // nothing.
        return true;
    }
    LOG4CXX_DEBUG(m_log, "ping[" << m_strDescription << "]");
    std::error_code ec;
    // Refused only when the connection is no longer open (closing): its end is near anyway.
    m_Connection->ping("", ec);
    if (m_bOutputOverflow) {
        LOG4CXX_ERROR(m_log, "ping[" << m_strDescription << "]: " << kOverflowText);
        return false;
    }
    return flushWriteToSocket_i();
}

bool WebSocketChannel::shutdownWrite() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (!m_Connection || m_bEnded || m_bOutputOverflow || m_hSocket == socketio::INVALID_SOCKET_HANDLE ||
        m_Connection->get_state() != websocketpp::session::state::open) {
        return false;
    }
    std::error_code ec;
    m_Connection->close(websocketpp::close::status::normal, "close", ec);
    if (ec || m_bOutputOverflow) {
        return false;
    }
    m_bOrderlyEnd = true;
    // The abortive linger of the socket options would drop what the kernel still holds for
    // the peer at the close that follows.
    struct linger orderly{0, 0};
    ::setsockopt(static_cast<int>(m_hSocket), SOL_SOCKET, SO_LINGER, &orderly, sizeof orderly);
    // A failure shows at the next event.
    flushWriteToSocket_i();
    if (m_Reactor) {
        m_Reactor->interestChanged(this);
    }
    return true;
}

bool WebSocketChannel::lingerForOutput() {
    if (!onReactorThread() || !m_Reactor) {
        return false;
    }
    {
        std::lock_guard<std::mutex> guard(m_SendMutex);
        if (!m_bOrderlyEnd || m_bEnded || m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
            return false;
        }
    }
    if (!flushWriteToSocket() || !outputWaiting()) {
        return false;
    }
    LOG4CXX_DEBUG(m_log, "close[" << m_strDescription << "]: the output goes out first");
    m_ChannelHandler = nullptr;
    m_pReadInterest = nullptr;
    m_bLingering = true;
    m_Reactor->interestChanged(this);
    return true;
}

bool WebSocketChannel::onLingeringEvents() noexcept {
    try {
        if (flushWriteToSocket() && outputWaiting()) {
            return true;
        }
        endEngineInput();
    } catch (...) {
        LOG4CXX_DEBUG(m_log, "onEvents[" << m_strDescription << "]: the output that followed close() was lost");
    }
    markEnded();
    std::lock_guard<std::mutex> guard(m_SendMutex);
    releaseTransport_i();
    return false;
}

void WebSocketChannel::close() {
    LOG4CXX_INFO(m_log, "close[" << m_strDescription << "]()");
    if (m_bLingering || lingerForOutput()) {
        return;
    }
    Common::SmartPtr<socketio::SelectReactor> registeredWith;
    {
        socketio::SelectReactor::ForeignThreadGuard guard(m_homeReactor.get());
        registeredWith = std::move(m_Reactor);
    }
    if (registeredWith) {
        registeredWith->unregisterSubscriber(this);
        registeredWith = nullptr;
    }
    m_ChannelHandler = nullptr;
    m_pReadInterest = nullptr;
    if (m_Connection) {
        try {
            bool overflow;
            {
                std::lock_guard<std::mutex> guard(m_SendMutex);
                // After shutdownWrite the close frame is out already.
                if (!m_bOrderlyEnd) {
                    m_Connection->close(websocketpp::close::status::normal, "close");
                }
                overflow = m_bOutputOverflow;
            }
            if (overflow) {
                // The close frame found no room: the socket is closed all the same, so that
                // the owner is not left with a socket that nobody will close.
                LOG4CXX_WARN(m_log, "close[" << m_strDescription << "]: " << kOverflowText);
            } else if (onReactorThread()) {
                flushWriteToSocket();
            } else {
                processUntil([this] { return !m_bOpen; });
            }
        } catch (const websocketpp::exception & e) {
            LOG4CXX_WARN(m_log, "close[" << m_strDescription << "]: got websocket error: " << e.what());
        }
        endEngineInput();
    }
    markEnded();
    {
        std::lock_guard<std::mutex> guard(m_SendMutex);
        releaseTransport_i();
    }
    socketio::SelectReactor::ForeignThreadGuard guard(m_homeReactor.get());
    closeSocket();
}

void WebSocketChannel::closeSocket() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    ISelectEventSubscriber::closeSocket();
}

}  // namespace websocket
