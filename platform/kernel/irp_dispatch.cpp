// Sending IRPs down (IoCallDriver) and unwinding them up through the
// completion routines (IoCompleteRequest), as the I/O manager does.
#include "kernel/describe.h"
#include "kernel/io_manager.h"
#include "kernel/irp_tracker.h"
#include "kernel/kernel.h"

namespace {

using namespace winsim::kernel;

void CheckIrql(const char* api) {
    KIRQL irql = KeGetCurrentIrql();
    if (irql > DISPATCH_LEVEL) {
        winsim::ReportViolation("IRQL", std::string(api) + " at " + IrqlName(irql) +
                                            "; it is callable at or below DISPATCH_LEVEL");
    }
}

bool RoutineWanted(const IO_STACK_LOCATION& location, NTSTATUS status, bool cancelled) {
    return (NT_SUCCESS(status) && (location.Control & SL_INVOKE_ON_SUCCESS)) ||
           (!NT_SUCCESS(status) && (location.Control & SL_INVOKE_ON_ERROR)) ||
           (cancelled && (location.Control & SL_INVOKE_ON_CANCEL));
}

// What the I/O manager clears in a location once the IRP left it; the device,
// the major function and the completion routine stay.
void ClearCompletedLocation(IO_STACK_LOCATION& location) {
    location.MinorFunction = 0;
    location.Flags = 0;
    location.Control = 0;
    location.Parameters.Others = {};
    location.FileObject = nullptr;
}

// The I/O manager's own completion, for IRPs it did not hand to a driver
// through IoAllocateIrp (e.g. built by a test with IoInitializeIrp).
void FinishUnownedIrp(PIRP irp) {
    if (irp->UserIosb != nullptr)
        *irp->UserIosb = irp->IoStatus;
    if (irp->UserEvent != nullptr)
        KeSetEvent(irp->UserEvent, IO_NO_INCREMENT, FALSE);
}

}  // namespace

NTSTATUS NTAPI winsim::kernel::InvalidDeviceRequest(PDEVICE_OBJECT device, PIRP irp) {
    irp->IoStatus.Status = STATUS_INVALID_DEVICE_REQUEST;
    irp->IoStatus.Information = 0;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return STATUS_INVALID_DEVICE_REQUEST;
}

NTSTATUS FASTCALL IofCallDriver(PDEVICE_OBJECT DeviceObject, PIRP Irp) {
    CheckIrql("IoCallDriver");
    if (Irp->CurrentLocation <= 1) {
        winsim::ReportViolation("IRP_STACK", "IoCallDriver of IRP " + Hex(Irp) + " to device " +
                                                 Hex(DeviceObject) +
                                                 " with no stack location left (StackCount " +
                                                 std::to_string(Irp->StackCount) + ")");
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    IoSetNextIrpStackLocation(Irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    location->DeviceObject = DeviceObject;
    NoteIrpSentDown(Irp);

    PDRIVER_DISPATCH dispatch = nullptr;
    if (location->MajorFunction <= IRP_MJ_MAXIMUM_FUNCTION) {
        dispatch = DeviceObject->DriverObject->MajorFunction[location->MajorFunction];
    }
    if (dispatch == nullptr)
        dispatch = InvalidDeviceRequest;
    return dispatch(DeviceObject, Irp);
}

void FASTCALL IofCompleteRequest(PIRP Irp, CCHAR PriorityBoost) {
    CheckIrql("IoCompleteRequest");
    if (Irp->Type != IO_TYPE_IRP || Irp->CurrentLocation > Irp->StackCount + 1) {
        winsim::ReportViolation("IRP_COMPLETION", "IoCompleteRequest of IRP " + Hex(Irp) +
                                                      ", which was already completed");
        return;
    }
    if (Irp->IoStatus.Status == STATUS_PENDING) {
        winsim::ReportViolation("IRP_COMPLETION", "IoCompleteRequest of IRP " + Hex(Irp) +
                                                      " with status STATUS_PENDING");
    }
    if (__atomic_load_n(&Irp->CancelRoutine, __ATOMIC_ACQUIRE) != nullptr) {
        winsim::ReportViolation("IRP_COMPLETION", "IoCompleteRequest of IRP " + Hex(Irp) +
                                                      " with its cancel routine still set");
    }

    bool driverAllocated = BeginCompletionWalk(Irp);
    PIO_STACK_LOCATION location = IoGetCurrentIrpStackLocation(Irp);
    // The routine in a location runs when the IRP is completed from it, in the
    // context of the device one location up (none above the top).
    for (IoSkipCurrentIrpStackLocation(Irp); Irp->CurrentLocation <= Irp->StackCount + 1;
         ++location, IoSkipCurrentIrpStackLocation(Irp)) {
        Irp->PendingReturned = (location->Control & SL_PENDING_RETURNED) != 0;
        bool cancelled = __atomic_load_n(&Irp->Cancel, __ATOMIC_ACQUIRE);
        if (!RoutineWanted(*location, Irp->IoStatus.Status, cancelled)) {
            // Without a routine to decide, a pending lower level makes the upper one pending.
            if (Irp->PendingReturned && Irp->CurrentLocation <= Irp->StackCount) {
                IoMarkIrpPending(Irp);
            }
            ClearCompletedLocation(*location);
            continue;
        }
        PIO_COMPLETION_ROUTINE routine = location->CompletionRoutine;
        PVOID context = location->Context;
        ClearCompletedLocation(*location);
        PDEVICE_OBJECT device = Irp->CurrentLocation == Irp->StackCount + 1
                                    ? nullptr
                                    : IoGetCurrentIrpStackLocation(Irp)->DeviceObject;
        if (driverAllocated)
            PauseCompletionWalk(Irp);
        NTSTATUS status = routine(device, Irp, context);
        if (status == STATUS_MORE_PROCESSING_REQUIRED)
            return;  // the routine owns the IRP now
        if (driverAllocated && !ResumeCompletionWalk(Irp)) {
            winsim::ReportViolation(
                "IRP_COMPLETION", "a completion routine freed IRP " + Hex(Irp) + " but returned " +
                                      Hex32(ULONG(status)) +
                                      " instead of STATUS_MORE_PROCESSING_REQUIRED");
            return;
        }
    }
    if (!driverAllocated) {
        FinishUnownedIrp(Irp);
        return;
    }
    EndCompletionWalk(Irp);
    winsim::ReportViolation(
        "IRP_COMPLETION",
        "IRP " + Hex(Irp) +
            " completed past its top location; a driver-allocated IRP needs a completion "
            "routine returning STATUS_MORE_PROCESSING_REQUIRED");
}
