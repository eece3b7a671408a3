// The observer of signalled device events.
#include "streamclass/device_events.h"

#include <mutex>

#include "streamclass/event_listeners.h"

namespace winsim {
namespace {

std::mutex& ObserverMutex() {
    static std::mutex mutex;
    return mutex;
}

DeviceEventObserver& Observer() {
    static DeviceEventObserver observer;
    return observer;
}

}  // namespace

void SetDeviceEventObserver(DeviceEventObserver observer) {
    std::lock_guard lock(ObserverMutex());
    Observer() = std::move(observer);
}

void ReportDeviceEvent(PVOID extension, const GUID* set, ULONG id) {
    // Called outside the lock, so that an observer may signal or replace itself.
    DeviceEventObserver observer;
    {
        std::lock_guard lock(ObserverMutex());
        observer = Observer();
    }
    if (set == nullptr) {
        return;
    }
    DeviceEventListeners::Deliver(extension, *set, id);
    if (observer) {
        observer(extension, *set, id);
    }
}

}  // namespace winsim
