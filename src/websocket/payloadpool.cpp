#include "websocket/payloadpool.h"

#include <pthread.h>

#include <vector>

namespace websocket {

namespace {

struct Kept {
    std::vector<std::string> strings;
};

// A thread-specific key rather than a thread_local: the module is loaded with dlopen, and its
// dynamic TLS is what the leak checker of the sanitizer builds trips over at exit.
pthread_key_t g_keptKey;
pthread_once_t g_keptOnce = PTHREAD_ONCE_INIT;

void releaseKept(void * kept) {
    delete static_cast<Kept *>(kept);
}

void makeKeptKey() {
    pthread_key_create(&g_keptKey, releaseKept);
}

Kept * keptOfThisThread(bool create) {
    pthread_once(&g_keptOnce, makeKeptKey);
    auto * kept = static_cast<Kept *>(pthread_getspecific(g_keptKey));
    if (kept == nullptr && create) {
        kept = new Kept;
        pthread_setspecific(g_keptKey, kept);
    }
    return kept;
}

}  // namespace

std::string PayloadPool::take(std::size_t size) {
    std::string result;
    Kept * kept = keptOfThisThread(false);
    if (kept != nullptr && !kept->strings.empty()) {
        // The smallest one that is large enough, else the largest.
        std::size_t best = 0;
        for (std::size_t i = 1; i < kept->strings.size(); ++i) {
            const std::size_t have = kept->strings[i].capacity(), chosen = kept->strings[best].capacity();
            const bool fits = have >= size, chosenFits = chosen >= size;
            if ((fits && (!chosenFits || have < chosen)) || (!fits && !chosenFits && have > chosen)) {
                best = i;
            }
        }
        result.swap(kept->strings[best]);
        kept->strings[best].swap(kept->strings.back());
        kept->strings.pop_back();
    }
    result.reserve(size);
    return result;
}

void PayloadPool::give(std::string && payload) noexcept {
    const std::size_t capacity = payload.capacity();
    if (capacity < kMinKeptCapacity || capacity > kMaxKeptCapacity) {
        return;
    }
    try {
        Kept * kept = keptOfThisThread(true);
        if (kept->strings.size() < kMaxKeptStrings) {
            payload.clear();
            kept->strings.push_back(std::move(payload));
        }
    } catch (...) {
        // Not kept: freed by its owner as before.
    }
}

std::size_t PayloadPool::keptOnThisThread() {
    Kept * kept = keptOfThisThread(false);
    return kept == nullptr ? 0 : kept->strings.size();
}

}  // namespace websocket
