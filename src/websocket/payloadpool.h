// websocket::PayloadPool: storage of message payloads kept for the next message. A WebSocket
// hop in bulk makes and drops a message of up to the output ring's size for every send and
// every receive; freeing that storage gives it back to the system (which faults it in again
// for the next message). The storage goes to a small per-thread cache instead and comes back
// out of it for the engine's next message, on the same thread: the thread that pumps a
// connection is also the one that drops its messages.
//
// Bounded: a few strings per thread, none larger than kMaxKeptCapacity; what does not fit is
// freed as before. Released when the thread ends.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include <websocketpp/common/memory.hpp>
#include <websocketpp/frame.hpp>

namespace websocket {

class PayloadPool {
public:
    static constexpr std::size_t kMaxKeptStrings = 4;
    static constexpr std::size_t kMaxKeptCapacity = 1 << 20;
    // Storage worth keeping starts here; smaller blocks cost the allocator little.
    static constexpr std::size_t kMinKeptCapacity = 4096;

    // An empty string whose capacity is at least `size` (the largest kept one when none is
    // that large, grown), or a new empty one when nothing is kept.
    static std::string take(std::size_t size);
    // Keeps the storage of `payload` when it is worth it and there is room; never throws.
    static void give(std::string && payload) noexcept;
    // Strings kept by the calling thread (for tests).
    static std::size_t keptOnThisThread();
};

// The engine's per-connection message manager, drawing the payload storage of every message
// from the pool and giving it back when the message goes.
template <typename Message>
class PooledMessageManager : public std::enable_shared_from_this<PooledMessageManager<Message>> {
public:
    typedef PooledMessageManager<Message> type;
    typedef std::shared_ptr<PooledMessageManager> ptr;
    typedef std::weak_ptr<PooledMessageManager> weak_ptr;
    typedef typename Message::ptr message_ptr;

    message_ptr get_message() { return make(websocketpp::frame::opcode::binary, 0, false); }
    message_ptr get_message(websocketpp::frame::opcode::value op, std::size_t size) { return make(op, size, true); }
    bool recycle(Message *) { return false; }

private:
    message_ptr make(websocketpp::frame::opcode::value op, std::size_t size, bool withOpcode) {
        // The message is made without storage (a reserve of 0), then given the pool's.
        message_ptr message(withOpcode ? new Message(this->shared_from_this(), op, 0)
                                       : new Message(this->shared_from_this()),
                            [](Message * m) {
                                PayloadPool::give(std::move(m->get_raw_payload()));
                                delete m;
                            });
        std::string storage = PayloadPool::take(size);
        message->get_raw_payload().swap(storage);
        return message;
    }
};

}  // namespace websocket
