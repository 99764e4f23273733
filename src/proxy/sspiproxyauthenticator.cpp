#include "proxy/sspiproxyauthenticator.h"

#include "socketio/internalexception.h"

namespace socketio {

// Placeholder until the GSSAPI token computation lands: every method is unavailable, so the
// dialogue gives the proxy up as it would for a user without credentials.
SSPIProxyAuthenticator::SSPIProxyAuthenticator(const char *, const net::URI &, const net::URI &, std::string) {
    throw InternalException("SSPIProxyAuthenticator: no security package available", true);
}

SSPIProxyAuthenticator::~SSPIProxyAuthenticator() = default;

const websocketpp::http::parser::request & SSPIProxyAuthenticator::getRequest() { return m_request; }

ProxyAuthenticateResult SSPIProxyAuthenticator::handleResponse(const websocketpp::http::parser::response &) {
    return PROXY_AUTH_FAILED;
}

}  // namespace socketio
