// A channel acceptor for tests: hands out a new handler per connection (an echo handler
// unless the test says otherwise), or refuses, or throws, as the test queues its answers.
// Keeps every accepted channel and handler for the test to look at.
#pragma once

#include <functional>
#include <mutex>
#include <stdexcept>
#include <vector>

#include "corvane/channel.h"
#include "recordinghandler.h"

namespace corvane_test {

class TestAcceptor : public net::IChannelAcceptor {
public:
    enum class Answer { Echo, Refuse, Throw };

    net::IChannelHandler * accept(net::IChannel * channel) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        Answer answer = answers.empty() ? Answer::Echo : answers.front();
        if (!answers.empty()) {
            answers.erase(answers.begin());
        }
        if (answer == Answer::Throw) {
            throw std::runtime_error("acceptor says no");
        }
        if (answer == Answer::Refuse) {
            return nullptr;
        }
        handlers.emplace_back(makeHandler ? makeHandler() : new EchoHandler);
        channels.emplace_back(channel);
        return handlers.back().get();
    }
    size_t accepted() {
        std::lock_guard<std::mutex> guard(m_mutex);
        return handlers.size();
    }

    std::vector<Answer> answers;
    std::function<RecordingHandler *()> makeHandler;
    std::vector<Common::SmartPtr<RecordingHandler>> handlers;
    std::vector<Common::SmartPtr<net::IChannel>> channels;

private:
    std::mutex m_mutex;
};

}  // namespace corvane_test
