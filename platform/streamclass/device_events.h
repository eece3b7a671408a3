// Device events that minidrivers signal through StreamClassDeviceNotification
// (SignalMultipleDeviceEvents), made visible to tests.
#pragma once

#include <functional>

#include "ks.h"

namespace winsim {

// Called once per signalled event, on the signalling thread (possibly at
// DISPATCH_LEVEL), with the device extension, the event set and the event id.
using DeviceEventObserver = std::function<void(PVOID extension, const GUID& set, ULONG id)>;

// Replaces the observer; an empty function removes it.
void SetDeviceEventObserver(DeviceEventObserver observer);

// Hands one SignalMultipleDeviceEvents notification to the listeners that
// enabled it (streamclass/event_listeners.h), then to the observer; a null
// event set is dropped.
void ReportDeviceEvent(PVOID extension, const GUID* set, ULONG id);

}  // namespace winsim
