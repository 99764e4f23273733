// What every subcommand of the corvane host shares: loading the module, configuring
// log4cxx, and the usage error.
#pragma once

#include <stdexcept>
#include <string>

#include "corvane/corvane.h"

namespace cli {

// A mistake in the command line: printed with the usage hint, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The module named by --module, else $CORVANE_MODULE, else the one built beside this host.
// Throws std::runtime_error with dlerror's text when it cannot be loaded.
net::IModule * loadModule(const std::string & path);
std::string defaultModulePath();

// A console appender on stderr at `level` (TRACE..FATAL, OFF), or the properties file.
void configureLogging(const std::string & level, const std::string & configFile);

}  // namespace cli
