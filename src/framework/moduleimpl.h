// net::ModuleImpl: the module's one instance, a function-local static made at the first
// GetModule. Any thread.
#pragma once

#include "corvane/channel.h"

namespace net {

class ModuleImpl final : public IModule {
public:
    static ModuleImpl & Instance();

    IChannelFactory * createChannelFactory(SocketOptions options) override;
    IReactor * createReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout) override;
    // A null reactor throws net::InternalException; a null factory is replaced by a new one
    // built from default SocketOptions.
    ITunnelStore * createTunnelStore(IReactor * reactor, IChannelFactory * factory,
                                     unsigned int tunnelParameter) override;

    // The module's self-checks; true when all passed. Each outcome is logged.
    static bool RunSelfChecks();

private:
    ModuleImpl() = default;
    ~ModuleImpl() = default;
};

}  // namespace net
