// Kernel services of the Windows driver model, as the simulated platform
// provides them: IRQL, dispatcher objects, spin locks, IRPs, device and driver
// objects, pool, work items, the registry and the debugger output.
#pragma once
#include "ntdef.h"
#include "ntstatus.h"

EXTERN_C_START

// ---------------------------------------------------------------- IRQL
typedef UCHAR KIRQL, *PKIRQL;
#define PASSIVE_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

typedef CCHAR KPROCESSOR_MODE;
#define KernelMode 0
#define UserMode 1

typedef LONG KPRIORITY;
#define IO_NO_INCREMENT 0
#define SEMAPHORE_INCREMENT 1
#define EVENT_INCREMENT 1
#define IO_USB_INCREMENT 2
#define LOW_REALTIME_PRIORITY 16

KIRQL NTAPI KeGetCurrentIrql(void);
void NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
void NTAPI KeLowerIrql(KIRQL NewIrql);
KIRQL NTAPI KeRaiseIrqlToDpcLevel(void);

// ---------------------------------------------------------------- spin locks
typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;

void NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
void NTAPI KeAcquireSpinLock(PKSPIN_LOCK SpinLock, PKIRQL OldIrql);
KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
void NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
void NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
void NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

// ---------------------------------------------------------------- dispatcher objects
typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 13 } KWAIT_REASON;

typedef struct _KTHREAD* PKTHREAD;
typedef struct _KTHREAD* PETHREAD;

typedef struct _DISPATCHER_HEADER {
    union {
        struct {
            UCHAR Type;
            UCHAR Absolute;
            UCHAR Size;
            UCHAR Inserted;
        };
        volatile LONG Lock;
    };
    LONG SignalState;
    LIST_ENTRY WaitListHead;
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;

typedef struct _KSEMAPHORE {
    DISPATCHER_HEADER Header;
    LONG Limit;
} KSEMAPHORE, *PKSEMAPHORE, *PRKSEMAPHORE;

typedef struct _KMUTANT {
    DISPATCHER_HEADER Header;
    LIST_ENTRY MutantListEntry;
    PKTHREAD OwnerThread;
    BOOLEAN Abandoned;
    UCHAR ApcDisable;
} KMUTANT, *PKMUTANT, KMUTEX, *PKMUTEX, *PRKMUTEX;

void NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
LONG NTAPI KeResetEvent(PRKEVENT Event);
void NTAPI KeClearEvent(PRKEVENT Event);
LONG NTAPI KeReadStateEvent(PRKEVENT Event);

void NTAPI KeInitializeMutex(PRKMUTEX Mutex, ULONG Level);
LONG NTAPI KeReleaseMutex(PRKMUTEX Mutex, BOOLEAN Wait);
LONG NTAPI KeReadStateMutex(PRKMUTEX Mutex);

void NTAPI KeInitializeSemaphore(PRKSEMAPHORE Semaphore, LONG Count, LONG Limit);
LONG NTAPI KeReleaseSemaphore(PRKSEMAPHORE Semaphore, KPRIORITY Increment, LONG Adjustment,
                              BOOLEAN Wait);
LONG NTAPI KeReadStateSemaphore(PRKSEMAPHORE Semaphore);

NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                     KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                     PLARGE_INTEGER Timeout);
#define KeWaitForMutexObject KeWaitForSingleObject

NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                      PLARGE_INTEGER Interval);

PKTHREAD NTAPI KeGetCurrentThread(void);

// ---------------------------------------------------------------- time
void NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
ULONGLONG NTAPI KeQueryInterruptTime(void);
LARGE_INTEGER NTAPI KeQueryPerformanceCounter(PLARGE_INTEGER PerformanceFrequency);

// ---------------------------------------------------------------- interlocked
FORCEINLINE LONG InterlockedIncrement(LONG volatile* a) {
    return __atomic_add_fetch(a, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedDecrement(LONG volatile* a) {
    return __atomic_sub_fetch(a, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchange(LONG volatile* a, LONG v) {
    return __atomic_exchange_n(a, v, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* a, LONG v) {
    return __atomic_fetch_add(a, v, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* a, LONG exchange, LONG comparand) {
    __atomic_compare_exchange_n(a, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* a, PVOID v) {
    return __atomic_exchange_n(a, v, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* a, PVOID exchange,
                                                    PVOID comparand) {
    __atomic_compare_exchange_n(a, &comparand, exchange, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return comparand;
}

// ---------------------------------------------------------------- pool
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    PagedPool = 1,
    NonPagedPoolMustSucceed = 2,
    NonPagedPoolCacheAligned = 4,
    PagedPoolCacheAligned = 5,
    NonPagedPoolNx = 512,
} POOL_TYPE;

PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
PVOID NTAPI ExAllocatePool(POOL_TYPE PoolType, SIZE_T NumberOfBytes);
void NTAPI ExFreePool(PVOID P);
void NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);

// ---------------------------------------------------------------- memory helpers
#define RtlCopyMemory(d, s, n) __builtin_memcpy((d), (s), (n))

// Doubly linked lists, inline as in the DDK.
FORCEINLINE void InitializeListHead(PLIST_ENTRY ListHead) {
    ListHead->Flink = ListHead->Blink = ListHead;
}
FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead) {
    return (BOOLEAN)(ListHead->Flink == ListHead);
}
FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry) {
    PLIST_ENTRY oldFlink = Entry->Flink;
    PLIST_ENTRY oldBlink = Entry->Blink;
    oldFlink->Blink = oldBlink;
    oldBlink->Flink = oldFlink;
    return (BOOLEAN)(oldFlink == oldBlink);
}
FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead) {
    PLIST_ENTRY entry = ListHead->Flink;
    RemoveEntryList(entry);
    return entry;
}
FORCEINLINE void InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY oldBlink = ListHead->Blink;
    Entry->Flink = ListHead;
    Entry->Blink = oldBlink;
    oldBlink->Flink = Entry;
    ListHead->Blink = Entry;
}
FORCEINLINE void InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry) {
    PLIST_ENTRY oldFlink = ListHead->Flink;
    Entry->Flink = oldFlink;
    Entry->Blink = ListHead;
    oldFlink->Blink = Entry;
    ListHead->Flink = Entry;
}
#define RtlMoveMemory(d, s, n) __builtin_memmove((d), (s), (n))
#define RtlFillMemory(d, n, f) __builtin_memset((d), (f), (n))
#define RtlZeroMemory(d, n) __builtin_memset((d), 0, (n))
#define RtlEqualMemory(a, b, n) (__builtin_memcmp((a), (b), (n)) == 0)
SIZE_T NTAPI RtlCompareMemory(const void* Source1, const void* Source2, SIZE_T Length);

void NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);

void NTAPI RtlAssert(PVOID FailedAssertion, PVOID FileName, ULONG LineNumber, PSTR Message);
#define ASSERT(exp) ((exp) ? (void)0 : RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, NULL))
#define ASSERTMSG(msg, exp) \
    ((exp) ? (void)0 : RtlAssert((PVOID) #exp, (PVOID)__FILE__, __LINE__, (PSTR)(msg)))

// ---------------------------------------------------------------- debugger output
ULONG WINAPIV DbgPrint(PCSTR Format, ...);
void NTAPI DbgBreakPoint(void);

// Marks code that may be paged out: the verifier reports it running above
// APC_LEVEL, where a page fault cannot be served.
void NTAPI WinsimCheckPagedCode(PCSTR File, ULONG Line);
#define PAGED_CODE() WinsimCheckPagedCode(__FILE__, __LINE__)

// ---------------------------------------------------------------- IRPs and objects
typedef struct _MDL {
    struct _MDL* Next;
    CSHORT Size;
    CSHORT MdlFlags;
    struct _EPROCESS* Process;
    PVOID MappedSystemVa;
    PVOID StartVa;
    ULONG ByteCount;
    ULONG ByteOffset;
} MDL, *PMDL;

typedef struct _IO_STATUS_BLOCK {
    union {
        NTSTATUS Status;
        PVOID Pointer;
    };
    ULONG_PTR Information;
} IO_STATUS_BLOCK, *PIO_STATUS_BLOCK;

struct _DEVICE_OBJECT;
struct _DRIVER_OBJECT;
struct _IRP;
struct _FILE_OBJECT;

// Kernel records that IRPs and device objects embed. The platform queues no
// APCs or DPCs through them; they are here with their Windows members so that
// the records around them have the Windows layout. Routines are PVOID.
typedef struct _KDEVICE_QUEUE_ENTRY {
    LIST_ENTRY DeviceListEntry;
    ULONG SortKey;
    BOOLEAN Inserted;
} KDEVICE_QUEUE_ENTRY, *PKDEVICE_QUEUE_ENTRY;

typedef struct _KDEVICE_QUEUE {
    CSHORT Type;
    CSHORT Size;
    LIST_ENTRY DeviceListHead;
    KSPIN_LOCK Lock;
#if defined(__LP64__)
    union {
        BOOLEAN Busy;
        struct {
            LONGLONG Reserved : 8;
            LONGLONG Hint : 56;
        };
    };
#else
    BOOLEAN Busy;
#endif
} KDEVICE_QUEUE, *PKDEVICE_QUEUE;

typedef struct _KDPC {
    UCHAR Type;
    UCHAR Importance;
    volatile USHORT Number;
    LIST_ENTRY DpcListEntry;
    PVOID DeferredRoutine;
    PVOID DeferredContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    volatile PVOID DpcData;
} KDPC, *PKDPC;

typedef struct _KAPC {
    UCHAR Type;
    UCHAR SpareByte0;
    UCHAR Size;
    UCHAR SpareByte1;
    ULONG SpareLong0;
    PKTHREAD Thread;
    LIST_ENTRY ApcListEntry;
    PVOID KernelRoutine;
    PVOID RundownRoutine;
    PVOID NormalRoutine;
    PVOID NormalContext;
    PVOID SystemArgument1;
    PVOID SystemArgument2;
    CCHAR ApcStateIndex;
    KPROCESSOR_MODE ApcMode;
    BOOLEAN Inserted;
} KAPC, *PKAPC;

typedef struct _WAIT_CONTEXT_BLOCK {
    KDEVICE_QUEUE_ENTRY WaitQueueEntry;
    PVOID DeviceRoutine;
    PVOID DeviceContext;
    ULONG NumberOfMapRegisters;
    PVOID DeviceObject;
    PVOID CurrentIrp;
    PKDPC BufferChainingDpc;
} WAIT_CONTEXT_BLOCK, *PWAIT_CONTEXT_BLOCK;

typedef PVOID PSECURITY_DESCRIPTOR;

typedef NTSTATUS NTAPI IO_COMPLETION_ROUTINE(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp,
                                             PVOID Context);
typedef IO_COMPLETION_ROUTINE* PIO_COMPLETION_ROUTINE;
typedef void NTAPI DRIVER_CANCEL(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef DRIVER_CANCEL* PDRIVER_CANCEL;
typedef NTSTATUS NTAPI DRIVER_DISPATCH(struct _DEVICE_OBJECT* DeviceObject, struct _IRP* Irp);
typedef DRIVER_DISPATCH* PDRIVER_DISPATCH;
typedef NTSTATUS NTAPI DRIVER_INITIALIZE(struct _DRIVER_OBJECT* DriverObject,
                                         PUNICODE_STRING RegistryPath);
typedef DRIVER_INITIALIZE* PDRIVER_INITIALIZE;
typedef void NTAPI DRIVER_UNLOAD(struct _DRIVER_OBJECT* DriverObject);
typedef DRIVER_UNLOAD* PDRIVER_UNLOAD;
typedef NTSTATUS NTAPI DRIVER_ADD_DEVICE(struct _DRIVER_OBJECT* DriverObject,
                                         struct _DEVICE_OBJECT* PhysicalDeviceObject);
typedef DRIVER_ADD_DEVICE* PDRIVER_ADD_DEVICE;

#define IRP_MJ_CREATE 0x00
#define IRP_MJ_CLOSE 0x02
#define IRP_MJ_READ 0x03
#define IRP_MJ_WRITE 0x04
#define IRP_MJ_DEVICE_CONTROL 0x0e
#define IRP_MJ_INTERNAL_DEVICE_CONTROL 0x0f
#define IRP_MJ_POWER 0x16
#define IRP_MJ_SYSTEM_CONTROL 0x17
#define IRP_MJ_PNP 0x1b
#define IRP_MJ_MAXIMUM_FUNCTION 0x1b

#define IRP_MN_START_DEVICE 0x00
#define IRP_MN_REMOVE_DEVICE 0x02
#define IRP_MN_STOP_DEVICE 0x04
#define IRP_MN_QUERY_CAPABILITIES 0x09
#define IRP_MN_SURPRISE_REMOVAL 0x17

#define SL_PENDING_RETURNED 0x01
#define SL_ERROR_RETURNED 0x02
#define SL_INVOKE_ON_CANCEL 0x20
#define SL_INVOKE_ON_SUCCESS 0x40
#define SL_INVOKE_ON_ERROR 0x80

// ---------------------------------------------------------------- power
typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0,
    PowerDeviceD1,
    PowerDeviceD2,
    PowerDeviceD3,
    PowerDeviceMaximum
} DEVICE_POWER_STATE,
    *PDEVICE_POWER_STATE;

typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified = 0,
    PowerSystemWorking,
    PowerSystemSleeping1,
    PowerSystemSleeping2,
    PowerSystemSleeping3,
    PowerSystemHibernate,
    PowerSystemShutdown,
    PowerSystemMaximum
} SYSTEM_POWER_STATE,
    *PSYSTEM_POWER_STATE;

typedef union _POWER_STATE {
    SYSTEM_POWER_STATE SystemState;
    DEVICE_POWER_STATE DeviceState;
} POWER_STATE, *PPOWER_STATE;

typedef enum _POWER_STATE_TYPE {
    SystemPowerState = 0,
    DevicePowerState
} POWER_STATE_TYPE,
    *PPOWER_STATE_TYPE;

typedef enum _POWER_ACTION {
    PowerActionNone = 0,
    PowerActionReserved,
    PowerActionSleep,
    PowerActionHibernate,
    PowerActionShutdown,
    PowerActionShutdownReset,
    PowerActionShutdownOff,
    PowerActionWarmEject
} POWER_ACTION,
    *PPOWER_ACTION;

// Minor functions of IRP_MJ_POWER.
#define IRP_MN_WAIT_WAKE 0x00
#define IRP_MN_POWER_SEQUENCE 0x01
#define IRP_MN_SET_POWER 0x02
#define IRP_MN_QUERY_POWER 0x03

typedef struct _IO_STACK_LOCATION {
    UCHAR MajorFunction;
    UCHAR MinorFunction;
    UCHAR Flags;
    UCHAR Control;
    union {
        struct {
            ULONG DECLSPEC_ALIGN(sizeof(void*)) OutputBufferLength;
            ULONG DECLSPEC_ALIGN(sizeof(void*)) InputBufferLength;
            ULONG DECLSPEC_ALIGN(sizeof(void*)) IoControlCode;
            PVOID Type3InputBuffer;
        } DeviceIoControl;
        struct {
            ULONG SystemContext;
            POWER_STATE_TYPE DECLSPEC_ALIGN(sizeof(void*)) Type;
            POWER_STATE DECLSPEC_ALIGN(sizeof(void*)) State;
            POWER_ACTION DECLSPEC_ALIGN(sizeof(void*)) ShutdownType;
        } Power;
        struct {
            PVOID Argument1;
            PVOID Argument2;
            PVOID Argument3;
            PVOID Argument4;
        } Others;
    } Parameters;
    struct _DEVICE_OBJECT* DeviceObject;
    struct _FILE_OBJECT* FileObject;
    PIO_COMPLETION_ROUTINE CompletionRoutine;
    PVOID Context;
} IO_STACK_LOCATION, *PIO_STACK_LOCATION;

#define IO_TYPE_DEVICE 3
#define IO_TYPE_DRIVER 4
#define IO_TYPE_IRP 6

typedef struct _IRP {
    CSHORT Type;
    USHORT Size;
    PMDL MdlAddress;
    ULONG Flags;
    union {
        struct _IRP* MasterIrp;
        volatile LONG IrpCount;
        PVOID SystemBuffer;
    } AssociatedIrp;
    LIST_ENTRY ThreadListEntry;
    IO_STATUS_BLOCK IoStatus;
    KPROCESSOR_MODE RequestorMode;
    BOOLEAN PendingReturned;
    CHAR StackCount;
    CHAR CurrentLocation;
    BOOLEAN Cancel;
    KIRQL CancelIrql;
    CCHAR ApcEnvironment;
    UCHAR AllocationFlags;
    PIO_STATUS_BLOCK UserIosb;
    PKEVENT UserEvent;
    union {
        struct {
            PVOID UserApcRoutine;
            PVOID UserApcContext;
        } AsynchronousParameters;
        LARGE_INTEGER AllocationSize;
    } Overlay;
    volatile PDRIVER_CANCEL CancelRoutine;
    PVOID UserBuffer;
    union {
        struct {
            union {
                KDEVICE_QUEUE_ENTRY DeviceQueueEntry;
                struct {
                    PVOID DriverContext[4];
                };
            };
            PETHREAD Thread;
            PCHAR AuxiliaryBuffer;
            struct {
                LIST_ENTRY ListEntry;
                union {
                    struct _IO_STACK_LOCATION* CurrentStackLocation;
                    ULONG PacketType;
                };
            };
            struct _FILE_OBJECT* OriginalFileObject;
        } Overlay;
        KAPC Apc;
        PVOID CompletionKey;
    } Tail;
} IRP, *PIRP;

typedef struct _DEVICE_OBJECT {
    CSHORT Type;
    USHORT Size;
    LONG ReferenceCount;
    struct _DRIVER_OBJECT* DriverObject;
    struct _DEVICE_OBJECT* NextDevice;
    struct _DEVICE_OBJECT* AttachedDevice;
    struct _IRP* CurrentIrp;
    struct _IO_TIMER* Timer;
    ULONG Flags;
    ULONG Characteristics;
    struct _VPB* volatile Vpb;
    PVOID DeviceExtension;
    ULONG DeviceType;
    CCHAR StackSize;
    union {
        LIST_ENTRY ListEntry;
        WAIT_CONTEXT_BLOCK Wcb;
    } Queue;
    ULONG AlignmentRequirement;
    KDEVICE_QUEUE DeviceQueue;
    KDPC Dpc;
    ULONG ActiveThreadCount;
    PSECURITY_DESCRIPTOR SecurityDescriptor;
    KEVENT DeviceLock;
    USHORT SectorSize;
    USHORT Spare1;
    struct _DEVOBJ_EXTENSION* DeviceObjectExtension;
    PVOID Reserved;
} DEVICE_OBJECT, *PDEVICE_OBJECT;

#define DO_BUFFERED_IO 0x00000004
#define DO_DIRECT_IO 0x00000010
#define DO_DEVICE_INITIALIZING 0x00000080
#define DO_POWER_PAGABLE 0x00002000

typedef struct _DRIVER_EXTENSION {
    struct _DRIVER_OBJECT* DriverObject;
    PDRIVER_ADD_DEVICE AddDevice;
    ULONG Count;
    UNICODE_STRING ServiceKeyName;
} DRIVER_EXTENSION, *PDRIVER_EXTENSION;

typedef struct _DRIVER_OBJECT {
    CSHORT Type;
    CSHORT Size;
    PDEVICE_OBJECT DeviceObject;
    ULONG Flags;
    PVOID DriverStart;
    ULONG DriverSize;
    PVOID DriverSection;
    PDRIVER_EXTENSION DriverExtension;
    UNICODE_STRING DriverName;
    PUNICODE_STRING HardwareDatabase;
    PVOID FastIoDispatch;
    PDRIVER_INITIALIZE DriverInit;
    PVOID DriverStartIo;
    PDRIVER_UNLOAD DriverUnload;
    PDRIVER_DISPATCH MajorFunction[IRP_MJ_MAXIMUM_FUNCTION + 1];
} DRIVER_OBJECT, *PDRIVER_OBJECT;

PIRP NTAPI IoAllocateIrp(CCHAR StackSize, BOOLEAN ChargeQuota);
void NTAPI IoFreeIrp(PIRP Irp);
void NTAPI IoReuseIrp(PIRP Irp, NTSTATUS Iostatus);
void NTAPI IoInitializeIrp(PIRP Irp, USHORT PacketSize, CCHAR StackSize);
USHORT NTAPI IoSizeOfIrp(CCHAR StackSize);
NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp);
void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost);
#define IoCallDriver(d, i) IofCallDriver((d), (i))
#define IoCompleteRequest(i, b) IofCompleteRequest((i), (b))
BOOLEAN NTAPI IoCancelIrp(PIRP Irp);
void NTAPI IoAcquireCancelSpinLock(PKIRQL Irql);
void NTAPI IoReleaseCancelSpinLock(KIRQL Irql);

FORCEINLINE PIO_STACK_LOCATION IoGetCurrentIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation;
}
FORCEINLINE PIO_STACK_LOCATION IoGetNextIrpStackLocation(PIRP Irp) {
    return Irp->Tail.Overlay.CurrentStackLocation - 1;
}
FORCEINLINE void IoSetNextIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation--;
    Irp->Tail.Overlay.CurrentStackLocation--;
}
FORCEINLINE void IoSkipCurrentIrpStackLocation(PIRP Irp) {
    Irp->CurrentLocation++;
    Irp->Tail.Overlay.CurrentStackLocation++;
}
FORCEINLINE void IoCopyCurrentIrpStackLocationToNext(PIRP Irp) {
    PIO_STACK_LOCATION s = IoGetCurrentIrpStackLocation(Irp);
    PIO_STACK_LOCATION n = IoGetNextIrpStackLocation(Irp);
    RtlCopyMemory(n, s, FIELD_OFFSET(IO_STACK_LOCATION, CompletionRoutine));
    n->Control = 0;
}
FORCEINLINE void IoSetCompletionRoutine(PIRP Irp, PIO_COMPLETION_ROUTINE Routine, PVOID Context,
                                        BOOLEAN InvokeOnSuccess, BOOLEAN InvokeOnError,
                                        BOOLEAN InvokeOnCancel) {
    PIO_STACK_LOCATION n = IoGetNextIrpStackLocation(Irp);
    n->CompletionRoutine = Routine;
    n->Context = Context;
    n->Control = 0;
    if (InvokeOnSuccess)
        n->Control |= SL_INVOKE_ON_SUCCESS;
    if (InvokeOnError)
        n->Control |= SL_INVOKE_ON_ERROR;
    if (InvokeOnCancel)
        n->Control |= SL_INVOKE_ON_CANCEL;
}
FORCEINLINE void IoMarkIrpPending(PIRP Irp) {
    IoGetCurrentIrpStackLocation(Irp)->Control |= SL_PENDING_RETURNED;
}
FORCEINLINE PDRIVER_CANCEL IoSetCancelRoutine(PIRP Irp, PDRIVER_CANCEL Routine) {
    return (PDRIVER_CANCEL)InterlockedExchangePointer((PVOID volatile*)&Irp->CancelRoutine,
                                                      (PVOID)Routine);
}

PMDL NTAPI IoAllocateMdl(PVOID VirtualAddress, ULONG Length, BOOLEAN SecondaryBuffer,
                         BOOLEAN ChargeQuota, PIRP Irp);
void NTAPI IoFreeMdl(PMDL Mdl);
void NTAPI MmBuildMdlForNonPagedPool(PMDL MemoryDescriptorList);
#define MmGetMdlByteCount(m) ((m)->ByteCount)
#define MmGetSystemAddressForMdl(m) ((m)->MappedSystemVa)
#define MmGetSystemAddressForMdlSafe(m, p) ((m)->MappedSystemVa)
typedef enum _MM_PAGE_PRIORITY {
    LowPagePriority,
    NormalPagePriority = 16,
    HighPagePriority = 32
} MM_PAGE_PRIORITY;

// ---------------------------------------------------------------- work items
typedef void NTAPI WORKER_THREAD_ROUTINE(PVOID Parameter);
typedef WORKER_THREAD_ROUTINE* PWORKER_THREAD_ROUTINE;

typedef struct _WORK_QUEUE_ITEM {
    LIST_ENTRY List;
    PWORKER_THREAD_ROUTINE WorkerRoutine;
    volatile PVOID Parameter;
} WORK_QUEUE_ITEM, *PWORK_QUEUE_ITEM;

typedef enum _WORK_QUEUE_TYPE {
    CriticalWorkQueue,
    DelayedWorkQueue,
    HyperCriticalWorkQueue,
} WORK_QUEUE_TYPE;

#define ExInitializeWorkItem(Item, Routine, Context) \
    do {                                             \
        (Item)->WorkerRoutine = (Routine);           \
        (Item)->Parameter = (Context);               \
        (Item)->List.Flink = NULL;                   \
    } while (0)

void NTAPI ExQueueWorkItem(PWORK_QUEUE_ITEM WorkItem, WORK_QUEUE_TYPE QueueType);

// ---------------------------------------------------------------- registry
#define PLUGPLAY_REGKEY_DEVICE 1
#define PLUGPLAY_REGKEY_DRIVER 2
#define PLUGPLAY_REGKEY_CURRENT_HWPROFILE 4

#define KEY_QUERY_VALUE 0x0001
#define KEY_ENUMERATE_SUB_KEYS 0x0008
#define KEY_NOTIFY 0x0010
#define READ_CONTROL 0x00020000L
#define STANDARD_RIGHTS_READ READ_CONTROL
#define KEY_READ (STANDARD_RIGHTS_READ | KEY_QUERY_VALUE | KEY_ENUMERATE_SUB_KEYS | KEY_NOTIFY)
#define KEY_ALL_ACCESS 0xF003F

#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation,
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

NTSTATUS NTAPI IoOpenDeviceRegistryKey(PDEVICE_OBJECT DeviceObject, ULONG DevInstKeyType,
                                       ACCESS_MASK DesiredAccess, PHANDLE DevInstRegKey);
NTSTATUS NTAPI ZwQueryValueKey(HANDLE KeyHandle, PUNICODE_STRING ValueName,
                               KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                               PVOID KeyValueInformation, ULONG Length, PULONG ResultLength);
NTSTATUS NTAPI ZwClose(HANDLE Handle);

// ---------------------------------------------------------------- I/O control codes
#define CTL_CODE(DeviceType, Function, Method, Access) \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0

typedef enum _INTERFACE_TYPE { InterfaceTypeUndefined = -1, Internal, PCIBus = 5 } INTERFACE_TYPE;
typedef enum _KINTERRUPT_MODE { LevelSensitive, Latched } KINTERRUPT_MODE;
typedef struct _KINTERRUPT* PKINTERRUPT;
typedef struct _ADAPTER_OBJECT* PADAPTER_OBJECT;

EXTERN_C_END
