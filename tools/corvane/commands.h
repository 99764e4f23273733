// The subcommands of the corvane host that live in files of their own.
#pragma once

#include <string>
#include <vector>

#include "host.h"

namespace cli {
// corvane serve URI [--echo|--discard] [--options TEXT]
int commandServe(const Context & context, const std::vector<std::string> & args);
// corvane connect URI [--options TEXT] [--wait MS] [--stats]
int commandConnect(const Context & context, const std::vector<std::string> & args);

// The acceptor of `corvane serve`: each connection echoes (`echo`) or discards what it reads.
Common::SmartPtr<net::IChannelAcceptor> makeServeAcceptor(bool echo);

// What `corvane run` takes from the global options; empty texts were not given.
struct RunSettings {
    std::string logLevel;
    std::string logConfig;
    std::string modulePath;
};
// corvane run [--check] FILE: every tunnel and server of FILE in one process; SIGHUP reloads.
int commandRun(const RunSettings & settings, const std::vector<std::string> & args);
}  // namespace cli

// corvane tunnel LISTEN_URI TARGET_URI [...]: forwards until SIGINT or SIGTERM.
int commandTunnel(const cli::Context & context, const std::vector<std::string> & args);
