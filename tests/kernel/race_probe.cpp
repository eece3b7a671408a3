// A deliberate data race that ThreadSanitizer must report: two threads touch
// only kernel objects of their own, and one unguarded variable. The kernel
// must not order them behind the driver's back (with one lock for every
// object, the second thread would seem to come after the first and the race
// would go unseen). Built and run only in the ThreadSanitizer build; ctest
// passes when the report names the variable.
#include "kernel/kernel.h"

#include <atomic>
#include <cstdio>
#include <string_view>
#include <thread>

namespace {

int unguardedValue = 0;

// Orders the two threads in time without a happens-before edge: relaxed
// atomics are invisible to the detector.
std::atomic<int> firstDone{0};

// Each thread's own objects, and what it does with them around its access.
struct Objects {
    KEVENT event;
    KMUTEX mutex;
    KSEMAPHORE semaphore;
    LARGE_INTEGER tick{.QuadPart = -1};

    void Use(std::string_view mode) {
        if (mode == "event") {
            KeInitializeEvent(&event, SynchronizationEvent, FALSE);
            KeSetEvent(&event, IO_NO_INCREMENT, FALSE);
            KeWaitForSingleObject(&event, Executive, KernelMode, FALSE, nullptr);
        } else if (mode == "mutex") {
            KeInitializeMutex(&mutex, 0);
            KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
            KeReleaseMutex(&mutex, FALSE);
        } else {
            KeInitializeSemaphore(&semaphore, 0, 1);
            KeWaitForSingleObject(&semaphore, Executive, KernelMode, FALSE, &tick);
            KeQuerySystemTime(&tick);
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    const std::string_view mode = argc > 1 ? argv[1] : "";
    if (mode != "event" && mode != "mutex" && mode != "timed-wait") {
        std::fprintf(stderr, "usage: %s event|mutex|timed-wait\n", argv[0]);
        return 2;
    }
    // The kernel's one-time initialisations order the first threads that pass
    // through them; make them here, as a test fixture would.
    winsim::ResetKernel();
    Objects().Use(mode);

    std::thread first([&] {
        unguardedValue = 1;
        Objects().Use(mode);
        firstDone.store(1, std::memory_order_relaxed);
    });
    std::thread second([&] {
        while (firstDone.load(std::memory_order_relaxed) == 0)
            std::this_thread::yield();
        Objects().Use(mode);
        std::printf("second thread read %d\n", unguardedValue);
    });
    first.join();
    second.join();
    return 0;
}
