// A channel handler that records what its channel does: it counts every callback, keeps
// every byte it reads, and sends what the test queued when the channel can take it.
// Optional hooks let a test act from inside a callback.
#pragma once

#include <atomic>
#include <functional>
#include <mutex>
#include <string>

#include "corvane/channel.h"

namespace corvane_test {

class RecordingHandler : public net::IChannelHandler {
public:
    bool hasPendingWrite() override {
        std::lock_guard<std::mutex> guard(m_mutex);
        return alwaysWantWrite || !m_outgoing.empty();
    }
    void onRead(net::IReadDataStream * stream) override {
        ++reads;
        if (onReadHook) {
            onReadHook(stream);
            return;
        }
        char buffer[65536];
        int n = stream->recv(sizeof buffer, buffer);
        if (n > 0) {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_received.append(buffer, static_cast<size_t>(n));
        }
    }
    void onWrite(net::IWriteDataStream * stream) override {
        ++writes;
        std::lock_guard<std::mutex> guard(m_mutex);
        if (onWriteHook) {
            lastSend = onWriteHook(stream);
            return;
        }
        while (!m_outgoing.empty()) {
            int n = stream->send(static_cast<int>(m_outgoing.size()), m_outgoing.data());
            lastSend = n;
            if (n <= 0) {
                break;
            }
            m_outgoing.erase(0, static_cast<size_t>(n));
        }
    }
    void onClose() override { ++closes; }
    void onError() override { ++errors; }

    void queue(const std::string & data) {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_outgoing += data;
    }
    std::string received() const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_received;
    }
    size_t receivedSize() const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_received.size();
    }
    bool ended() const { return closes.load() + errors.load() > 0; }

    std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::atomic<int> closes{0};
    std::atomic<int> errors{0};
    std::atomic<int> lastSend{0};
    bool alwaysWantWrite = false;
    std::function<void(net::IReadDataStream *)> onReadHook;
    std::function<int(net::IWriteDataStream *)> onWriteHook;

private:
    mutable std::mutex m_mutex;
    std::string m_outgoing;
    std::string m_received;
};

// Echoes through the channel: what is read is queued for sending back.
class EchoHandler : public RecordingHandler {
public:
    void onRead(net::IReadDataStream * stream) override {
        char buffer[65536];
        int n = stream->recv(sizeof buffer, buffer);
        if (n > 0) {
            queue(std::string(buffer, static_cast<size_t>(n)));
        }
    }
};

}  // namespace corvane_test
