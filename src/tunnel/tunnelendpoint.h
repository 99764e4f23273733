// net::TunnelEndPoint: the handler of one channel of a tunnel and one half of its data pump.
// Its ring holds what its own channel has read and the peer's channel has not yet written.
// An end of either side is delivered before it is passed on: what the ring holds goes out
// first, then the other side's sending direction is shut down where its transport can (TCP,
// TLS) and the other direction flows on; the tunnel ends when both directions have ended, or
// at once when a send fails.
// Kept alive by its channel (as handler), the store's map and its peer; closing drops all three.
// Callbacks run on the reactor thread, close() on any thread, setChannel and the join on the
// creator thread (on the reactor thread where DirectConnect opened the target's connection).
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "common/lock.h"
#include "corvane/channel.h"
#include "socketio/halfclose.h"
#include "socketio/iselecteventsubscriber.h"
#include "socketio/readinterest.h"

namespace net {

class TunnelStore;

class TunnelEndPoint : public IChannelHandler,
                       public socketio::IReadInterest,
                       public socketio::IReadEnd,
                       public socketio::IAnnouncedInterest {
public:
    // One per tunnel, shared by both end points: it guards both rings, both peer pointers,
    // both channel references and both closed flags, so that no peer is ever half gone.
    // It also keeps the record of the connection for the one line logged when it ends.
    class SmartLock : public Common::IRefCnt {
    public:
        struct Record {
            int openEnds = 0;  // end points with a channel that have not closed yet
            bool logged = false;
            std::string how;   // how it ended, as the first end to close saw it
            std::string listenURI;
            std::string clientURI;
            std::string targetURI;
            std::uint64_t toTarget = 0;
            std::uint64_t toClient = 0;
            std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
        };
        Common::Lock m_lock;
        Record m_record;  // GUARDED_BY(m_lock)
    };

    // For an accepted channel: the description is known at once.
    TunnelEndPoint(SmartLock * lock, TunnelStore * store, IChannel * channel, unsigned int bufferSize);
    // For an outgoing channel: setChannel follows once openChannel has returned.
    TunnelEndPoint(SmartLock * lock, TunnelStore * store, unsigned int bufferSize);
    // Frees the ring; closes nothing.
    ~TunnelEndPoint() override;

    // Reactor thread, with the reactor's lock held: takes no lock of its own. True when the
    // peer's ring holds bytes for this end point's channel.
    bool hasPendingWrite() override;
    // Reactor thread, with the reactor's lock held: false while the own ring is full, so
    // that the channel stops asking for reads until the peer's onWrite makes room.
    bool wantsRead() override;
    // Reactor thread. One recv into the contiguous free stretch of the own ring. A full ring
    // reads nothing: the bytes stay in the transport, which is the whole back-pressure.
    void onRead(IReadDataStream * stream) override;
    // Reactor thread. One send from the contiguous filled stretch of the peer's ring; what the
    // stream does not take stays at the read position for the next onWrite.
    void onWrite(IWriteDataStream * stream) override;
    // Reactor thread. The own channel ended (an error counts as an end): what the own ring
    // holds still goes to the peer's channel, then the tunnel ends. What the peer's ring holds
    // for the own channel is dropped: nothing can take it any more.
    void onClose() override;
    void onError() override;
    // Reactor thread. The own channel's peer stopped sending: once the own ring is delivered,
    // the peer's channel is shut down for writing (or closed, where its transport cannot).
    // Always true: the tunnel closes the channel itself.
    bool onReadEnd() override;

    // Any thread. Closes the own channel and the peer; harmless when repeated. `how` tells the
    // connection's end line why, when this is the first end to close.
    void close(const char * how = "closed by the host");
    // Creator thread (or DirectConnect's reactor thread): the connection to `targetURI` failed
    // with `failure`; closes the tunnel.
    void closeFailedConnect(const std::string & targetURI, const std::string & failure);
    // Takes the shared lock. Null keeps the texts as they were.
    void setChannel(IChannel * channel);
    const Common::SmartPtr<SmartLock> & getLock() const { return m_lock; }
    // Any thread; takes the shared lock of both (one lock). Joins the two halves of a tunnel:
    // false, and nothing joined, when `second` has already closed.
    static bool JoinPair(TunnelEndPoint * first, TunnelEndPoint * second);
    // Joining thread, after the pair is joined: the ends that came before the join are passed
    // on. True when the tunnel is to end now (the caller closes it).
    bool afterJoin();
    // Joining thread, on the target's end point after afterJoin: what the client sent before
    // the join goes out on this thread; the reactor is asked to look at a channel again only
    // where bytes wait for it. False when the send failed (the caller closes the tunnel).
    bool sendWhatWaits();
    // Fixed once the channel is set; the store reads it as the key of its map.
    const std::string & getDescription() const { return m_description; }

private:
    friend class TunnelStore;  // joins a pair under the shared lock (connectEndpoints)
    friend class TunnelCreatorThread;  // skips the target of a client that has gone
    friend class DirectConnect;        // the same, on the reactor thread

    // Shared lock held: passes on the ends of directions whose rings have been delivered.
    // True when the tunnel is to end now (the caller closes it, outside the lock).
    bool advance_i();
    // advance_i without the shutdown of the ends that goes with an orderly end.
    bool advanceEnds_i();
    // Shared lock held: the direction from `from` to `to` ended and is delivered: shuts down
    // `to`'s sending side. False when the whole tunnel must end instead.
    static bool forwardEnd_i(TunnelEndPoint & from, TunnelEndPoint & to);
    // Shared lock held: the first end of the connection names how it ended.
    void noteEnd_i(const std::string & how);
    // Reactor thread: onClose and onError after their own words.
    void channelGone();

    // With the shared lock held: gives the ring `capacity` bytes, keeping what it holds in
    // order. False when the memory cannot be had (the ring stays as it was).
    bool resizeRing_i(std::uint32_t capacity);
    // With the shared lock held: the ring has just emptied; the next bytes go to its start, so
    // that small messages keep touching the same few pages.
    void ringEmptied_i();
    // With the shared lock held: one send of the peer's ring to `stream` (the own channel's);
    // the send's result.
    int sendFromPeerRing_i(IWriteDataStream * stream);
    // With the shared lock held: keeps m_peer and the pointer read by hasPendingWrite together.
    void setPeer_i(TunnelEndPoint * peer);
    // What an end point lets go of when it closes; released by the caller outside the lock.
    struct Detached {
        Common::SmartPtr<IChannel> channel;
        Common::SmartPtr<TunnelEndPoint> peer;
        Common::SmartPtr<TunnelStore> store;
    };
    // Shared lock held: marks this end closed, unlinks both ends and leaves the store's map.
    // False when it was closed already.
    bool detach_i(Detached & detached, const std::string & how);
    // Shared lock held: adds this end's part to the connection's record and logs its line
    // once the last end with a channel has closed.
    void recordEnd_i(const std::string & how);
    std::string lockedDescription();
    // Shared lock held: the store's reactor, null once this end has left the store.
    IReactor * storeReactor() const;

    Common::SmartPtr<SmartLock> m_lock;
    Common::SmartPtr<TunnelStore> m_store;     // GUARDED_BY(m_lock)
    Common::SmartPtr<TunnelEndPoint> m_peer;   // GUARDED_BY(m_lock)
    Common::SmartPtr<IChannel> m_channel;      // GUARDED_BY(m_lock)
    // Written under m_lock; also read without it as a fast exit of onRead and onClose.
    std::atomic<bool> m_closed;
    // The most a ring may hold. The ring itself starts at kInitialRing bytes (or this, if
    // smaller), doubles while its direction stays full, and is given back once it has emptied
    // without having been full since it last emptied (or once its input has ended): a
    // connection costs what it carries, and a bulk one keeps its large ring.
    const std::uint32_t m_bufferSize;
    static constexpr std::uint32_t kInitialRing = 64 * 1024;
    std::uint32_t m_capacity = 0;              // GUARDED_BY(m_lock): bytes of m_buffer
    bool m_fullSinceEmpty = false;             // GUARDED_BY(m_lock)
    char * m_buffer;                           // GUARDED_BY(m_lock), from malloc
    char * m_bufferEnd;                        // GUARDED_BY(m_lock)
    char * m_readPos;                          // GUARDED_BY(m_lock)
    char * m_writePos;                         // GUARDED_BY(m_lock)
    // Written under m_lock; read without it by the peer's hasPendingWrite.
    std::atomic<std::uint32_t> m_filled;
    std::uint32_t m_free;                      // GUARDED_BY(m_lock)
    // The peer as hasPendingWrite sees it, without the lock. Both channels of a tunnel run on
    // the store's one reactor, whose thread is the one that asks, so the peer cannot go away
    // while it is being asked: its channel, registered with that reactor, holds it.
    std::atomic<TunnelEndPoint *> m_peerForPoll;
    std::string m_localURI;
    std::string m_peerURI;
    std::string m_description;
    bool m_accepted = false;                   // the client's end, not the target's; fixed at construction
    bool m_counted = false;                    // GUARDED_BY(m_lock): in the record's openEnds
    std::uint64_t m_sent = 0;                  // GUARDED_BY(m_lock): bytes written to the own channel
    bool m_inputEnded = false;                 // GUARDED_BY(m_lock): the own channel reads no more
    bool m_channelGone = false;                // GUARDED_BY(m_lock): the own channel ended altogether
    bool m_outputShut = false;                 // GUARDED_BY(m_lock): the own channel's sending side is shut
    // Reactor thread only: a ring of 0 bytes met data it cannot take; reads stop, so that the
    // reactor does not wake for it again and again. Until then the end of the channel is seen.
    std::atomic<bool> m_zeroRingStalled{false};
};

}  // namespace net
