// The roots of every exception that the module throws. Header-only, so that a host
// catches them by its own type information: a net::InternalException thrown inside the
// module is caught as net::RuntimeException or std::exception by the host.
#pragma once

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>
#include <utility>

namespace net {

class Exception : public std::exception {
public:
    Exception() = default;
    Exception(const Exception & other) = default;
    Exception & operator=(const Exception & other) = default;
    ~Exception() override = default;

    const char * what() const noexcept override { return m_message.c_str(); }

    // The same text as what(), decoded from UTF-8; invalid bytes become U+FFFD.
    virtual const wchar_t * whatW() const noexcept { return m_wideMessage.c_str(); }

protected:
    explicit Exception(std::string message) : m_message(std::move(message)), m_wideMessage(widen(m_message)) {}

private:
    static std::wstring widen(const std::string & text) {
        std::wstring result;
        result.reserve(text.size());
        const auto * p = reinterpret_cast<const unsigned char *>(text.data());
        const auto * end = p + text.size();
        while (p < end) {
            unsigned char lead = *p;
            int extra = lead < 0x80 ? 0 : (lead >> 5) == 0x6 ? 1 : (lead >> 4) == 0xE ? 2 : (lead >> 3) == 0x1E ? 3 : -1;
            if (extra < 0 || end - p <= extra) {
                result.push_back(lead < 0x80 ? wchar_t(lead) : wchar_t(0xFFFD));
                ++p;
                continue;
            }
            unsigned long code = extra == 0 ? lead : lead & (0x3F >> extra);
            bool valid = true;
            for (int i = 1; i <= extra; ++i) {
                if ((p[i] & 0xC0) != 0x80) {
                    valid = false;
                    break;
                }
                code = (code << 6) | (p[i] & 0x3F);
            }
            if (!valid) {
                result.push_back(wchar_t(0xFFFD));
                ++p;
                continue;
            }
            result.push_back(wchar_t(code));
            p += extra + 1;
        }
        return result;
    }

    std::string m_message;
    std::wstring m_wideMessage;
};

// A failure at run time. The library always passes false for appendSystemError; when it is
// true, the text of the calling thread's current errno is appended as ": <text>".
class RuntimeException : public Exception {
public:
    RuntimeException(const char * message, bool appendSystemError)
        : Exception(compose(message, appendSystemError)) {}
    RuntimeException(const RuntimeException & other) = default;
    ~RuntimeException() override = default;

private:
    static std::string compose(const char * message, bool appendSystemError) {
        std::string text = message != nullptr ? message : "";
        if (appendSystemError) {
            int error = errno;
            char buffer[256] = {};
            text += ": ";
            text += systemText(strerror_r(error, buffer, sizeof buffer), buffer);
        }
        return text;
    }
    // strerror_r comes in two forms; each overload takes what its form returns.
    static const char * systemText(int, const char * buffer) { return buffer; }
    static const char * systemText(const char * result, const char *) { return result; }
};

// A URI text that cannot be parsed, or a host and port that cannot be resolved.
class URIException : public RuntimeException {
public:
    explicit URIException(const std::string & message) : RuntimeException(message.c_str(), false) {}
    URIException(const URIException & other) = default;
    ~URIException() override = default;
};

}  // namespace net
