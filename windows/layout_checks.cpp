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

#define ORNIX_SIZE(type, bytes) static_assert(sizeof(type) == (bytes), #type " must be " #bytes " bytes")

// Records without pointers: one size on every architecture.
ORNIX_SIZE(KS_DATARANGE_VIDEO, 296);
ORNIX_SIZE(KS_DATARANGE_VIDEO_PALETTE, 1336);
// Registry value data starts after TitleIndex, Type and DataLength.
static_assert(offsetof(KEY_VALUE_PARTIAL_INFORMATION, Data) == 12,
              "KEY_VALUE_PARTIAL_INFORMATION header must be 12 bytes");
ORNIX_SIZE(KEY_VALUE_PARTIAL_INFORMATION, 16);

#if defined(_WIN64)
// x64: the same field lists with 8-byte pointers at natural alignment, the
// layout MSVC gives them too.
ORNIX_SIZE(HW_INITIALIZATION_DATA, 88);
ORNIX_SIZE(HW_STREAM_HEADER, 72);
ORNIX_SIZE(HW_STREAM_INFORMATION, 136);
ORNIX_SIZE(KSSTREAM_HEADER, 56);  // includes the x64-only Reserved field
ORNIX_SIZE(struct _URB_HEADER, 24);
ORNIX_SIZE(struct _URB_HCD_AREA, 64);
ORNIX_SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 128);
ORNIX_SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 136);
ORNIX_SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 136);
ORNIX_SIZE(struct _URB_PIPE_REQUEST, 40);
ORNIX_SIZE(struct _URB_SELECT_CONFIGURATION, 88);
ORNIX_SIZE(USBD_INTERFACE_INFORMATION, 48);  // 24 + 24 for one pipe
ORNIX_SIZE(USBD_PIPE_INFORMATION, 24);
#else
// x86: the 32-bit sizes of the Windows ABI.
ORNIX_SIZE(HW_INITIALIZATION_DATA, 60);
ORNIX_SIZE(HW_STREAM_HEADER, 40);
ORNIX_SIZE(HW_STREAM_INFORMATION, 80);
ORNIX_SIZE(KSSTREAM_HEADER, 48);
ORNIX_SIZE(struct _URB_HEADER, 16);
ORNIX_SIZE(struct _URB_HCD_AREA, 32);
ORNIX_SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 72);
ORNIX_SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 80);
ORNIX_SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 80);
ORNIX_SIZE(struct _URB_PIPE_REQUEST, 24);
ORNIX_SIZE(struct _URB_SELECT_CONFIGURATION, 60);
ORNIX_SIZE(USBD_INTERFACE_INFORMATION, 36);  // 16 + 20 for one pipe
ORNIX_SIZE(USBD_PIPE_INFORMATION, 20);
#endif

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
