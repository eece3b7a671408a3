// Compile-time checks that the platform's headers lay out the records the
// driver shares with the stream class, the USB stack and the registry as the
// Windows ABI of the build's data model does: 8-byte pointers on a 64-bit
// host, 4-byte pointers (and 8-byte alignment of LONGLONG members) on a
// 32-bit one. The numbers are those of mingw-w64's DDK headers; the ones
// windows/layout_checks.cpp asserts for ornix.sys come from the same table. Generates no code.
#include <ks.h>
#include <ksmedia.h>
#include <ntddk.h>
#include <strmini.h>
#include <usb.h>
#include <usbdlib.h>

#define ORNIX_SIZE(type, bytes) \
    static_assert(sizeof(type) == (bytes), #type " must be " #bytes " bytes")
#define ORNIX_OFFSET(type, field, bytes)                      \
    static_assert(__builtin_offsetof(type, field) == (bytes), \
                  #type "." #field " must be at " #bytes)

#include "../../windows/record_sizes.h"

// Further records the platform shares with the driver. Without pointers: one
// size everywhere (ks.h and ksmedia.h check the rest).
ORNIX_SIZE(KSPROPERTY_VIDEOPROCAMP_S, 40);
ORNIX_SIZE(KSPROPERTY_CAMERACONTROL_S, 40);
ORNIX_SIZE(KSPROPERTY_STEPPING_LONG, 16);
ORNIX_SIZE(KSIDENTIFIER, 24);
ORNIX_SIZE(KSDATAFORMAT, 64);
ORNIX_SIZE(KSPIN_MEDIUM, 24);
ORNIX_SIZE(KSMULTIPLE_ITEM, 8);
ORNIX_SIZE(KSP_PIN, 32);
ORNIX_SIZE(STREAM_TIME_REFERENCE, 32);
ORNIX_SIZE(USB_DEVICE_DESCRIPTOR, 18);
ORNIX_SIZE(USB_CONFIGURATION_DESCRIPTOR, 9);
ORNIX_SIZE(USB_INTERFACE_DESCRIPTOR, 9);
ORNIX_SIZE(USB_ENDPOINT_DESCRIPTOR, 7);

#if defined(__LP64__)
ORNIX_SIZE(HW_STREAM_DESCRIPTOR, 208);
ORNIX_SIZE(HW_STREAM_OBJECT, 104);
ORNIX_SIZE(HW_STREAM_REQUEST_BLOCK, 128);
ORNIX_OFFSET(HW_STREAM_REQUEST_BLOCK, CommandData, 40);
ORNIX_OFFSET(HW_STREAM_REQUEST_BLOCK, ActualBytesTransferred, 96);
ORNIX_SIZE(HW_EVENT_DESCRIPTOR, 56);
ORNIX_SIZE(HW_TIME_CONTEXT, 40);
ORNIX_SIZE(PORT_CONFIGURATION_INFORMATION, 120);
ORNIX_SIZE(STREAM_DATA_INTERSECT_INFO, 32);
ORNIX_SIZE(KSPROPERTY_ITEM, 72);
ORNIX_SIZE(KSPROPERTY_SET, 40);
ORNIX_SIZE(KSEVENT_ITEM, 40);
ORNIX_SIZE(KSEVENT_SET, 24);
ORNIX_SIZE(KSEVENTDATA, 32);
ORNIX_SIZE(UNICODE_STRING, 16);
ORNIX_SIZE(IO_STATUS_BLOCK, 16);
ORNIX_SIZE(WORK_QUEUE_ITEM, 32);
ORNIX_SIZE(struct _URB_SELECT_INTERFACE, 80);
ORNIX_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface, 40);
ORNIX_OFFSET(USBD_INTERFACE_INFORMATION, Pipes, 24);
ORNIX_SIZE(USBD_INTERFACE_LIST_ENTRY, 16);
#else
ORNIX_SIZE(HW_STREAM_DESCRIPTOR, 120);
ORNIX_SIZE(HW_STREAM_OBJECT, 68);
ORNIX_SIZE(HW_STREAM_REQUEST_BLOCK, 76);
ORNIX_OFFSET(HW_STREAM_REQUEST_BLOCK, CommandData, 24);
ORNIX_OFFSET(HW_STREAM_REQUEST_BLOCK, ActualBytesTransferred, 56);
ORNIX_SIZE(HW_EVENT_DESCRIPTOR, 28);
ORNIX_SIZE(HW_TIME_CONTEXT, 32);
ORNIX_SIZE(PORT_CONFIGURATION_INFORMATION, 72);
ORNIX_SIZE(STREAM_DATA_INTERSECT_INFO, 16);
ORNIX_SIZE(KSPROPERTY_ITEM, 40);
ORNIX_SIZE(KSPROPERTY_SET, 20);
ORNIX_SIZE(KSEVENT_ITEM, 24);
ORNIX_SIZE(KSEVENT_SET, 12);
ORNIX_SIZE(KSEVENTDATA, 16);
ORNIX_SIZE(UNICODE_STRING, 8);
ORNIX_SIZE(IO_STATUS_BLOCK, 8);
ORNIX_SIZE(WORK_QUEUE_ITEM, 16);
ORNIX_SIZE(struct _URB_SELECT_INTERFACE, 56);
ORNIX_OFFSET(struct _URB_SELECT_CONFIGURATION, Interface, 24);  // the select header
ORNIX_OFFSET(USBD_INTERFACE_INFORMATION, Pipes, 16);
ORNIX_SIZE(USBD_INTERFACE_LIST_ENTRY, 8);
#endif
