// socketio::IProxyAuthenticator: one method of the CONNECT dialogue with one proxy. It makes
// the request to send next and judges each response. Plain objects without a reference count,
// owned by the dialogue that uses them, on one caller's thread.
#pragma once

#include <websocketpp/http/request.hpp>
#include <websocketpp/http/response.hpp>

namespace socketio {

// What the caller of handleResponse does next.
enum ProxyAuthenticateResult {
    PROXY_AUTH_CONTINUE = 0,   // send the next request on the same socket
    PROXY_AUTH_RECONNECT = 1,  // close the socket, connect anew, send the next request
    PROXY_AUTH_SUCCESS = 2,    // the tunnel stands
    PROXY_AUTH_FAILED = 3      // give this proxy up
};

class IProxyAuthenticator {
public:
    virtual ~IProxyAuthenticator() = default;
    // The request to send next; valid until the next handleResponse.
    virtual const websocketpp::http::parser::request & getRequest() = 0;
    // `response` holds at least a complete header block.
    virtual ProxyAuthenticateResult handleResponse(const websocketpp::http::parser::response & response) = 0;
};

}  // namespace socketio
