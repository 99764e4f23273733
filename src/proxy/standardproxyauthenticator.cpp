#include "proxy/standardproxyauthenticator.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "common/logging.h"
#include "proxy/connectrequest.h"
#include "proxy/sspiproxyauthenticator.h"
#include "net/version.h"
#include "socketio/internalexception.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.StandardProxyAuthenticator");

StandardProxyAuthenticator::MethodMaker & methodMaker() {
    static StandardProxyAuthenticator::MethodMaker maker;
    return maker;
}
}  // namespace

void StandardProxyAuthenticator::setMethodMaker(MethodMaker maker) {
    methodMaker() = std::move(maker);
}

StandardProxyAuthenticator::StandardProxyAuthenticator(const net::URI & proxyURI, const net::URI & targetURI)
    : m_proxyURI(proxyURI), m_targetURI(targetURI), m_userAgent(net::kUserAgent),
      m_request(ConnectRequest(targetURI, m_userAgent)) {}

const websocketpp::http::parser::request & StandardProxyAuthenticator::getRequest() {
    if (!m_authenticating) {
        return m_request;
    }
    if (m_methods.empty()) {
        throw InternalException("no more authentication methods left to obtain request from", true);
    }
    return m_methods.front()->getRequest();
}

ProxyAuthenticateResult StandardProxyAuthenticator::handleResponse(
    const websocketpp::http::parser::response & response) {
    if (!response.headers_ready()) {
        throw InternalException("response-headers are not ready", true);
    }
    if (!m_authenticating) {
        m_authenticating = true;
        switch (response.get_status_code()) {
        case websocketpp::http::status_code::ok:
            return PROXY_AUTH_SUCCESS;
        case websocketpp::http::status_code::proxy_authentication_required:
            initializeAuthMethods(response.get_header("Proxy-Authenticate"));
            break;
        default:
            LOG4CXX_ERROR(logger, "Unable to open connection with proxy server");
            break;
        }
        // A method's first request always goes out on a new connection.
        return m_methods.empty() ? PROXY_AUTH_FAILED : PROXY_AUTH_RECONNECT;
    }

    if (m_methods.empty()) {
        throw InternalException("no more authentication methods left to handle response", true);
    }
    std::shared_ptr<IProxyAuthenticator> method = m_methods.front();
    ProxyAuthenticateResult outcome = method->handleResponse(response);
    switch (outcome) {
    case PROXY_AUTH_CONTINUE:
    case PROXY_AUTH_RECONNECT:
    case PROXY_AUTH_SUCCESS:
        return outcome;
    case PROXY_AUTH_FAILED:
        m_methods.erase(m_methods.begin());
        break;
    }
    return m_methods.empty() ? PROXY_AUTH_FAILED : PROXY_AUTH_RECONNECT;
}

void StandardProxyAuthenticator::initializeAuthMethods(std::string header) {
    std::string lower = header;
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    // One method only, Negotiate first: a proxy that offers both gets no fall-back to NTLM.
    if (lower.find("negotiate") != std::string::npos) {
        LOG4CXX_INFO(logger, "adding Negotiate authenticate method for Proxy-Authenticate header '" << header << "'");
        addMethod("Negotiate");
    } else if (lower.find("ntlm") != std::string::npos) {
        LOG4CXX_INFO(logger, "adding NTLM authenticate method for Proxy-Authenticate header '" << header << "'");
        addMethod("NTLM");
    } else if (m_methods.empty()) {
        LOG4CXX_WARN(logger,
                     "no supported authenticate methods where found for Proxy-Authenticate header '" << header << "'");
    }
}

void StandardProxyAuthenticator::addMethod(const char * method) {
    const MethodMaker & maker = methodMaker();
    if (maker) {
        m_methods.push_back(maker(method, m_proxyURI, m_targetURI, m_userAgent));
    } else {
        m_methods.push_back(std::make_shared<SSPIProxyAuthenticator>(method, m_proxyURI, m_targetURI, m_userAgent));
    }
}

}  // namespace socketio
