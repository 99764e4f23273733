// corvane run: every tunnel and server of a configuration file in one process, until SIGINT
// or SIGTERM; SIGHUP reads the file again and starts, stops or keeps each section.
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include <log4cxx/level.h>
#include <log4cxx/logger.h>

#include "commands.h"
#include "host.h"
#include "runconfig.h"

namespace cli {

namespace {

const char * const kRunUsage =
    "usage: corvane run [--check] FILE\n"
    "\n"
    "Serves every tunnel and server that FILE names, until SIGINT or SIGTERM; SIGHUP reads FILE\n"
    "again: new sections start, removed ones stop, changed ones restart, and unchanged ones keep\n"
    "their connections. Prints 'NAME: listening on URI' for each section it starts.\n"
    "  --check   only read FILE and name the line of every mistake (status 1 if there is one)\n"
    "\n"
    "FILE ('#' or ';' starts a comment line):\n"
    "  [global]\n"
    "  log-level = WARN            TRACE..OFF; default WARN, with one INFO line per tunnel connection\n"
    "  log-config = FILE           a log4cxx properties file instead\n"
    "  threads = 1                 reactor threads (1 to 64), read at the start\n"
    "  [NAME]                      a tunnel\n"
    "  listen = URI\n"
    "  target = URI\n"
    "  listen-options = TEXT       key=value;key=value; HandshakeTimeout=MS defaults to 10000\n"
    "  target-options = TEXT       ConnectTimeout=MS defaults to 30000\n"
    "  buffer-size = BYTES         default 1048576\n"
    "  [NAME]                      a server\n"
    "  serve = URI\n"
    "  mode = echo                 or discard\n"
    "  options = TEXT              HandshakeTimeout=MS defaults to 10000\n";

// The line logged when a tunnel connection ends: kept at INFO by the quiet default.
const char * const kConnectionCategory = "corvane.net.TunnelConnection";

struct Loaded {
    RunConfig config;
    std::vector<ConfigMistake> mistakes;
    bool readable = true;
};

Loaded load(const std::string & file, net::IModule * module) {
    Loaded loaded;
    std::ifstream in(file);
    if (!in) {
        loaded.readable = false;
        return loaded;
    }
    Common::SmartPtr<net::IChannelFactory> factory;
    std::function<bool(const std::string &)> knownScheme;
    if (module != nullptr) {
        factory = module->createChannelFactory(net::SocketOptions());
        knownScheme = [&factory](const std::string & scheme) {
            return factory->getTransportProtocol(scheme.c_str()) != nullptr;
        };
    }
    loaded.config = parseRunConfig(in, loaded.mistakes, knownScheme);
    std::stable_sort(loaded.mistakes.begin(), loaded.mistakes.end(),
                     [](const ConfigMistake & a, const ConfigMistake & b) { return a.line < b.line; });
    return loaded;
}

void printMistakes(const std::string & file, const Loaded & loaded) {
    if (!loaded.readable) {
        std::cerr << "corvane: cannot read '" << file << "'\n";
    }
    for (const ConfigMistake & mistake : loaded.mistakes) {
        std::cerr << file << ":" << mistake.line << ": " << mistake.text << "\n";
    }
}

// The command line's logging wins over the file's; without either the host stays quiet but
// for warnings and the one line per tunnel connection.
void applyLogging(const RunSettings & settings, const RunConfig & config) {
    if (!settings.logConfig.empty() || !settings.logLevel.empty()) {
        configureLogging(settings.logLevel.empty() ? "ERROR" : settings.logLevel, settings.logConfig);
    } else if (!config.logConfig.empty() || !config.logLevel.empty()) {
        configureLogging(config.logLevel.empty() ? "ERROR" : config.logLevel, config.logConfig);
    } else {
        configureLogging("WARN", "");
        log4cxx::Logger::getLogger(kConnectionCategory)->setLevel(log4cxx::Level::getInfo());
    }
}

// The running sections, each on one of the reactors. A tunnel has a store of its own, so
// that its buffer size is its own and stopping it ends exactly its connections.
class Sections {
public:
    Sections(net::IModule * module, int threads) : m_module(module) {
        m_factory = module->createChannelFactory(hostSocketOptions());
        for (int i = 0; i < threads; ++i) {
            Common::SmartPtr<net::IReactor> reactor(module->createReactor(5000, 300000, 20));
            reactor->startProcessing();
            m_reactors.push_back(reactor);
            m_load.push_back(0);
        }
    }

    // Starts `section`; false with the reason in `failure`.
    bool start(const RunSection & section, std::string & failure) {
        const size_t reactor = static_cast<size_t>(std::min_element(m_load.begin(), m_load.end()) - m_load.begin());
        Running running;
        running.section = section;
        running.reactor = reactor;
        try {
            if (section.server) {
                running.acceptor = makeServeAcceptor(section.echo);
                // The host's time limits unless the section's option text sets them.
                const std::string options = withTimeLimit(section.options, "HandshakeTimeout", kHandshakeTimeoutDefault);
                running.server = m_factory->startChannelServer(m_reactors[reactor].get(), section.serve.c_str(),
                                                               running.acceptor.get(), options.c_str());
                running.localURI = running.server->getLocalURI();
            } else {
                running.store = m_module->createTunnelStore(m_reactors[reactor].get(), m_factory.get(), section.bufferSize);
                const std::string listenOptions =
                    withTimeLimit(section.listenOptions, "HandshakeTimeout", kHandshakeTimeoutDefault);
                const std::string targetOptions =
                    withTimeLimit(section.targetOptions, "ConnectTimeout", kConnectTimeoutDefault);
                net::ITunnelService * service = running.store->startTunnel(
                    section.listen.c_str(), listenOptions.c_str(), section.target.c_str(), targetOptions.c_str());
                running.localURI = service->getLocalURI();
            }
        } catch (const std::exception & e) {
            if (running.store) {
                running.store->shutdown();
            }
            failure = "[" + section.name + "]: " + listenFailure(section.listenURI(), e);
            return false;
        }
        ++m_load[reactor];
        std::cout << section.name << ": listening on " << running.localURI << std::endl;
        m_running[section.name] = running;
        return true;
    }

    void stop(const std::string & name) {
        auto found = m_running.find(name);
        if (found == m_running.end()) {
            return;
        }
        Running & running = found->second;
        if (running.store) {
            running.store->shutdown();
        } else {
            running.server->close();
        }
        --m_load[running.reactor];
        std::cout << name << ": stopped" << std::endl;
        m_running.erase(found);
    }

    // Stops what is gone or changed, then starts what is new or changed; unchanged sections
    // run on untouched. Returns the failures of starts.
    std::vector<std::string> apply(const RunConfig & config, int & started, int & stopped) {
        std::vector<std::string> gone;
        for (const auto & entry : m_running) {
            auto same = std::find_if(config.sections.begin(), config.sections.end(), [&](const RunSection & section) {
                return section.sameSettings(entry.second.section);
            });
            if (same == config.sections.end()) {
                gone.push_back(entry.first);
            }
        }
        for (const std::string & name : gone) {
            stop(name);
            ++stopped;
        }
        std::vector<std::string> failures;
        for (const RunSection & section : config.sections) {
            if (m_running.count(section.name) == 0) {
                std::string failure;
                if (start(section, failure)) {
                    ++started;
                } else {
                    failures.push_back(failure);
                }
            }
        }
        return failures;
    }

    size_t count() const { return m_running.size(); }

    void stopAll() {
        while (!m_running.empty()) {
            stop(m_running.begin()->first);
        }
        for (auto & reactor : m_reactors) {
            reactor->stopProcessing();
        }
    }

private:
    struct Running {
        RunSection section;
        size_t reactor = 0;
        std::string localURI;
        Common::SmartPtr<net::ITunnelStore> store;
        Common::SmartPtr<net::IChannelServer> server;
        Common::SmartPtr<net::IChannelAcceptor> acceptor;
    };

    net::IModule * m_module;
    Common::SmartPtr<net::IChannelFactory> m_factory;
    std::vector<Common::SmartPtr<net::IReactor>> m_reactors;
    std::vector<int> m_load;
    std::map<std::string, Running> m_running;
};

// SIGINT, SIGTERM or SIGHUP, whichever comes first.
int waitForSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGHUP);
    for (;;) {
        const int number = sigwaitinfo(&signals, nullptr);
        if (number > 0) {
            return number;
        }
    }
}

}  // namespace

int commandRun(const RunSettings & settings, const std::vector<std::string> & args) {
    bool check = false;
    std::string file;
    for (const std::string & arg : args) {
        if (arg == "--help") {
            std::cout << kRunUsage;
            return 0;
        }
        if (arg == "--check") {
            check = true;
        } else if (!file.empty()) {
            throw UsageError("run: unexpected argument '" + arg + "'");
        } else {
            file = arg;
        }
    }
    if (file.empty()) {
        throw UsageError("run: a configuration FILE is needed");
    }
    // SIGHUP is awaited like the stop signals: blocked before any thread starts, so that
    // every thread inherits the mask and none is ended by it.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hangup, nullptr);

    configureLogging(settings.logLevel.empty() ? "ERROR" : settings.logLevel, settings.logConfig);
    net::IModule * module = loadModule(settings.modulePath);
    Loaded loaded = load(file, module);
    printMistakes(file, loaded);
    if (!loaded.readable || !loaded.mistakes.empty()) {
        return 1;
    }
    if (check) {
        std::cout << file << ": " << loaded.config.sections.size() << " sections, no mistakes\n";
        return 0;
    }
    if (loaded.config.sections.empty()) {
        throw std::runtime_error("'" + file + "' names no tunnel and no server");
    }
    applyLogging(settings, loaded.config);
    RunConfig current = loaded.config;
    const int threads = loaded.config.threads;
    Sections sections(module, threads);
    int started = 0;
    int stopped = 0;
    std::vector<std::string> failures = sections.apply(loaded.config, started, stopped);
    if (!failures.empty()) {
        StopGuard stopping("stopping the sections", kStopMilliseconds);
        sections.stopAll();
        throw std::runtime_error(failures.front());
    }
    for (;;) {
        const int signal = waitForSignal();
        if (signal != SIGHUP) {
            break;
        }
        Loaded again = load(file, module);
        printMistakes(file, again);
        if (!again.readable || !again.mistakes.empty()) {
            std::cerr << "corvane: '" << file << "' not reloaded: the running sections stay as they are\n";
            continue;
        }
        if (again.config.threads != threads) {
            std::cerr << "corvane: threads = " << again.config.threads << " takes effect at the next start\n";
        }
        // Only a changed setting reconfigures log4cxx, which the running threads log through.
        if (again.config.logLevel != current.logLevel || again.config.logConfig != current.logConfig) {
            applyLogging(settings, again.config);
        }
        current = again.config;
        started = 0;
        stopped = 0;
        for (const std::string & failure : sections.apply(again.config, started, stopped)) {
            std::cerr << "corvane: " << failure << "\n";
        }
        std::cout << "reloaded " << file << ": " << started << " started, " << stopped << " stopped, "
                  << sections.count() - static_cast<size_t>(started) << " unchanged" << std::endl;
    }
    StopGuard stopping("stopping the sections", kStopMilliseconds);
    sections.stopAll();
    return 0;
}

}  // namespace cli
