#include "socketio/selectreactor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "common/platformthread.h"
#include "common/timedelta.h"
#include "expect.h"
#include "logcapture.h"
#include "socketio/socketfunctions.h"
#include "sockets.h"

namespace {

using corvane_test::thrownText;
using corvane_test::waitFor;

using socketio::SelectReactor;

// A subscriber over one socket that records what the reactor does to it. Its read path
// behaves as a channel's: data is consumed, end of stream and a closed socket end it.
class Recorder : public socketio::ISelectEventSubscriber {
public:
    explicit Recorder(int fd, short mask = socketio::SELECT_EVENT_READ)
        : m_socket(static_cast<unsigned int>(fd)), m_mask(mask) {
        if (fd >= 0) {
            fcntl(fd, F_SETFL, O_NONBLOCK);
        }
    }

    short getEventMask() noexcept override { return m_mask.load(); }
    void setMask(short mask) { m_mask.store(mask); }
    bool onEvents(const short & events, const std::uint64_t & now) override {
        m_last = now;
        ++eventCount;
        lastEvents = events;
        if (onEvent) {
            onEvent(events);
        }
        if ((events & socketio::SELECT_EVENT_READ) == 0) {
            return true;
        }
        if (m_socket == socketio::INVALID_SOCKET_HANDLE) {
            ++errors;
            return false;
        }
        char buffer[4096];
        ssize_t n = ::recv(static_cast<int>(m_socket), buffer, sizeof buffer, 0);
        if (n > 0) {
            bytes += static_cast<int>(n);
            return true;
        }
        if (n == 0) {
            ++closes;
            return false;
        }
        return errno == EAGAIN;
    }
    unsigned int & getSocket() override { return m_socket; }
    SelectReactor * getReactor() const override { return m_reactor.get(); }
    void setReactor(SelectReactor * reactor, const std::uint64_t & now) override {
        m_reactor = reactor;
        m_last = now;
        (reactor != nullptr ? added : removed)++;
    }
    std::uint64_t getLastEventTime() const override { return exemptFromSweep ? 0 : m_last.load(); }
    bool interestAnnounced() const override { return announced; }

    std::atomic<int> eventCount{0};
    std::atomic<short> lastEvents{0};
    std::atomic<int> bytes{0};
    std::atomic<int> closes{0};
    std::atomic<int> errors{0};
    std::atomic<int> added{0};
    std::atomic<int> removed{0};
    bool exemptFromSweep = false;
    bool announced = false;  // set before registration
    std::function<void(short)> onEvent;  // set before registration

private:
    unsigned int m_socket;
    std::atomic<short> m_mask;
    std::atomic<std::uint64_t> m_last{0};
    Common::SmartPtr<SelectReactor> m_reactor;
};

struct SocketPair {
    int ends[2] = {-1, -1};
    SocketPair() { socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends); }
    ~SocketPair() {
        for (int fd : ends) {
            if (fd >= 0) {
                close(fd);
            }
        }
    }
    // The reactor closes the subscriber's end; the test must not close it again.
    int giveAway() {
        int fd = ends[0];
        ends[0] = -1;
        return fd;
    }
    int peer() const { return ends[1]; }
};

TEST(SelectReactor, StartsAndStopsPromptlyTwiceAndRefusesWhenNotRunning) {
    corvane_test::LogCapture log;
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 20));
    SocketPair pair;
    Common::SmartPtr<Recorder> subscriber(new Recorder(pair.giveAway()));
    EXPECT_EQ(thrownText([&] { reactor->registerSubscriber(subscriber.get()); }),
              "select reactor is no longer operational");
    auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 2; ++i) {
        reactor->startProcessing();
        reactor->stopProcessing();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_EQ(thrownText([&] { reactor->registerSubscriber(subscriber.get()); }),
              "select reactor is no longer operational");
    EXPECT_EQ(log.count("corvane.socketio.InternalException", "WARN", "select reactor is no longer operational"), 2u);
    EXPECT_EQ(subscriber->added.load(), 0) << "a refused registration is not carried out by a later start";
    socketio::SocketClose(subscriber->getSocket());
}

TEST(SelectReactor, ServesSubscribersRegisteredFromAnyThreadAndAfterARestart) {
    int descriptorsBefore = corvane_test::CountOpenDescriptors();
    {
        Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 20));
        reactor->startProcessing();
        reactor->stopProcessing();
        reactor->startProcessing();

        SocketPair first;
        SocketPair second;
        Common::SmartPtr<Recorder> a(new Recorder(first.giveAway()));
        Common::SmartPtr<Recorder> b(new Recorder(second.giveAway()));
        std::atomic<bool> registeredB{false};
        a->onEvent = [&](short) {
            if (!registeredB.exchange(true)) {
                reactor->registerSubscriber(b.get());  // from the reactor thread itself
            }
        };
        reactor->registerSubscriber(a.get());
        EXPECT_EQ(a->added.load(), 1);
        ASSERT_EQ(write(first.peer(), "hello", 5), 5);
        ASSERT_TRUE(waitFor([&] { return a->bytes.load() == 5 && b->added.load() == 1; }));
        ASSERT_EQ(write(second.peer(), "abc", 3), 3);
        ASSERT_TRUE(waitFor([&] { return b->bytes.load() == 3; }));

        reactor->unregisterSubscriber(a.get());
        EXPECT_EQ(a->removed.load(), 1);
        ASSERT_EQ(write(first.peer(), "x", 1), 1);
        // b's end of stream ends it through the reactor, which closes its socket.
        close(second.ends[1]);
        second.ends[1] = -1;
        ASSERT_TRUE(waitFor([&] { return b->closes.load() == 1 && b->removed.load() == 1; }));
        EXPECT_EQ(b->getSocket(), socketio::INVALID_SOCKET_HANDLE);
        EXPECT_EQ(a->bytes.load(), 5) << "an unregistered subscriber sees no more events";
        reactor->stopProcessing();
        socketio::SocketClose(a->getSocket());
    }
    EXPECT_EQ(corvane_test::CountOpenDescriptors(), descriptorsBefore);
}

TEST(SelectReactor, ThousandTwentyFourthSubscriberIsRefusedToItsPoster) {
    ASSERT_TRUE(corvane_test::RaiseDescriptorLimit(4096));
    corvane_test::LogCapture log("WARN");
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 1));
    reactor->startProcessing();
    std::vector<SocketPair> pairs(512);
    std::vector<Common::SmartPtr<Recorder>> subscribers;
    for (auto & pair : pairs) {
        subscribers.emplace_back(new Recorder(pair.ends[0]));
        subscribers.emplace_back(new Recorder(pair.ends[1]));
    }
    // 1023 registrations from eight posting threads.
    std::vector<std::thread> posters;
    std::atomic<int> failures{0};
    for (int t = 0; t < 8; ++t) {
        posters.emplace_back([&, t] {
            for (size_t i = static_cast<size_t>(t); i < 1023; i += 8) {
                try {
                    reactor->registerSubscriber(subscribers[i].get());
                } catch (const std::exception &) {
                    ++failures;
                }
            }
        });
    }
    for (auto & poster : posters) {
        poster.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(thrownText([&] { reactor->registerSubscriber(subscribers[1023].get()); }), "too many open sockets");
    EXPECT_EQ(subscribers[1023]->added.load(), 0);
    EXPECT_EQ(log.count("corvane.socketio.InternalException", "WARN", "too many open sockets"), 1u);

    // A freed place is taken by the next registration.
    reactor->unregisterSubscriber(subscribers[0].get());
    EXPECT_NO_THROW(reactor->registerSubscriber(subscribers[1023].get()));
    reactor->stopProcessing();
    for (auto & pair : pairs) {
        pair.ends[0] = pair.ends[1] = -1;  // the subscribers still own these descriptors
    }
    for (auto & subscriber : subscribers) {
        socketio::SocketClose(subscriber->getSocket());
    }
}

TEST(SelectReactor, ServesADescriptorAbove1023) {
    ASSERT_TRUE(corvane_test::RaiseDescriptorLimit(4096));
    std::vector<int> filler;
    for (int i = 0; i < 1100; ++i) {
        filler.push_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    SocketPair pair;
    ASSERT_GT(pair.ends[0], 1023);
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 20));
    reactor->startProcessing();
    Common::SmartPtr<Recorder> subscriber(new Recorder(pair.giveAway()));
    reactor->registerSubscriber(subscriber.get());
    ASSERT_EQ(write(pair.peer(), "ping", 4), 4);
    EXPECT_TRUE(waitFor([&] { return subscriber->bytes.load() == 4; }));
    reactor->stopProcessing();
    socketio::SocketClose(subscriber->getSocket());
    for (int fd : filler) {
        close(fd);
    }
}

TEST(SelectReactor, SilentSubscriberIsSweptWithAnErrorAndItsPeerSeesAnOrderlyEnd) {
    corvane_test::LogCapture log("WARN");
    socketio::socket_options options;
    options.linger = false;
    unsigned int listener = socketio::SocketListen(net::URI::FromString("tcp://127.0.0.1:0"), options);
    unsigned short port = socketio::SocketLocalURI(listener, true, "tcp").getPort();
    unsigned int client = socketio::SocketConnect(net::URI::FromString("tcp://127.0.0.1:" + std::to_string(port)), options);
    net::URI peer;
    unsigned int accepted = socketio::SocketAccept(listener, peer, options);

    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(40, 200, 20));
    reactor->startProcessing();
    Common::SmartPtr<Recorder> silent(new Recorder(static_cast<int>(accepted)));
    SocketPair exemptPair;
    Common::SmartPtr<Recorder> exempt(new Recorder(exemptPair.giveAway()));
    exempt->exemptFromSweep = true;
    reactor->registerSubscriber(exempt.get());
    auto registered = std::chrono::steady_clock::now();
    reactor->registerSubscriber(silent.get());

    timeval wait{3, 0};
    setsockopt(static_cast<int>(client), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    char byte;
    EXPECT_EQ(::recv(static_cast<int>(client), &byte, 1, 0), 0) << "orderly end, not a reset";
    auto ended = std::chrono::steady_clock::now() - registered;
    EXPECT_GE(ended, std::chrono::milliseconds(200));
    EXPECT_LT(ended, std::chrono::milliseconds(1500));
    ASSERT_TRUE(waitFor([&] { return silent->errors.load() == 1; }));
    EXPECT_EQ(silent->removed.load(), 1);
    EXPECT_EQ(log.count("corvane.socketio.SelectReactor", "WARN",
                        "clearDeadSockets: subscriber to peer '127.0.0.1:" +
                            std::to_string(socketio::SocketLocalURI(client, true, "tcp").getPort()) +
                            "' timed out and is being terminated"),
              1u);
    EXPECT_EQ(exempt->removed.load(), 0) << "a last event time of 0 is never swept";
    reactor->stopProcessing();
    socketio::SocketClose(exempt->getSocket());
    socketio::SocketClose(client);
    socketio::SocketClose(listener);
}

TEST(SelectReactor, SweepPeriodComesFromIntervalOverTimeout) {
    // (10, 50, 20): 10 / 20 is 0 cycles, so nothing is ever swept.
    // (1000, 50, 0): a zero wait sweeps every cycle.
    for (int selectTimeout : {20, 0}) {
        Common::SmartPtr<SelectReactor> reactor(new SelectReactor(selectTimeout == 0 ? 1000 : 10, 50, selectTimeout));
        reactor->startProcessing();
        SocketPair pair;
        Common::SmartPtr<Recorder> silent(new Recorder(pair.giveAway()));
        reactor->registerSubscriber(silent.get());
        bool swept = waitFor([&] { return silent->errors.load() == 1; }, 400);
        EXPECT_EQ(swept, selectTimeout == 0) << "select timeout " << selectTimeout;
        reactor->stopProcessing();
        if (!swept) {
            socketio::SocketClose(silent->getSocket());
        }
    }
}

TEST(SelectReactor, PendingOnlySubscriberIsServedWithoutWaitingForTheTimeout) {
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 2000));
    reactor->startProcessing();
    Common::SmartPtr<Recorder> pending(new Recorder(-1, socketio::SELECT_EVENT_PENDING));
    reactor->registerSubscriber(pending.get());
    EXPECT_TRUE(waitFor([&] { return pending->eventCount.load() >= 5; }, 200));
    EXPECT_EQ(pending->lastEvents.load(), socketio::SELECT_EVENT_PENDING);
    reactor->stopProcessing();
}

// The reactor asks a mask again only where it may have changed: after a wake-up, for a
// subscriber named by interestChanged (on the reactor thread or another), and at the latest
// after one time-out for a change that nobody announced, unless the subscriber announces all
// of its changes.
TEST(SelectReactor, ChangedMasksAreSeenWhenAnnouncedAndAfterOneTimeoutOtherwise) {
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 1000));
    reactor->startProcessing();
    SocketPair first, second, third, fourth;
    Common::SmartPtr<Recorder> host(new Recorder(first.giveAway(), 0));
    Common::SmartPtr<Recorder> named(new Recorder(second.giveAway(), 0));
    Common::SmartPtr<Recorder> silent(new Recorder(third.giveAway(), 0));
    Common::SmartPtr<Recorder> announcing(new Recorder(fourth.giveAway(), 0));
    announcing->announced = true;
    // The first one's read turns the second one's interest on, as a tunnel end point's ring does.
    host->onEvent = [&](short) {
        named->setMask(socketio::SELECT_EVENT_READ);
        reactor->interestChanged(named.get());
    };
    for (auto * subscriber : {host.get(), named.get(), silent.get(), announcing.get()}) {
        reactor->registerSubscriber(subscriber);
    }
    for (int fd : {first.peer(), second.peer(), third.peer(), fourth.peer()}) {
        ASSERT_EQ(send(fd, "x", 1, MSG_NOSIGNAL), 1);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(host->eventCount.load() + named->eventCount.load() + silent->eventCount.load(), 0);

    host->setMask(socketio::SELECT_EVENT_READ);
    reactor->wakeUp();
    EXPECT_TRUE(waitFor([&] { return host->bytes.load() == 1; }, 300)) << "after wakeUp";
    EXPECT_TRUE(waitFor([&] { return named->bytes.load() == 1; }, 300)) << "named on the reactor thread";
    const auto changed = std::chrono::steady_clock::now();
    silent->setMask(socketio::SELECT_EVENT_READ);
    announcing->setMask(socketio::SELECT_EVENT_READ);
    EXPECT_TRUE(waitFor([&] { return silent->bytes.load() == 1; }, 2500)) << "unannounced";
    EXPECT_LT(std::chrono::steady_clock::now() - changed, std::chrono::milliseconds(2200));
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    EXPECT_EQ(announcing->eventCount.load(), 0) << "left to its own announcement";
    const auto namedElsewhere = std::chrono::steady_clock::now();
    reactor->interestChanged(announcing.get());
    EXPECT_TRUE(waitFor([&] { return announcing->bytes.load() == 1; }, 300)) << "named on another thread";
    EXPECT_LT(std::chrono::steady_clock::now() - namedElsewhere, std::chrono::milliseconds(500));
    reactor->stopProcessing();
    for (auto * subscriber : {host.get(), named.get(), silent.get(), announcing.get()}) {
        socketio::SocketClose(subscriber->getSocket());
    }
}

// With a 2 s wait, posted commands and the stop must not wait for the time-out.
TEST(SelectReactor, CommandsFromOtherThreadsEndARunningWait) {
    using Clock = std::chrono::steady_clock;
    Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 2000));
    reactor->startProcessing();
    SocketPair busyPair;
    Common::SmartPtr<Recorder> busy(new Recorder(busyPair.giveAway()));
    reactor->registerSubscriber(busy.get());  // the reactor now sits in poll, not on the empty list
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (int round = 0; round < 5; ++round) {
        SocketPair pair;
        Common::SmartPtr<Recorder> subscriber(new Recorder(pair.ends[0]));
        auto start = Clock::now();
        reactor->registerSubscriber(subscriber.get());
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200)) << "register, round " << round;
        start = Clock::now();
        reactor->unregisterSubscriber(subscriber.get());
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200)) << "unregister, round " << round;
    }
    auto start = Clock::now();
    reactor->stopProcessing();
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(200)) << "stop";
    socketio::SocketClose(busy->getSocket());
}

// A peer that has closed already: the reactor takes the subscriber in, sees the end in its
// first wait and drops it, possibly before the registering thread looks again.
TEST(SelectReactor, SubscriberDroppedAtOnceStillReleasesItsRegisteringThread) {
    int descriptorsBefore = corvane_test::CountOpenDescriptors();
    {
        Common::SmartPtr<SelectReactor> reactor(new SelectReactor(5000, 300000, 20));
        reactor->startProcessing();
        SocketPair busyPair;
        Common::SmartPtr<Recorder> busy(new Recorder(busyPair.giveAway()));
        reactor->registerSubscriber(busy.get());
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::vector<Common::SmartPtr<Recorder>> dropped;
        for (int i = 0; i < 300 && std::chrono::steady_clock::now() < deadline; ++i) {
            SocketPair pair;
            close(pair.ends[1]);
            pair.ends[1] = -1;
            dropped.emplace_back(new Recorder(pair.giveAway()));
            EXPECT_NO_THROW(reactor->registerSubscriber(dropped.back().get()));
        }
        EXPECT_EQ(dropped.size(), 300u) << "registrations too slow";
        for (auto & subscriber : dropped) {
            ASSERT_TRUE(waitFor([&] { return subscriber->closes.load() == 1; }));
            EXPECT_EQ(subscriber->added.load(), 1);
        }
        reactor->stopProcessing();
        socketio::SocketClose(busy->getSocket());
    }
    EXPECT_EQ(corvane_test::CountOpenDescriptors(), descriptorsBefore) << "the wake-up descriptor goes with the reactor";
}

}  // namespace
