// corvane: the command-line host of the corvane module.
#include <getopt.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>
#include <iostream>
#include <string>
#include <vector>

#include <log4cxx/log4cxx.h>
#include <openssl/opensslv.h>
#include <websocketpp/version.hpp>

#include "commands.h"
#include "host.h"
#include "net/version.h"
#include "proxyinfo.h"

namespace {

const char * const kUsage =
    "usage: corvane [--module PATH] [--log-level LEVEL] [--log-config FILE] COMMAND [ARGS]\n"
    "\n"
    "commands:\n"
    "  info        load the module and list the transports it serves\n"
    "  serve       a channel server that echoes or discards\n"
    "  connect     join stdin and stdout to a channel, like nc\n"
    "  tunnel      forward every connection on one URI to another\n"
    "  proxy-info  list the proxies that a connection to a URL would try\n"
    "  version     the library's version and those of the libraries it was built with\n"
    "\n"
    "options:\n"
    "  --module PATH       the module to load (default: $CORVANE_MODULE, else the built one)\n"
    "  --log-level LEVEL   TRACE, DEBUG, INFO, WARN, ERROR (default), FATAL or OFF; logs go to stderr\n"
    "  --log-config FILE   a log4cxx properties file instead of --log-level\n"
    "  --help              this text; 'corvane COMMAND --help' tells about one command\n"
    "  --version           the same as 'corvane version'\n";

int commandInfo(const cli::Context & context, const std::vector<std::string> & args) {
    if (!args.empty() && (args[0] == "--help" || args[0] == "-h")) {
        std::cout << "usage: corvane info\n\nLoads the module and lists the URI schemes it serves.\n";
        return 0;
    }
    if (!args.empty()) {
        throw cli::UsageError("info takes no arguments");
    }
    Common::SmartPtr<net::IChannelFactory> factory(context.module->createChannelFactory(net::SocketOptions()));
    std::cout << "module: " << context.modulePath << "\n";
    std::cout << "transports:";
    int served = 0;
    for (const char * scheme : {"tcp", "http", "https", "ssl", "ws", "wss"}) {
        if (factory->getTransportProtocol(scheme) != nullptr) {
            std::cout << " " << scheme;
            ++served;
        }
    }
    std::cout << (served == 0 ? " (none yet)" : "") << "\n";
    return 0;
}

// The version as proxy requests carry it, then the libraries' versions from the headers that
// this build compiled against (the module's build is the same one).
int commandVersion() {
    std::cout << net::kUserAgent << "\n"
              << "built with OpenSSL " << OPENSSL_VERSION_STR << ", websocketpp " << websocketpp::major_version << "."
              << websocketpp::minor_version << "." << websocketpp::patch_version << ", log4cxx "
              << LOG4CXX_VERSION_MAJOR << "." << LOG4CXX_VERSION_MINOR << "." << LOG4CXX_VERSION_PATCH << "\n";
    return 0;
}

// The library's text on one line: OpenSSL's error queue comes one error per line.
std::string oneLine(std::string text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    for (size_t at = text.find('\n'); at != std::string::npos; at = text.find('\n', at)) {
        text.replace(at, 1, "; ");
    }
    return text;
}

// The options of one command, for getopt_long: each global option is also taken after the
// command, so that "serve URI --log-level INFO" works as users expect.
struct CommandOptions {
    const char * name;
    std::vector<option> options;  // the command's own, without the terminating entry
};

const std::vector<option> kGlobalOptions = {
    {"module", required_argument, nullptr, 0},
    {"log-level", required_argument, nullptr, 0},
    {"log-config", required_argument, nullptr, 0},
    {"help", no_argument, nullptr, 'h'},
};

struct Globals {
    std::string modulePath;
    std::string logLevel = "ERROR";
    bool logLevelGiven = false;
    std::string logConfig;
};

// Runs getopt_long over `args` (argv[0] excluded) with `options` and the global ones. Global
// options land in `globals`; the command's own come back normalised as "--name [value]"
// ("-h" as "--help"), followed by the positional arguments. `stopAtFirst` stops at the first
// positional argument (the command name). Returns the index of the first argument not taken.
size_t parseOptions(const std::string & command, const std::vector<std::string> & args,
                    const std::vector<option> & own, bool stopAtFirst, Globals & globals,
                    std::vector<std::string> & normalised) {
    std::vector<option> table(own);
    table.insert(table.end(), kGlobalOptions.begin(), kGlobalOptions.end());
    table.push_back({nullptr, 0, nullptr, 0});
    std::vector<std::string> storage;
    storage.reserve(args.size() + 1);
    storage.push_back("corvane");
    storage.insert(storage.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string & arg : storage) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    const std::string prefix = command.empty() ? "" : command + ": ";
    optind = 0;  // a fresh scan: GNU getopt starts over when optind is 0
    opterr = 0;
    const char * shortOptions = stopAtFirst ? "+:h" : ":h";
    for (;;) {
        int index = -1;
        const int result = getopt_long(static_cast<int>(argv.size() - 1), argv.data(), shortOptions, table.data(), &index);
        if (result == -1) {
            break;
        }
        if (result == '?') {
            const std::string given = optopt != 0 ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
            throw cli::UsageError(prefix + "unknown option " + given);
        }
        if (result == ':') {
            const std::string given = optopt != 0 ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
            throw cli::UsageError(prefix + given + " needs a value");
        }
        if (result == 'h') {
            normalised.push_back("--help");
            continue;
        }
        const std::string name = table[static_cast<size_t>(index)].name;
        if (name == "module") {
            globals.modulePath = optarg;
        } else if (name == "log-level") {
            globals.logLevel = optarg;
            globals.logLevelGiven = true;
        } else if (name == "log-config") {
            globals.logConfig = optarg;
        } else {
            normalised.push_back("--" + name);
            if (table[static_cast<size_t>(index)].has_arg != no_argument) {
                normalised.push_back(optarg != nullptr ? optarg : "");
            }
        }
    }
    const size_t firstLeft = static_cast<size_t>(optind) - 1;
    if (!stopAtFirst) {
        // getopt_long has moved the positional arguments behind the options, in their order.
        for (size_t i = static_cast<size_t>(optind); i + 1 < argv.size(); ++i) {
            normalised.push_back(argv[i]);
        }
    }
    return firstLeft;
}

bool asksHelp(const std::vector<std::string> & args) {
    return std::find(args.begin(), args.end(), "--help") != args.end();
}

}  // namespace

int main(int argc, char ** argv) {
    cli::blockStopSignals();
    cli::raiseDescriptorLimit();
    // A reader of our stdout that goes away must end this host with an error, not a signal.
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> args(argv + 1, argv + argc);
    Globals globals;
    try {
        // The options before the command: the global ones, --help and --version.
        std::vector<option> topOptions = {{"version", no_argument, nullptr, 0}};
        std::vector<std::string> before;
        const size_t commandIndex = parseOptions("", args, topOptions, true, globals, before);
        if (asksHelp(before)) {
            std::cout << kUsage;
            return 0;
        }
        if (!before.empty()) {  // --version
            return commandVersion();
        }
        if (commandIndex >= args.size()) {
            throw cli::UsageError("no command given");
        }
        const std::string command = args[commandIndex];
        const std::vector<std::string> after(args.begin() + static_cast<long>(commandIndex) + 1, args.end());
        const std::vector<CommandOptions> optionsOf = {
            {"info", {}},
            {"version", {}},
            {"proxy-info", {}},
            {"serve",
             {{"echo", no_argument, nullptr, 0}, {"discard", no_argument, nullptr, 0},
              {"options", required_argument, nullptr, 0}, {"handshake-timeout", required_argument, nullptr, 0},
              {"threads", required_argument, nullptr, 0}}},
            {"connect",
             {{"options", required_argument, nullptr, 0}, {"wait", required_argument, nullptr, 0},
              {"stats", no_argument, nullptr, 0}, {"connect-timeout", required_argument, nullptr, 0}}},
            {"tunnel",
             {{"listen-options", required_argument, nullptr, 0}, {"target-options", required_argument, nullptr, 0},
              {"buffer-size", required_argument, nullptr, 0}, {"handshake-timeout", required_argument, nullptr, 0},
              {"connect-timeout", required_argument, nullptr, 0}, {"threads", required_argument, nullptr, 0}}},
            {"run", {{"check", no_argument, nullptr, 0}}},
        };
        const CommandOptions * known = nullptr;
        for (const CommandOptions & candidate : optionsOf) {
            if (command == candidate.name) {
                known = &candidate;
            }
        }
        if (known == nullptr) {
            throw cli::UsageError("unknown command '" + command + "'");
        }
        std::vector<std::string> rest;
        parseOptions(command, after, known->options, false, globals, rest);
        if (globals.modulePath.empty()) {
            globals.modulePath = cli::defaultModulePath();
        }

        if (command == "version") {
            if (asksHelp(rest)) {
                std::cout << "usage: corvane version\n\nPrints the library's version as proxy requests carry it, and the\n"
                             "versions of OpenSSL, websocketpp and log4cxx it was built with.\n";
                return 0;
            }
            if (!rest.empty()) {
                throw cli::UsageError("version takes no arguments");
            }
            return commandVersion();
        }
        if (command == "proxy-info") {
            if (!asksHelp(rest)) {
                cli::configureLogging(globals.logLevel, globals.logConfig);
            }
            return cli::commandProxyInfo(rest);
        }
        if (command == "run") {
            cli::RunSettings settings;
            settings.logLevel = globals.logLevelGiven ? globals.logLevel : std::string();
            settings.logConfig = globals.logConfig;
            settings.modulePath = globals.modulePath;
            return cli::commandRun(settings, rest);
        }
        using Command = int (*)(const cli::Context &, const std::vector<std::string> &);
        const std::vector<std::pair<std::string, Command>> commands = {
            {"info", commandInfo},
            {"serve", cli::commandServe},
            {"connect", cli::commandConnect},
            {"tunnel", commandTunnel},
        };
        for (const auto & entry : commands) {
            if (entry.first == command) {
                cli::Context context;
                if (!asksHelp(rest)) {
                    cli::configureLogging(globals.logLevel, globals.logConfig);
                    context.modulePath = globals.modulePath;
                    context.module = cli::loadModule(globals.modulePath);
                }
                return entry.second(context, rest);
            }
        }
        throw cli::UsageError("unknown command '" + command + "'");
    } catch (const cli::UsageError & e) {
        std::cerr << "corvane: " << e.what() << " (try 'corvane --help')\n";
        return 2;
    } catch (const std::exception & e) {
        std::cerr << "corvane: " << oneLine(e.what()) << "\n";
        return 1;
    }
}
