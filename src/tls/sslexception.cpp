#include "tls/sslexception.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "common/logging.h"

namespace tools {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tools.SSLException");

const char * orEmpty(const char * text) {
    return text != nullptr ? text : "";
}

// strerror_r comes in two forms; each overload takes what its form returns.
[[maybe_unused]] const char * systemText(int, const char * buffer) {
    return buffer;
}
[[maybe_unused]] const char * systemText(const char * result, const char *) {
    return result;
}

// OpenSSL 3 gives no reason text for an error of the system library (a file that cannot be
// opened): its reason is the errno, put into words here.
std::string reasonText(unsigned long code) {
    if (ERR_SYSTEM_ERROR(code)) {
        char buffer[256] = {};
        return systemText(strerror_r(static_cast<int>(ERR_GET_REASON(code)), buffer, sizeof buffer), buffer);
    }
    return orEmpty(ERR_reason_error_string(code));
}

// Writes one line per queued error, starting from `first` (0: fetch the first one), until
// the queue is empty.
void printErrorQueue(std::ostream & stream, unsigned long first, const char * prefix) {
    unsigned long code = first != 0 ? first : ERR_get_error();
    while (code != 0) {
        stream << prefix << ':' << static_cast<long>(code) << ':' << orEmpty(ERR_lib_error_string(code)) << "::"
               << reasonText(code) << '\n';
        code = ERR_get_error();
    }
}

std::string withCause(const std::string & context) {
    const std::string cause = openSSLFirstCause();
    return cause.empty() ? context : context + ": " + cause;
}
}  // namespace

SSLException::SSLException(long /*code*/, const char * /*message*/, bool /*logIt*/)
    : RuntimeException(openSSLErrorText().c_str(), false) {
    LOG4CXX_WARN(logger, what());
}

SSLException::SSLException(const std::string & context) : RuntimeException(withCause(context).c_str(), false) {
    LOG4CXX_WARN(logger, what());
}

SSLException::~SSLException() = default;

std::string openSSLFirstCause() {
    const unsigned long first = ERR_get_error();
    std::string cause = first != 0 ? reasonText(first) : std::string();
    if (first != 0 && cause.empty()) {
        cause = "OpenSSL error " + std::to_string(first);
    }
    ERR_clear_error();
    return cause;
}

std::string openSSLErrorText() {
    std::ostringstream stream;
    printErrorQueue(stream, 0, "openssl");
    return stream.str();
}

const char * sslErrorName(int sslError) {
    switch (sslError) {
    case SSL_ERROR_NONE:
        return "SSL_ERROR_NONE";
    case SSL_ERROR_SSL:
        return "SSL_ERROR_SSL";
    case SSL_ERROR_WANT_READ:
        return "SSL_ERROR_WANT_READ";
    case SSL_ERROR_WANT_WRITE:
        return "SSL_ERROR_WANT_WRITE";
    case SSL_ERROR_WANT_X509_LOOKUP:
        return "SSL_ERROR_WANT_X509_LOOKUP";
    case SSL_ERROR_SYSCALL:
        return "SSL_ERROR_SYSCALL";
    case SSL_ERROR_ZERO_RETURN:
        return "SSL_ERROR_ZERO_RETURN";
    case SSL_ERROR_WANT_CONNECT:
        return "SSL_ERROR_WANT_CONNECT";
    case SSL_ERROR_WANT_ACCEPT:
        return "SSL_ERROR_WANT_ACCEPT";
    default:
        return "<unknown>";
    }
}

std::string sslErrorText(int sslError, const char * call, int * errorCode) {
    // errno first: nothing below may disturb the socket layer's last error.
    const int systemError = errno;
    std::ostringstream stream;
    stream << orEmpty(call) << ':';
    switch (sslError) {
    case SSL_ERROR_SSL:
        printErrorQueue(stream, 0, "SSL_ERROR_SSL");
        break;
    case SSL_ERROR_SYSCALL: {
        unsigned long first = ERR_get_error();
        if (first != 0) {
            printErrorQueue(stream, first, "SSL_ERROR_SYSCALL");
            break;
        }
        if (systemError == 0) {
            // No system error and nothing queued: the peer ended the connection without a
            // close_notify (SSL_get_error(3), "BUGS"); errno 0 would read "Success".
            stream << "SSL_ERROR_SYSCALL: the peer ended the connection";
            if (errorCode != nullptr) {
                *errorCode = 0;
            }
            break;
        }
        char buffer[256] = {};
        stream << "SSL_ERROR_SYSCALL failed with error code '" << systemError
               << "' : " << systemText(strerror_r(systemError, buffer, sizeof buffer), buffer);
        if (errorCode != nullptr) {
            *errorCode = (systemError == EAGAIN || systemError == EWOULDBLOCK) ? kWouldBlock : systemError;
        }
        break;
    }
    case SSL_ERROR_NONE:
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
    case SSL_ERROR_WANT_X509_LOOKUP:
    case SSL_ERROR_ZERO_RETURN:
    case SSL_ERROR_WANT_CONNECT:
    case SSL_ERROR_WANT_ACCEPT:
        stream << sslErrorName(sslError);
        break;
    default:
        stream << "<unknown:ret=" << sslError << '>';
        break;
    }
    return stream.str();
}

}  // namespace tools
