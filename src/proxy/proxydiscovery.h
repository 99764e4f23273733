// ProxyResolver::IProxyDiscovery: the seam between the platform resolver and the system's
// automatic proxy configuration (PAC scripts, WPAD, the desktop's settings). Owned by the
// PlatformResolver that uses it; called from any thread, several at once.
#pragma once

#include <string>
#include <vector>

namespace ProxyResolver {

class IProxyDiscovery {
public:
    virtual ~IProxyDiscovery() = default;
    // Caller's thread; blocks while a PAC script is fetched and run. Fills `answers` with the
    // configuration's answer for `uri`, best first, as URLs: "http://host:port", other
    // proxy schemes, and "direct://" for a direct connection. False when there is no answer
    // at all (the configuration could not be evaluated for this URL).
    virtual bool getProxies(const std::string & uri, std::vector<std::string> & answers) = 0;
};

}  // namespace ProxyResolver
