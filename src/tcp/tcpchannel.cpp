#include "tcp/tcpchannel.h"

#include <sys/ioctl.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>

#include "common/logging.h"
#include "tcp/tcpchannelserver.h"
#include "socketio/socketexception.h"
#include "socketio/socketfunctions.h"

namespace tcp {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tcp.TCPChannel");

// A failed connection is logged once: a handler that keeps sending into it must not fill a disk.
int errorOrContinue(std::atomic<bool> & failureLogged) {
    int error = errno;
    if (error == EAGAIN || error == EWOULDBLOCK) {
        LOG4CXX_TRACE(logger, "send: ==> EWOULDBLOCK ");
        return 0;
    }
    if (!failureLogged.exchange(true)) {
        LOG4CXX_ERROR(logger, "send: failed with error code '" << error << "' : " << socketio::SystemErrorText(error));
    }
    return -1;
}
}  // namespace

TCPChannel::TCPChannel(unsigned int socket, socketio::SelectReactor * home, const net::URI * peer,
                       const net::URI * local, bool nonBlocking)
    : m_socket(socket),
      m_readInterest(nullptr),
      m_readEnd(nullptr),
      m_readEnded(false),
      m_homeReactor(home),
      m_lastEventTime(0),
      m_sendFailureLogged(false),
      m_closedByOwner(false),
      m_handlerReleased(false) {
    if (!nonBlocking) {
        // One call that sets only the non-blocking flag, without reading the others first.
        int on = 1;
        ioctl(static_cast<int>(socket), FIONBIO, &on);
    }
    m_localURI = (local != nullptr ? *local : socketio::SocketLocalURI(socket, true, "tcp")).ToString();
    m_peerURI = (peer != nullptr ? *peer : socketio::SocketPeerURI(socket, "tcp")).ToString();
    m_description = m_localURI + " <-> " + m_peerURI;
}

TCPChannel::~TCPChannel() = default;

void TCPChannel::close() {
    LOG4CXX_INFO(logger, "close[" << m_description << "]()");
    m_closedByOwner = true;
    socketio::CloseSubscriber(this, m_reactor, m_homeReactor.get(), m_socket);
    // The reactor is done with the channel: it lets go of its handler, so that a channel kept
    // for a while longer (the hand-over to openChannel's caller) keeps no handler alive. Two
    // threads may close at once (a layered channel's failure on its reactor and its owner):
    // one of them lets go.
    if (!m_handlerReleased.exchange(true)) {
        setChannelHandler(nullptr);
    }
}

void TCPChannel::setChannelHandler(net::IChannelHandler * handler) {
    LOG4CXX_TRACE(logger, "setChannelHandler");
    // The previous handler is released after the lock, so that its destructor runs unlocked.
    Common::SmartPtr<net::IChannelHandler> previous;
    // Under the reactor's lock, where the reactor asks the handler for the mask; and an
    // accepted channel's server hands it its handler on the reactor thread while a creator
    // thread may already close it (a tunnel whose target failed at once).
    socketio::SelectReactor::ForeignThreadGuard guard(m_homeReactor.get());
    previous = std::move(m_channelHandler);
    m_channelHandler = handler;
    m_readInterest = dynamic_cast<socketio::IReadInterest *>(handler);
    m_readEnd = dynamic_cast<socketio::IReadEnd *>(handler);
    m_interestAnnounced.store(dynamic_cast<socketio::IAnnouncedInterest *>(handler) != nullptr);
}

short TCPChannel::getEventMask() noexcept {
    if (!m_channelHandler) {
        return socketio::SELECT_EVENT_READ;
    }
    if (m_handlerFailed) {
        return socketio::SELECT_EVENT_PENDING;
    }
    short mask = 0;
    try {
        if (!m_readEnded && (m_readInterest == nullptr || m_readInterest->wantsRead())) {
            mask |= socketio::SELECT_EVENT_READ;
        }
        if (m_channelHandler->hasPendingWrite()) {
            mask |= socketio::SELECT_EVENT_WRITE;
        }
    } catch (const std::exception & e) {
        LOG4CXX_ERROR(logger, "exception caught in a handler of [" << m_description << "]: " << e.what());
        m_handlerFailed = true;
    } catch (...) {
        LOG4CXX_ERROR(logger, "unknown exception caught in a handler of [" << m_description << "]");
        m_handlerFailed = true;
    }
    // A handler that failed is not asked again: the event that follows at once ends the channel.
    return m_handlerFailed ? socketio::SELECT_EVENT_PENDING : mask;
}

bool TCPChannel::onEvents(const short & events, const std::uint64_t & now) noexcept {
    m_lastEventTime = now;
    if (m_closedByOwner.load()) {
        return false;
    }
    // A setChannelHandler or close from inside a callback must not destroy the running handler.
    Common::SmartPtr<net::IChannelHandler> handler = m_channelHandler;
    if (m_handlerFailed) {
        // It failed while asked for its mask: it hears of the end as of any failed connection.
        if (handler) {
            TellHandlerOfFailure(handler.get());
        }
        return false;
    }
    bool ending = false;  // onClose or onError has been called: it was the handler's last call
    try {
        if ((events & socketio::SELECT_EVENT_READ) != 0 && !m_readEnded) {
            // The handler hears onClose, not an onRead that finds nothing, at the peer's end:
            // where the wait saw only data, no look ahead is needed (one recv per event).
            ssize_t peeked = 1;
            if ((events & socketio::SELECT_EVENT_DATA) == 0) {
                char byte;
                peeked = ::recv(static_cast<int>(m_socket), &byte, 1, MSG_PEEK);
            }
            // Nothing there any more (read since the wait): no news for the handler.
            const bool drained = peeked < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
            if (peeked <= 0 && !drained) {
                ending = true;
            }
            if (peeked == 0 && m_readEnd != nullptr && handler.get() == m_channelHandler.get() &&
                m_readEnd->onReadEnd()) {
                // Half-closed: the handler still writes, and closes the channel when done.
                ending = false;
                m_readEnded = true;
                peeked = 1;
            } else if (peeked == 0) {
                handler->onClose();
                return false;
            }
            if (peeked < 0 && !drained) {
                // Every failure ends the channel, a socket closed by the reactor's sweep included.
                handler->onError();
                return false;
            }
            if (!m_readEnded && !drained) {
                handler->onRead(this);
            }
        }
        if ((events & socketio::SELECT_EVENT_WRITE) != 0) {
            handler->onWrite(this);
        }
    } catch (const std::exception & e) {
        // A handler's failure (a send on another channel that threw, say) ends this channel
        // only, never the process; the handler hears of the end as of any failed connection.
        LOG4CXX_ERROR(logger, "exception caught in a handler of [" << m_description << "]: " << e.what());
        if (!ending) {
            TellHandlerOfFailure(handler.get());
        }
        return false;
    } catch (...) {
        LOG4CXX_ERROR(logger, "unknown exception caught in a handler of [" << m_description << "]");
        if (!ending) {
            TellHandlerOfFailure(handler.get());
        }
        return false;
    }
    return true;
}

void TCPChannel::setReactor(socketio::SelectReactor * reactor, const std::uint64_t & now) {
    m_reactor = reactor;
    if (reactor != nullptr && !m_homeReactor) {
        m_homeReactor = reactor;
    }
    m_lastEventTime = now;
}

int TCPChannel::recv(int length, void * buffer) {
    return static_cast<int>(::recv(static_cast<int>(m_socket), buffer, static_cast<size_t>(length), 0));
}

int TCPChannel::send(int length, const void * buffer) {
    std::lock_guard<std::mutex> guard(m_socketLock);
    if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
        // What the system answers for the invalid handle, without asking it.
        errno = EBADF;
        return errorOrContinue(m_sendFailureLogged);
    }
    // MSG_NOSIGNAL: a peer that has gone must never kill the host with SIGPIPE.
    ssize_t sent = ::send(static_cast<int>(m_socket), buffer, static_cast<size_t>(length), MSG_NOSIGNAL);
    return sent >= 0 ? static_cast<int>(sent) : errorOrContinue(m_sendFailureLogged);
}

bool TCPChannel::shutdownWrite() {
    std::lock_guard<std::mutex> guard(m_socketLock);
    if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
        return false;
    }
    // The abortive linger of the socket options would drop what the kernel still holds for
    // the peer at the close that follows: an ended direction is delivered whole.
    if (m_abortiveLinger) {
        struct linger orderly{0, 0};
        ::setsockopt(static_cast<int>(m_socket), SOL_SOCKET, SO_LINGER, &orderly, sizeof orderly);
    }
    return ::shutdown(static_cast<int>(m_socket), SHUT_WR) == 0;
}

void TCPChannel::closeSocket() {
    std::lock_guard<std::mutex> guard(m_socketLock);
    ISelectEventSubscriber::closeSocket();
}

}  // namespace tcp
