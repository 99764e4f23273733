// ProxyResolver::Resolver: turns the platform's proxy texts for a URL into a Result. It owns
// its platform resolver and keeps no state of its own, so it is as safe to share between
// threads as that platform resolver is.
#pragma once

#include "proxy/proxyresolver.h"

namespace ProxyResolver {

class Resolver : public IResolver {
public:
    // Takes ownership of `platformResolver`.
    explicit Resolver(IPlatformResolver * platformResolver);
    ~Resolver() override;
    Resolver(const Resolver &) = delete;
    Resolver & operator=(const Resolver &) = delete;

    // Caller's thread; blocks as long as the platform resolver does. Exceptions of the
    // platform resolver reach the caller and no result is left behind.
    IResult * resolve(const char * uri) override;

private:
    IPlatformResolver * m_platformResolver;
};

}  // namespace ProxyResolver
