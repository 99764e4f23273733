// ProxyResolver::LibproxyDiscovery: automatic proxy configuration through libproxy, which
// reads pac+URL and wpad:// from the proxy variables and the desktop's settings when none
// is set, fetches PAC scripts and runs them. All objects share one libproxy factory that
// lives until the process ends; any thread, calls into the factory one at a time.
#pragma once

#include <memory>

#include "proxy/proxydiscovery.h"

namespace ProxyResolver {

class LibproxyDiscovery : public IProxyDiscovery {
public:
    // Null when libproxy cannot make its factory.
    static std::unique_ptr<IProxyDiscovery> create();

    bool getProxies(const std::string & uri, std::vector<std::string> & answers) override;

private:
    LibproxyDiscovery() = default;
};

}  // namespace ProxyResolver
