#include "proxy/resolver.h"

#include <memory>
#include <string>
#include <vector>

#include "common/logging.h"
#include "proxy/platformresolver.h"
#include "proxy/result.h"

namespace ProxyResolver {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("ProxyResolver.Resolver");
}  // namespace

Resolver::Resolver(IPlatformResolver * platformResolver) : m_platformResolver(platformResolver) {}

Resolver::~Resolver() {
    delete m_platformResolver;
}

IResult * Resolver::resolve(const char * uri) {
    LOG4CXX_TRACE(logger, "resolve('" << (uri != nullptr ? uri : "") << "')");
    std::unique_ptr<Result> result(new Result(uri));
    std::vector<std::string> proxies;
    m_platformResolver->resolve(uri, proxies);
    result->set(proxies);
    return result.release();
}

IResolver * createResolver() {
    return new Resolver(new PlatformResolver());
}

}  // namespace ProxyResolver
