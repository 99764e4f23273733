// ssl::ClientContextCache: the set-up TLS contexts of a protocol's client connections, one per
// option text. Building a context reads every file and system store that the options name,
// which costs far more than a handshake; a context is therefore built once and reused until
// one of those files or directories, or a file inside a CAPath directory, changes. Owned by its
// protocol; any thread.
#pragma once

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
