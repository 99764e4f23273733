#include "websocket/messagebuffer.h"

#include <algorithm>
#include <cstring>

#include "websocket/payloadpool.h"

namespace websocket {

void MessageBuffer::addMessage(std::string message) {
    m_nSize += static_cast<std::uint32_t>(message.size());
    m_Messages.push_back(std::move(message));
}

int MessageBuffer::recv(int length, void * buffer) {
    if (length <= 0) {
        return 0;
    }
    auto * position = static_cast<char *>(buffer);
    std::size_t remaining = static_cast<std::size_t>(length);
    while (!m_Messages.empty()) {
        const std::string & message = m_Messages.front();
        const std::size_t left = message.size() - m_frontOffset;
        const std::size_t count = std::min(left, remaining);
        std::memcpy(position, message.data() + m_frontOffset, count);
        position += count;
        remaining -= count;
        if (count < left) {
            m_frontOffset += count;
            break;
        }
        // Its storage serves the engine's next message.
        PayloadPool::give(std::move(m_Messages.front()));
        m_Messages.pop_front();
        m_frontOffset = 0;
        if (remaining == 0) {
            break;
        }
    }
    const std::size_t delivered = static_cast<std::size_t>(length) - remaining;
    m_nSize -= static_cast<std::uint32_t>(delivered);
    return static_cast<int>(delivered);
}

bool MessageBuffer::deliverTo(net::IChannelHandler * handler) {
    if (empty()) {
        return true;
    }
    for (;;) {
        const std::uint32_t before = m_nSize;
        handler->onRead(this);
        if (empty() || m_nSize >= before) {
            break;
        }
    }
    return empty();
}

}  // namespace websocket
