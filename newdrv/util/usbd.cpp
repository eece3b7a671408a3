// Submission of one URB to the USB stack and the wait for its completion.
#include "ornix.h"

// Bulk and interrupt transfers may take long (the FPGA image); they do not
// hold up register traffic and so bypass UsbRequestSemaphore.
static BOOLEAN OrnixNeedsRequestSemaphore(PURB Urb) {
    return Urb->UrbHeader.Function != URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
}

// Pipe reset and abort get a stack location of the driver's own.
static BOOLEAN OrnixNeedsOwnStackLocation(PURB Urb) {
    return Urb->UrbHeader.Function == URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL ||
           Urb->UrbHeader.Function == URB_FUNCTION_ABORT_PIPE;
}

// IRQL: up to DISPATCH_LEVEL. The IRP belongs to OrnixCallUsbd, which frees it.
NTSTATUS NTAPI OrnixCallUsbdCompletion(PDEVICE_OBJECT DeviceObject, PIRP Irp, PVOID Context) {
    KeSetEvent((PKEVENT)Context, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Sends the IRP down and waits for it, at most ORNIX_USB_REQUEST_TIMEOUT
// before cancelling it. Returns only once the IRP is back in our hands.
static NTSTATUS OrnixSendAndWait(PORNIX_DEVICE_CONTEXT Ext, PIRP Irp, PKEVENT Done) {
    NTSTATUS status = IoCallDriver(Ext->PhysicalDeviceObject, Irp);
    if (status != STATUS_PENDING) {
        return status;
    }

    LARGE_INTEGER timeout;
    timeout.QuadPart = ORNIX_USB_REQUEST_TIMEOUT;
    NTSTATUS wait = KeWaitForSingleObject(Done, Executive, KernelMode, FALSE, &timeout);
    if (wait == STATUS_TIMEOUT) {
        // The IRP may only be freed after the stack has given it back.
        IoCancelIrp(Irp);
        KeWaitForSingleObject(Done, Executive, KernelMode, FALSE, NULL);
        return STATUS_IO_TIMEOUT;
    }
    return Irp->IoStatus.Status;
}

// IRQL: PASSIVE_LEVEL. The URB's own USBD status stays in the URB.
NTSTATUS OrnixCallUsbd(PORNIX_DEVICE_CONTEXT Ext, PURB Urb) {
    BOOLEAN serialised = OrnixNeedsRequestSemaphore(Urb);
    if (serialised) {
        KeWaitForSingleObject(&Ext->UsbRequestSemaphore, Executive, KernelMode, FALSE, NULL);
    }

    KEVENT done;
    KeInitializeEvent(&done, SynchronizationEvent, FALSE);

    NTSTATUS status;
    BOOLEAN ownLocation = OrnixNeedsOwnStackLocation(Urb);
    CCHAR stackSize = (CCHAR)(Ext->PhysicalDeviceObject->StackSize + (ownLocation ? 1 : 0));
    PIRP irp = IoAllocateIrp(stackSize, FALSE);
    if (irp == NULL) {
        status = STATUS_UNSUCCESSFUL;
    } else {
        if (ownLocation) {
            IoSetNextIrpStackLocation(irp);
        }
        PIO_STACK_LOCATION next = IoGetNextIrpStackLocation(irp);
        next->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        next->Parameters.Others.Argument1 = Urb;
        next->Parameters.DeviceIoControl.IoControlCode = IOCTL_INTERNAL_USB_SUBMIT_URB;
        IoSetCompletionRoutine(irp, OrnixCallUsbdCompletion, &done, TRUE, TRUE, TRUE);

        status = OrnixSendAndWait(Ext, irp, &done);
        IoFreeIrp(irp);
    }

    if (serialised) {
        KeReleaseSemaphore(&Ext->UsbRequestSemaphore, LOW_REALTIME_PRIORITY, 1, FALSE);
    }

    if (NT_ERROR(status)) {
        DbgPrint(ORNIX_PREFIX "***Error*** USBCAMD_CallUSBD (%x)\n", (ULONG)status);
    }
    return status;
}
