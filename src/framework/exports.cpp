// The module's only two exported symbols; everything else stays hidden.
#include "corvane/module.h"
#include "framework/moduleimpl.h"

extern "C" __attribute__((visibility("default"))) net::IModule * GetModule() {
    return &net::ModuleImpl::Instance();
}

extern "C" __attribute__((visibility("default"))) void registerUnitTests() {
    net::ModuleImpl::RunSelfChecks();
}
