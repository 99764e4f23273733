// The event mask that travels between the reactor and its subscribers. The values are
// part of the contract: every subscriber and the reactor use them as numbers.
#pragma once

namespace socketio {

constexpr short SELECT_EVENT_READ = 1;
constexpr short SELECT_EVENT_EXCEPT = 2;
constexpr short SELECT_EVENT_WRITE = 4;
// Work that does not depend on the socket: an event is delivered after the next wait
// even when the socket stays silent.
constexpr short SELECT_EVENT_PENDING = 16;

}  // namespace socketio
