// Dispatcher objects (events, mutexes, semaphores) keep their state in their
// Windows structures; each object has a lock and a wake-up condition of its
// own, as in current Windows, so that two threads touching two different
// objects are not ordered by the kernel (ThreadSanitizer sees what the driver
// synchronises, nothing more).
#pragma once

#include <wdm.h>

#include <condition_variable>
#include <mutex>

namespace winsim::kernel {

// DISPATCHER_HEADER.Type values, as the Windows kernel numbers them.
enum DispatcherObjectType : UCHAR {
    kNotificationEventObject = 0,
    kSynchronizationEventObject = 1,
    kMutantObject = 2,
    kSemaphoreObject = 5,
};

// Guards the header and body of one dispatcher object; waiters of the object
// sleep on `wakeup`.
struct ObjectLock {
    std::mutex mutex;
    std::condition_variable wakeup;
};

// The lock of the object at `object`, made on first use. It lives as long as
// the process: an object later initialised at the same address reuses it.
ObjectLock& LockOf(const void* object);

// Wakes every waiter on every object and every delayed thread, so that timed
// waits recompute their deadlines (the clock changed pace).
void WakeAllWaiters();

// Blocks the calling thread until the simulated clock passes `deadline`
// (100 ns units of winsim::Now100ns).
void SleepUntil(int64_t deadline);

}  // namespace winsim::kernel
