// LogCapture: records every log4cxx event (category, level, text) in memory for the life
// of the object, so that tests can assert the texts that are part of the contract.
// It resets the log4cxx configuration, so no file in the working directory interferes.
#pragma once

#include <log4cxx/appenderskeleton.h>

#include <mutex>
#include <string>
#include <vector>

namespace corvane_test {

struct LogEvent {
    std::string category;
    std::string level;  // "TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL"
    std::string text;
};

class LogCapture {
public:
    // `level` is the root level while capturing ("TRACE" captures everything).
    explicit LogCapture(const char * level = "TRACE");
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture & operator=(const LogCapture &) = delete;

    std::vector<LogEvent> events() const;
    // Events whose category, level and text match exactly; an empty argument matches any.
    std::size_t count(const std::string & category, const std::string & level, const std::string & text) const;
    // Events of `category` (any if empty) whose text contains `fragment`.
    std::size_t countContaining(const std::string & category, const std::string & fragment) const;
    void clear();

private:
    log4cxx::AppenderPtr m_appender;
};

}  // namespace corvane_test
