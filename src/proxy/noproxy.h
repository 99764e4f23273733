// ProxyResolver::NoProxyList: the hosts that no_proxy sends around every proxy, read the way
// curl and most Linux tools read that variable. Pure logic on one value of the variable; a
// value object, any thread.
#pragma once

#include <string>
#include <vector>

namespace ProxyResolver {

// The entries of a no_proxy value: the non-empty pieces between commas, semicolons and blanks.
std::vector<std::string> splitNoProxy(const std::string & value);

class NoProxyList {
public:
    // `value` is the variable as set: entries separated by commas (blanks and
    // semicolons count as separators too). An entry is
    //   - "*": every host;
    //   - a host name, with or without a leading dot: that name and every name below it, at a
    //     label boundary and case-insensitively ("example.com" and ".example.com" both cover
    //     example.com and a.b.example.com, never notexample.com);
    //   - an IPv4 or IPv6 address, optionally with "/BITS" (CIDR), for hosts given as
    //     addresses; an IPv6 address with a port stands in brackets;
    //   - a pattern with "*" or "?" (such as "10.*"), matched by the wildcard matcher on the
    //     lower-case host;
    // each optionally followed by ":PORT", and then it holds for that port alone.
    explicit NoProxyList(const std::string & value);

    // The entry of the list that covers `url` (scheme://[user@]host[:port]/...), as written in
    // the variable, or an empty text when none does and the proxies apply. A URL without a
    // port has its scheme's port (http and ws 80, https and wss 443).
    std::string match(const std::string & url) const;

private:
    struct Entry {
        std::string text;         // as written, for the log
        std::string host;         // lower case, without leading and trailing dots, brackets, bits
        int port = -1;            // -1: any port
        int bits = -1;            // CIDR prefix length of an address entry; -1: the whole address
        bool all = false;         // "*"
        bool pattern = false;     // holds "*" or "?"
    };
    std::vector<Entry> m_entries;
};

}  // namespace ProxyResolver
