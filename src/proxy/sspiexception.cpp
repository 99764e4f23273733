#include "proxy/sspiexception.h"

#include <gssapi/gssapi.h>

#include <string>

namespace socketio {

namespace {

struct StatusSymbol {
    OM_uint32 status;
    const char * symbol;
};

// The major statuses a GSSAPI call can end with, as RFC 2744 section 3.9.1 names them.
const StatusSymbol kSymbols[] = {
    {GSS_S_COMPLETE, "GSS_S_COMPLETE"},
    {GSS_S_CALL_INACCESSIBLE_READ, "GSS_S_CALL_INACCESSIBLE_READ"},
    {GSS_S_CALL_INACCESSIBLE_WRITE, "GSS_S_CALL_INACCESSIBLE_WRITE"},
    {GSS_S_CALL_BAD_STRUCTURE, "GSS_S_CALL_BAD_STRUCTURE"},
    {GSS_S_BAD_MECH, "GSS_S_BAD_MECH"},
    {GSS_S_BAD_NAME, "GSS_S_BAD_NAME"},
    {GSS_S_BAD_NAMETYPE, "GSS_S_BAD_NAMETYPE"},
    {GSS_S_BAD_BINDINGS, "GSS_S_BAD_BINDINGS"},
    {GSS_S_BAD_STATUS, "GSS_S_BAD_STATUS"},
    {GSS_S_BAD_SIG, "GSS_S_BAD_SIG"},
    {GSS_S_NO_CRED, "GSS_S_NO_CRED"},
    {GSS_S_NO_CONTEXT, "GSS_S_NO_CONTEXT"},
    {GSS_S_DEFECTIVE_TOKEN, "GSS_S_DEFECTIVE_TOKEN"},
    {GSS_S_DEFECTIVE_CREDENTIAL, "GSS_S_DEFECTIVE_CREDENTIAL"},
    {GSS_S_CREDENTIALS_EXPIRED, "GSS_S_CREDENTIALS_EXPIRED"},
    {GSS_S_CONTEXT_EXPIRED, "GSS_S_CONTEXT_EXPIRED"},
    {GSS_S_FAILURE, "GSS_S_FAILURE"},
    {GSS_S_BAD_QOP, "GSS_S_BAD_QOP"},
    {GSS_S_UNAUTHORIZED, "GSS_S_UNAUTHORIZED"},
    {GSS_S_UNAVAILABLE, "GSS_S_UNAVAILABLE"},
    {GSS_S_DUPLICATE_ELEMENT, "GSS_S_DUPLICATE_ELEMENT"},
    {GSS_S_NAME_NOT_MN, "GSS_S_NAME_NOT_MN"},
};

// Every message gss_display_status has for `status` of `type`, joined by "; ".
void appendMessages(std::string & text, OM_uint32 status, int type) {
    OM_uint32 messageContext = 0;
    // The library hands out one message per call; the bound only guards against a library
    // that never clears the context.
    for (int round = 0; round < 16; ++round) {
        OM_uint32 minor = 0;
        gss_buffer_desc message = GSS_C_EMPTY_BUFFER;
        const OM_uint32 major = gss_display_status(&minor, status, type, GSS_C_NO_OID, &messageContext, &message);
        if (GSS_ERROR(major)) {
            break;
        }
        if (message.length > 0) {
            if (!text.empty() && text.back() != ':') {
                text += "; ";
            }
            text.append(static_cast<const char *>(message.value), message.length);
        }
        gss_release_buffer(&minor, &message);
        if (messageContext == 0) {
            break;
        }
    }
}

std::string composeText(const char * call, OM_uint32 majorStatus, OM_uint32 minorStatus) {
    std::string text = call;
    text += ':';
    const char * symbol = nullptr;
    for (const StatusSymbol & entry : kSymbols) {
        if (entry.status == majorStatus) {
            symbol = entry.symbol;
            break;
        }
    }
    text += symbol != nullptr ? std::string(symbol) : std::to_string(majorStatus);
    text += ':';
    appendMessages(text, majorStatus, GSS_C_GSS_CODE);
    // A zero minor status carries no information, only a "Success" or "Unknown error" text.
    if (minorStatus != 0) {
        appendMessages(text, minorStatus, GSS_C_MECH_CODE);
    }
    const std::string::size_type end = text.find_last_not_of(" \t\r\n\f\v");
    text.erase(end == std::string::npos ? 0 : end + 1);
    return text;
}

}  // namespace

SSPIException::SSPIException(const char * call, std::uint32_t majorStatus, std::uint32_t minorStatus)
    : InternalException(composeText(call, majorStatus, minorStatus).c_str(), false), m_majorStatus(majorStatus) {}

SSPIException::~SSPIException() = default;

}  // namespace socketio
