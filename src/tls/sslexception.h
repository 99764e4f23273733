// tools::SSLException carries the OpenSSL error queue of the throwing thread as its text,
// and the helpers that turn OpenSSL's error state into text. OpenSSL keeps one error queue
// per thread, so each of these must run on the thread where the OpenSSL call failed.
#pragma once

#include <string>

#include "corvane/exception.h"

namespace tools {

// Thrown by value. The constructor drains this thread's error queue into what() (empty if
// the queue was empty) and logs that text at Warn to "corvane.tools.SSLException"; its
// arguments are accepted for the callers' sake and ignored. Copies do not log again.
class SSLException : public net::RuntimeException {
public:
    explicit SSLException(long code = 0, const char * message = nullptr, bool logIt = false);
    // For a failure that concerns a file or a setting: what() is `context`, ": " and the first
    // queued error's cause (the system's own words for a system error, such as "No such file
    // or directory"), one line; just `context` when the queue is empty. Drains the queue.
    explicit SSLException(const std::string & context);
    SSLException(const SSLException & other) = default;
    ~SSLException() override;
};

// Drains this thread's error queue, one line per error:
// "openssl:" code ":" library ":" function ":" reason "\n". Empty if there was no error.
// OpenSSL 3 keeps no function names (ERR_func_error_string(3)), so that field is empty.
std::string openSSLErrorText();

// Drains this thread's error queue and returns the cause of its first error: strerror(3) of
// a system error, else OpenSSL's reason text. Empty if there was no error.
std::string openSSLFirstCause();

// Describes a result of SSL_get_error(3): call ":" and then the error's name, or for
// SSL_ERROR_SSL the drained queue, or for SSL_ERROR_SYSCALL the queue or, when the queue is
// empty, errno and its text. Only that last case writes *errorCode (when not null): the errno,
// with EAGAIN/EWOULDBLOCK stored as kWouldBlock, the one would-block test of the TLS code.
std::string sslErrorText(int sslError, const char * call, int * errorCode);

// The bare name of an SSL_get_error(3) result ("SSL_ERROR_WANT_READ"), "<unknown>" past
// SSL_ERROR_WANT_ACCEPT. For trace and debug lines.
const char * sslErrorName(int sslError);

// The would-block code that sslErrorText stores: a constant of this interface whatever the
// platform's own EWOULDBLOCK is.
constexpr int kWouldBlock = 140;

}  // namespace tools
