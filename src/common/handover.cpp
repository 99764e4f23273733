#include "common/handover.h"

#include <pthread.h>

namespace Common {

namespace {

// A thread-specific key rather than a thread_local: the module is loaded with dlopen, and its
// dynamic TLS is what the leak checker of the sanitizer builds trips over at exit. The key's
// destructor lets the object go when the thread ends (the main thread's stays until exit).
pthread_key_t g_keptKey;
pthread_once_t g_keptOnce = PTHREAD_ONCE_INIT;

void releaseKept(void * kept) {
    static_cast<const IRefCnt *>(kept)->release();
}

void makeKeptKey() {
    pthread_key_create(&g_keptKey, releaseKept);
}

}  // namespace

void KeepForCaller(const IRefCnt * object) {
    pthread_once(&g_keptOnce, makeKeptKey);
    if (object != nullptr) {
        object->addRef();
    }
    const auto * previous = static_cast<const IRefCnt *>(pthread_getspecific(g_keptKey));
    pthread_setspecific(g_keptKey, const_cast<IRefCnt *>(object));
    // Let go after the new one is held: handing over the same object twice is safe.
    if (previous != nullptr) {
        previous->release();
    }
}

}  // namespace Common
