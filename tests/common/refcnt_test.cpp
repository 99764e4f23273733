#include "corvane/refcnt.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

struct Counted : public virtual Common::IRefCnt {
    explicit Counted(std::atomic<int> * destroyed) : m_destroyed(destroyed) {}
    ~Counted() override { m_destroyed->fetch_add(1); }
    std::atomic<int> * m_destroyed;
};

// A second interface over the same count, as channels implement several.
struct Other : public virtual Common::IRefCnt {};
struct Both : public Counted, public Other {
    using Counted::Counted;
};

TEST(RefCnt, ConcurrentReleaseOfLastReferencesRunsDestructorOnce) {
    constexpr int rounds = 300;
    constexpr int threads = 4;
    for (int round = 0; round < rounds; ++round) {
        std::atomic<int> destroyed{0};
        std::atomic<int> ready{0};
        std::vector<Common::SmartPtr<Counted>> holders;
        {
            Common::SmartPtr<Counted> first(new Counted(&destroyed));
            for (int i = 0; i < threads; ++i) {
                holders.push_back(first);
            }
        }
        ASSERT_EQ(holders[0]->refCount(), threads);
        std::vector<std::thread> workers;
        for (int i = 0; i < threads; ++i) {
            workers.emplace_back([&, i] {
                ready.fetch_add(1);
                while (ready.load() < threads) {
                    std::this_thread::yield();
                }
                holders[static_cast<size_t>(i)] = nullptr;
            });
        }
        for (auto & w : workers) {
            w.join();
        }
        ASSERT_EQ(destroyed.load(), 1) << "round " << round;
    }
}

TEST(SmartPtr, SelfAssignmentOfLastReferenceKeepsObjectAlive) {
    std::atomic<int> destroyed{0};
    Common::SmartPtr<Counted> p(new Counted(&destroyed));
    Counted * raw = p.get();
    p = raw;
    EXPECT_EQ(destroyed.load(), 0);
    EXPECT_EQ(p->refCount(), 1);
    p = p;
    EXPECT_EQ(destroyed.load(), 0);
    p = nullptr;
    EXPECT_EQ(destroyed.load(), 1);
    EXPECT_FALSE(p);
}

// Counted objects start at 0, for the first SmartPtr to take them.
TEST(SmartPtr, InterfacesOfOneObjectShareOneCount) {
    std::atomic<int> destroyed{0};
    Both * raw = new Both(&destroyed);
    EXPECT_EQ(raw->refCount(), 0);
    Common::SmartPtr<Both> both(raw);
    Common::SmartPtr<Other> other(both.get());
    Common::SmartPtrToConst<Counted> counted(both.get());
    EXPECT_EQ(both->refCount(), 3);
    both = nullptr;
    other = nullptr;
    EXPECT_EQ(destroyed.load(), 0);
    counted = nullptr;
    EXPECT_EQ(destroyed.load(), 1);
}

}  // namespace
