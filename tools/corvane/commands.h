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
}  // namespace cli

// corvane tunnel LISTEN_URI TARGET_URI [...]: forwards until SIGINT or SIGTERM.
int commandTunnel(const cli::Context & context, const std::vector<std::string> & args);
