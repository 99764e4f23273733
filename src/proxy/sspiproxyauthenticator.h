// socketio::SSPIProxyAuthenticator: the Negotiate or NTLM challenge and response with a proxy,
// with the logged-on user's credentials. Created with std::make_shared by the standard
// authenticator, which holds it in its list of methods; one caller's thread.
#pragma once

#include <string>

#include "corvane/uri.h"
#include "proxy/proxyauthenticator.h"

namespace socketio {

class SSPIProxyAuthenticator : public IProxyAuthenticator {
public:
    // Acquires the credentials for "HTTP/" + the proxy's host and computes the first token;
    // throws socketio::SSPIException when the package or the credentials are unavailable.
    SSPIProxyAuthenticator(const char * method, const net::URI & proxyURI, const net::URI & targetURI,
                           std::string userAgent);
    ~SSPIProxyAuthenticator() override;

    const websocketpp::http::parser::request & getRequest() override;
    ProxyAuthenticateResult handleResponse(const websocketpp::http::parser::response & response) override;

private:
    websocketpp::http::parser::request m_request;
};

}  // namespace socketio
