// socketio::SSPIException: a step of the Negotiate/NTLM token computation failed. The text
// names the GSSAPI call, the symbol of its major status (or the number) and the library's
// own messages for the major and minor status. A value type; created without logging, since
// the authenticator decides whether a failure is worth a log line.
#pragma once

#include <cstdint>

#include "socketio/internalexception.h"

namespace socketio {

class SSPIException : public InternalException {
public:
    SSPIException(const char * call, std::uint32_t majorStatus, std::uint32_t minorStatus);
    SSPIException(const SSPIException & other) = default;
    ~SSPIException() override;

    std::uint32_t majorStatus() const { return m_majorStatus; }

private:
    std::uint32_t m_majorStatus;
};

}  // namespace socketio
