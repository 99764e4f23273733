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

namespace {
// Taken once when the module loads, before any thread of it runs: the engine writes from the
// reactor and from every connecting thread, and each copy of a level taken from log4cxx
// changes a shared count that the sanitizers cannot see log4cxx itself synchronise.
const log4cxx::LevelPtr kTrace = log4cxx::Level::getTrace();
const log4cxx::LevelPtr kDebug = log4cxx::Level::getDebug();
const log4cxx::LevelPtr kInfo = log4cxx::Level::getInfo();
const log4cxx::LevelPtr kError = log4cxx::Level::getError();
}  // namespace

const log4cxx::LevelPtr & accessChannelLevel(unsigned int channel) {
    return channel == 1 || channel == 2 ? kInfo : kTrace;
}

const log4cxx::LevelPtr & errorChannelLevel(unsigned int channel) {
    // Each endpoint serves one connection: the engine's info, warnings and errors are about
    // what one peer did (a protocol violation, an end without a close frame), worth a line
    // for whoever looks into that connection but no error of the host. Only fatal stays one.
    switch (channel) {
        case 4: return kDebug;
        case 8:
        case 16: return kInfo;
        case 32: return kError;
        default: return kTrace;
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
