#include "socketio/connectabort.h"

#include <sys/socket.h>

#include <algorithm>

#include "common/timedelta.h"

namespace socketio {

namespace {
thread_local ConnectAbort * t_connectAbort = nullptr;
thread_local std::uint64_t t_connectLimit = 0;
thread_local std::uint64_t t_connectDeadline = 0;
}

void ConnectAbort::abort() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_aborted = true;
    for (int fd : m_sockets) {
        shutdown(fd, SHUT_RDWR);
    }
}

bool ConnectAbort::aborted() {
    std::lock_guard<std::mutex> guard(m_mutex);
    return m_aborted;
}

void ConnectAbort::releaseAll() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_sockets.clear();
}

bool ConnectAbort::track(int fd) {
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_aborted) {
        return false;
    }
    m_sockets.push_back(fd);
    return true;
}

void ConnectAbort::forget(int fd) {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_sockets.erase(std::remove(m_sockets.begin(), m_sockets.end(), fd), m_sockets.end());
}

ConnectAbortScope::ConnectAbortScope(ConnectAbort * abort) : m_previous(t_connectAbort) {
    t_connectAbort = abort;
}

ConnectAbortScope::~ConnectAbortScope() {
    t_connectAbort = m_previous;
}

ConnectAbort * CurrentConnectAbort() {
    return t_connectAbort;
}

ConnectDeadlineScope::ConnectDeadlineScope(std::uint64_t milliseconds)
    : m_previousLimit(t_connectLimit), m_previousDeadline(t_connectDeadline) {
    t_connectLimit = milliseconds;
    t_connectDeadline = 0;
    RestartConnectDeadline();
}

ConnectDeadlineScope::~ConnectDeadlineScope() {
    t_connectLimit = m_previousLimit;
    t_connectDeadline = m_previousDeadline;
}

void RestartConnectDeadline() {
    if (t_connectLimit != 0) {
        t_connectDeadline = Common::GetTickCount64() + t_connectLimit;
    }
}

std::uint64_t ConnectTimeLimit() {
    return t_connectLimit;
}

int ConnectTimeLeft() {
    if (t_connectLimit == 0) {
        return -1;
    }
    const std::uint64_t now = Common::GetTickCount64();
    return now >= t_connectDeadline ? 0 : static_cast<int>(t_connectDeadline - now);
}

}  // namespace socketio
