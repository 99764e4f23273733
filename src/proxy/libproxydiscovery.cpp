#include "proxy/libproxydiscovery.h"

#include <proxy.h>

#include <mutex>

namespace ProxyResolver {

namespace {
struct SharedFactory {
    std::mutex mutex;
    pxProxyFactory * factory = nullptr;  // guarded by mutex
};

// Freeing a factory unloads libproxy's PAC runner (JavaScriptCore) while threads of that
// engine still run, so a process that frees one factory and later uses another crashes.
// One factory therefore serves the whole process and is never freed; this also makes its
// start-up cost (some milliseconds with the PAC runner) and its fetch of a PAC script a
// one-time cost, where transports make a resolver per connection.
SharedFactory * sharedFactory() {
    static SharedFactory * const shared = []() -> SharedFactory * {
        pxProxyFactory * factory = px_proxy_factory_new();
        if (factory == nullptr) {
            return nullptr;
        }
        auto * created = new SharedFactory;
        created->factory = factory;
        return created;
    }();
    return shared;
}
}  // namespace

std::unique_ptr<IProxyDiscovery> LibproxyDiscovery::create() {
    if (sharedFactory() == nullptr) {
        return nullptr;
    }
    return std::unique_ptr<IProxyDiscovery>(new LibproxyDiscovery());
}

bool LibproxyDiscovery::getProxies(const std::string & uri, std::vector<std::string> & answers) {
    SharedFactory * shared = sharedFactory();
    std::lock_guard<std::mutex> guard(shared->mutex);
    char ** proxies = px_proxy_factory_get_proxies(shared->factory, uri.c_str());
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
