// socketio::IReadInterest: an optional, internal face of a channel handler that can run out
// of room (a tunnel end point whose ring is full, an echo handler with output still queued).
// A channel looks for it once, when its handler is set, and leaves read events out of its
// mask while the handler answers false, so that the reactor does not wake again and again
// for bytes nobody will take. A handler without it is asked for reads as always.
#pragma once

namespace socketio {

class IReadInterest {
public:
    // Reactor thread, asked from the channel's getEventMask with the reactor's lock held:
    // cheap, never blocking. False while the handler cannot take more bytes; the reactor asks
    // again in its next cycle, which follows every dispatch.
    virtual bool wantsRead() = 0;

protected:
    ~IReadInterest() = default;
};

}  // namespace socketio
