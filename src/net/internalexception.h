// net::InternalException: failures of the framework and the tunnels. Each one writes its
// text at Warn to "corvane.net.InternalException" when constructed, whatever logIt says;
// copies do not log again.
#pragma once

#include "corvane/exception.h"

namespace net {

class InternalException : public RuntimeException {
public:
    InternalException(const char * message, bool logIt);
    InternalException(const InternalException & other) = default;
    ~InternalException() override;
};

}  // namespace net
