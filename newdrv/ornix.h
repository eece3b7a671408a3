// Shared declarations of the Ornix camera minidriver: the device and stream
// contexts, constants, diagnostics and the routines each subsystem offers.
#pragma once

#include <wdm.h>
#include <strmini.h>
#include <ks.h>
#include <ksmedia.h>
#include <usb.h>
#include <usbdi.h>
#include <usbdlib.h>
#include <usbioctl.h>

#include "ornix_registers.h"

// ---------------------------------------------------------------- calling convention

// The calling convention of the driver's own routines and callback types.
// ornix.sys for x64 uses the Windows x64 convention throughout; the 64-bit
// Linux build uses it too, so a test calls a loaded ornix.sys's routines
// exactly as it calls this build's. 32-bit builds keep the compiler's default.
#if defined(__x86_64__) && !defined(_WIN32)
#define ORNIXAPI __attribute__((ms_abi))
#else
#define ORNIXAPI
#endif

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
// CurrentAltSetting when the device's setting is not known: no setting
// equals it, so the next selection of any setting is sent to the device.
#define ORNIX_UNKNOWN_ALT_SETTING 0xFFFFFFFF

// Relative time-out of one USB request: 5 s in 100 ns units.
#define ORNIX_USB_REQUEST_TIMEOUT ((LONGLONG)-50000000)

// Device power states as the power handler records them.
#define ORNIX_POWER_D0 1
#define ORNIX_POWER_D1 2
#define ORNIX_POWER_D2 3
#define ORNIX_POWER_D3 4

// Rows in a constant table.
#define ORNIX_ROW_COUNT(rows) ((ULONG)(sizeof(rows) / sizeof((rows)[0])))

// A constant KSPROPERTY_ITEM with no ranges, relations or support handler.
// Every field is named: the handler unions take their BOOLEAN member.
#define ORNIX_STATIC_ITEM(id, get, set, minProperty, minData)                             \
    {                                                                                     \
        .PropertyId = (id), .GetSupported = (get), .MinProperty = (minProperty),          \
        .MinData = (minData), .SetSupported = (set), .Values = NULL, .RelationsCount = 0, \
        .Relations = NULL, .SupportHandler = NULL, .SerializedSize = 0                    \
    }

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

// ---------------------------------------------------------------- one-way flags

// A flag that one thread sets once while others poll it. The interlocked
// read is a full barrier: whatever the setter did before is seen after.
static inline VOID OrnixSetFlag(LONG volatile* Flag) {
    InterlockedExchange(Flag, 1);
}
static inline BOOLEAN OrnixFlagIsSet(LONG volatile* Flag) {
    return InterlockedCompareExchange(Flag, 0, 0) != 0;
}

// ---------------------------------------------------------------- contexts

struct _ORNIX_DEVICE_CONTEXT;

// One node of the deferred-free list: a block released only at shutdown.
typedef struct _ORNIX_DEFERRED_BLOCK {
    struct _ORNIX_DEFERRED_BLOCK* Next;
    PVOID Block;
} ORNIX_DEFERRED_BLOCK, *PORNIX_DEFERRED_BLOCK;

// Transfers a stream keeps in flight, and slots of its read-request ring
// (one slot stays free, so the ring holds at most four requests).
#define ORNIX_STREAM_TRANSFERS 3
#define ORNIX_READ_QUEUE_SLOTS 5

// PartialFlags of a transfer: it begins a frame (or completed with nothing
// older outstanding), it ends a frame. Both together complete a frame.
#define ORNIX_PARTIAL_FIRST 1
#define ORNIX_PARTIAL_LAST 2
#define ORNIX_PARTIAL_FRAME (ORNIX_PARTIAL_FIRST | ORNIX_PARTIAL_LAST)

struct _ORNIX_STREAM_CONTEXT;

// One bulk-in transfer of a stream; its IRP is allocated when the stream
// leaves KSSTATE_STOP and reused for every submission.
typedef struct _ORNIX_TRANSFER_CONTEXT {
    struct _URB_BULK_OR_INTERRUPT_TRANSFER Urb;
    PIRP Irp;
    PHW_STREAM_REQUEST_BLOCK
    Srb;              // read request whose buffer this transfer fills; NULL: TempBuffer
    LIST_ENTRY Link;  // in PendingTransfers while submitted
    struct _ORNIX_STREAM_CONTEXT* Stream;
    ULONG PartialFlags;    // ORNIX_PARTIAL_FIRST / ORNIX_PARTIAL_LAST
    ULONG TransferLength;  // bytes asked for
    // A completion that arrived inside IoCallDriver while this thread held
    // PendingLock waits here until the submitter releases the lock.
    struct _ORNIX_TRANSFER_CONTEXT* NextDeferred;
    // Under PendingLock: from its submission until its completion routine is
    // done with it. A restart submits only transfers that are not busy: one
    // whose completion still runs resubmits itself.
    BOOLEAN Busy;
    BOOLEAN SkippedByRestart;  // a restart passed it by while its completion ran
} ORNIX_TRANSFER_CONTEXT, *PORNIX_TRANSFER_CONTEXT;

// Per-stream record, allocated and freed by the stream class
// (HW_STREAM_OBJECT.HwStreamExtension) and cleared by
// StreamInitStreamExtension.
//
// Flags that completion routines read while other threads change them
// (Running, AbortNeeded, StartDelayed, DriverReadyWanted) are LONG and
// change only by interlocked operations. The statistics block changes under
// PendingLock, because completions of one stream run on several processors
// at once; readers take a snapshot under the same lock.
typedef struct _ORNIX_STREAM_CONTEXT {
    struct _ORNIX_DEVICE_CONTEXT* Device;
    ORNIX_TRANSFER_CONTEXT TransferContexts[ORNIX_STREAM_TRANSFERS];
    ULONG PipeIndex;  // bulk-in pipe of the stream in the video alternate setting

    // Bulk engine: submitted transfers, oldest first, and the frame being split.
    LIST_ENTRY PendingTransfers;
    KSPIN_LOCK PendingLock;  // taken before QueueLock

    // Read requests: a ring, oldest at ReadHead, next free slot at ReadTail.
    PHW_STREAM_REQUEST_BLOCK ReadQueue[ORNIX_READ_QUEUE_SLOTS];
    ULONG ReadHead;
    ULONG ReadTail;
    KSPIN_LOCK QueueLock;
    LONG volatile OutstandingReads;  // accepted and not yet completed
    KEVENT DriverReadyEvent;
    LONG volatile DriverReadyWanted;

    ULONG FrameSize;            // bytes of one frame on the bulk pipe
    LONGLONG AvgTimePerFrame;   // 100 ns units, from the format given at open
    BOOLEAN VariableFrameSize;  // colour id 129: frames are shorter as a rule
    KSSTATE State;              // as the driver tracks it
    ULONG StreamNumber;         // ORNIX_CAPTURE_STREAM or ORNIX_STILL_STREAM
    PUCHAR TempBuffer;          // FrameSize bytes for transfers without a read request
    LONG volatile Running;      // transfers are in flight and resubmitted
    LONG volatile AbortNeeded;  // a completion saw a fault: abort and restart
    KEVENT DrainEvent;          // the last transfer of a stopping stream completed
    // Capture stream only; NULL without a clock. Completions read it while
    // the control path changes it: both go through interlocked pointer operations.
    HANDLE volatile MasterClock;

    // Statistics of the current run.
    ULONGLONG ActualFramesCaptured;
    LONGLONG DropCount;
    ULONG ActualFramesDropped;
    ULONG UsbShortErrors;
    ULONG UsbXactErrors;
    ULONG UsbBabbleErrors;
    ULONG UsbOtherErrors;

    LONG volatile AbortInProgress;        // 1 while an abort of the pipe is under way
    KEVENT AbortEvent;                    // signalled when an abort and its restart end
    PHW_STREAM_REQUEST_BLOCK CurrentSrb;  // read request of the frame being split
    ULONG FrameOffset;                    // bytes of that frame given to transfers
    LONG volatile StartDelayed;           // ORNIX_START_*: the capture start a full queue makes
    KEVENT DelayedStartDone;              // the reader that took the delayed start is done
    ULONG Signature;                      // ORNIX_STREAM_SIGNATURE

    // The thread that holds PendingLock while it hands a transfer to the bus,
    // and the completions that arrived inside that call (see bulk_engine.cpp).
    PKTHREAD volatile SubmittingThread;
    PORNIX_TRANSFER_CONTEXT DeferredCompletions;
    LONG volatile DeferredRunning;  // a thread is running the deferred completions
    // Completions being handled (under PendingLock). A stop waits for the
    // list to empty and this to reach 0: a completion past its removal from
    // the list still touches the stream and its IRP.
    ULONG CompletionsInProgress;
    // The read request of a split frame one of whose pieces failed or ended
    // short (under PendingLock): its bytes cannot be whole, so it goes back
    // empty even when its last piece arrives in full.
    PHW_STREAM_REQUEST_BLOCK BrokenFrameSrb;
} ORNIX_STREAM_CONTEXT, *PORNIX_STREAM_CONTEXT;

// Per-adapter record, allocated by the stream class (HwDeviceExtension) and
// zero-filled by OrnixInitialize. Fields are grouped by the subsystem that
// owns them; later groups are simply appended.
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
    ULONG InterfaceInfoCount;  // entries of InterfaceInfoTable
    USBD_CONFIGURATION_HANDLE ConfigurationHandle;
    PUSB_DEVICE_DESCRIPTOR DeviceDescriptor;
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor;
    ULONG SpecVersion;

    // Stream and bus facts.
    ULONG StreamCount;  // 0 to ORNIX_MAX_STREAMS
    BOOLEAN HighSpeed;

    // Adapter life cycle. The two one-way flags are set with OrnixSetFlag;
    // code that may run beside the setter (work items, completion routines)
    // reads them with OrnixFlagIsSet.
    BOOLEAN Initialized;
    LONG volatile Uninitializing;  // set by teardown, never cleared
    LONG volatile Removed;         // set by surprise removal, never cleared

    // Pipe map: indices into an interface record's Pipes, ORNIX_NO_PIPE when absent.
    ULONG CapturePipe;
    ULONG StillPipe;
    ULONG FpgaPipe;
    ULONG InterruptPipe;
    ULONG VideoAltSetting;
    ULONG FpgaAltSetting;

    // Interrupt pipe. InterruptPending is written by the completion routine
    // while InterruptStop reads it: set and read it as a one-way flag
    // (OrnixSetFlag / OrnixFlagIsSet), clear it with InterlockedExchange.
    PURB InterruptUrb;
    PIRP InterruptIrp;
    LONG volatile InterruptPending;
    // Receives the interrupt packet: as long as the pipe's largest transfer
    // (never less than the event word), so a longer packet cannot overrun it.
    PUCHAR InterruptBuffer;
    ULONG InterruptBufferLength;
    ULONG EventWord;  // the first four bytes of the last packet received
    KEVENT StopEvent;
    KMUTEX InterruptMutex;  // start, stop and release of the interrupt transfer

    // Defect correction. DefectLock (spin lock) is held by a correction for
    // as long as it walks DefectSection, and by whoever replaces or frees the
    // product-data image, so a reload never frees a list being walked. Once
    // streams may run, PixelCorrectionEnabled changes and is read under it too.
    BOOLEAN PixelCorrectionEnabled;
    KSPIN_LOCK DefectLock;

    // Alternate setting of interface 0 now selected; ORNIX_UNKNOWN_ALT_SETTING
    // after a selection that failed half-way.
    ULONG CurrentAltSetting;
    // The pipe handles in InterfaceInfoTable: a selection (the FPGA download
    // on the way back from D3) replaces them while a stream's restart at
    // DISPATCH_LEVEL builds a transfer on one. Innermost lock: nothing else
    // is taken while it is held.
    KSPIN_LOCK PipeHandleLock;

    // Blocks released together at shutdown; changed only atomically.
    PORNIX_DEFERRED_BLOCK volatile DeferredFreeList;

    // Power.
    ULONG DevicePowerState;

    // Camera identity.
    ULONG CameraId;
    ULONG Signature;  // ORNIX_DEVICE_SIGNATURE

    // Locks. Order: RequestMutex, InterruptMutex, PipeMutex, UsbRequestSemaphore;
    // nothing is taken while the semaphore is held.
    KSEMAPHORE UsbRequestSemaphore;  // one control or pipe request at a time
    KMUTEX RequestMutex;             // one adapter SRB at a time
    // The pipe tables (InterfaceInfoTable, CurrentAltSetting) against a pipe
    // reset that reads them; also held by a reset for all of its requests.
    KMUTEX PipeMutex;

    // Work items of the driver (deferred pipe resets and vendor requests):
    // one count per item queued and not finished, plus 1 while more items may
    // be queued. Teardown drops that 1 once and waits for WorkItemsDone.
    LONG volatile WorkItemCount;
    LONG volatile WorkItemsClosed;
    KEVENT WorkItemsDone;  // notification event, signalled when the count reaches 0

    // Copy of the 8-bit look-up table.
    PUCHAR Lut8Buffer;
    ULONG Lut8Length;

    // FPGA.
    ULONG FpgaVersion;  // read after the first successful download; 0 before

    // Product data (VPD).
    // The image runs from logical offset 0 through the end header; the two
    // sections point into it and die with it.
    PUCHAR VpdImage;
    ULONG VpdLength;
    PUCHAR DefectSection;  // payload of section 1, the defective-pixel list
    ULONG DefectSectionLength;
    PUCHAR Section4;
    ULONG Section4Length;

    // Format state. The capture format table lives on the deferred-free list:
    // CaptureStreamInfo is one block, a HW_STREAM_INFORMATION followed by
    // CaptureFormats, the pointers to each record's data range.
    PHW_STREAM_INFORMATION CaptureStreamInfo;  // NULL when no table exists
    PKSDATAFORMAT* CaptureFormats;
    ULONG CaptureFormatCount;
    BOOLEAN Monochrome;  // some bank offers monochrome 8
    ULONG SensorLayout;  // 0 when unreadable
    ULONG SensorOrigin;  // 0 when unreadable
    // Capture selection: what is programmed in the camera's capture bank.
    struct _ORNIX_FORMAT_RECORD* CaptureFormat;  // NULL when none
    struct _ORNIX_FORMAT_RECORD* NextCaptureFormat;
    ULONG CaptureColourValue;
    ULONG BinningX;
    ULONG BinningY;
    ULONG WindowWidth;  // 0: the window must be rewritten
    ULONG WindowHeight;
    LONG StartX;
    LONG StartY;
    USHORT FreqMin;  // all three 0 when unknown
    USHORT FreqMax;
    USHORT FreqCur;
    LONGLONG CaptureFrameInterval;  // 100 ns units
    // Still selection.
    struct _ORNIX_FORMAT_RECORD* StillFormat;  // NULL when none
    ULONG StillColourValue;
    ULONG StillBinningX;
    ULONG StillBinningY;
    ULONG StillWindowWidth;  // 0: the window must be rewritten
    ULONG StillWindowHeight;
    LONG StillStartX;
    LONG StillStartY;
    // Binning and start asked for, applied at the next selection. A start
    // may be negative; the window validation then moves it to 0.
    ULONG RequestedBinX;
    ULONG RequestedBinY;
    LONG RequestedStartX;
    LONG RequestedStartY;
    ULONG RequestedStillBinX;
    ULONG RequestedStillBinY;
    LONG RequestedStillStartX;
    LONG RequestedStillStartY;
    // Frame-rate chart of the capture format: frequencies, ascending.
    PUSHORT KFreqChart;    // NULL when not built
    LONG KFreqChartCount;  // 0 when not built

    // Property tables. PropertySets is one deferred-free block: the set
    // entries, then items, values, members lists, steppings and defaults.
    PKSPROPERTY_SET PropertySets;  // NULL when no table exists
    ULONG PropertySetCount;
    PKSPROPERTY_STEPPING_LONG ExposureRange;  // inside PropertySets; NULL without exposure

    // Device events. EventSets is one deferred-free block: the set entries,
    // then the device-event items.
    PKSEVENT_SET EventSets;  // NULL when no event set exists
    ULONG EventSetCount;     // 0 to 2
    // Enables minus disables while the still-trigger set exists, and the same
    // while the device-event set exists. Changed by interlocked operations:
    // completion routines read them beside the stream class's enables.
    LONG volatile StiEventCount;
    LONG volatile DeviceEventCount;
    BOOLEAN NoEventRegisters;  // the camera reported no events: write no enable mask
    // Device events switched on through KSPROPERTY_OXCUSTOM_EVENT_CONTROL
    // (bit n = event n); changed only by adapter property requests.
    ULONG EventsEnabled;
} ORNIX_DEVICE_CONTEXT, *PORNIX_DEVICE_CONTEXT;

// ---------------------------------------------------------------- adapter

extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

VOID STREAMAPI OrnixReceivePacket(PHW_STREAM_REQUEST_BLOCK Srb);
VOID STREAMAPI OrnixCancelPacket(PHW_STREAM_REQUEST_BLOCK Srb);
VOID STREAMAPI OrnixTimeoutPacket(PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetDevicePowerState(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSaveState(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixRestoreState(PORNIX_DEVICE_CONTEXT Ext);

// Shutdown steps shared by surprise removal, paging out and teardown.
VOID ORNIXAPI OrnixHaltInterruptPipe(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixHaltOpenStreams(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- device bring-up

NTSTATUS ORNIXAPI OrnixInitialize(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
VOID ORNIXAPI OrnixFindCameraId(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixConfigureAll(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixConfigureDevice(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixSelectConfiguration(PORNIX_DEVICE_CONTEXT Ext,
                                           PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor);
// Rebuilds the pipe map from the pipe records of a built, unsubmitted
// request; always 0.
ULONG ORNIXAPI OrnixAssignPipes(PORNIX_DEVICE_CONTEXT Ext,
                                PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
NTSTATUS ORNIXAPI InitializeHardware(PORNIX_DEVICE_CONTEXT Ext);
// Whether every descriptor lies inside the Returned bytes and each interface
// is followed by as many endpoint-sized descriptors as it announces.
BOOLEAN ORNIXAPI OrnixConfigurationDescriptorIsSound(PUSB_CONFIGURATION_DESCRIPTOR Descriptor,
                                                     ULONG Returned);
NTSTATUS ORNIXAPI OrnixUninitializeDevice(PORNIX_DEVICE_CONTEXT Ext);
// Built by the formats and events subsystems during bring-up.
NTSTATUS ORNIXAPI OrnixBuildStreamsInfo(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixBuildEventSet(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- USB requests and pipes

NTSTATUS ORNIXAPI OrnixCallUsbd(PORNIX_DEVICE_CONTEXT Ext, PURB Urb);
NTSTATUS NTAPI OrnixCallUsbdCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);

// The pipe record of `PipeIndex` in the interface of `AltSetting`, or NULL.
PUSBD_PIPE_INFORMATION ORNIXAPI OrnixGetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting,
                                             ULONG PipeIndex);

// The handle of `Pipe` as the last selection left it, under PipeHandleLock.
// IRQL: DISPATCH_LEVEL or below.
USBD_PIPE_HANDLE ORNIXAPI OrnixReadPipeHandle(PORNIX_DEVICE_CONTEXT Ext,
                                              PUSBD_PIPE_INFORMATION Pipe);

typedef VOID(ORNIXAPI* PORNIX_RESET_CALLBACK)(PORNIX_DEVICE_CONTEXT Ext, NTSTATUS Status,
                                              PVOID Context);

NTSTATUS ORNIXAPI OrnixResetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex);
VOID ORNIXAPI OrnixResetPipeNoWait(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex,
                                   PORNIX_RESET_CALLBACK Callback, PVOID Context);
VOID NTAPI OrnixResetPipeWorker(PVOID Parameter);
NTSTATUS ORNIXAPI OrnixSelectAltSetting(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting);

// Work-item accounting. OrnixBeginWorkItem before queueing (any IRQL up to
// DISPATCH_LEVEL): FALSE once teardown has closed the gate, and then the item
// must not be queued. OrnixEndWorkItem as the worker's very last touch of the
// context. OrnixDrainWorkItems (PASSIVE_LEVEL) closes the gate and waits.
BOOLEAN ORNIXAPI OrnixBeginWorkItem(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixEndWorkItem(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixDrainWorkItems(PORNIX_DEVICE_CONTEXT Ext);
// Whether teardown or surprise removal has begun: workers then send nothing.
BOOLEAN ORNIXAPI OrnixDeviceGoingAway(PORNIX_DEVICE_CONTEXT Ext);
// Waits until no pipe reset is between its check of the flags and its last
// request (PASSIVE_LEVEL; takes and releases PipeMutex).
VOID ORNIXAPI OrnixWaitForPipeResets(PORNIX_DEVICE_CONTEXT Ext);

NTSTATUS ORNIXAPI OrnixDeferFree(PORNIX_DEVICE_CONTEXT Ext, PVOID Block);
VOID ORNIXAPI OrnixFreeDeferred(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixReleaseCameraTables(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- vendor requests

// Called once with the transfer's status; the return value is ignored.
typedef NTSTATUS(ORNIXAPI* PORNIX_VENDOR_CALLBACK)(PORNIX_DEVICE_CONTEXT Ext, PVOID Context,
                                                   NTSTATUS Status);

NTSTATUS ORNIXAPI OrnixControlVendorCommand(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                            USHORT Index, PVOID Buffer, PULONG BufferLength,
                                            BOOLEAN DirectionIn);
NTSTATUS ORNIXAPI OrnixControlVendorCommand2(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                             USHORT Index, PVOID Buffer, PULONG BufferLength,
                                             BOOLEAN DirectionIn, PORNIX_VENDOR_CALLBACK Callback,
                                             PVOID Context);
VOID NTAPI OrnixControlVendorCommandWorker(PVOID Parameter);

// ---------------------------------------------------------------- camera registers

NTSTATUS ORNIXAPI OrnixRegRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PULONG Value);
NTSTATUS ORNIXAPI OrnixRegWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, ULONG Value);
NTSTATUS ORNIXAPI OrnixBlockRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer,
                                 ULONG Length);
NTSTATUS ORNIXAPI OrnixBlockWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer,
                                  ULONG Length);
NTSTATUS ORNIXAPI OrnixMessageWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Header, PVOID Buffer,
                                    ULONG Length);
NTSTATUS ORNIXAPI OrnixSglRead(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value, USHORT Length,
                               PVOID Buffer);
NTSTATUS ORNIXAPI OrnixSglWrite(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value,
                                USHORT Length, PVOID Buffer);
NTSTATUS ORNIXAPI OrnixRegRequestComplete(PORNIX_DEVICE_CONTEXT Ext, PVOID WaitRecord,
                                          NTSTATUS Status);

// ---------------------------------------------------------------- descriptors and sizing

// The driver's own USBD_ParseConfigurationDescriptorEx and
// USBD_CreateConfigurationRequestEx. Some DDK headers declare them as
// imports from usbd.sys; declaring them again as plain functions makes every
// caller use the driver's versions.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wattributes"
#endif
extern "C" PUSB_INTERFACE_DESCRIPTOR NTAPI USBD_ParseConfigurationDescriptorEx(
    PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor, PVOID StartPosition,
    LONG InterfaceNumber, LONG AlternateSetting, LONG InterfaceClass, LONG InterfaceSubClass,
    LONG InterfaceProtocol);
extern "C" PURB NTAPI
USBD_CreateConfigurationRequestEx(PUSB_CONFIGURATION_DESCRIPTOR ConfigurationDescriptor,
                                  PUSBD_INTERFACE_LIST_ENTRY InterfaceList);
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

// 0 when the camera has no readable eight-digit serial number.
ULONG ORNIXAPI OrnixGetSerialNumber(PORNIX_DEVICE_CONTEXT Ext);
// 0 for a colour id the driver does not know.
ULONG ORNIXAPI OrnixBitsPerPixel(ULONG ColourId);
// Bytes of one frame on the bulk pipe; 0 for a zero width or height.
ULONG ORNIXAPI GetUsbFrameSize(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber, ULONG ColourId,
                               ULONG Width, ULONG Height);
// Frame bytes of the stream's current format; *VariableSize (optional) tells
// whether frames of that format vary in size (colour id 129).
ULONG ORNIXAPI GetStreamUsbFrameSize(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber,
                                     PBOOLEAN VariableSize);
// Largest frame of the format table; 4096 before the formats are known.
ULONG ORNIXAPI OrnixGetMaximumFrameSize(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- FPGA download

// The FPGA configuration images, indexed by the device release number
// (bcdDevice). The bytes are opaque and sent unchanged.
typedef struct _ORNIX_FPGA_IMAGE {
    const UCHAR* Data;
    ULONG Length;
} ORNIX_FPGA_IMAGE;
extern const ORNIX_FPGA_IMAGE FpgaImageTable[];
extern const ULONG FpgaImageCount;

// The image of release 0, embedded at build time from data/fpga/.
extern "C" const unsigned char OrnixFpgaImageRelease0[];
extern "C" const unsigned int OrnixFpgaImageRelease0Length;

// IRQL: PASSIVE_LEVEL. One bulk transfer on a pipe of the FPGA alternate
// setting, returning once it has finished.
NTSTATUS ORNIXAPI BulkAsynchTransfer(PORNIX_DEVICE_CONTEXT Ext, PVOID Buffer, PMDL BufferMdl,
                                     ULONG Length, ULONG PipeIndex, BOOLEAN DirectionIn);
// IRQL: PASSIVE_LEVEL. Configures the camera's FPGA unless it already is.
NTSTATUS ORNIXAPI OrnixProgramFpga(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- product data

// EEPROM access over the camera's two-wire bus. IRQL: PASSIVE_LEVEL.
NTSTATUS ORNIXAPI OrnixEepromRead(PORNIX_DEVICE_CONTEXT Ext, UCHAR BusAddress, PVOID Buffer,
                                  ULONG Count, USHORT Offset);
NTSTATUS ORNIXAPI OrnixProbeEeprom(PORNIX_DEVICE_CONTEXT Ext, PBOOLEAN Flag);
LONG ORNIXAPI OrnixGetVpdMappingType(PORNIX_DEVICE_CONTEXT Ext);  // -1: no product data
NTSTATUS ORNIXAPI OrnixReadVpdRange(PORNIX_DEVICE_CONTEXT Ext, LONG MappingType, PVOID Buffer,
                                    ULONG Count, ULONG Position);

// The cached product-data image. Reading replaces it (PASSIVE_LEVEL); the
// section look-ups and the invalidation send nothing to the camera.
NTSTATUS ORNIXAPI OrnixReadVpd(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixFindVpdSection(PORNIX_DEVICE_CONTEXT Ext, PUCHAR* Section, PULONG Length,
                                      UCHAR SectionId);
NTSTATUS ORNIXAPI OrnixReturnVpdSection(PORNIX_DEVICE_CONTEXT Ext, PVOID Buffer, PULONG Length,
                                        UCHAR SectionId);
NTSTATUS ORNIXAPI OrnixInvalidateVpd(PORNIX_DEVICE_CONTEXT Ext);

// ---------------------------------------------------------------- formats and stream info

// One offered capture format: a camera format bank with one colour id. The
// stream class sees only DataRange; CONTAINING_RECORD leads back here. For
// 8-bit colour ids the block is larger: DataRange is then really a
// KS_DATARANGE_VIDEO_PALETTE whose colour table follows the header.
typedef struct _ORNIX_FORMAT_RECORD {
    ULONG FormatIndex;  // bank number
    ULONG ColourId;
    ULONG ColourId2;  // always equal to ColourId
    struct _ORNIX_FORMAT_RECORD* Next;
    KS_DATARANGE_VIDEO DataRange;
} ORNIX_FORMAT_RECORD, *PORNIX_FORMAT_RECORD;

// Allocation size of a record with and without the colour table.
#define ORNIX_FORMAT_RECORD_SIZE sizeof(ORNIX_FORMAT_RECORD)
#define ORNIX_PALETTE_FORMAT_RECORD_SIZE \
    (FIELD_OFFSET(ORNIX_FORMAT_RECORD, DataRange) + sizeof(KS_DATARANGE_VIDEO_PALETTE))

// Builds the capture format table from the camera's format banks and resets
// the capture and still selection. IRQL: PASSIVE_LEVEL.
NTSTATUS ORNIXAPI OrnixBuildStreamsInfo(PORNIX_DEVICE_CONTEXT Ext);

// Format, pin and stream property set GUIDs (the platform names in comments).
extern const GUID OrnixSubtypeRaw8;
extern const GUID OrnixSubtypeRaw16;
extern const GUID OrnixSubtypeRaw16B;
extern const GUID OrnixSubtypeIyrb;
extern const GUID OrnixSubtypeCnt;
extern const GUID OrnixSubtypeFltr;
extern const GUID OrnixFormatTypeVideo;       // KSDATAFORMAT_TYPE_VIDEO
extern const GUID OrnixSpecifierVideoInfo;    // KSDATAFORMAT_SPECIFIER_VIDEOINFO
extern const GUID OrnixPinNameVideoCapture;   // PINNAME_VIDEO_CAPTURE
extern const GUID OrnixPinNameVideoStill;     // PINNAME_VIDEO_STILL
extern const GUID OrnixPropSetConnection;     // KSPROPSETID_Connection
extern const GUID OrnixPropSetDroppedFrames;  // PROPSETID_VIDCAP_DROPPEDFRAMES

// The filter's categories, and the property sets of every pin: allocator
// framing and dropped frames.
extern const KSTOPOLOGY OrnixFilterTopology;
#define ORNIX_STREAM_PROPERTY_SET_COUNT 2
extern const KSPROPERTY_SET OrnixStreamPropertySets[ORNIX_STREAM_PROPERTY_SET_COUNT];
NTSTATUS ORNIXAPI AdapterStreamInfo(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);

// Capture and still format selection. IRQL: PASSIVE_LEVEL, under RequestMutex.
// Still: FALSE for the capture stream, TRUE for the still stream.
VOID ORNIXAPI OrnixValidateWindow(PORNIX_DEVICE_CONTEXT Ext, BOOLEAN Still, ULONG Width,
                                  ULONG Height, ULONG MaxWidth, ULONG MaxHeight);
// RequestedInterval and ResultInterval may be NULL (none asked, none wanted).
NTSTATUS ORNIXAPI OrnixSelectFormat(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format,
                                    ULONG Width, ULONG Height, BOOLEAN SetFrequency,
                                    const LONGLONG* RequestedInterval, PLONGLONG ResultInterval);
NTSTATUS ORNIXAPI OrnixSelectStillFormat(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format,
                                         ULONG Width, ULONG Height);
NTSTATUS ORNIXAPI OrnixReadCurrentFormat(PORNIX_DEVICE_CONTEXT Ext);
// 100 ns units; the largest LONGLONG for a frequency of 0.
LONGLONG ORNIXAPI OrnixFrameInterval(ULONG Width, ULONG Height, ULONG BitsPerPixel,
                                     ULONG Frequency);

// The frame-rate chart of the capture format (KFreqChart).
NTSTATUS ORNIXAPI OrnixBuildupFreqChart(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixDiscardFreqChart(PORNIX_DEVICE_CONTEXT Ext);

// Format negotiation. IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS ORNIXAPI AdapterFormatFromRange(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
BOOLEAN ORNIXAPI AdapterVerifyFormat(PORNIX_DEVICE_CONTEXT Ext, PKSDATAFORMAT Format,
                                     ULONG StreamNumber);
// The FourCC that frames of a colour value carry; 0xFFFFFFFF for an unknown id.
ULONG ORNIXAPI OrnixColourFourCC(ULONG ColourValue);

// ---------------------------------------------------------------- streams

// Open and close (PASSIVE_LEVEL, under RequestMutex).
NTSTATUS ORNIXAPI StreamOpenStream(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI StreamClose(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI StreamInitStreamExtension(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber);
NTSTATUS ORNIXAPI StreamUninitStreamExtension(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber);
// Transfer resources, acquired on leaving KSSTATE_STOP (PASSIVE_LEVEL).
NTSTATUS ORNIXAPI StreamAllocResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
NTSTATUS ORNIXAPI StreamFreeResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
ULONG ORNIXAPI StreamGetTransferCount(PORNIX_STREAM_CONTEXT Stream);

// State machine and stream properties (PASSIVE_LEVEL).
VOID STREAMAPI OrnixReceiveCtrlPacket(PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI StreamStart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
NTSTATUS ORNIXAPI StreamStop(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI StreamWaitForTransfers(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI StreamArmDelayedStart(PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI StreamTakeDelayedStart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI StreamDisarmDelayedStart(PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI OrnixGetStreamProperty(PHW_STREAM_REQUEST_BLOCK Srb);
VOID ORNIXAPI VideoStreamGetConnectionProperty(PHW_STREAM_REQUEST_BLOCK Srb);
VOID ORNIXAPI VideoStreamGetDroppedFramesProperty(PHW_STREAM_REQUEST_BLOCK Srb);
VOID ORNIXAPI VideoIndicateMasterClock(PHW_STREAM_REQUEST_BLOCK Srb);
// Changes State under QueueLock, against which the read path tests it.
VOID ORNIXAPI StreamSetKsState(PORNIX_STREAM_CONTEXT Stream, KSSTATE State);

// The statistics block of a stream, read at once under PendingLock.
typedef struct _ORNIX_STREAM_STATISTICS {
    ULONGLONG ActualFramesCaptured;
    LONGLONG DropCount;
    ULONG ActualFramesDropped;
    ULONG UsbShortErrors;
    ULONG UsbXactErrors;
    ULONG UsbBabbleErrors;
    ULONG UsbOtherErrors;
} ORNIX_STREAM_STATISTICS, *PORNIX_STREAM_STATISTICS;
VOID ORNIXAPI StreamReadStatistics(PORNIX_STREAM_CONTEXT Stream,
                                   PORNIX_STREAM_STATISTICS Statistics);

// Read requests (any IRQL up to DISPATCH_LEVEL).
VOID STREAMAPI OrnixReceiveDataPacket(PHW_STREAM_REQUEST_BLOCK Srb);
PHW_STREAM_REQUEST_BLOCK ORNIXAPI StreamDequeueRead(PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI OrnixCompleteRead(PORNIX_STREAM_CONTEXT Stream, PHW_STREAM_REQUEST_BLOCK Srb,
                                NTSTATUS Status, ULONG Length);
LONGLONG ORNIXAPI GetStreamTime(PHW_STREAM_REQUEST_BLOCK Srb, PORNIX_STREAM_CONTEXT Stream);

// Defective-pixel correction of one delivered frame, in place (DISPATCH_LEVEL
// or below; takes DefectLock). Still: TRUE for a frame of the still stream.
VOID ORNIXAPI OrnixCorrectDefectivePixels(PORNIX_DEVICE_CONTEXT Ext, PUCHAR Frame, ULONG Length,
                                          BOOLEAN Still);
BOOLEAN ORNIXAPI OrnixHasDefectRowShift(ULONG CameraId);
BOOLEAN ORNIXAPI OrnixHasDefectOriginShift(ULONG CameraId);

// ---------------------------------------------------------------- bulk transfers

// Buffer choice and submission run with PendingLock held.
PHW_STREAM_REQUEST_BLOCK ORNIXAPI StreamGetNextBuffer(PORNIX_STREAM_CONTEXT Stream,
                                                      PORNIX_TRANSFER_CONTEXT Transfer,
                                                      PUCHAR* Buffer, PULONG Length);
NTSTATUS ORNIXAPI BulkStreamTransfer(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                                     PORNIX_TRANSFER_CONTEXT Transfer, PUCHAR Buffer, ULONG Length);
NTSTATUS ORNIXAPI BulkStreamNextTransfer(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                                         PORNIX_TRANSFER_CONTEXT Transfer);
// Every transfer of the stream from a fresh frame (start and restart).
NTSTATUS ORNIXAPI BulkStreamSubmitAll(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream,
                                      BOOLEAN SetRunning);
NTSTATUS NTAPI BulkStreamComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
// The work of one completion, with no lock held: run by BulkStreamComplete
// or, for a completion deferred during a submission, by BulkStreamRunDeferred.
VOID ORNIXAPI BulkStreamHandleCompletion(PORNIX_TRANSFER_CONTEXT Transfer);
// Runs the completions deferred while this thread held PendingLock; call it
// right after releasing the lock (DISPATCH_LEVEL or below).
VOID ORNIXAPI BulkStreamRunDeferred(PORNIX_STREAM_CONTEXT Stream);

// Abort and restart: the engine's repair of a faulty transfer sequence.
BOOLEAN ORNIXAPI AbortBulkStream(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
VOID NTAPI AbortBulkPipeWorker(PVOID Parameter);
VOID ORNIXAPI AbortBulkPipePart2(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
NTSTATUS ORNIXAPI BulkStreamRestart(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream);
VOID ORNIXAPI BulkStreamRestartCR(PORNIX_DEVICE_CONTEXT Ext, NTSTATUS Status, PVOID Context);

// ---------------------------------------------------------------- properties

NTSTATUS ORNIXAPI OrnixBuildStreamHeader(PORNIX_DEVICE_CONTEXT Ext);

// Property groups of the record map.
#define ORNIX_GROUP_VIDEOPROCAMP 1
#define ORNIX_GROUP_CAMERACONTROL 2
#define ORNIX_GROUP_OXCUSTOM 3

// Bits of a property record's control word (ORNIX_PROPERTY_RECORD).
#define ORNIX_PROPERTY_PRESENT 0x80000000
#define ORNIX_PROPERTY_AUTO_AVAILABLE 0x40000000
#define ORNIX_PROPERTY_AUTO_ON 0x00004000

// FALSE when (Group, Id) has no record: form no register index then.
BOOLEAN ORNIXAPI OrnixPropertyRecordIndex(ULONG Group, ULONG Id, PULONG Record);
VOID ORNIXAPI OrnixFillRangedPropertyItem(ULONG Id, LONG Default, LONG Minimum, LONG Maximum,
                                          PKSPROPERTY_ITEM Item, PKSPROPERTY_VALUES Values,
                                          PKSPROPERTY_MEMBERSLIST Members,
                                          PKSPROPERTY_STEPPING_LONG Stepping, PLONG DefaultSlot,
                                          ULONG MinimumSize);
VOID ORNIXAPI OrnixFillPlainPropertyItem(ULONG Id, PKSPROPERTY_ITEM Item);

// Register units <-> the units of the standard property sets.
LONG ORNIXAPI OrnixBrightnessToProperty(LONG Value);
LONG ORNIXAPI OrnixBrightnessToRegister(LONG Value);
LONG ORNIXAPI OrnixContrastToProperty(LONG Value);
LONG ORNIXAPI OrnixContrastToRegister(LONG Value);
ULONG ORNIXAPI OrnixGainToProperty(ULONG Value);
ULONG ORNIXAPI OrnixGainToRegister(ULONG Value);
LONG ORNIXAPI OrnixExposureToProperty(ULONG Value);
ULONG ORNIXAPI OrnixExposureToRegister(LONG Value);

// Property-set GUIDs; the driver carries its own copies.
extern const GUID OrnixPropSetVideoProcAmp;   // PROPSETID_VIDCAP_VIDEOPROCAMP
extern const GUID OrnixPropSetCameraControl;  // PROPSETID_VIDCAP_CAMERACONTROL
extern const GUID OrnixPropSetVideoControl;   // PROPSETID_VIDCAP_VIDEOCONTROL
extern const GUID OrnixPropSetOxCustom;       // PROPSETID_VIDCAP_OXCUSTOM
extern const GUID OrnixPropSetTevrinSgl;      // PROPSETID_ORNIX_TEVRINSGL
extern const GUID OrnixPropTypeSetGeneral;    // KSPROPTYPESETID_General

// Ids of the adapter's own property sets.
#define KSPROPERTY_OXCUSTOM_STARTPOS 7
#define KSPROPERTY_OXCUSTOM_STILLSTARTPOS 8
#define KSPROPERTY_OXCUSTOM_RESET 16
#define KSPROPERTY_OXCUSTOM_VERSION 17
#define KSPROPERTY_OXCUSTOM_BINNING 18
#define KSPROPERTY_OXCUSTOM_STILLBINNING 19
#define KSPROPERTY_OXCUSTOM_BUSINFO 20
#define KSPROPERTY_OXCUSTOM_LUT8 32
#define KSPROPERTY_OXCUSTOM_STILLWAIT 37
#define KSPROPERTY_OXCUSTOM_EVENT_CONTROL 38
#define KSPROPERTY_OXCUSTOM_PIXELCORRECTION 40
#define KSPROPERTY_TEVRINSGL_RAW 0
#define KSPROPERTY_TEVRINSGL_VPD 1
#define KSPROPERTY_TEVRINSGL_STATS 2

// Property records of the second custom set: the 24-byte header, then the
// request's own fields.
#define ORNIX_TEVRINSGL_REQUEST_SIZE 32  // raw register and product-data requests
#define ORNIX_TEVRINSGL_STATS_SIZE 56    // statistics request

// The version word of KSPROPERTY_OXCUSTOM_VERSION: 5.1.1.0x71.
#define ORNIX_DRIVER_VERSION 0x05010171

// Property requests: the routers and their handlers. Each handler sets
// ActualBytesTransferred itself; the dispatcher stores the returned status.
// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS ORNIXAPI ORNIX_GetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI ORNIX_SetPropertyRequest(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI GetVideoControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI SetVideoControlProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixGetVideoProcAmpProperty(PORNIX_DEVICE_CONTEXT Ext,
                                               PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixGetCameraControlProperty(PORNIX_DEVICE_CONTEXT Ext,
                                                PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetVideoProcAmpProperty(PORNIX_DEVICE_CONTEXT Ext,
                                               PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetCameraControlProperty(PORNIX_DEVICE_CONTEXT Ext,
                                                PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixGetCustomProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetCustomProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixGetTevrinSglProperty(PORNIX_DEVICE_CONTEXT Ext,
                                            PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetTevrinSglProperty(PORNIX_DEVICE_CONTEXT Ext,
                                            PHW_STREAM_REQUEST_BLOCK Srb);

// One standard control's record, in property units: the control word read
// as KSPROPERTY_*_FLAGS_AUTO / _MANUAL and the capabilities, or written from
// the flags. STATUS_NOT_SUPPORTED for a control without a record: nothing
// reaches the camera then. IRQL: PASSIVE_LEVEL.
NTSTATUS ORNIXAPI OrnixGetDeviceProp(PORNIX_DEVICE_CONTEXT Ext, ULONG Group, ULONG Id, PLONG Value,
                                     PULONG Flags, PULONG Capabilities);
NTSTATUS ORNIXAPI OrnixSetDeviceProp(PORNIX_DEVICE_CONTEXT Ext, ULONG Group, ULONG Id, LONG Value,
                                     ULONG Flags);

// ---------------------------------------------------------------- device events

// The interrupt transfer. Start, stop and free run at PASSIVE_LEVEL under
// InterruptMutex; the completion routine at up to DISPATCH_LEVEL.
NTSTATUS ORNIXAPI InterruptAllocateResources(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI InterruptFreeResources(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI InterruptStart(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI InterruptStop(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS NTAPI InterruptTransferComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context);
NTSTATUS STREAMAPI OrnixDeviceEventProc(PHW_EVENT_DESCRIPTOR EventDescriptor);
NTSTATUS ORNIXAPI OrnixBuildEventSet(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixNotifyStiMonitor(PORNIX_DEVICE_CONTEXT Ext);
VOID ORNIXAPI OrnixNotifyForOrnixEvents(PORNIX_DEVICE_CONTEXT Ext, ULONG EventMask);

// Event-set GUIDs; the driver carries its own copies.
extern const GUID OrnixEventSetVidCapToSti;  // KSEVENTSETID_VIDCAPTOSTI
extern const GUID OrnixEventSetOxEvents;     // KSEVENTSETID_OXEVENTS
