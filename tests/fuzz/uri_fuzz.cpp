// net::URI::FromString on any bytes: a refusal is a net::URIException that names the input;
// a parsed URI prints to a text that parses to an equal URI and prints the same again, and
// every part but the host (whose zone prefix is rewritten) is a piece of the input.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "corvane/uri.h"

namespace {

void check(bool condition, const char * what, const std::string & input, const std::string & detail) {
    if (!condition) {
        std::cerr << "uri_fuzz: " << what << " for '" << input << "': " << detail << std::endl;
        std::abort();
    }
}

bool pieceOf(const std::string & part, const std::string & text) {
    return text.find(part) != std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t * data, size_t size) {
    const std::string text(reinterpret_cast<const char *>(data), size);
    net::URI uri;
    try {
        uri = net::URI::FromString(text);
    } catch (const net::URIException & e) {
        check(std::strncmp(e.what(), "invalid URI '", 13) == 0, "refusal without the input", text, e.what());
        return 0;
    }
    for (const std::string & part :
         {uri.getScheme(), uri.getUserInfo(), uri.getPath(), uri.getQuery(), uri.getFragment()}) {
        check(pieceOf(part, text), "a part that is not in the input", text, part);
    }
    const std::string printed = uri.ToString();
    net::URI again;
    try {
        again = net::URI::FromString(printed);
    } catch (const net::URIException & e) {
        check(false, "the printed form is refused", text, e.what());
    }
    check(again == uri, "the printed form parses to another URI", text, printed + " -> " + again.ToString());
    check(again.ToString() == printed, "printing is not stable", text, printed + " -> " + again.ToString());
    uri.hostIsAnyInterface();
    return 0;
}
