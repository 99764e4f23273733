#include "proxy/proxysocketconnect.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

#include "common/logging.h"
#include "proxy/standardproxyauthenticator.h"
#include "socketio/connectabort.h"
#include "socketio/internalexception.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/socketfunctions.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.ProxySocketConnect");

const size_t kReceiveBufferSize = 0x10000;
// A chunk-size line or trailer line longer than this is no HTTP a proxy would send.
const size_t kMaxChunkLine = 4096;

ssize_t receive(unsigned int socket, char * buffer, size_t length, int flags) {
    // A proxy that accepts and never answers must not hold the connection beyond its limit:
    // it fails like one that closes, and the next proxy is tried.
    if (!WaitWithinConnectTime(socket, POLLIN)) {
        throw std::runtime_error("no answer from the proxy within ConnectTimeout=" +
                                 std::to_string(ConnectTimeLimit()) + " ms");
    }
    ssize_t received;
    do {
        received = recv(static_cast<int>(socket), buffer, length, flags);
    } while (received < 0 && errno == EINTR);
    return received;
}

[[noreturn]] void receiveFailed(ssize_t result) {
    LOG4CXX_ERROR(logger, "Unable to receive data through proxy-socket, ret=" << result);
    throw std::runtime_error("error receiving proxy-handshake data");
}

// Takes exactly `length` bytes off the socket and drops them.
void discard(unsigned int socket, unsigned long long length) {
    char buffer[4096];
    while (length > 0) {
        size_t wanted = static_cast<size_t>(std::min<unsigned long long>(length, sizeof buffer));
        ssize_t received = receive(socket, buffer, wanted, 0);
        if (received < 1) {
            receiveFailed(received);
        }
        length -= static_cast<unsigned long long>(received);
    }
}

// One line of a chunked body, without its line end. Byte by byte, so that nothing after
// the body is taken from the socket.
std::string readLine(unsigned int socket) {
    std::string line;
    for (;;) {
        char c;
        ssize_t received = receive(socket, &c, 1, 0);
        if (received < 1) {
            receiveFailed(received);
        }
        if (c == '\n') {
            if (!line.empty() && line.back() == '\r') {
                line.pop_back();
            }
            return line;
        }
        if (line.size() >= kMaxChunkLine) {
            throw std::runtime_error("proxy response body has an overlong chunk line");
        }
        line += c;
    }
}

// RFC 7230, section 4.1: chunk-size [ chunk-ext ] CRLF chunk-data CRLF ... "0" CRLF trailers CRLF.
void discardChunked(unsigned int socket) {
    for (;;) {
        std::string line = readLine(socket);
        char * end = nullptr;
        errno = 0;
        unsigned long long size = std::strtoull(line.c_str(), &end, 16);
        if (end == line.c_str() || errno == ERANGE || (*end != '\0' && *end != ';' && *end != ' ' && *end != '\t')) {
            throw std::runtime_error("proxy response body has an unreadable chunk size");
        }
        if (size == 0) {
            while (!readLine(socket).empty()) {
            }
            return;
        }
        discard(socket, size);
        if (!readLine(socket).empty()) {
            throw std::runtime_error("proxy response body has a chunk without its line end");
        }
    }
}

std::string lowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}
}  // namespace

unsigned int SocketConnectAttemptProxy(const net::URI & uri, ProxyResolver::IResolver * resolver,
                                       const socket_options & options) {
    // Proxy configuration knows web schemes only.
    net::URI lookup = uri;
    if (lookup.getScheme() == "ws") {
        lookup.setScheme("http");
    } else if (lookup.getScheme() == "wss") {
        lookup.setScheme("https");
    }
    std::string lookupText = lookup.ToString();
    LOG4CXX_INFO(logger, "Resolving proxy information for '" << uri.ToString() << "' using '" << lookupText << "'");
    std::unique_ptr<ProxyResolver::IResult> result(resolver->resolve(lookupText.c_str()));
    LOG4CXX_INFO(logger, "Found " << result->proxyCount() << " proxies available for connecting to '" << lookupText
                                  << "'");
    for (unsigned int index = 0; index < result->proxyCount(); ++index) {
        // Each proxy, and the direct connection after them, has the whole ConnectTimeout.
        RestartConnectDeadline();
        try {
            return ProxySocketConnect(uri, result->proxy(index), options);
        } catch (const InternalException & e) {
            LOG4CXX_ERROR(logger, "SocketConnectAttemptProxy: InternalException caught: " << e.what());
        } catch (const std::exception & e) {
            LOG4CXX_ERROR(logger, "SocketConnectAttemptProxy: exception caught: " << e.what());
        } catch (...) {
            LOG4CXX_ERROR(logger, "SocketConnectAttemptProxy: unknown exception caught");
        }
    }
    // No configuration turns this off: an empty list and a list of failing proxies end alike.
    LOG4CXX_INFO(logger, "Connecting directly");
    RestartConnectDeadline();
    return SocketConnect(uri, options);
}

unsigned int ProxySocketConnect(const net::URI & uri, const ProxyResolver::IProxy & proxy,
                                const socket_options & options) {
    unsigned int socket = INVALID_SOCKET_HANDLE;
    LOG4CXX_INFO(logger, "initiating connection with proxy '" << proxy.URI() << "'");
    std::string proxyText = proxy.URI();
    if (proxyText.find("://") == std::string::npos) {
        proxyText = "tcp://" + proxyText;
    }
    net::URI proxyURI = net::URI::FromString(proxyText);
    StandardProxyAuthenticator authenticator(proxyURI, uri);

    auto closeSocket = [&socket] {
        if (socket != INVALID_SOCKET_HANDLE) {
            SocketClose(socket);
            socket = INVALID_SOCKET_HANDLE;
        }
    };
    for (;;) {
        ProxyAuthenticateResult outcome;
        try {
            if (socket == INVALID_SOCKET_HANDLE) {
                socket = SocketConnect(proxyURI, options);
            }
            websocketpp::http::parser::response response;
            NegotiateConnectThroughProxy(socket, authenticator.getRequest(), response);
            outcome = authenticator.handleResponse(response);
            if (outcome == PROXY_AUTH_RECONNECT) {
                closeSocket();
                outcome = PROXY_AUTH_CONTINUE;
            } else if (outcome == PROXY_AUTH_CONTINUE) {
                // The next response comes on this connection: it must not be read from the
                // body of this one.
                DiscardProxyResponseBody(socket, response);
            }
        } catch (const std::exception & e) {
            closeSocket();
            LOG4CXX_ERROR(logger, "ProxySocketConnect: " << e.what());
            throw;
        } catch (...) {
            closeSocket();
            LOG4CXX_ERROR(logger, "ProxySocketConnect: unknown error");
            throw;
        }
        if (outcome == PROXY_AUTH_CONTINUE) {
            continue;
        }
        if (outcome == PROXY_AUTH_SUCCESS) {
            return socket;
        }
        closeSocket();
        throw InternalException("ProxySocketConnect: unable to initialize connection to proxy", true);
    }
}

namespace {
// The parser turns the status code into its enumeration unchecked, and a number beyond the
// statuses it knows (a proxy answering "HTTP/1.1 4207 ..." or "870") is no value of it: the
// code must be three digits from 100 to 511, the last status HTTP defines (RFC 6585, 511).
// True once the line's end has come; throws on a malformed code.
bool checkStatusLine(const std::string & received) {
    const size_t end = received.find('\n');
    if (end == std::string::npos) {
        return false;
    }
    const size_t codeStart = received.find(' ');
    if (codeStart < end) {
        size_t digits = 0;
        while (codeStart + 1 + digits < end && std::isdigit(static_cast<unsigned char>(received[codeStart + 1 + digits]))) {
            ++digits;
        }
        const char after = received[codeStart + 1 + digits];
        if (digits == 3 && (after == ' ' || after == '\r' || after == '\n')) {
            const int code = std::atoi(received.c_str() + codeStart + 1);
            if (code >= 100 && code <= 511) {
                return true;
            }
        }
    }
    const size_t lineEnd = end > 0 && received[end - 1] == '\r' ? end - 1 : end;
    throw std::runtime_error("malformed status line from proxy: " + received.substr(0, std::min<size_t>(lineEnd, 80)));
}
}  // namespace

void NegotiateConnectThroughProxy(unsigned int socket, const websocketpp::http::parser::request & request,
                                  websocketpp::http::parser::response & response) {
    std::string text = request.raw();
    LOG4CXX_INFO(logger, "Initiating/continuing proxy-connection using: " << text);
    ssize_t sent;
    do {
        sent = send(static_cast<int>(socket), text.data(), text.size(), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent != static_cast<ssize_t>(text.size())) {
        LOG4CXX_ERROR(logger, "Unable to send (all) data through proxy-socket, ret=" << sent);
        throw std::runtime_error("Unable to send proxy-negotiate headers");
    }

    std::unique_ptr<char[]> buffer(new char[kReceiveBufferSize]);
    std::string statusLine;  // until its end has come and been checked
    bool statusLineChecked = false;
    while (!response.headers_ready()) {
        // Look first, then take only what belongs to the header block: after a 200 the
        // target's first bytes may follow in the same segment, and after a 407 the body.
        ssize_t received = receive(socket, buffer.get(), kReceiveBufferSize, MSG_PEEK);
        if (received < 1) {
            receiveFailed(received);
        }
        if (!statusLineChecked) {
            statusLine.append(buffer.get(), static_cast<size_t>(received));
            statusLineChecked = checkStatusLine(statusLine);
        }
        size_t bodyBefore = response.get_body().size();
        size_t used = response.consume(buffer.get(), static_cast<size_t>(received));
        size_t headerBytes = used - (response.get_body().size() - bodyBefore);
        discard(socket, headerBytes);
    }
    LOG4CXX_INFO(logger, "got response: " << response.raw());
}

void DiscardProxyResponseBody(unsigned int socket, const websocketpp::http::parser::response & response) {
    if (lowerCase(response.get_header("Transfer-Encoding")).find("chunked") != std::string::npos) {
        discardChunked(socket);
        return;
    }
    const std::string & length = response.get_header("Content-Length");
    if (!length.empty()) {
        // The parser has refused a Content-Length that is no number.
        discard(socket, std::strtoull(length.c_str(), nullptr, 10));
    }
}

}  // namespace socketio
