#include "tls/socketbio.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstring>

namespace ssl {

namespace {

int sendWithoutSignal(BIO * bio, const char * data, int length) {
    const ssize_t sent = ::send(static_cast<int>(BIO_get_fd(bio, nullptr)), data, static_cast<size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (sent < 0 && BIO_sock_should_retry(-1)) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

int putsWithoutSignal(BIO * bio, const char * text) {
    return sendWithoutSignal(bio, text, static_cast<int>(std::strlen(text)));
}

// Made once and kept for the life of the process, like OpenSSL's own methods.
const BIO_METHOD * method() {
    static const BIO_METHOD * const instance = [] {
        const BIO_METHOD * socket = BIO_s_socket();
        BIO_METHOD * own = BIO_meth_new(BIO_TYPE_SOCKET, "corvane socket");
        if (own != nullptr) {
            BIO_meth_set_write(own, sendWithoutSignal);
            BIO_meth_set_puts(own, putsWithoutSignal);
            BIO_meth_set_read(own, BIO_meth_get_read(socket));
            BIO_meth_set_ctrl(own, BIO_meth_get_ctrl(socket));
            BIO_meth_set_create(own, BIO_meth_get_create(socket));
            BIO_meth_set_destroy(own, BIO_meth_get_destroy(socket));
        }
        return own;
    }();
    return instance;
}

}  // namespace

bool SSL_set_socket(SSL * ssl, unsigned int socket) {
    const BIO_METHOD * own = method();
    BIO * bio = own != nullptr ? BIO_new(own) : nullptr;
    if (bio == nullptr) {
        return false;
    }
    BIO_set_fd(bio, static_cast<int>(socket), BIO_NOCLOSE);
    SSL_set_bio(ssl, bio, bio);
    return true;
}

}  // namespace ssl
