// A running reactor and a channel factory for a test, and the check at its end that every
// descriptor the test opened is closed again. A derived fixture lets go of its own channels,
// servers and stores in its TearDown before calling this one's.
#pragma once

#include <gtest/gtest.h>

#include "framework/channelfactory.h"
#include "socketio/selectreactor.h"
#include "sockets.h"

namespace corvane_test {

class ChannelTest : public ::testing::Test {
protected:
    void SetUp() override {
        m_descriptors = CountOpenDescriptors();
        net::SocketOptions options;
        options.backlog = 128;  // a burst of clients must not wait for SYN retries
        factory = new net::ChannelFactory(options);
        startReactor(5000, 300000, 5);
    }
    void TearDown() override {
        reactor->stopProcessing();
        factory = nullptr;
        reactor = nullptr;
        EXPECT_EQ(CountOpenDescriptors(), m_descriptors) << "a descriptor leaked";
    }
    // A reactor of the test's own timings in place of the running one.
    void startReactor(int deadSocketCheckInterval, int deadSocketTimeout, int selectTimeout) {
        if (reactor) {
            reactor->stopProcessing();
        }
        reactor = new socketio::SelectReactor(deadSocketCheckInterval, deadSocketTimeout, selectTimeout);
        reactor->startProcessing();
    }

    Common::SmartPtr<net::ChannelFactory> factory;
    Common::SmartPtr<socketio::SelectReactor> reactor;

private:
    int m_descriptors = 0;
};

}  // namespace corvane_test
