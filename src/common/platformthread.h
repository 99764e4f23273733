// Common::PlatformThread: static operations over POSIX threads.
#pragma once

namespace Common {

class PlatformThread {
public:
    class IDelegate {
    public:
        virtual ~IDelegate() = default;
        virtual void ThreadMain() = 0;
    };

    // Starts a thread that runs delegate->ThreadMain() and stores a joinable handle.
    // stackSize 0 keeps the default. False when the thread could not be started.
    static bool Create(unsigned int stackSize, IDelegate * delegate, void ** handle);
    static void Join(void * handle);
    // Never 0 for a real thread: callers use 0 for "no thread yet".
    static unsigned long CurrentId();
    // Names the calling thread; the kernel keeps only the first 15 characters.
    static void SetName(const char * name);
    static void Sleep(int milliseconds);
};

}  // namespace Common
