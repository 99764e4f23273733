// ProxyResolver::PlatformResolver: the proxy texts for a URL from this system's
// configuration. The static settings come from the proxy variables of the environment
// (http_proxy, https_proxy, all_proxy, no_proxy; the lower-case name wins); PAC scripts,
// WPAD and the desktop's settings are evaluated by an IProxyDiscovery. Owned by its
// Resolver. Any thread, several at once: nothing is cached, every call reads anew.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "proxy/proxydiscovery.h"
#include "proxy/proxyresolver.h"

namespace ProxyResolver {

class PlatformResolver : public IPlatformResolver {
public:
    // Discovery through libproxy.
    PlatformResolver();
    // Discovery through `discovery`; null stands for a system whose settings cannot be read.
    explicit PlatformResolver(std::unique_ptr<IProxyDiscovery> discovery);
    ~PlatformResolver() override;
    PlatformResolver(const PlatformResolver &) = delete;
    PlatformResolver & operator=(const PlatformResolver &) = delete;

    // Caller's thread; blocks while discovery runs. Throws as the three-argument form does.
    void resolve(const char * uri, std::vector<std::string> & proxies) override;

    // The proxy text and bypass text that apply to `uri`, in the grammar of parse. Throws
    // ProxyResolver::Exception (-2) for a null or not UTF-8 `uri`, and std::runtime_error
    // when the settings cannot be read at all. A failure of discovery is logged and the
    // static settings are used.
    void resolve(const char * uri, std::string & proxy, std::string & proxyBypass);

    // Appends to `proxies` the entries of `proxy` that serve the scheme of `uri`, unless the
    // host of `uri` is in `proxyBypass`. Both lists are separated by ";" and " ". A proxy
    // entry "scheme=address" serves only that scheme (case counts), a bare address every
    // scheme. A bypass entry is a wildcard pattern on the host, or "<local>" for a host
    // without a dot. Pure logic; never throws but for memory.
    static void parse(const char * uri, const std::string & proxy, const std::string & proxyBypass,
                      std::vector<std::string> & proxies);

private:
    // The evaluator of automatic configuration, shared by all calls.
    std::unique_ptr<IProxyDiscovery> m_session;
};

}  // namespace ProxyResolver
