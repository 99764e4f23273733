#include "framework/transports.h"

#include "corvane/channel.h"

namespace net {

void registerBuiltinTransports(IChannelFactory & /*factory*/, const SocketOptions & /*options*/) {
}

}  // namespace net
