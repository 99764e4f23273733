// The built-in transport protocols that every new net::ChannelFactory registers, in the
// order tcp, http, https, ssl, ws, wss, as far as this build provides them.
#pragma once

#include "corvane/socketoptions.h"

namespace net {

class IChannelFactory;

void registerBuiltinTransports(IChannelFactory & factory, const SocketOptions & options);

}  // namespace net
