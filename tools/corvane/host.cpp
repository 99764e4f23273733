#include "host.h"

#include <algorithm>
#include <dlfcn.h>
#include <poll.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <chrono>
#include <cstring>

#include <log4cxx/basicconfigurator.h>
#include <log4cxx/consoleappender.h>
#include <log4cxx/level.h>
#include <log4cxx/logger.h>
#include <log4cxx/patternlayout.h>
#include <log4cxx/propertyconfigurator.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <utility>

#include "corvane/uri.h"

namespace cli {

std::string defaultModulePath() {
    const char * fromEnvironment = std::getenv("CORVANE_MODULE");
    if (fromEnvironment != nullptr && *fromEnvironment != '\0') {
        return fromEnvironment;
    }
    char self[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (length > 0) {
        std::string directory(self, static_cast<size_t>(length));
        directory.erase(directory.rfind('/') + 1);
        for (const char * relative : {CORVANE_MODULE_FROM_BINDIR, CORVANE_MODULE_FROM_BUILD}) {
            const std::string candidate = directory + relative + "/libcorvane.so";
            char resolved[PATH_MAX];
            if (::realpath(candidate.c_str(), resolved) != nullptr && ::access(resolved, R_OK) == 0) {
                return resolved;
            }
        }
    }
    // Neither installed nor built beside this program: the dynamic linker's search path.
    return "libcorvane.so";
}

net::IModule * loadModule(const std::string & path) {
    void * handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        throw std::runtime_error(std::string("cannot load the module: ") + dlerror());
    }
    auto getModule = reinterpret_cast<net::GetModuleFunction>(dlsym(handle, "GetModule"));
    if (getModule == nullptr) {
        throw std::runtime_error("'" + path + "' exports no GetModule");
    }
    return getModule();
}

void blockStopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

int waitForStopSignal(int milliseconds) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    for (;;) {
        int number;
        if (milliseconds < 0) {
            number = sigwaitinfo(&signals, nullptr);
        } else {
            timespec wait{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
            number = sigtimedwait(&signals, nullptr, &wait);
            if (number < 0 && errno == EAGAIN) {
                return 0;
            }
        }
        if (number > 0) {
            return number;
        }
    }
}

StopGuard::StopGuard(std::string what, int limitMilliseconds)
    : m_what(std::move(what)), m_limitMilliseconds(limitMilliseconds), m_watcher([this] { watch(); }) {}

StopGuard::~StopGuard() {
    m_done = true;
    m_watcher.join();
}

void StopGuard::watch() {
    // The watcher wakes this often to see whether the guarded call has returned.
    constexpr int kPollMilliseconds = 10;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_limitMilliseconds);
    while (!m_done) {
        int signal = waitForStopSignal(kPollMilliseconds);
        std::string text;
        int status = 0;
        if (signal != 0) {
            text = std::string("corvane: stopped by ") + (signal == SIGINT ? "SIGINT" : "SIGTERM") + " while " + m_what;
            status = 128 + signal;
        } else if (m_limitMilliseconds >= 0 && std::chrono::steady_clock::now() >= deadline) {
            text = "corvane: " + m_what + " took longer than " + std::to_string(m_limitMilliseconds) +
                   " ms; ending without it";
            status = 1;
        } else {
            continue;
        }
        // The caller's thread is inside the library: nothing can be unwound, so no exit handlers.
        text += "\n";
        ssize_t ignored = ::write(STDERR_FILENO, text.data(), text.size());
        (void)ignored;
        std::_Exit(status);
    }
}

namespace {

// errno of the same bind or connect on a socket of the host's own, or 0 when it succeeds or
// cannot be tried. A connect waits at most a second for its answer.
int repeatFailedCall(const std::string & text, bool listen, bool reuseAddress = false) {
    try {
        net::URI uri = net::URI::FromString(text);
        if (!listen && uri.getPort() == 0) {
            return 0;  // the transport fills in its default port; which one is not ours to guess
        }
        net::URI::SocketAddress address;
        uri.ToSockAddress(address, true);
        int error = 0;
        for (const addrinfo * entry = address.get(); entry != nullptr; entry = entry->ai_next) {
            int fd = socket(entry->ai_family, entry->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, entry->ai_protocol);
            if (fd < 0) {
                continue;
            }
            if (listen) {
                int one = 1;
                if (reuseAddress) {
                    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
                }
                error = bind(fd, entry->ai_addr, entry->ai_addrlen) == 0 ? 0 : errno;
            } else if (connect(fd, entry->ai_addr, entry->ai_addrlen) == 0) {
                error = 0;
            } else if (errno != EINPROGRESS) {
                error = errno;
            } else {
                pollfd ready{fd, POLLOUT, 0};
                socklen_t length = sizeof error;
                error = poll(&ready, 1, 1000) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) == 0
                            ? error
                            : 0;
            }
            close(fd);
            if (error == 0) {
                return 0;
            }
        }
        return error;
    } catch (const std::exception &) {
        return 0;
    }
}

std::string withCause(const std::exception & failure, int error) {
    return error == 0 ? failure.what() : std::string(failure.what()) + ": " + std::strerror(error);
}

}  // namespace

// Only the library's texts of a failed bind or connect get a cause; other failures (a bad
// URI, an unknown scheme, a handshake) have nothing to repeat.
namespace {
std::string samePort(const std::string & uri, const std::string & localURI) {
    try {
        net::URI listen = net::URI::FromString(uri);
        if (listen.getPort() == 0) {
            listen.setPort(net::URI::FromString(localURI).getPort());
        }
        return listen.ToString();
    } catch (const std::exception &) {
        return uri;
    }
}
}  // namespace

std::string listenOnReactors(const Context & context, int threads, const std::string & uri,
                             std::vector<Common::SmartPtr<net::IReactor>> & reactors,
                             const std::function<std::string(net::IReactor *, const std::string &)> & listen,
                             const std::function<void()> & stopAll) {
    std::string listenURI = uri;
    std::string localURI;
    try {
        for (int i = 0; i < threads; ++i) {
            Common::SmartPtr<net::IReactor> reactor(context.module->createReactor(5000, 300000, 20));
            reactor->startProcessing();
            reactors.push_back(reactor);
            const std::string local = listen(reactor.get(), listenURI);
            if (i == 0) {
                localURI = local;
                listenURI = samePort(listenURI, localURI);
            }
        }
    } catch (const std::exception & e) {
        stopAll();
        throw std::runtime_error(listenFailure(listenURI, e));
    }
    return localURI;
}

net::SocketOptions sharedListenerOptions(int threads, const std::string & uri) {
    net::SocketOptions options = hostSocketOptions();
    options.reusePort = threads > 1 && repeatFailedCall(uri, true, true) == 0;
    return options;
}

int defaultThreads() {
    const long cores = sysconf(_SC_NPROCESSORS_ONLN);
    return cores < 1 ? 1 : (cores > kMaxThreads ? kMaxThreads : static_cast<int>(cores));
}

int parseThreads(const std::string & command, const std::string & text) {
    char * end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < 1 || value > kMaxThreads) {
        throw UsageError(command + ": --threads needs a number from 1 to " + std::to_string(kMaxThreads) + ", not '" +
                         text + "'");
    }
    return static_cast<int>(value);
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

std::string listenFailure(const std::string & uri, const std::exception & failure) {
    bool bindFailed = std::strstr(failure.what(), "while binding to ") != nullptr;
    return withCause(failure, bindFailed ? repeatFailedCall(uri, true) : 0);
}

std::string connectFailure(const std::string & uri, const std::exception & failure) {
    const char * marker = "while connecting to ";
    const char * named = std::strstr(failure.what(), marker);
    if (named == nullptr) {
        return withCause(failure, 0);
    }
    // The text names the address with the port the transport filled in (ws://host is port
    // 80): that one is repeated, not the URI as given.
    std::string target(named + std::strlen(marker));
    target = target.substr(0, target.find_first_of(" \n"));
    return withCause(failure, repeatFailedCall(target.empty() ? uri : target, false));
}

std::string optionValue(const std::vector<std::string> & args, size_t & i) {
    if (i + 1 >= args.size()) {
        throw UsageError(args[i] + " needs a value");
    }
    return args[++i];
}

std::string withTimeLimit(const std::string & options, const char * key, const std::string & milliseconds) {
    // The library's grammar: items split at ";", the key ends at the first "=".
    for (size_t from = 0; from <= options.size();) {
        const size_t end = std::min(options.find(';', from), options.size());
        const std::string item = options.substr(from, end - from);
        if (item.substr(0, item.find('=')) == key) {
            return options;
        }
        from = end + 1;
    }
    const bool separated = options.empty() || options.back() == ';';
    return options + (separated ? "" : ";") + key + "=" + milliseconds;
}

std::string millisecondsValue(const std::vector<std::string> & args, size_t & i) {
    const std::string name = args[i];
    const std::string value = optionValue(args, i);
    if (value.empty() || value.size() > 8 || value.find_first_not_of("0123456789") != std::string::npos) {
        throw UsageError(name + " needs a number of milliseconds (0: no limit), not '" + value + "'");
    }
    return value;
}

void configureLogging(const std::string & level, const std::string & configFile) {
    using namespace log4cxx;
    BasicConfigurator::resetConfiguration();
    if (!configFile.empty()) {
        if (!std::ifstream(configFile).good()) {
            throw UsageError("cannot read log configuration '" + configFile + "'");
        }
        PropertyConfigurator::configure(File(configFile));
        return;
    }
    LevelPtr parsed = Level::toLevel(level, LevelPtr());
    if (!parsed) {
        throw UsageError("unknown log level '" + level + "' (TRACE, DEBUG, INFO, WARN, ERROR, FATAL, OFF)");
    }
    auto layout = std::make_shared<PatternLayout>("%d{HH:mm:ss.SSS} %-5p [%t] %c - %m%n");
    auto appender = std::make_shared<ConsoleAppender>(layout, ConsoleAppender::getSystemErr());
    Logger::getRootLogger()->addAppender(appender);
    Logger::getRootLogger()->setLevel(parsed);
}

}  // namespace cli
