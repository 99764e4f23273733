// Connecting through the system's HTTP proxies: the CONNECT exchange on a blocking socket,
// before any channel exists, with a direct connection as the last resort. Plain functions
// without state or locks; caller's thread; they block on name resolution, connect and the
// proxy's answers, within the calling thread's ConnectTimeout (socketio::ConnectDeadlineScope)
// for each proxy if one is set, else with no time limit of their own. Log category
// "corvane.socketio.ProxySocketConnect".
#pragma once

#include <websocketpp/http/request.hpp>
#include <websocketpp/http/response.hpp>

#include "corvane/uri.h"
#include "proxy/proxyresolver.h"
#include "socketio/socketoptions.h"

namespace socketio {

// A connected socket to `uri` (which must carry its port), owned by the caller: through the
// first of the proxies that the resolver names for it that lets the tunnel through, else
// directly. "ws" and "wss" are asked for as "http" and "https". Exceptions of the resolver
// and of the direct connection reach the caller; a failing proxy is logged and skipped.
unsigned int SocketConnectAttemptProxy(const net::URI & uri, ProxyResolver::IResolver * resolver,
                                       const socket_options & options);

// The same through one given proxy ("host:port" or "scheme://host:port"). Throws when this
// proxy does not give a tunnel; no socket is left open then.
unsigned int ProxySocketConnect(const net::URI & uri, const ProxyResolver::IProxy & proxy,
                                const socket_options & options);

// Sends `request` and reads until `response` holds a complete header block. Only the header
// block is taken from the socket: what follows it (a body, or the target's first bytes after
// a 200) stays there for the next reader. Throws std::runtime_error when sending or
// receiving fails or the proxy closes, and the parser's exception on malformed or oversized
// headers (16000 bytes).
void NegotiateConnectThroughProxy(unsigned int socket, const websocketpp::http::parser::request & request,
                                  websocketpp::http::parser::response & response);

// Reads and drops the body that follows `response`'s header block on `socket`, by its
// Content-Length or its chunked coding; a response with neither has no body here. Used
// where a dialogue goes on on the same connection. Throws std::runtime_error when the
// proxy closes or sends a chunk coding that cannot be read.
void DiscardProxyResponseBody(unsigned int socket, const websocketpp::http::parser::response & response);

}  // namespace socketio
