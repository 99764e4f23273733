#include "proxy/libproxydiscovery.h"

#include <proxy.h>

namespace ProxyResolver {

std::unique_ptr<IProxyDiscovery> LibproxyDiscovery::create() {
    pxProxyFactory * factory = px_proxy_factory_new();
    if (factory == nullptr) {
        return nullptr;
    }
    return std::unique_ptr<IProxyDiscovery>(new LibproxyDiscovery(factory));
}

LibproxyDiscovery::~LibproxyDiscovery() {
    px_proxy_factory_free(m_factory);
}

bool LibproxyDiscovery::getProxies(const std::string & uri, std::vector<std::string> & answers) {
    std::lock_guard<std::mutex> guard(m_mutex);
    char ** proxies = px_proxy_factory_get_proxies(m_factory, uri.c_str());
    if (proxies == nullptr) {
        return false;
    }
    for (char ** entry = proxies; *entry != nullptr; ++entry) {
        answers.emplace_back(*entry);
    }
    px_proxy_factory_free_proxies(proxies);
    return !answers.empty();
}

}  // namespace ProxyResolver
