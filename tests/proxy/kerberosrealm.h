// A throw-away Kerberos realm TEST.LOCAL for the Negotiate tests: a database, a KDC on a free
// loopback port, the service principal HTTP/localhost in a keytab and the user "user" with a
// ticket in a file cache, all in a temporary directory. The process environment points
// GSSAPI at it (KRB5_CONFIG, KRB5_KTNAME, KRB5CCNAME) for the life of the object; the KDC is
// stopped by its PID.
#pragma once

#include <memory>
#include <string>

#include "childprocess.h"

namespace corvane_test {

class KerberosRealm {
public:
    KerberosRealm() : m_dir("corvane-krb5") {
        const std::string & d = m_dir.path();
        const std::string port = std::to_string(FreeLoopbackPort());
        // The braces must stand on their own lines: a one-line realm entry is ignored.
        WriteFile(d + "/krb5.conf", "[libdefaults]\n"
                                    "  default_realm = TEST.LOCAL\n"
                                    "  dns_lookup_kdc = false\n"
                                    "  dns_lookup_realm = false\n"
                                    "  dns_canonicalize_hostname = false\n"
                                    "  rdns = false\n"
                                    "  udp_preference_limit = 1\n"
                                    "[realms]\n"
                                    "  TEST.LOCAL = {\n"
                                    "    kdc = 127.0.0.1:" + port + "\n"
                                    "  }\n"
                                    "[domain_realm]\n"
                                    "  localhost = TEST.LOCAL\n");
        WriteFile(d + "/kdc.conf", "[kdcdefaults]\n"
                                   "  kdc_listen = 127.0.0.1:" + port + "\n"
                                   "  kdc_tcp_listen = 127.0.0.1:" + port + "\n"
                                   "[realms]\n"
                                   "  TEST.LOCAL = {\n"
                                   "    database_name = " + d + "/principal\n"
                                   "    key_stash_file = " + d + "/stash\n"
                                   "    acl_file = " + d + "/kadm5.acl\n"
                                   "  }\n"
                                   "[logging]\n"
                                   "  kdc = FILE:" + d + "/kdc.log\n");
        m_env.emplace_back(new ScopedEnv("KRB5_CONFIG", (d + "/krb5.conf").c_str()));
        m_env.emplace_back(new ScopedEnv("KRB5_KDC_PROFILE", (d + "/kdc.conf").c_str()));
        m_env.emplace_back(new ScopedEnv("KRB5_KTNAME", ("FILE:" + keytab()).c_str()));
        m_env.emplace_back(new ScopedEnv("KRB5CCNAME", ("FILE:" + d + "/ccache").c_str()));
        // Acceptors would otherwise keep a replay cache under /var/tmp.
        m_env.emplace_back(new ScopedEnv("KRB5RCACHETYPE", "none"));
        const std::string log = d + "/setup.log";
        Run({"kdb5_util", "-r", "TEST.LOCAL", "-P", "masterpw", "create", "-s"}, log);
        Run({"kadmin.local", "-r", "TEST.LOCAL", "-q", "addprinc -pw userpw user"}, log);
        Run({"kadmin.local", "-r", "TEST.LOCAL", "-q", "addprinc -randkey HTTP/localhost"}, log);
        Run({"kadmin.local", "-r", "TEST.LOCAL", "-q", "ktadd -k " + keytab() + " HTTP/localhost"}, log);
        m_kdc = Spawn({"krb5kdc", "-n", "-r", "TEST.LOCAL"}, d + "/kdc.out");
        try {
            if (!WaitForText(d + "/kdc.log", "commencing operation")) {
                throw std::runtime_error("the KDC did not start: " + ReadFile(d + "/kdc.log"));
            }
            WriteFile(d + "/password", "userpw\n", 0600);
            Run({"kinit", "user@TEST.LOCAL"}, log, d + "/password");
        } catch (...) {
            Kill(m_kdc);
            throw;
        }
    }
    ~KerberosRealm() { Kill(m_kdc); }
    KerberosRealm(const KerberosRealm &) = delete;
    KerberosRealm & operator=(const KerberosRealm &) = delete;

    const std::string & dir() const { return m_dir.path(); }
    std::string keytab() const { return m_dir.path() + "/http.keytab"; }

private:
    TempDir m_dir;
    std::vector<std::unique_ptr<ScopedEnv>> m_env;
    pid_t m_kdc = -1;
};

}  // namespace corvane_test
