// Shared declarations of the Ornix camera minidriver: the device and stream
// contexts, constants, diagnostics and the routines each subsystem offers.
#pragma once

#include <wdm.h>
#include <strmini.h>
#include <ks.h>
#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include "ornix_registers.h"

// ---------------------------------------------------------------- constants

// Every block the driver allocates carries the tag "Wdm ".
#define ORNIX_POOL_TAG 0x206D6457

#define ORNIX_DEVICE_SIGNATURE 0x7374EEF1
#define ORNIX_STREAM_SIGNATURE 0x7374EEF2

// Stream numbers: the capture pin and, with a second bulk-in pipe, the still pin.
#define ORNIX_CAPTURE_STREAM 0
#define ORNIX_STILL_STREAM 1
#define ORNIX_MAX_STREAMS 2

// A pipe index that names no pipe.
#define ORNIX_NO_PIPE 0xFFFFFFFF

// Relative time-out of one USB request: 5 s in 100 ns units.
#define ORNIX_USB_REQUEST_TIMEOUT (-50000000LL)

// Device power states as the power handler records them.
#define ORNIX_POWER_D0 1

// ---------------------------------------------------------------- diagnostics

// Every line to the debugger starts with this prefix.
#define ORNIX_PREFIX "ORNIX: "

// Trace lines for driver development; off in every shipped build. The
// arguments stay type-checked either way.
#ifndef ORNIX_VERBOSE
#define ORNIX_VERBOSE 0
#endif
#define OrnixVerbose(...)          \
    do {                           \
        if (ORNIX_VERBOSE) {       \
            DbgPrint(__VA_ARGS__); \
        }                          \
    } while (0)

// ---------------------------------------------------------------- pool

// Non-paged and tagged: the driver's one kind of allocation. Pair every
// OrnixAllocatePool with exactly one OrnixFreePool.
static inline PVOID OrnixAllocatePool(SIZE_T bytes) {
    return ExAllocatePoolWithTag(NonPagedPool, bytes, ORNIX_POOL_TAG);
}
static inline void OrnixFreePool(PVOID block) {
    ExFreePoolWithTag(block, ORNIX_POOL_TAG);
}

// ---------------------------------------------------------------- contexts

struct _ORNIX_DEVICE_CONTEXT;

// One node of the deferred-free list: a block released only at shutdown.
typedef struct _ORNIX_DEFERRED_BLOCK {
    struct _ORNIX_DEFERRED_BLOCK* Next;
    PVOID Block;
} ORNIX_DEFERRED_BLOCK, *PORNIX_DEFERRED_BLOCK;

// Per-stream record, allocated and freed by the stream class
// (HW_STREAM_OBJECT.HwStreamExtension). The bulk engine and the read queue
// add their fields when they arrive.
typedef struct _ORNIX_STREAM_CONTEXT {
    struct _ORNIX_DEVICE_CONTEXT* Device;
    ULONG PipeIndex;     // bulk-in pipe of the stream in the video alternate setting
    KSSTATE State;       // as the driver tracks it
    ULONG StreamNumber;  // ORNIX_CAPTURE_STREAM or ORNIX_STILL_STREAM
    ULONG Signature;     // ORNIX_STREAM_SIGNATURE
} ORNIX_STREAM_CONTEXT, *PORNIX_STREAM_CONTEXT;

// Per-adapter record, allocated by the stream class (HwDeviceExtension) and
// zero-filled by OrnixInitialize. Fields are grouped by the subsystem that
// owns them; a new group is simply appended.
typedef struct _ORNIX_DEVICE_CONTEXT {
    // Stream table: the open streams, by stream number.
    PORNIX_STREAM_CONTEXT StreamContexts[ORNIX_MAX_STREAMS];

    // Device objects.
    PDEVICE_OBJECT PhysicalDeviceObject;  // target of every USB request
    PDEVICE_OBJECT RealPhysicalDeviceObject;
    PDEVICE_OBJECT ClassDeviceObject;

    // USB configuration. InterfaceInfoTable is one block: a pointer per
    // alternate setting of interface 0, then the records they point at.
    PUSBD_INTERFACE_INFORMATION* InterfaceInfoTable;
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    PUSB_DEVICE_DESCRIPTOR DeviceDescriptor;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor;
    ULONG SpecVersion;

    // Stream and bus facts.
    ULONG StreamCount;  // 0 to ORNIX_MAX_STREAMS
    BOOLEAN HighSpeed;

    // Adapter life cycle.
    BOOLEAN Initialized;
    BOOLEAN Uninitializing;  // set by teardown, never cleared
    BOOLEAN Removed;         // set by surprise removal, never cleared

    // Pipe map: indices into an interface record's Pipes, ORNIX_NO_PIPE when absent.
    ULONG CapturePipe;
    ULONG StillPipe;
    ULONG FpgaPipe;
    ULONG InterruptPipe;
    ULONG VideoAltSetting;
    ULONG FpgaAltSetting;

    // Interrupt pipe.
    PURB InterruptUrb;
    PIRP InterruptIrp;
    BOOLEAN InterruptPending;
    KEVENT StopEvent;
    KMUTEX InterruptMutex;  // start, stop and release of the interrupt transfer

    // Defect correction.
    BOOLEAN PixelCorrectionEnabled;

    // Alternate setting of interface 0 now selected.
    ULONG CurrentAltSetting;

    // Blocks released together at shutdown; changed only atomically.
    PORNIX_DEFERRED_BLOCK volatile DeferredFreeList;

    // Power.
    ULONG DevicePowerState;

    // Camera identity.
    ULONG CameraId;
    ULONG Signature;  // ORNIX_DEVICE_SIGNATURE

    // Locks. Order: RequestMutex, InterruptMutex, UsbRequestSemaphore.
    KSEMAPHORE UsbRequestSemaphore;  // one control or pipe request at a time
    KMUTEX RequestMutex;             // one adapter SRB at a time

    // Copy of the 8-bit look-up table.
    PUCHAR Lut8Buffer;
    ULONG Lut8Length;

    // FPGA.
    ULONG FpgaVersion;  // read after the first successful download; 0 before

    // Product data (VPD).

    // Format state.

    // Property tables.

    // Device events.
} ORNIX_DEVICE_CONTEXT, *PORNIX_DEVICE_CONTEXT;

// ---------------------------------------------------------------- adapter

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

VOID STREAMAPI OrnixReceivePacket(PHW_STREAM_REQUEST_BLOCK Srb);
VOID STREAMAPI OrnixCancelPacket(PHW_STREAM_REQUEST_BLOCK Srb);
VOID STREAMAPI OrnixTimeoutPacket(PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS OrnixSetDevicePowerState(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);

// Shutdown steps shared by surprise removal, paging out and teardown.
VOID OrnixHaltInterruptPipe(PORNIX_DEVICE_CONTEXT Ext);
VOID OrnixHaltOpenStreams(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- device bring-up

NTSTATUS OrnixInitialize(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
VOID OrnixFindCameraId(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS OrnixConfigureAll(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS OrnixUninitializeDevice(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- USB requests and pipes

NTSTATUS OrnixCallUsbd(PORNIX_DEVICE_CONTEXT Ext, PURB Urb);
NTSTATUS NTAPI OrnixCallUsbdCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// The pipe record of `PipeIndex` in the interface of `AltSetting`, or NULL.
PUSBD_PIPE_INFORMATION OrnixGetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting, ULONG PipeIndex);

typedef VOID (*PORNIX_RESET_CALLBACK)(PORNIX_DEVICE_CONTEXT Ext, NTSTATUS Status, PVOID Context);

NTSTATUS OrnixResetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex);
VOID OrnixResetPipeNoWait(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex,
                          PORNIX_RESET_CALLBACK Callback, PVOID Context);
VOID NTAPI OrnixResetPipeWorker(PVOID Parameter);
NTSTATUS OrnixSelectAltSetting(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting);

NTSTATUS OrnixDeferFree(PORNIX_DEVICE_CONTEXT Ext, PVOID Block);
VOID OrnixFreeDeferred(PORNIX_DEVICE_CONTEXT Ext);
VOID OrnixReleaseCameraTables(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- vendor requests

// Called once with the transfer's status; the return value is ignored.
typedef NTSTATUS (*PORNIX_VENDOR_CALLBACK)(PORNIX_DEVICE_CONTEXT Ext, PVOID Context,
                                           NTSTATUS Status);

NTSTATUS OrnixControlVendorCommand(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                   USHORT Index, PVOID Buffer, PULONG BufferLength,
                                   BOOLEAN DirectionIn);
NTSTATUS OrnixControlVendorCommand2(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                    USHORT Index, PVOID Buffer, PULONG BufferLength,
                                    BOOLEAN DirectionIn, PORNIX_VENDOR_CALLBACK Callback,
                                    PVOID Context);
VOID NTAPI OrnixControlVendorCommandWorker(PVOID Parameter);

// ---------------------------------------------------------------- camera registers

NTSTATUS OrnixRegRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PULONG Value);
NTSTATUS OrnixRegWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, ULONG Value);
NTSTATUS OrnixBlockRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer, ULONG Length);
NTSTATUS OrnixBlockWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer, ULONG Length);
NTSTATUS OrnixMessageWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Header, PVOID Buffer, ULONG Length);
NTSTATUS OrnixSglRead(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value, USHORT Length,
                      PVOID Buffer);
NTSTATUS OrnixSglWrite(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value, USHORT Length,
                       PVOID Buffer);
NTSTATUS OrnixRegRequestComplete(PORNIX_DEVICE_CONTEXT Ext, PVOID WaitRecord, NTSTATUS Status);

// ---------------------------------------------------------------- descriptors and sizing

// ---------------------------------------------------------------- FPGA download

// ---------------------------------------------------------------- product data

// ---------------------------------------------------------------- formats and stream info

NTSTATUS AdapterStreamInfo(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS AdapterFormatFromRange(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);

// ---------------------------------------------------------------- streams

NTSTATUS StreamOpenStream(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS StreamClose(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS StreamStop(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
NTSTATUS StreamFreeResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);

// ---------------------------------------------------------------- bulk transfers

BOOLEAN AbortBulkStream(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);

// ---------------------------------------------------------------- properties

NTSTATUS OrnixBuildStreamHeader(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIX_GetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIX_SetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);

// ---------------------------------------------------------------- device events

NTSTATUS InterruptStop(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS InterruptFreeResources(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS STREAMAPI OrnixDeviceEventProc(PHW_EVENT_DESCRIPTOR EventDescriptor);
