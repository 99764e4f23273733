// The subcommands of the corvane host that live in files of their own.
#pragma once

#include <string>
#include <vector>

#include "host.h"

// corvane tunnel LISTEN_URI TARGET_URI [...]: forwards until SIGINT or SIGTERM.
int commandTunnel(const cli::Context & context, const std::vector<std::string> & args);
