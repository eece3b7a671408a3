// Device events that minidrivers signal through StreamClassDeviceNotification
// (SignalMultipleDeviceEvents), made visible to tests.
#pragma once

#include <cstdarg>
#include <functional>

#include "ks.h"

namespace winsim {

// Called once per signalled event, on the signalling thread (possibly at
// DISPATCH_LEVEL), with the device extension, the event set and the event id.
using DeviceEventObserver = std::function<void(PVOID extension, const GUID& set, ULONG id)>;

// Replaces the observer; an empty function removes it.
void SetDeviceEventObserver(DeviceEventObserver observer);

// Reads the event entry, the event-set GUID and the event id that follow the
// request block in a SignalMultipleDeviceEvents notification, and hands the
// event to the observer.
void ReportDeviceEvent(PVOID extension, va_list arguments);

}  // namespace winsim
