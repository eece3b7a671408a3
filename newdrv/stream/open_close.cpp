// SRB_OPEN_STREAM and SRB_CLOSE_STREAM, and the stream context they set up.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. The three results the open and the close check share.
static NTSTATUS StreamCheckSlot(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber) {
    if (StreamNumber >= Ext->StreamCount || StreamNumber >= ORNIX_MAX_STREAMS) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Ext->StreamContexts[StreamNumber] == NULL) {
        return STATUS_UNSUCCESSFUL;
    }
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL. Clears and fills the context that the stream table
// holds for StreamNumber.
NTSTATUS StreamInitStreamExtension(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber) {
    NTSTATUS status = StreamCheckSlot(Ext, StreamNumber);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[StreamNumber];
    RtlZeroMemory(stream, sizeof(*stream));
    stream->Signature = ORNIX_STREAM_SIGNATURE;
    stream->State = KSSTATE_STOP;
    stream->PipeIndex = StreamNumber == ORNIX_STILL_STREAM ? Ext->StillPipe : Ext->CapturePipe;
    stream->StreamNumber = StreamNumber;

    InitializeListHead(&stream->PendingTransfers);
    KeInitializeSpinLock(&stream->PendingLock);
    KeInitializeSpinLock(&stream->QueueLock);
    stream->OutstandingReads = 0;
    stream->DriverReadyWanted = 0;
    KeInitializeEvent(&stream->DriverReadyEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&stream->DrainEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&stream->AbortEvent, NotificationEvent, FALSE);
    KeInitializeEvent(&stream->DelayedStartDone, NotificationEvent, TRUE);

    for (ULONG i = 0; i < ORNIX_STREAM_TRANSFERS; i++) {
        stream->TransferContexts[i].Stream = stream;
    }
    stream->FrameSize = GetStreamUsbFrameSize(Ext, StreamNumber, &stream->VariableFrameSize);
    stream->Device = Ext;
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL. Checks the slot only; the stream class frees the record.
NTSTATUS StreamUninitStreamExtension(PORNIX_DEVICE_CONTEXT Ext, ULONG StreamNumber) {
    return StreamCheckSlot(Ext, StreamNumber);
}

// IRQL: PASSIVE_LEVEL, under RequestMutex. Verifies and programs the format;
// transfer resources wait until the stream leaves KSSTATE_STOP.
NTSTATUS StreamOpenStream(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PHW_STREAM_OBJECT object = Srb->StreamObject;
    ULONG number = object->StreamNumber;
    DbgPrint(ORNIX_PREFIX "StreamOpenStream stream # %d \n", number);

    if (!Ext->Initialized || OrnixFlagIsSet(&Ext->Uninitializing)) {
        DbgPrint(ORNIX_PREFIX " ext NOT Initialized \n");
        return STATUS_DEVICE_NOT_READY;
    }
    if (OrnixFlagIsSet(&Ext->Removed)) {
        DbgPrint(ORNIX_PREFIX " device was removed\n");
        return STATUS_DEVICE_REMOVED;
    }
    // The stream table has two slots whatever the camera reports.
    if (number >= ORNIX_MAX_STREAMS ||
        !AdapterVerifyFormat(Ext, Srb->CommandData.OpenFormat, number)) {
        return STATUS_INVALID_PARAMETER;
    }

    Ext->StreamContexts[number] = (PORNIX_STREAM_CONTEXT)object->HwStreamExtension;
    NTSTATUS status = StreamInitStreamExtension(Ext, number);
    if (!NT_SUCCESS(status)) {
        Ext->StreamContexts[number] = NULL;
        return status;
    }
    PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[number];
    // Verified above: the format is a full KS_DATAFORMAT_VIDEOINFOHEADER.
    stream->AvgTimePerFrame = ((PKS_DATAFORMAT_VIDEOINFOHEADER)Srb->CommandData.OpenFormat)
                                  ->VideoInfoHeader.AvgTimePerFrame;

    object->ReceiveDataPacket = OrnixReceiveDataPacket;
    object->ReceiveControlPacket = OrnixReceiveCtrlPacket;
    object->HwClockObject.HwClockFunction = NULL;
    object->HwClockObject.ClockSupportFlags = 0;
    object->Dma = FALSE;
    object->Pio = TRUE;
    // Room for the KS_FRAME_INFO after each capture stream header.
    object->StreamHeaderMediaSpecific = 64;
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex. A running stream is stopped and
// every stream holding resources releases them, whatever a stop reports.
NTSTATUS StreamClose(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    PHW_STREAM_OBJECT object = Srb->StreamObject;
    ULONG number = object->StreamNumber;
    PORNIX_STREAM_CONTEXT stream = (PORNIX_STREAM_CONTEXT)object->HwStreamExtension;
    DbgPrint(ORNIX_PREFIX "StreamClose on stream # %d\n", number);

    if (stream->State == KSSTATE_RUN) {
        StreamDisarmDelayedStart(stream);
        if (!NT_SUCCESS(StreamStop(Ext, stream))) {
            StreamWaitForTransfers(Ext, stream);
        }
        StreamSetKsState(stream, KSSTATE_PAUSE);
    }
    // A stream closed from KSSTATE_ACQUIRE holds its resources too: release
    // them rather than leak the IRPs, TempBuffer and alternate setting.
    if (stream->State == KSSTATE_PAUSE || stream->State == KSSTATE_ACQUIRE) {
        StreamFreeResources(Ext, stream);
        StreamSetKsState(stream, KSSTATE_STOP);
    }

    NTSTATUS status = StreamUninitStreamExtension(Ext, number);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to Uninit a stream extension\n");
        return status;
    }
    if (InterlockedCompareExchange(&stream->OutstandingReads, 0, 0) != 0) {
        DbgPrint(ORNIX_PREFIX "******Uncompleted SRBS in closing stream******\n");
    }
    if (Ext->StreamContexts[number] != stream) {
        DbgPrint(ORNIX_PREFIX "***channel extension mixup!!\n");
    }
    Ext->StreamContexts[number] = NULL;
    return STATUS_SUCCESS;
}
