// net::TunnelCreatorThread: the one worker thread of a net::TunnelStore. It opens the
// outgoing channel of each accepted tunnel connection, one at a time in order of submission,
// so that a blocking openChannel never runs on the reactor thread. Held by the store and by
// each of its services; it holds the store while its thread runs.
#pragma once

#include <deque>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "common/platformthread.h"
#include "corvane/channel.h"

namespace net {

class TunnelStore;
class TunnelEndPoint;

class TunnelCreatorThread : public Common::PlatformThread::IDelegate, public virtual Common::IRefCnt {
public:
    TunnelCreatorThread();
    ~TunnelCreatorThread() override;

    // Any thread (the store calls it under its lock). Throws net::InternalException
    // "Thread already running" when a thread runs.
    void startProcessing(TunnelStore * store);
    // Any thread (the store calls it under its lock); returns when the thread has ended, that
    // is after the job in progress. Jobs still queued are not run. Throws
    // net::InternalException "Thread already stopped" when no thread runs.
    void stopProcessing();
    // Reactor thread (from accept), under the service's lock. Never blocks on a connection.
    void submit(Common::SmartPtr<TunnelEndPoint> endPoint, IChannelEndpoint * endpoint);

    void ThreadMain() override;

private:
    struct Job {
        Common::SmartPtr<TunnelEndPoint> endPoint;
        Common::SmartPtr<IChannelEndpoint> endpoint;
    };

    Common::Lock m_lock;
    Common::ConditionVariable m_condition;     // bound to m_lock
    void * m_thread;                           // GUARDED_BY(m_lock)
    Common::SmartPtr<TunnelStore> m_store;     // GUARDED_BY(m_lock)
    std::deque<Job> m_queue;                   // GUARDED_BY(m_lock)
    bool m_stop;                               // GUARDED_BY(m_lock)
};

}  // namespace net
