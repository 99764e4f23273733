// Loads the built module as a host does and checks what it exports.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <set>
#include <string>

#include "corvane/corvane.h"
#include "logcapture.h"

namespace {

class LoadedModule : public ::testing::Test {
protected:
    void SetUp() override {
        m_handle = dlopen(CORVANE_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(m_handle, nullptr) << dlerror();
        m_getModule = reinterpret_cast<net::GetModuleFunction>(dlsym(m_handle, "GetModule"));
        ASSERT_NE(m_getModule, nullptr) << dlerror();
    }
    void TearDown() override {
        if (m_handle != nullptr) {
            dlclose(m_handle);
        }
    }

    void * m_handle = nullptr;
    net::GetModuleFunction m_getModule = nullptr;
};

TEST_F(LoadedModule, GetModuleIsASingletonAndMakesWorkingFactories) {
    net::IModule * module = m_getModule();
    ASSERT_NE(module, nullptr);
    EXPECT_EQ(module, m_getModule());

    Common::SmartPtr<net::IChannelFactory> factory(module->createChannelFactory(net::SocketOptions()));
    ASSERT_TRUE(factory);
    EXPECT_EQ(factory->getTransportProtocol("ftp"), nullptr);
    // An exception thrown inside the module is caught by the host's own types.
    try {
        factory->openChannel(nullptr, "ftp://127.0.0.1:21", nullptr, nullptr);
        ADD_FAILURE() << "no exception";
    } catch (const net::RuntimeException & e) {
        EXPECT_STREQ(e.what(), "transport protocol 'ftp' not recognized");
    }
    EXPECT_THROW(factory->openChannel(nullptr, "::", nullptr, nullptr), net::URIException);
}

TEST_F(LoadedModule, CreateTunnelStoreRefusesANullReactor) {
    try {
        m_getModule()->createTunnelStore(nullptr, nullptr, 65536);
        ADD_FAILURE() << "no exception";
    } catch (const net::RuntimeException & e) {
        EXPECT_STREQ(e.what(), "reactor argument to createTunnelStore cannot be null");
    }
}

TEST_F(LoadedModule, SelfChecksPassAndSayWhichRan) {
    corvane_test::LogCapture log;
    auto selfChecks = reinterpret_cast<net::RegisterUnitTestsFunction>(dlsym(m_handle, "registerUnitTests"));
    ASSERT_NE(selfChecks, nullptr);
    selfChecks();
    EXPECT_EQ(log.countContaining("corvane.net.ModuleImpl", "passed"), 3u);
    EXPECT_EQ(log.countContaining("corvane.net.ModuleImpl", "failed"), 0u);
}

TEST(ModuleExports, OnlyGetModuleAndRegisterUnitTestsAreDefined) {
    std::string command = std::string("nm -D --defined-only ") + CORVANE_MODULE_PATH;
    FILE * pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> symbols;
    char line[1024];
    while (fgets(line, sizeof line, pipe) != nullptr) {
        std::string text(line);
        // "address type name"; the toolchain's own section and version markers have type A.
        std::size_t space = text.rfind(' ');
        char type = text.size() > 17 ? text[17] : ' ';
        std::string name = text.substr(space + 1);
        name.erase(name.find_last_not_of("\n") + 1);
        if (type != 'A' && type != 'a') {
            symbols.insert(name);
        }
    }
    ASSERT_EQ(pclose(pipe), 0);
    EXPECT_EQ(symbols, (std::set<std::string>{"GetModule", "registerUnitTests"}));
}

}  // namespace
