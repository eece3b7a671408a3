// The dispatcher database: one lock guards the state of every event, mutex
// and semaphore (kept in their Windows structures), one condition wakes all
// waiters whenever any of them is signalled or the clock changes pace.
#pragma once

#include <wdm.h>

#include <condition_variable>
#include <mutex>

namespace winsim::kernel {

std::mutex& DispatcherLock();
std::condition_variable& DispatcherWakeup();

// DISPATCHER_HEADER.Type values, as the Windows kernel numbers them.
enum DispatcherObjectType : UCHAR {
    kNotificationEventObject = 0,
    kSynchronizationEventObject = 1,
    kMutantObject = 2,
    kSemaphoreObject = 5,
};

}  // namespace winsim::kernel
