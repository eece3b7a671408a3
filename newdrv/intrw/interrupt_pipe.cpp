// The interrupt-in transfer that carries device events: one request, kept
// outstanding while anybody listens, resubmitted from its own completion.
#include "ornix.h"

// One second, relative, in 100 ns units: how long a stop waits for the
// aborted transfer to come back.
#define ORNIX_INTERRUPT_STOP_TIMEOUT ((LONGLONG)-10000000)

// The event word is the first four bytes of a packet.
#define ORNIX_EVENT_WORD_BYTES 4

// The interrupt pipe's record in the video alternate setting, or NULL when the
// camera has none or the pipe tables are gone (after teardown).
static PUSBD_PIPE_INFORMATION OrnixInterruptPipe(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->InterruptPipe == ORNIX_NO_PIPE) {
        return NULL;
    }
    return OrnixGetPipe(Ext, Ext->VideoAltSetting, Ext->InterruptPipe);
}

// Releases whatever InterruptAllocateResources got; every pointer is tested
// and cleared, so it may run on a half-built set.
static VOID OrnixReleaseInterruptBlocks(PORNIX_DEVICE_CONTEXT Ext) {
    if (Ext->InterruptIrp != NULL) {
        IoFreeIrp(Ext->InterruptIrp);
        Ext->InterruptIrp = NULL;
    }
    if (Ext->InterruptUrb != NULL) {
        OrnixFreePool(Ext->InterruptUrb);
        Ext->InterruptUrb = NULL;
    }
    if (Ext->InterruptBuffer != NULL) {
        OrnixFreePool(Ext->InterruptBuffer);
        Ext->InterruptBuffer = NULL;
        Ext->InterruptBufferLength = 0;
    }
}

// IRQL: PASSIVE_LEVEL, under InterruptMutex.
NTSTATUS InterruptAllocateResources(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptAllocateResources\n");
    PUSBD_PIPE_INFORMATION pipe = OrnixInterruptPipe(Ext);
    if (pipe == NULL) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    // A second call keeps the request it has: allocating again would lose it.
    if (Ext->InterruptUrb == NULL) {
        Ext->InterruptUrb = (PURB)OrnixAllocatePool(sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER));
        if (Ext->InterruptUrb == NULL) {
            OrnixVerbose(ORNIX_PREFIX "InterruptAllocateResources: no memory for URB\n");
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        // The request asks for the pipe's largest transfer, so the buffer must
        // hold that much: a camera sending more than the event word then
        // cannot write past it.
        ULONG length = pipe->MaximumTransferSize;
        if (length < ORNIX_EVENT_WORD_BYTES) {
            length = ORNIX_EVENT_WORD_BYTES;
        }
        Ext->InterruptBuffer = (PUCHAR)OrnixAllocatePool(length);
        if (Ext->InterruptBuffer == NULL) {
            OrnixVerbose(ORNIX_PREFIX "InterruptAllocateResources: no memory for URB\n");
            OrnixReleaseInterruptBlocks(Ext);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
        Ext->InterruptBufferLength = length;
        Ext->InterruptIrp = IoAllocateIrp(Ext->PhysicalDeviceObject->StackSize, FALSE);
        if (Ext->InterruptIrp == NULL) {
            OrnixVerbose(ORNIX_PREFIX "InterruptAllocateResources: no memory for IRP\n");
            OrnixReleaseInterruptBlocks(Ext);
            return STATUS_INSUFFICIENT_RESOURCES;
        }
    }
    if (Ext->CurrentAltSetting != Ext->VideoAltSetting) {
        NTSTATUS status = OrnixSelectAltSetting(Ext, Ext->VideoAltSetting);
        if (!NT_SUCCESS(status)) {
            OrnixVerbose(ORNIX_PREFIX "InterruptAllocateResources: Failed to select alt setting\n");
            OrnixReleaseInterruptBlocks(Ext);
            return status;
        }
    }
    return STATUS_SUCCESS;
}

// Whether any open stream holds bandwidth in the video alternate setting.
static BOOLEAN OrnixStreamsNeedBandwidth(PORNIX_DEVICE_CONTEXT Ext) {
    for (ULONG i = 0; i < ORNIX_MAX_STREAMS; i++) {
        PORNIX_STREAM_CONTEXT stream = Ext->StreamContexts[i];
        if (stream != NULL && stream->State != KSSTATE_STOP) {
            return TRUE;
        }
    }
    return FALSE;
}

// IRQL: PASSIVE_LEVEL, under InterruptMutex. Refuses while the transfer is
// outstanding: its IRP and buffer are still the stack's.
NTSTATUS InterruptFreeResources(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptFreeResources\n");
    if (Ext->InterruptPipe == ORNIX_NO_PIPE) {
        return STATUS_SUCCESS;
    }
    if (OrnixFlagIsSet(&Ext->InterruptPending)) {
        OrnixVerbose(ORNIX_PREFIX "InterruptFreeResources: IRP is PENDING!!\n");
        return STATUS_DEVICE_BUSY;
    }
    if (Ext->CurrentAltSetting == Ext->VideoAltSetting && !OrnixStreamsNeedBandwidth(Ext)) {
        OrnixSelectAltSetting(Ext, 0);  // the bandwidth is given back on a best-effort basis
    }
    OrnixReleaseInterruptBlocks(Ext);
    return STATUS_SUCCESS;
}

// Builds the transfer and hands it to the USB stack. *Sent tells whether the
// IRP went down: from then on only its completion routine may touch it.
// IRQL: <= DISPATCH_LEVEL.
static NTSTATUS OrnixSubmitInterruptTransfer(PORNIX_DEVICE_CONTEXT Ext, PBOOLEAN Sent) {
    *Sent = FALSE;
    if (OrnixFlagIsSet(&Ext->Removed)) {
        OrnixVerbose(ORNIX_PREFIX "InterruptStart: Device removed\n");
        return STATUS_DEVICE_REMOVED;
    }
    // Teardown has begun: nothing more is started.
    if (OrnixFlagIsSet(&Ext->Uninitializing)) {
        return STATUS_DEVICE_NOT_READY;
    }
    PUSBD_PIPE_INFORMATION pipe = OrnixInterruptPipe(Ext);
    if (pipe == NULL || Ext->InterruptUrb == NULL || Ext->InterruptIrp == NULL) {
        return STATUS_INVALID_DEVICE_STATE;
    }

    struct _URB_BULK_OR_INTERRUPT_TRANSFER* urb = &Ext->InterruptUrb->UrbBulkOrInterruptTransfer;
    RtlZeroMemory(urb, sizeof(*urb));
    urb->Hdr.Length = sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER);
    urb->Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    urb->PipeHandle = OrnixReadPipeHandle(Ext, pipe);
    urb->TransferFlags = USBD_TRANSFER_DIRECTION_IN;
    // Never more than the buffer holds, should the pipe's size have changed.
    ULONG length = pipe->MaximumTransferSize;
    if (length > Ext->InterruptBufferLength) {
        length = Ext->InterruptBufferLength;
    }
    urb->TransferBufferLength = length;
    urb->TransferBuffer = Ext->InterruptBuffer;
    urb->TransferBufferMDL = NULL;
    urb->UrbLink = NULL;

    PIRP irp = Ext->InterruptIrp;
    irp->Cancel = FALSE;
    PIO_STACK_LOCATION nextStack = IoGetNextIrpStackLocation(irp);
    ASSERT(nextStack != NULL);
    nextStack->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    nextStack->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
    nextStack->Parameters.Others.Argument1 = Ext->InterruptUrb;
    IoSetCompletionRoutine(irp, InterruptTransferComplete, Ext, TRUE, TRUE, TRUE);

    OrnixSetFlag(&Ext->InterruptPending);
    *Sent = TRUE;
    NTSTATUS status = IoCallDriver(Ext->PhysicalDeviceObject, irp);
    OrnixVerbose(ORNIX_PREFIX "InterruptStart: IoCallDriver returned 0x%08lx\n", (ULONG)status);
    return status == STATUS_PENDING ? STATUS_SUCCESS : status;
}

// IRQL: PASSIVE_LEVEL, under InterruptMutex.
NTSTATUS InterruptStart(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptStart\n");
    BOOLEAN sent;
    return OrnixSubmitInterruptTransfer(Ext, &sent);
}

// The event word from the first bytes received, little-endian; bytes the
// camera did not send count as 0.
static ULONG OrnixEventWordFromPacket(PORNIX_DEVICE_CONTEXT Ext, ULONG Received) {
    ULONG count = Received < Ext->InterruptBufferLength ? Received : Ext->InterruptBufferLength;
    if (count > ORNIX_EVENT_WORD_BYTES) {
        count = ORNIX_EVENT_WORD_BYTES;
    }
    ULONG word = 0;
    for (ULONG i = 0; i < count; i++) {
        word |= (ULONG)Ext->InterruptBuffer[i] << (8 * i);
    }
    return word;
}

// The transfer has finished for good: InterruptStop may go on and the
// resources may be released. The flag clears first, so that a stop woken by
// the event finds it clear and its free succeeds; the event is the last
// touch of the device context, and nothing of the IRP is touched afterwards.
static VOID OrnixInterruptTransferEnded(PORNIX_DEVICE_CONTEXT Ext) {
    InterlockedExchange(&Ext->InterruptPending, 0);
    KeSetEvent(&Ext->StopEvent, IO_NO_INCREMENT, FALSE);
}

// IRQL: <= DISPATCH_LEVEL, in the USB stack's completion context. The IRP is
// the driver's and is reused, so it never goes further up.
NTSTATUS NTAPI InterruptTransferComplete(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    PORNIX_DEVICE_CONTEXT Ext = (PORNIX_DEVICE_CONTEXT)Context;
    DbgPrint(ORNIX_PREFIX "---InterruptTransferComplete\n");

    PURB urb = Ext->InterruptUrb;
    USBD_STATUS usbdStatus = urb->UrbHeader.Status;
    ULONG received = urb->UrbBulkOrInterruptTransfer.TransferBufferLength;
    NTSTATUS ioStatus = Irp->IoStatus.Status;
    OrnixVerbose(ORNIX_PREFIX " interrupt completed status: 0x%08lx, length:0x%x\n",
                 (ULONG)ioStatus, received);

    NTSTATUS result;
    if (usbdStatus == USBD_STATUS_SUCCESS) {
        if (received == 0) {
            DbgPrint(ORNIX_PREFIX " INT NO_DATA!!\n");
            result = STATUS_DATA_ERROR;
        } else {
            result = STATUS_SUCCESS;
        }
    } else if (usbdStatus == USBD_STATUS_CANCELED || ioStatus == STATUS_CANCELLED) {
        DbgPrint(ORNIX_PREFIX " INT CANCELLED\n");
        result = STATUS_CANCELLED;
    } else if (usbdStatus == USBD_STATUS_DEVICE_GONE || ioStatus == STATUS_DEVICE_REMOVED) {
        DbgPrint(ORNIX_PREFIX " INT DEVICE_GONE\n");
        result = STATUS_CANCELLED;
    } else {
        DbgPrint(ORNIX_PREFIX " INT ERROR:IoStatus:0x%08lx, USBD_STATUS:0x%08lx\n", (ULONG)ioStatus,
                 (ULONG)usbdStatus);
        result = STATUS_UNSUCCESSFUL;
    }

    if (NT_SUCCESS(result)) {
        Ext->EventWord = OrnixEventWordFromPacket(Ext, received);
        OrnixNotifyForOrnixEvents(Ext, Ext->EventWord);
    }

    if (!OrnixFlagIsSet(&Ext->Removed) &&
        InterlockedCompareExchange(&Ext->DeviceEventCount, 0, 0) != 0 && result == STATUS_SUCCESS) {
        BOOLEAN sent;
        OrnixSubmitInterruptTransfer(Ext, &sent);
        // A resubmission that went down ends in this routine again; one that
        // was refused before it left (removal or teardown in between) ends
        // here, or InterruptStop would wait for a transfer that never comes.
        if (!sent) {
            OrnixInterruptTransferEnded(Ext);
        }
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    OrnixVerbose(ORNIX_PREFIX "InterruptComplete: NOT reseind the transfer\n");
    OrnixInterruptTransferEnded(Ext);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends one pipe request for the interrupt pipe. IRQL: PASSIVE_LEVEL.
static NTSTATUS OrnixInterruptPipeRequest(PORNIX_DEVICE_CONTEXT Ext, USHORT Function,
                                          USBD_PIPE_HANDLE Handle) {
    URB urb;
    RtlZeroMemory(&urb, sizeof(urb));
    urb.UrbPipeRequest.Hdr.Length = sizeof(struct _URB_PIPE_REQUEST);
    urb.UrbPipeRequest.Hdr.Function = Function;
    urb.UrbPipeRequest.PipeHandle = Handle;
    return OrnixCallUsbd(Ext, &urb);
}

// IRQL: PASSIVE_LEVEL, under InterruptMutex (it waits and sends synchronous
// requests, so never from the completion routine).
NTSTATUS InterruptStop(PORNIX_DEVICE_CONTEXT Ext) {
    OrnixVerbose(ORNIX_PREFIX "InterruptStop\n");
    // A transfer that was never set up has nothing to stop, and its pipe
    // has never been used: teardown then sends nothing.
    if (Ext->InterruptPipe == ORNIX_NO_PIPE || Ext->InterruptUrb == NULL) {
        return STATUS_SUCCESS;
    }
    KeResetEvent(&Ext->StopEvent);
    NTSTATUS status = STATUS_SUCCESS;

    // PipeMutex is not taken: a deferred reset may hold it until the
    // teardown that calls this has gone on to the streams.
    PUSBD_PIPE_INFORMATION pipe = OrnixInterruptPipe(Ext);
    if (pipe == NULL) {
        // The pipe tables are gone: there is no handle to abort with.
        return OrnixFlagIsSet(&Ext->InterruptPending) ? STATUS_INVALID_DEVICE_STATE
                                                      : STATUS_SUCCESS;
    }

    if (OrnixFlagIsSet(&Ext->InterruptPending)) {
        status =
            OrnixInterruptPipeRequest(Ext, URB_FUNCTION_ABORT_PIPE, OrnixReadPipeHandle(Ext, pipe));
        if (NT_SUCCESS(status)) {
            LARGE_INTEGER timeout;
            timeout.QuadPart = ORNIX_INTERRUPT_STOP_TIMEOUT;
            status = KeWaitForSingleObject(&Ext->StopEvent, Executive, KernelMode, FALSE, &timeout);
            if (status == STATUS_TIMEOUT) {
                DbgPrint(ORNIX_PREFIX "InterruptStop: StopEvent did noty get signaled!!\n");
            }
        } else {
            DbgPrint(ORNIX_PREFIX "InterruptStop: Failed to abort interrupt pipe!!\n");
        }
    }

    // A removed camera is sent nothing more than it takes to get the
    // transfer back.
    if (OrnixFlagIsSet(&Ext->Removed)) {
        return status;
    }
    if (Ext->CurrentAltSetting == Ext->VideoAltSetting) {
        status =
            OrnixInterruptPipeRequest(Ext, URB_FUNCTION_RESET_PIPE, OrnixReadPipeHandle(Ext, pipe));
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "InterruptStop: Failed to reset interrupt pipe!!\n");
        }
    }
    return status;
}
