// Vendor control requests to the camera on the default control pipe.
#include "ornix.h"

// A vendor request moved to a worker thread because it was asked for at
// raised IRQL; freed by the worker.
typedef struct _ORNIX_VENDOR_WORK {
    PORNIX_DEVICE_CONTEXT Device;
    WORK_QUEUE_ITEM WorkItem;
    UCHAR Request;
    USHORT Value;
    USHORT Index;
    PVOID Buffer;
    PULONG BufferLength;
    BOOLEAN DirectionIn;
    PORNIX_VENDOR_CALLBACK Callback;
    PVOID Context;
} ORNIX_VENDOR_WORK, *PORNIX_VENDOR_WORK;

typedef struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST ORNIX_VENDOR_URB, *PORNIX_VENDOR_URB;

// IRQL: PASSIVE_LEVEL. The lower driver never sees the caller's buffer: the
// data travel through a transfer block of our own. On success *BufferLength
// holds the bytes actually moved; on failure buffer and length are untouched.
NTSTATUS OrnixControlVendorCommand(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                   USHORT Index, PVOID Buffer, PULONG BufferLength,
                                   BOOLEAN DirectionIn) {
    ULONG length = BufferLength != NULL ? *BufferLength : 0;

    // One block: the URB first, so that it is naturally aligned, then the data.
    PORNIX_VENDOR_URB urb = NULL;
    if (length <= (ULONG)~0 - sizeof(ORNIX_VENDOR_URB)) {
        urb = (PORNIX_VENDOR_URB)OrnixAllocatePool(sizeof(ORNIX_VENDOR_URB) + length);
    }
    if (urb == NULL) {
        DbgPrint(ORNIX_PREFIX "OrnixControlVendorCommand Error 0x%x\n",
                 (ULONG)STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(urb, sizeof(ORNIX_VENDOR_URB));

    // No length means no data stage.
    PUCHAR data = length != 0 ? (PUCHAR)(urb + 1) : NULL;
    if (data != NULL && !DirectionIn) {
        RtlCopyMemory(data, Buffer, length);
    }

    urb->Hdr.Length = sizeof(ORNIX_VENDOR_URB);
    urb->Hdr.Function = URB_FUNCTION_VENDOR_DEVICE;
    urb->TransferFlags = DirectionIn ? USBD_TRANSFER_DIRECTION_IN : USBD_TRANSFER_DIRECTION_OUT;
    urb->TransferBufferLength = length;
    urb->TransferBuffer = data;
    urb->TransferBufferMDL = NULL;
    urb->UrbLink = NULL;
    urb->RequestTypeReservedBits = 0;
    urb->Request = Request;
    urb->Value = Value;
    urb->Index = Index;

    NTSTATUS status = OrnixCallUsbd(Ext, (PURB)urb);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "OrnixControlVendorCommand Error 0x%x\n", (ULONG)status);
    } else if (BufferLength != NULL) {
        // Never trust a count beyond what we offered.
        ULONG moved = urb->TransferBufferLength < length ? urb->TransferBufferLength : length;
        *BufferLength = moved;
        if (DirectionIn && data != NULL) {
            RtlCopyMemory(Buffer, data, moved);
        }
    }

    OrnixFreePool(urb);
    return status;
}

// IRQL: PASSIVE_LEVEL, on a system worker thread. Once teardown has begun
// the request is not sent: the callback gets STATUS_DEVICE_NOT_READY.
VOID NTAPI OrnixControlVendorCommandWorker(PVOID Parameter) {
    PORNIX_VENDOR_WORK work = (PORNIX_VENDOR_WORK)Parameter;
    PORNIX_DEVICE_CONTEXT ext = work->Device;
    NTSTATUS status = STATUS_DEVICE_NOT_READY;
    if (!OrnixFlagIsSet(&ext->Uninitializing)) {
        status = OrnixControlVendorCommand(ext, work->Request, work->Value, work->Index,
                                           work->Buffer, work->BufferLength, work->DirectionIn);
    }
    if (work->Callback != NULL) {
        work->Callback(ext, work->Context, status);
    }
    OrnixFreePool(work);
    OrnixEndWorkItem(ext);
}

// IRQL: up to DISPATCH_LEVEL. Below DISPATCH_LEVEL the transfer runs at once
// and the callback has run when this returns. At DISPATCH_LEVEL it moves to
// a worker thread (STATUS_PENDING): buffer, length and context must then stay
// valid until the callback. Once teardown no longer lets work items be queued
// the answer is STATUS_DEVICE_NOT_READY, without the callback.
NTSTATUS OrnixControlVendorCommand2(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                    USHORT Index, PVOID Buffer, PULONG BufferLength,
                                    BOOLEAN DirectionIn, PORNIX_VENDOR_CALLBACK Callback,
                                    PVOID Context) {
    if (KeGetCurrentIrql() < DISPATCH_LEVEL) {
        NTSTATUS status = OrnixControlVendorCommand(Ext, Request, Value, Index, Buffer,
                                                    BufferLength, DirectionIn);
        if (Callback != NULL) {
            Callback(Ext, Context, status);
        }
        return status;
    }

    if (!OrnixBeginWorkItem(Ext)) {
        return STATUS_DEVICE_NOT_READY;
    }
    PORNIX_VENDOR_WORK work = (PORNIX_VENDOR_WORK)OrnixAllocatePool(sizeof(ORNIX_VENDOR_WORK));
    if (work == NULL) {
        OrnixEndWorkItem(Ext);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    work->Device = Ext;
    work->Request = Request;
    work->Value = Value;
    work->Index = Index;
    work->Buffer = Buffer;
    work->BufferLength = BufferLength;
    work->DirectionIn = DirectionIn;
    work->Callback = Callback;
    work->Context = Context;
    ExInitializeWorkItem(&work->WorkItem, OrnixControlVendorCommandWorker, work);
    ExQueueWorkItem(&work->WorkItem, DelayedWorkQueue);
    return STATUS_PENDING;
}
