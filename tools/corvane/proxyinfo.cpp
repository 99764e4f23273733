#include "proxyinfo.h"

#include <iostream>
#include <memory>
#include <stdexcept>

#include "corvane/uri.h"
#include "host.h"
#include "proxy/proxyresolver.h"

namespace cli {

int commandProxyInfo(const std::vector<std::string> & args) {
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        std::cout << "usage: corvane proxy-info URL\n\n"
                     "Prints the proxies that a connection to URL would try, in order, one per line,\n"
                     "and DIRECT last: a direct connection is always the final attempt. The answer\n"
                     "comes from http_proxy, https_proxy, all_proxy and no_proxy (or their upper-case\n"
                     "forms), and from a PAC script (pac+URL), WPAD (wpad://) or the desktop's settings.\n";
        return 0;
    }
    if (args.size() != 1) {
        throw UsageError(args.empty() ? "proxy-info needs a URL" : "proxy-info takes one URL");
    }
    // Connections parse their URI first, and proxy configuration knows only web schemes, so
    // WebSocket URLs are asked as their http twins.
    net::URI uri = net::URI::FromString(args[0]);
    if (uri.getScheme() == "ws") {
        uri.setScheme("http");
    } else if (uri.getScheme() == "wss") {
        uri.setScheme("https");
    }
    std::unique_ptr<ProxyResolver::IResolver> resolver(ProxyResolver::createResolver());
    std::unique_ptr<ProxyResolver::IResult> result;
    try {
        // A PAC script or WPAD may be fetched from a server that never answers.
        StopGuard resolving("finding the proxies for " + args[0]);
        result.reset(resolver->resolve(uri.ToString().c_str()));
    } catch (const ProxyResolver::Exception & e) {
        throw std::runtime_error(std::string("the URL is not valid UTF-8 (") + e.what() + ")");
    }
    for (unsigned int i = 0; i < result->proxyCount(); ++i) {
        std::cout << result->proxy(i).URI() << "\n";
    }
    std::cout << "DIRECT\n";
    return 0;
}

}  // namespace cli
