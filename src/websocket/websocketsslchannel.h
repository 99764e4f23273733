// websocket::WebSocketSSLChannel: the client channel of a "wss" URI, the TLS twin of
// websocket::WebSocketChannel. Everything above the bottom layer is the plain channel's; below
// it an OpenSSL connection whose handshake has finished before the channel is made takes the
// place of the socket calls. Owned like the plain channel; the SSL is freed by close(), or by
// the destructor when the channel is let go without it. No TLS record goes out once the
// socket is closed. Every call on the SSL is made with m_SendMutex held, so that a host
// thread's send and the reactor's read never meet in OpenSSL.
#pragma once

#include <openssl/ssl.h>

#include "websocket/websocketchannel.h"

namespace websocket {

class WebSocketSSLChannel final : public WebSocketChannel {
public:
    // Takes the connected socket and the SSL bound to it. `context` is owned if not null.
    WebSocketSSLChannel(unsigned int hSocket, ssl_st * ssl, ssl_ctx_st * context,
                        const socketio::socket_options & options);
    ~WebSocketSSLChannel() override;

private:
    bool secure() const override { return true; }
    void prepareTransport() override;
    bool readDataFromSocketToWebSocket() override;
    int sendOutput_i() override;
    const char * senderName() const override { return "ssl_send"; }
    bool inputPending() override;
    void releaseTransport_i() override;

    SSL * m_ssl;                    // GUARDED_BY(m_SendMutex); null after close
    SSL_CTX * m_sslContext;         // GUARDED_BY(m_SendMutex)
    // A write that SSL_write asked to have repeated with the same pointer and length: it lies
    // in the ring's storage, whose read side does not move for it until it succeeds.
    const char * m_wantWritePos;    // GUARDED_BY(m_SendMutex)
    unsigned int m_wantWriteCount;  // GUARDED_BY(m_SendMutex)
    // OpenSSL reads ahead: it may hold records that the socket no longer shows. This flag
    // says that the last read found only part of a record there, which waits for the socket.
    bool m_bInputStarved = false;  // GUARDED_BY(m_SendMutex)
};

}  // namespace websocket
