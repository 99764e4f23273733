// The socket BIO under every TLS connection of the library. OpenSSL's own socket BIO writes
// with write(2), which raises SIGPIPE when the peer has gone; this one sends with
// MSG_NOSIGNAL, so a vanished peer becomes an EPIPE result and never a signal. Reads, the
// descriptor controls and the retry flags are those of OpenSSL's socket BIO (BIO_s_socket(3)).
#pragma once

#include <openssl/ssl.h>

namespace ssl {

// Binds `socket` to `ssl` for both directions, in place of SSL_set_fd(3); the socket stays the
// caller's to close. The BIO keeps the number, not the socket: once the socket is closed, no
// call on `ssl` that may read or write (SSL_read, SSL_write, SSL_peek, SSL_shutdown) is made any
// more, as the number may already name another descriptor; SSL_free does no I/O. False when
// OpenSSL could not make the BIO (its error queue says why). Any thread.
bool SSL_set_socket(SSL * ssl, unsigned int socket);

}  // namespace ssl
