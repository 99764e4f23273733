// What every subcommand of the corvane host shares: loading the module, configuring
// log4cxx, and the usage error.
#pragma once

#include <stdexcept>
#include <string>
#include <vector>

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

// What a subcommand gets: the loaded module and its path. Arguments follow the command name.
struct Context {
    net::IModule * module = nullptr;
    std::string modulePath;
};

// The host's sockets close gracefully (no linger-0 reset), so that data already written
// reaches the peer when a channel closes, and listen with a backlog that takes a burst.
inline net::SocketOptions hostSocketOptions() {
    net::SocketOptions options;
    options.linger = false;
    options.backlog = 128;
    return options;
}

// Blocks SIGINT and SIGTERM in the calling thread and every thread it starts later, so that
// they can be awaited with waitForStopSignal. Call it first in main.
void blockStopSignals();
// Waits until SIGINT or SIGTERM arrives, or until `milliseconds` passed (negative: no limit).
// Returns the signal number, or 0 on time-out.
int waitForStopSignal(int milliseconds = -1);

// The value that follows args[i] (which names an option), or UsageError.
std::string optionValue(const std::vector<std::string> & args, size_t & i);

// A console appender on stderr at `level` (TRACE..FATAL, OFF), or the properties file.
void configureLogging(const std::string & level, const std::string & configFile);

}  // namespace cli
