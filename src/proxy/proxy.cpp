#include "proxy/proxy.h"

#include <cstdlib>

#include "common/logging.h"

namespace ProxyResolver {

namespace {
const log4cxx::LoggerPtr logger = Common::GetLogger("ProxyResolver.Proxy");

// Walks a text from left to right, taking the pieces in front of delimiters.
class Cursor {
public:
    explicit Cursor(const std::string & text) : m_text(text) {}

    // The text up to `delimiter`, stepping over it; empty and no move if it does not occur.
    std::string takeIfFound(const char * delimiter) {
        std::string::size_type found = m_text.find(delimiter, m_position);
        if (found == std::string::npos) {
            return std::string();
        }
        std::string piece = m_text.substr(m_position, found - m_position);
        m_position = found + std::char_traits<char>::length(delimiter);
        return piece;
    }

    // As takeIfFound, but without the delimiter the rest of the text is taken.
    std::string takeOrRest(const char * delimiter) {
        std::string::size_type found = m_text.find(delimiter, m_position);
        if (found == std::string::npos) {
            std::string piece = m_text.substr(m_position);
            m_position = m_text.size();
            return piece;
        }
        std::string piece = m_text.substr(m_position, found - m_position);
        m_position = found + std::char_traits<char>::length(delimiter);
        return piece;
    }

private:
    const std::string & m_text;
    std::string::size_type m_position = 0;
};
}  // namespace

void Proxy::set(const std::string & proxy) {
    LOG4CXX_TRACE(logger, "set('" << proxy << "')");
    m_proxy = proxy;

    Cursor cursor(m_proxy);
    m_scheme = cursor.takeIfFound("://");
    std::string credentials = cursor.takeIfFound("@");
    m_host = cursor.takeOrRest(":");
    std::string port = cursor.takeOrRest("/");
    // atoi's reading: leading blanks and a sign allowed, digits up to the first other
    // character, then cut to 16 bits. strtol saturates instead of overflowing.
    m_port = static_cast<unsigned short>(std::strtol(port.c_str(), nullptr, 10));

    Cursor inCredentials(credentials);
    m_user = inCredentials.takeOrRest(":");
    m_password = inCredentials.takeOrRest("@");
}

}  // namespace ProxyResolver
