#include "proxy/result.h"

#include <exception>

#include "common/logging.h"

namespace ProxyResolver {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("ProxyResolver.Result");
}  // namespace

Result::Result(const char * uri) : m_uri(uri != nullptr ? uri : "") {}

void Result::set(const std::vector<std::string> & proxies) {
    LOG4CXX_TRACE(logger, "set( " << proxies.size() << " )");
    m_proxies.clear();
    for (const std::string & text : proxies) {
        // One bad text must not cost the caller the other proxies.
        try {
            Proxy proxy;
            proxy.set(text);
            m_proxies.push_back(proxy);
        } catch (const std::exception & e) {
            LOG4CXX_ERROR(logger, "unable to set '" << text << "' for proxy: " << e.what());
        } catch (...) {
            LOG4CXX_ERROR(logger, "unable to set '" << text << "' for proxy");
        }
    }
}

}  // namespace ProxyResolver
