// corvane tunnel: local port forwarding through the module's tunnel store until a stop signal.
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <iostream>
#include <string>
#include <vector>

#include "commands.h"

namespace {

const char * const kTunnelUsage =
    "usage: corvane tunnel LISTEN_URI TARGET_URI [--listen-options TEXT] [--target-options TEXT]\n"
    "                      [--buffer-size BYTES] [--handshake-timeout MS] [--connect-timeout MS]\n"
    "                      [--threads N]\n"
    "\n"
    "Listens on LISTEN_URI and forwards every connection that comes in to a new connection to\n"
    "TARGET_URI, both ways, until SIGINT or SIGTERM. Prints 'listening on URI' (with the real port\n"
    "when LISTEN_URI names none or 0) once it listens.\n"
    "\n"
    "  --listen-options TEXT   option text of the listening side (key=value;key=value)\n"
    "  --target-options TEXT   option text of each outgoing connection\n"
    "  --buffer-size BYTES     most buffered in each direction of each connection (default\n"
    "                          1048576); a connection starts with 64 KiB and grows while it is full\n"
    "  --handshake-timeout MS  drop an incoming connection whose TLS handshake or WebSocket upgrade\n"
    "                          is not done within MS milliseconds (default 10000; 0: no limit)\n"
    "  --connect-timeout MS    give up an outgoing connection (each proxy, then directly) that is not\n"
    "                          open within MS milliseconds, handshakes included (default 30000; 0: none)\n"
    "  --threads N             reactor threads, 1 to 64 (default: one per core). Each has a tunnel\n"
    "                          of its own on the same port (SO_REUSEPORT) and holds at most 511\n"
    "                          connections: give one thread per 350 connections expected\n";

unsigned int parseBufferSize(const std::string & text) {
    char * end = nullptr;
    errno = 0;
    unsigned long long value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || text[0] == '-' || *end != '\0' || errno != 0 || value == 0 || value > 0x7fffffffULL) {
        throw cli::UsageError("--buffer-size needs a number of bytes from 1 to 2147483647, not '" + text + "'");
    }
    return static_cast<unsigned int>(value);
}

}  // namespace

int commandTunnel(const cli::Context & context, const std::vector<std::string> & args) {
    std::vector<std::string> positional;
    std::string listenOptions;
    std::string targetOptions;
    std::string handshakeTimeout = cli::kHandshakeTimeoutDefault;
    std::string connectTimeout = cli::kConnectTimeoutDefault;
    unsigned int bufferSize = 0x100000;
    int threads = cli::defaultThreads();
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string & arg = args[i];
        if (arg == "--help" || arg == "-h") {
            std::cout << kTunnelUsage;
            return 0;
        }
        if (arg == "--listen-options") {
            listenOptions = cli::optionValue(args, i);
        } else if (arg == "--target-options") {
            targetOptions = cli::optionValue(args, i);
        } else if (arg == "--handshake-timeout") {
            handshakeTimeout = cli::millisecondsValue(args, i);
        } else if (arg == "--connect-timeout") {
            connectTimeout = cli::millisecondsValue(args, i);
        } else if (arg == "--threads") {
            threads = cli::parseThreads("tunnel", cli::optionValue(args, i));
        } else if (arg == "--buffer-size") {
            bufferSize = parseBufferSize(cli::optionValue(args, i));
        } else if (arg.rfind("--", 0) == 0) {
            throw cli::UsageError("tunnel: unknown option " + arg);
        } else {
            positional.push_back(arg);
        }
    }
    if (positional.size() != 2) {
        throw cli::UsageError("tunnel needs LISTEN_URI and TARGET_URI");
    }
    listenOptions = cli::withTimeLimit(listenOptions, "HandshakeTimeout", handshakeTimeout);
    targetOptions = cli::withTimeLimit(targetOptions, "ConnectTimeout", connectTimeout);

    // One reactor per thread, each with a store of its own: both channels of a connection stay
    // on the reactor that accepted it, and the kernel spreads the connections (SO_REUSEPORT).
    Common::SmartPtr<net::IChannelFactory> factory(
        context.module->createChannelFactory(cli::sharedListenerOptions(threads, positional[0])));
    std::vector<Common::SmartPtr<net::IReactor>> reactors;
    std::vector<Common::SmartPtr<net::ITunnelStore>> stores;
    auto stopAll = [&]() {
        // Connections first, then the listening services and the creator threads, then the
        // reactors.
        for (auto & store : stores) {
            store->shutdown();
        }
        for (auto & reactor : reactors) {
            reactor->stopProcessing();
        }
    };
    // A creator thread may already run when a later listener fails: stopAll ends it, or the
    // store would never go.
    const std::string localURI = cli::listenOnReactors(
        context, threads, positional[0], reactors,
        [&](net::IReactor * reactor, const std::string & listenURI) {
            stores.emplace_back(context.module->createTunnelStore(reactor, factory.get(), bufferSize));
            return std::string(stores.back()
                                   ->startTunnel(listenURI.c_str(), listenOptions.c_str(), positional[1].c_str(),
                                                 targetOptions.c_str())
                                   ->getLocalURI());
        },
        stopAll);
    std::cout << "listening on " << localURI << std::endl;
    cli::waitForStopSignal();
    cli::StopGuard stopping("stopping the tunnels", cli::kStopMilliseconds);
    stopAll();
    return 0;
}
