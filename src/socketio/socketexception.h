// socketio::SocketException: a failed socket call. The text is the call's context,
// " failed with error code '", errno, "' : " and the system's message; it does not log.
#pragma once

#include "socketio/internalexception.h"

namespace socketio {

class SocketException : public InternalException {
public:
    // Reads errno at construction. `context` names the call, as in "setsockopt[SO_LINGER]".
    explicit SocketException(const char * context);
    SocketException(const SocketException & other) = default;
    ~SocketException() override;
};

// The system's message for an error number.
std::string SystemErrorText(int error);

}  // namespace socketio
