#include "tunnel/tunnelendpoint.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "common/logging.h"
#include "socketio/selectreactor.h"
#include "tunnel/tunnelstore.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.TunnelEndPoint");
// One line per tunnel connection when it ends, in a category of its own so that a host can
// keep it while the per-channel lines stay quiet.
const log4cxx::LoggerPtr connectionLogger = Common::GetLogger("corvane.net.TunnelConnection");

// How an end ended on an error of its channel. A TCP channel reports onError right after
// its failed recv, so errno still names the cause; other transports may leave it stale.
std::string errorText(int error, const char * side) {
    if (error == ECONNRESET) {
        return std::string("reset by ") + side;
    }
    if (error != 0 && error != EAGAIN && error != EINTR) {
        return std::string("error on the ") + side + "'s side: " + std::strerror(error);
    }
    return std::string("error on the ") + side + "'s side";
}

// One stream call moves at most this much: the streams count in int.
constexpr std::uint32_t kMaxStreamCall = INT_MAX;

// Reactor thread: the reactor asks the mask of `channel` again before its next wait. A ring
// changes the other channel's wish to write (bytes for it) or to read (room again), and the
// reactor asks only the channels that had events, and the ones named here.
void interestMayHaveChanged(IChannel * channel, IReactor * fallback) {
    if (channel == nullptr) {
        return;
    }
    if (auto * subscriber = dynamic_cast<socketio::ISelectEventSubscriber *>(channel)) {
        if (socketio::SelectReactor * reactor = subscriber->getReactor()) {
            reactor->interestChanged(subscriber);
        }
        return;
    }
    // A channel layered on another (WebSocket over a proxy's channel): every mask is asked.
    if (auto * reactor = dynamic_cast<socketio::SelectReactor *>(fallback)) {
        reactor->wakeUp();
    }
}
}  // namespace

TunnelEndPoint::TunnelEndPoint(SmartLock * lock, TunnelStore * store, IChannel * channel, unsigned int bufferSize)
    : TunnelEndPoint(lock, store, bufferSize) {
    m_accepted = true;
    setChannel(channel);
}

TunnelEndPoint::TunnelEndPoint(SmartLock * lock, TunnelStore * store, unsigned int bufferSize)
    : m_lock(lock),
      m_store(store),
      m_closed(false),
      m_bufferSize(bufferSize),
      m_buffer(nullptr),
      m_bufferEnd(nullptr),
      m_readPos(nullptr),
      m_writePos(nullptr),
      m_filled(0),
      m_free(0),
      m_peerForPoll(nullptr),
      m_description("{Not fully initialized TunnelEndpoint}") {}

TunnelEndPoint::~TunnelEndPoint() {
    LOG4CXX_TRACE(logger, "dtor[" << m_description << "]");
    std::free(m_buffer);
}

void TunnelEndPoint::setPeer_i(TunnelEndPoint * peer) {
    m_peer = peer;
    m_peerForPoll.store(peer);
}

bool TunnelEndPoint::JoinPair(TunnelEndPoint * first, TunnelEndPoint * second) {
    Common::ScopedLock guard(&first->m_lock->m_lock);
    if (second->m_closed.load()) {
        return false;
    }
    second->setPeer_i(first);
    first->setPeer_i(second);
    return true;
}

IReactor * TunnelEndPoint::storeReactor() const {
    return m_store ? m_store->getReactor() : nullptr;
}

std::string TunnelEndPoint::lockedDescription() {
    Common::ScopedLock guard(&m_lock->m_lock);
    return m_description;
}

bool TunnelEndPoint::hasPendingWrite() {
    TunnelEndPoint * peer = m_peerForPoll.load();
    return peer != nullptr && peer->m_filled.load(std::memory_order_relaxed) > 0;
}

bool TunnelEndPoint::wantsRead() {
    // A closed end point still reads, so that its channel's read path finds the end. A ring of
    // 0 bytes reads until its first data, so that a client that leaves at once is seen.
    if (m_closed.load()) {
        return true;
    }
    if (m_bufferSize == 0) {
        return !m_zeroRingStalled.load();
    }
    return m_filled.load(std::memory_order_relaxed) < m_bufferSize;
}

void TunnelEndPoint::onRead(IReadDataStream * stream) {
    if (m_closed.load()) {
        return;
    }
    bool allocationFailed = false;
    bool sendFailed = false;
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        // Logged under the lock: the outgoing end point gets its description from setChannel on
        // the creator thread, possibly while its channel already delivers events.
        LOG4CXX_TRACE(logger, "onRead[" << m_description << "]");
        if (m_closed.load()) {
            return;
        }
        if (m_buffer == nullptr && m_bufferSize > 0) {
            // The ring comes into being with the first read: an idle direction costs no memory.
            allocationFailed = !resizeRing_i(m_bufferSize < kInitialRing ? m_bufferSize : kInitialRing);
        } else if (m_free == 0 && m_capacity < m_bufferSize) {
            // The direction stays full: the ring grows toward its most. The channel goes on
            // asking to read until then, so where no memory comes the tunnel ends as it would
            // without a first ring.
            m_fullSinceEmpty = true;
            allocationFailed = !resizeRing_i(m_capacity > m_bufferSize / 2 ? m_bufferSize : m_capacity * 2);
        }
        if (!allocationFailed) {
            if (m_free == 0) {
                m_fullSinceEmpty = true;
                if (m_bufferSize == 0) {
                    m_zeroRingStalled.store(true);
                }
                return;
            }
            std::uint32_t length = m_free;
            if (static_cast<std::size_t>(m_bufferEnd - m_writePos) < length) {
                length = static_cast<std::uint32_t>(m_bufferEnd - m_writePos);
            }
            if (length > kMaxStreamCall) {
                length = kMaxStreamCall;
            }
            int received = stream->recv(static_cast<int>(length), m_writePos);
            // A negative result (nothing to read, or a failure that ends the channel anyway)
            // moves nothing: applied as it stood it would wrap the counters and let onWrite
            // read outside the ring.
            if (received <= 0) {
                return;
            }
            const auto moved = static_cast<std::uint32_t>(received);
            m_free -= moved;
            m_filled.fetch_add(moved, std::memory_order_relaxed);
            m_writePos += moved;
            if (m_writePos == m_bufferEnd) {
                m_writePos = m_buffer;
            }
            if (m_free == 0) {
                m_fullSinceEmpty = true;
            }
            // Forwarded at once where the peer's channel takes it: waiting for the peer's
            // onWrite would cost a whole reactor cycle per direction.
            if (m_peer && m_peer->m_channel) {
                sendFailed = m_peer->sendFromPeerRing_i(m_peer->m_channel->getWriteDataStream()) < 0;
                if (!sendFailed && m_filled.load(std::memory_order_relaxed) > 0) {
                    // What the peer's channel did not take waits for its onWrite.
                    interestMayHaveChanged(m_peer->m_channel.get(), storeReactor());
                }
            }
            if (!sendFailed) {
                return;
            }
        }
    }
    if (sendFailed) {
        LOG4CXX_INFO(logger, "onRead[" << lockedDescription() << "]: send failed, closing the tunnel");
    } else {
        LOG4CXX_ERROR(logger, "onRead[" << lockedDescription() << "]: cannot allocate a ring of " << m_bufferSize
                                        << " bytes, closing the tunnel");
    }
    close();
}

bool TunnelEndPoint::resizeRing_i(std::uint32_t capacity) {
    auto * buffer = static_cast<char *>(std::malloc(capacity));
    if (buffer == nullptr) {
        return false;
    }
    const std::uint32_t filled = m_filled.load(std::memory_order_relaxed);
    if (filled > 0) {
        const auto first = static_cast<std::uint32_t>(m_bufferEnd - m_readPos) < filled
                               ? static_cast<std::uint32_t>(m_bufferEnd - m_readPos)
                               : filled;
        std::memcpy(buffer, m_readPos, first);
        std::memcpy(buffer + first, m_buffer, filled - first);
    }
    std::free(m_buffer);
    m_buffer = buffer;
    m_capacity = capacity;
    m_bufferEnd = buffer + capacity;
    m_readPos = buffer;
    m_writePos = filled == capacity ? buffer : buffer + filled;
    m_free = capacity - filled;
    return true;
}

void TunnelEndPoint::ringEmptied_i() {
    if (m_capacity > kInitialRing && (!m_fullSinceEmpty || m_inputEnded)) {
        // Its burst is over: the next read starts a small ring again.
        std::free(m_buffer);
        m_buffer = nullptr;
        m_bufferEnd = nullptr;
        m_capacity = 0;
        m_free = 0;
    }
    m_readPos = m_buffer;
    m_writePos = m_buffer;
    m_fullSinceEmpty = false;
}

int TunnelEndPoint::sendFromPeerRing_i(IWriteDataStream * stream) {
    TunnelEndPoint * peer = m_peer.get();
    if (peer == nullptr) {
        return 0;
    }
    std::uint32_t length = peer->m_filled.load(std::memory_order_relaxed);
    if (length == 0) {
        return 0;
    }
    if (static_cast<std::size_t>(peer->m_bufferEnd - peer->m_readPos) < length) {
        length = static_cast<std::uint32_t>(peer->m_bufferEnd - peer->m_readPos);
    }
    if (length > kMaxStreamCall) {
        length = kMaxStreamCall;
    }
    const bool wasFull = peer->m_filled.load(std::memory_order_relaxed) >= peer->m_bufferSize;
    int sent;
    try {
        sent = stream->send(static_cast<int>(length), peer->m_readPos);
    } catch (const std::exception &) {
        // A WebSocket channel's send throws when its socket fails; here, inside a callback
        // that must not throw, that is a failed send like any other. Its text is logged where
        // it was thrown.
        sent = -1;
    }
    // 0: the stream would block, retry on the next onWrite.
    if (sent > 0) {
        const auto moved = static_cast<std::uint32_t>(sent);
        m_sent += moved;
        peer->m_filled.fetch_sub(moved, std::memory_order_relaxed);
        peer->m_free += moved;
        peer->m_readPos += moved;
        if (peer->m_readPos == peer->m_bufferEnd) {
            peer->m_readPos = peer->m_buffer;
        }
        if (peer->m_filled.load(std::memory_order_relaxed) == 0) {
            peer->ringEmptied_i();
        }
        if (wasFull) {
            // The peer's channel stopped reading while its ring was full: it has room again.
            interestMayHaveChanged(peer->m_channel.get(), storeReactor());
        }
    }
    return sent;
}

void TunnelEndPoint::onWrite(IWriteDataStream * stream) {
    {
        bool ending = false;
        {
            Common::ScopedLock guard(&m_lock->m_lock);
            LOG4CXX_TRACE(logger, "onWrite[" << m_description << "]");
            if (m_channelGone) {
                return;
            }
            const int sent = sendFromPeerRing_i(stream);
            if (sent >= 0) {
                // The last bytes of a direction that has ended: its end follows them.
                ending = sent > 0 && m_peer && m_peer->m_inputEnded && advance_i();
                if (!ending) {
                    return;
                }
            }
        }
        if (ending) {
            close();
            return;
        }
    }
    // Negative: the connection failed. With the own ring full the read path, which would find
    // the end, is not asked any more, so the tunnel ends here, as it would on a read error.
    // The connection's end line tells of it at INFO.
    LOG4CXX_DEBUG(logger, "onWrite[" << lockedDescription() << "]: send failed, closing the tunnel");
    close(m_accepted ? "send to the client failed" : "send to the target failed");
}

bool TunnelEndPoint::detach_i(Detached & detached, const std::string & how) {
    if (m_closed.load()) {
        return false;
    }
    m_closed.store(true);
    recordEnd_i(how);
    detached.channel = std::move(m_channel);
    detached.peer = m_peer;
    setPeer_i(nullptr);
    if (detached.peer) {
        detached.peer->setPeer_i(nullptr);
    }
    detached.store = std::move(m_store);
    if (detached.store) {
        detached.store->removeTunnel(this);
    }
    return true;
}

void TunnelEndPoint::onClose() {
    if (m_closed.load()) {
        return;
    }
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        LOG4CXX_INFO(logger, "onClose[" << m_description << "]");
    }
    channelGone();
}

void TunnelEndPoint::onError() {
    const int error = errno;
    LOG4CXX_INFO(logger, "onError[" << lockedDescription() << "]");
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        if (!m_closed.load()) {
            noteEnd_i(errorText(error, m_accepted ? "client" : "target"));
        }
    }
    onClose();
}

void TunnelEndPoint::channelGone() {
    // Closing may drop the last reference but this one.
    Common::SmartPtr<TunnelEndPoint> keep(this);
    // The channel is not closed here: it is what reported the end. Its reference goes only
    // outside the shared lock.
    Common::SmartPtr<IChannel> gone;
    bool ending = false;
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        if (m_closed.load()) {
            return;
        }
        noteEnd_i(m_accepted ? "closed by the client" : "closed by the target");
        m_inputEnded = true;
        m_channelGone = true;
        gone = std::move(m_channel);
        ending = advance_i();
    }
    if (ending) {
        close();
    }
}

bool TunnelEndPoint::onReadEnd() {
    Common::SmartPtr<TunnelEndPoint> keep(this);
    bool ending = false;
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        LOG4CXX_DEBUG(logger, "onReadEnd[" << m_description << "]");
        if (m_closed.load()) {
            return true;
        }
        noteEnd_i(m_accepted ? "closed by the client" : "closed by the target");
        m_inputEnded = true;
        ending = advance_i();
    }
    if (ending) {
        close();
    }
    return true;
}

void TunnelEndPoint::noteEnd_i(const std::string & how) {
    if (m_lock->m_record.how.empty()) {
        m_lock->m_record.how = how;
    }
}

namespace {
bool delivered(bool inputEnded, std::uint32_t filled) {
    return inputEnded && filled == 0;
}
}  // namespace

bool TunnelEndPoint::forwardEnd_i(TunnelEndPoint & from, TunnelEndPoint & to) {
    if (!delivered(from.m_inputEnded, from.m_filled.load(std::memory_order_relaxed))) {
        return true;
    }
    if (from.m_channelGone) {
        // What `to` holds for `from` can go nowhere.
        return false;
    }
    if (!to.m_channel || to.m_outputShut) {
        // `to` ended already (its own ring decides), or its end was passed on before.
        return true;
    }
    auto * halfClose = dynamic_cast<socketio::IHalfClose *>(to.m_channel.get());
    if (halfClose == nullptr || !halfClose->shutdownWrite()) {
        return false;
    }
    to.m_outputShut = true;
    return true;
}

bool TunnelEndPoint::advance_i() {
    if (m_closed.load()) {
        return false;
    }
    if (!advanceEnds_i()) {
        return false;
    }
    // An orderly end: what the kernels still hold for each side goes out before the end.
    for (TunnelEndPoint * end : {this, m_peer.get()}) {
        if (end != nullptr && end->m_channel && !end->m_outputShut) {
            if (auto * halfClose = dynamic_cast<socketio::IHalfClose *>(end->m_channel.get())) {
                halfClose->shutdownWrite();
            }
            end->m_outputShut = true;
        }
    }
    return true;
}

bool TunnelEndPoint::advanceEnds_i() {
    TunnelEndPoint * peer = m_peer.get();
    if (peer == nullptr) {
        // Not joined yet: the ring waits for the target's channel, unless it has nothing for it
        // or a tunnel without rings could carry nothing anyway.
        return m_inputEnded && (m_bufferSize == 0 || (m_channelGone && m_filled.load() == 0));
    }
    if (m_bufferSize == 0 && (m_inputEnded || peer->m_inputEnded)) {
        return true;
    }
    if (delivered(m_inputEnded, m_filled.load()) && delivered(peer->m_inputEnded, peer->m_filled.load())) {
        return true;
    }
    return !forwardEnd_i(*this, *peer) || !forwardEnd_i(*peer, *this);
}

bool TunnelEndPoint::afterJoin() {
    Common::ScopedLock guard(&m_lock->m_lock);
    return m_closed.load() || advance_i();
}

bool TunnelEndPoint::sendWhatWaits() {
    Common::ScopedLock guard(&m_lock->m_lock);
    if (m_closed.load() || !m_channel || !m_peer) {
        return true;
    }
    // A client that has ended already: its end follows the bytes in the reactor's onWrite.
    if (!m_peer->m_inputEnded && sendFromPeerRing_i(m_channel->getWriteDataStream()) < 0) {
        return false;
    }
    // Both channels' masks were read with nothing to write (no peer yet): each is named where
    // the other side's ring holds bytes for it now, what the target sent before the join too.
    if (m_peer->m_filled.load(std::memory_order_relaxed) > 0 || m_peer->m_inputEnded) {
        interestMayHaveChanged(m_channel.get(), storeReactor());
    }
    if (m_filled.load(std::memory_order_relaxed) > 0 || m_inputEnded) {
        interestMayHaveChanged(m_peer->m_channel.get(), storeReactor());
    }
    return true;
}

void TunnelEndPoint::closeFailedConnect(const std::string & targetURI, const std::string & failure) {
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        SmartLock::Record & record = m_lock->m_record;
        if (record.targetURI.empty()) {
            record.targetURI = targetURI;
        }
        if (record.how.empty()) {
            record.how = "connect to the target failed: " + failure;
        }
    }
    close();
}

void TunnelEndPoint::recordEnd_i(const std::string & how) {
    SmartLock::Record & record = m_lock->m_record;
    if (record.how.empty()) {
        record.how = how;
    }
    if (m_accepted) {
        record.listenURI = m_localURI;
        record.clientURI = m_peerURI;
        record.toClient = m_sent;
    } else {
        if (!m_peerURI.empty()) {
            record.targetURI = m_peerURI;
        }
        record.toTarget = m_sent;
    }
    if (m_counted) {
        m_counted = false;
        --record.openEnds;
    }
    if (record.openEnds > 0 || record.logged) {
        return;
    }
    record.logged = true;
    if (!connectionLogger->isInfoEnabled()) {
        return;
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - record.started).count();
    char duration[32];
    std::snprintf(duration, sizeof duration, "%.3f", seconds);
    LOG4CXX_INFO(connectionLogger, "connection from " << record.clientURI << " on " << record.listenURI << " to "
                                                      << (record.targetURI.empty() ? "(none)" : record.targetURI)
                                                      << " ended after " << duration << " s: " << record.toTarget
                                                      << " bytes to the target, " << record.toClient
                                                      << " bytes to the client, " << record.how);
}

void TunnelEndPoint::close(const char * how) {
    Common::SmartPtr<TunnelEndPoint> keep(this);
    Detached detached;
    {
        Common::ScopedLock guard(&m_lock->m_lock);
        LOG4CXX_TRACE(logger, "close[" << m_description << "]()");
        if (!detach_i(detached, how != nullptr ? how : "closed by the host")) {
            return;
        }
    }
    // Outside the lock: closing a channel may call onClose back on this end point, and the
    // peer's close takes the same shared lock. The peer's m_peer is already null, so the
    // recursion stops there.
    if (detached.channel) {
        detached.channel->close();
    }
    if (detached.peer) {
        detached.peer->close();
    }
}

void TunnelEndPoint::setChannel(IChannel * channel) {
    Common::ScopedLock guard(&m_lock->m_lock);
    m_channel = channel;
    // Counted while it has a channel and is open: the line follows when the last one closes.
    if (channel != nullptr && !m_counted && !m_closed.load()) {
        m_counted = true;
        ++m_lock->m_record.openEnds;
    } else if (channel == nullptr && m_counted) {
        m_counted = false;
        --m_lock->m_record.openEnds;
    }
    if (channel != nullptr) {
        m_localURI = channel->getLocalURI();
        m_peerURI = channel->getPeerURI();
        m_description = "{TunnelEndPoint, " + m_localURI + " <-> " + m_peerURI + "}";
    }
    LOG4CXX_TRACE(logger, "setChannel[" << m_description << "]");
}

}  // namespace net
