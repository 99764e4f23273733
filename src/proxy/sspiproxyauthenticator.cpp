#include "proxy/sspiproxyauthenticator.h"

#include <algorithm>
#include <cctype>
#include <exception>
#include <sstream>
#include <utility>

#include "common/logging.h"
#include "proxy/base64.h"
#include "proxy/connectrequest.h"
#include "socketio/internalexception.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.SSPIProxyAuthenticator");

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}
}  // namespace

SSPIProxyAuthenticator::SSPIProxyAuthenticator(const char * method, const net::URI & proxyURI,
                                               const net::URI & targetURI, std::string userAgent)
    : m_proxyURI(proxyURI), m_targetURI(targetURI), m_userAgent(std::move(userAgent)), m_method(method) {
    // The principal is named after the proxy's host as the configuration spells it: no
    // name resolution, so that the realm's mapping of that name decides.
    m_handler.acquireCredentials(method, ("HTTP/" + m_proxyURI.getHost()).c_str());
    m_handler.nextToken(m_inputToken, m_outputToken);
    buildRequest();
}

SSPIProxyAuthenticator::~SSPIProxyAuthenticator() = default;

const websocketpp::http::parser::request & SSPIProxyAuthenticator::getRequest() {
    return m_request;
}

ProxyAuthenticateResult SSPIProxyAuthenticator::handleResponse(const websocketpp::http::parser::response & response) {
    if (!response.headers_ready()) {
        throw InternalException("response-headers are not ready", true);
    }
    switch (response.get_status_code()) {
    case websocketpp::http::status_code::ok:
        return PROXY_AUTH_SUCCESS;
    case websocketpp::http::status_code::proxy_authentication_required:
        return continueNegotiate(response.get_header("Proxy-Authenticate"));
    default:
        LOG4CXX_ERROR(logger, "Unable to open connection with proxy server");
        return PROXY_AUTH_FAILED;
    }
}

ProxyAuthenticateResult SSPIProxyAuthenticator::continueNegotiate(const std::string & header) {
    // Only the first offer counts: "Negotiate <token>" or "NTLM <token>", or the bare name.
    std::istringstream words(header);
    std::string method;
    std::string token;
    words >> method >> token;
    if (lowerCase(method) != lowerCase(m_method)) {
        const std::string message =
            "unexpected ProxyAuthenticate method '" + method + "', expected '" + m_method + "' (case-insensitive)";
        throw InternalException(message.c_str(), true);
    }
    base64Decode(token, m_inputToken);
    try {
        m_handler.nextToken(m_inputToken, m_outputToken);
        buildRequest();
        return PROXY_AUTH_CONTINUE;
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "exception caught: " << e.what());
    } catch (...) {
        LOG4CXX_ERROR(logger, "unknown exception caught");
    }
    return PROXY_AUTH_FAILED;
}

void SSPIProxyAuthenticator::buildRequest() {
    m_request = ConnectRequest(m_targetURI, m_userAgent);
    std::string encoded;
    base64Encode(m_outputToken.data(), static_cast<unsigned>(m_outputToken.size()), encoded);
    m_request.replace_header("Proxy-Authorization", m_method + " " + encoded);
}

}  // namespace socketio
