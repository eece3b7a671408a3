// The observer of signalled device events.
#include "streamclass/device_events.h"

#include <mutex>

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

void ReportDeviceEvent(PVOID extension, va_list arguments) {
    (void)va_arg(arguments, PKSEVENT_ENTRY);
    const GUID* set = va_arg(arguments, GUID*);
    ULONG id = va_arg(arguments, ULONG);

    // Called outside the lock, so that an observer may signal or replace itself.
    DeviceEventObserver observer;
    {
        std::lock_guard lock(ObserverMutex());
        observer = Observer();
    }
    if (observer && set != nullptr) {
        observer(extension, *set, id);
    }
}

}  // namespace winsim
