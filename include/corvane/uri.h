// net::URI: a parsed URI of scheme, user information, host, port, path, query and
// fragment, with value semantics. Header-only so that a host can use it directly.
//
// Grammar (RFC 3986, restricted to what a socket address needs):
//   scheme "://" [ userinfo "@" ] host [ ":" port ] [ "/" path ] [ "?" query ] [ "#" fragment ]
// The scheme starts with a letter, followed by letters, digits, "+", "-" or ".", and is kept
// as written (scheme look-ups are exact). The host is a name or IPv4 address of letters,
// digits, "-", ".", "_", "~", "%" or "*", or an IPv6 literal in brackets, optionally with a
// zone ("[fe80::1%25eth0]"). The port is decimal, 0 to 65535; none (or an empty one) is 0.
// "tcp://" is the empty URI of its scheme. Spaces and control characters are refused
// anywhere. Every refusal is a net::URIException whose text quotes the input.
#pragma once

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <string>

#include "corvane/exception.h"

namespace net {

class URI {
public:
    // Owns the head of an addrinfo list from getaddrinfo and frees it.
    class SocketAddress {
    public:
        SocketAddress() = default;
        SocketAddress(const SocketAddress &) = delete;
        SocketAddress & operator=(const SocketAddress &) = delete;
        ~SocketAddress() { reset(nullptr); }

        const addrinfo * get() const noexcept { return m_head; }
        void reset(addrinfo * head) noexcept {
            if (m_head != nullptr) {
                freeaddrinfo(m_head);
            }
            m_head = head;
        }

    private:
        addrinfo * m_head = nullptr;
    };

    URI() = default;
    URI(const URI &) = default;
    URI & operator=(const URI &) = default;
    ~URI() = default;

    static URI FromString(const std::string & text);

    // The text form; FromString of it gives an equal URI.
    std::string ToString() const;
    std::ostream & Print(std::ostream & stream) const { return stream << ToString(); }

    std::string getScheme() const { return m_scheme; }
    std::string getUserInfo() const { return m_userInfo; }
    std::string getHost() const { return m_host; }
    unsigned short getPort() const { return m_port; }
    std::string getPath() const { return m_path; }
    std::string getQuery() const { return m_query; }
    std::string getFragment() const { return m_fragment; }

    void setScheme(const std::string & scheme) { m_scheme = scheme; }
    void setHost(const std::string & host) { m_host = host; }
    void setPort(const unsigned short & port) { m_port = port; }

    // True for an empty host, "*", and the unspecified addresses 0.0.0.0 and "::".
    bool hostIsAnyInterface() const;

    // A URI of `scheme` naming the numeric address and port of `address`. With
    // unmapIPv4 true an IPv4-mapped IPv6 address ("::ffff:10.1.2.3") reads as plain IPv4,
    // as connected sockets and accepted peers want; false keeps the address as the socket
    // has it (a dual-stack listener stays "[::]").
    static URI FromSockAddr(sockaddr * const address, unsigned int length, bool unmapIPv4, const char * scheme);

    // Resolves host and port with getaddrinfo. With streamOnly true only SOCK_STREAM entries
    // are asked for. An empty or "*" host gives the wildcard addresses.
    void ToSockAddress(SocketAddress & result, bool streamOnly) const;

    bool operator==(const URI & other) const {
        return m_scheme == other.m_scheme && m_userInfo == other.m_userInfo && m_host == other.m_host &&
               m_port == other.m_port && m_path == other.m_path && m_query == other.m_query &&
               m_fragment == other.m_fragment;
    }
    bool operator!=(const URI & other) const { return !(*this == other); }

private:
    [[noreturn]] static void fail(const std::string & text, const char * reason) {
        throw URIException("invalid URI '" + quote(text) + "': " + reason);
    }
    // The text for an error message: non-printable bytes as \xNN, at most 200 bytes.
    static std::string quote(const std::string & text) {
        static const char hex[] = "0123456789abcdef";
        std::string out;
        for (std::size_t i = 0; i < text.size() && i < 200; ++i) {
            auto c = static_cast<unsigned char>(text[i]);
            if (c < 0x20 || c >= 0x7f) {
                out += "\\x";
                out += hex[c >> 4];
                out += hex[c & 0xf];
            } else {
                out += static_cast<char>(c);
            }
        }
        if (text.size() > 200) {
            out += "...";
        }
        return out;
    }
    static bool isAlpha(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
    static bool isDigit(char c) { return c >= '0' && c <= '9'; }
    static bool isHostChar(char c) {
        return isAlpha(c) || isDigit(c) || c == '-' || c == '.' || c == '_' || c == '~' || c == '%' || c == '*';
    }

    std::string m_scheme;
    std::string m_userInfo;
    std::string m_host;
    unsigned short m_port = 0;
    std::string m_path;
    std::string m_query;
    std::string m_fragment;
};

inline URI URI::FromString(const std::string & text) {
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7f) {
            fail(text, "it contains a space or a control character");
        }
    }
    std::size_t schemeEnd = text.find("://");
    if (schemeEnd == std::string::npos) {
        fail(text, "expected scheme://host:port");
    }
    URI uri;
    uri.m_scheme = text.substr(0, schemeEnd);
    if (uri.m_scheme.empty() || !isAlpha(uri.m_scheme[0])) {
        fail(text, "the scheme must start with a letter");
    }
    for (char c : uri.m_scheme) {
        if (!isAlpha(c) && !isDigit(c) && c != '+' && c != '-' && c != '.') {
            fail(text, "the scheme may hold only letters, digits, '+', '-' and '.'");
        }
    }

    std::size_t authorityStart = schemeEnd + 3;
    std::size_t authorityEnd = text.find_first_of("/?#", authorityStart);
    if (authorityEnd == std::string::npos) {
        authorityEnd = text.size();
    }
    std::string authority = text.substr(authorityStart, authorityEnd - authorityStart);

    std::size_t at = authority.find('@');
    if (at != std::string::npos) {
        if (authority.find('@', at + 1) != std::string::npos) {
            fail(text, "more than one '@' before the host");
        }
        uri.m_userInfo = authority.substr(0, at);
        authority.erase(0, at + 1);
    }

    std::string portText;
    bool hasPort = false;
    if (!authority.empty() && authority[0] == '[') {
        std::size_t close = authority.find(']');
        if (close == std::string::npos) {
            fail(text, "an IPv6 address lacks its closing ']'");
        }
        std::string literal = authority.substr(1, close - 1);
        std::string address = literal;
        std::string zone;
        std::size_t percent = literal.find('%');
        if (percent != std::string::npos) {
            address = literal.substr(0, percent);
            zone = literal.substr(percent + 1);
            if (zone.compare(0, 2, "25") == 0 && zone.size() > 2) {
                zone.erase(0, 2);
            }
            if (zone.empty()) {
                fail(text, "an empty IPv6 zone");
            }
            for (char c : zone) {
                if (!isAlpha(c) && !isDigit(c) && c != '-' && c != '.' && c != '_' && c != '~') {
                    fail(text, "invalid character in the IPv6 zone");
                }
            }
        }
        in6_addr binary{};
        if (address.size() > 45 || inet_pton(AF_INET6, address.c_str(), &binary) != 1) {
            fail(text, "not a valid IPv6 address between '[' and ']'");
        }
        uri.m_host = zone.empty() ? address : address + "%" + zone;
        std::string after = authority.substr(close + 1);
        if (!after.empty()) {
            if (after[0] != ':') {
                fail(text, "unexpected text after ']'");
            }
            hasPort = true;
            portText = after.substr(1);
        }
    } else {
        std::size_t colon = authority.find(':');
        if (colon != std::string::npos) {
            if (authority.find(':', colon + 1) != std::string::npos) {
                fail(text, "an IPv6 address must stand in brackets");
            }
            hasPort = true;
            portText = authority.substr(colon + 1);
            authority.erase(colon);
        }
        for (char c : authority) {
            if (!isHostChar(c)) {
                fail(text, "invalid character in the host");
            }
        }
        uri.m_host = authority;
    }

    if (hasPort && !portText.empty()) {
        if (portText.size() > 5) {
            fail(text, "the port must be a number from 0 to 65535");
        }
        unsigned long port = 0;
        for (char c : portText) {
            if (!isDigit(c)) {
                fail(text, "the port must be a number from 0 to 65535");
            }
            port = port * 10 + static_cast<unsigned long>(c - '0');
        }
        if (port > 65535) {
            fail(text, "the port must be a number from 0 to 65535");
        }
        uri.m_port = static_cast<unsigned short>(port);
    }

    std::size_t hash = text.find('#', authorityEnd);
    std::size_t beforeHash = hash == std::string::npos ? text.size() : hash;
    std::size_t question = text.find('?', authorityEnd);
    if (question != std::string::npos && question > beforeHash) {
        question = std::string::npos;
    }
    std::size_t pathEnd = question == std::string::npos ? beforeHash : question;
    uri.m_path = text.substr(authorityEnd, pathEnd - authorityEnd);
    if (question != std::string::npos) {
        uri.m_query = text.substr(question + 1, beforeHash - question - 1);
    }
    if (hash != std::string::npos) {
        uri.m_fragment = text.substr(hash + 1);
    }
    return uri;
}

inline std::string URI::ToString() const {
    std::string text = m_scheme + "://";
    if (!m_userInfo.empty()) {
        text += m_userInfo + "@";
    }
    if (m_host.find(':') != std::string::npos) {
        std::string host = m_host;
        std::size_t percent = host.find('%');
        if (percent != std::string::npos) {
            host.insert(percent + 1, "25");
        }
        text += "[" + host + "]";
    } else {
        text += m_host;
    }
    if (m_port != 0) {
        text += ":" + std::to_string(m_port);
    }
    text += m_path;
    if (!m_query.empty()) {
        text += "?" + m_query;
    }
    if (!m_fragment.empty()) {
        text += "#" + m_fragment;
    }
    return text;
}

inline bool URI::hostIsAnyInterface() const {
    if (m_host.empty() || m_host == "*") {
        return true;
    }
    in_addr v4{};
    if (inet_pton(AF_INET, m_host.c_str(), &v4) == 1) {
        return v4.s_addr == htonl(INADDR_ANY);
    }
    in6_addr v6{};
    if (inet_pton(AF_INET6, m_host.c_str(), &v6) == 1) {
        return IN6_IS_ADDR_UNSPECIFIED(&v6);
    }
    return false;
}

inline URI URI::FromSockAddr(sockaddr * const address, unsigned int length, bool unmapIPv4, const char * scheme) {
    if (address == nullptr || length < sizeof(sa_family_t)) {
        throw URIException("cannot make a URI from an empty socket address");
    }
    unsigned short port = 0;
    if (address->sa_family == AF_INET && length >= sizeof(sockaddr_in)) {
        port = ntohs(reinterpret_cast<const sockaddr_in *>(address)->sin_port);
    } else if (address->sa_family == AF_INET6 && length >= sizeof(sockaddr_in6)) {
        port = ntohs(reinterpret_cast<const sockaddr_in6 *>(address)->sin6_port);
    } else {
        throw URIException("cannot make a URI from a socket address of family " +
                           std::to_string(address->sa_family) + " and length " + std::to_string(length));
    }
    char host[NI_MAXHOST] = {};
    int rc = getnameinfo(address, length, host, sizeof host, nullptr, 0, NI_NUMERICHOST);
    if (rc != 0) {
        throw URIException(std::string("cannot convert a socket address to text: ") + gai_strerror(rc));
    }
    URI uri;
    uri.m_scheme = scheme != nullptr ? scheme : "";
    uri.m_host = host;
    if (unmapIPv4 && uri.m_host.compare(0, 7, "::ffff:") == 0 && uri.m_host.find('.') != std::string::npos) {
        uri.m_host.erase(0, 7);
    }
    uri.m_port = port;
    return uri;
}

inline void URI::ToSockAddress(SocketAddress & result, bool streamOnly) const {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = streamOnly ? SOCK_STREAM : 0;
    hints.ai_flags = AI_NUMERICSERV;
    const char * node = m_host.c_str();
    if (m_host.empty() || m_host == "*") {
        node = nullptr;
        hints.ai_flags |= AI_PASSIVE;
    }
    std::string service = std::to_string(m_port);
    addrinfo * head = nullptr;
    int rc = getaddrinfo(node, service.c_str(), &hints, &head);
    if (rc != 0) {
        std::string reason = rc == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(rc);
        throw URIException("cannot resolve '" + quote(m_host) + "' port " + service + ": " + reason);
    }
    result.reset(head);
}

inline std::ostream & operator<<(std::ostream & stream, const URI & uri) {
    return uri.Print(stream);
}

}  // namespace net
