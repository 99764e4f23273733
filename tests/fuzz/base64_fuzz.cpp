// The base64 coding of proxy tokens: any bytes encode to text that decodes back to them, and
// any text (a proxy's header value) decodes without reading past its end, to at most three
// bytes for every four characters.
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "proxy/base64.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    const char * bytes = reinterpret_cast<const char *>(data);
    std::string text;
    socketio::base64Encode(bytes, static_cast<unsigned>(size), text);
    std::vector<char> back;
    socketio::base64Decode(text, back);
    if (text.size() % 4 != 0 || back != std::vector<char>(bytes, bytes + size)) {
        std::cerr << "round trip of " << size << " bytes gave " << back.size() << " bytes\n";
        std::abort();
    }
    std::vector<char> decoded;
    socketio::base64Decode(std::string(bytes, size), decoded);
    if (decoded.size() > size * 3 / 4 + 2) {
        std::cerr << size << " characters decoded to " << decoded.size() << " bytes\n";
        std::abort();
    }
    return 0;
}
