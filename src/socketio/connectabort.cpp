#include "socketio/connectabort.h"

#include <sys/socket.h>

#include <algorithm>

namespace socketio {

namespace {
thread_local ConnectAbort * t_connectAbort = nullptr;
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

}  // namespace socketio
