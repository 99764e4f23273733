// net::OptionMap: the parsed form of an options text "key=value;key=value". The grammar
// is the same for every transport and for the tunnels that pass options on:
// items split at ";" with no escape; an item splits at its first "=" (the value keeps any
// later "="); an item without "=" is a key with the empty value; nothing is trimmed and
// case counts; a later item replaces an earlier one of the same key; a final ";" adds
// nothing, while an empty item inside (";;" or a leading ";") stores the empty key.
// A value counts as true only when it is exactly "true".
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace net {

class OptionMap : public std::map<std::string, std::string> {
public:
    // A null or empty text leaves the map as it is.
    void parse(const char * options);
    std::string get(const char * key, std::string defaultValue) const;
    void set(const std::string & key, const std::string & value);
    // A time limit in milliseconds (HandshakeTimeout, ConnectTimeout): 0 when absent or empty,
    // which means none. Throws net::InternalException naming the key when the value is not a
    // whole number from 0 to 86400000 (a day).
    std::uint64_t getMilliseconds(const char * key) const;
    // Whether "EnableProxy" is present, whatever its value.
    bool hasEnableProxy() const;
    // Each entry as key "=" value ";", in key order.
    std::string toString() const;

    static bool isTrue(const std::string & value) { return value == "true"; }
};

}  // namespace net
