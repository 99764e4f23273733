#include "tls/clientcontextcache.h"

#include <openssl/x509.h>
#include <sys/stat.h>

#include <cstdlib>
#include <sstream>

#include "net/optionmap.h"

namespace ssl {

namespace {

// Identity and last change of each path; a path that is missing counts as such.
void describe(std::ostream & out, const std::string & path) {
    struct stat status {};
    if (path.empty()) {
        return;
    }
    if (stat(path.c_str(), &status) != 0) {
        out << path << ":missing;";
        return;
    }
    out << path << ':' << status.st_dev << ':' << status.st_ino << ':' << status.st_size << ':'
        << status.st_mtim.tv_sec << '.' << status.st_mtim.tv_nsec << ':' << status.st_ctim.tv_sec << '.'
        << status.st_ctim.tv_nsec << ';';
}

std::string environmentOr(const char * name, const char * fallback) {
    const char * value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

// What the context built from `options` reads: the files it names and, where the options
// ask for them, the system's trust locations (as tools::SSLContext finds them).
std::string fingerprint(const net::OptionMap & options) {
    std::ostringstream out;
    for (const char * key : {"CertificateFile", "PrivateKeyFile", "CAFile", "CAPath", "PKCS12File"}) {
        describe(out, options.get(key, ""));
    }
    const bool systemStores = net::OptionMap::isTrue(options.get("LoadCryptoCertStore", "true"));
    const bool defaultPaths = options.get("CAFile", "").empty() && options.get("CAPath", "").empty();
    if (systemStores || defaultPaths) {
        describe(out, environmentOr(X509_get_default_cert_file_env(), X509_get_default_cert_file()));
        std::istringstream directories(environmentOr(X509_get_default_cert_dir_env(), X509_get_default_cert_dir()));
        for (std::string directory; std::getline(directories, directory, ':');) {
            describe(out, directory);
        }
    }
    return out.str();
}

}  // namespace

std::shared_ptr<tools::SSLContext> ClientContextCache::get(const net::OptionMap & options) {
    const std::string key = options.toString();
    const std::string current = fingerprint(options);
    {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto found = m_entries.find(key);
        if (found != m_entries.end() && found->second.fingerprint == current) {
            return found->second.context;
        }
    }
    auto context = std::make_shared<tools::SSLContext>(options);
    context->setup(false);
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_entries.size() >= kMaxEntries && m_entries.find(key) == m_entries.end()) {
        m_entries.clear();
    }
    m_entries[key] = Entry{current, context};
    return context;
}

}  // namespace ssl
