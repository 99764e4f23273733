#include "proxy/connectrequest.h"

namespace socketio {

websocketpp::http::parser::request ConnectRequest(const net::URI & targetURI, const std::string & userAgent) {
    std::string target = targetURI.getHost();
    if (target.find(':') != std::string::npos) {
        target = "[" + target + "]";
    }
    target += ":" + std::to_string(targetURI.getPort());
    websocketpp::http::parser::request request;
    request.set_method("CONNECT");
    request.set_uri(target);
    request.set_version("HTTP/1.1");
    request.append_header("Host", target);
    request.append_header("User-Agent", userAgent);
    request.append_header("Proxy-Connection", "Keep-Alive");
    return request;
}

}  // namespace socketio
