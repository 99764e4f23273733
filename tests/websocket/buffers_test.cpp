// The output ring, the message queue and the engine's log streams, driven in memory: one byte
// at a time, across the wrap point, against a full ring, and with a reader that stops at the
// Nth byte, for every N.
#include <gtest/gtest.h>

#include <deque>
#include <string>

#include "logcapture.h"
#include "pattern.h"
#include "websocket/framemask.h"
#include "websocket/logoutputstream.h"
#include "websocket/messagebuffer.h"
#include "websocket/payloadpool.h"
#include "websocket/ringbuf.h"

namespace {

using Ring = tools::basic_ringbuf<char, std::char_traits<char>>;

// What a drain does with the ring: the contiguous pieces, at most `limit` bytes in all
// (a socket that would block after that).
std::string drain(Ring & ring, std::int64_t limit) {
    std::string out;
    while (ring.readAvailable() > 0 && limit > 0) {
        std::int64_t piece = std::min(ring.readPieceLength(), limit);
        out.append(ring.readPointer(), static_cast<std::size_t>(piece));
        ring.consume(piece);
        limit -= piece;
    }
    return out;
}

TEST(RingBuffer, FullRingRefusesAndPartialRoomIsFilled) {
    Ring ring(8);
    EXPECT_EQ(ring.write("abcdefgh", 8), 8);
    EXPECT_EQ(ring.writeAvailable(), 0);
    EXPECT_EQ(ring.readAvailable(), 8);
    EXPECT_EQ(ring.write("x", 1), 0);
    EXPECT_EQ(drain(ring, 3), "abc");
    EXPECT_EQ(ring.write("12345", 5), 3);
    EXPECT_EQ(drain(ring, 100), "defgh123");
    EXPECT_EQ(ring.readAvailable(), 0);
}

TEST(RingBuffer, WithoutCapacityOrWithNegativeCountNothingIsWritten) {
    for (std::int64_t size : {0, -5}) {
        Ring ring(size);
        EXPECT_EQ(ring.write("abc", 3), 0);
        EXPECT_EQ(ring.writeAvailable(), 0);
        EXPECT_EQ(ring.size(), size);
    }
    Ring ring(4);
    EXPECT_EQ(ring.write("abc", -1), 0);
    EXPECT_EQ(ring.writeAvailable(), 4);
}

// Writes of every size from 1 to 2*capacity against drains that take at most N bytes, for
// every N: the bytes come out complete and in order, whatever the wrap points (writes that
// end exactly at the end of the ring among them).
TEST(RingBuffer, StreamSurvivesEveryWriteAndDrainSize) {
    const std::string input = corvane_test::Pattern(4000);
    for (std::int64_t limit = 1; limit <= 17; ++limit) {
        Ring ring(13);
        std::string output;
        std::size_t written = 0;
        std::size_t step = 0;
        while (output.size() < input.size()) {
            std::int64_t chunk = static_cast<std::int64_t>(step++ % 26 + 1);
            chunk = std::min<std::int64_t>(chunk, static_cast<std::int64_t>(input.size() - written));
            written += static_cast<std::size_t>(ring.write(input.data() + written, chunk));
            ASSERT_GE(ring.writeAvailable(), 0);
            ASSERT_LE(ring.readAvailable(), 13);
            output += drain(ring, limit);
        }
        EXPECT_EQ(output, input) << "drain limit " << limit;
    }
}

TEST(MessageBuffer, ReadCrossesMessageBoundaries) {
    websocket::MessageBuffer buffer;
    buffer.addMessage("12345");
    buffer.addMessage("abcdefg");
    char out[16] = {};
    EXPECT_EQ(buffer.recv(0, out), 0);
    EXPECT_EQ(buffer.size(), 12u);
    EXPECT_EQ(buffer.recv(8, out), 8);
    EXPECT_EQ(std::string(out, 8), "12345abc");
    EXPECT_EQ(buffer.size(), 4u);
    // A message read in several pieces goes on where the last piece ended.
    EXPECT_EQ(buffer.recv(2, out), 2);
    EXPECT_EQ(std::string(out, 2), "de");
    EXPECT_EQ(buffer.recv(16, out), 2);
    EXPECT_EQ(std::string(out, 2), "fg");
    EXPECT_TRUE(buffer.empty());
    EXPECT_EQ(buffer.recv(16, out), 0);
    // An empty message is queued, and dropped without a byte.
    buffer.addMessage("");
    EXPECT_FALSE(buffer.empty());
    EXPECT_EQ(buffer.recv(4, out), 0);
    EXPECT_TRUE(buffer.empty());
}

// Payload storage comes back empty and large enough, the pool stays bounded, and a message
// read to its end gives its storage back for the next one.
TEST(PayloadPool, ReusesBoundedStorage) {
    using websocket::PayloadPool;
    while (PayloadPool::keptOnThisThread() > 0) {
        PayloadPool::take(0);
    }
    for (int i = 0; i < 6; ++i) {
        PayloadPool::give(std::string(8192 + i, 'x'));
    }
    PayloadPool::give(std::string(16, 's'));
    PayloadPool::give(std::string(PayloadPool::kMaxKeptCapacity + 1, 'l'));
    EXPECT_EQ(PayloadPool::keptOnThisThread(), PayloadPool::kMaxKeptStrings);
    std::string small = PayloadPool::take(100);
    EXPECT_TRUE(small.empty());
    EXPECT_GE(small.capacity(), 8192u);
    std::string large = PayloadPool::take(100000);
    EXPECT_TRUE(large.empty());
    EXPECT_GE(large.capacity(), 100000u);
    EXPECT_EQ(PayloadPool::keptOnThisThread(), PayloadPool::kMaxKeptStrings - 2);
    while (PayloadPool::keptOnThisThread() > 0) {
        PayloadPool::take(0);
    }

    websocket::MessageBuffer buffer;
    std::string message = corvane_test::Pattern(10000);
    const char * storage = message.data();
    buffer.addMessage(std::move(message));
    std::string out(10000, '\0');
    EXPECT_EQ(buffer.recv(9999, &out[0]), 9999);
    EXPECT_EQ(PayloadPool::keptOnThisThread(), 0u);
    EXPECT_EQ(buffer.recv(10, &out[9999]), 1);
    EXPECT_EQ(out, corvane_test::Pattern(10000));
    EXPECT_EQ(PayloadPool::take(5000).data(), storage);
}

class ChunkReader : public net::IChannelHandler {
public:
    explicit ChunkReader(int chunk, int stopAfter = -1) : m_chunk(chunk), m_stopAfter(stopAfter) {}
    bool hasPendingWrite() override { return false; }
    void onRead(net::IReadDataStream * stream) override {
        ++calls;
        if (m_stopAfter >= 0 && calls > m_stopAfter) {
            return;
        }
        char buffer[64];
        int n = stream->recv(m_chunk, buffer);
        if (n > 0) {
            received.append(buffer, static_cast<std::size_t>(n));
        }
    }
    void onWrite(net::IWriteDataStream *) override {}
    void onClose() override {}
    int calls = 0;
    std::string received;

private:
    int m_chunk;
    int m_stopAfter;
};

TEST(MessageBuffer, DeliverToRunsUntilTheHandlerStopsTaking) {
    const std::string a = corvane_test::Pattern(23), b = corvane_test::Pattern(9, 100), c = corvane_test::Pattern(31, 200);
    for (int chunk = 1; chunk <= 40; ++chunk) {
        websocket::MessageBuffer buffer;
        buffer.addMessage(a);
        buffer.addMessage(b);
        buffer.addMessage(c);
        Common::SmartPtr<ChunkReader> reader(new ChunkReader(chunk));
        EXPECT_TRUE(buffer.deliverTo(reader.get()));
        EXPECT_EQ(reader->received, a + b + c) << "chunk " << chunk;
        EXPECT_EQ(buffer.size(), 0u);
    }
    // A reader that stops after N calls leaves the rest queued, byte-exact, for every N.
    for (int stop = 0; stop < 10; ++stop) {  // 10 reads of 5 bytes would take all 54
        websocket::MessageBuffer buffer;
        buffer.addMessage(a);
        buffer.addMessage(c);
        Common::SmartPtr<ChunkReader> reader(new ChunkReader(5, stop));
        EXPECT_FALSE(buffer.deliverTo(reader.get()));
        EXPECT_EQ(reader->calls, stop + 1);
        std::string rest(buffer.size(), '\0');
        EXPECT_EQ(buffer.recv(static_cast<int>(rest.size()), &rest[0]), static_cast<int>(rest.size()));
        EXPECT_EQ(reader->received + rest, a + c);
    }
}

// The word-wise masking against the engine's own byte loop, for payloads cut into pieces of
// every length up to 19 (the key rotating from piece to piece), in place and copying, for the
// key 0 of this system's client and for keys of other clients.
TEST(FrameMask, MatchesTheEngineByteLoopPieceByPiece) {
    const std::string input = corvane_test::Pattern(1000);
    for (std::uint32_t key : {0u, 0x12345678u, 0xff00a5c3u, 0x000000ffu}) {
        websocketpp::frame::masking_key_type masking;
        masking.i = key;
        for (std::size_t piece = 1; piece <= 19; ++piece) {
            std::string expected = input, copied(input.size(), '\0'), inPlace = input;
            std::size_t engineKey = websocketpp::frame::prepare_masking_key(masking);
            std::size_t copyKey = engineKey, inPlaceKey = engineKey;
            for (std::size_t at = 0; at < input.size(); at += piece) {
                const std::size_t n = std::min(piece, input.size() - at);
                auto * e = reinterpret_cast<std::uint8_t *>(&expected[at]);
                engineKey = websocketpp::frame::byte_mask_circ(e, n, engineKey);
                copyKey = websocket::MaskPayload(reinterpret_cast<const std::uint8_t *>(&input[at]),
                                                 reinterpret_cast<std::uint8_t *>(&copied[at]), n, copyKey);
                auto * p = reinterpret_cast<std::uint8_t *>(&inPlace[at]);
                inPlaceKey = websocket::MaskPayload(p, p, n, inPlaceKey);
                ASSERT_EQ(copyKey, engineKey) << "key " << key << ", piece " << piece << ", at " << at;
                ASSERT_EQ(inPlaceKey, engineKey);
            }
            EXPECT_EQ(copied, expected) << "key " << key << ", piece " << piece;
            EXPECT_EQ(inPlace, expected) << "key " << key << ", piece " << piece;
        }
    }
}

TEST(EngineLogs, ChannelsMapToLevelsAndNames) {
    corvane_test::LogCapture log;
    websocket::AccessLogger<websocketpp::log::alevel> access;
    websocket::ErrorLogger<websocketpp::log::elevel> error;
    access.write(1, "silent until a logger is given");
    access.setLogger(log4cxx::Logger::getLogger("com.ventrel.websocketpp.access"));
    error.setLogger(log4cxx::Logger::getLogger("com.ventrel.websocketpp.error"));
    const std::string a = "com.ventrel.websocketpp.access", e = "com.ventrel.websocketpp.error";

    access.write(1, "c");
    access.write(2, std::string("d"));
    access.write(3, "both");
    access.write(4096, "h");
    access.write(8192, "f");
    access.write(4, "control is dropped");
    access.write(1024, "devel is dropped");
    EXPECT_FALSE(access.static_test(16));
    EXPECT_TRUE(access.dynamic_test(4096));
    error.write(1, "devel is dropped");
    error.write(2, "l");
    error.write(8, "w");
    error.write(16, "e");
    error.write(32, "x");
    error.write(64, "u");

    EXPECT_EQ(log.count(a, "INFO", "[connect] c"), 1u);
    EXPECT_EQ(log.count(a, "INFO", "[disconnect] d"), 1u);
    EXPECT_EQ(log.count(a, "TRACE", "[unknown] both"), 1u);
    EXPECT_EQ(log.count(a, "TRACE", "[http] h"), 1u);
    EXPECT_EQ(log.count(a, "TRACE", "[fail] f"), 1u);
    EXPECT_EQ(log.count(e, "TRACE", "[library] l"), 1u);
    EXPECT_EQ(log.count(e, "INFO", "[warning] w"), 1u);
    EXPECT_EQ(log.count(e, "INFO", "[error] e"), 1u);
    EXPECT_EQ(log.count(e, "ERROR", "[fatal] x"), 1u);
    EXPECT_EQ(log.count(e, "TRACE", "[unknown] u"), 1u);
    EXPECT_EQ(log.events().size(), 10u);
}

}  // namespace
