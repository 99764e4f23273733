// websocket::HandshakeFailureText: the words for a failed opening handshake of a client
// connection, shared by both client channels. Runs inside the engine's fail handler, on the
// thread of the engine call, with the channel's engine lock held.
#pragma once

#include <string>
#include <system_error>

#include <websocketpp/http/constants.hpp>
#include <websocketpp/processors/base.hpp>
#include <websocketpp/utilities.hpp>

namespace websocket {

// The engine says "A required HTTP header is missing" for a 101 without Upgrade, without
// Connection and with a wrong Sec-WebSocket-Accept alike (RFC 6455, 4.1): a response that
// carries the first two is named for the third.
template <typename ConnectionPtr>
std::string HandshakeFailureText(const ConnectionPtr & con) {
    const std::error_code ec = con->get_ec();
    if (ec == websocketpp::processor::error::make_error_code(websocketpp::processor::error::missing_required_header) &&
        con->get_response_code() == websocketpp::http::status_code::switching_protocols &&
        websocketpp::utility::ci_find_substr(con->get_response_header("Upgrade"), "websocket", 9) !=
            con->get_response_header("Upgrade").end() &&
        websocketpp::utility::ci_find_substr(con->get_response_header("Connection"), "upgrade", 7) !=
            con->get_response_header("Connection").end()) {
        return "the server's Sec-WebSocket-Accept does not match the key sent";
    }
    return ec.message();
}

}  // namespace websocket
