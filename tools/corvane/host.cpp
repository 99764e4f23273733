#include "host.h"

#include <dlfcn.h>
#include <pthread.h>

#include <cerrno>

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

namespace cli {

std::string defaultModulePath() {
    const char * fromEnvironment = std::getenv("CORVANE_MODULE");
    return fromEnvironment != nullptr && *fromEnvironment != '\0' ? fromEnvironment : CORVANE_DEFAULT_MODULE;
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

std::string optionValue(const std::vector<std::string> & args, size_t & i) {
    if (i + 1 >= args.size()) {
        throw UsageError(args[i] + " needs a value");
    }
    return args[++i];
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
