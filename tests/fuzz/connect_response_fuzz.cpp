// A proxy's answer to CONNECT, as any bytes on the socket followed by its close: reading the
// header block, and dropping the body of a response that goes on, end with a response or an
// exception, never a crash or a hang, and never take more than the proxy sent.
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>

#include "proxy/proxysocketconnect.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return 0;
    }
    // The default input limit of 4096 bytes fits the socket buffer: the write never blocks.
    if (size > 0 && write(ends[1], data, size) != static_cast<ssize_t>(size)) {
        close(ends[0]);
        close(ends[1]);
        return 0;
    }
    shutdown(ends[1], SHUT_WR);
    websocketpp::http::parser::request request;
    request.set_method("CONNECT");
    request.set_uri("target.test:443");
    request.set_version("HTTP/1.1");
    request.append_header("Host", "target.test:443");
    websocketpp::http::parser::response response;
    try {
        socketio::NegotiateConnectThroughProxy(static_cast<unsigned>(ends[0]), request, response);
        socketio::DiscardProxyResponseBody(static_cast<unsigned>(ends[0]), response);
    } catch (const std::exception &) {
        // Malformed, oversized or cut short: the caller gives this proxy up.
    }
    close(ends[0]);
    close(ends[1]);
    return 0;
}
