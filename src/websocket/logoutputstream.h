// The engine's two log streams, bound to log4cxx. The engine creates one AccessLogger and one
// ErrorLogger per endpoint and owns them; the endpoint's owner hands each its log4cxx logger
// in its constructor, before any engine activity, and until then both are silent. Filtering
// is done here and answered by the static and dynamic tests, so that the engine does not even
// prepare a line that would be dropped. Any thread: no state besides the logger pointer.
#pragma once

#include <log4cxx/logger.h>

#include <string>

#include <websocketpp/logger/levels.hpp>

namespace websocket {

namespace detail {
// Access channels kept: connect, disconnect, http, fail.
constexpr unsigned int kAccessChannels = 0x3003;
const char * accessChannelName(unsigned int channel);
const char * errorChannelName(unsigned int channel);
// The level of an error channel; null for the channels that are never logged (none, devel).
const log4cxx::LevelPtr & errorChannelLevel(unsigned int channel);
// Connects and disconnects are the events an operator wants (Info); the rest is detail (Trace).
const log4cxx::LevelPtr & accessChannelLevel(unsigned int channel);
void writeLine(const log4cxx::LoggerPtr & logger, const log4cxx::LevelPtr & level, const char * name,
               const char * message);
}  // namespace detail

template <typename Names>
class AccessLogger {
public:
    using level = websocketpp::log::level;

    explicit AccessLogger(websocketpp::log::channel_type_hint::value = websocketpp::log::channel_type_hint::access) {}
    AccessLogger(level, websocketpp::log::channel_type_hint::value) {}

    void setLogger(const log4cxx::LoggerPtr & logger) { m_logger = logger; }
    void set_channels(level) {}
    void clear_channels(level) {}

    void write(level channel, const std::string & message) { write(channel, message.c_str()); }
    void write(level channel, const char * message) {
        if (!m_logger || (channel & detail::kAccessChannels) == 0) {
            return;
        }
        detail::writeLine(m_logger, detail::accessChannelLevel(channel), detail::accessChannelName(channel), message);
    }

    constexpr bool static_test(level channel) const { return (channel & detail::kAccessChannels) != 0; }
    bool dynamic_test(level channel) { return (channel & detail::kAccessChannels) != 0; }

private:
    log4cxx::LoggerPtr m_logger;
};

template <typename Names>
class ErrorLogger {
public:
    using level = websocketpp::log::level;

    explicit ErrorLogger(websocketpp::log::channel_type_hint::value = websocketpp::log::channel_type_hint::error) {}
    ErrorLogger(level, websocketpp::log::channel_type_hint::value) {}

    void setLogger(const log4cxx::LoggerPtr & logger) { m_logger = logger; }
    void set_channels(level) {}
    void clear_channels(level) {}

    void write(level channel, const std::string & message) { write(channel, message.c_str()); }
    void write(level channel, const char * message) {
        if (!m_logger || channel == 0 || channel == 1) {
            return;
        }
        detail::writeLine(m_logger, detail::errorChannelLevel(channel), detail::errorChannelName(channel), message);
    }

    constexpr bool static_test(level channel) const { return channel > 1; }
    bool dynamic_test(level channel) { return channel > 1; }

private:
    log4cxx::LoggerPtr m_logger;
};

}  // namespace websocket
