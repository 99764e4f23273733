// Programs the proxy tests run as real peers (a KDC, squid) and set-up commands (kdb5_util,
// kadmin.local, kinit): started with the test's environment, output into a file, stopped
// by their PID. Every wait is bounded.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "sockets.h"

extern char ** environ;

namespace corvane_test {

// Starts `argv` with stdin from `input` (a file, or /dev/null) and stdout and stderr
// appended to `output`. Throws when the program cannot be started.
inline pid_t Spawn(const std::vector<std::string> & argv, const std::string & output,
                   const std::string & input = "/dev/null") {
    std::vector<char *> args;
    for (const std::string & arg : argv) {
        args.push_back(const_cast<char *>(arg.c_str()));
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, input.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 1, 2);
    pid_t pid = -1;
    const int rc = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        throw std::runtime_error("cannot start " + argv[0]);
    }
    return pid;
}

// Waits up to `limit` for `pid` to end; kills it if it does not. Returns its exit status
// (-1 when it had to be killed or ended by a signal).
inline int WaitFor(pid_t pid, std::chrono::milliseconds limit = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// Runs a set-up command to its end; throws with its output when it fails.
inline void Run(const std::vector<std::string> & argv, const std::string & output,
                const std::string & input = "/dev/null") {
    if (WaitFor(Spawn(argv, output, input)) != 0) {
        std::ifstream log(output);
        std::stringstream text;
        text << log.rdbuf();
        throw std::runtime_error(argv[0] + " failed: " + text.str());
    }
}

// Stops a peer at once: none of the peers has anything to flush that a test reads.
inline void Kill(pid_t pid) {
    if (pid > 0) {
        kill(pid, SIGKILL);
        WaitFor(pid);
    }
}

inline std::string ReadFile(const std::string & path) {
    std::ifstream file(path);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
}

inline void WriteFile(const std::string & path, const std::string & text, mode_t mode = 0644) {
    std::ofstream(path) << text;
    chmod(path.c_str(), mode);
}

// Waits up to `limit` for `path` to contain `text`.
inline bool WaitForText(const std::string & path, const std::string & text,
                        std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (ReadFile(path).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A fresh directory under /tmp, removed with everything in it at the end of the object.
class TempDir {
public:
    explicit TempDir(const char * stem) {
        std::string pattern = std::string("/tmp/") + stem + ".XXXXXX";
        if (mkdtemp(&pattern[0]) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
        m_path = pattern;
        chmod(m_path.c_str(), 0755);
    }
    ~TempDir() { WaitFor(Spawn({"rm", "-rf", m_path}, "/dev/null")); }
    TempDir(const TempDir &) = delete;
    TempDir & operator=(const TempDir &) = delete;
    const std::string & path() const { return m_path; }

private:
    std::string m_path;
};

// Sets (or, for a null value, removes) an environment variable for the life of the object
// and restores the old value.
class ScopedEnv {
public:
    ScopedEnv(const char * name, const char * value) : m_name(name) {
        const char * old = std::getenv(name);
        m_hadValue = old != nullptr;
        m_old = old != nullptr ? old : "";
        if (value != nullptr) {
            setenv(name, value, 1);
        } else {
            unsetenv(name);
        }
    }
    ~ScopedEnv() {
        if (m_hadValue) {
            setenv(m_name.c_str(), m_old.c_str(), 1);
        } else {
            unsetenv(m_name.c_str());
        }
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv & operator=(const ScopedEnv &) = delete;

private:
    std::string m_name;
    std::string m_old;
    bool m_hadValue;
};

}  // namespace corvane_test
