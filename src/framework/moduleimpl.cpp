#include "framework/moduleimpl.h"

#include <functional>
#include <utility>
#include <vector>

#include "common/logging.h"
#include "corvane/uri.h"
#include "framework/channelfactory.h"
#include "net/optionmap.h"
#include "net/internalexception.h"
#include "socketio/selectreactor.h"
#include "tunnel/tunnelstore.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.ModuleImpl");
}

ModuleImpl & ModuleImpl::Instance() {
    static ModuleImpl instance;
    return instance;
}

IChannelFactory * ModuleImpl::createChannelFactory(SocketOptions options) {
    return new ChannelFactory(options);
}

IReactor * ModuleImpl::createReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout) {
    return new socketio::SelectReactor(deadSocketCheckInterval, deadSocketTimeout, selectTimeout);
}

ITunnelStore * ModuleImpl::createTunnelStore(IReactor * reactor, IChannelFactory * factory,
                                             unsigned int tunnelParameter) {
    if (reactor == nullptr) {
        throw InternalException("reactor argument to createTunnelStore cannot be null", true);
    }
    Common::SmartPtr<IChannelFactory> usedFactory(factory != nullptr ? factory : new ChannelFactory(SocketOptions()));
    return new TunnelStore(reactor, usedFactory.get(), tunnelParameter);
}

bool ModuleImpl::RunSelfChecks() {
    const std::vector<std::pair<const char *, std::function<bool()>>> checks = {
        {"uri", [] {
             URI uri = URI::FromString("tcp://[::1]:8080/a?b#c");
             return uri.getHost() == "::1" && uri.getPort() == 8080 && URI::FromString(uri.ToString()) == uri;
         }},
        {"options", [] {
             OptionMap map;
             map.parse("b=2;a=1=x;a=3;c");
             return map.toString() == "a=3;b=2;c=;";
         }},
        {"refcount", [] {
             Common::SmartPtr<IChannelFactory> factory(new ChannelFactory(SocketOptions()));
             Common::SmartPtr<IChannelFactory> copy = factory;
             return factory->refCount() == 2;
         }},
    };
    bool all = true;
    for (const auto & check : checks) {
        bool passed = false;
        try {
            passed = check.second();
        } catch (const std::exception & e) {
            LOG4CXX_ERROR(logger, "self-check '" << check.first << "' threw: " << e.what());
        }
        if (passed) {
            LOG4CXX_INFO(logger, "self-check '" << check.first << "' passed");
        } else {
            LOG4CXX_ERROR(logger, "self-check '" << check.first << "' failed");
        }
        all = all && passed;
    }
    return all;
}

}  // namespace net
