// websocket::MessageBuffer: the received WebSocket messages of a channel, oldest first, shown
// to the handler as one continuous byte stream (message boundaries are not kept for the
// reader). Owned by value by its channel; filled and emptied on the thread that pumps the
// engine, no lock.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

#include "corvane/channel.h"

namespace websocket {

class MessageBuffer final : public net::IReadDataStream {
public:
    MessageBuffer() : m_nSize(0) {}
    MessageBuffer(const MessageBuffer &) = delete;
    MessageBuffer & operator=(const MessageBuffer &) = delete;

    // An empty message is queued like any other; a later recv drops it without a byte.
    void addMessage(std::string message);
    // Copies up to `length` bytes across message boundaries; 0 when the queue is empty or
    // `length` is 0. Never negative.
    int recv(int length, void * buffer) override;
    // Calls handler->onRead(this) as long as each call took bytes and some remain. True when
    // the queue is empty afterwards (or was already).
    bool deliverTo(net::IChannelHandler * handler);
    bool empty() const { return m_Messages.empty(); }
    std::uint32_t size() const { return m_nSize; }

private:
    std::deque<std::string> m_Messages;
    // Bytes of the front message already delivered: a message read in pieces is not moved
    // down after each piece, which would cost a copy of its rest every time.
    std::size_t m_frontOffset = 0;
    std::uint32_t m_nSize;
};

}  // namespace websocket
