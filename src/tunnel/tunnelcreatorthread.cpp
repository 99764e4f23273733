#include "tunnel/tunnelcreatorthread.h"

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

TunnelCreatorThread::TunnelCreatorThread() : m_condition(&m_lock), m_thread(nullptr), m_stop(true) {}

TunnelCreatorThread::~TunnelCreatorThread() = default;

void TunnelCreatorThread::startProcessing(TunnelStore * store) {
    LOG4CXX_TRACE(logger, "startProcessing");
    Common::ScopedLock guard(&m_lock);
    if (m_thread != nullptr) {
        throw InternalException("Thread already running", true);
    }
    m_stop = false;
    m_store = store;
    if (!Common::PlatformThread::Create(0, this, &m_thread)) {
        // Without the thread every accepted connection would wait for ever: refuse the tunnel.
        m_thread = nullptr;
        m_stop = true;
        m_store = nullptr;
        throw InternalException("cannot start the tunnel creator thread", true);
    }
}

void TunnelCreatorThread::stopProcessing() {
    LOG4CXX_TRACE(logger, "stopProcessing");
    void * thread = nullptr;
    {
        Common::ScopedLock guard(&m_lock);
        if (m_thread == nullptr) {
            throw InternalException("Thread already stopped", true);
        }
        m_stop = true;
        m_condition.Signal();
        thread = m_thread;
    }
    Common::PlatformThread::Join(thread);
    Common::SmartPtr<TunnelStore> store;
    {
        Common::ScopedLock guard(&m_lock);
        store = std::move(m_store);
        m_thread = nullptr;
    }
}

void TunnelCreatorThread::submit(Common::SmartPtr<TunnelEndPoint> endPoint, IChannelEndpoint * endpoint) {
    LOG4CXX_TRACE(logger, "submit");
    Common::ScopedLock guard(&m_lock);
    m_queue.push_back(Job{std::move(endPoint), endpoint});
    m_condition.Signal();
}

void TunnelCreatorThread::ThreadMain() {
    Common::PlatformThread::SetName("corvane.TunnelCreatorThread");
    Common::ScopedLock guard(&m_lock);
    Common::SmartPtr<TunnelStore> store = m_store;
    while (!m_stop) {
        while (m_queue.empty() && !m_stop) {
            m_condition.Wait();
        }
        // A stop wins over waiting jobs.
        if (m_stop) {
            break;
        }
        Job job = std::move(m_queue.front());
        m_queue.pop_front();
        {
            Common::ScopedUnlock unlocked(&m_lock);
            // The accepted end point's description is fixed since its construction.
            const std::string description = job.endPoint->getDescription();
            try {
                store->connectEndpoints(job.endPoint.get(), job.endpoint.get());
                job.endPoint = nullptr;
            } catch (const std::exception & e) {
                LOG4CXX_WARN(logger, "while creating a connection on behalf of '" << description
                                                                                  << "' exception caught:" << e.what());
            } catch (...) {
                LOG4CXX_WARN(logger, "while creating a connection on behalf of '"
                                         << description << "' an unknown exception was caught");
            }
            // The attempt failed: the accepted client sees its connection end.
            if (job.endPoint) {
                job.endPoint->close();
            }
        }
        job.endPoint = nullptr;
        job.endpoint = nullptr;
    }
    store = nullptr;
}

}  // namespace net
