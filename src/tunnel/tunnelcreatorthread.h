// net::TunnelCreatorThread: the workers of a net::TunnelStore that open the outgoing channel
// of each accepted tunnel connection, so that a blocking openChannel never runs on the reactor
// thread. Jobs start in order of submission; up to kMaxWorkers run at once, so that one slow
// target (a full backlog, a slow proxy or handshake) does not hold the others. The target of
// each job is asked of its IChannelEndpoint one job at a time, in order of submission, before
// the connections run in parallel. Held by the
// store and by each of its services; it holds the store while its threads run.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "common/platformthread.h"
#include "corvane/channel.h"
#include "socketio/connectabort.h"

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
    // Any thread (the store calls it under its lock); returns when every worker has ended.
    // Connections being opened are abandoned (their sockets shut down, which ends a blocking
    // connect, proxy exchange or handshake), jobs still queued are not run. Throws
    // net::InternalException "Thread already stopped" when no thread runs.
    void stopProcessing();
    // Reactor thread (from accept), under the service's lock. Never blocks on a connection;
    // starts another worker when none is idle and fewer than kMaxWorkers run.
    void submit(Common::SmartPtr<TunnelEndPoint> endPoint, IChannelEndpoint * endpoint);

    void ThreadMain() override;

    static constexpr std::size_t kMaxWorkers = 16;

private:
    struct Job {
        Common::SmartPtr<TunnelEndPoint> endPoint;
        Common::SmartPtr<IChannelEndpoint> endpoint;
    };

    // m_lock held: starts one more worker; false when the system gave no thread.
    bool startWorker_i();

    Common::Lock m_lock;
    Common::ConditionVariable m_condition;     // bound to m_lock
    std::vector<void *> m_threads;             // GUARDED_BY(m_lock)
    std::size_t m_idle;                        // GUARDED_BY(m_lock): workers waiting for a job
    Common::SmartPtr<TunnelStore> m_store;     // GUARDED_BY(m_lock)
    std::deque<Job> m_queue;                   // GUARDED_BY(m_lock)
    std::vector<socketio::ConnectAbort *> m_opening;  // GUARDED_BY(m_lock): on workers' frames
    // Tickets of the jobs taken and of the next job whose getEndpoint may run: a worker asks
    // for its target only when its ticket comes up, so that a host's endpoint sees one call at
    // a time, in order of arrival.
    std::uint64_t m_ticketsTaken;              // GUARDED_BY(m_lock)
    std::uint64_t m_ticketServed;              // GUARDED_BY(m_lock)
    Common::ConditionVariable m_turn;          // bound to m_lock; broadcast when m_ticketServed moves
    bool m_stop;                               // GUARDED_BY(m_lock)
};

}  // namespace net
