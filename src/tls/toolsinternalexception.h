// tools::InternalException: failures of the TLS context code that are not OpenSSL's own
// errors (a PKCS#12 file that cannot be opened, a peer certificate that fails the checks).
// Each one writes its text at Warn to "corvane.tools.InternalException" when constructed,
// whatever logIt says; copies do not log again.
#pragma once

#include "corvane/exception.h"

namespace tools {

class InternalException : public net::RuntimeException {
public:
    InternalException(const char * message, bool logIt);
    InternalException(const InternalException & other) = default;
    ~InternalException() override;
};

}  // namespace tools
