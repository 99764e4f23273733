// socketio::StandardProxyAuthenticator: the CONNECT dialogue with one proxy. It makes the
// plain request, judges the first answer and, when the proxy asks for authentication, picks
// one method (Negotiate before NTLM) and hands the rest of the dialogue to it. Lives on the
// stack of one connect attempt, on the caller's thread; it holds no lock.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "corvane/uri.h"
#include "proxy/proxyauthenticator.h"

namespace socketio {

class StandardProxyAuthenticator : public IProxyAuthenticator {
public:
    StandardProxyAuthenticator(const net::URI & proxyURI, const net::URI & targetURI);

    // Before the first response: the plain CONNECT request. After it: the current method's
    // request; throws socketio::InternalException when no method is left.
    const websocketpp::http::parser::request & getRequest() override;
    // `response` must hold a complete header block (else socketio::InternalException).
    // The construction of a method can throw; that ends the attempt at this proxy.
    ProxyAuthenticateResult handleResponse(const websocketpp::http::parser::response & response) override;

    // How a method is made: by default a socketio::SSPIProxyAuthenticator. Tests put in
    // their own maker to run a dialogue without the system's security packages; null puts
    // the default back. Set it only while no connect attempt runs.
    using MethodMaker = std::function<std::shared_ptr<IProxyAuthenticator>(
        const char * method, const net::URI & proxyURI, const net::URI & targetURI, std::string userAgent)>;
    static void setMethodMaker(MethodMaker maker);

private:
    void initializeAuthMethods(std::string header);
    void addMethod(const char * method);

    bool m_authenticating = false;
    net::URI m_proxyURI;
    net::URI m_targetURI;
    std::string m_userAgent;
    websocketpp::http::parser::request m_request;
    std::vector<std::shared_ptr<IProxyAuthenticator>> m_methods;
};

}  // namespace socketio
