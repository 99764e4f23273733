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

// The sessions of one client context, by target. Lives exactly as long as the OpenSSL
// context (freed with it), since a connection still open may hand in a session after the cache
// has dropped the context. Sessions arrive on the thread that reads the connection (for
// TLS 1.3 after the handshake, with the server's first records), so under a lock.
class SessionStore {
public:
    SessionStore() = default;
    SessionStore(const SessionStore &) = delete;
    SessionStore & operator=(const SessionStore &) = delete;
    ~SessionStore() {
        for (auto & entry : m_sessions) {
            SSL_SESSION_free(entry.second);
        }
    }
    // A new reference to the session of `target`, or null.
    SSL_SESSION * find(const std::string & target) {
        std::lock_guard<std::mutex> guard(m_mutex);
        auto found = m_sessions.find(target);
        if (found == m_sessions.end() || SSL_SESSION_up_ref(found->second) != 1) {
            return nullptr;
        }
        return found->second;
    }
    // Takes over the reference to `session`; the latest one of a target replaces the one before.
    void keep(const std::string & target, SSL_SESSION * session) {
        SSL_SESSION * previous = nullptr;
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            if (m_sessions.size() >= kMaxTargets && m_sessions.find(target) == m_sessions.end()) {
                for (auto & entry : m_sessions) {
                    SSL_SESSION_free(entry.second);
                }
                m_sessions.clear();
            }
            SSL_SESSION *& slot = m_sessions[target];
            previous = slot;
            slot = session;
        }
        if (previous != nullptr) {
            SSL_SESSION_free(previous);
        }
    }

private:
    // More targets than this start afresh, as the context cache does with option texts.
    static constexpr std::size_t kMaxTargets = 1024;

    std::mutex m_mutex;
    std::map<std::string, SSL_SESSION *> m_sessions;  // GUARDED_BY(m_mutex)
};

void freeStore(void * /*parent*/, void * pointer, CRYPTO_EX_DATA * /*data*/, int /*index*/, long /*argl*/,
               void * /*argp*/) {
    delete static_cast<SessionStore *>(pointer);
}

void freeTarget(void * /*parent*/, void * pointer, CRYPTO_EX_DATA * /*data*/, int /*index*/, long /*argl*/,
                void * /*argp*/) {
    delete static_cast<std::string *>(pointer);
}

// The slots of the store on a context and of the target on a connection, taken once.
int storeIndex() {
    static const int index = SSL_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, freeStore);
    return index;
}

int targetIndex() {
    static const int index = SSL_get_ex_new_index(0, nullptr, nullptr, nullptr, freeTarget);
    return index;
}

// OpenSSL's word of a new session on a client connection: kept for the connection's target.
// 1 tells OpenSSL that the reference is taken.
int keepSession(SSL * ssl, SSL_SESSION * session) {
    auto * store = static_cast<SessionStore *>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), storeIndex()));
    const auto * target = static_cast<const std::string *>(SSL_get_ex_data(ssl, targetIndex()));
    if (store == nullptr || target == nullptr || SSL_SESSION_is_resumable(session) != 1) {
        return 0;
    }
    store->keep(*target, session);
    return 1;
}

// A freshly set-up client context that resumes sessions: its own store, and new sessions go
// there rather than into OpenSSL's internal cache, which a client never looks up.
void attachSessionStore(tools::SSLContext & context) {
    SSL_CTX * ctx = context.context();
    if (!context.sessionResumption() || storeIndex() < 0 || targetIndex() < 0) {
        return;
    }
    auto * store = new SessionStore;
    if (SSL_CTX_set_ex_data(ctx, storeIndex(), store) != 1) {
        delete store;
        return;
    }
    SSL_CTX_set_session_cache_mode(ctx, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL_STORE);
    SSL_CTX_sess_set_new_cb(ctx, keepSession);
}

}  // namespace

void ClientContextCache::prepareConnection(SSL * ssl, const std::string & target) {
    auto * store = static_cast<SessionStore *>(SSL_CTX_get_ex_data(SSL_get_SSL_CTX(ssl), storeIndex()));
    if (store == nullptr) {
        return;
    }
    auto * name = new std::string(target);
    if (SSL_set_ex_data(ssl, targetIndex(), name) != 1) {
        delete name;
        return;
    }
    if (SSL_SESSION * session = store->find(target)) {
        // The connection takes its own reference; a session the server no longer knows only
        // means a full handshake.
        SSL_set_session(ssl, session);
        SSL_SESSION_free(session);
    }
}

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
    attachSessionStore(*context);
    std::lock_guard<std::mutex> guard(m_mutex);
    if (m_entries.size() >= kMaxEntries && m_entries.find(key) == m_entries.end()) {
        m_entries.clear();
    }
    m_entries[key] = Entry{current, context};
    return context;
}

}  // namespace ssl
