// socketio::SSPIHandler: the logged-on user's side of a Negotiate or NTLM token exchange,
// computed by GSSAPI. "Negotiate" is SPNEGO (RFC 4178), "NTLM" is the gss-ntlmssp mechanism.
// The credentials are whatever GSSAPI finds for the user: the Kerberos ticket cache
// (KRB5CCNAME) and gss-ntlmssp's sources (NTLM_USER_FILE, winbind); no password passes
// through here. Owned by value by one authenticator; one caller's thread.
#pragma once

#include <gssapi/gssapi.h>

#include <string>
#include <vector>

namespace socketio {

class SSPIHandler {
public:
    SSPIHandler() = default;
    ~SSPIHandler();
    SSPIHandler(const SSPIHandler &) = delete;
    SSPIHandler & operator=(const SSPIHandler &) = delete;

    // Takes the user's outbound credentials for `package` ("Negotiate" or "NTLM", any case)
    // towards the service principal `target` ("HTTP/proxyhost"). Throws
    // socketio::SSPIException for an unknown package or when no credentials are found.
    void acquireCredentials(const char * package, const char * target);

    // One step of the exchange: `input` is the peer's last token (empty for the first step),
    // `output` receives ours, possibly empty. Throws socketio::SSPIException when the
    // mechanism refuses the input. Whether another step follows is for the peer to say.
    void nextToken(const std::vector<char> & input, std::vector<char> & output);

private:
    std::string m_package;
    std::string m_target;
    gss_OID m_mechanism = GSS_C_NO_OID;
    gss_name_t m_targetName = GSS_C_NO_NAME;
    gss_cred_id_t m_credentials = GSS_C_NO_CREDENTIAL;
    gss_ctx_id_t m_context = GSS_C_NO_CONTEXT;
    // Confidentiality only: no mutual authentication, since proxies send no final token
    // with their 200 and the tunnel's data is not wrapped by this context anyway.
    OM_uint32 m_contextRequirements = GSS_C_CONF_FLAG;
    OM_uint32 m_contextAttributes = 0;
};

}  // namespace socketio
