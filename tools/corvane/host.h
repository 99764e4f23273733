// What every subcommand of the corvane host shares: loading the module, configuring
// log4cxx, and the usage error.
#pragma once

#include <atomic>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "corvane/corvane.h"

namespace cli {

// A mistake in the command line: printed with the usage hint, exit status 2.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The module named by --module, else $CORVANE_MODULE, else the one built beside this host.
// Throws std::runtime_error with dlerror's text when it cannot be loaded.
net::IModule * loadModule(const std::string & path);
std::string defaultModulePath();

// What a subcommand gets: the loaded module and its path. Arguments follow the command name.
struct Context {
    net::IModule * module = nullptr;
    std::string modulePath;
};

// The host's sockets close gracefully (no linger-0 reset), so that data already written
// reaches the peer when a channel closes, and listen with a backlog that takes a burst.
inline net::SocketOptions hostSocketOptions() {
    net::SocketOptions options;
    options.linger = false;
    options.backlog = 128;
    return options;
}

// Reactor threads of `tunnel` and `serve`: --threads N (1 to 64, as `threads` of run), by
// default one per core. Each reactor holds at most 1023 sockets (511 tunnel connections).
constexpr int kMaxThreads = 64;
int defaultThreads();
// The value of --threads, or UsageError.
int parseThreads(const std::string & command, const std::string & text);
// Starts `threads` reactors and on each a listener through `listen(reactor, uri)`, which returns
// the listener's local URI: the first on `uri`, the others on the port the first one got (port 0
// picks one; a ws server names itself http:// in its local URI, so the others keep `uri`). The
// first listener's local URI; on a failure `stopAll` runs and the listen failure is thrown.
std::string listenOnReactors(const Context & context, int threads, const std::string & uri,
                             std::vector<Common::SmartPtr<net::IReactor>> & reactors,
                             const std::function<std::string(net::IReactor *, const std::string &)> & listen,
                             const std::function<void()> & stopAll);
// The socket options of the listeners that listenOnReactors starts on `uri`: the host's, with
// SO_REUSEPORT where several reactors share the port. Listeners that share a port would also
// share it with another process's: the host shares only a port that nobody holds now (as the
// library binds, with SO_REUSEADDR), so that one in use still fails.
net::SocketOptions sharedListenerOptions(int threads, const std::string & uri);
// Raises the soft limit of open descriptors to the hard one: ten thousand connections need
// more than the usual 1024. Called first in main; a refusal leaves the limit as it was.
void raiseDescriptorLimit();

// Blocks SIGINT and SIGTERM in the calling thread and every thread it starts later, so that
// they can be awaited with waitForStopSignal. Call it first in main.
void blockStopSignals();
// Waits until SIGINT or SIGTERM arrives, or until `milliseconds` passed (negative: no limit).
// Returns the signal number, or 0 on time-out.
int waitForStopSignal(int milliseconds = -1);

// Watches for SIGINT and SIGTERM on a thread of its own while the caller's thread is blocked in
// a library call that has no time limit of its own and cannot be abandoned (name resolution,
// connect, a handshake, a proxy that never answers): a stop signal then ends the process at
// once, with status 128 + the signal and "corvane: stopped by SIG... while WHAT" on stderr.
// With a limit in milliseconds the process also ends (status 1) when the guard still lives
// after it: for the clean-up after a stop signal, which may wait for such a call made on a
// library thread (a tunnel's outgoing connect).
class StopGuard {
public:
    explicit StopGuard(std::string what, int limitMilliseconds = -1);
    ~StopGuard();
    StopGuard(const StopGuard &) = delete;
    StopGuard & operator=(const StopGuard &) = delete;

private:
    void watch();

    std::string m_what;
    int m_limitMilliseconds;
    std::atomic<bool> m_done{false};
    std::thread m_watcher;
};

// How long the clean-up after a stop signal may take before the process ends without it.
constexpr int kStopMilliseconds = 900;

// The library's text of a failed bind or connect ("while binding to URI"), followed by the
// system's cause, which the library does not carry: the host makes the same call on a socket of
// its own and appends the text of its errno (": Address already in use"). The library's text
// alone for other failures, or when the second attempt succeeds or cannot be made.
std::string listenFailure(const std::string & uri, const std::exception & failure);
std::string connectFailure(const std::string & uri, const std::exception & failure);

// The value that follows args[i] (which names an option), or UsageError.
std::string optionValue(const std::vector<std::string> & args, size_t & i);

// The host's time limits in milliseconds, where the library has none: the TLS handshake and
// WebSocket upgrade of an accepted connection (HandshakeTimeout, for serve, tunnel and run), and
// each route of an outgoing connection (ConnectTimeout, for connect, tunnel and run).
constexpr const char * kHandshakeTimeoutDefault = "10000";
constexpr const char * kConnectTimeoutDefault = "30000";
// `options` with "key=milliseconds" added, unless the text names `key` itself: that one wins.
std::string withTimeLimit(const std::string & options, const char * key, const std::string & milliseconds);
// The value that follows args[i] (--handshake-timeout, --connect-timeout MS): a whole number
// of milliseconds (0: no limit), or UsageError.
std::string millisecondsValue(const std::vector<std::string> & args, size_t & i);

// A console appender on stderr at `level` (TRACE..FATAL, OFF), or the properties file.
void configureLogging(const std::string & level, const std::string & configFile);

}  // namespace cli
