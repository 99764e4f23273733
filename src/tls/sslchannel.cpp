#include "tls/sslchannel.h"

#include <openssl/err.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>

#include "common/logging.h"
#include "common/timedelta.h"
#include "socketio/socketfunctions.h"
#include "tls/sslexception.h"

namespace ssl {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.ssl.SSLChannel");

// What the reactor's read event turned out to be.
enum class ReadOutcome { Deliver, PeerClosed, Failed, ClosedByOwner };

// A socket error that means the peer has gone: reset, a write after its end, or (0) an end
// without close_notify.
bool peerGone(int code) {
    return code == 0 || code == ECONNRESET || code == EPIPE;
}

// Inside a catch block: the words the reactor uses for an exception out of a subscriber.
void logCaughtException() noexcept {
    try {
        throw;
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "exception caught while dispatching socket event: " << e.what());
    } catch (...) {
        LOG4CXX_ERROR(logger, "unknown exception caught while dispatching socket event");
    }
}
}  // namespace

SSLChannel::SSLChannel(unsigned int socket, SSL * ssl, bool handshakeDone, socketio::SelectReactor * home)
    : m_socket(socket),
      m_lastEventTime(0),
      m_homeReactor(home),
      m_ssl(ssl),
      m_readInterest(nullptr),
      m_readEnd(nullptr),
      m_readEnded(false),
      m_handshakeDone(handshakeDone),
      m_endPending(false),
      m_closeNotifyPending(false),
      m_handshakeEvents(socketio::SELECT_EVENT_READ | socketio::SELECT_EVENT_WRITE),
      m_handshakeLimit(0),
      m_handshakeDeadline(0),
      m_handlerFailed(false) {
    // One call that sets only the non-blocking flag, without reading the others first.
    int nonBlocking = 1;
    ioctl(static_cast<int>(socket), FIONBIO, &nonBlocking);
    if (ssl != nullptr) {
        // A repeated write may come from another address holding the same bytes (a host's
        // buffer that moved after send answered 0); OpenSSL then still checks the length.
        SSL_set_mode(ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
        // A record's header and its body in one read, not two.
        SSL_set_read_ahead(ssl, 1);
    }
    m_localURI = socketio::SocketLocalURI(socket, true, "ssl").ToString();
    m_peerURI = socketio::SocketPeerURI(socket, "ssl").ToString();
    m_description = m_localURI + " <-> " + m_peerURI;
}

SSLChannel::~SSLChannel() {
    // A channel that no reactor ended and nobody closed (its reactor was stopped while it ran)
    // still owns its connection; the socket BIO does not close the descriptor.
    if (m_ssl != nullptr) {
        SSL_free(m_ssl);
    }
}

net::IChannelHandler * SSLChannel::getChannelHandler() const {
    Common::ScopedLock guard(&m_lock);
    return m_handler.get();
}

void SSLChannel::setChannelHandler(net::IChannelHandler * handler) {
    LOG4CXX_TRACE(logger, "setChannelHandler");
    // The previous handler is released after the lock, so that its destructor runs unlocked.
    Common::SmartPtr<net::IChannelHandler> previous;
    Common::ScopedLock guard(&m_lock);
    previous = m_handler;
    m_handler = handler;
    m_readInterest = dynamic_cast<socketio::IReadInterest *>(handler);
    m_readEnd = dynamic_cast<socketio::IReadEnd *>(handler);
}

void SSLChannel::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) {
    m_reactor = reactor;
    if (reactor != nullptr && !m_homeReactor) {
        m_homeReactor = reactor;
    }
    m_lastEventTime = now;
    if (reactor != nullptr && m_handshakeLimit != 0 && m_handshakeDeadline == 0) {
        m_handshakeDeadline = now + m_handshakeLimit;
    }
}

void SSLChannel::close() {
    LOG4CXX_INFO(logger, "close[" << m_description << "]()");
    // Freed before leaving the reactor: an event that comes in between finds the connection
    // gone and ends the channel without a callback.
    terminateConnection();
    socketio::CloseSubscriber(this, m_reactor, m_homeReactor.get(), m_socket);
    // The reactor is done with the channel: it lets go of its handler, so that a channel kept
    // for a while longer (the hand-over to openChannel's caller) keeps no handler alive.
    setChannelHandler(nullptr);
}

short SSLChannel::getEventMask() noexcept {
    Common::SmartPtr<net::IChannelHandler> handler;
    socketio::IReadInterest * readInterest;
    bool handshakeDone;
    int pending;
    bool endPending;
    bool readEnded;
    bool closeNotifyPending;
    {
        Common::ScopedLock guard(&m_lock);
        closeNotifyPending = m_closeNotifyPending;
        handler = m_handler;
        readInterest = m_readInterest;
        handshakeDone = m_handshakeDone;
        // Records read ahead count too, unless what is held is only part of one.
        pending = m_ssl != nullptr && handshakeDone
                      ? std::max(SSL_pending(m_ssl), !m_inputStarved && SSL_has_pending(m_ssl) ? 1 : 0)
                      : 0;
        endPending = m_endPending;
        readEnded = m_readEnded;
    }
    if (m_handlerFailed) {
        return socketio::SELECT_EVENT_PENDING;
    }
    if (!handshakeDone) {
        // Asked every cycle, so at least every selectTimeout: a handshake past its limit is
        // ended by the event this asks for at once.
        if (m_handshakeDeadline != 0 && Common::GetTickCount64() >= m_handshakeDeadline) {
            return socketio::SELECT_EVENT_PENDING;
        }
        // A handler's wish to write has no effect before the handshake is done.
        return m_handshakeEvents;
    }
    if (!handler) {
        return socketio::SELECT_EVENT_READ;
    }
    // The end of the connection is told whether or not the handler wants bytes.
    short mask = endPending ? socketio::SELECT_EVENT_PENDING : 0;
    try {
        if (readEnded) {
            mask = 0;
        } else if (readInterest == nullptr || readInterest->wantsRead()) {
            mask |= socketio::SELECT_EVENT_READ;
            // Bytes that OpenSSL decoded and the handler left unread are not in the socket any
            // more: without this the handler would wait for the peer's next record.
            if (pending > 0) {
                mask |= socketio::SELECT_EVENT_PENDING;
            }
        }
        if (closeNotifyPending || handler->hasPendingWrite()) {
            mask |= socketio::SELECT_EVENT_WRITE;
        }
    } catch (...) {
        // The handler is not asked again; the event that follows at once ends this channel.
        logCaughtException();
        m_handlerFailed = true;
        return socketio::SELECT_EVENT_PENDING;
    }
    return mask;
}

bool SSLChannel::onEvents(const short & events, const std::uint64_t & now) noexcept {
    m_lastEventTime = now;
    // A setChannelHandler or close from inside a callback must not destroy the running handler.
    Common::SmartPtr<net::IChannelHandler> handler;
    {
        Common::ScopedLock guard(&m_lock);
        if (m_ssl == nullptr) {
            // The owner closed the channel: it ends without a callback.
            return false;
        }
        handler = m_handler;
    }
    if (!m_handlerFailed) {
        try {
            return dispatch(handler.get(), events);
        } catch (...) {
            // A handler that throws ends its own connection, never the process: this frame
            // is noexcept. No further callback: the handler has just failed in one.
            logCaughtException();
        }
    }
    terminateConnection();
    return false;
}

bool SSLChannel::dispatch(net::IChannelHandler * handler, short events) {
    bool handshakeDone;
    {
        Common::ScopedLock guard(&m_lock);
        handshakeDone = m_handshakeDone;
    }
    if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
        // The reactor's sweep closed the silent socket; its number may already be reused, so
        // the connection is not asked any more and says nothing to the peer.
        terminateConnection();
        handler->onError();
        return false;
    }

    if (!handshakeDone) {
        if (m_handshakeDeadline != 0 && Common::GetTickCount64() >= m_handshakeDeadline) {
            LOG4CXX_INFO(logger, "TLS/SSL handshake with '" << m_peerURI << "' not done within HandshakeTimeout="
                                                            << m_handshakeLimit << " ms: the connection ends");
            terminateConnection();
            handler->onError();
            return false;
        }
        char byte;
        if (::recv(static_cast<int>(m_socket), &byte, 1, MSG_PEEK) == 0) {
            LOG4CXX_DEBUG(logger, "TLS/SSL handshake with '" << m_peerURI
                                                             << "' failed because the socket was closed before the "
                                                                "handshake could complete");
            terminateConnection();
            handler->onClose();
            return false;
        }
        bool accepted;
        {
            Common::ScopedLock guard(&m_lock);
            if (m_ssl == nullptr) {
                return false;
            }
            accepted = handleAccept_i();
        }
        if (!accepted) {
            terminateConnection();
            handler->onError();
            return false;
        }
        // No callback for a handshake step, nor when it completes.
        return true;
    }

    bool readEnded;
    socketio::IReadEnd * readEnd;
    {
        Common::ScopedLock guard(&m_lock);
        readEnded = m_readEnded;
        readEnd = handler == m_handler.get() ? m_readEnd : nullptr;
    }
    if (!readEnded && (events & (socketio::SELECT_EVENT_READ | socketio::SELECT_EVENT_PENDING)) != 0) {
        ReadOutcome outcome = ReadOutcome::Deliver;
        {
            Common::ScopedLock guard(&m_lock);
            if (m_ssl == nullptr) {
                outcome = ReadOutcome::ClosedByOwner;
            } else {
                // A peek tells data from the peer's close_notify and from a failure without
                // taking anything from the handler.
                m_endPending = false;
                ERR_clear_error();
                char byte;
                const int result = SSL_peek(m_ssl, &byte, 1);
                const int savedErrno = errno;
                m_inputStarved = false;
                if (result <= 0) {
                    const int error = SSL_get_error(m_ssl, result);
                    m_inputStarved = error == SSL_ERROR_WANT_READ;
                    if (error == SSL_ERROR_ZERO_RETURN) {
                        // Kept for a handler that still writes: it ends the connection itself.
                        if (readEnd == nullptr) {
                            terminateConnection_i();
                        }
                        outcome = ReadOutcome::PeerClosed;
                    } else if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE &&
                               error != SSL_ERROR_WANT_CONNECT && error != SSL_ERROR_WANT_ACCEPT) {
                        int code = 0;
                        errno = savedErrno;
                        const std::string text = tools::sslErrorText(error, "SSL_peek", &code);
                        if (code != tools::kWouldBlock) {
                            // A failed send has told of this end already.
                            if (m_sendFailed) {
                                LOG4CXX_DEBUG(logger, "onEvents[" << m_description << "]: " << text);
                            } else {
                                LOG4CXX_WARN(logger, "onEvents[" << m_description << "]: " << text);
                            }
                            terminateConnection_i();
                            outcome = ReadOutcome::Failed;
                        }
                    }
                }
            }
        }
        switch (outcome) {
            case ReadOutcome::ClosedByOwner:
                return false;
            case ReadOutcome::PeerClosed:
                if (readEnd != nullptr) {
                    if (readEnd->onReadEnd()) {
                        Common::ScopedLock guard(&m_lock);
                        m_readEnded = true;
                        m_endPending = false;
                        break;
                    }
                    terminateConnection();
                }
                handler->onClose();
                return false;
            case ReadOutcome::Failed:
                handler->onError();
                return false;
            case ReadOutcome::Deliver:
                // Also for a mere fragment of a record: recv may then deliver nothing.
                handler->onRead(this);
                break;
        }
    }
    if ((events & socketio::SELECT_EVENT_WRITE) != 0) {
        {
            Common::ScopedLock guard(&m_lock);
            if (m_closeNotifyPending && m_ssl != nullptr && m_socket != socketio::INVALID_SOCKET_HANDLE) {
                sendCloseNotify_i();
            }
        }
        handler->onWrite(this);
    }
    return true;
}

bool SSLChannel::handleAccept() {
    Common::ScopedLock guard(&m_lock);
    return m_ssl != nullptr && handleAccept_i();
}

bool SSLChannel::handleAccept_i() {
    LOG4CXX_DEBUG(logger, "initiating/continueing TLS/SSL handshake with '" << m_peerURI << "'");
    ERR_clear_error();
    const int result = SSL_accept(m_ssl);
    const int savedErrno = errno;
    if (result == 1) {
        m_handshakeDone = true;
        char description[128];
        const SSL_CIPHER * cipher = SSL_get_current_cipher(m_ssl);
        const char * text = cipher != nullptr ? SSL_CIPHER_description(cipher, description, sizeof description) : nullptr;
        LOG4CXX_DEBUG(logger, "accepted with encryption: '" << (text != nullptr ? text : "<null>") << "'");
        return true;
    }
    const int error = SSL_get_error(m_ssl, result);
    if (result == 0) {
        errno = savedErrno;
        const std::string text = tools::sslErrorText(error, "SSL_accept", nullptr);
        LOG4CXX_INFO(logger, "TLS/SSL handshake with '" << m_peerURI << "' resulted in not accepting due to:" << text);
        return false;
    }
    LOG4CXX_DEBUG(logger, "handleAccept: SSL_get_error( ssl, ret_code = " << result << ") --> "
                                                                          << tools::sslErrorName(error));
    // Always drained here, whatever the case, so that no error stays on the reactor's queue.
    int code = 0;
    errno = savedErrno;
    const std::string text = tools::sslErrorText(error, "SSL_accept", &code);
    if (error == SSL_ERROR_WANT_READ) {
        LOG4CXX_DEBUG(logger, "SSL_accept with '" << m_peerURI << "': ==> SSL_ERROR_WANT_READ-> r = " << result);
        m_handshakeEvents = socketio::SELECT_EVENT_READ;
        return true;
    }
    if (error == SSL_ERROR_WANT_WRITE) {
        LOG4CXX_DEBUG(logger, "SSL_accept with '" << m_peerURI << "': ==> SSL_ERROR_WANT_WRITE-> r = " << result);
        m_handshakeEvents = socketio::SELECT_EVENT_WRITE;
        return true;
    }
    if (code == tools::kWouldBlock) {
        LOG4CXX_DEBUG(logger, "SSL_accept with '" << m_peerURI << "': ==> EWOULDBLOCK -> r = " << result);
        m_handshakeEvents = socketio::SELECT_EVENT_READ | socketio::SELECT_EVENT_WRITE;
        return true;
    }
    LOG4CXX_WARN(logger, "TLS/SSL handshake with '" << m_peerURI << "' error:" << text);
    return false;
}

int SSLChannel::recv(int length, void * buffer) {
    Common::ScopedLock guard(&m_lock);
    if (m_ssl == nullptr) {
        LOG4CXX_DEBUG(logger, "recv: the channel is closed");
        return -1;
    }
    if (length <= 0) {
        return 0;
    }
    char * position = static_cast<char *>(buffer);
    int remaining = length;
    bool wantRead = false;
    int result;
    int error;
    int savedErrno;
    for (;;) {
        ERR_clear_error();
        result = SSL_read(m_ssl, position, remaining);
        savedErrno = errno;
        error = SSL_get_error(m_ssl, result);
        LOG4CXX_TRACE(logger, "recv: SSL_read( ssl, buffer, " << remaining << ") = " << result);
        LOG4CXX_TRACE(logger, "recv: SSL_get_error( ssl, " << result << ") --> " << tools::sslErrorName(error));
        if (error == SSL_ERROR_NONE) {
            if (result < 1) {
                return length - remaining;
            }
            position += result;
            remaining -= result;
            m_inputStarved = false;
        } else if (error == SSL_ERROR_WANT_READ) {
            LOG4CXX_TRACE(logger, "recv: ==> SSL_ERROR_WANT_READ-> r = " << result);
            wantRead = true;
            m_inputStarved = true;
        } else {
            break;
        }
        // Goes on while the socket holds further records (fewer reactor cycles per byte), and
        // never waits for it: a socket without more data ends the loop with WANT_READ.
        if (remaining < 1 || wantRead) {
            return length - remaining;
        }
    }
    if (remaining < length) {
        // The bytes read before the end or the failure are the handler's. OpenSSL keeps the
        // state, and the peek of the next event reports it; that event must come even though
        // the socket may have nothing more to say.
        m_endPending = true;
        return length - remaining;
    }
    if (error == SSL_ERROR_WANT_WRITE) {
        LOG4CXX_WARN(logger, "recv: ==> SSL_ERROR_WANT_WRITE-> r = " << result);
    }
    int code = 0;
    errno = savedErrno;
    const std::string text = tools::sslErrorText(error, "SSL_read", &code);
    if (code != tools::kWouldBlock) {
        // The peer's close_notify, or its end without one, is an ordinary end of the
        // connection; anything else is a failure worth an error.
        if (error == SSL_ERROR_ZERO_RETURN || (error == SSL_ERROR_SYSCALL && code == 0)) {
            LOG4CXX_DEBUG(logger, "recv: unable to read from ssl socket: " << text);
        } else {
            LOG4CXX_ERROR(logger, "recv: unable to read from ssl socket: " << text);
        }
        return -1;
    }
    LOG4CXX_WARN(logger, "recv: unable to read from ssl socket, EWOULDBLOCK, while NO bytes read through SSL");
    return 0;
}

int SSLChannel::send(int length, const void * buffer) {
    // closeSocket closes the number under m_lock: held here, the number stays this connection's.
    Common::ScopedLock guard(&m_lock);
    if (m_ssl != nullptr && m_socket == socketio::INVALID_SOCKET_HANDLE) {
        terminateConnection_i();
    }
    if (m_ssl == nullptr || m_sendFailed) {
        // After close(), or after the connection ended or failed: refused rather than a use of
        // freed memory or another failure line.
        LOG4CXX_DEBUG(logger, "send: the channel is closed");
        return -1;
    }
    if (!m_handshakeDone) {
        // An accepted channel whose handshake runs: a write now would drive the handshake from
        // outside the reactor and come back as a wish to read. Nothing is taken; the handler's
        // pending write is asked for again once the handshake is done.
        LOG4CXX_TRACE(logger, "send: the TLS/SSL handshake is not finished yet");
        return 0;
    }
    if (length <= 0) {
        return 0;
    }
    ERR_clear_error();
    const int result = SSL_write(m_ssl, buffer, length);
    const int savedErrno = errno;
    const int error = SSL_get_error(m_ssl, result);
    LOG4CXX_TRACE(logger, "send: SSL_write( ssl, buffer, " << length << ") = " << result);
    LOG4CXX_TRACE(logger, "send: SSL_get_error( ssl, " << result << ") --> " << tools::sslErrorName(error));
    switch (error) {
        case SSL_ERROR_NONE:
            return result;
        // Nothing was taken: 0, as on every channel, so that a host does not take OpenSSL's
        // wish for a repeat for a failed connection. The host repeats from the same bytes.
        case SSL_ERROR_WANT_READ:
            LOG4CXX_WARN(logger, "send: ==> SSL_ERROR_WANT_READ-> r = " << result);
            return 0;
        case SSL_ERROR_WANT_WRITE:
            LOG4CXX_TRACE(logger, "send: ==> SSL_ERROR_WANT_WRITE-> r = " << result);
            return 0;
        default:
            break;
    }
    int code = 0;
    errno = savedErrno;
    const std::string text = tools::sslErrorText(error, "SSL_write", &code);
    if (code == tools::kWouldBlock) {
        if (result == 0) {
            LOG4CXX_WARN(logger, "send: unable to send through ssl socket, EWOULDBLOCK, while NO bytes sent through SSL");
            return 0;
        }
        LOG4CXX_DEBUG(logger, "send: unable to send through ssl socket, EWOULDBLOCK, returning " << result);
        return result;
    }
    m_sendFailed = true;
    if (error == SSL_ERROR_ZERO_RETURN) {
        // The peer's close_notify came first: an ordinary end, which the read side reports.
        LOG4CXX_DEBUG(logger, "send: unable to send through ssl socket: " << text);
    } else if (error == SSL_ERROR_SYSCALL && peerGone(code)) {
        // The peer reset or left (after its data, or killed): its doing, not the host's error.
        LOG4CXX_WARN(logger, "send: unable to send through ssl socket: " << text);
    } else {
        LOG4CXX_ERROR(logger, "send: unable to send through ssl socket: " << text);
    }
    return -1;
}

bool SSLChannel::shutdownWrite() {
    Common::ScopedLock guard(&m_lock);
    if (m_ssl == nullptr || !m_handshakeDone || m_socket == socketio::INVALID_SOCKET_HANDLE) {
        return false;
    }
    // The abortive linger of the socket options would drop what the kernel still holds for
    // the peer at the close that follows: an ended direction is delivered whole.
    struct linger orderly{0, 0};
    ::setsockopt(static_cast<int>(m_socket), SOL_SOCKET, SO_LINGER, &orderly, sizeof orderly);
    sendCloseNotify_i();
    return true;
}

void SSLChannel::sendCloseNotify_i() {
    ERR_clear_error();
    // 0: sent, the peer's close_notify not yet seen; 1: both sent; below 0 with WANT_WRITE:
    // the socket is full and OpenSSL keeps the rest of the alert for the next call.
    const int result = SSL_shutdown(m_ssl);
    LOG4CXX_TRACE(logger, "shutdownWrite: SSL_shutdown( ssl ) = " << result);
    m_closeNotifyPending = result < 0 && SSL_get_error(m_ssl, result) == SSL_ERROR_WANT_WRITE;
    ERR_clear_error();
}

void SSLChannel::terminateConnection() {
    Common::ScopedLock guard(&m_lock);
    terminateConnection_i();
}

void SSLChannel::closeSocket() {
    Common::ScopedLock guard(&m_lock);
    ISelectEventSubscriber::closeSocket();
}

void SSLChannel::terminateConnection_i() {
    LOG4CXX_DEBUG(logger, "terminateConnection[" << m_description << "]()");
    if (m_ssl != nullptr) {
        // Sends close_notify; the peer's answer is not awaited. Not through a closed socket:
        // its number may belong to another connection by now.
        if (m_handshakeDone && m_socket != socketio::INVALID_SOCKET_HANDLE) {
            SSL_shutdown(m_ssl);
        }
        SSL_free(m_ssl);
        m_ssl = nullptr;
        // A shutdown on a dead connection leaves errors behind that belong to nobody.
        ERR_clear_error();
    }
}

}  // namespace ssl
