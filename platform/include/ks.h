// Kernel streaming records that the stream class and its minidrivers share.
#pragma once
#include "wdm.h"

#define DEFINE_GUIDSTRUCT(g, n) struct n
#define DEFINE_GUIDNAMED(n) n

typedef struct {
    union {
        struct {
            GUID Set;
            ULONG Id;
            ULONG Flags;
        };
        LONGLONG Alignment;
    };
} KSIDENTIFIER, *PKSIDENTIFIER, KSPROPERTY, *PKSPROPERTY, KSMETHOD, *PKSMETHOD, KSEVENT, *PKSEVENT;

#define KSPROPERTY_TYPE_GET 0x00000001
#define KSPROPERTY_TYPE_SET 0x00000002
#define KSPROPERTY_TYPE_BASICSUPPORT 0x00000200
#define KSPROPERTY_TYPE_DEFAULTVALUES 0x00010000

#define KSEVENT_TYPE_ENABLE 0x00000001
#define KSEVENTF_EVENT_HANDLE 0x00000001
#define KSEVENT_TYPE_ONESHOT 0x00000002
#define KSEVENT_TYPE_ENABLEBUFFERED 0x00000004
#define KSEVENT_TYPE_SETSUPPORT 0x00000100
#define KSEVENT_TYPE_BASICSUPPORT 0x00000200
#define KSEVENT_TYPE_QUERYBUFFER 0x00000400

typedef enum { KSSTATE_STOP, KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN } KSSTATE, *PKSSTATE;

typedef enum {
    KSPIN_DATAFLOW_IN = 1,
    KSPIN_DATAFLOW_OUT,
} KSPIN_DATAFLOW,
    *PKSPIN_DATAFLOW;

typedef struct {
    GUID Set;
    ULONG Id;
    ULONG Flags;
} KSPIN_MEDIUM, *PKSPIN_MEDIUM;

typedef union {
    struct {
        ULONG FormatSize;
        ULONG Flags;
        ULONG SampleSize;
        ULONG Reserved;
        GUID MajorFormat;
        GUID SubFormat;
        GUID Specifier;
    };
    LONGLONG Alignment;
} KSDATAFORMAT, *PKSDATAFORMAT, KSDATARANGE, *PKSDATARANGE;

// A counted list of variable-sized items, such as the data ranges an
// application hands to KSPROPERTY_PIN_DATAINTERSECTION; Size counts this
// header and every item, each item starting on an 8-byte boundary.
typedef struct {
    ULONG Size;
    ULONG Count;
} KSMULTIPLE_ITEM, *PKSMULTIPLE_ITEM;

// A property addressed to one pin of a filter.
typedef struct {
    KSPROPERTY Property;
    ULONG PinId;
    ULONG Reserved;
} KSP_PIN, *PKSP_PIN;

typedef struct {
    ULONG FromNode;
    ULONG FromNodePin;
    ULONG ToNode;
    ULONG ToNodePin;
} KSTOPOLOGY_CONNECTION, *PKSTOPOLOGY_CONNECTION;

typedef struct {
    ULONG CategoriesCount;
    const GUID* Categories;
    ULONG TopologyNodesCount;
    const GUID* TopologyNodes;
    ULONG TopologyConnectionsCount;
    const KSTOPOLOGY_CONNECTION* TopologyConnections;
    const GUID* TopologyNodesNames;
    ULONG Reserved;
} KSTOPOLOGY, *PKSTOPOLOGY;

typedef struct {
    LONGLONG Time;
    ULONG Numerator;
    ULONG Denominator;
} KSTIME, *PKSTIME;

typedef struct {
    ULONG Size;
    ULONG TypeSpecificFlags;
    KSTIME PresentationTime;
    LONGLONG Duration;
    ULONG FrameExtent;
    ULONG DataUsed;
    PVOID Data;
    ULONG OptionsFlags;
#ifdef __LP64__
    ULONG Reserved;
#endif
} KSSTREAM_HEADER, *PKSSTREAM_HEADER;

#define KSSTREAM_HEADER_OPTIONSF_SPLICEPOINT 0x00000001
#define KSSTREAM_HEADER_OPTIONSF_PREROLL 0x00000002
#define KSSTREAM_HEADER_OPTIONSF_DATADISCONTINUITY 0x00000004
#define KSSTREAM_HEADER_OPTIONSF_TYPECHANGED 0x00000008
#define KSSTREAM_HEADER_OPTIONSF_TIMEVALID 0x00000010
#define KSSTREAM_HEADER_OPTIONSF_TIMEDISCONTINUITY 0x00000040
#define KSSTREAM_HEADER_OPTIONSF_DURATIONVALID 0x00000100
#define KSSTREAM_HEADER_OPTIONSF_ENDOFSTREAM 0x00000200

struct _KSEVENT_ENTRY;
typedef struct _KSEVENT_ENTRY KSEVENT_ENTRY, *PKSEVENT_ENTRY;

typedef struct {
    ULONG NotificationType;
    union {
        struct {
            HANDLE Event;
            ULONG_PTR Reserved[2];
        } EventHandle;
        struct {
            PVOID Unused;
            LONG_PTR Alignment[2];
        } Alignment;
    };
} KSEVENTDATA, *PKSEVENTDATA;

typedef NTSTATUS(NTAPI* PFNKSHANDLER)(PIRP Irp, PKSIDENTIFIER Request, PVOID Data);

typedef struct {
    ULONG AccessFlags;
    ULONG DescriptionSize;
    KSIDENTIFIER PropTypeSet;
    ULONG MembersListCount;
    ULONG Reserved;
} KSPROPERTY_DESCRIPTION, *PKSPROPERTY_DESCRIPTION;

typedef struct {
    ULONG MembersFlags;
    ULONG MembersSize;
    ULONG MembersCount;
    ULONG Flags;
} KSPROPERTY_MEMBERSHEADER, *PKSPROPERTY_MEMBERSHEADER;

// ---- property value descriptions (ranges, steps, defaults)

// Type set of the property values: the driver carries its own copy of the
// GUID (97E99BA0-BDEA-11CF-A5D6-28DB04C10000), as it does for every set.
DEFINE_GUIDSTRUCT("97E99BA0-BDEA-11CF-A5D6-28DB04C10000", KSPROPTYPESETID_General);

// Variant type ids used as property type ids within KSPROPTYPESETID_General.
#ifndef VT_I4
enum { VT_I4 = 3 };
#endif

#define KSPROPERTY_MEMBER_RANGES 0x00000001
#define KSPROPERTY_MEMBER_STEPPEDRANGES 0x00000002
#define KSPROPERTY_MEMBER_VALUES 0x00000003

#define KSPROPERTY_MEMBER_FLAG_DEFAULT 0x00000001

typedef union {
    struct {
        LONG SignedMinimum;
        LONG SignedMaximum;
    };
    struct {
        ULONG UnsignedMinimum;
        ULONG UnsignedMaximum;
    };
} KSPROPERTY_BOUNDS_LONG, *PKSPROPERTY_BOUNDS_LONG;

typedef struct {
    ULONG SteppingDelta;
    ULONG Reserved;
    KSPROPERTY_BOUNDS_LONG Bounds;
} KSPROPERTY_STEPPING_LONG, *PKSPROPERTY_STEPPING_LONG;

typedef struct {  // untagged, as in Windows' ks.h: routines taking it link by this name
    KSPROPERTY_MEMBERSHEADER MembersHeader;
    const VOID* Members;
} KSPROPERTY_MEMBERSLIST, *PKSPROPERTY_MEMBERSLIST;

typedef struct {
    KSIDENTIFIER PropTypeSet;
    ULONG MembersListCount;
    const KSPROPERTY_MEMBERSLIST* MembersList;
} KSPROPERTY_VALUES, *PKSPROPERTY_VALUES;

typedef struct {
    ULONG PropertyId;
    union {
        PFNKSHANDLER GetPropertyHandler;
        BOOLEAN GetSupported;
    };
    ULONG MinProperty;
    ULONG MinData;
    union {
        PFNKSHANDLER SetPropertyHandler;
        BOOLEAN SetSupported;
    };
    const KSPROPERTY_VALUES* Values;
    ULONG RelationsCount;
    const KSPROPERTY* Relations;
    PFNKSHANDLER SupportHandler;
    ULONG SerializedSize;
} KSPROPERTY_ITEM, *PKSPROPERTY_ITEM;

typedef struct {
    const GUID* Set;
    ULONG PropertiesCount;
    const KSPROPERTY_ITEM* PropertyItem;
    ULONG FastIoCount;
    const void* FastIoTable;
} KSPROPERTY_SET, *PKSPROPERTY_SET;

typedef struct {
    ULONG MethodId;
    PFNKSHANDLER MethodHandler;
    ULONG MinMethod;
    ULONG MinData;
    PFNKSHANDLER SupportHandler;
    ULONG Flags;
} KSMETHOD_ITEM, *PKSMETHOD_ITEM;

typedef struct {
    const GUID* Set;
    ULONG MethodsCount;
    const KSMETHOD_ITEM* MethodItem;
    ULONG FastIoCount;
    const void* FastIoTable;
} KSMETHOD_SET, *PKSMETHOD_SET;

typedef NTSTATUS(NTAPI* PFNKSADDEVENT)(PIRP Irp, PKSEVENTDATA EventData,
                                       struct _KSEVENT_ENTRY* EventEntry);
typedef void(NTAPI* PFNKSREMOVEEVENT)(struct _FILE_OBJECT* FileObject,
                                      struct _KSEVENT_ENTRY* EventEntry);

typedef struct {
    ULONG EventId;
    ULONG DataInput;
    ULONG ExtraEntryData;
    PFNKSADDEVENT AddHandler;
    PFNKSREMOVEEVENT RemoveHandler;
    PFNKSHANDLER SupportHandler;
} KSEVENT_ITEM, *PKSEVENT_ITEM;

typedef struct {
    const GUID* Set;
    ULONG EventsCount;
    const KSEVENT_ITEM* EventItem;
} KSEVENT_SET, *PKSEVENT_SET;

// An enabled event as the class keeps it; the leading fields of the real
// layout. Minidrivers may keep the pointer but read nothing of it.
#define KSEVENT_ENTRY_DELETED 1
#define KSEVENT_ENTRY_ONESHOT 2
#define KSEVENT_ENTRY_BUFFERED 4

struct _KSEVENT_ENTRY {
    LIST_ENTRY ListEntry;
    PVOID Object;
    PVOID DpcItem;  // a PKSDPC_ITEM or PKSBUFFER_ITEM on Windows
    PKSEVENTDATA EventData;
    ULONG NotificationType;
    const KSEVENT_SET* EventSet;
    const KSEVENT_ITEM* EventItem;
    struct _FILE_OBJECT* FileObject;
    ULONG SemaphoreAdjustment;
    ULONG Reserved;
    ULONG Flags;
};

// ---- connection properties of a pin (allocator framing)

typedef enum {
    KSPROPERTY_CONNECTION_STATE,
    KSPROPERTY_CONNECTION_PRIORITY,
    KSPROPERTY_CONNECTION_DATAFORMAT,
    KSPROPERTY_CONNECTION_ALLOCATORFRAMING,
    KSPROPERTY_CONNECTION_PROPOSEDATAFORMAT,
    KSPROPERTY_CONNECTION_ACQUIREORDERING,
    KSPROPERTY_CONNECTION_ALLOCATORFRAMING_EX,
    KSPROPERTY_CONNECTION_STARTAT
} KSPROPERTY_CONNECTION;

// What a pin asks of the allocator that feeds it.
typedef struct {
    union {
        ULONG OptionsFlags;
        ULONG RequirementsFlags;
    };
    POOL_TYPE PoolType;
    ULONG Frames;
    ULONG FrameSize;
    ULONG FileAlignment;
    ULONG Reserved;
} KSALLOCATOR_FRAMING, *PKSALLOCATOR_FRAMING;

static_assert(sizeof(KSALLOCATOR_FRAMING) == 24, "KSALLOCATOR_FRAMING layout");

#define KSALLOCATOR_REQUIREMENTF_INPLACE_MODIFIER 0x00000001
#define KSALLOCATOR_REQUIREMENTF_SYSTEM_MEMORY 0x00000002
#define KSALLOCATOR_REQUIREMENTF_FRAME_INTEGRITY 0x00000004
#define KSALLOCATOR_REQUIREMENTF_MUST_ALLOCATE 0x00000008
#define KSALLOCATOR_REQUIREMENTF_PREFERENCES_ONLY 0x80000000
