// net::OptionMap::parse on any text, twice into one map: the result is what a plain reading of
// the grammar gives (items at ";", key before the first "=", a later item wins, a final ";"
// adds nothing), and the text form parses back to the same map.
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "fields.h"
#include "net/optionmap.h"

namespace {

void expectItems(const std::string & text, std::map<std::string, std::string> & into) {
    std::string::size_type start = 0;
    while (start < text.size()) {
        std::string::size_type end = text.find(';', start);
        if (end == std::string::npos) {
            end = text.size();
        }
        const std::string item = text.substr(start, end - start);
        const std::string::size_type equals = item.find('=');
        into[item.substr(0, equals)] = equals == std::string::npos ? std::string() : item.substr(equals + 1);
        start = end + 1;
    }
}

void check(bool condition, const char * what, const std::string & first, const std::string & second) {
    if (!condition) {
        std::cerr << "optionmap_fuzz: " << what << " for '" << first << "' then '" << second << "'" << std::endl;
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    const auto texts = corvane_fuzz::fields(data, size, 2);
    const std::string first = corvane_fuzz::cText(texts[0]);
    const std::string second = corvane_fuzz::cText(texts[1]);

    net::OptionMap map;
    map.parse(first.c_str());
    map.parse(second.c_str());
    map.parse(nullptr);

    std::map<std::string, std::string> expected;
    expectItems(first, expected);
    expectItems(second, expected);
    check(static_cast<const std::map<std::string, std::string> &>(map) == expected, "not the grammar's reading",
          first, second);

    net::OptionMap again;
    again.parse(map.toString().c_str());
    check(again == map, "the text form parses to another map", first, second);
    for (const auto & entry : expected) {
        check(map.get(entry.first.c_str(), "\x01") == entry.second, "get differs", first, second);
    }
    return 0;
}
