// A real program as a test peer (openssl s_server, s_client...): started with posix_spawn,
// its stdin and its merged stdout and stderr on pipes, stopped by its PID and reaped in the
// destructor. Every read is bounded in time.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

extern char ** environ;

namespace corvane_test {

class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::string> & args) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || pipe2(output, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], 0);
        posix_spawn_file_actions_adddup2(&actions, output[1], 1);
        posix_spawn_file_actions_adddup2(&actions, output[1], 2);
        std::vector<char *> argv;
        for (const auto & arg : args) {
            argv.push_back(const_cast<char *>(arg.c_str()));
        }
        argv.push_back(nullptr);
        if (posix_spawnp(&m_pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
            m_pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        close(output[1]);
        m_input = input[1];
        m_output = output[0];
    }
    ~ChildProcess() {
        stop();
        closeInput();
        if (m_output >= 0) {
            close(m_output);
        }
    }
    ChildProcess(const ChildProcess &) = delete;
    ChildProcess & operator=(const ChildProcess &) = delete;

    bool running() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    bool write(const std::string & text) {
        return m_input >= 0 && ::write(m_input, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    void closeInput() {
        if (m_input >= 0) {
            close(m_input);
            m_input = -1;
        }
    }
    // Reads until `text` is in the output (or the output ends, or the time is up); the whole
    // output read so far.
    const std::string & readUntil(const std::string & text, int milliseconds = 5000) {
        return readWhile([&] { return m_seen.find(text) == std::string::npos; }, milliseconds);
    }
    // What follows `prefix` up to the end of that output line; empty on time-out.
    std::string lineAfter(const std::string & prefix, int milliseconds = 5000) {
        auto incomplete = [&] {
            size_t at = m_seen.find(prefix);
            return at == std::string::npos || m_seen.find('\n', at) == std::string::npos;
        };
        readWhile(incomplete, milliseconds);
        if (incomplete()) {
            return "";
        }
        size_t at = m_seen.find(prefix) + prefix.size();
        return m_seen.substr(at, m_seen.find('\n', at) - at);
    }
    // The exit status once the program has ended within the time, else -1 (still running).
    int wait(int milliseconds = 5000) {
        for (int waited = 0; m_pid > 0; waited += 5) {
            int status = 0;
            if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_pid = -1;
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                break;
            }
            if (waited >= milliseconds) {
                return -1;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return m_status;
    }
    void stop(int signal = SIGTERM) {
        if (m_pid > 0) {
            kill(m_pid, signal);
            if (wait(2000) < 0) {
                kill(m_pid, SIGKILL);
                wait(2000);
            }
        }
    }

private:
    template <class Predicate>
    const std::string & readWhile(Predicate more, int milliseconds) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (m_output >= 0 && more()) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            pollfd entry{m_output, POLLIN, 0};
            if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) != 1) {
                break;
            }
            char buffer[4096];
            ssize_t n = read(m_output, buffer, sizeof buffer);
            if (n <= 0) {
                break;
            }
            m_seen.append(buffer, static_cast<size_t>(n));
        }
        return m_seen;
    }

    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    int m_status = -1;
    std::string m_seen;
};

}  // namespace corvane_test
