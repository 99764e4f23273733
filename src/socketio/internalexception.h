// socketio::InternalException: failures of the socket layer. Unlike its siblings in the
// other namespaces it logs its text (Warn, "corvane.socketio.InternalException") only
// when logIt is true; every thrower in the socket layer passes true.
#pragma once

#include "corvane/exception.h"

namespace socketio {

class InternalException : public net::RuntimeException {
public:
    InternalException(const char * message, bool logIt);
    InternalException(const InternalException & other) = default;
    ~InternalException() override;
};

}  // namespace socketio
