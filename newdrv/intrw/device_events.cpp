// Enabling and disabling of device events by the stream class, and the
// signalling of still-image triggers and camera device events.
#include "ornix.h"

#include <ksmedia.h>

// The stream class keeps the enabled events itself; the counters only tell
// whether anybody listens. They change by interlocked operations: a
// notification racing with an enable sees the count before or after it.
static VOID OrnixCountListener(LONG volatile* Count, BOOLEAN Enable) {
    if (Enable) {
        InterlockedIncrement(Count);
    } else {
        InterlockedDecrement(Count);
    }
}

// Read beside enables on other processors.
static LONG OrnixListenerCount(LONG volatile* Count) {
    return InterlockedCompareExchange(Count, 0, 0);
}

// IRQL: PASSIVE_LEVEL, outside the adapter request dispatcher.
NTSTATUS STREAMAPI OrnixDeviceEventProc(PHW_EVENT_DESCRIPTOR EventDescriptor) {
    PORNIX_DEVICE_CONTEXT Ext = (PORNIX_DEVICE_CONTEXT)EventDescriptor->DeviceExtension;
    BOOLEAN enable = EventDescriptor->Enable;
    OrnixVerbose(ORNIX_PREFIX "OrnixDeviceEventProc: Index:%d, Enable:%d, EventEntry:0x%08lx\n",
                 (int)EventDescriptor->EnableEventSetIndex, (int)enable,
                 (ULONG)(ULONG_PTR)EventDescriptor->EventEntry);

    if (enable && EventDescriptor->EnableEventSetIndex >= Ext->EventSetCount) {
        DbgPrint(ORNIX_PREFIX "OrnixDeviceEventProc: Failing because index out of range\n");
        return STATUS_INVALID_PARAMETER;
    }
    // Disables are accepted after removal so that listeners can leave.
    if (enable && OrnixFlagIsSet(&Ext->Removed)) {
        DbgPrint(ORNIX_PREFIX "OrnixDeviceEventProc: Failing because removed\n");
        return STATUS_DEVICE_REMOVED;
    }

    // Both counters follow every enable and disable, whichever set it names.
    if (Ext->StreamCount > 1) {
        OrnixCountListener(&Ext->StiEventCount, enable);
    }
    if (Ext->InterruptPipe != ORNIX_NO_PIPE) {
        OrnixCountListener(&Ext->DeviceEventCount, enable);
    }
    return Ext->EventSetCount > 0 ? STATUS_SUCCESS : STATUS_NOT_IMPLEMENTED;
}

// The stream class reads the arguments after the extension by notification
// type: for SignalMultipleDeviceEvents the event-set GUID pointer, then the
// event id. mingw-w64 declares the routine with six fixed parameters (request
// block, event entry, set, id); on both Windows targets fixed and variable
// arguments travel in the same slots, so there the GUID and the id go in the
// request-block and event-entry positions.
// IRQL: <= DISPATCH_LEVEL.
static VOID OrnixSignalDeviceEvent(PORNIX_DEVICE_CONTEXT Ext, const GUID* Set, ULONG EventId) {
#if defined(__MINGW32__)
    StreamClassDeviceNotification(SignalMultipleDeviceEvents, Ext,
                                  (PHW_STREAM_REQUEST_BLOCK)(PVOID)Set,
                                  (PKSEVENT_ENTRY)(ULONG_PTR)EventId, NULL, 0);
#else
    StreamClassDeviceNotification(SignalMultipleDeviceEvents, Ext, Set, EventId);
#endif
}

// Called when a still frame has been delivered. IRQL: <= DISPATCH_LEVEL.
VOID OrnixNotifyStiMonitor(PORNIX_DEVICE_CONTEXT Ext) {
    LONG listeners = OrnixListenerCount(&Ext->StiEventCount);
    OrnixVerbose(ORNIX_PREFIX "OrnixNotifyStiMonitor, eventCount = %d\n", (int)listeners);
    if (listeners != 0) {
        OrnixSignalDeviceEvent(Ext, &OrnixEventSetVidCapToSti, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER);
    }
}

// One event per set bit of an interrupt packet, in ascending bit order.
// IRQL: <= DISPATCH_LEVEL (interrupt transfer completion).
VOID OrnixNotifyForOrnixEvents(PORNIX_DEVICE_CONTEXT Ext, ULONG EventMask) {
    LONG listeners = OrnixListenerCount(&Ext->DeviceEventCount);
    DbgPrint(ORNIX_PREFIX "OrnixNotifyForOrnixEvents, eventCount = %d, events: 0x%08lx\n",
             (int)listeners, EventMask);
    if (listeners == 0) {
        return;
    }
    for (ULONG n = 0; n < 32 && (EventMask >> n) != 0; n++) {
        if ((EventMask >> n) & 1) {
            OrnixSignalDeviceEvent(Ext, &OrnixEventSetOxEvents, n);
        }
    }
}
