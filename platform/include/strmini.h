// The stream-class minidriver interface: registration, request blocks (SRBs)
// and the notifications a minidriver sends back to the stream class.
#pragma once
#include "ntddk.h"
#include "ks.h"

EXTERN_C_START

typedef unsigned long long STREAM_SYSTEM_TIME, *PSTREAM_SYSTEM_TIME;
typedef unsigned long long STREAM_TIMESTAMP, *PSTREAM_TIMESTAMP;
typedef PHYSICAL_ADDRESS STREAM_PHYSICAL_ADDRESS, *PSTREAM_PHYSICAL_ADDRESS;

typedef enum {
    TIME_GET_STREAM_TIME,
    TIME_READ_ONBOARD_CLOCK,
    TIME_SET_ONBOARD_CLOCK
} TIME_FUNCTION;

typedef struct _HW_TIME_CONTEXT {
    struct _HW_DEVICE_EXTENSION* HwDeviceExtension;
    struct _HW_STREAM_OBJECT* HwStreamObject;
    TIME_FUNCTION Function;
    ULONGLONG Time;
    ULONGLONG SystemTime;
} HW_TIME_CONTEXT, *PHW_TIME_CONTEXT;

typedef struct _HW_EVENT_DESCRIPTOR {
    BOOLEAN Enable;
    PKSEVENT_ENTRY EventEntry;
    PKSEVENTDATA EventData;
    union {
        struct _HW_STREAM_OBJECT* StreamObject;
        struct _HW_DEVICE_EXTENSION* DeviceExtension;
    };
    ULONG EnableEventSetIndex;
    PVOID HwInstanceExtension;
    ULONG Reserved;
} HW_EVENT_DESCRIPTOR, *PHW_EVENT_DESCRIPTOR;

struct _HW_STREAM_REQUEST_BLOCK;
typedef void(STREAMAPI* PHW_RECEIVE_STREAM_DATA_SRB)(struct _HW_STREAM_REQUEST_BLOCK* SRB);
typedef void(STREAMAPI* PHW_RECEIVE_STREAM_CONTROL_SRB)(struct _HW_STREAM_REQUEST_BLOCK* SRB);
typedef NTSTATUS(STREAMAPI* PHW_EVENT_ROUTINE)(PHW_EVENT_DESCRIPTOR EventDescriptor);
typedef void(STREAMAPI* PHW_CLOCK_FUNCTION)(PHW_TIME_CONTEXT HwTimeContext);

typedef struct _HW_CLOCK_OBJECT {
    PHW_CLOCK_FUNCTION HwClockFunction;
    ULONG ClockSupportFlags;
    ULONG Reserved[2];
} HW_CLOCK_OBJECT, *PHW_CLOCK_OBJECT;

typedef struct _HW_STREAM_OBJECT {
    ULONG SizeOfThisPacket;
    ULONG StreamNumber;
    PVOID HwStreamExtension;
    PHW_RECEIVE_STREAM_DATA_SRB ReceiveDataPacket;
    PHW_RECEIVE_STREAM_CONTROL_SRB ReceiveControlPacket;
    HW_CLOCK_OBJECT HwClockObject;
    BOOLEAN Dma;
    BOOLEAN Pio;
    PVOID HwDeviceExtension;
    ULONG StreamHeaderMediaSpecific;
    ULONG StreamHeaderWorkspace;
    BOOLEAN Allocator;
    PHW_EVENT_ROUTINE HwEventRoutine;
    ULONG Reserved[2];
} HW_STREAM_OBJECT, *PHW_STREAM_OBJECT;

typedef struct _HW_STREAM_HEADER {
    ULONG NumberOfStreams;
    ULONG SizeOfHwStreamInformation;
    ULONG NumDevPropArrayEntries;
    PKSPROPERTY_SET DevicePropertiesArray;
    ULONG NumDevEventArrayEntries;
    PKSEVENT_SET DeviceEventsArray;
    PKSTOPOLOGY Topology;
    PHW_EVENT_ROUTINE DeviceEventRoutine;
    LONG NumDevMethodArrayEntries;
    PKSMETHOD_SET DeviceMethodsArray;
} HW_STREAM_HEADER, *PHW_STREAM_HEADER;

typedef struct _HW_STREAM_INFORMATION {
    ULONG NumberOfPossibleInstances;
    KSPIN_DATAFLOW DataFlow;
    BOOLEAN DataAccessible;
    ULONG NumberOfFormatArrayEntries;
    PKSDATAFORMAT* StreamFormatsArray;
    PVOID ClassReserved[4];
    ULONG NumStreamPropArrayEntries;
    PKSPROPERTY_SET StreamPropertiesArray;
    ULONG NumStreamEventArrayEntries;
    PKSEVENT_SET StreamEventsArray;
    GUID* Category;
    GUID* Name;
    ULONG MediumsCount;
    const KSPIN_MEDIUM* Mediums;
    BOOLEAN BridgeStream;
    ULONG Reserved[2];
} HW_STREAM_INFORMATION, *PHW_STREAM_INFORMATION;

typedef struct _HW_STREAM_DESCRIPTOR {
    HW_STREAM_HEADER StreamHeader;
    HW_STREAM_INFORMATION StreamInfo;
} HW_STREAM_DESCRIPTOR, *PHW_STREAM_DESCRIPTOR;

typedef struct _STREAM_TIME_REFERENCE {
    STREAM_TIMESTAMP CurrentOnboardClockValue;
    LARGE_INTEGER OnboardClockFrequency;
    LARGE_INTEGER CurrentSystemTime;
    ULONG Reserved[2];
} STREAM_TIME_REFERENCE, *PSTREAM_TIME_REFERENCE;

typedef struct _STREAM_DATA_INTERSECT_INFO {
    ULONG StreamNumber;
    PKSDATARANGE DataRange;
    PVOID DataFormatBuffer;
    ULONG SizeOfDataFormatBuffer;
} STREAM_DATA_INTERSECT_INFO, *PSTREAM_DATA_INTERSECT_INFO;

typedef struct _STREAM_PROPERTY_DESCRIPTOR {
    PKSPROPERTY Property;
    ULONG PropertySetID;
    PVOID PropertyInfo;
    ULONG PropertyInputSize;
    ULONG PropertyOutputSize;
} STREAM_PROPERTY_DESCRIPTOR, *PSTREAM_PROPERTY_DESCRIPTOR;

typedef enum _SRB_COMMAND {
    SRB_READ_DATA,
    SRB_WRITE_DATA,
    SRB_GET_STREAM_STATE,
    SRB_SET_STREAM_STATE,
    SRB_SET_STREAM_PROPERTY,
    SRB_GET_STREAM_PROPERTY,
    SRB_OPEN_MASTER_CLOCK,
    SRB_INDICATE_MASTER_CLOCK,
    SRB_UNKNOWN_STREAM_COMMAND,
    SRB_SET_STREAM_RATE,
    SRB_PROPOSE_DATA_FORMAT,
    SRB_CLOSE_MASTER_CLOCK,
    SRB_PROPOSE_STREAM_RATE,
    SRB_SET_DATA_FORMAT,
    SRB_GET_DATA_FORMAT,
    SRB_BEGIN_FLUSH,
    SRB_END_FLUSH,
    SRB_GET_STREAM_INFO = 0x100,
    SRB_OPEN_STREAM,
    SRB_CLOSE_STREAM,
    SRB_OPEN_DEVICE_INSTANCE,
    SRB_CLOSE_DEVICE_INSTANCE,
    SRB_GET_DEVICE_PROPERTY,
    SRB_SET_DEVICE_PROPERTY,
    SRB_INITIALIZE_DEVICE,
    SRB_CHANGE_POWER_STATE,
    SRB_UNINITIALIZE_DEVICE,
    SRB_UNKNOWN_DEVICE_COMMAND,
    SRB_PAGING_OUT_DRIVER,
    SRB_GET_DATA_INTERSECTION,
    SRB_INITIALIZATION_COMPLETE,
    SRB_SURPRISE_REMOVAL,
} SRB_COMMAND;

typedef struct {
    PHYSICAL_ADDRESS PhysicalAddress;
    ULONG Length;
} KSSCATTER_GATHER, *PKSSCATTER_GATHER;

typedef struct _HW_STREAM_REQUEST_BLOCK {
    ULONG SizeOfThisPacket;
    SRB_COMMAND Command;
    NTSTATUS Status;
    PHW_STREAM_OBJECT StreamObject;
    PVOID HwDeviceExtension;
    PVOID SRBExtension;
    union _CommandData {
        PKSSTREAM_HEADER DataBufferArray;
        PHW_STREAM_DESCRIPTOR StreamBuffer;
        KSSTATE StreamState;
        PSTREAM_TIME_REFERENCE TimeReference;
        PSTREAM_PROPERTY_DESCRIPTOR PropertyInfo;
        PKSDATAFORMAT OpenFormat;
        struct _PORT_CONFIGURATION_INFORMATION* ConfigInfo;
        HANDLE MasterClockHandle;
        DEVICE_POWER_STATE DeviceState;
        PSTREAM_DATA_INTERSECT_INFO IntersectInfo;
        PVOID MethodInfo;
        LONG FilterTypeIndex;
    } CommandData;
    ULONG NumberOfBuffers;
    ULONG TimeoutCounter;
    ULONG TimeoutOriginal;
    struct _HW_STREAM_REQUEST_BLOCK* NextSRB;
    PIRP Irp;
    ULONG Flags;
    PVOID HwInstanceExtension;
    union {
        ULONG NumberOfBytesToTransfer;
        ULONG ActualBytesTransferred;
    };
    PKSSCATTER_GATHER ScatterGatherBuffer;
    ULONG NumberOfPhysicalPages;
    ULONG NumberOfScatterGatherElements;
    ULONG Reserved[1];
} HW_STREAM_REQUEST_BLOCK, *PHW_STREAM_REQUEST_BLOCK;

#define SRB_HW_FLAGS_DATA_TRANSFER 0x01
#define SRB_HW_FLAGS_STREAM_REQUEST 0x2

typedef struct _ACCESS_RANGE {
    STREAM_PHYSICAL_ADDRESS RangeStart;
    ULONG RangeLength;
    BOOLEAN RangeInMemory;
    ULONG Reserved;
} ACCESS_RANGE, *PACCESS_RANGE;

typedef struct _PORT_CONFIGURATION_INFORMATION {
    ULONG SizeOfThisPacket;
    PVOID HwDeviceExtension;
    PDEVICE_OBJECT ClassDeviceObject;
    PDEVICE_OBJECT PhysicalDeviceObject;
    ULONG SystemIoBusNumber;
    INTERFACE_TYPE AdapterInterfaceType;
    ULONG BusInterruptLevel;
    ULONG BusInterruptVector;
    KINTERRUPT_MODE InterruptMode;
    ULONG DmaChannel;
    ULONG NumberOfAccessRanges;
    PACCESS_RANGE AccessRanges;
    ULONG StreamDescriptorSize;
    PIRP Irp;
    PKINTERRUPT InterruptObject;
    PADAPTER_OBJECT DmaAdapterObject;
    PDEVICE_OBJECT RealPhysicalDeviceObject;
    ULONG Reserved[1];
} PORT_CONFIGURATION_INFORMATION, *PPORT_CONFIGURATION_INFORMATION;

typedef void(STREAMAPI* PHW_RECEIVE_DEVICE_SRB)(PHW_STREAM_REQUEST_BLOCK SRB);
typedef void(STREAMAPI* PHW_CANCEL_SRB)(PHW_STREAM_REQUEST_BLOCK SRB);
typedef void(STREAMAPI* PHW_REQUEST_TIMEOUT_HANDLER)(PHW_STREAM_REQUEST_BLOCK SRB);
typedef BOOLEAN(STREAMAPI* PHW_INTERRUPT)(PVOID DeviceExtension);

typedef enum _STREAM_MINIDRIVER_STREAM_NOTIFICATION_TYPE {
    ReadyForNextStreamDataRequest,
    ReadyForNextStreamControlRequest,
    HardwareStarved,
    StreamRequestComplete,
    SignalMultipleStreamEvents,
    SignalStreamEvent,
    DeleteStreamEvent,
    StreamNotificationMaximum
} STREAM_MINIDRIVER_STREAM_NOTIFICATION_TYPE;

typedef enum _STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE {
    ReadyForNextDeviceRequest,
    DeviceRequestComplete,
    SignalMultipleDeviceEvents,
    SignalDeviceEvent,
    DeleteDeviceEvent,
    SignalMultipleDeviceInstanceEvents,
    DeviceNotificationMaximum
} STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE;

typedef struct _HW_INITIALIZATION_DATA {
    union {
        ULONG HwInitializationDataSize;
        struct {
            USHORT SizeOfThisPacket;
            USHORT StreamClassVersion;
        };
    };
    PHW_INTERRUPT HwInterrupt;
    PHW_RECEIVE_DEVICE_SRB HwReceivePacket;
    PHW_CANCEL_SRB HwCancelPacket;
    PHW_REQUEST_TIMEOUT_HANDLER HwRequestTimeoutHandler;
    ULONG DeviceExtensionSize;
    ULONG PerRequestExtensionSize;
    ULONG PerStreamExtensionSize;
    ULONG FilterInstanceExtensionSize;
    BOOLEAN BusMasterDMA;
    BOOLEAN Dma24BitAddresses;
    ULONG BufferAlignment;
    BOOLEAN TurnOffSynchronization;
    ULONG DmaBufferSize;
    ULONG NumNameExtensions;
    PWCHAR* NameExtensionArray;
} HW_INITIALIZATION_DATA, *PHW_INITIALIZATION_DATA;

NTSTATUS STREAMAPI StreamClassRegisterAdapter(PVOID Argument1, PVOID Argument2,
                                              PHW_INITIALIZATION_DATA HwInitializationData);

// Completion of adapter requests and device events. The trailing arguments
// depend on the notification type, as on Windows: DeviceRequestComplete takes
// the request block; SignalMultipleDeviceEvents the event-set GUID pointer and
// the event id; SignalDeviceEvent and DeleteDeviceEvent the event entry.
void WINAPIV StreamClassDeviceNotification(
    STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE NotificationType, PVOID HwDeviceExtension, ...);

// Completion of stream requests and stream events.
void WINAPIV
StreamClassStreamNotification(STREAM_MINIDRIVER_STREAM_NOTIFICATION_TYPE NotificationType,
                              PHW_STREAM_OBJECT StreamObject, ...);

void STREAMAPI StreamClassQueryMasterClockSync(HANDLE MasterClockHandle,
                                               PHW_TIME_CONTEXT TimeContext);

EXTERN_C_END
