// socketio::IHalfClose and socketio::IReadEnd: the optional, internal faces through which a
// channel and its handler carry a half-closed connection (one direction ended in order, the
// other still flowing), as a tunnel needs for clients that shut down their sending side and
// then wait for the reply. A channel looks for IReadEnd once, when its handler is set; a
// handler looks for IHalfClose on the channel it writes to. Without them a peer's end is an
// onClose, as always.
#pragma once

namespace socketio {

// Implemented by channels whose transport can end one direction: TCP (shutdown(2) SHUT_WR)
// and TLS (close_notify, RFC 8446 section 6.1, reading goes on).
class IHalfClose {
public:
    // Reactor thread, called by the channel's handler or its tunnel peer. Ends the sending
    // direction after everything sent so far; reads go on. False when the channel is closed
    // or its transport cannot end one direction: the caller then ends the whole channel.
    virtual bool shutdownWrite() = 0;

protected:
    ~IHalfClose() = default;
};

// Implemented by handlers that can live with a peer that has stopped sending.
class IReadEnd {
public:
    // Reactor thread, in place of onClose, when the peer ended its sending direction in order
    // (FIN, close_notify). True: the channel stays open for writing and asks for no more reads;
    // the handler closes it when it is done with it. False: the channel ends with onClose.
    virtual bool onReadEnd() = 0;

protected:
    ~IReadEnd() = default;
};

}  // namespace socketio
