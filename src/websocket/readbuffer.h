// websocket::ReadBuffer: the storage of one read of a WebSocket channel, allocated once and
// left uninitialised: a connection that exchanges a few bytes touches the first page of it
// only, where a zero-filled buffer of the receive size would cost every connection all of its
// pages up front.
#pragma once

#include <cstddef>
#include <memory>

namespace websocket {

class ReadBuffer {
public:
    explicit ReadBuffer(std::size_t size) : m_data(new char[size]), m_size(size) {}
    char * data() { return m_data.get(); }
    std::size_t size() const { return m_size; }

private:
    std::unique_ptr<char[]> m_data;
    std::size_t m_size;
};

}  // namespace websocket
