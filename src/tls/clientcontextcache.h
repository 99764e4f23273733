// ssl::ClientContextCache: the set-up TLS contexts of a protocol's client connections, one per
// option text. Building a context reads every file and system store that the options name,
// which costs far more than a handshake; a context is therefore built once and reused until
// one of those files or directories, or a file inside a CAPath directory, changes. Owned by its
// protocol; any thread.
//
// Each context also keeps the latest resumable session per target (host and port), so that the
// next connection to the same target with the same option text resumes it instead of running a
// full handshake. A session is kept with the context it came from: a context built afresh (a
// file changed) starts without any.
#pragma once

#include <openssl/ssl.h>


#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "tls/sslcontext.h"

namespace net {
class OptionMap;
}

namespace ssl {

class ClientContextCache {
public:
    // The set-up context for `options`: the one kept from before when the option text is the
    // same and nothing it reads has changed since, else a new one, which is kept. Throws what
    // tools::SSLContext::setup throws; a failed context is not kept. Caller's thread; a build
    // runs outside the cache's lock.
    std::shared_ptr<tools::SSLContext> get(const net::OptionMap & options);
    // Before the handshake of `ssl`, made from a context of get(): offers the session kept
    // for `target`, if any, and has the sessions the server hands out on this connection kept
    // for it. Nothing when the context does not resume sessions.
    static void prepareConnection(SSL * ssl, const std::string & target);

private:
    struct Entry {
        std::string fingerprint;
        std::shared_ptr<tools::SSLContext> context;
    };
    // More distinct option texts than this start the cache afresh.
    static constexpr std::size_t kMaxEntries = 32;

    std::mutex m_mutex;
    std::map<std::string, Entry> m_entries;  // GUARDED_BY(m_mutex)
};

}  // namespace ssl
