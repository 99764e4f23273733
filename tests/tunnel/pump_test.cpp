// The end point pump without sockets: in-memory streams that move one byte per call, would
// block now and then, and fail at the Nth operation, for every N.
#include <gtest/gtest.h>

#include <string>

#include "logcapture.h"
#include "tunnel/tunnelendpoint.h"

namespace {

// Counts every stream call of a run; the call numbered failAt fails.
struct Operations {
    int done = 0;
    int failAt = -1;
    bool fail() { return ++done == failAt; }
};

class ByteSource final : public net::IReadDataStream {
public:
    ByteSource(std::string data, Operations & ops) : m_data(std::move(data)), m_ops(ops) {}
    int recv(int length, void * buffer) override {
        if (m_ops.fail()) {
            return -1;
        }
        if (length <= 0 || m_pos >= m_data.size()) {
            return 0;
        }
        *static_cast<char *>(buffer) = m_data[m_pos++];
        return 1;
    }
    bool exhausted() const { return m_pos >= m_data.size(); }

private:
    std::string m_data;
    std::size_t m_pos = 0;
    Operations & m_ops;
};

// Takes one byte per call, and nothing on every third call (a socket that would block).
class ByteSink final : public net::IWriteDataStream {
public:
    explicit ByteSink(Operations & ops) : m_ops(ops) {}
    int send(int length, const void * buffer) override {
        if (m_ops.fail()) {
            return -1;
        }
        if (length <= 0 || ++m_calls % 3 == 0) {
            return 0;
        }
        received += *static_cast<const char *>(buffer);
        return 1;
    }
    std::string received;

private:
    int m_calls = 0;
    Operations & m_ops;
};

std::string text(char first, std::size_t size) {
    std::string data;
    for (std::size_t i = 0; i < size; ++i) {
        data += static_cast<char>(first + static_cast<char>(i % 26));
    }
    return data;
}

// A pair without store or channels, ring of 7 bytes so that both rings wrap many times.
// Bytes read before the join must wait in the ring and flow afterwards.
TEST(TunnelPump, EveryFailurePointLeavesAnOrderedPrefixAndAClosedPair) {
    corvane_test::LogCapture log("WARN");
    const std::string forward = text('a', 60);
    const std::string backward = text('A', 45);
    bool completed = false;
    for (int failAt = 1; failAt < 2000 && !completed; ++failAt) {
        Operations ops;
        ops.failAt = failAt;
        Common::SmartPtr<net::TunnelEndPoint::SmartLock> lock(new net::TunnelEndPoint::SmartLock);
        Common::SmartPtr<net::TunnelEndPoint> a(new net::TunnelEndPoint(lock.get(), nullptr, 7));
        Common::SmartPtr<net::TunnelEndPoint> b(new net::TunnelEndPoint(lock.get(), nullptr, 7));
        ByteSource fromClient(forward, ops);
        ByteSource fromTarget(backward, ops);
        ByteSink toTarget(ops);
        ByteSink toClient(ops);

        bool failed = false;
        // As a channel does: a failed stream call ends that channel with onError.
        auto read = [&](net::TunnelEndPoint & endPoint, ByteSource & source) {
            int before = ops.done;
            endPoint.onRead(&source);
            if (ops.failAt > before && ops.failAt <= ops.done) {
                endPoint.onError();
                failed = true;
            }
        };
        auto write = [&](net::TunnelEndPoint & endPoint, ByteSink & sink) {
            int before = ops.done;
            if (endPoint.hasPendingWrite()) {
                endPoint.onWrite(&sink);
            }
            if (ops.failAt > before && ops.failAt <= ops.done) {
                endPoint.onError();
                failed = true;
            }
        };
        for (int i = 0; i < 3 && !failed; ++i) {
            read(*a, fromClient);
        }
        EXPECT_FALSE(b->hasPendingWrite()) << "no peer yet";
        if (!failed) {
            ASSERT_TRUE(net::TunnelEndPoint::JoinPair(a.get(), b.get()));
        } else {
            // As the store does when the accepted side ended while the target was connected.
            net::TunnelEndPoint::JoinPair(a.get(), b.get());
            if (a->afterJoin()) {
                b->close();
            }
        }
        for (int round = 0; round < 1000 && !failed; ++round) {
            read(*a, fromClient);
            if (!failed) write(*b, toTarget);
            if (!failed) read(*b, fromTarget);
            if (!failed) write(*a, toClient);
            if (fromClient.exhausted() && fromTarget.exhausted() && !a->hasPendingWrite() && !b->hasPendingWrite()) {
                break;
            }
        }
        EXPECT_EQ(forward.compare(0, toTarget.received.size(), toTarget.received), 0) << "failAt " << failAt;
        EXPECT_EQ(backward.compare(0, toClient.received.size(), toClient.received), 0) << "failAt " << failAt;
        if (!failed) {
            EXPECT_EQ(toTarget.received, forward);
            EXPECT_EQ(toClient.received, backward);
            completed = true;
            // Closing one half breaks the pair's cycle from both ends.
            a->close();
            EXPECT_FALSE(net::TunnelEndPoint::JoinPair(a.get(), b.get()));
            continue;
        }
        // A failed read still delivers what its end point holds; the surviving side's writes
        // finish the tunnel (the failed side is asked for nothing more by its channel).
        for (int round = 0; round < 100; ++round) {
            if (b->hasPendingWrite()) {
                b->onWrite(&toTarget);
            }
            if (a->hasPendingWrite()) {
                a->onWrite(&toClient);
            }
        }
        EXPECT_EQ(forward.compare(0, toTarget.received.size(), toTarget.received), 0) << "failAt " << failAt;
        EXPECT_EQ(backward.compare(0, toClient.received.size(), toClient.received), 0) << "failAt " << failAt;
        // Closed for good: both halves, with nothing left to write and nothing read any more.
        EXPECT_FALSE(a->hasPendingWrite()) << "failAt " << failAt;
        EXPECT_FALSE(b->hasPendingWrite()) << "failAt " << failAt;
        int after = ops.done;
        a->onRead(&fromClient);
        b->onRead(&fromTarget);
        a->onWrite(&toClient);
        b->onWrite(&toTarget);
        a->close();
        b->onClose();
        EXPECT_EQ(ops.done, after) << "a closed pair still used a stream, failAt " << failAt;
        EXPECT_FALSE(net::TunnelEndPoint::JoinPair(a.get(), b.get()));
    }
    EXPECT_TRUE(completed) << "the run without failure never came";
}

}  // namespace
