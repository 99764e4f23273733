#include "socketio/selectreactor.h"

#include <sys/epoll.h>
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

// Readiness that the read path must see: a hang-up or an error makes a socket readable, so
// that the channel's recv finds the end or the error.
constexpr std::uint32_t kReadable = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;
// Any of these makes the next recv find something other than data (the end or an error).
constexpr std::uint32_t kNotJustData = EPOLLRDHUP | EPOLLHUP | EPOLLERR;
constexpr std::uint32_t kWritable = EPOLLOUT | EPOLLHUP | EPOLLERR;
// At most this many ready descriptors per wait; more wait for the next (level-triggered).
constexpr int kMaxEventsPerWait = 256;

std::uint32_t epollEvents(short wanted) {
    std::uint32_t events = 0;
    if ((wanted & SELECT_EVENT_READ) != 0) {
        events |= EPOLLIN | EPOLLRDHUP;
    }
    if ((wanted & SELECT_EVENT_WRITE) != 0) {
        events |= EPOLLOUT;
    }
    if ((wanted & SELECT_EVENT_EXCEPT) != 0) {
        events |= EPOLLPRI;
    }
    return events;
}
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
      m_epollFd(-1),
      m_round(0),
      m_bRereadAll(false),
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
    if (m_epollFd >= 0) {
        ::close(m_epollFd);
    }
}

void SelectReactor::wakeUp() {
    m_bRereadAll.store(true);
    if (onReactorThread()) {
        // The next cycle asks every mask before it waits: nothing to interrupt.
        return;
    }
    Common::ScopedLock guard(&m_lock);
    wakeUp_i();
}

void SelectReactor::interestChanged(ISelectEventSubscriber * subscriber) {
    if (!onReactorThread()) {
        // Only this one is asked again: the others' masks are as the reactor knows them.
        Common::ScopedLock guard(&m_lock);
        m_foreignDirty.emplace_back(subscriber);
        wakeUp_i();
        return;
    }
    m_dirty.emplace_back(subscriber);
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
    if (m_epollFd < 0) {
        m_epollFd = epoll_create1(EPOLL_CLOEXEC);
        if (m_epollFd < 0) {
            const int error = errno;
            m_bRunning = false;
            throw InternalException(("cannot start the reactor: " + SystemErrorText(error)).c_str(), true);
        }
        if (m_wakeFd >= 0) {
            epoll_event wake{};
            wake.events = EPOLLIN;
            wake.data.ptr = nullptr;
            epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_wakeFd, &wake);
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
    SubscriberList foreignDirty;
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
        // The kernel's interest goes with the epoll instance; the subscribers are not asked.
        if (m_epollFd >= 0) {
            ::close(m_epollFd);
            m_epollFd = -1;
        }
        m_interest.clear();
        m_dirty.clear();
        foreignDirty.swap(m_foreignDirty);
        commands.swap(m_vectorCommand);
        failed.swap(m_vectorFailedSubscriber);
        subscribers.swap(m_vectorSelectEventSubscriber);
    }
    // Released outside the lock, in the same order, so that a destructor that reaches for
    // the reactor cannot deadlock.
    commands.clear();
    foreignDirty.clear();
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
    if (m_bRunning && m_vectorCommand.empty()) {
        // Taken in here, under the lock the reactor thread holds whenever it looks at the list:
        // the caller goes on at once instead of waiting for that thread to wake up and take it.
        // The reactor asks its mask before its next wait, which the wake-up below ends. With
        // commands waiting, a post keeps the order in which they are carried out.
        addSubscriber(subscriber, true);
        if (m_vectorSelectEventSubscriber.size() == 1) {
            m_conditionCommand.Signal();  // it waits for a first subscriber there, not in epoll
        }
        wakeUp_i();
        return;
    }
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

bool SelectReactor::addSubscriber(ISelectEventSubscriber * subscriber, bool throwAtLimit) {
    LOG4CXX_TRACE(logger, "addSubscriber");
    if (m_vectorSelectEventSubscriber.size() + 1 < kSetCapacity) {
        subscriber->setReactor(this, Common::GetTickCount64());
        m_vectorSelectEventSubscriber.emplace_back(subscriber);
        m_interest[subscriber] = Interest{};
        (onReactorThread() ? m_dirty : m_foreignDirty).emplace_back(subscriber);
        return true;
    }
    if (throwAtLimit) {
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
            dropInterest(subscriber);
            break;
        }
    }
}

void SelectReactor::dropInterest(ISelectEventSubscriber * subscriber) {
    auto it = m_interest.find(subscriber);
    if (it == m_interest.end()) {
        return;
    }
    const Interest & interest = it->second;
    if (interest.registered != 0 && interest.fd >= 0 && m_epollFd >= 0 &&
        subscriber->getSocket() == static_cast<unsigned int>(interest.fd)) {
        epoll_ctl(m_epollFd, EPOLL_CTL_DEL, interest.fd, nullptr);
    }
    m_interest.erase(it);
}

void SelectReactor::dropAllInterest() {
    for (const auto & subscriber : m_vectorSelectEventSubscriber) {
        dropInterest(subscriber.get());
    }
    m_interest.clear();
    m_dirty.clear();
    m_foreignDirty.clear();
}

void SelectReactor::syncInterest_i(ISelectEventSubscriber * subscriber, Interest & interest) {
    const short mask = subscriber->getEventMask();
    const unsigned int socket = subscriber->getSocket();
    const int fd = socket == INVALID_SOCKET_HANDLE ? -1 : static_cast<int>(socket);
    const short wanted = static_cast<short>(mask & (SELECT_EVENT_READ | SELECT_EVENT_WRITE | SELECT_EVENT_EXCEPT));
    if (fd != interest.fd) {
        // Its socket was closed (the kernel dropped it from epoll then; the number may already
        // be another subscriber's) or replaced: nothing of the old one is touched.
        interest.fd = fd;
        interest.registered = 0;
    }
    std::uint32_t want = fd >= 0 ? epollEvents(wanted) : 0;
    if (want != interest.registered) {
        epoll_event event{};
        event.events = want;
        event.data.ptr = subscriber;
        int result;
        if (want == 0) {
            // Out of epoll, not an empty interest: a hang-up would still be reported.
            (void)epoll_ctl(m_epollFd, EPOLL_CTL_DEL, fd, nullptr);
            result = 0;
        } else if (interest.registered == 0) {
            result = epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event);
            if (result < 0 && errno == EEXIST) {
                result = epoll_ctl(m_epollFd, EPOLL_CTL_MOD, fd, &event);
            }
        } else {
            result = epoll_ctl(m_epollFd, EPOLL_CTL_MOD, fd, &event);
            if (result < 0 && errno == ENOENT) {
                result = epoll_ctl(m_epollFd, EPOLL_CTL_ADD, fd, &event);
            }
        }
        interest.registered = result == 0 ? want : 0;
        if (result != 0) {
            // A descriptor epoll refuses (closed under the subscriber, say): its read path
            // finds out now, as a poll on it would have reported it invalid.
            want = 0;
        }
    }
    interest.wanted = wanted;
    interest.pending = (mask & SELECT_EVENT_PENDING) != 0;
    // Its owner closed the socket before this reactor took it in (a channel closed on another
    // thread while its registration was under way), or epoll refused it: the read path finds
    // the end now, instead of the subscriber waiting for the sweep.
    interest.closed = wanted != 0 && want == 0;
}

bool SelectReactor::processCommands_i() {
    if (m_vectorCommand.empty()) {
        return false;
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
    return true;
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

void SelectReactor::dispatchEvents(std::vector<Ready> & ready) {
    const std::uint64_t now = Common::GetTickCount64();
    for (Ready & entry : ready) {
        const Common::SmartPtr<ISelectEventSubscriber> & subscriber = entry.subscriber;
        short events = entry.events;
        // A socket closed earlier in this dispatch is in no set any more.
        if (entry.fd >= 0 && subscriber->getSocket() != static_cast<unsigned int>(entry.fd)) {
            events = static_cast<short>(events & SELECT_EVENT_PENDING);
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
    // Every mask is asked for at least once per time-out: a mask that a host thread changed
    // without a wake-up is seen no later than a wait of the full time-out would see it.
    const std::uint64_t rereadPeriod = waitMilliseconds > 0 ? static_cast<std::uint64_t>(waitMilliseconds) : 0;
    std::uint64_t lastReread = 0;

    std::vector<epoll_event> events(kMaxEventsPerWait);
    std::vector<Ready> ready;
    std::vector<ISelectEventSubscriber *> pending;  // reactor thread only; alive while in m_interest

    Common::ScopedLock guard(&m_lock);
    m_bLockHeldByThread = true;
    m_threadId = Common::PlatformThread::CurrentId();
    m_conditionStarted.Signal();
    while (m_bRunning) {
        // Their posters are woken once this thread lets go of the lock (they need it to return).
        const bool carriedOut = processCommands_i();
        const std::uint64_t now = Common::GetTickCount64();
        if (sweepEnabled) {
            if (lastSweep == 0 || now - lastSweep >= sweepPeriod) {
                lastSweep = now;
                clearDeadSockets_i(now);
            }
        }
        if (m_vectorSelectEventSubscriber.empty()) {
            m_dirty.clear();
            if (carriedOut) {
                m_conditionDone.Broadcast();
            }
            m_foreignDirty.clear();
            m_conditionCommand.Wait();
            continue;
        }
        ++m_round;

        // Bring the kernel's interest in line with the masks that may have changed.
        pending.clear();
        if (!m_foreignDirty.empty()) {
            m_dirty.insert(m_dirty.end(), m_foreignDirty.begin(), m_foreignDirty.end());
            m_foreignDirty.clear();
        }
        const bool rereadAll = m_bRereadAll.exchange(false) || lastReread == 0;
        if (rereadAll || now - lastReread >= rereadPeriod) {
            lastReread = now;
            // After the time-out only the masks that may have changed unannounced are asked,
            // and the ones that may have changed since the last cycle.
            for (const auto & subscriber : m_vectorSelectEventSubscriber) {
                if (!rereadAll && subscriber->interestAnnounced()) {
                    continue;
                }
                Interest & interest = m_interest[subscriber.get()];
                interest.round = m_round;
                syncInterest_i(subscriber.get(), interest);
                if (interest.pending || interest.closed) {
                    pending.push_back(subscriber.get());
                }
            }
            if (rereadAll) {
                m_dirty.clear();
            }
        }
        {
            // Pending ones were dispatched in the last cycle, so they are among these.
            SubscriberList dirty;
            dirty.swap(m_dirty);
            for (const auto & subscriber : dirty) {
                auto it = m_interest.find(subscriber.get());
                if (it == m_interest.end() || it->second.round == m_round) {
                    continue;  // gone, or asked already in this cycle
                }
                it->second.round = m_round;
                syncInterest_i(subscriber.get(), it->second);
                if (it->second.pending || it->second.closed) {
                    pending.push_back(subscriber.get());
                }
            }
        }
        ++m_round;  // marks of the asking above must not hide a subscriber from the ready list

        int result;
        {
            m_bLockHeldByThread = false;
            Common::ScopedUnlock unlocked(&m_lock);
            if (carriedOut) {
                m_conditionDone.Broadcast();
            }
            // A pending event is delivered now, not after a full time-out.
            result = epoll_wait(m_epollFd, events.data(), kMaxEventsPerWait, pending.empty() ? waitMilliseconds : 0);
        }
        m_bLockHeldByThread = true;

        if (result < 0 && errno != EINTR) {
            LOG4CXX_FATAL(logger, "select returned < 0");
            dropAllInterest();
            m_vectorSelectEventSubscriber.clear();
            continue;
        }
        // Only this thread removes from the list and changes the interest (other threads add
        // under the lock), so every subscriber named by the wait is still registered here.
        // Its mask is asked for again before its dispatch, so that it gets no event it stopped
        // asking for while the wait ran.
        ready.clear();
        for (int i = 0; i < result; ++i) {
            auto * subscriber = static_cast<ISelectEventSubscriber *>(events[static_cast<std::size_t>(i)].data.ptr);
            if (subscriber == nullptr) {
                drainWakeUp_i();
                continue;
            }
            auto it = m_interest.find(subscriber);
            if (it == m_interest.end()) {
                continue;
            }
            Interest & interest = it->second;
            interest.round = m_round;
            const int fd = interest.fd;
            syncInterest_i(subscriber, interest);
            const std::uint32_t seen = events[static_cast<std::size_t>(i)].events;
            short got = 0;
            if (fd >= 0 && fd == interest.fd) {
                if ((interest.wanted & SELECT_EVENT_READ) != 0 && (seen & kReadable) != 0) {
                    got |= SELECT_EVENT_READ;
                    if ((seen & EPOLLIN) != 0 && (seen & kNotJustData) == 0 && !interest.closed) {
                        got |= SELECT_EVENT_DATA;
                    }
                }
                if ((interest.wanted & SELECT_EVENT_WRITE) != 0 && (seen & kWritable) != 0) {
                    got |= SELECT_EVENT_WRITE;
                }
                if ((interest.wanted & SELECT_EVENT_EXCEPT) != 0 && (seen & EPOLLPRI) != 0) {
                    got |= SELECT_EVENT_EXCEPT;
                }
            }
            if (interest.pending) {
                got |= SELECT_EVENT_PENDING;
            }
            if (interest.closed) {
                got |= SELECT_EVENT_READ;
            }
            ready.push_back(Ready{subscriber, interest.fd, got});
        }
        for (ISelectEventSubscriber * subscriber : pending) {
            auto it = m_interest.find(subscriber);
            if (it == m_interest.end() || it->second.round == m_round) {
                continue;
            }
            it->second.round = m_round;
            const Interest & interest = it->second;
            short got = interest.pending ? SELECT_EVENT_PENDING : 0;
            if (interest.closed) {
                got |= SELECT_EVENT_READ;
            }
            ready.push_back(Ready{subscriber, -1, got});
        }
        // What had events is asked for its mask again before the next wait.
        for (const Ready & entry : ready) {
            m_dirty.push_back(entry.subscriber);
        }
        if (!ready.empty()) {
            m_bLockHeldByThread = false;
            {
                Common::ScopedUnlock unlocked(&m_lock);
                dispatchEvents(ready);
                ready.clear();
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
