// ProxyResolver::Exception: a resolve that cannot go on because a text is not valid UTF-8
// (code -2) or a conversion went wrong in another way (code -1). A value type, copied
// freely; it stands outside the net:: exception tree, since the resolver knows no channels.
#pragma once

#include <exception>

namespace ProxyResolver {

class Exception : public std::exception {
public:
    explicit Exception(int code) noexcept : m_code(code) {}

    const char * what() const noexcept override {
        return m_code == -2 ? "error in utf8/unicode conversion" : "unknown error";
    }
    int code() const noexcept { return m_code; }

private:
    int m_code;
};

}  // namespace ProxyResolver
