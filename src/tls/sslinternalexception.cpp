#include "tls/sslinternalexception.h"

#include "common/logging.h"

namespace ssl {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("corvane.ssl.InternalException");
}

InternalException::InternalException(const char * message, bool /*logIt*/) : RuntimeException(message, false) {
    LOG4CXX_WARN(logger, what());
}

InternalException::~InternalException() = default;

}  // namespace ssl
