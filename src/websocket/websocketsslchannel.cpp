#include "websocket/websocketsslchannel.h"

#include <openssl/err.h>

#include <cerrno>

#include "common/logging.h"
#include "tls/sslexception.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.WebSocketSSLChannel");
const log4cxx::LoggerPtr openssl = Common::GetLogger("org.openssl");

// Reads what OpenSSL decodes, up to `length` bytes; the count, or -1 when the connection
// failed before any byte was read. A failure after bytes were read returns those bytes: the
// next peek meets the failure again and reports it. `starved`: the read ended because only
// part of a record was there.
int ssl_recv(SSL * ssl, char * buffer, int length, bool & starved) {
    starved = false;
    int remaining = length;
    bool wantRead = false;
    int r = 0;
    int e = SSL_ERROR_NONE;
    int savedErrno = 0;
    for (;;) {
        ERR_clear_error();
        r = SSL_read(ssl, buffer + (length - remaining), remaining);
        // Saved at once: the trace lines below may change errno, which the would-block test
        // reads through sslErrorText.
        savedErrno = errno;
        LOG4CXX_TRACE(openssl, "SSL_read( ssl, buf = " << static_cast<void *>(buffer + (length - remaining))
                                                       << ", num = " << remaining << ") --> " << r);
        e = SSL_get_error(ssl, r);
        LOG4CXX_TRACE(openssl, "SSL_get_error( ssl, ret_code = " << r << ") --> " << tools::sslErrorName(e));
        if (e == SSL_ERROR_NONE) {
            if (r < 1) {
                return length - remaining;
            }
            remaining -= r;
        } else if (e == SSL_ERROR_WANT_READ) {
            LOG4CXX_TRACE(logger, "ssl_recv: ==> SSL_ERROR_WANT_READ-> r = " << r);
            wantRead = true;
            starved = true;
        } else {
            break;
        }
        // Records read ahead are taken too: the socket does not show them any more.
        if (remaining < 1 || wantRead || !SSL_has_pending(ssl)) {
            return length - remaining;
        }
    }
    if (e == SSL_ERROR_WANT_WRITE) {
        LOG4CXX_WARN(logger, "ssl_recv: ==> SSL_ERROR_WANT_WRITE-> r = " << r << ", falling through to default case");
    }
    int code = 0;
    errno = savedErrno;
    const std::string text = tools::sslErrorText(e, "SSL_read", &code);
    const int count = length - remaining;
    if (code != tools::kWouldBlock) {
        if (count > 0) {
            LOG4CXX_DEBUG(logger, "ssl_recv: " << text << " after " << count << " bytes, returning them");
            return count;
        }
        // A peer that resets or goes without close_notify ends its connection, ordinarily
        // enough; a TLS failure is an error.
        if (e == SSL_ERROR_SYSCALL) {
            LOG4CXX_INFO(logger, "ssl_recv: unable to read from ssl socket: " << text);
        } else {
            LOG4CXX_ERROR(logger, "ssl_recv: unable to read from ssl socket: " << text);
        }
        return -1;
    }
    if (count == 0) {
        LOG4CXX_WARN(logger, "ssl_recv: unable to read from ssl socket, EWOULDBLOCK, while NO bytes read through SSL");
        return 0;
    }
    LOG4CXX_DEBUG(logger, "ssl_recv: unable to read from ssl socket, EWOULDBLOCK, returning " << count);
    return count;
}

// Drains the ring through SSL_write piece by piece; a write that OpenSSL wants repeated is
// retained and repeated with the same pointer and count. The bytes written, or -1.
int ssl_send(SSL * ssl, OutputRing & buffer, const char *& wantWritePos, unsigned int & wantWriteCount) {
    LOG4CXX_TRACE(logger, "ssl_send( ssl, buffer = " << buffer.toString() << ", wantWritePos = "
                                                    << static_cast<const void *>(wantWritePos)
                                                    << ", wantWriteCount = " << wantWriteCount << ")");
    int total = 0;
    int r = 0;
    int e = SSL_ERROR_NONE;
    int savedErrno = 0;
    for (;;) {
        if (wantWritePos == nullptr || wantWriteCount == 0) {
            wantWritePos = buffer.readPointer();
            wantWriteCount = static_cast<unsigned int>(buffer.readPieceLength());
        }
        ERR_clear_error();
        r = SSL_write(ssl, wantWritePos, static_cast<int>(wantWriteCount));
        savedErrno = errno;
        LOG4CXX_TRACE(openssl, "SSL_write( ssl, buf = " << static_cast<const void *>(wantWritePos)
                                                        << ", num = " << wantWriteCount << ") --> " << r);
        e = SSL_get_error(ssl, r);
        LOG4CXX_TRACE(openssl, "SSL_get_error( ssl, ret_code = " << r << ") --> " << tools::sslErrorName(e));
        if (e != SSL_ERROR_NONE) {
            break;
        }
        wantWritePos = nullptr;
        wantWriteCount = 0;
        buffer.consume(r);
        total += r;
        if (buffer.readAvailable() == 0) {
            return total;
        }
    }
    if (e == SSL_ERROR_WANT_WRITE) {
        LOG4CXX_TRACE(logger, "ssl_send: ==> SSL_ERROR_WANT_WRITE-> r = " << r);
        return total;
    }
    if (e == SSL_ERROR_WANT_READ) {
        LOG4CXX_WARN(logger, "ssl_send: ==> SSL_ERROR_WANT_READ-> r = " << r << ", falling through to default case");
    }
    errno = savedErrno;
    if (e == SSL_ERROR_ZERO_RETURN) {
        // The peer's close_notify came first: an ordinary end, which the read side reports.
        LOG4CXX_DEBUG(logger, "ssl_send: unable to write to ssl socket: " << tools::sslErrorText(e, "SSL_write", nullptr));
    } else if (e == SSL_ERROR_SYSCALL && (savedErrno == 0 || savedErrno == ECONNRESET || savedErrno == EPIPE)) {
        // The peer reset or left: its doing, not the host's error.
        LOG4CXX_WARN(logger, "ssl_send: unable to write to ssl socket: " << tools::sslErrorText(e, "SSL_write", nullptr));
    } else {
        LOG4CXX_ERROR(logger, "ssl_send: unable to write to ssl socket: " << tools::sslErrorText(e, "SSL_write", nullptr));
    }
    return -1;
}
}  // namespace

WebSocketSSLChannel::WebSocketSSLChannel(unsigned int hSocket, ssl_st * ssl, ssl_ctx_st * context,
                                         const socketio::socket_options & options)
    : WebSocketChannel(hSocket, options, logger),
      m_ssl(ssl),
      m_sslContext(context),
      m_wantWritePos(nullptr),
      m_wantWriteCount(0) {}

WebSocketSSLChannel::~WebSocketSSLChannel() {
    // A channel let go without close() (one that reported its end to a tunnel, say) still
    // owns its SSL. Its socket is closed by then or belongs to the owner, so no close_notify
    // is sent from here: SSL_free alone sends nothing.
    std::lock_guard<std::mutex> guard(m_SendMutex);
    if (m_ssl != nullptr) {
        SSL_free(m_ssl);
        m_ssl = nullptr;
    }
    if (m_sslContext != nullptr) {
        SSL_CTX_free(m_sslContext);
        m_sslContext = nullptr;
    }
}

void WebSocketSSLChannel::prepareTransport() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    // Without SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER: a repeated write keeps its pointer, which
    // the fixed storage of the ring allows.
    SSL_set_mode(m_ssl, SSL_MODE_ENABLE_PARTIAL_WRITE);
    // A record's header and its body in one read, not two.
    SSL_set_read_ahead(m_ssl, 1);
}

bool WebSocketSSLChannel::inputPending() {
    std::lock_guard<std::mutex> guard(m_SendMutex);
    // Decoded bytes, records read ahead (unless what is held is only part of one), or a
    // close_notify already taken in: the socket shows none of them.
    return m_ssl != nullptr && (SSL_pending(m_ssl) > 0 || (!m_bInputStarved && SSL_has_pending(m_ssl)) ||
                                (SSL_get_shutdown(m_ssl) & SSL_RECEIVED_SHUTDOWN) != 0);
}

bool WebSocketSSLChannel::readDataFromSocketToWebSocket() {
    Common::SmartPtr<net::IChannelHandler> handler(getChannelHandler());
    int n;
    {
        std::unique_lock<std::mutex> guard(m_SendMutex);
        if (m_ssl == nullptr || m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
            return false;
        }
        char byte;
        ERR_clear_error();
        const int peeked = SSL_peek(m_ssl, &byte, 1);
        const int savedErrno = errno;
        LOG4CXX_TRACE(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: SSL_peek( ssl = "
                                                              << static_cast<void *>(m_ssl) << ", buf = "
                                                              << static_cast<void *>(&byte) << ", num = 1 ) --> " << peeked);
        if (peeked <= 0) {
            const int e = SSL_get_error(m_ssl, peeked);
            LOG4CXX_TRACE(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: SSL_get_error( ssl = "
                                                                  << static_cast<void *>(m_ssl) << ", ret_code = " << peeked
                                                                  << ") --> " << tools::sslErrorName(e));
            if (e == SSL_ERROR_ZERO_RETURN) {
                guard.unlock();
                endInput();
                reportEnd(handler.get(), false);
                return false;
            }
            if (e != SSL_ERROR_WANT_READ) {
                int code = 0;
                // OpenSSL 3 reports a peer that went without close_notify as a TLS error.
                const bool peerGone = e == SSL_ERROR_SYSCALL ||
                                      ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
                errno = savedErrno;
                const std::string text = tools::sslErrorText(e, "SSL_peek", &code);
                if (code == tools::kWouldBlock) {
                    m_bInputStarved = true;
                    return true;
                }
                guard.unlock();
                if (peerGone) {
                    LOG4CXX_INFO(m_log, "read event failed:" << text);
                } else {
                    LOG4CXX_ERROR(m_log, "read event failed:" << text);
                }
                endInput();
                reportEnd(handler.get(), true);
                return false;
            }
        }
        n = ssl_recv(m_ssl, m_RecvBuffer.data(), static_cast<int>(m_RecvBuffer.size()), m_bInputStarved);
        LOG4CXX_TRACE(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: ssl_recv( ssl = "
                                                              << static_cast<void *>(m_ssl) << ", buf = "
                                                              << static_cast<void *>(m_RecvBuffer.data())
                                                              << ", len = " << m_RecvBuffer.size() << " ) -> " << n
                                                              << " bytes");
    }
    if (n == 0) {
        // A record not yet complete, not the end of the stream.
        return true;
    }
    if (n < 0) {
        // ssl_recv has given the cause.
        LOG4CXX_DEBUG(m_log, "readDataFromSocketToWebSocket[" << m_strDescription << "]: nRecv = " << n);
        // The pump of opening and closing must not wait on a connection that has failed.
        endInput();
        return false;
    }
    return feedEngine(static_cast<std::size_t>(n), handler.get());
}

int WebSocketSSLChannel::sendOutput_i() {
    if (m_ssl == nullptr || m_hSocket == socketio::INVALID_SOCKET_HANDLE) {
        return -1;
    }
    return ssl_send(m_ssl, m_OutputBuffer, m_wantWritePos, m_wantWriteCount);
}

void WebSocketSSLChannel::releaseTransport_i() {
    if (m_ssl != nullptr) {
        // close_notify follows the WebSocket close frame that the close handshake pumped out,
        // unless the reactor has closed the socket already: its number may be another
        // connection's by now.
        if (m_hSocket != socketio::INVALID_SOCKET_HANDLE) {
            SSL_shutdown(m_ssl);
        }
        SSL_free(m_ssl);
        m_ssl = nullptr;
    }
    if (m_sslContext != nullptr) {
        SSL_CTX_free(m_sslContext);
        m_sslContext = nullptr;
    }
}

}  // namespace websocket
