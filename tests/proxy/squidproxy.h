// squid on a free loopback port demanding authentication, for the Negotiate and NTLM tests.
// squid runs its helpers as user "proxy" with the environment it was started with, so the
// test exports KRB5_CONFIG, KRB5_KTNAME, KRB5RCACHETYPE and NTLM_USER_FILE first. Stopped by
// its PID with SIGKILL: a graceful stop takes squid two seconds and is not what is tested.
#pragma once

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
        if (!WaitAccepting(m_port)) {
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

private:
    TempDir m_dir;
    unsigned short m_port;
    pid_t m_pid = -1;
};

}  // namespace corvane_test
