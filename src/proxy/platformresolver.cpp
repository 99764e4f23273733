#include "proxy/platformresolver.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <strings.h>
#include <utility>

#include "common/logging.h"
#include "proxy/exception.h"
#include "proxy/libproxydiscovery.h"
#include "proxy/noproxy.h"
#include "proxy/wildcard.h"

namespace ProxyResolver {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("ProxyResolver.PlatformResolver");

// The user's standing proxy configuration, read from the environment on every resolve.
// `autoDetect` and `autoConfigUrl` ask for automatic configuration (wpad:// and pac+URL in a
// proxy variable); `desktop` asks for the desktop's settings, taken when no proxy variable
// is set at all.
struct InternetExplorerSettings {
    bool autoDetect = false;
    std::string autoConfigUrl;
    std::string proxy;
    std::string proxyBypass;
    bool desktop = false;
    // no_proxy as set: the hosts it covers go direct, whatever the proxy text or discovery says.
    std::string noProxy;
};

// The proxy text and bypass text that apply to one URL.
struct ProxyInfo {
    std::string proxy;
    std::string proxyBypass;
};

// Strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF, no cut sequence.
bool isValidUtf8(const std::string & text) {
    const auto * p = reinterpret_cast<const unsigned char *>(text.data());
    const auto * end = p + text.size();
    while (p < end) {
        const unsigned char lead = *p;
        int extra;
        unsigned long code;
        unsigned long minimum;
        if (lead < 0x80) {
            ++p;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            extra = 1, code = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            extra = 2, code = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            extra = 3, code = lead & 0x07, minimum = 0x10000;
        } else {
            return false;
        }
        if (end - p <= extra) {
            return false;
        }
        for (int i = 1; i <= extra; ++i) {
            if ((p[i] & 0xC0) != 0x80) {
                return false;
            }
            code = (code << 6) | (p[i] & 0x3F);
        }
        if (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return false;
        }
        p += extra + 1;
    }
    return true;
}

bool startsWithNoCase(const std::string & text, const char * prefix) {
    const std::size_t length = std::strlen(prefix);
    return text.size() >= length && strncasecmp(text.c_str(), prefix, length) == 0;
}

std::string trimmed(const std::string & text) {
    const char * const blanks = " \t\r\n\f\v";
    const std::string::size_type first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Whether `text` can stand as one entry of a proxy or bypass text: UTF-8, no control
// characters, and none of the list separators, which would split it.
bool isWholeEntry(const std::string & text) {
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7F || c == ';' || c == ' ') {
            return false;
        }
    }
    return !text.empty() && isValidUtf8(text);
}

// The address of an http proxy URL as an entry "user:password@host:port": the scheme and
// any path are dropped. Empty if the URL is no http proxy address.
std::string httpProxyAddress(const std::string & url) {
    std::string address = url;
    if (startsWithNoCase(address, "http://")) {
        address.erase(0, 7);
    } else if (address.find("://") != std::string::npos) {
        return std::string();
    }
    address = address.substr(0, address.find('/'));
    return isWholeEntry(address) ? address : std::string();
}

// The value of a proxy variable; the lower-case name wins whenever it is set, so that
// "http_proxy=" switches off an exported HTTP_PROXY for one command.
const char * variable(const char * lowerName, const char * upperName, const char *& usedName) {
    usedName = lowerName;
    if (const char * value = std::getenv(lowerName)) {
        return value;
    }
    usedName = upperName;
    return std::getenv(upperName);
}

void appendEntry(std::string & list, const std::string & entry) {
    if (!list.empty()) {
        list += ';';
    }
    list += entry;
}

// Reads one proxy variable into `settings`: "pac+URL" and "wpad://" ask for automatic
// configuration, "direct://" for none, anything else is the address of an http proxy for
// the schemes of `entryPrefix` ("http=", "https=", or "" for all). Returns whether the
// variable is set to anything. libproxy, which evaluates automatic configuration, reads it
// from http_proxy and https_proxy alone, so all_proxy cannot ask for it.
bool readProxyVariable(const char * lowerName, const char * upperName, const char * entryPrefix,
                       InternetExplorerSettings & settings) {
    const char * name = nullptr;
    const char * raw = variable(lowerName, upperName, name);
    const std::string value = trimmed(raw != nullptr ? raw : "");
    if (value.empty()) {
        return false;
    }
    const bool automatic = startsWithNoCase(value, "pac+") || startsWithNoCase(value, "wpad://");
    if (automatic && *entryPrefix == '\0') {
        LOG4CXX_WARN(logger, "ignoring " << name << "='" << value
                                         << "': a PAC script or WPAD is read from http_proxy and https_proxy only");
        return true;
    }
    if (startsWithNoCase(value, "pac+")) {
        const std::string url = value.substr(4);
        if (!isWholeEntry(url)) {
            LOG4CXX_WARN(logger, "ignoring " << name << "='" << value << "': not a PAC script URL");
        } else if (settings.autoConfigUrl.empty()) {
            settings.autoConfigUrl = url;
        }
        return true;
    }
    if (startsWithNoCase(value, "wpad://")) {
        settings.autoDetect = true;
        return true;
    }
    if (startsWithNoCase(value, "direct://")) {
        return true;
    }
    const std::string address = httpProxyAddress(value);
    // A bare entry holds for every scheme, so its own "=" would be read as a scheme filter.
    if (address.empty() || (*entryPrefix == '\0' && address.find('=') != std::string::npos)) {
        LOG4CXX_WARN(logger, "ignoring " << name << "='" << value << "': not the address of an http proxy");
        return true;
    }
    appendEntry(settings.proxy, entryPrefix + address);
    return true;
}

// no_proxy, a list of names, addresses and patterns separated by commas (blanks and
// semicolons are taken as separators too), as the bypass text of the wildcard matcher: a
// name counts for itself and its subdomains, a leading dot for the subdomains alone. The
// host's decision is NoProxyList's, made first; this text is what the log and a proxy
// answer of discovery carry.
std::string bypassFromNoProxy(const std::string & value) {
    std::string bypass;
    for (const std::string & item : splitNoProxy(value)) {
        if (!isWholeEntry(item)) {
            LOG4CXX_WARN(logger, "ignoring '" << item << "' in no_proxy: not a host name or pattern");
            continue;
        }
        if (item[0] == '.') {
            appendEntry(bypass, "*" + item);
        } else if (item.find_first_of("*?:") != std::string::npos ||
                   item.find_first_not_of("0123456789.") == std::string::npos) {
            // A pattern, "*" among them, or an address: as it stands.
            appendEntry(bypass, item);
        } else {
            appendEntry(bypass, item);
            appendEntry(bypass, "*." + item);
        }
    }
    return bypass;
}

InternetExplorerSettings getInternetExplorerSettings() {
    InternetExplorerSettings settings;
    bool anySet = readProxyVariable("http_proxy", "HTTP_PROXY", "http=", settings);
    anySet = readProxyVariable("https_proxy", "HTTPS_PROXY", "https=", settings) || anySet;
    anySet = readProxyVariable("all_proxy", "ALL_PROXY", "", settings) || anySet;
    const char * name = nullptr;
    const char * noProxy = variable("no_proxy", "NO_PROXY", name);
    settings.noProxy = noProxy != nullptr ? noProxy : "";
    settings.proxyBypass = bypassFromNoProxy(settings.noProxy);
    settings.desktop = !anySet;
    LOG4CXX_INFO(logger, "Retrieved internet explorer settings: AutoDetect=" << (settings.autoDetect ? "True" : "False")
                             << " AutoConfigUrl='" << settings.autoConfigUrl << "' Proxy='" << settings.proxy
                             << "' ProxyBypass='" << settings.proxyBypass << "'");
    return settings;
}

// The http proxies of a discovery answer, as a proxy text: in order, up to the first
// direct connection. Proxies of other kinds cannot carry a CONNECT exchange and are left out.
std::string proxyTextFromAnswer(const std::vector<std::string> & answers) {
    std::string proxy;
    for (const std::string & answer : answers) {
        if (startsWithNoCase(answer, "direct://")) {
            break;
        }
        const std::string address = startsWithNoCase(answer, "http://") ? httpProxyAddress(answer) : std::string();
        if (address.empty()) {
            LOG4CXX_DEBUG(logger, "ignoring the answer '" << answer << "': not an http proxy");
            continue;
        }
        appendEntry(proxy, address);
    }
    return proxy;
}

// The static settings are the starting point and the fall-back; an answer of automatic
// configuration replaces the proxy text. The bypass text of no_proxy stays with a proxy
// answer, so that "*" and subdomain entries hold the same way for every source.
ProxyInfo getProxyInfo(IProxyDiscovery & session, const std::string & uri, const InternetExplorerSettings & settings) {
    ProxyInfo info{settings.proxy, settings.proxyBypass};
    // A host that no_proxy covers goes direct before any discovery: the wildcard test of the
    // bypass text is case-sensitive and knows neither ports nor address ranges.
    const std::string noProxyEntry = NoProxyList(settings.noProxy).match(uri);
    if (!noProxyEntry.empty()) {
        LOG4CXX_DEBUG(logger, "no proxy for '" << uri << "': no_proxy entry '" << noProxyEntry << "'");
        info = ProxyInfo();
        LOG4CXX_INFO(logger, "Using Proxy='' and ProxyBypass='' for uri='" << uri << "'");
        return info;
    }
    bool discover = false;
    if (settings.autoDetect) {
        LOG4CXX_INFO(logger, "Enable autodetect of WPAD / PAC through DHCP and DNS");
        discover = true;
    }
    if (!settings.autoConfigUrl.empty()) {
        LOG4CXX_INFO(logger, "Enable PAC script at '" << settings.autoConfigUrl << "'");
        discover = true;
    }
    if (settings.desktop) {
        LOG4CXX_INFO(logger, "Enable the desktop's proxy settings");
        discover = true;
    }
    if (discover) {
        LOG4CXX_INFO(logger, "Resolving proxy information for '" << uri << "'");
        std::vector<std::string> answers;
        if (!session.getProxies(uri, answers)) {
            LOG4CXX_ERROR(logger, "px_proxy_factory_get_proxies: error: no answer for '" << uri << "'");
        } else {
            info.proxy = proxyTextFromAnswer(answers);
            if (info.proxy.empty()) {
                info.proxyBypass.clear();
            }
        }
    }
    LOG4CXX_INFO(logger, "Using Proxy='" << info.proxy << "' and ProxyBypass='" << info.proxyBypass << "' for uri='" << uri
                                         << "'");
    return info;
}

// Pieces of `text` between the separators ";" and " ", empty ones dropped.
std::vector<std::string> splitList(const std::string & text) {
    std::vector<std::string> pieces;
    std::string::size_type position = 0;
    while (position <= text.size()) {
        std::string::size_type next = text.find_first_of("; ", position);
        if (next == std::string::npos) {
            next = text.size();
        }
        if (next > position) {
            pieces.push_back(text.substr(position, next - position));
        }
        position = next + 1;
    }
    return pieces;
}
}  // namespace

PlatformResolver::PlatformResolver() : m_session(LibproxyDiscovery::create()) {}

PlatformResolver::PlatformResolver(std::unique_ptr<IProxyDiscovery> discovery) : m_session(std::move(discovery)) {}

PlatformResolver::~PlatformResolver() = default;

void PlatformResolver::resolve(const char * uri, std::vector<std::string> & proxies) {
    LOG4CXX_DEBUG(logger, "resolve[vector]('" << (uri != nullptr ? uri : "") << "')");
    std::string proxy;
    std::string proxyBypass;
    resolve(uri, proxy, proxyBypass);
    parse(uri, proxy, proxyBypass, proxies);
}

void PlatformResolver::resolve(const char * uri, std::string & proxy, std::string & proxyBypass) {
    LOG4CXX_TRACE(logger, "resolve[string]('" << (uri != nullptr ? uri : "") << "')");
    if (uri == nullptr || !isValidUtf8(uri)) {
        throw Exception(-2);
    }
    if (!m_session) {
        throw std::runtime_error("unable to get internet explorer settings");
    }
    const InternetExplorerSettings settings = getInternetExplorerSettings();
    ProxyInfo info = getProxyInfo(*m_session, uri, settings);
    proxy = std::move(info.proxy);
    proxyBypass = std::move(info.proxyBypass);
}

void PlatformResolver::parse(const char * uri, const std::string & proxy, const std::string & proxyBypass,
                             std::vector<std::string> & proxies) {
    const std::string url = uri != nullptr ? uri : "";
    LOG4CXX_TRACE(logger, "parse('" << url << "', '" << proxy << "', '" << proxyBypass << "' )");

    std::string scheme;
    std::string::size_type hostStart = 0;
    const std::string::size_type schemeEnd = url.find("://");
    if (schemeEnd == std::string::npos) {
        LOG4CXX_WARN(logger, "unable to determine scheme in '" << url << "', assuming 'http' scheme");
        scheme = "http";
    } else {
        scheme = url.substr(0, schemeEnd);
        hostStart = schemeEnd + 3;
    }
    const std::string::size_type at = url.find('@');
    std::string host = url.substr(at != std::string::npos ? at + 1 : hostStart);
    host = host.substr(0, host.find_first_of("/:"));

    const bool hasDot = host.find('.') != std::string::npos;
    for (const std::string & entry : splitList(proxyBypass)) {
        if ((entry == "<local>" && !hasDot) || wildcardMatch(host, entry)) {
            LOG4CXX_DEBUG(logger, "no proxy for '" << url << "': bypass entry '" << entry << "'");
            return;
        }
    }

    for (const std::string & entry : splitList(proxy)) {
        const std::string::size_type equals = entry.find('=');
        if (equals == std::string::npos) {
            proxies.push_back(entry);
        } else if (entry.compare(0, equals, scheme) == 0) {
            proxies.push_back(entry.substr(equals + 1));
        }
    }
}

}  // namespace ProxyResolver
