#include "websocket/keepalive.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>

#include "websocket/internalexception.h"

namespace websocket {

namespace {
std::uint64_t millisecondsOf(const net::OptionMap & options, const char * key) {
    const std::string text = options.get(key, "");
    if (text.empty()) {
        return 0;
    }
    char * end = nullptr;
    errno = 0;
    const double seconds = std::strtod(text.c_str(), &end);
    // A day is far beyond any idle limit of a proxy; more is a typing error.
    if (errno != 0 || end == text.c_str() || *end != '\0' || !(seconds >= 0) || seconds > 86400) {
        throw InternalException((std::string(key) + " must be a number of seconds from 0 to 86400, not '" + text + "'").c_str());
    }
    const auto milliseconds = static_cast<std::uint64_t>(std::llround(seconds * 1000));
    // A positive value never rounds to "off".
    return seconds > 0 && milliseconds == 0 ? 1 : milliseconds;
}
}  // namespace

KeepAlive::Settings KeepAlive::FromOptions(const net::OptionMap & options) {
    Settings settings;
    settings.interval = millisecondsOf(options, "PingInterval");
    settings.timeout = millisecondsOf(options, "PingTimeout");
    return settings;
}

KeepAlive::Due KeepAlive::next(std::uint64_t now, const log4cxx::LoggerPtr & log, const std::string & description) {
    const Due due = check(now);
    if (due == Due::Ping) {
        pinged(now);
    } else if (due == Due::Dead) {
        LOG4CXX_WARN(log, "no pong within PingTimeout=" << static_cast<double>(m_settings.timeout) / 1000.0
                                                        << " s after a ping on " << description
                                                        << ": the peer is gone, the connection ends");
    }
    return due;
}

}  // namespace websocket
