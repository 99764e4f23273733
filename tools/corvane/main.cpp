// corvane: the command-line host of the corvane module.
#include <csignal>
#include <cstdio>
#include <cstring>
#include <utility>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"
#include "host.h"
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
    "\n"
    "options:\n"
    "  --module PATH       the module to load (default: $CORVANE_MODULE, else the built one)\n"
    "  --log-level LEVEL   TRACE, DEBUG, INFO, WARN, ERROR (default), FATAL or OFF; logs go to stderr\n"
    "  --log-config FILE   a log4cxx properties file instead of --log-level\n"
    "  --help              this text; 'corvane COMMAND --help' tells about one command\n";

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

}  // namespace

int main(int argc, char ** argv) {
    cli::blockStopSignals();
    // A reader of our stdout that goes away must end this host with an error, not a signal.
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<std::string> args(argv + 1, argv + argc);
    std::string modulePath = cli::defaultModulePath();
    std::string logLevel = "ERROR";
    std::string logConfig;
    try {
        size_t i = 0;
        for (; i < args.size() && args[i].rfind("--", 0) == 0; ++i) {
            const std::string & option = args[i];
            if (option == "--help") {
                std::cout << kUsage;
                return 0;
            }
            if (i + 1 >= args.size()) {
                throw cli::UsageError(option + " needs a value");
            }
            if (option == "--module") {
                modulePath = args[++i];
            } else if (option == "--log-level") {
                logLevel = args[++i];
            } else if (option == "--log-config") {
                logConfig = args[++i];
            } else {
                throw cli::UsageError("unknown option " + option);
            }
        }
        if (i >= args.size()) {
            throw cli::UsageError("no command given");
        }
        std::string command = args[i];
        std::vector<std::string> rest(args.begin() + static_cast<long>(i) + 1, args.end());
        using Command = int (*)(const cli::Context &, const std::vector<std::string> &);
        const std::vector<std::pair<std::string, Command>> commands = {
            {"info", commandInfo},
            {"serve", cli::commandServe},
            {"connect", cli::commandConnect},
            {"tunnel", commandTunnel},
        };
        for (const auto & entry : commands) {
            if (entry.first == command) {
                cli::configureLogging(logLevel, logConfig);
                cli::Context context;
                context.modulePath = modulePath;
                context.module = cli::loadModule(modulePath);
                return entry.second(context, rest);
            }
        }
        if (command == "proxy-info") {
            cli::configureLogging(logLevel, logConfig);
            return cli::commandProxyInfo(rest);
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
