// Test peer: tinyproxy on 127.0.0.1 with a configuration of its own in a temporary folder,
// no authentication, CONNECT to any port. The constructor returns when it accepts; the
// destructor stops it by its PID and removes the folder.
#pragma once

#include <string>

#include "childprocess.h"
#include "sockets.h"

namespace corvane_test {

class Tinyproxy {
public:
    Tinyproxy() : m_dir("corvane-tinyproxy"), m_port(FreeLoopbackPort()) {
        WriteFile(path("tinyproxy.conf"), "Port " + std::to_string(m_port) +
                                              "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\nMaxClients 50\n"
                                              "PidFile \"" + path("tinyproxy.pid") + "\"\nLogFile \"" +
                                              path("tinyproxy.log") + "\"\nLogLevel Info\nDisableViaHeader Yes\n");
        m_pid = Spawn({"tinyproxy", "-d", "-c", path("tinyproxy.conf")}, path("tinyproxy.out"));
        m_ready = WaitAccepting(m_port, 5000);
    }
    ~Tinyproxy() { Kill(m_pid); }
    Tinyproxy(const Tinyproxy &) = delete;
    Tinyproxy & operator=(const Tinyproxy &) = delete;

    bool ready() const { return m_ready; }
    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }
    // How often the log names `text`.
    int logged(const std::string & text) const {
        const std::string log = ReadFile(path("tinyproxy.log"));
        int count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

private:
    std::string path(const char * name) const { return m_dir.path() + "/" + name; }

    TempDir m_dir;
    unsigned short m_port;
    pid_t m_pid = -1;
    bool m_ready = false;
};

}  // namespace corvane_test
