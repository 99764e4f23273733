#include "common/platformthread.h"

#include <pthread.h>

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <string>

namespace Common {

namespace {

static_assert(sizeof(pthread_t) <= sizeof(void *), "a pthread_t must fit in a handle");

void * threadEntry(void * argument) {
    static_cast<PlatformThread::IDelegate *>(argument)->ThreadMain();
    return nullptr;
}

}  // namespace

bool PlatformThread::Create(unsigned int stackSize, IDelegate * delegate, void ** handle) {
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) {
        return false;
    }
    if (stackSize != 0 && pthread_attr_setstacksize(&attributes, stackSize) != 0) {
        pthread_attr_destroy(&attributes);
        return false;
    }
    pthread_t thread;
    int rc = pthread_create(&thread, &attributes, threadEntry, delegate);
    pthread_attr_destroy(&attributes);
    if (rc != 0) {
        return false;
    }
    *handle = reinterpret_cast<void *>(static_cast<std::uintptr_t>(thread));
    return true;
}

void PlatformThread::Join(void * handle) {
    pthread_join(static_cast<pthread_t>(reinterpret_cast<std::uintptr_t>(handle)), nullptr);
}

unsigned long PlatformThread::CurrentId() {
    return static_cast<unsigned long>(pthread_self());
}

void PlatformThread::SetName(const char * name) {
    std::string shortName = std::string(name != nullptr ? name : "").substr(0, 15);
    pthread_setname_np(pthread_self(), shortName.c_str());
}

void PlatformThread::Sleep(int milliseconds) {
    if (milliseconds <= 0) {
        return;
    }
    timespec remaining{milliseconds / 1000, static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

}  // namespace Common
