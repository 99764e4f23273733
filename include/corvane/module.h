// The module's two exports. A host that loads libcorvane.so with dlopen looks up
// "GetModule" with dlsym and calls it through GetModuleFunction.
#pragma once

#include "corvane/channel.h"

extern "C" {
// The one net::IModule, created at the first call; the same pointer on every call, never null.
net::IModule * GetModule();
// Runs the module's self-checks and logs their outcome; no part in networking.
void registerUnitTests();
}

namespace net {
using GetModuleFunction = IModule * (*)();
using RegisterUnitTestsFunction = void (*)();
}  // namespace net
