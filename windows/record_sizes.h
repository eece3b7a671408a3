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
ORNIX_SIZE(KSPROPERTY_VIDEOCONTROL_CAPS_S, 32);
ORNIX_OFFSET(KSPROPERTY_VIDEOCONTROL_CAPS_S, VideoControlCaps, 28);
ORNIX_SIZE(KSPROPERTY_VIDEOCONTROL_MODE_S, 32);
ORNIX_OFFSET(KSPROPERTY_VIDEOCONTROL_MODE_S, Mode, 28);
ORNIX_SIZE(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S, 56);
ORNIX_OFFSET(KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S, CurrentActualFrameRate, 40);
ORNIX_SIZE(KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S, 40);
ORNIX_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data, 12);  // after TitleIndex, Type, DataLength
// Fields ahead of the first pointer-sized one: the same in every data model.
ORNIX_OFFSET(IO_STACK_LOCATION, Control, 3);
ORNIX_OFFSET(DEVICE_OBJECT, DriverObject, 8);
ORNIX_OFFSET(URB, UrbHeader.Status, 4);

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
// The I/O manager's records and the kernel objects a driver embeds in its
// device extension. IRP and DEVICE_OBJECT carry every Windows member (KAPC,
// KDPC, KDEVICE_QUEUE...), so their sizes are the system's.
ORNIX_SIZE(IRP, 208);
ORNIX_OFFSET(IRP, MdlAddress, 8);
ORNIX_OFFSET(IRP, AssociatedIrp, 24);
ORNIX_OFFSET(IRP, ThreadListEntry, 32);
ORNIX_OFFSET(IRP, IoStatus, 48);
ORNIX_OFFSET(IRP, PendingReturned, 65);
ORNIX_OFFSET(IRP, StackCount, 66);
ORNIX_OFFSET(IRP, CurrentLocation, 67);
ORNIX_OFFSET(IRP, Cancel, 68);
ORNIX_OFFSET(IRP, CancelIrql, 69);
ORNIX_OFFSET(IRP, AllocationFlags, 71);
ORNIX_OFFSET(IRP, UserIosb, 72);
ORNIX_OFFSET(IRP, UserEvent, 80);
ORNIX_OFFSET(IRP, CancelRoutine, 104);
ORNIX_OFFSET(IRP, UserBuffer, 112);
ORNIX_OFFSET(IRP, Tail.Overlay.DriverContext, 120);
ORNIX_OFFSET(IRP, Tail.Overlay.ListEntry, 168);
ORNIX_OFFSET(IRP, Tail.Overlay.CurrentStackLocation, 184);
ORNIX_SIZE(IO_STACK_LOCATION, 72);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters, 8);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 24);
ORNIX_OFFSET(IO_STACK_LOCATION, DeviceObject, 40);
ORNIX_OFFSET(IO_STACK_LOCATION, CompletionRoutine, 56);
ORNIX_OFFSET(IO_STACK_LOCATION, Context, 64);
// mingw leaves off the WDK's DECLSPEC_ALIGN(16), which pads it to 336: the
// size differs, no offset does.
ORNIX_SIZE(DEVICE_OBJECT, 328);
ORNIX_OFFSET(DEVICE_OBJECT, NextDevice, 16);
ORNIX_OFFSET(DEVICE_OBJECT, Flags, 48);
ORNIX_OFFSET(DEVICE_OBJECT, DeviceExtension, 64);
ORNIX_OFFSET(DEVICE_OBJECT, StackSize, 76);
ORNIX_OFFSET(DEVICE_OBJECT, AlignmentRequirement, 152);
ORNIX_OFFSET(DEVICE_OBJECT, DeviceObjectExtension, 312);
ORNIX_SIZE(DRIVER_OBJECT, 336);
ORNIX_OFFSET(DRIVER_OBJECT, DeviceObject, 8);
ORNIX_OFFSET(DRIVER_OBJECT, DriverExtension, 48);
ORNIX_OFFSET(DRIVER_OBJECT, DriverUnload, 104);
ORNIX_OFFSET(DRIVER_OBJECT, MajorFunction, 112);
ORNIX_SIZE(MDL, 48);
ORNIX_OFFSET(MDL, MdlFlags, 10);
ORNIX_OFFSET(MDL, MappedSystemVa, 24);
ORNIX_OFFSET(MDL, ByteCount, 40);
ORNIX_SIZE(KEVENT, 24);
ORNIX_SIZE(KSPIN_LOCK, 8);
ORNIX_SIZE(KMUTEX, 56);
ORNIX_SIZE(KSEMAPHORE, 32);
// The URB union is as large as its largest member, the isochronous transfer.
ORNIX_SIZE(URB, 152);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBufferLength, 36);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBuffer, 40);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBufferMDL, 48);
ORNIX_OFFSET(URB, UrbControlTransfer.SetupPacket, 128);
ORNIX_OFFSET(URB, UrbControlVendorClassRequest.Value, 130);
ORNIX_OFFSET(URB, UrbControlDescriptorRequest.LanguageId, 132);
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
ORNIX_SIZE(IRP, 112);
ORNIX_OFFSET(IRP, MdlAddress, 4);
ORNIX_OFFSET(IRP, AssociatedIrp, 12);
ORNIX_OFFSET(IRP, ThreadListEntry, 16);
ORNIX_OFFSET(IRP, IoStatus, 24);
ORNIX_OFFSET(IRP, PendingReturned, 33);
ORNIX_OFFSET(IRP, StackCount, 34);
ORNIX_OFFSET(IRP, CurrentLocation, 35);
ORNIX_OFFSET(IRP, Cancel, 36);
ORNIX_OFFSET(IRP, CancelIrql, 37);
ORNIX_OFFSET(IRP, AllocationFlags, 39);
ORNIX_OFFSET(IRP, UserIosb, 40);
ORNIX_OFFSET(IRP, UserEvent, 44);
ORNIX_OFFSET(IRP, CancelRoutine, 56);
ORNIX_OFFSET(IRP, UserBuffer, 60);
ORNIX_OFFSET(IRP, Tail.Overlay.DriverContext, 64);
ORNIX_OFFSET(IRP, Tail.Overlay.ListEntry, 88);
ORNIX_OFFSET(IRP, Tail.Overlay.CurrentStackLocation, 96);
ORNIX_SIZE(IO_STACK_LOCATION, 36);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters, 4);
ORNIX_OFFSET(IO_STACK_LOCATION, Parameters.DeviceIoControl.IoControlCode, 12);
ORNIX_OFFSET(IO_STACK_LOCATION, DeviceObject, 20);
ORNIX_OFFSET(IO_STACK_LOCATION, CompletionRoutine, 28);
ORNIX_OFFSET(IO_STACK_LOCATION, Context, 32);
ORNIX_SIZE(DEVICE_OBJECT, 184);
ORNIX_OFFSET(DEVICE_OBJECT, NextDevice, 12);
ORNIX_OFFSET(DEVICE_OBJECT, Flags, 28);
ORNIX_OFFSET(DEVICE_OBJECT, DeviceExtension, 40);
ORNIX_OFFSET(DEVICE_OBJECT, StackSize, 48);
ORNIX_OFFSET(DEVICE_OBJECT, AlignmentRequirement, 92);
ORNIX_OFFSET(DEVICE_OBJECT, DeviceObjectExtension, 176);
ORNIX_SIZE(DRIVER_OBJECT, 168);
ORNIX_OFFSET(DRIVER_OBJECT, DeviceObject, 4);
ORNIX_OFFSET(DRIVER_OBJECT, DriverExtension, 24);
ORNIX_OFFSET(DRIVER_OBJECT, DriverUnload, 52);
ORNIX_OFFSET(DRIVER_OBJECT, MajorFunction, 56);
ORNIX_SIZE(MDL, 28);
ORNIX_OFFSET(MDL, MdlFlags, 6);
ORNIX_OFFSET(MDL, MappedSystemVa, 12);
ORNIX_OFFSET(MDL, ByteCount, 20);
ORNIX_SIZE(KEVENT, 16);
ORNIX_SIZE(KSPIN_LOCK, 4);
ORNIX_SIZE(KMUTEX, 32);
ORNIX_SIZE(KSEMAPHORE, 20);
ORNIX_SIZE(URB, 96);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBufferLength, 24);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBuffer, 28);
ORNIX_OFFSET(URB, UrbBulkOrInterruptTransfer.TransferBufferMDL, 32);
ORNIX_OFFSET(URB, UrbControlTransfer.SetupPacket, 72);
ORNIX_OFFSET(URB, UrbControlVendorClassRequest.Value, 74);
ORNIX_OFFSET(URB, UrbControlDescriptorRequest.LanguageId, 76);
#endif
