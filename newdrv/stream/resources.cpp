// A stream's transfer resources: the IRPs of its transfer contexts, the
// scratch buffer for frames nobody asked for, and the video alternate
// setting. Acquired when the stream leaves KSSTATE_STOP, released when it
// returns there.
#include "ornix.h"

// IRQL: any. One transfer for variable-size frames, and for a still frame
// that fits in one transfer of its pipe; three otherwise.
ULONG StreamGetTransferCount(PORNIX_STREAM_CONTEXT Stream) {
    if (Stream->VariableFrameSize) {
        return 1;
    }
    if (Stream->StreamNumber == ORNIX_STILL_STREAM) {
        PORNIX_DEVICE_CONTEXT ext = Stream->Device;
        PUSBD_PIPE_INFORMATION pipe = OrnixGetPipe(ext, ext->VideoAltSetting, Stream->PipeIndex);
        if (pipe != NULL && Stream->FrameSize <= pipe->MaximumTransferSize) {
            return 1;
        }
    }
    return ORNIX_STREAM_TRANSFERS;
}

// Whether the other stream still needs the video alternate setting.
static BOOLEAN StreamOtherIsActive(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    ULONG other = 1 - Stream->StreamNumber;
    PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[other];
    return stream != NULL && stream->State != KSSTATE_STOP;
}

// Frees the scratch buffer and every IRP; each reference is cleared, so a
// second call releases nothing.
static VOID StreamReleaseTransferBlocks(PORNIX_STREAM_CONTEXT Stream) {
    if (Stream->TempBuffer != NULL) {
        OrnixFreePool(Stream->TempBuffer);
        Stream->TempBuffer = NULL;
    }
    for (ULONG i = 0; i < ORNIX_STREAM_TRANSFERS; i++) {
        PORNIX_TRANSFER_CONTEXT transfer = &Stream->TransferContexts[i];
        if (transfer->Irp != NULL) {
            IoFreeIrp(transfer->Irp);
            transfer->Irp = NULL;
        }
        transfer->Busy = FALSE;
        transfer->SkippedByRestart = FALSE;
    }
}

// IRQL: PASSIVE_LEVEL.
NTSTATUS StreamAllocResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    // A format with no bytes per frame would spin the engine on empty
    // transfers; such a stream never streams.
    if (Stream->FrameSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Ext->CurrentAltSetting == 0) {
        if (Ext->VideoAltSetting != 0) {
            NTSTATUS status = OrnixSelectAltSetting(Ext, Ext->VideoAltSetting);
            if (!NT_SUCCESS(status)) {
                return status;
            }
        }
    } else if (Ext->CurrentAltSetting != Ext->VideoAltSetting) {
        DbgPrint(ORNIX_PREFIX "StreamAllocResources: do not want to select alt interface\n");
        return STATUS_DEVICE_BUSY;
    }

    NTSTATUS status = STATUS_SUCCESS;
    ULONG count = StreamGetTransferCount(Stream);
    for (ULONG i = 0; i < count; i++) {
        PORNIX_TRANSFER_CONTEXT transfer = &Stream->TransferContexts[i];
        transfer->Irp = IoAllocateIrp(Ext->PhysicalDeviceObject->StackSize, FALSE);
        if (transfer->Irp == NULL) {
            status = STATUS_INSUFFICIENT_RESOURCES;
            break;
        }
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(transfer->Irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        next->Parameters.Others.Argument1 = &transfer->Urb;
        IoSetCompletionRoutine(transfer->Irp, BulkStreamComplete, transfer, TRUE, TRUE, TRUE);
    }
    if (NT_SUCCESS(status)) {
        Stream->TempBuffer = (PUCHAR)OrnixAllocatePool(Stream->FrameSize);
        if (Stream->TempBuffer == NULL) {
            DbgPrint(ORNIX_PREFIX " no mem for TempBuffer, tryed for 0x%x bytes\n",
                     Stream->FrameSize);
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    if (NT_SUCCESS(status)) {
        return STATUS_SUCCESS;
    }

    StreamReleaseTransferBlocks(Stream);
    if (Ext->CurrentAltSetting != 0 && !StreamOtherIsActive(Ext, Stream)) {
        OrnixSelectAltSetting(Ext, 0);
    }
    return status;
}

// IRQL: PASSIVE_LEVEL. Runs only while no transfer of the stream is in flight.
NTSTATUS StreamFreeResources(PORNIX_DEVICE_CONTEXT Ext, PORNIX_STREAM_CONTEXT Stream) {
    StreamReleaseTransferBlocks(Stream);

    // The interrupt pipe lives in the video setting too: keep it while any
    // device event is enabled.
    if (Ext->CurrentAltSetting != 0 && !StreamOtherIsActive(Ext, Stream) &&
        InterlockedCompareExchange(&Ext->DeviceEventCount, 0, 0) == 0) {
        OrnixSelectAltSetting(Ext, 0);
    }

    PHW_STREAM_REQUEST_BLOCK srb;
    while ((srb = StreamDequeueRead(Stream)) != NULL) {
        DbgPrint(ORNIX_PREFIX
                 "StreamFreeResources: found SRB 0x%08lx in pending queue, cancelling\n",
                 (ULONG)(ULONG_PTR)srb);
        srb->Status = STATUS_CANCELLED;
        InterlockedDecrement(&Stream->OutstandingReads);
        StreamClassStreamNotification(StreamRequestComplete, srb->StreamObject, srb);
    }
    return STATUS_SUCCESS;
}
