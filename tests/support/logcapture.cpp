#include "logcapture.h"

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/spi/loggingevent.h>

namespace corvane_test {

namespace {
using namespace log4cxx;

// ByteArrayOutputStream of log4cxx 1.0 crashes, so the appender records events itself.
class MemoryAppender : public AppenderSkeleton {
public:
    DECLARE_LOG4CXX_OBJECT(MemoryAppender)
    BEGIN_LOG4CXX_CAST_MAP()
    LOG4CXX_CAST_ENTRY(MemoryAppender)
    LOG4CXX_CAST_ENTRY_CHAIN(AppenderSkeleton)
    END_LOG4CXX_CAST_MAP()

    void close() override {}
    bool requiresLayout() const override { return false; }

    std::vector<LogEvent> snapshot() const {
        std::lock_guard<std::mutex> guard(m_mutex);
        return m_events;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_events.clear();
    }

protected:
    void append(const spi::LoggingEventPtr & event, helpers::Pool &) override {
        std::lock_guard<std::mutex> guard(m_mutex);
        m_events.push_back({event->getLoggerName(), event->getLevel()->toString(), event->getRenderedMessage()});
    }

private:
    mutable std::mutex m_mutex;
    std::vector<LogEvent> m_events;
};

IMPLEMENT_LOG4CXX_OBJECT(MemoryAppender)

MemoryAppender & memory(const AppenderPtr & appender) {
    return dynamic_cast<MemoryAppender &>(*appender);
}
}  // namespace

LogCapture::LogCapture(const char * level) : m_appender(std::make_shared<MemoryAppender>()) {
    BasicConfigurator::resetConfiguration();
    LoggerPtr root = Logger::getRootLogger();
    root->setLevel(Level::toLevel(level));
    root->addAppender(m_appender);
}

LogCapture::~LogCapture() {
    Logger::getRootLogger()->removeAppender(m_appender);
    BasicConfigurator::resetConfiguration();
}

std::vector<LogEvent> LogCapture::events() const {
    return memory(m_appender).snapshot();
}

std::size_t LogCapture::count(const std::string & category, const std::string & level, const std::string & text) const {
    std::size_t n = 0;
    for (const auto & e : events()) {
        if ((category.empty() || e.category == category) && (level.empty() || e.level == level) &&
            (text.empty() || e.text == text)) {
            ++n;
        }
    }
    return n;
}

std::size_t LogCapture::countContaining(const std::string & category, const std::string & fragment) const {
    std::size_t n = 0;
    for (const auto & e : events()) {
        if ((category.empty() || e.category == category) && e.text.find(fragment) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

void LogCapture::clear() {
    memory(m_appender).clear();
}

}  // namespace corvane_test
