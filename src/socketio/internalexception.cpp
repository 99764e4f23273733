#include "socketio/internalexception.h"

#include "common/logging.h"

namespace socketio {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.socketio.InternalException");
}

InternalException::InternalException(const char * message, bool logIt) : RuntimeException(message, false) {
    if (logIt) {
        LOG4CXX_WARN(logger, what());
    }
}

InternalException::~InternalException() = default;

}  // namespace socketio
