// socketio::SelectReactor: the one event loop. It owns one thread, "net.SelectReactor",
// that waits for the sockets of all subscribers and calls them back. Other threads never
// touch the subscriber list: they post a command, wake the running wait through an eventfd,
// and wait until the reactor thread has carried the command out. Owned by counted
// references: the host's, and each registered subscriber's.
//
// The wait is epoll(7), level-triggered, with each subscriber's interest kept in the kernel
// and changed (epoll_ctl) only when its mask changes, so that a wake-up costs what the ready
// descriptors cost, not what all of them cost; descriptors of any value work. The count
// limit of the classic select sets is kept: at most 1023 subscribers per reactor.
// A mask is asked for again (getEventMask) only where it may have changed:
// - a subscriber that had events: before its dispatch and in the cycle after it;
// - a subscriber named by interestChanged (e.g. a tunnel end point whose ring changed the
//   other end's wish to read or write), or one newly taken in;
// - every subscriber after wakeUp, and at least once per wait time-out every subscriber
//   whose mask a host thread may change without a wake-up (all but those that answer
//   interestAnnounced): that change is seen as soon as a full wait would have seen it.
// A mask with SELECT_EVENT_PENDING makes the next wait return at once.
//
// The lifetime rule of every channel and server, whatever its transport:
// - An object handed to a host stays alive until the host lets it go, whatever the peer does:
//   openChannel and startChannelServer keep one reference for their caller
//   (Common::KeepForCaller), the reactor holds a subscriber while it is in the list, and a
//   dispatch holds its own copy, so a callback that drops the last outside reference never
//   frees the object under the reactor.
// - A descriptor is closed exactly once, through ISelectEventSubscriber::closeSocket under
//   this reactor's lock: by the reactor when onEvents answers false or the sweep ends a silent
//   subscriber, or by the owner's close() (CloseSubscriber) after the reactor let it go.
//   Whoever comes first closes it and stores the invalid handle; nothing (a send, a TLS record,
//   a close frame, a peek) touches the number after that, since the system hands it out again
//   at once.
// - A callback's failure ends only its own channel: the reactor catches what a subscriber
//   lets escape, closes that one and goes on.
#pragma once

#include <atomic>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "common/platformthread.h"
#include "corvane/channel.h"
#include "socketio/iselecteventsubscriber.h"

namespace socketio {

class SelectReactor : public virtual net::IReactor, public virtual Common::PlatformThread::IDelegate {
public:
    // Milliseconds: how often idle subscribers are swept, after how much silence one is
    // dead, and the longest wait of one cycle (negative counts as 0). Not started.
    SelectReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout);
    // The owner stops the thread first; a reactor destroyed while running is stopped here
    // unless the last reference goes on its own thread.
    ~SelectReactor() override;

    // Any thread but the reactor's; returns when the thread runs. Allowed again after a stop.
    // Throws socketio::InternalException when the system gives no thread.
    void startProcessing() override;
    // Any thread but the reactor's; stops and joins the thread, then drops every command,
    // refused and registered subscriber without calling them.
    void stopProcessing() override;

    // Any thread; returns when the subscriber is in the reactor's list (the reactor thread may
    // have dropped it again by then, if its connection ended at once). Throws
    // socketio::InternalException "too many open sockets" at the limit and "select reactor is
    // no longer operational" when the reactor is not running.
    void registerSubscriber(ISelectEventSubscriber * subscriber);
    // Any thread; returns when the subscriber has left the list (or the reactor stopped).
    void unregisterSubscriber(ISelectEventSubscriber * subscriber);
    // Any thread, but not from getEventMask (the reactor's lock is held there): ends a running
    // wait at once, so that the next cycle asks every subscriber for its mask again. For a
    // subscriber whose interest changed on another thread.
    void wakeUp();
    // Any thread: the mask of `subscriber` may have changed. It is asked again before the
    // next wait (on the reactor thread cheap: no lock, no system call; elsewhere the running
    // wait ends, as with wakeUp, but the other masks are not asked). Not from getEventMask.
    void interestChanged(ISelectEventSubscriber * subscriber);

    // Any thread: whether the caller is this reactor's thread. A subscriber must not wait for
    // its peer there, as the answer may have to come through this very reactor.
    bool onReactorThread() const;

    // Linear searches, with m_lock held; a refusal is collected (erased) once.
    bool hasSubscriber(ISelectEventSubscriber * subscriber) const;
    bool hasFailedSubscriber(ISelectEventSubscriber * subscriber);

    void ThreadMain() override;

    static constexpr std::size_t kSetCapacity = 1024;

    // Holds the reactor's lock for a scope unless the calling thread holds it already (the
    // reactor thread outside a dispatch). A subscriber's owner uses it to read the socket
    // handle and reactor reference that the reactor writes under that lock when it ends the
    // subscriber, e.g. in close() called on a host thread just after onClose, or on the
    // creator thread while the reactor thread registers the same channel.
    class ForeignThreadGuard {
    public:
        explicit ForeignThreadGuard(SelectReactor * reactor)
            : m_lock(reactor != nullptr && !(reactor->onReactorThread() && reactor->m_bLockHeldByThread)
                         ? &reactor->m_lock
                         : nullptr) {
            if (m_lock != nullptr) {
                m_lock->Acquire();
            }
        }
        ~ForeignThreadGuard() {
            if (m_lock != nullptr) {
                m_lock->Release();
            }
        }
        ForeignThreadGuard(const ForeignThreadGuard &) = delete;
        ForeignThreadGuard & operator=(const ForeignThreadGuard &) = delete;

    private:
        Common::Lock * m_lock;
    };

private:
    // Lives on the stack of the thread that posted the command; the reactor thread fills it
    // in under m_lock. The poster withdraws its command before it leaves, so the pointer
    // never outlives its frame.
    struct CommandStatus {
        bool done = false;
        bool refused = false;
    };
    struct Command {
        bool add;
        Common::SmartPtr<ISelectEventSubscriber> subscriber;
        CommandStatus * status;
    };
    using SubscriberList = std::vector<Common::SmartPtr<ISelectEventSubscriber>>;
    // What the kernel holds for one subscriber, as of its last mask.
    struct Interest {
        int fd = -1;                 // the socket registered with epoll, -1 when none
        std::uint32_t registered = 0;  // epoll events registered for fd, 0 when not in epoll
        short wanted = 0;            // SELECT_EVENT_READ/WRITE/EXCEPT of the last mask
        bool pending = false;        // SELECT_EVENT_PENDING in the last mask
        bool closed = false;         // wants events but its socket is closed: read at once
        std::uint64_t round = 0;     // the cycle in which it was last put in the ready list
    };
    struct Ready {
        Common::SmartPtr<ISelectEventSubscriber> subscriber;
        int fd;
        short events;
    };

    // Under m_lock; removeSubscriber on the reactor thread only. addSubscriber answers false
    // when it parked a refusal.
    bool addSubscriber(ISelectEventSubscriber * subscriber, bool throwAtLimit);
    void removeSubscriber(ISelectEventSubscriber * subscriber);
    // True when it carried out commands: their posters are to be woken (m_conditionDone).
    bool processCommands_i();
    // m_lock held: posts a command of another thread and waits until it is carried out or
    // the reactor stops; a command not carried out is withdrawn. True when it was done.
    bool postAndWait_i(bool add, ISelectEventSubscriber * subscriber, CommandStatus & status);
    void withdrawCommand_i(const CommandStatus * status);
    void wakeUp_i();
    void drainWakeUp_i();
    void clearDeadSockets_i(std::uint64_t now);
    // Reactor thread, m_lock held: asks the subscriber for its mask and brings the kernel's
    // interest in line with it.
    void syncInterest_i(ISelectEventSubscriber * subscriber, Interest & interest);
    // Reactor thread: forgets the subscriber's interest (the kernel's too, while its socket is
    // still the registered one: a closed descriptor has left epoll by itself, and its number
    // may already belong to another subscriber).
    void dropInterest(ISelectEventSubscriber * subscriber);
    void dropAllInterest();
    void dispatchEvents(std::vector<Ready> & ready);

    const int m_deadSocketTimeout;
    const int m_deadSocketCheckInterval;
    const int m_selectTimeout;
    mutable Common::Lock m_lock;
    Common::ConditionVariable m_conditionStarted;  // GUARDED_BY(m_lock)
    Common::ConditionVariable m_conditionCommand;  // GUARDED_BY(m_lock)
    Common::ConditionVariable m_conditionDone;     // GUARDED_BY(m_lock)
    bool m_bRunning;                               // GUARDED_BY(m_lock)
    void * m_hThread;
    // Written under m_lock; read without it by the thread tests of register/unregister.
    std::atomic<unsigned long> m_threadId;
    SubscriberList m_vectorSelectEventSubscriber;  // GUARDED_BY(m_lock)
    SubscriberList m_vectorFailedSubscriber;       // GUARDED_BY(m_lock)
    std::vector<Command> m_vectorCommand;          // GUARDED_BY(m_lock)
    // eventfd in every wait, written when a command is posted or the reactor is stopped;
    // made by startProcessing and closed by stopProcessing; -1 while stopped or if the system
    // gave none (a posted command then waits for the time-out).
    int m_wakeFd;
    bool m_bWakePending;                           // GUARDED_BY(m_lock)
    // epoll instance of the running reactor; made by startProcessing, closed by stopProcessing.
    int m_epollFd;
    // Under m_lock; a subscriber's entry is made by whoever registers it, and changed and
    // dropped by the reactor thread only.
    std::unordered_map<ISelectEventSubscriber *, Interest> m_interest;
    // Reactor thread only (with or without m_lock): masks to ask for again before the next wait.
    SubscriberList m_dirty;
    // Named by interestChanged and registerSubscriber on other threads; moved to m_dirty
    // before the next wait.
    SubscriberList m_foreignDirty;  // GUARDED_BY(m_lock)
    std::uint64_t m_round;
    // Set by wakeUp: every mask is asked for again before the next wait.
    std::atomic<bool> m_bRereadAll;
    // Reactor thread only: whether the reactor thread holds m_lock right now. Its own
    // register/unregister calls take the lock only when it is free (during a dispatch), so
    // that waiting threads never read the list while it changes.
    bool m_bLockHeldByThread;
};

// The owner's close of a socket-owning subscriber, any thread: leaves the reactor (waiting
// for it when called on another thread), and only then closes the socket, so that the
// reactor never waits on a closed and perhaps reused descriptor. `home` is the reactor the
// subscriber was first registered with (it synchronises with the reactor ending the
// subscriber at the same moment); `reactor` is the subscriber's current reference, cleared
// here. Harmless when repeated.
void CloseSubscriber(ISelectEventSubscriber * subscriber, Common::SmartPtr<SelectReactor> & reactor,
                     SelectReactor * home, unsigned int & socket);

}  // namespace socketio
