#include "net/optionmap.h"

#include <cstring>

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
