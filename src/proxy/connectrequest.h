// The CONNECT request that every step of the dialogue with a proxy starts from. A pure
// function, any thread.
#pragma once

#include <string>

#include <websocketpp/http/request.hpp>

#include "corvane/uri.h"

namespace socketio {

// "CONNECT host:port HTTP/1.1" with the headers Host (the same "host:port"), User-Agent and
// Proxy-Connection: Keep-Alive. An IPv6 literal stands in brackets (RFC 7230, section
// 5.3.3), or the proxy could not tell the port from the address.
websocketpp::http::parser::request ConnectRequest(const net::URI & targetURI, const std::string & userAgent);

}  // namespace socketio
