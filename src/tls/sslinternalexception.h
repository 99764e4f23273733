// ssl::InternalException: failures of the TLS channels, their server and the "ssl" and
// "https" protocols. Each one writes its text at Warn to "corvane.ssl.InternalException"
// when constructed, whatever logIt says; copies do not log again.
#pragma once

#include "corvane/exception.h"

namespace ssl {

class InternalException : public net::RuntimeException {
public:
    InternalException(const char * message, bool logIt);
    InternalException(const InternalException & other) = default;
    ~InternalException() override;
};

}  // namespace ssl
