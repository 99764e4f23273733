// PlatformResolver::parse on any URL, proxy text and bypass text (one a line, each up to a NUL
// as the environment and discovery give them), and
// Proxy::set on each proxy it gives. parse only appends; every proxy is a piece of the proxy
// text without separators; a bypass list either drops every proxy or none; Proxy::set keeps
// its text and finds the host in it.
#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "fields.h"
#include "proxy/platformresolver.h"
#include "proxy/proxy.h"

namespace {

void check(bool condition, const char * what, const std::vector<std::string> & texts) {
    if (!condition) {
        std::cerr << "proxylist_fuzz: " << what << " for url '" << texts[0] << "', proxy '" << texts[1]
                  << "', bypass '" << texts[2] << "'" << std::endl;
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // Silence: the parser logs every call at trace and a URL without scheme at warn.
    log4cxx::Logger::getRootLogger()->setLevel(log4cxx::Level::getOff());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    const auto texts = corvane_fuzz::fields(data, size, 3);
    const std::string url = corvane_fuzz::cText(texts[0]);
    const std::string proxy = corvane_fuzz::cText(texts[1]);
    const std::string bypass = corvane_fuzz::cText(texts[2]);

    const std::string earlier = "earlier; entry";
    std::vector<std::string> proxies{earlier};
    ProxyResolver::PlatformResolver::parse(url.c_str(), proxy, bypass, proxies);
    check(!proxies.empty() && proxies.front() == earlier, "earlier content lost", texts);
    proxies.erase(proxies.begin());

    std::vector<std::string> unbypassed;
    ProxyResolver::PlatformResolver::parse(url.c_str(), proxy, "", unbypassed);
    check(proxies.empty() || proxies == unbypassed, "the bypass list kept some proxies only", texts);

    for (const std::string & entry : unbypassed) {
        check(entry.find_first_of("; ") == std::string::npos, "a proxy with a separator", texts);
        check(proxy.find(entry) != std::string::npos, "a proxy that is not in the proxy text", texts);
        ProxyResolver::Proxy split;
        split.set(entry);
        check(entry == split.URI(), "Proxy::set changed its text", texts);
        check(entry.find(split.host()) != std::string::npos, "a host that is not in the proxy", texts);
    }
    return 0;
}
