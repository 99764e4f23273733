// Test peer: tinyproxy on 127.0.0.1 with a configuration of its own in a temporary folder,
// no authentication, CONNECT to any port. The constructor returns when it accepts; the
// destructor stops it by its PID and removes the folder.
#pragma once

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>

#include "sockets.h"

extern char ** environ;

namespace corvane_test {

class Tinyproxy {
public:
    Tinyproxy() {
        char folder[] = "/tmp/corvane-tinyproxy-XXXXXX";
        m_folder = mkdtemp(folder);
        {
            // A port that was free a moment ago; tinyproxy takes its port from the file.
            int fd = LoopbackListen(m_port);
            close(fd);
        }
        std::ofstream config(path("tinyproxy.conf"));
        config << "Port " << m_port << "\nListen 127.0.0.1\nAllow 127.0.0.1\nTimeout 30\nMaxClients 50\n"
               << "PidFile \"" << path("tinyproxy.pid") << "\"\nLogFile \"" << path("tinyproxy.log") << "\"\n"
               << "LogLevel Info\nDisableViaHeader Yes\n";
        config.close();
        std::string configPath = path("tinyproxy.conf");
        char * argv[] = {const_cast<char *>("tinyproxy"), const_cast<char *>("-d"), const_cast<char *>("-c"),
                         const_cast<char *>(configPath.c_str()), nullptr};
        if (posix_spawnp(&m_pid, "tinyproxy", nullptr, nullptr, argv, environ) != 0) {
            m_pid = -1;
            return;
        }
        for (int i = 0; i < 250; ++i) {
            int fd = LoopbackConnect(m_port);
            if (fd >= 0) {
                close(fd);
                m_ready = true;
                return;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    ~Tinyproxy() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        for (const char * name : {"tinyproxy.conf", "tinyproxy.pid", "tinyproxy.log"}) {
            std::remove(path(name).c_str());
        }
        rmdir(m_folder.c_str());
    }
    Tinyproxy(const Tinyproxy &) = delete;
    Tinyproxy & operator=(const Tinyproxy &) = delete;

    bool ready() const { return m_ready; }
    std::string address() const { return "127.0.0.1:" + std::to_string(m_port); }
    // How often the log names `text`.
    int logged(const std::string & text) const {
        std::ifstream file(path("tinyproxy.log"));
        std::stringstream content;
        content << file.rdbuf();
        std::string log = content.str();
        int count = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
            ++count;
        }
        return count;
    }

private:
    std::string path(const char * name) const { return m_folder + "/" + name; }

    std::string m_folder;
    unsigned short m_port = 0;
    pid_t m_pid = -1;
    bool m_ready = false;
};

}  // namespace corvane_test
