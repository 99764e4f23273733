// tools::basic_ringbuf: the fixed-size output ring of a socket-owning WebSocket channel. The
// engine's frames are written into it and the channel drains it into the socket. One block of
// storage, allocated once; what does not fit is refused and the caller decides what that
// means. No lock: the owning channel serialises writer and drainer.
#pragma once

#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>

namespace tools {

template <class CharT, class Traits = std::char_traits<CharT>>
class basic_ringbuf final {
public:
    // A size of 0 or less allocates nothing and refuses every write.
    explicit basic_ringbuf(const std::int64_t & size)
        : m_pBegin(nullptr), m_pEnd(nullptr), m_pRead(nullptr), m_pWrite(nullptr), m_nSize(size),
          m_nWriteAvailable(0) {
        if (size > 0) {
            m_pBegin = new CharT[static_cast<std::size_t>(size)];
            m_pEnd = m_pBegin + size;
            m_pRead = m_pBegin;
            m_pWrite = m_pBegin;
            m_nWriteAvailable = size;
        }
    }
    ~basic_ringbuf() {
        delete[] m_pBegin;
        m_pBegin = m_pEnd = m_pRead = m_pWrite = nullptr;
        m_nSize = 0;
        m_nWriteAvailable = 0;
    }
    basic_ringbuf(const basic_ringbuf &) = delete;
    basic_ringbuf & operator=(const basic_ringbuf &) = delete;

    // Copies min(count, writeAvailable()) characters and returns how many; 0 for a count that
    // is not positive. Reaching the end of the storage wraps the write side at once.
    virtual std::int64_t write(const CharT * const & data, const std::int64_t & count) {
        const std::int64_t n = count < m_nWriteAvailable ? count : m_nWriteAvailable;
        if (n <= 0) {
            return 0;
        }
        if (m_pWrite + n >= m_pEnd) {
            const std::int64_t first = m_pEnd - m_pWrite;
            Traits::copy(m_pWrite, data, static_cast<std::size_t>(first));
            m_pWrite = m_pBegin;
            m_nWriteAvailable -= first;
            const std::int64_t rest = n - first;
            if (rest > 0) {
                Traits::copy(m_pWrite, data + first, static_cast<std::size_t>(rest));
                m_pWrite += rest;
                m_nWriteAvailable -= rest;
            }
        } else {
            Traits::copy(m_pWrite, data, static_cast<std::size_t>(n));
            m_pWrite += n;
            m_nWriteAvailable -= n;
        }
        return n;
    }

    std::int64_t size() const { return m_nSize; }
    std::int64_t writeAvailable() const { return m_nWriteAvailable; }
    // The pointers may be equal both when empty and when full; the counter tells which.
    std::int64_t readAvailable() const { return m_nSize - m_nWriteAvailable; }

    // The readable characters that lie in one piece from the read side; a wrapped content
    // takes two pieces.
    const CharT * readPointer() const { return m_pRead; }
    std::int64_t readPieceLength() const {
        const CharT * stop = m_pRead + readAvailable();
        if (stop > m_pEnd) {
            stop = m_pEnd;
        }
        return stop - m_pRead;
    }
    // Marks `count` characters of the current piece as taken out.
    void consume(std::int64_t count) {
        m_pRead += count;
        if (m_pRead >= m_pEnd) {
            m_pRead = m_pBegin;
        }
        m_nWriteAvailable += count;
    }

    // For trace lines only.
    std::string toString() const {
        std::ostringstream text;
        text << "{ readAvailable=" << readAvailable() << ", writeAvailable=" << m_nWriteAvailable
             << ", size=" << m_nSize << " }";
        return text.str();
    }

private:
    CharT * m_pBegin;
    CharT * m_pEnd;
    CharT * m_pRead;
    CharT * m_pWrite;
    std::int64_t m_nSize;
    std::int64_t m_nWriteAvailable;
};

}  // namespace tools
