// A deliberate data race that ThreadSanitizer must report: two threads touch
// only kernel objects of their own, and one unguarded variable. The kernel
// must not order them behind the driver's back (with one lock for every
// object, the second thread would seem to come after the first and the race
// would go unseen). Built and run only in the ThreadSanitizer build; ctest
// passes when the report names the variable.
#include "kernel/kernel.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <functional>
#include <thread>

namespace {

int unguardedValue = 0;

// Orders the two threads in time without a happens-before edge: relaxed
// atomics are invisible to the detector.
std::atomic<int> firstDone{0};

struct Objects {
    KEVENT event;
    KMUTEX mutex;
    KSEMAPHORE semaphore;
    Objects() {
        KeInitializeEvent(&event, SynchronizationEvent, FALSE);
        KeInitializeMutex(&mutex, 0);
        KeInitializeSemaphore(&semaphore, 0, 1);
    }
};

// What each thread does with its own objects around its access.
void UseEvent(Objects& own) {
    KeSetEvent(&own.event, IO_NO_INCREMENT, FALSE);
    KeWaitForSingleObject(&own.event, Executive, KernelMode, FALSE, nullptr);
}

void UseMutex(Objects& own) {
    KeWaitForSingleObject(&own.mutex, Executive, KernelMode, FALSE, nullptr);
    KeReleaseMutex(&own.mutex, FALSE);
}

void UseTimedWait(Objects& own) {
    LARGE_INTEGER tick;
    tick.QuadPart = -1;
    KeWaitForSingleObject(&own.semaphore, Executive, KernelMode, FALSE, &tick);
    KeQuerySystemTime(&tick);
}

}  // namespace

int main(int argc, char** argv) {
    std::function<void(Objects&)> use;
    const char* mode = argc > 1 ? argv[1] : "";
    if (std::strcmp(mode, "event") == 0) {
        use = UseEvent;
    } else if (std::strcmp(mode, "mutex") == 0) {
        use = UseMutex;
    } else if (std::strcmp(mode, "timed-wait") == 0) {
        use = UseTimedWait;
    } else {
        std::fprintf(stderr, "usage: %s event|mutex|timed-wait\n", argv[0]);
        return 2;
    }
    // The kernel's one-time initialisations order the first threads that pass
    // through them; make them here, as a test fixture would.
    winsim::ResetKernel();
    Objects warmUp;
    use(warmUp);

    std::thread first([&] {
        Objects own;
        unguardedValue = 1;
        use(own);
        firstDone.store(1, std::memory_order_relaxed);
    });
    std::thread second([&] {
        Objects own;
        while (firstDone.load(std::memory_order_relaxed) == 0)
            std::this_thread::yield();
        use(own);
        std::printf("second thread read %d\n", unguardedValue);
    });
    first.join();
    second.join();
    return 0;
}
