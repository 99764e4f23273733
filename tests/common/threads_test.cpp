#include <pthread.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/conditionvariable.h"
#include "common/lock.h"
#include "common/platformthread.h"
#include "common/timedelta.h"

namespace {

// Hands a value from a worker thread to the test through the condition variable.
struct Worker : public Common::PlatformThread::IDelegate {
    Common::Lock lock;
    Common::ConditionVariable ready{&lock};
    unsigned long id = 0;
    std::string name;

    void ThreadMain() override {
        Common::PlatformThread::SetName("corvane.TunnelCreatorThread");
        char buffer[32] = {};
        pthread_getname_np(pthread_self(), buffer, sizeof buffer);
        Common::ScopedLock guard(&lock);
        name = buffer;
        id = Common::PlatformThread::CurrentId();
        ready.Broadcast();
    }
};

TEST(PlatformThread, RunsDelegateWithOwnIdAndShortenedName) {
    Worker worker;
    void * handle = nullptr;
    ASSERT_TRUE(Common::PlatformThread::Create(0, &worker, &handle));
    {
        Common::ScopedLock guard(&worker.lock);
        while (worker.id == 0) {
            worker.ready.Wait();
        }
    }
    Common::PlatformThread::Join(handle);
    EXPECT_NE(worker.id, Common::PlatformThread::CurrentId());
    EXPECT_NE(Common::PlatformThread::CurrentId(), 0UL);
    EXPECT_EQ(worker.name, "corvane.TunnelC");
}

TEST(PlatformThread, ExplicitStackSizeIsHonouredOrRefused) {
    Worker worker;
    void * handle = nullptr;
    ASSERT_TRUE(Common::PlatformThread::Create(1 << 20, &worker, &handle));
    Common::PlatformThread::Join(handle);
    EXPECT_NE(worker.id, 0UL);
    EXPECT_FALSE(Common::PlatformThread::Create(1, &worker, &handle));
}

// The reactor waits with these: a wait of a few microseconds must not become a busy poll.
TEST(Tick, IsMonotonicMillisecondsAndShortWaitsRoundUp) {
    EXPECT_EQ(Common::TimeDelta(1).InMillisecondsRoundedUp(), 1);
    uint64_t a = Common::GetTickCount64();
    Common::PlatformThread::Sleep(15);
    uint64_t b = Common::GetTickCount64();
    EXPECT_GT(a, 0u);
    EXPECT_GE(b - a, 14u);
    EXPECT_LT(b - a, 5000u);
}

}  // namespace
