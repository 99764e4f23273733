#include "proxy/sspihandler.h"

#include <strings.h>

#include "common/logging.h"
#include "proxy/sspiexception.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.SSPIHandler");

// The mechanism OIDs: SPNEGO (RFC 4178) and NTLMSSP as Microsoft registered it.
gss_OID_desc spnegoMechanism = {6, const_cast<char *>("\x2b\x06\x01\x05\x05\x02")};
gss_OID_desc ntlmMechanism = {10, const_cast<char *>("\x2b\x06\x01\x04\x01\x82\x37\x02\x02\x0a")};
}  // namespace

SSPIHandler::~SSPIHandler() {
    OM_uint32 minor = 0;
    if (m_context != GSS_C_NO_CONTEXT) {
        gss_delete_sec_context(&minor, &m_context, GSS_C_NO_BUFFER);
    }
    if (m_credentials != GSS_C_NO_CREDENTIAL) {
        gss_release_cred(&minor, &m_credentials);
    }
    if (m_targetName != GSS_C_NO_NAME) {
        gss_release_name(&minor, &m_targetName);
    }
}

void SSPIHandler::acquireCredentials(const char * package, const char * target) {
    m_package = package;
    m_target = target;
    if (strcasecmp(package, "Negotiate") == 0) {
        m_mechanism = &spnegoMechanism;
    } else if (strcasecmp(package, "NTLM") == 0) {
        m_mechanism = &ntlmMechanism;
    } else {
        throw SSPIException("gss_acquire_cred", GSS_S_BAD_MECH, 0);
    }

    // "HTTP/host" is the principal's form on the wire; GSSAPI's host-based service name
    // writes it "HTTP@host" and maps it to HTTP/host@REALM itself.
    std::string serviceName = m_target;
    const std::string::size_type slash = serviceName.find('/');
    if (slash != std::string::npos) {
        serviceName[slash] = '@';
    }
    OM_uint32 minor = 0;
    gss_buffer_desc nameBuffer = {serviceName.size(), const_cast<char *>(serviceName.data())};
    OM_uint32 major = gss_import_name(&minor, &nameBuffer, GSS_C_NT_HOSTBASED_SERVICE, &m_targetName);
    if (GSS_ERROR(major)) {
        throw SSPIException("gss_import_name", major, minor);
    }

    gss_OID_set_desc mechanisms = {1, m_mechanism};
    major = gss_acquire_cred(&minor, GSS_C_NO_NAME, GSS_C_INDEFINITE, &mechanisms, GSS_C_INITIATE, &m_credentials,
                             nullptr, nullptr);
    if (GSS_ERROR(major)) {
        throw SSPIException("gss_acquire_cred", major, minor);
    }
    m_contextRequirements = GSS_C_CONF_FLAG;
    LOG4CXX_TRACE(logger, "credentials for " << m_package << " towards " << serviceName);
}

void SSPIHandler::nextToken(const std::vector<char> & input, std::vector<char> & output) {
    // A proxy that refuses our last token repeats the bare method, which leaves nothing to
    // answer. gss-ntlmssp (also under SPNEGO) crashes when given no input on a context it
    // has begun, so the refusal is made here, in the words GSSAPI uses for it.
    if (m_context != GSS_C_NO_CONTEXT && input.empty()) {
        output.clear();
        throw SSPIException("gss_init_sec_context", GSS_S_DEFECTIVE_TOKEN, 0);
    }
    gss_buffer_desc inputBuffer = {input.size(), const_cast<char *>(input.data())};
    gss_buffer_desc outputBuffer = GSS_C_EMPTY_BUFFER;
    OM_uint32 minor = 0;
    const OM_uint32 major = gss_init_sec_context(
        &minor, m_credentials, &m_context, m_targetName, m_mechanism, m_contextRequirements, 0,
        GSS_C_NO_CHANNEL_BINDINGS, input.empty() ? GSS_C_NO_BUFFER : &inputBuffer, nullptr, &outputBuffer,
        &m_contextAttributes, nullptr);
    const auto * bytes = static_cast<const char *>(outputBuffer.value);
    output.assign(bytes, bytes + outputBuffer.length);
    OM_uint32 releaseMinor = 0;
    gss_release_buffer(&releaseMinor, &outputBuffer);
    if (GSS_ERROR(major)) {
        throw SSPIException("gss_init_sec_context", major, minor);
    }
    LOG4CXX_TRACE(logger, m_package << " token: " << input.size() << " bytes in, " << output.size() << " bytes out"
                                    << ((major & GSS_S_CONTINUE_NEEDED) != 0 ? ", more expected" : ", complete"));
}

}  // namespace socketio
