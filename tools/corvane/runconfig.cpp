#include "runconfig.h"

#include <cerrno>
#include <cstdlib>
#include <map>
#include <memory>
#include <strings.h>

#include "corvane/uri.h"

namespace cli {

namespace {

std::string trimmed(const std::string & text) {
    const char * const blanks = " \t\r\n";
    const std::string::size_type first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return std::string();
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

bool validSectionName(const std::string & name) {
    if (name.empty()) {
        return false;
    }
    for (char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '_' || c == '.' || c == '@';
        if (!ok) {
            return false;
        }
    }
    return true;
}

// A whole decimal number from `minimum` to `maximum`, or -1.
long long number(const std::string & text, long long minimum, long long maximum) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos || text.size() > 12) {
        return -1;
    }
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    return value >= minimum && value <= maximum ? value : -1;
}

const char * const kLevels[] = {"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "FATAL", "OFF"};

// The section being read, with the line of each key, until the next section ends it.
struct Pending {
    RunSection section;
    bool global = false;
    bool broken = false;
    std::map<std::string, int> keyLines;
};

class Parser {
public:
    Parser(std::vector<ConfigMistake> & mistakes, const std::function<bool(const std::string &)> & knownScheme)
        : m_mistakes(mistakes), m_knownScheme(knownScheme) {}

    RunConfig parse(std::istream & in) {
        std::string text;
        int line = 0;
        while (std::getline(in, text)) {
            ++line;
            const std::string content = trimmed(text);
            if (content.empty() || content[0] == '#' || content[0] == ';') {
                continue;
            }
            if (content[0] == '[') {
                finishSection();
                startSection(content, line);
                continue;
            }
            const std::string::size_type equals = content.find('=');
            if (equals == std::string::npos) {
                mistake(line, "expected 'KEY = VALUE' or '[SECTION]', not '" + content + "'");
                continue;
            }
            setKey(trimmed(content.substr(0, equals)), trimmed(content.substr(equals + 1)), line);
        }
        finishSection();
        return std::move(m_config);
    }

private:
    void mistake(int line, const std::string & text) {
        m_mistakes.push_back({line, text});
        if (m_current) {
            m_current->broken = true;
        }
    }

    void startSection(const std::string & content, int line) {
        m_current.reset(new Pending);
        m_current->section.line = line;
        if (content.back() != ']') {
            mistake(line, "a section header reads '[NAME]', not '" + content + "'");
            return;
        }
        const std::string name = trimmed(content.substr(1, content.size() - 2));
        m_current->section.name = name;
        m_current->global = name == "global";
        if (!validSectionName(name)) {
            mistake(line, "'" + name + "' is no section name (letters, digits, '-', '_', '.', '@')");
            return;
        }
        const auto earlier = m_sectionLines.find(name);
        if (earlier != m_sectionLines.end()) {
            mistake(line, "section [" + name + "] appears twice (first on line " + std::to_string(earlier->second) + ")");
            return;
        }
        m_sectionLines.emplace(name, line);
    }

    bool checkURI(const std::string & value, int line) {
        try {
            const net::URI uri = net::URI::FromString(value);
            if (m_knownScheme && !m_knownScheme(uri.getScheme())) {
                mistake(line, "unknown scheme '" + uri.getScheme() + "' in '" + value + "'");
                return false;
            }
            return true;
        } catch (const std::exception & e) {
            mistake(line, e.what());
            return false;
        }
    }

    void setKey(const std::string & key, const std::string & value, int line) {
        if (!m_current) {
            mistake(line, "'" + key + "' stands before any section");
            return;
        }
        Pending & pending = *m_current;
        const std::string where = " in [" + pending.section.name + "]";
        const auto earlier = pending.keyLines.find(key);
        if (earlier != pending.keyLines.end()) {
            mistake(line, "'" + key + "' given twice" + where + " (first on line " + std::to_string(earlier->second) + ")");
            return;
        }
        pending.keyLines.emplace(key, line);
        RunSection & section = pending.section;
        if (pending.global) {
            if (key == "log-level") {
                for (const char * level : kLevels) {
                    if (strcasecmp(level, value.c_str()) == 0) {
                        m_config.logLevel = level;
                        return;
                    }
                }
                mistake(line, "unknown log level '" + value + "' (TRACE, DEBUG, INFO, WARN, ERROR, FATAL, OFF)");
            } else if (key == "log-config") {
                m_config.logConfig = value;
            } else if (key == "threads") {
                const long long threads = number(value, 1, 64);
                if (threads < 0) {
                    mistake(line, "threads needs a number from 1 to 64, not '" + value + "'");
                } else {
                    m_config.threads = static_cast<int>(threads);
                }
            } else {
                mistake(line, "unknown key '" + key + "' in [global] (log-level, log-config, threads)");
            }
            return;
        }
        if (key == "listen" || key == "target" || key == "serve") {
            if (checkURI(value, line)) {
                (key == "listen" ? section.listen : key == "target" ? section.target : section.serve) = value;
            }
        } else if (key == "listen-options") {
            section.listenOptions = value;
        } else if (key == "target-options") {
            section.targetOptions = value;
        } else if (key == "options") {
            section.options = value;
        } else if (key == "buffer-size") {
            const long long size = number(value, 1, 0x7fffffff);
            if (size < 0) {
                mistake(line, "buffer-size needs a number of bytes from 1 to 2147483647, not '" + value + "'");
            } else {
                section.bufferSize = static_cast<unsigned int>(size);
            }
        } else if (key == "mode") {
            if (value != "echo" && value != "discard") {
                mistake(line, "mode is 'echo' or 'discard', not '" + value + "'");
            }
            section.echo = value != "discard";
        } else {
            mistake(line, "unknown key '" + key + "'" + where +
                              " (a tunnel has listen, target, listen-options, target-options, buffer-size;"
                              " a server has serve, mode, options)");
        }
    }

    // Checks what only the whole section shows: its kind and its required keys.
    void finishSection() {
        if (!m_current) {
            return;
        }
        std::unique_ptr<Pending> pending = std::move(m_current);
        if (pending->global) {
            return;
        }
        RunSection & section = pending->section;
        const auto has = [&](const char * key) { return pending->keyLines.count(key) != 0; };
        const bool tunnelKeys = has("listen") || has("target") || has("listen-options") || has("target-options") ||
                                has("buffer-size");
        const bool serverKeys = has("serve") || has("mode") || has("options");
        const int line = section.line;
        const std::string name = "[" + section.name + "]";
        bool broken = pending->broken;
        if (tunnelKeys && serverKeys) {
            m_mistakes.push_back({line, name + " mixes tunnel keys (listen, target, ...) and server keys (serve, mode, "
                                               "options): a section is one or the other"});
            broken = true;
        } else if (serverKeys) {
            section.server = true;
            if (!has("serve")) {
                m_mistakes.push_back({line, name + " needs 'serve = URI'"});
                broken = true;
            }
        } else if (tunnelKeys) {
            for (const char * key : {"listen", "target"}) {
                if (!has(key)) {
                    m_mistakes.push_back({line, name + " needs '" + key + " = URI'"});
                    broken = true;
                }
            }
        } else {
            m_mistakes.push_back({line, name + " is neither a tunnel (listen, target) nor a server (serve)"});
            broken = true;
        }
        if (broken) {
            return;
        }
        for (const RunSection & other : m_config.sections) {
            if (other.listenURI() == section.listenURI() && !isAnyPort(section.listenURI())) {
                m_mistakes.push_back({pending->keyLines[section.server ? "serve" : "listen"],
                                      "'" + section.listenURI() + "' is already the listening URI of [" + other.name +
                                          "] (line " + std::to_string(other.line) + ")"});
                return;
            }
        }
        m_config.sections.push_back(section);
    }

    static bool isAnyPort(const std::string & uri) {
        try {
            return net::URI::FromString(uri).getPort() == 0;
        } catch (const std::exception &) {
            return false;
        }
    }

    std::vector<ConfigMistake> & m_mistakes;
    const std::function<bool(const std::string &)> & m_knownScheme;
    RunConfig m_config;
    std::unique_ptr<Pending> m_current;
    std::map<std::string, int> m_sectionLines;
};

}  // namespace

bool RunSection::sameSettings(const RunSection & other) const {
    return name == other.name && server == other.server && listen == other.listen && target == other.target &&
           listenOptions == other.listenOptions && targetOptions == other.targetOptions &&
           bufferSize == other.bufferSize && serve == other.serve && echo == other.echo && options == other.options;
}

RunConfig parseRunConfig(std::istream & in, std::vector<ConfigMistake> & mistakes,
                         const std::function<bool(const std::string &)> & knownScheme) {
    return Parser(mistakes, knownScheme).parse(in);
}

}  // namespace cli
