// The configuration file of `corvane run`: an INI-style text with a [global] section and one
// section per tunnel or server. Pure parsing and checking, no I/O but the stream it reads.
#pragma once

#include <functional>
#include <istream>
#include <string>
#include <vector>

namespace cli {

// One tunnel (listen, target, ...) or server (serve, mode, options) section.
struct RunSection {
    std::string name;
    int line = 0;  // of its [name]
    bool server = false;
    std::string listen;
    std::string target;
    std::string listenOptions;
    std::string targetOptions;
    unsigned int bufferSize = 0x100000;
    std::string serve;
    bool echo = true;
    std::string options;

    // Equal settings: a reload keeps such a section running as it is.
    bool sameSettings(const RunSection & other) const;
    // The URI it listens on.
    const std::string & listenURI() const { return server ? serve : listen; }
};

struct RunConfig {
    std::string logLevel;   // empty: the host's default
    std::string logConfig;  // a log4cxx properties file, or empty
    int threads = 1;
    std::vector<RunSection> sections;
};

struct ConfigMistake {
    int line;
    std::string text;
};

// Reads `in`; every mistake found is appended to `mistakes` with its line, and the sections
// with mistakes are left out of the result. `knownScheme`, when set, says whether the module
// serves a URI scheme.
RunConfig parseRunConfig(std::istream & in, std::vector<ConfigMistake> & mistakes,
                         const std::function<bool(const std::string &)> & knownScheme);

}  // namespace cli
