#include "websocket/websockettransportprotocol.h"

#include <algorithm>
#include <vector>

#include "common/handover.h"
#include "common/logging.h"
#include "net/optionmap.h"
#include "proxy/proxysocketconnect.h"
#include "socketio/selectreactor.h"
#include "socketio/socketfunctions.h"
#include "websocket/internalexception.h"
#include "websocket/websocketchannel.h"
#include "websocket/websocketchannelserver.h"
#include "websocket/websocketsslchannel.h"
#include "websocket/wschannel.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.WebSocketTransportProtocol");
const log4cxx::LoggerPtr secureLogger = Common::GetLogger("corvane.websocket.WebSocketSecureTransportProtocol");

constexpr const char * kDirectOnlyText =
    "Connecting through proxy was disabled, only trying a direct connection attempt";
constexpr const char * kExperimentalText = "EXMPERIMENTAL SUPPORT for WebSocket SERVER";

const char * text(const char * value) {
    return value != nullptr ? value : "";
}

net::URI parseWithDefaultPort(const char * uri, unsigned short port) {
    net::URI parsed = net::URI::FromString(text(uri));
    if (parsed.getPort() == 0) {
        parsed.setPort(port);
    }
    return parsed;
}

// Whether the authority of `uri` names port 0 itself ("ws://host:0/"), which net::URI cannot
// tell from no port at all: a server given port 0 listens on a free port, as tcp and ssl do.
bool namesPortZero(const char * uri) {
    const std::string whole = text(uri);
    const std::size_t start = whole.find("://");
    if (start == std::string::npos) {
        return false;
    }
    const std::string authority = whole.substr(start + 3, whole.find_first_of("/?#", start + 3) - (start + 3));
    const std::size_t colon = authority.rfind(':');
    if (colon == std::string::npos || authority.find(']', colon) != std::string::npos || colon + 1 == authority.size()) {
        return false;
    }
    return authority.find_first_not_of('0', colon + 1) == std::string::npos;
}

net::URI parseServerURI(const char * uri, unsigned short port) {
    return namesPortZero(uri) ? net::URI::FromString(text(uri)) : parseWithDefaultPort(uri, port);
}

bool textMessagesOf(const net::OptionMap & optionMap) {
    return net::OptionMap::isTrue(optionMap.get("TextMessages", "false"));
}

// The last steps of both clients: the WebSocket handshake on the caller's thread, then the
// handler, then the reactor. Any failure closes the channel before it reaches the caller.
net::IChannel * finishClient(WebSocketChannel * channel, net::IReactor * reactor, const char * uri,
                             net::IChannelHandler * handler, const char * options) {
    Common::SmartPtr<WebSocketChannel> held(channel);
    try {
        net::OptionMap optionMap;
        optionMap.parse(options);
        channel->setTextMessages(textMessagesOf(optionMap));
        channel->setKeepAlive(KeepAlive::FromOptions(optionMap));
        channel->openLogicalConnection(text(uri));
        channel->setChannelHandler(handler);
        auto * selectReactor = dynamic_cast<socketio::SelectReactor *>(reactor);
        if (selectReactor == nullptr) {
            throw InternalException("openChannel needs a reactor made by this module");
        }
        selectReactor->registerSubscriber(channel);
    } catch (...) {
        channel->close();
        throw;
    }
    Common::KeepForCaller(channel);
    return channel;
}

// Both servers: the WebSocket server as acceptor of the server below, which `start` makes.
template <typename Start>
net::IChannelServer * startServer(net::IChannelAcceptor * acceptor, bool secure,
                                  const socketio::socket_options & options, const net::URI & parsedUri,
                                  const char * optionText, Start start) {
    Common::SmartPtr<WebSocketChannelServer> webSocketServer(new WebSocketChannelServer(acceptor, secure, options));
    net::OptionMap optionMap;
    optionMap.parse(optionText);
    std::vector<std::string> origins;
    const std::string list = optionMap.get("AllowedOrigins", "");
    for (std::size_t from = 0; from < list.size();) {
        const std::size_t comma = std::min(list.find(',', from), list.size());
        if (comma > from) {
            origins.push_back(list.substr(from, comma - from));
        }
        from = comma + 1;
    }
    webSocketServer->setMessageOptions(textMessagesOf(optionMap), std::move(origins));
    webSocketServer->setKeepAlive(KeepAlive::FromOptions(optionMap));
    webSocketServer->setHandshakeTimeout(optionMap.getMilliseconds("HandshakeTimeout"));
    const std::string localUri = parsedUri.ToString();
    Common::SmartPtr<net::IChannelServer> server(start(localUri.c_str(), webSocketServer.get()));
    if (!server) {
        return nullptr;
    }
    // A free port picked by the system is known only to the server below.
    net::URI bound = net::URI::FromString(server->getLocalURI());
    bound.setScheme(parsedUri.getScheme());
    webSocketServer->setServer(server.get(), parsedUri.getPort() == 0 ? bound.ToString().c_str() : localUri.c_str());
    Common::KeepForCaller(webSocketServer.get());
    return webSocketServer.get();
}
}  // namespace

WebSocketTransportProtocol::WebSocketTransportProtocol(const socketio::socket_options & options)
    : tcp::TCPTransportProtocol(options) {}

net::IChannel * WebSocketTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                        net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel('" << text(uri) << "', '" << text(options) << "')");
    const net::URI parsedUri = parseWithDefaultPort(uri, 80);
    unsigned int socket;
    try {
        net::OptionMap optionMap;
        optionMap.parse(options);
        if (net::OptionMap::isTrue(optionMap.get("EnableProxy", "true"))) {
            socket = socketio::SocketConnectAttemptProxy(parsedUri, proxyResolver(), m_socketOptions);
        } else {
            LOG4CXX_INFO(logger, kDirectOnlyText);
            socket = socketio::SocketConnect(parsedUri, m_socketOptions);
        }
    } catch (const net::RuntimeException & e) {
        throw InternalException(e.what());
    }
    return finishClient(new WebSocketChannel(socket, m_socketOptions), reactor, uri, handler, options);
}

net::IChannel * WebSocketTransportProtocol::openChannel2(net::IReactor * reactor, const char * uri,
                                                         net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel2('" << text(uri) << "', '" << text(options) << "')");
    const net::URI parsedUri = parseWithDefaultPort(uri, 80);
    Common::SmartPtr<WSChannel> channel(new WSChannel(static_cast<unsigned int>(m_socketOptions.sendBufferSize),
                                                      static_cast<unsigned int>(m_socketOptions.receiveBufferSize),
                                                      false, false));
    {
        // Before the channel below exists: its reactor thread reads them from then on.
        net::OptionMap optionMap;
        optionMap.parse(options);
        channel->setMessageOptions(textMessagesOf(optionMap), {});
        channel->setKeepAlive(KeepAlive::FromOptions(optionMap));
    }
    Common::SmartPtr<net::IChannel> underlying;
    try {
        net::OptionMap optionMap;
        optionMap.parse(options);
        if (!optionMap.hasEnableProxy()) {
            optionMap.set("EnableProxy", "true");
        }
        // The "tcp" transport does not look at the scheme, which stays "ws".
        underlying = tcp::TCPTransportProtocol::openChannel(reactor, parsedUri.ToString().c_str(), channel.get(),
                                                            optionMap.toString().c_str());
    } catch (const net::RuntimeException & e) {
        throw InternalException(e.what());
    }
    try {
        channel->open(underlying.get(), text(uri), 5000);
        channel->setChannelHandler(handler);
    } catch (...) {
        channel->close();
        throw;
    }
    Common::KeepForCaller(channel.get());
    return channel.get();
}

net::IChannelServer * WebSocketTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                                     net::IChannelAcceptor * acceptor,
                                                                     const char * options) {
    LOG4CXX_INFO(logger, "startChannelServer('" << text(uri) << "', '" << text(options) << "')");
    LOG4CXX_WARN(logger, kExperimentalText);
    net::URI parsedUri = parseServerURI(uri, 80);
    parsedUri.setScheme("http");
    return startServer(acceptor, false, m_socketOptions, parsedUri, options,
                       [&](const char * localUri, net::IChannelAcceptor * below) {
                           return tcp::TCPTransportProtocol::startChannelServer(reactor, localUri, below, options);
                       });
}

WebSocketSecureTransportProtocol::WebSocketSecureTransportProtocol(const socketio::socket_options & options)
    : m_socketOptions(options), m_tls(new ssl::SSLTransportProtocol(options)) {}

WebSocketSecureTransportProtocol::~WebSocketSecureTransportProtocol() = default;

net::IChannel * WebSocketSecureTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                              net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(secureLogger, "openChannel('" << text(uri) << "', " << static_cast<const void *>(handler) << ", '"
                                               << text(options) << "')");
    const net::URI parsedUri = parseWithDefaultPort(uri, 443);
    net::OptionMap optionMap;
    optionMap.parse(options);
    const bool viaProxy = net::OptionMap::isTrue(optionMap.get("EnableProxy", "true"));
    if (!viaProxy) {
        LOG4CXX_INFO(secureLogger, kDirectOnlyText);
    }
    unsigned int socket = socketio::INVALID_SOCKET_HANDLE;
    SSL * ssl = nullptr;
    if (!m_tls->connectSecure(parsedUri, optionMap, viaProxy, socket, ssl)) {
        LOG4CXX_ERROR(secureLogger, "unable to connect");
        return nullptr;
    }
    // The TLS handshake is complete before the WebSocket handshake starts on the same socket.
    return finishClient(new WebSocketSSLChannel(socket, ssl, nullptr, m_socketOptions), reactor, uri, handler, options);
}

net::IChannelServer * WebSocketSecureTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                                           net::IChannelAcceptor * acceptor,
                                                                           const char * options) {
    LOG4CXX_INFO(secureLogger, "startChannelServer('" << text(uri) << "', '" << text(options) << "')");
    LOG4CXX_WARN(secureLogger, kExperimentalText);
    net::URI parsedUri = parseServerURI(uri, 443);
    parsedUri.setScheme("https");
    return startServer(acceptor, true, m_socketOptions, parsedUri, options,
                       [&](const char * localUri, net::IChannelAcceptor * below) {
                           return m_tls->startChannelServer(reactor, localUri, below, options);
                       });
}

}  // namespace websocket
