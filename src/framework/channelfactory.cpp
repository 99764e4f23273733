#include "framework/channelfactory.h"

#include "common/logging.h"
#include "corvane/uri.h"
#include "framework/transports.h"
#include "net/internalexception.h"
#include "net/optionmap.h"
#include "socketio/connectabort.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.ChannelFactory");
}

ChannelFactory::ChannelFactory(SocketOptions options) : m_socketOptions(options) {
    registerBuiltinTransports(*this, m_socketOptions);
}

ChannelFactory::~ChannelFactory() {
    m_mapTransportProtocol.clear();
}

void ChannelFactory::registerTransportProtocol(ITransportProtocol * protocol) {
    Common::SmartPtr<ITransportProtocol> held(protocol);
    std::string name = protocol->getName();
    LOG4CXX_TRACE(logger, "registerTransportProtocol('" << name << "')");
    if (m_mapTransportProtocol.count(name) != 0) {
        throw InternalException(("transport protocol '" + name + "' already registered").c_str(), true);
    }
    m_mapTransportProtocol.emplace(name, held);
}

void ChannelFactory::unregisterTransportProtocol(const char * name) {
    std::string key = name != nullptr ? name : "";
    LOG4CXX_TRACE(logger, "unregisterTransportProtocol('" << key << "')");
    if (m_mapTransportProtocol.erase(key) == 0) {
        LOG4CXX_DEBUG(logger, "unregisterTransportProtocol: '" << key << "' not found, ignoring it");
    }
}

ITransportProtocol * ChannelFactory::getTransportProtocol(const char * name) const {
    std::string key = name != nullptr ? name : "";
    LOG4CXX_TRACE(logger, "getTransportProtocol('" << key << "')");
    auto found = m_mapTransportProtocol.find(key);
    if (found == m_mapTransportProtocol.end()) {
        LOG4CXX_DEBUG(logger, "getTransportProtocol: '" << key << "' not found, returning a null pointer");
        return nullptr;
    }
    return found->second.get();
}

ITransportProtocol * ChannelFactory::protocolFor(const char * uri) const {
    std::string scheme = URI::FromString(uri != nullptr ? uri : "").getScheme();
    ITransportProtocol * protocol = getTransportProtocol(scheme.c_str());
    if (protocol == nullptr) {
        throw InternalException(("transport protocol '" + scheme + "' not recognized").c_str(), true);
    }
    return protocol;
}

IChannel * ChannelFactory::openChannel(IReactor * reactor, const char * uri, IChannelHandler * handler,
                                       const char * options) {
    ITransportProtocol * protocol = protocolFor(uri);
    OptionMap optionMap;
    optionMap.parse(options);
    // Every blocking step of the opening on this thread (connect, each proxy's exchange, the
    // TLS and WebSocket handshakes) keeps to ConnectTimeout, whatever the scheme.
    socketio::ConnectDeadlineScope deadline(optionMap.getMilliseconds("ConnectTimeout"));
    return protocol->openChannel(reactor, uri, handler, options);
}

IChannelServer * ChannelFactory::startChannelServer(IReactor * reactor, const char * uri, IChannelAcceptor * acceptor,
                                                    const char * options) {
    return protocolFor(uri)->startChannelServer(reactor, uri, acceptor, options);
}

}  // namespace net
