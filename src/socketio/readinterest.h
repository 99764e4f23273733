// socketio::IReadInterest: the channels' name for the host's back-pressure interface,
// net::IReadInterest (corvane/channel.h), which also serves the library's own handlers (a
// tunnel end point whose ring is full, a WebSocket channel whose inner channel is busy). A
// channel leaves read events out of its mask while its handler answers false.
#pragma once

#include "corvane/channel.h"

namespace socketio {

using IReadInterest = net::IReadInterest;

}  // namespace socketio
