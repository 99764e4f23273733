#include "tls/httpstransportprotocol.h"

#include "common/logging.h"
#include "net/optionmap.h"

namespace ssl {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.ssl.HTTPSTransportProtocol");

const char * text(const char * value) {
    return value != nullptr ? value : "";
}

std::string httpsURI(const char * uri) {
    net::URI parsedUri = net::URI::FromString(text(uri));
    if (parsedUri.getPort() == 0) {
        parsedUri.setPort(443);
    }
    parsedUri.setScheme("https");
    return parsedUri.ToString();
}
}  // namespace

HTTPSTransportProtocol::HTTPSTransportProtocol(const socketio::socket_options & options)
    : SSLTransportProtocol(options) {}

net::IChannel * HTTPSTransportProtocol::openChannel(net::IReactor * reactor, const char * uri,
                                                    net::IChannelHandler * handler, const char * options) {
    LOG4CXX_INFO(logger, "openChannel('" << text(uri) << "', " << static_cast<const void *>(handler) << ", '"
                                         << text(options) << "')");
    const std::string completed = httpsURI(uri);
    net::OptionMap optionMap;
    optionMap.parse(options);
    // Proxy traversal is the default here; a present key, whatever its value, decides.
    if (!optionMap.hasEnableProxy()) {
        optionMap.set("EnableProxy", "true");
    }
    return SSLTransportProtocol::openChannel(reactor, completed.c_str(), handler, optionMap.toString().c_str());
}

net::IChannelServer * HTTPSTransportProtocol::startChannelServer(net::IReactor * reactor, const char * uri,
                                                                 net::IChannelAcceptor * acceptor,
                                                                 const char * options) {
    LOG4CXX_INFO(logger, "startChannelServer('" << text(uri) << "', " << static_cast<const void *>(acceptor) << ", '"
                                                << text(options) << "')");
    const std::string completed = httpsURI(uri);
    return SSLTransportProtocol::startChannelServer(reactor, completed.c_str(), acceptor, options);
}

}  // namespace ssl
