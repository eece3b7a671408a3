// Pipe control: synchronous and deferred pipe reset, and selection of an
// alternate setting of the camera's interface.
#include "ornix.h"

// Work record of a deferred reset; freed by the worker.
typedef struct _ORNIX_RESET_WORK {
    WORK_QUEUE_ITEM WorkItem;
    PORNIX_RESET_CALLBACK Callback;
    PVOID Context;
    PORNIX_DEVICE_CONTEXT Device;
    ULONG PipeIndex;
} ORNIX_RESET_WORK, *PORNIX_RESET_WORK;

PUSBD_PIPE_INFORMATION OrnixGetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting, ULONG PipeIndex) {
    if (Ext->InterfaceInfoTable == NULL || AltSetting >= Ext->InterfaceInfoCount) {
        return NULL;
    }
    PUSBD_INTERFACE_INFORMATION iface = Ext->InterfaceInfoTable[AltSetting];
    if (iface == NULL || PipeIndex >= iface->NumberOfPipes) {
        return NULL;
    }
    return &iface->Pipes[PipeIndex];
}

// IRQL: DISPATCH_LEVEL or below.
USBD_PIPE_HANDLE OrnixReadPipeHandle(PORNIX_DEVICE_CONTEXT Ext, PUSBD_PIPE_INFORMATION Pipe) {
    KIRQL irql;
    KeAcquireSpinLock(&Ext->PipeHandleLock, &irql);
    USBD_PIPE_HANDLE handle = Pipe->PipeHandle;
    KeReleaseSpinLock(&Ext->PipeHandleLock, irql);
    return handle;
}

// IRQL: PASSIVE_LEVEL, PipeMutex held. Resets the pipe in the current
// alternate setting and clears the endpoint's halt feature. Everything the
// two requests need is read from the tables before the first one is sent.
static NTSTATUS OrnixResetPipeLocked(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex) {
    DbgPrint(ORNIX_PREFIX "OrnixResetPipe: %d\n", PipeIndex);
    if (OrnixFlagIsSet(&Ext->Removed)) {
        DbgPrint(ORNIX_PREFIX "OrnixResetPipe: Removed\n");
        return STATUS_DEVICE_REMOVED;
    }
    PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(Ext, Ext->CurrentAltSetting, PipeIndex);
    if (pipe == NULL) {
        return STATUS_INVALID_PARAMETER;
    }
    USBD_PIPE_HANDLE handle = OrnixReadPipeHandle(Ext, pipe);
    UCHAR endpointAddress = pipe->EndpointAddress;

    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbPipeRequest.Hdr.Length = sizeof(struct _URB_PIPE_REQUEST);
    urb.UrbPipeRequest.Hdr.Function = URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL;
    urb.UrbPipeRequest.PipeHandle = handle;
    NTSTATUS status = OrnixCallUsbd(Ext, &urb);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbControlFeatureRequest.Hdr.Length = sizeof(struct _URB_CONTROL_FEATURE_REQUEST);
    urb.UrbControlFeatureRequest.Hdr.Function = URB_FUNCTION_CLEAR_FEATURE_TO_ENDPOINT;
    urb.UrbControlFeatureRequest.FeatureSelector = USB_FEATURE_ENDPOINT_STALL;
    urb.UrbControlFeatureRequest.Index = endpointAddress;
    return OrnixCallUsbd(Ext, &urb);
}

// IRQL: PASSIVE_LEVEL. Takes PipeMutex: the caller must not hold UsbRequestSemaphore.
NTSTATUS OrnixResetPipe(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex) {
    KeWaitForSingleObject(&Ext->PipeMutex, Executive, KernelMode, FALSE, NULL);
    NTSTATUS status = OrnixResetPipeLocked(Ext, PipeIndex);
    KeReleaseMutex(&Ext->PipeMutex, FALSE);
    return status;
}

// IRQL: PASSIVE_LEVEL, on a system worker thread. Holds PipeMutex from its
// look at the flags to its last request, so that neither a selection nor
// teardown changes the tables under it and surprise removal can wait for it.
// Once teardown or removal has begun it sends nothing.
VOID NTAPI OrnixResetPipeWorker(PVOID Parameter) {
    PORNIX_RESET_WORK work = (PORNIX_RESET_WORK)Parameter;
    PORNIX_DEVICE_CONTEXT ext = work->Device;
    ULONG pipeIndex = work->PipeIndex;
    PORNIX_RESET_CALLBACK callback = work->Callback;
    PVOID context = work->Context;

    NTSTATUS status = STATUS_DEVICE_REMOVED;
    KeWaitForSingleObject(&ext->PipeMutex, Executive, KernelMode, FALSE, NULL);
    if (OrnixFlagIsSet(&ext->Removed)) {
        status = STATUS_DEVICE_REMOVED;
    } else if (OrnixFlagIsSet(&ext->Uninitializing)) {
        status = STATUS_DEVICE_NOT_READY;
    } else {
        // The camera must stop feeding the capture pipe before it is reset;
        // a failure here shows up in the reset itself.
        if (pipeIndex == ext->CapturePipe) {
            OrnixRegWrite(ext, ORNIX_STREAM_CONTROL, ORNIX_STREAM_CONTROL_IDLE);
        }
        status = OrnixResetPipeLocked(ext, pipeIndex);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "OrnixResetPipe failed\n");
        }
    }
    KeReleaseMutex(&ext->PipeMutex, FALSE);

    OrnixFreePool(work);
    callback(ext, status, context);
    OrnixEndWorkItem(ext);
}

// IRQL: up to DISPATCH_LEVEL. The callback runs exactly once: on a worker
// thread, or at once when no work record can be allocated or teardown no
// longer lets work items be queued (STATUS_DEVICE_NOT_READY).
VOID OrnixResetPipeNoWait(PORNIX_DEVICE_CONTEXT Ext, ULONG PipeIndex,
                          PORNIX_RESET_CALLBACK Callback, PVOID Context) {
    if (!OrnixBeginWorkItem(Ext)) {
        Callback(Ext, STATUS_DEVICE_NOT_READY, Context);
        return;
    }
    PORNIX_RESET_WORK work = (PORNIX_RESET_WORK)OrnixAllocatePool(sizeof(ORNIX_RESET_WORK));
    if (work == NULL) {
        DbgPrint(ORNIX_PREFIX "OrnixResetPipeNoWait: no mem\n");
        Callback(Ext, STATUS_INSUFFICIENT_RESOURCES, Context);
        OrnixEndWorkItem(Ext);
        return;
    }
    work->Callback = Callback;
    work->Context = Context;
    work->Device = Ext;
    work->PipeIndex = PipeIndex;
    ExInitializeWorkItem(&work->WorkItem, OrnixResetPipeWorker, work);
    ExQueueWorkItem(&work->WorkItem, DelayedWorkQueue);
}

// IRQL: PASSIVE_LEVEL, PipeMutex held.
static NTSTATUS OrnixSelectAltSettingLocked(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting) {
    if (AltSetting == Ext->CurrentAltSetting) {
        return STATUS_SUCCESS;
    }
    if (OrnixFlagIsSet(&Ext->Removed)) {
        return STATUS_DEVICE_REMOVED;
    }
    PUSBD_INTERFACE_INFORMATION kept =
        AltSetting < Ext->InterfaceInfoCount ? Ext->InterfaceInfoTable[AltSetting] : NULL;
    if (kept == NULL) {
        return STATUS_INVALID_PARAMETER;
    }

    USHORT urbLength =
        (USHORT)(FIELD_OFFSET(struct _URB_SELECT_INTERFACE, Interface) + kept->Length);
    struct _URB_SELECT_INTERFACE* select =
        (struct _URB_SELECT_INTERFACE*)OrnixAllocatePool(urbLength);
    if (select == NULL) {
        DbgPrint(ORNIX_PREFIX " OrnixSelectAltSetting: no mem\n");
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(select, urbLength);
    select->Hdr.Length = urbLength;
    select->Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    select->ConfigurationHandle = Ext->ConfigurationHandle;
    KIRQL irql;
    KeAcquireSpinLock(&Ext->PipeHandleLock, &irql);
    RtlCopyMemory(&select->Interface, kept, kept->Length);
    KeReleaseSpinLock(&Ext->PipeHandleLock, irql);

    NTSTATUS status = OrnixCallUsbd(Ext, (PURB)select);
    if (NT_SUCCESS(status)) {
        Ext->CurrentAltSetting = AltSetting;
        KeAcquireSpinLock(&Ext->PipeHandleLock, &irql);
        for (ULONG i = 0; i < kept->NumberOfPipes; i++) {
            kept->Pipes[i].PipeHandle = select->Interface.Pipes[i].PipeHandle;
        }
        KeReleaseSpinLock(&Ext->PipeHandleLock, irql);
    } else {
        DbgPrint(ORNIX_PREFIX " OrnixSelectAltSetting, USBD failed with 0x%08lx\n", (ULONG)status);
    }

    OrnixFreePool(select);
    return status;
}

// IRQL: PASSIVE_LEVEL. On success the fresh pipe handles are copied into the
// kept interface record; its transfer sizes and flags stay as configured.
// Under PipeMutex, so that no deferred reset reads the tables meanwhile.
NTSTATUS OrnixSelectAltSetting(PORNIX_DEVICE_CONTEXT Ext, ULONG AltSetting) {
    KeWaitForSingleObject(&Ext->PipeMutex, Executive, KernelMode, FALSE, NULL);
    NTSTATUS status = OrnixSelectAltSettingLocked(Ext, AltSetting);
    KeReleaseMutex(&Ext->PipeMutex, FALSE);
    return status;
}
