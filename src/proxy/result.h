// ProxyResolver::Result: the proxies for one URL, held by value. Owned by the caller of
// IResolver::resolve; used on the thread that resolved.
#pragma once

#include <string>
#include <vector>

#include "proxy/proxy.h"
#include "proxy/proxyresolver.h"

namespace ProxyResolver {

class Result : public IResult {
public:
    // A null `uri` is kept as the empty text.
    explicit Result(const char * uri);
    ~Result() override = default;

    const char * URI() const override { return m_uri.c_str(); }
    unsigned int proxyCount() const override { return static_cast<unsigned int>(m_proxies.size()); }
    const IProxy & proxy(unsigned int index) const override { return m_proxies[index]; }

    // Replaces the list by one Proxy per text, in order. A text that cannot become a Proxy
    // is logged at error and left out; the others are kept.
    void set(const std::vector<std::string> & proxies);

private:
    std::string m_uri;
    std::vector<Proxy> m_proxies;
};

}  // namespace ProxyResolver
