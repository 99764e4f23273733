// Test peer: clears the proxy variables for the life of the object and puts back what was
// there before, so that tests neither see the machine's settings nor leave their own.
#pragma once

#include <cstdlib>
#include <map>
#include <string>

namespace corvane_test {

class ProxyEnvironment {
public:
    ProxyEnvironment() {
        for (const char * name : kNames) {
            if (const char * value = std::getenv(name)) {
                m_saved[name] = value;
            }
            unsetenv(name);
        }
    }
    ~ProxyEnvironment() {
        for (const char * name : kNames) {
            auto saved = m_saved.find(name);
            if (saved == m_saved.end()) {
                unsetenv(name);
            } else {
                setenv(name, saved->second.c_str(), 1);
            }
        }
    }
    ProxyEnvironment(const ProxyEnvironment &) = delete;
    ProxyEnvironment & operator=(const ProxyEnvironment &) = delete;

    void set(const char * name, const std::string & value) { setenv(name, value.c_str(), 1); }

    static constexpr const char * kNames[] = {"http_proxy", "HTTP_PROXY", "https_proxy", "HTTPS_PROXY",
                                              "all_proxy",  "ALL_PROXY",  "no_proxy",    "NO_PROXY"};

private:
    std::map<std::string, std::string> m_saved;
};

}  // namespace corvane_test
