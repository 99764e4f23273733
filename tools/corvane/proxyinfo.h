// The proxy-info subcommand of the corvane host: asks the library's proxy resolver directly
// (linked in, not through the module) which proxies it would try for a URL.
#pragma once

#include <string>
#include <vector>

namespace cli {

// Prints the proxies for args[0], one per line in the order they would be tried, and
// "DIRECT" last. Throws UsageError for a wrong command line, std::exception when the URL
// or the proxy configuration cannot be used.
int commandProxyInfo(const std::vector<std::string> & args);

}  // namespace cli
