// The sizes the Windows ABI gives the records a driver shares with stream.sys,
// usbd/usbport and the registry, for the data model being compiled. Included
// by the compile-time checks of mingw-w64's DDK headers (layout_checks.cpp)
// and of the platform's own headers (platform/kernel/record_layouts.cpp), so
// both are held to one table. Define ORNIX_SIZE and ORNIX_OFFSET first.
#pragma once

// Records without pointers: one size in every data model.
ORNIX_SIZE(KS_DATARANGE_VIDEO, 296);
ORNIX_SIZE(KS_DATARANGE_VIDEO_PALETTE, 1336);
ORNIX_SIZE(KEY_VALUE_PARTIAL_INFORMATION, 16);
ORNIX_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data, 12);  // after TitleIndex, Type, DataLength

#if defined(_WIN64) || defined(__LP64__)
// x64: the same field lists with 8-byte pointers at natural alignment.
ORNIX_SIZE(HW_INITIALIZATION_DATA, 88);
ORNIX_SIZE(HW_STREAM_HEADER, 72);
ORNIX_SIZE(HW_STREAM_INFORMATION, 136);
ORNIX_SIZE(KSSTREAM_HEADER, 56);  // includes the x64-only Reserved field
ORNIX_SIZE(KS_FRAME_INFO, 72);
ORNIX_SIZE(struct _URB_HEADER, 24);
ORNIX_SIZE(struct _URB_HCD_AREA, 64);
ORNIX_SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 128);
ORNIX_SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 136);
ORNIX_SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 136);
ORNIX_SIZE(struct _URB_PIPE_REQUEST, 40);
ORNIX_SIZE(struct _URB_SELECT_CONFIGURATION, 88);
ORNIX_SIZE(USBD_INTERFACE_INFORMATION, 48);  // 24 + 24 for one pipe
ORNIX_SIZE(USBD_PIPE_INFORMATION, 24);
// A power IRP's Parameters.Power: pointer-aligned fields after the 4 bytes of codes.
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.Power.Type, 16);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.Power.State, 24);
#else
// x86: 4-byte pointers; LONGLONG members still 8-byte aligned.
ORNIX_SIZE(HW_INITIALIZATION_DATA, 60);
ORNIX_SIZE(HW_STREAM_HEADER, 40);
ORNIX_SIZE(HW_STREAM_INFORMATION, 80);
ORNIX_SIZE(KSSTREAM_HEADER, 48);
ORNIX_SIZE(KS_FRAME_INFO, 64);
ORNIX_SIZE(struct _URB_HEADER, 16);
ORNIX_SIZE(struct _URB_HCD_AREA, 32);
ORNIX_SIZE(struct _URB_BULK_OR_INTERRUPT_TRANSFER, 72);
ORNIX_SIZE(struct _URB_CONTROL_DESCRIPTOR_REQUEST, 80);
ORNIX_SIZE(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST, 80);
ORNIX_SIZE(struct _URB_PIPE_REQUEST, 24);
ORNIX_SIZE(struct _URB_SELECT_CONFIGURATION, 60);
ORNIX_SIZE(USBD_INTERFACE_INFORMATION, 36);  // 16 + 20 for one pipe
ORNIX_SIZE(USBD_PIPE_INFORMATION, 20);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.Power.Type, 8);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.Power.State, 12);
#endif
