// Logging goes through log4cxx: one named logger per class in a file-level static, the
// LOG4CXX_* macros test the level before the message is built and pass the location.
// Categories are "corvane." namespace "." class.
#pragma once

#include <log4cxx/logger.h>

namespace Common {

inline log4cxx::LoggerPtr GetLogger(const char * category) {
    return log4cxx::Logger::getLogger(category);
}

}  // namespace Common
