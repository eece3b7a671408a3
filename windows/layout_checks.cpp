// Compile-time checks that mingw-w64's DDK headers lay out the records the
// driver shares with stream.sys, usbd/usbport and the registry exactly as the
// Windows ABI does, and (on x86) declare stream.sys's entry points with its
// calling conventions. A wrong size means the driver and the system would
// read each other's fields at the wrong offsets; a wrong convention corrupts
// the stack on every call. Generates no code.
#include <ntddk.h>
#include <strmini.h>
#include <ks.h>
#include <ksmedia.h>
#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include <stddef.h>

#define ORNIX_SIZE(type, bytes) \
    static_assert(sizeof(type) == (bytes), #type " must be " #bytes " bytes")
#define ORNIX_OFFSET(type, field, bytes) \
    static_assert(offsetof(type, field) == (bytes), #type "." #field " must be at " #bytes)

#include "record_sizes.h"

// The entry points mingw_compat.h re-declares: stream.sys implements them as
// __stdcall. Assigning a __cdecl declaration to these pointers fails on x86.
typedef VOID(STREAMAPI* OrnixAbortFn)(PVOID, PHW_STREAM_OBJECT, NTSTATUS);
typedef PKSEVENT_ENTRY(STREAMAPI* OrnixNextEventFn)(PVOID, PHW_STREAM_OBJECT, GUID*, ULONG,
                                                    PKSEVENT_ENTRY);
typedef VOID(STREAMAPI* OrnixQueryClockFn)(PHW_STREAM_OBJECT, HANDLE, TIME_FUNCTION,
                                           PHW_QUERY_CLOCK_ROUTINE);
typedef NTSTATUS(STREAMAPI* OrnixNoPinsFn)(PDEVICE_OBJECT, const GUID*, ULONG, BOOLEAN*,
                                           KSPIN_MEDIUM*, GUID*);
[[maybe_unused]] static constexpr OrnixAbortFn ornixAbort = StreamClassAbortOutstandingRequests;
[[maybe_unused]] static constexpr OrnixNextEventFn ornixNextEvent = StreamClassGetNextEvent;
[[maybe_unused]] static constexpr OrnixQueryClockFn ornixQueryClock = StreamClassQueryMasterClock;
[[maybe_unused]] static constexpr OrnixNoPinsFn ornixNoPins = StreamClassRegisterFilterWithNoKSPins;
