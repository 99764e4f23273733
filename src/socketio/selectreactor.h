// socketio::SelectReactor: the one event loop. It owns one thread, "net.SelectReactor",
// that waits for the sockets of all subscribers and calls them back. Other threads never
// touch the subscriber list: they post a command and wait until the reactor thread has
// carried it out (at most one wait time-out and one dispatch later; a running wait is never
// interrupted). Owned by counted references: the host's, and each registered subscriber's.
//
// The wait is poll(2) over an array built each cycle from the subscribers' masks, so
// descriptors of any value work; the count limits of the classic select sets are kept:
// at most 1023 subscribers and 1024 sockets per set.
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "common/platformthread.h"
#include "corvane/channel.h"
#include "socketio/iselecteventsubscriber.h"

struct pollfd;

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
    void startProcessing() override;
    // Any thread but the reactor's; stops and joins the thread, then drops every command,
    // refused and registered subscriber without calling them.
    void stopProcessing() override;

    // Any thread; returns when the subscriber is in the list. Throws
    // socketio::InternalException "too many open sockets" at the limit and "select reactor is
    // no longer operational" when the reactor is not running.
    void registerSubscriber(ISelectEventSubscriber * subscriber);
    // Any thread; returns when the subscriber has left the list (or the reactor stopped).
    void unregisterSubscriber(ISelectEventSubscriber * subscriber);

    // Linear searches, with m_lock held; a refusal is collected (erased) once.
    bool hasSubscriber(ISelectEventSubscriber * subscriber) const;
    bool hasFailedSubscriber(ISelectEventSubscriber * subscriber);

    void ThreadMain() override;

    static constexpr std::size_t kSetCapacity = 1024;

    // Holds the reactor's lock for a scope when the caller is not the reactor thread (and
    // nothing on the reactor thread). A subscriber's owner uses it to read the socket handle
    // and reactor reference that the reactor writes under that lock when it ends the
    // subscriber, e.g. in close() called on a host thread just after onClose.
    class ForeignThreadGuard {
    public:
        explicit ForeignThreadGuard(SelectReactor * reactor)
            : m_lock(reactor != nullptr && !reactor->onReactorThread() ? &reactor->m_lock : nullptr) {
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
    struct Command {
        bool add;
        Common::SmartPtr<ISelectEventSubscriber> subscriber;
    };
    using SubscriberList = std::vector<Common::SmartPtr<ISelectEventSubscriber>>;

    // Reactor thread only.
    void addSubscriber(ISelectEventSubscriber * subscriber, bool fromReactorThread);
    void removeSubscriber(ISelectEventSubscriber * subscriber);
    void processCommands_i();
    void withdrawCommand_i(ISelectEventSubscriber * subscriber);
    void clearDeadSockets_i(std::uint64_t now);
    void dispatchEvents(const SubscriberList & copy, const std::vector<pollfd> & sets,
                        const std::vector<short> & wanted, const std::vector<bool> & pendingFlags);
    bool onReactorThread() const;

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
