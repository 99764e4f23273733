// socketio::SSPIProxyAuthenticator: the Negotiate or NTLM challenge and response with a proxy,
// with the logged-on user's credentials. Created with std::make_shared by the standard
// authenticator, which holds it in its list of methods; one caller's thread.
#pragma once

#include <string>
#include <vector>

#include "corvane/uri.h"
#include "proxy/proxyauthenticator.h"
#include "proxy/sspihandler.h"

namespace socketio {

class SSPIProxyAuthenticator : public IProxyAuthenticator {
public:
    // Acquires the credentials for "HTTP/" + the proxy's host and computes the first token;
    // throws socketio::SSPIException when the package or the credentials are unavailable.
    SSPIProxyAuthenticator(const char * method, const net::URI & proxyURI, const net::URI & targetURI,
                           std::string userAgent);
    ~SSPIProxyAuthenticator() override;
    SSPIProxyAuthenticator(const SSPIProxyAuthenticator &) = delete;
    SSPIProxyAuthenticator & operator=(const SSPIProxyAuthenticator &) = delete;

    // The CONNECT request carrying our latest token.
    const websocketpp::http::parser::request & getRequest() override;
    // 200: success. 407 with a challenge of our method: the next token is computed and the
    // request goes out on the same socket (CONTINUE), or FAILED when the package refuses the
    // challenge. Other statuses: FAILED. Throws socketio::InternalException when the headers
    // are incomplete or the proxy names another method.
    ProxyAuthenticateResult handleResponse(const websocketpp::http::parser::response & response) override;

private:
    ProxyAuthenticateResult continueNegotiate(const std::string & header);
    void buildRequest();

    net::URI m_proxyURI;
    net::URI m_targetURI;
    SSPIHandler m_handler;
    std::string m_userAgent;
    websocketpp::http::parser::request m_request;
    std::string m_method;
    std::vector<char> m_inputToken;
    std::vector<char> m_outputToken;
};

}  // namespace socketio
