#include "socketio/selectreactor.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "common/logging.h"
#include "common/timedelta.h"
#include "socketio/internalexception.h"
#include "socketio/socketexception.h"
#include "socketio/socketfunctions.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.SelectReactor");

// Readiness that the read path must see: POLLHUP, POLLERR and POLLNVAL make a socket
// readable, so that the channel's recv finds the end or the error.
constexpr short kReadable = POLLIN | POLLHUP | POLLERR | POLLNVAL;
constexpr short kWritable = POLLOUT | POLLHUP | POLLERR;
}  // namespace

SelectReactor::SelectReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout)
    : m_deadSocketTimeout(deadSocketTimeout),
      m_deadSocketCheckInterval(deadSocketCheckInterval),
      m_selectTimeout(selectTimeout),
      m_conditionStarted(&m_lock),
      m_conditionCommand(&m_lock),
      m_conditionDone(&m_lock),
      m_bRunning(false),
      m_hThread(nullptr),
      m_threadId(0),
      m_wakeFd(-1),
      m_bWakePending(false),
      m_bLockHeldByThread(false) {
    LOG4CXX_TRACE(logger, "ctor");
}

SelectReactor::~SelectReactor() {
    LOG4CXX_TRACE(logger, "dtor");
    if (m_hThread != nullptr && !onReactorThread()) {
        stopProcessing();
    }
    if (m_wakeFd >= 0) {
        ::close(m_wakeFd);
    }
}

void SelectReactor::wakeUp() {
    Common::ScopedLock guard(&m_lock);
    wakeUp_i();
}

void SelectReactor::wakeUp_i() {
    // One write per wait is enough: the flag is cleared when the reactor thread drains it.
    if (m_wakeFd < 0 || m_bWakePending) {
        return;
    }
    m_bWakePending = true;
    const std::uint64_t one = 1;
    ssize_t written = ::write(m_wakeFd, &one, sizeof one);
    (void)written;  // only fails when the counter is already non-zero: the wait ends anyway
}

void SelectReactor::drainWakeUp_i() {
    std::uint64_t value;
    ssize_t drained = ::read(m_wakeFd, &value, sizeof value);
    (void)drained;  // EAGAIN: nothing was pending
    m_bWakePending = false;
}

bool SelectReactor::onReactorThread() const {
    return Common::PlatformThread::CurrentId() == m_threadId.load();
}

void SelectReactor::startProcessing() {
    LOG4CXX_TRACE(logger, "startProcessing()");
    Common::ScopedLock guard(&m_lock);
    m_bRunning = true;
    m_threadId = 0;
    if (m_wakeFd < 0) {
        m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        m_bWakePending = false;
        if (m_wakeFd < 0) {
            LOG4CXX_WARN(logger, "no eventfd for waking the reactor (" << SystemErrorText(errno)
                                                                        << "): posted commands wait for the time-out");
        }
    }
    if (!Common::PlatformThread::Create(0, this, &m_hThread)) {
        // pids.max, RLIMIT_NPROC or the address space: nothing would ever signal the start.
        const int error = errno;
        m_bRunning = false;
        m_hThread = nullptr;
        throw InternalException(("cannot start the reactor thread: " + SystemErrorText(error)).c_str(), true);
    }
    while (m_threadId.load() == 0) {
        m_conditionStarted.Wait();
    }
}

void SelectReactor::stopProcessing() {
    LOG4CXX_TRACE(logger, "stopProcessing()");
    {
        Common::ScopedLock guard(&m_lock);
        m_bRunning = false;
        m_conditionCommand.Signal();
        m_conditionDone.Broadcast();
        wakeUp_i();
    }
    if (m_hThread != nullptr) {
        Common::PlatformThread::Join(m_hThread);
    }
    SubscriberList subscribers;
    SubscriberList failed;
    std::vector<Command> commands;
    {
        Common::ScopedLock guard(&m_lock);
        m_hThread = nullptr;
        m_threadId = 0;
        // A stopped reactor holds no descriptor: a channel that outlives its host's references
        // (the hand-over to openChannel's caller) may keep the reactor object for a while.
        if (m_wakeFd >= 0) {
            ::close(m_wakeFd);
            m_wakeFd = -1;
        }
        commands.swap(m_vectorCommand);
        failed.swap(m_vectorFailedSubscriber);
        subscribers.swap(m_vectorSelectEventSubscriber);
    }
    // Released outside the lock, in the same order, so that a destructor that reaches for
    // the reactor cannot deadlock.
    commands.clear();
    failed.clear();
    subscribers.clear();
}

void SelectReactor::registerSubscriber(ISelectEventSubscriber * subscriber) {
    LOG4CXX_TRACE(logger, "registerSubscriber");
    if (onReactorThread()) {
        if (m_bLockHeldByThread) {
            addSubscriber(subscriber, true);
        } else {
            Common::ScopedLock guard(&m_lock);
            addSubscriber(subscriber, true);
        }
        return;
    }
    Common::ScopedLock guard(&m_lock);
    CommandStatus status;
    // The command's own status tells the outcome: the subscriber may already have been taken
    // in and dropped again (a peer that closed at once) before this thread looks.
    const bool done = postAndWait_i(true, subscriber, status);
    if (status.refused) {
        hasFailedSubscriber(subscriber);
        throw InternalException("too many open sockets", true);
    }
    if (!done || !m_bRunning) {
        throw InternalException("select reactor is no longer operational", true);
    }
}

bool SelectReactor::postAndWait_i(bool add, ISelectEventSubscriber * subscriber, CommandStatus & status) {
    m_vectorCommand.push_back(Command{add, subscriber, &status});
    m_conditionCommand.Signal();
    wakeUp_i();
    while (!status.done && m_bRunning) {
        m_conditionDone.Wait();
    }
    if (!status.done) {
        // The poster is told that its command was not carried out, so a later start must not
        // carry it out behind its back (nor touch this frame's status).
        withdrawCommand_i(&status);
    }
    return status.done;
}

void SelectReactor::withdrawCommand_i(const CommandStatus * status) {
    for (auto it = m_vectorCommand.begin(); it != m_vectorCommand.end(); ++it) {
        if (it->status == status) {
            m_vectorCommand.erase(it);
            return;
        }
    }
}

void SelectReactor::unregisterSubscriber(ISelectEventSubscriber * subscriber) {
    LOG4CXX_TRACE(logger, "unregisterSubscriber");
    // Keeps the subscriber alive until this call returns, whoever drops the list's reference.
    Common::SmartPtr<ISelectEventSubscriber> keep(subscriber);
    if (onReactorThread()) {
        if (m_bLockHeldByThread) {
            removeSubscriber(subscriber);
        } else {
            Common::ScopedLock guard(&m_lock);
            removeSubscriber(subscriber);
        }
        return;
    }
    Common::ScopedLock guard(&m_lock);
    CommandStatus status;
    postAndWait_i(false, subscriber, status);
}

bool SelectReactor::hasSubscriber(ISelectEventSubscriber * subscriber) const {
    LOG4CXX_TRACE(logger, "hasSubscriber");
    for (const auto & entry : m_vectorSelectEventSubscriber) {
        if (entry.get() == subscriber) {
            return true;
        }
    }
    return false;
}

bool SelectReactor::hasFailedSubscriber(ISelectEventSubscriber * subscriber) {
    LOG4CXX_TRACE(logger, "hasSubscriber");
    for (auto it = m_vectorFailedSubscriber.begin(); it != m_vectorFailedSubscriber.end(); ++it) {
        if (it->get() == subscriber) {
            m_vectorFailedSubscriber.erase(it);
            return true;
        }
    }
    return false;
}

bool SelectReactor::addSubscriber(ISelectEventSubscriber * subscriber, bool fromReactorThread) {
    LOG4CXX_TRACE(logger, "addSubscriber");
    if (m_vectorSelectEventSubscriber.size() + 1 < kSetCapacity) {
        subscriber->setReactor(this, Common::GetTickCount64());
        m_vectorSelectEventSubscriber.emplace_back(subscriber);
        return true;
    }
    if (fromReactorThread) {
        throw InternalException("too many open sockets", true);
    }
    m_vectorFailedSubscriber.emplace_back(subscriber);
    return false;
}

void SelectReactor::removeSubscriber(ISelectEventSubscriber * subscriber) {
    LOG4CXX_TRACE(logger, "removeSubscriber");
    subscriber->setReactor(nullptr, 0);
    for (auto it = m_vectorSelectEventSubscriber.begin(); it != m_vectorSelectEventSubscriber.end(); ++it) {
        if (it->get() == subscriber) {
            m_vectorSelectEventSubscriber.erase(it);
            break;
        }
    }
}

void SelectReactor::processCommands_i() {
    if (m_vectorCommand.empty()) {
        return;
    }
    LOG4CXX_TRACE(logger, "processCommands");
    for (const auto & command : m_vectorCommand) {
        bool taken = true;
        if (command.add) {
            taken = addSubscriber(command.subscriber.get(), false);
        } else {
            removeSubscriber(command.subscriber.get());
        }
        if (command.status != nullptr) {
            command.status->done = true;
            command.status->refused = !taken;
        }
    }
    m_vectorCommand.clear();
    m_conditionDone.Broadcast();
}

void SelectReactor::clearDeadSockets_i(std::uint64_t now) {
    LOG4CXX_TRACE(logger, "clearDeadSockets");
    SubscriberList copy = m_vectorSelectEventSubscriber;
    SubscriberList swept;
    const auto timeout = static_cast<std::uint64_t>(static_cast<std::int64_t>(m_deadSocketTimeout));
    for (const auto & subscriber : copy) {
        std::uint64_t last = subscriber->getLastEventTime();
        if (last == 0 || now - last <= timeout) {
            continue;
        }
        LOG4CXX_WARN(logger, "clearDeadSockets: subscriber to peer '" << SocketPeerAddress(subscriber->getSocket())
                                                                      << "' timed out and is being terminated");
        subscriber->closeSocket();
        removeSubscriber(subscriber.get());
        swept.push_back(subscriber);
    }
    if (swept.empty()) {
        return;
    }
    // The read path finds the closed socket and tells its handler that the connection is gone,
    // outside the lock as every callback: a handler may take its own locks there, which a host
    // thread may hold while it waits for this lock in close().
    m_bLockHeldByThread = false;
    {
        Common::ScopedUnlock unlocked(&m_lock);
        for (const auto & subscriber : swept) {
            try {
                subscriber->onEvents(SELECT_EVENT_READ, now);
            } catch (...) {
                LOG4CXX_ERROR(logger, "unknown exception caught while dispatching socket event");
            }
        }
        swept.clear();
        copy.clear();
    }
    m_bLockHeldByThread = true;
}

void SelectReactor::dispatchEvents(const SubscriberList & copy, const std::vector<pollfd> & sets,
                                   const std::vector<short> & wanted, const std::vector<bool> & pendingFlags,
                                   const std::vector<bool> & closedFlags) {
    const std::uint64_t now = Common::GetTickCount64();
    for (std::size_t i = 0; i < copy.size(); ++i) {
        const Common::SmartPtr<ISelectEventSubscriber> & subscriber = copy[i];
        unsigned int socket = subscriber->getSocket();
        short events = 0;
        // A socket closed earlier in this dispatch is in no set any more.
        if (socket != INVALID_SOCKET_HANDLE && static_cast<int>(socket) == sets[i].fd) {
            short seen = sets[i].revents;
            if ((wanted[i] & SELECT_EVENT_READ) != 0 && (seen & kReadable) != 0) {
                events |= SELECT_EVENT_READ;
            }
            if ((wanted[i] & SELECT_EVENT_WRITE) != 0 && (seen & kWritable) != 0) {
                events |= SELECT_EVENT_WRITE;
            }
            if ((wanted[i] & SELECT_EVENT_EXCEPT) != 0 && (seen & POLLPRI) != 0) {
                events |= SELECT_EVENT_EXCEPT;
            }
        }
        if (pendingFlags[i]) {
            events |= SELECT_EVENT_PENDING;
        }
        if (closedFlags[i] && socket == INVALID_SOCKET_HANDLE) {
            events |= SELECT_EVENT_READ;
        }
        if (events == 0) {
            continue;
        }
        bool ok = false;
        try {
            ok = subscriber->onEvents(events, now);
        } catch (const std::exception & e) {
            LOG4CXX_ERROR(logger, "exception caught while dispatching socket event: " << e.what());
        } catch (...) {
            LOG4CXX_ERROR(logger, "unknown exception caught while dispatching socket event");
        }
        if (!ok) {
            Common::ScopedLock guard(&m_lock);
            m_bLockHeldByThread = true;
            subscriber->closeSocket();
            removeSubscriber(subscriber.get());
            m_conditionDone.Broadcast();
            m_bLockHeldByThread = false;
        }
    }
}

void SelectReactor::ThreadMain() {
    Common::PlatformThread::SetName("net.SelectReactor");
    const Common::TimeDelta timeout(static_cast<std::int64_t>(m_selectTimeout) * 1000);
    const int waitMilliseconds = static_cast<int>(timeout.InMillisecondsRoundedUp());
    // The sweep keeps the period that whole cycles of the full time-out would give it (none
    // when the interval is shorter than one time-out, every cycle when the time-out is 0),
    // measured by the clock: a wake-up or a pending event makes cycles much shorter.
    const bool sweepEnabled = m_selectTimeout <= 0 || m_deadSocketCheckInterval / m_selectTimeout > 0;
    const std::uint64_t sweepPeriod =
        m_selectTimeout <= 0
            ? 0
            : static_cast<std::uint64_t>(m_deadSocketCheckInterval / m_selectTimeout) * static_cast<std::uint64_t>(m_selectTimeout);
    std::uint64_t lastSweep = 0;

    std::vector<pollfd> sets;
    std::vector<short> wanted;
    std::vector<bool> pendingFlags;
    std::vector<bool> closedFlags;

    Common::ScopedLock guard(&m_lock);
    m_bLockHeldByThread = true;
    m_threadId = Common::PlatformThread::CurrentId();
    m_conditionStarted.Signal();
    while (m_bRunning) {
        processCommands_i();
        if (sweepEnabled) {
            const std::uint64_t now = Common::GetTickCount64();
            if (lastSweep == 0 || now - lastSweep >= sweepPeriod) {
                lastSweep = now;
                clearDeadSockets_i(now);
            }
        }
        if (m_vectorSelectEventSubscriber.empty()) {
            m_conditionCommand.Wait();
            continue;
        }

        // One poll entry per subscriber, in list order; each "set" keeps its count limit. The
        // wake-up descriptor comes last and belongs to no set.
        const std::size_t subscriberCount = m_vectorSelectEventSubscriber.size();
        sets.assign(subscriberCount, pollfd{-1, 0, 0});
        wanted.assign(subscriberCount, 0);
        pendingFlags.assign(subscriberCount, false);
        closedFlags.assign(subscriberCount, false);
        std::size_t inRead = 0;
        std::size_t inWrite = 0;
        std::size_t inExcept = 0;
        bool anyPending = false;
        for (std::size_t i = 0; i < subscriberCount; ++i) {
            Common::SmartPtr<ISelectEventSubscriber> subscriber = m_vectorSelectEventSubscriber[i];
            short mask = subscriber->getEventMask();
            unsigned int socket = subscriber->getSocket();
            sets[i].fd = socket == INVALID_SOCKET_HANDLE ? -1 : static_cast<int>(socket);
            if ((mask & SELECT_EVENT_READ) != 0 && inRead < kSetCapacity) {
                sets[i].events |= POLLIN;
                wanted[i] |= SELECT_EVENT_READ;
                ++inRead;
            }
            if ((mask & SELECT_EVENT_WRITE) != 0 && inWrite < kSetCapacity) {
                sets[i].events |= POLLOUT;
                wanted[i] |= SELECT_EVENT_WRITE;
                ++inWrite;
            }
            if ((mask & SELECT_EVENT_EXCEPT) != 0 && inExcept < kSetCapacity) {
                sets[i].events |= POLLPRI;
                wanted[i] |= SELECT_EVENT_EXCEPT;
                ++inExcept;
            }
            if (wanted[i] == 0) {
                // Not in any set: poll must not report its hang-up either.
                sets[i].fd = -1;
            } else if (sets[i].fd < 0) {
                // Its owner closed the socket before this reactor took it in (a channel closed
                // on another thread while its registration was under way): the read path finds
                // the end now, instead of the subscriber waiting for the sweep.
                wanted[i] |= SELECT_EVENT_READ;
                closedFlags[i] = true;
                anyPending = true;
            }
            if ((mask & SELECT_EVENT_PENDING) != 0) {
                pendingFlags[i] = true;
                anyPending = true;
            }
        }
        sets.push_back(pollfd{m_wakeFd, POLLIN, 0});

        int result;
        {
            m_bLockHeldByThread = false;
            Common::ScopedUnlock unlocked(&m_lock);
            // A pending event is delivered now, not after a full time-out.
            result = poll(sets.data(), static_cast<nfds_t>(sets.size()), anyPending ? 0 : waitMilliseconds);
        }
        m_bLockHeldByThread = true;

        if (result > 0 && sets.back().revents != 0) {
            drainWakeUp_i();
            --result;
        }
        sets.pop_back();

        if (result < 0 && errno != EINTR) {
            LOG4CXX_FATAL(logger, "select returned < 0");
            m_vectorSelectEventSubscriber.clear();
        } else if (result > 0 || anyPending) {
            if (result < 0) {
                for (auto & entry : sets) {
                    entry.revents = 0;
                }
            }
            SubscriberList copy = m_vectorSelectEventSubscriber;
            {
                m_bLockHeldByThread = false;
                Common::ScopedUnlock unlocked(&m_lock);
                dispatchEvents(copy, sets, wanted, pendingFlags, closedFlags);
            }
            m_bLockHeldByThread = true;
        }
    }
    m_bLockHeldByThread = false;
}

void CloseSubscriber(ISelectEventSubscriber * subscriber, Common::SmartPtr<SelectReactor> & reactor,
                     SelectReactor * home, unsigned int & socket) {
    Common::SmartPtr<SelectReactor> registeredWith;
    {
        SelectReactor::ForeignThreadGuard guard(home);
        registeredWith = std::move(reactor);
    }
    if (registeredWith) {
        registeredWith->unregisterSubscriber(subscriber);
    }
    SelectReactor::ForeignThreadGuard guard(home);
    if (socket != INVALID_SOCKET_HANDLE) {
        subscriber->closeSocket();
    }
}

void ISelectEventSubscriber::closeSocket() {
    unsigned int & socket = getSocket();
    if (socket != INVALID_SOCKET_HANDLE) {
        SocketClose(socket);
        socket = INVALID_SOCKET_HANDLE;
    }
}

}  // namespace socketio
