#include "tls/clientcontextcache.h"

#include <dirent.h>
#include <openssl/x509.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <vector>

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

// A CAPath directory and every file in it: OpenSSL reads these files when a verification
// needs them, so one replaced in place (which leaves the directory's own times alone) must
// show here too. The names come sorted, so that the order of readdir(3) does not matter.
void describeDirectory(std::ostream & out, const std::string & directory) {
    describe(out, directory);
    DIR * stream = opendir(directory.c_str());
    if (stream == nullptr) {
        return;
    }
    std::vector<std::string> names;
    while (const dirent * entry = readdir(stream)) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(stream);
    std::sort(names.begin(), names.end());
    for (const std::string & name : names) {
        describe(out, directory + '/' + name);
    }
}

std::string environmentOr(const char * name, const char * fallback) {
    const char * value = std::getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}

// What the context built from `options` reads: the files it names and, where the options
// ask for them, the system's trust locations (as tools::SSLContext finds them).
std::string fingerprint(const net::OptionMap & options) {
    std::ostringstream out;
    for (const char * key : {"CertificateFile", "PrivateKeyFile", "CAFile", "PKCS12File"}) {
        describe(out, options.get(key, ""));
    }
    // Like OpenSSL's directory lookup, a list of directories separated by ':'.
    std::istringstream caPaths(options.get("CAPath", ""));
    for (std::string directory; std::getline(caPaths, directory, ':');) {
        describeDirectory(out, directory);
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
