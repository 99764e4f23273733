#include "tcp/httptransportprotocol.h"

#include "common/logging.h"
#include "corvane/uri.h"
#include "net/optionmap.h"

namespace tcp {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tcp.HTTPTransportProtocol");

const unsigned short kDefaultPort = 80;

const char * text(const char * value) {
    return value != nullptr ? value : "";
}

net::URI httpURI(const char * uri) {
    net::URI parsed = net::URI::FromString(text(uri));
    if (parsed.getPort() == 0) {
        parsed.setPort(kDefaultPort);
    }
    parsed.setScheme("http");
    return parsed;
}
}  // namespace

HTTPTransportProtocol::HTTPTransportProtocol(const socketio::socket_options & options)
    : TCPTransportProtocol(options) {}

net::IChannel * HTTPTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                   net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel(uri='" << text(uri) << "', options='" << text(options) << "')");
    net::URI parsedUri = httpURI(uri);
    net::OptionMap optionMap;
    optionMap.parse(options);
    // Only an absent key takes the default: "EnableProxy=false" (or any other value) stays.
    if (!optionMap.hasEnableProxy()) {
        optionMap.set("EnableProxy", "true");
    }
    return TCPTransportProtocol::openChannel(reactor, parsedUri.ToString().c_str(), handler,
                                             optionMap.toString().c_str());
}

net::IChannelServer * HTTPTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                                net::IChannelAcceptor * acceptor,
                                                                const char * options) {
    LOG4CXX_INFO(logger, "startChannelServer(uri='" << text(uri) << "', options='" << text(options) << "')");
    return TCPTransportProtocol::startChannelServer(reactor, httpURI(uri).ToString().c_str(), acceptor, options);
}

}  // namespace tcp
