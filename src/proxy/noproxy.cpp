#include "proxy/noproxy.h"

#include <arpa/inet.h>

#include <cstring>

#include "proxy/wildcard.h"

namespace ProxyResolver {

namespace {

std::string lowerCase(std::string text) {
    for (char & c : text) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
    return text;
}

// A decimal port or -1 when `text` is none.
int portNumber(const std::string & text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) {
        return -1;
    }
    const int port = std::stoi(text);
    return port <= 65535 ? port : -1;
}

// The address of `text` in network order: 4 bytes for IPv4, 16 for IPv6, 0 for a name.
std::size_t parseAddress(const std::string & text, unsigned char (&address)[16]) {
    if (inet_pton(AF_INET, text.c_str(), address) == 1) {
        return 4;
    }
    if (inet_pton(AF_INET6, text.c_str(), address) == 1) {
        return 16;
    }
    return 0;
}

bool samePrefix(const unsigned char * a, const unsigned char * b, int bits) {
    const int bytes = bits / 8;
    if (std::memcmp(a, b, static_cast<std::size_t>(bytes)) != 0) {
        return false;
    }
    const int rest = bits % 8;
    if (rest == 0) {
        return true;
    }
    const auto mask = static_cast<unsigned char>(0xFF << (8 - rest));
    return (a[bytes] & mask) == (b[bytes] & mask);
}

std::string withoutDots(std::string host) {
    while (!host.empty() && host.front() == '.') {
        host.erase(0, 1);
    }
    while (!host.empty() && host.back() == '.') {
        host.pop_back();
    }
    return host;
}

// The host (lower case, brackets and a trailing dot removed) and port of a URL.
void hostAndPort(const std::string & url, std::string & host, int & port) {
    std::string scheme;
    std::string::size_type start = url.find("://");
    if (start == std::string::npos) {
        scheme = "http";
        start = 0;
    } else {
        scheme = lowerCase(url.substr(0, start));
        start += 3;
    }
    std::string authority = url.substr(start, url.find_first_of("/?#", start) - start);
    const std::string::size_type at = authority.rfind('@');
    if (at != std::string::npos) {
        authority.erase(0, at + 1);
    }
    std::string portText;
    if (!authority.empty() && authority[0] == '[') {
        const std::string::size_type close = authority.find(']');
        host = authority.substr(1, close == std::string::npos ? std::string::npos : close - 1);
        if (close != std::string::npos && close + 1 < authority.size() && authority[close + 1] == ':') {
            portText = authority.substr(close + 2);
        }
    } else {
        const std::string::size_type colon = authority.find(':');
        host = authority.substr(0, colon);
        if (colon != std::string::npos) {
            portText = authority.substr(colon + 1);
        }
    }
    host = lowerCase(host);
    if (!host.empty() && host.back() == '.') {
        host.pop_back();
    }
    port = portNumber(portText);
    if (port < 0) {
        port = scheme == "https" || scheme == "wss" ? 443 : scheme == "http" || scheme == "ws" ? 80 : -1;
    }
}

}  // namespace

std::vector<std::string> splitNoProxy(const std::string & value) {
    std::vector<std::string> items;
    std::string::size_type position = 0;
    while (position < value.size()) {
        const std::string::size_type next = value.find_first_of(",; \t\r\n\f\v", position);
        const std::string item = value.substr(position, next == std::string::npos ? next : next - position);
        position = next == std::string::npos ? value.size() : next + 1;
        if (!item.empty()) {
            items.push_back(item);
        }
    }
    return items;
}

NoProxyList::NoProxyList(const std::string & value) {
    for (const std::string & item : splitNoProxy(value)) {
        Entry entry;
        entry.text = item;
        std::string host = item;
        if (host[0] == '[') {
            const std::string::size_type close = host.find(']');
            if (close == std::string::npos) {
                continue;
            }
            if (close + 1 < host.size()) {
                if (host[close + 1] != ':' || (entry.port = portNumber(host.substr(close + 2))) < 0) {
                    continue;
                }
            }
            host = host.substr(1, close - 1);
        } else if (host.find(':') == host.rfind(':') && host.find(':') != std::string::npos) {
            // One colon: a name or IPv4 address with a port. More: an IPv6 address alone.
            const std::string::size_type colon = host.find(':');
            if ((entry.port = portNumber(host.substr(colon + 1))) < 0) {
                continue;
            }
            host.erase(colon);
        }
        const std::string::size_type slash = host.find('/');
        if (slash != std::string::npos) {
            const std::string bits = host.substr(slash + 1);
            if (bits.empty() || bits.size() > 3 || bits.find_first_not_of("0123456789") != std::string::npos) {
                continue;
            }
            entry.bits = std::stoi(bits);
            host.erase(slash);
        }
        entry.host = withoutDots(lowerCase(host));
        entry.all = entry.host == "*";
        entry.pattern = !entry.all && entry.host.find_first_of("*?") != std::string::npos;
        if (entry.host.empty() && !entry.all) {
            continue;
        }
        m_entries.push_back(std::move(entry));
    }
}

std::string NoProxyList::match(const std::string & url) const {
    std::string host;
    int port = -1;
    hostAndPort(url, host, port);
    unsigned char hostAddress[16];
    const std::size_t hostLength = parseAddress(host, hostAddress);
    for (const Entry & entry : m_entries) {
        if (entry.port >= 0 && entry.port != port) {
            continue;
        }
        if (entry.all) {
            return entry.text;
        }
        if (entry.pattern) {
            if (wildcardMatch(host, entry.host)) {
                return entry.text;
            }
            continue;
        }
        unsigned char entryAddress[16];
        const std::size_t entryLength = parseAddress(entry.host, entryAddress);
        if (entryLength != 0 || hostLength != 0) {
            // Addresses compare as addresses, names as names: a name never covers an address.
            const int bits = entry.bits < 0 ? static_cast<int>(entryLength * 8) : entry.bits;
            if (entryLength == hostLength && bits <= static_cast<int>(entryLength * 8) &&
                samePrefix(entryAddress, hostAddress, bits)) {
                return entry.text;
            }
            continue;
        }
        if (entry.bits >= 0) {
            continue;  // bits after a name mean nothing
        }
        if (host == entry.host || (host.size() > entry.host.size() &&
                                   host.compare(host.size() - entry.host.size(), std::string::npos, entry.host) == 0 &&
                                   host[host.size() - entry.host.size() - 1] == '.')) {
            return entry.text;
        }
    }
    return std::string();
}

}  // namespace ProxyResolver
