// squid on a free loopback port demanding authentication, for the Negotiate and NTLM tests.
// squid runs its helpers as user "proxy" with the environment it was started with, so the
// test exports KRB5_CONFIG, KRB5_KTNAME, KRB5RCACHETYPE and NTLM_USER_FILE first. Stopped by
// its PID with SIGKILL: a graceful stop takes squid two seconds and is not what is tested.
#pragma once

#include <arpa/inet.h>
#include <grp.h>
#include <pwd.h>

#include <string>

#include "childprocess.h"

namespace corvane_test {

class SquidProxy {
public:
    // `authLines`: the auth_param lines of the schemes squid offers, in its order.
    explicit SquidProxy(const std::string & authLines) : m_dir("corvane-squid"), m_port(FreeLoopbackPort()) {
        const std::string & s = m_dir.path();
        const passwd * user = getpwnam("proxy");
        if (user == nullptr || chown(s.c_str(), user->pw_uid, user->pw_gid) != 0) {
            throw std::runtime_error("squid's folder cannot be given to user proxy");
        }
        WriteFile(s + "/squid.conf", "http_port 127.0.0.1:" + std::to_string(m_port) +
                                         "\nvisible_hostname localhost\npid_filename " + s + "/squid.pid\n"
                                         "cache_log " + s + "/cache.log\naccess_log stdio:" + s + "/access.log\n"
                                         "coredump_dir " + s + "\ncache deny all\ndns_nameservers 127.0.0.1\n"
                                         "pinger_enable off\nshutdown_lifetime 0 seconds\n" + authLines +
                                         "acl auth proxy_auth REQUIRED\nhttp_access allow auth\nhttp_access deny all\n");
        m_pid = Spawn({"squid", "-N", "-f", s + "/squid.conf"}, s + "/squid.out");
        if (!waitUntilListening()) {
            Kill(m_pid);
            throw std::runtime_error("squid did not start: " + ReadFile(s + "/squid.out") + ReadFile(s + "/cache.log"));
        }
    }
    ~SquidProxy() { Kill(m_pid); }
    SquidProxy(const SquidProxy &) = delete;
    SquidProxy & operator=(const SquidProxy &) = delete;

    unsigned short port() const { return m_port; }
    // squid logs a tunnel when it ends: waits up to five seconds for `text` to appear.
    bool accessLogShows(const std::string & text) const {
        return WaitForText(m_dir.path() + "/access.log", text, std::chrono::seconds(5));
    }
    std::string cacheLog() const { return ReadFile(m_dir.path() + "/cache.log"); }

private:
    bool waitUntilListening() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::chrono::steady_clock::now() < deadline) {
            const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_port = htons(m_port);
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            const bool connected = connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
            close(fd);
            if (connected) {
                return true;
            }
            if (waitpid(m_pid, nullptr, WNOHANG) == m_pid) {
                m_pid = -1;
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return false;
    }

    TempDir m_dir;
    unsigned short m_port;
    pid_t m_pid = -1;
};

}  // namespace corvane_test
