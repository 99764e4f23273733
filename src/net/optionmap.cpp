#include "net/optionmap.h"

#include <cctype>
#include <cstring>

#include "net/internalexception.h"

namespace net {

void OptionMap::parse(const char * options) {
    if (options == nullptr) {
        return;
    }
    const char * end = options + std::strlen(options);
    const char * item = options;
    while (item < end) {
        const char * itemEnd = static_cast<const char *>(std::memchr(item, ';', static_cast<size_t>(end - item)));
        if (itemEnd == nullptr) {
            itemEnd = end;
        }
        const char * equals = static_cast<const char *>(std::memchr(item, '=', static_cast<size_t>(itemEnd - item)));
        if (equals == nullptr) {
            (*this)[std::string(item, itemEnd)] = std::string();
        } else {
            (*this)[std::string(item, equals)] = std::string(equals + 1, itemEnd);
        }
        item = itemEnd + 1;
    }
}

std::string OptionMap::get(const char * key, std::string defaultValue) const {
    auto found = find(key);
    return found != end() ? found->second : defaultValue;
}

void OptionMap::set(const std::string & key, const std::string & value) {
    (*this)[key] = value;
}

std::uint64_t OptionMap::getMilliseconds(const char * key) const {
    const std::string text = get(key, "");
    // A day is far beyond any handshake or connect a peer could mean; more is a typing error.
    constexpr std::uint64_t kMost = 86400000;
    if (text.empty()) {
        return 0;
    }
    // Nine digits at most: the value cannot overflow on its way to the check.
    bool valid = text.size() <= 9;
    std::uint64_t value = 0;
    for (char c : text) {
        valid = valid && std::isdigit(static_cast<unsigned char>(c)) != 0;
        value = valid ? value * 10 + static_cast<std::uint64_t>(c - '0') : 0;
    }
    if (!valid || value > kMost) {
        throw InternalException(
            (std::string(key) + " must be a number of milliseconds from 0 to 86400000, not '" + text + "'").c_str(), true);
    }
    return value;
}

bool OptionMap::hasEnableProxy() const {
    return find("EnableProxy") != end();
}

std::string OptionMap::toString() const {
    std::string text;
    for (const auto & entry : *this) {
        text += entry.first;
        text += '=';
        text += entry.second;
        text += ';';
    }
    return text;
}

}  // namespace net
