#include "websocket/internalexception.h"

#include "common/logging.h"

namespace websocket {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.websocket.InternalException");
}

InternalException::InternalException(const char * message) : InternalException(message, true) {}

InternalException::InternalException(const char * message, bool /*logIt*/) : RuntimeException(message, false) {
    LOG4CXX_WARN(logger, what());
}

InternalException::~InternalException() = default;

}  // namespace websocket
