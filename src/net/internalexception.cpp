#include "net/internalexception.h"

#include "common/logging.h"

namespace net {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.net.InternalException");
}

InternalException::InternalException(const char * message, bool /*logIt*/) : RuntimeException(message, false) {
    LOG4CXX_WARN(logger, what());
}

InternalException::~InternalException() = default;

}  // namespace net
