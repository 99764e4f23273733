// socketio::ISelectEventSubscriber: the contract between a socket-owning transport object
// (channel or channel server) and the select reactor. Internal: a host never sees it.
// Every operation runs on the reactor thread.
#pragma once

#include <cstdint>

#include "corvane/eventmask.h"
#include "corvane/refcnt.h"

namespace socketio {

class SelectReactor;

// Given with SELECT_EVENT_READ when the wait saw bytes to read and neither the peer's end nor
// an error: a read path that must tell an end from data needs no look of its own then.
constexpr short SELECT_EVENT_DATA = 64;

class ISelectEventSubscriber : public virtual Common::IRefCnt {
public:
    // The events wanted for the coming wait; runs with the reactor's lock held.
    virtual short getEventMask() noexcept = 0;
    // `events` as observed; `now` is the tick of this dispatch. False tells the reactor to
    // close the socket and drop the subscriber. The library's subscribers declare their
    // overrides noexcept; the interface leaves it open so that the reactor's guard against a
    // subscriber that throws anyway (it logs, closes and drops that one) stays reachable.
    virtual bool onEvents(const short & events, const std::uint64_t & now) = 0;
    // Read on the reactor thread, or under the reactor's lock (SelectReactor::ForeignThreadGuard).
    virtual unsigned int & getSocket() = 0;
    // The one way the descriptor is closed, by the reactor or by the owner's close(): closes it
    // once and stores the invalid handle, under the reactor's lock. A subscriber that uses the
    // number on other threads as well (a host thread's send) overrides it to exclude that use.
    virtual void closeSocket();
    virtual SelectReactor * getReactor() const = 0;
    // Added (reactor set, now the tick) or removed (null, 0). The subscriber keeps a
    // counted reference to the reactor and takes `now` as its last event time.
    virtual void setReactor(SelectReactor * reactor, const std::uint64_t & now) = 0;
    // The tick of the latest onEvents or setReactor; 0 exempts it from the dead-socket sweep.
    virtual std::uint64_t getLastEventTime() const = 0;
    // Any thread: true while every change of this subscriber's mask is made on the reactor
    // thread or followed by interestChanged or wakeUp. The reactor then leaves it out of its
    // re-asking of every mask once per wait time-out, which serves the others.
    virtual bool interestAnnounced() const { return false; }
};

// Implemented by the library's own channel handlers whose wishes (hasPendingWrite, wantsRead)
// change only on their channel's reactor thread, or elsewhere followed by interestChanged or
// wakeUp (a tunnel end point): a channel with such a handler answers interestAnnounced.
class IAnnouncedInterest {
protected:
    ~IAnnouncedInterest() = default;
};

// The invalid socket handle: all bits set.
constexpr unsigned int INVALID_SOCKET_HANDLE = ~0u;

}  // namespace socketio
