#include "tunnel/tunnelcreatorthread.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "common/logging.h"
#include "net/internalexception.h"
#include "tunnel/tunnelendpoint.h"
#include "tunnel/tunnelstore.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.TunnelCreatorThread");
}

TunnelCreatorThread::TunnelCreatorThread()
    : m_condition(&m_lock), m_idle(0), m_ticketsTaken(0), m_ticketServed(0), m_turn(&m_lock), m_stop(true) {}

TunnelCreatorThread::~TunnelCreatorThread() = default;

bool TunnelCreatorThread::startWorker_i() {
    void * thread = nullptr;
    if (!Common::PlatformThread::Create(0, this, &thread)) {
        return false;
    }
    m_threads.push_back(thread);
    return true;
}

void TunnelCreatorThread::startProcessing(TunnelStore * store) {
    LOG4CXX_TRACE(logger, "startProcessing");
    Common::ScopedLock guard(&m_lock);
    if (!m_threads.empty()) {
        throw InternalException("Thread already running", true);
    }
    m_stop = false;
    m_store = store;
    if (!startWorker_i()) {
        // Without a thread every accepted connection would wait for ever: refuse the tunnel.
        m_stop = true;
        m_store = nullptr;
        throw InternalException("cannot start the tunnel creator thread", true);
    }
}

void TunnelCreatorThread::stopProcessing() {
    LOG4CXX_TRACE(logger, "stopProcessing");
    std::vector<void *> threads;
    {
        Common::ScopedLock guard(&m_lock);
        if (m_threads.empty()) {
            throw InternalException("Thread already stopped", true);
        }
        m_stop = true;
        for (socketio::ConnectAbort * opening : m_opening) {
            opening->abort();
        }
        m_condition.Broadcast();
        threads.swap(m_threads);
    }
    for (void * thread : threads) {
        Common::PlatformThread::Join(thread);
    }
    Common::SmartPtr<TunnelStore> store;
    std::deque<Job> abandoned;
    {
        Common::ScopedLock guard(&m_lock);
        store = std::move(m_store);
        abandoned.swap(m_queue);
        m_idle = 0;
    }
    // Their clients would otherwise wait for a target that never comes.
    for (Job & job : abandoned) {
        job.endPoint->close("the tunnels were stopped");
    }
}

void TunnelCreatorThread::submit(Common::SmartPtr<TunnelEndPoint> endPoint, IChannelEndpoint * endpoint) {
    LOG4CXX_TRACE(logger, "submit");
    bool wake;
    {
        Common::ScopedLock guard(&m_lock);
        m_queue.push_back(Job{std::move(endPoint), endpoint});
        if (m_idle < m_queue.size() && m_threads.size() < kMaxWorkers && !m_stop && !m_threads.empty()) {
            // No worker is free for this job: one more runs it, while the busy ones wait on their
            // targets. Without a thread the job simply waits for a busy worker.
            startWorker_i();
        }
        // A worker that is not waiting looks at the queue before it waits again.
        wake = m_idle > 0;
    }
    // After the lock: the woken worker does not run straight into the lock still held here.
    if (wake) {
        m_condition.Signal();
    }
}

void TunnelCreatorThread::ThreadMain() {
    Common::PlatformThread::SetName("corvane.TunnelCreatorThread");
    Common::ScopedLock guard(&m_lock);
    Common::SmartPtr<TunnelStore> store = m_store;
    while (!m_stop) {
        ++m_idle;
        while (m_queue.empty() && !m_stop) {
            m_condition.Wait();
        }
        --m_idle;
        // A stop wins over waiting jobs.
        if (m_stop) {
            break;
        }
        Job job = std::move(m_queue.front());
        m_queue.pop_front();
        const std::uint64_t ticket = m_ticketsTaken++;
        while (m_ticketServed != ticket) {
            m_turn.Wait();
        }
        std::string target;
        std::string options;
        std::string failure = "an unknown exception";
        bool resolved = false;
        {
            Common::ScopedUnlock unlocked(&m_lock);
            try {
                // A client that has gone needs no target.
                if (!job.endPoint->m_closed.load()) {
                    job.endpoint->getEndpoint(target, options);
                }
                resolved = true;
            } catch (const std::exception & e) {
                failure = e.what();
            } catch (...) {
            }
        }
        ++m_ticketServed;
        m_turn.Broadcast();
        if (m_stop) {
            // The stop's abort has passed already: this connection would not be ended by it.
            resolved = false;
            failure = "the tunnels were stopped";
        }
        socketio::ConnectAbort abort;
        m_opening.push_back(&abort);
        {
            Common::ScopedUnlock unlocked(&m_lock);
            // The accepted end point's description is fixed since its construction.
            const std::string description = job.endPoint->getDescription();
            try {
                socketio::ConnectAbortScope scope(&abort);
                if (resolved) {
                    store->connectEndpoints(job.endPoint.get(), target, options);
                    job.endPoint = nullptr;
                } else {
                    LOG4CXX_WARN(logger, "while creating a connection on behalf of '"
                                             << description << "' exception caught:" << failure);
                }
            } catch (const std::exception & e) {
                LOG4CXX_WARN(logger, "while creating a connection on behalf of '" << description
                                                                                  << "' exception caught:" << e.what());
                failure = e.what();
            } catch (...) {
                LOG4CXX_WARN(logger, "while creating a connection on behalf of '"
                                         << description << "' an unknown exception was caught");
            }
            // The connection, if any, belongs to its tunnel now.
            abort.releaseAll();
            // The attempt failed: the accepted client sees its connection end.
            if (job.endPoint) {
                job.endPoint->closeFailedConnect(target, failure);
            }
        }
        m_opening.erase(std::find(m_opening.begin(), m_opening.end(), &abort));
        job.endPoint = nullptr;
        job.endpoint = nullptr;
    }
    // The store's reference goes without the lock: it may be the last one.
    Common::ScopedUnlock unlocked(&m_lock);
    store = nullptr;
}

}  // namespace net
