#include "socketio/socketexception.h"

#include <cerrno>
#include <cstring>
#include <string>

namespace socketio {

namespace {

// strerror_r comes in an XSI and a GNU form; each overload takes what its form returns.
[[maybe_unused]] const char * pickText(int, const char * buffer) { return buffer; }
[[maybe_unused]] const char * pickText(const char * text, const char *) { return text; }

std::string describe(const char * context, int error) {
    return std::string(context) + " failed with error code '" + std::to_string(error) + "' : " + SystemErrorText(error);
}

}  // namespace

std::string SystemErrorText(int error) {
    char buffer[256] = {};
    return pickText(strerror_r(error, buffer, sizeof buffer), buffer);
}

SocketException::SocketException(const char * context) : InternalException(describe(context, errno).c_str(), false) {}

SocketException::~SocketException() = default;

}  // namespace socketio
