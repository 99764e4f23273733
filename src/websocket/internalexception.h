// websocket::InternalException: failures of the WebSocket channels. Each one writes its text
// at Warn to "corvane.websocket.InternalException" when constructed; copies do not log again.
#pragma once

#include "corvane/exception.h"

namespace websocket {

class InternalException : public net::RuntimeException {
public:
    explicit InternalException(const char * message);
    // The form every namespace has. `logIt` is ignored: this class always logs.
    InternalException(const char * message, bool logIt);
    InternalException(const InternalException & other) = default;
    ~InternalException() override;
};

}  // namespace websocket
