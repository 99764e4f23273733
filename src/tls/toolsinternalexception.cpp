#include "tls/toolsinternalexception.h"

#include "common/logging.h"

namespace tools {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.tools.InternalException");
}

InternalException::InternalException(const char * message, bool /*logIt*/) : RuntimeException(message, false) {
    LOG4CXX_WARN(logger, what());
}

InternalException::~InternalException() = default;

}  // namespace tools
