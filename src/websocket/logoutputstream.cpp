#include "websocket/logoutputstream.h"

#include <log4cxx/spi/location/locationinfo.h>

namespace websocket {
namespace detail {

const char * accessChannelName(unsigned int channel) {
    switch (channel) {
        case 1: return "connect";
        case 2: return "disconnect";
        case 4: return "control";
        case 8: return "frame_header";
        case 16: return "frame_payload";
        case 32: return "message_header";
        case 64: return "message_payload";
        case 128: return "endpoint";
        case 256: return "debug_handshake";
        case 512: return "debug_close";
        case 1024: return "devel";
        case 2048: return "application";
        case 4096: return "http";
        case 8192: return "fail";
        default: return "unknown";
    }
}

const char * errorChannelName(unsigned int channel) {
    switch (channel) {
        case 2: return "library";
        case 4: return "info";
        case 8: return "warning";
        case 16: return "error";
        case 32: return "fatal";
        default: return "unknown";
    }
}

log4cxx::LevelPtr errorChannelLevel(unsigned int channel) {
    switch (channel) {
        case 4: return log4cxx::Level::getInfo();
        case 8: return log4cxx::Level::getWarn();
        case 16:
        case 32: return log4cxx::Level::getError();
        default: return log4cxx::Level::getTrace();
    }
}

void writeLine(const log4cxx::LoggerPtr & logger, const log4cxx::LevelPtr & level, const char * name,
               const char * message) {
    if (!logger->isEnabledFor(level)) {
        return;
    }
    std::string text;
    text.reserve(4 + std::char_traits<char>::length(message));
    text.append("[").append(name).append("] ").append(message);
    logger->forcedLog(level, text, LOG4CXX_LOCATION);
}

}  // namespace detail
}  // namespace websocket
