// A WebSocket peer in a separate process: wspeer.py under Debian's Python (python3-websockets),
// started with a mode, stopped and reaped by its PID in the destructor.
#pragma once

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

extern char ** environ;

namespace corvane_test {

class PythonPeer {
public:
    // With a certificate and key file the peer serves wss.
    explicit PythonPeer(const std::string & mode, const std::string & seconds = "0", const std::string & cert = "",
                        const std::string & key = "")
        : m_scheme(cert.empty() ? "ws" : "wss") {
        int out[2];
        if (pipe(out) != 0) {
            throw std::runtime_error("pipe");
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        std::string script = CORVANE_WSPEER_SCRIPT;
        char * argv[] = {const_cast<char *>("python3"), &script[0], const_cast<char *>(mode.c_str()),
                         const_cast<char *>(seconds.c_str()), cert.empty() ? nullptr : const_cast<char *>(cert.c_str()),
                         const_cast<char *>(key.c_str()), nullptr};
        int failed = posix_spawn(&m_pid, "/usr/bin/python3", &actions, nullptr, argv, environ);
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        if (failed != 0) {
            close(out[0]);
            throw std::runtime_error("cannot start /usr/bin/python3");
        }
        // The port line, within 10 s.
        std::string line;
        pollfd entry{out[0], POLLIN, 0};
        while (line.find('\n') == std::string::npos && poll(&entry, 1, 10000) > 0) {
            char buffer[64];
            ssize_t n = read(out[0], buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            line.append(buffer, static_cast<size_t>(n));
        }
        close(out[0]);
        m_port = static_cast<unsigned short>(std::atoi(line.c_str()));
        if (m_port == 0) {
            stop();
            throw std::runtime_error("wspeer.py " + mode + " did not start");
        }
    }
    ~PythonPeer() { stop(); }
    PythonPeer(const PythonPeer &) = delete;
    PythonPeer & operator=(const PythonPeer &) = delete;

    unsigned short port() const { return m_port; }
    pid_t pid() const { return m_pid; }
    std::string uri(const std::string & path = "/") const {
        return m_scheme + "://127.0.0.1:" + std::to_string(m_port) + path;
    }

private:
    void stop() {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            // A test may have stopped the peer (SIGSTOP): it dies only once it runs again.
            kill(m_pid, SIGCONT);
            waitpid(m_pid, nullptr, 0);
            m_pid = 0;
        }
    }

    std::string m_scheme;
    pid_t m_pid = 0;
    unsigned short m_port = 0;
};

}  // namespace corvane_test
