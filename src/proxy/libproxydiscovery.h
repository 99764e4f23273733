// ProxyResolver::LibproxyDiscovery: automatic proxy configuration through libproxy, which
// reads pac+URL and wpad:// from the proxy variables and the desktop's settings when none
// is set, fetches PAC scripts and runs them. Owns one libproxy factory; any thread.
#pragma once

#include <memory>
#include <mutex>

#include "proxy/proxydiscovery.h"

struct pxProxyFactory_;

namespace ProxyResolver {

class LibproxyDiscovery : public IProxyDiscovery {
public:
    // Null when libproxy cannot make its factory.
    static std::unique_ptr<IProxyDiscovery> create();
    ~LibproxyDiscovery() override;
    LibproxyDiscovery(const LibproxyDiscovery &) = delete;
    LibproxyDiscovery & operator=(const LibproxyDiscovery &) = delete;

    bool getProxies(const std::string & uri, std::vector<std::string> & answers) override;

private:
    explicit LibproxyDiscovery(pxProxyFactory_ * factory) : m_factory(factory) {}

    // The factory caches the PAC script it fetched; calls into it are taken one at a time.
    std::mutex m_mutex;
    pxProxyFactory_ * m_factory;  // guarded by m_mutex
};

}  // namespace ProxyResolver
