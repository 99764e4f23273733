// socketio::ConnectAbort: lets another thread end the blocking work of a connection being
// opened (the connect, a proxy exchange, a handshake) on the sockets that SocketConnect makes
// while the abort is installed on the opening thread with a ConnectAbortScope. The abort shuts
// those sockets down, which ends a blocking connect, send or recv on them at once, and makes
// every later SocketConnect of the scope fail. Owned by the opening thread's frame; abort()
// runs on any thread.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

namespace socketio {

class ConnectAbort {
public:
    // Any thread. Harmless when repeated.
    void abort();
    bool aborted();
    // Opening thread: from now on the sockets belong to whatever was opened and are left alone.
    void releaseAll();

    // Opening thread, from the socket functions: false when aborted (the caller then closes
    // the socket). forget() comes before the socket is closed, so that a number the system
    // hands out again is never shut down by mistake.
    bool track(int fd);
    void forget(int fd);

private:
    std::mutex m_mutex;
    bool m_aborted = false;     // GUARDED_BY(m_mutex)
    std::vector<int> m_sockets; // GUARDED_BY(m_mutex)
};

// Installs an abort for the calling thread for the life of the scope.
class ConnectAbortScope {
public:
    explicit ConnectAbortScope(ConnectAbort * abort);
    ~ConnectAbortScope();
    ConnectAbortScope(const ConnectAbortScope &) = delete;
    ConnectAbortScope & operator=(const ConnectAbortScope &) = delete;

private:
    ConnectAbort * m_previous;
};

// The calling thread's abort, or null.
ConnectAbort * CurrentConnectAbort();

// Installs the time limit of the connection being opened on the calling thread (ConnectTimeout)
// for the life of the scope; 0: none. The limit starts at once and again for each route that
// RestartConnectDeadline begins (a proxy, then the direct connection); the TLS and WebSocket
// handshakes that follow share what remains of it.
class ConnectDeadlineScope {
public:
    explicit ConnectDeadlineScope(std::uint64_t milliseconds);
    ~ConnectDeadlineScope();
    ConnectDeadlineScope(const ConnectDeadlineScope &) = delete;
    ConnectDeadlineScope & operator=(const ConnectDeadlineScope &) = delete;

private:
    std::uint64_t m_previousLimit;
    std::uint64_t m_previousDeadline;
};

// Calling thread: the whole limit again, for one more route. Nothing without a limit.
void RestartConnectDeadline();
// The calling thread's limit in milliseconds; 0: none.
std::uint64_t ConnectTimeLimit();
// Milliseconds left of the calling thread's limit: -1 without one, 0 once it has passed.
int ConnectTimeLeft();

}  // namespace socketio
