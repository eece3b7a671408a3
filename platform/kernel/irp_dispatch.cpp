// Sending IRPs down (IoCallDriver) and unwinding them up through the
// completion routines (IoCompleteRequest), as the I/O manager does.
#include "kernel/describe.h"
#include "kernel/held_locks.h"
#include "kernel/io_manager.h"
#include "kernel/irp_tracker.h"
#include "kernel/kernel.h"
#include "kernel/untraced.h"

#include <memory>
#include <unordered_map>

namespace {

using namespace winsim::kernel;

// A dispatch routine must return STATUS_PENDING exactly when it marked its
// stack location pending. The mark may come after the routine returned (a
// completion routine calling IoMarkIrpPending when PendingReturned is set),
// and the IRP may be gone by the time the routine returns, so each call is
// judged by whichever comes second: the routine's return, or the completion
// walk passing its location (which reads the mark while the IRP is alive).
struct DispatchCall {
    PIRP irp;
    PDEVICE_OBJECT device;
    PDRIVER_DISPATCH routine;
    bool returned = false;
    NTSTATUS status = 0;
    bool completed = false;
    bool markedPending = false;
    bool orphaned = false;
    bool inherited = false;        // a call below returned a faulty status...
    NTSTATUS inheritedStatus = 0;  // ...this one
};

struct DispatchCalls {
    UntracedMutex mutex;  // the I/O manager's bookkeeping, not the driver's
    std::unordered_multimap<PIO_STACK_LOCATION, std::unique_ptr<DispatchCall>> open;
    // Calls whose IRP was freed or reused before their routine returned.
    std::vector<std::unique_ptr<DispatchCall>> orphans;
};

DispatchCalls& Calls() {
    static auto* calls = new DispatchCalls;
    return *calls;
}

bool Mismatched(const DispatchCall& call) {
    return (call.status == STATUS_PENDING) != call.markedPending;
}

void ReportPendingMismatch(const DispatchCall& call) {
    std::string who =
        DescribeRoutine("dispatch routine", reinterpret_cast<const void*>(call.routine)) +
        " of device " + Hex(call.device);
    if (call.status == STATUS_PENDING) {
        winsim::ReportViolation("IRP_PENDING",
                                who + " returned STATUS_PENDING for IRP " + Hex(call.irp) +
                                    " without marking it pending (IoMarkIrpPending)");
    } else {
        winsim::ReportViolation("IRP_PENDING", who + " marked IRP " + Hex(call.irp) +
                                                   " pending (IoMarkIrpPending) but returned " +
                                                   Hex32(ULONG(call.status)) +
                                                   " instead of STATUS_PENDING");
    }
}

// Judges a call whose routine returned and whose location completed; the
// caller holds the lock. Drivers above that pass the faulty status on
// unchanged repeat the fault of this one: they are not reported again.
std::unique_ptr<DispatchCall> Judge(DispatchCalls& calls, std::unique_ptr<DispatchCall> call) {
    if (!call || !Mismatched(*call) || (call->inherited && call->status == call->inheritedStatus))
        return nullptr;
    for (auto& [location, other] : calls.open) {
        if (other->irp == call->irp && other.get() != call.get()) {
            other->inherited = true;
            other->inheritedStatus = call->status;
        }
    }
    return call;
}

DispatchCall* OpenDispatchCall(PIRP irp, PIO_STACK_LOCATION location, PDEVICE_OBJECT device,
                               PDRIVER_DISPATCH routine) {
    DispatchCalls& calls = Calls();
    auto call = std::make_unique<DispatchCall>(DispatchCall{irp, device, routine});
    DispatchCall* raw = call.get();
    std::lock_guard lock(calls.mutex);
    calls.open.emplace(location, std::move(call));
    return raw;
}

std::unique_ptr<DispatchCall> TakeCall(DispatchCalls& calls, PIO_STACK_LOCATION location,
                                       const DispatchCall* call) {
    auto [first, last] = calls.open.equal_range(location);
    for (auto it = first; it != last; ++it) {
        if (it->second.get() == call) {
            std::unique_ptr<DispatchCall> taken = std::move(it->second);
            calls.open.erase(it);
            return taken;
        }
    }
    for (auto it = calls.orphans.begin(); it != calls.orphans.end(); ++it) {
        if (it->get() == call) {
            std::unique_ptr<DispatchCall> taken = std::move(*it);
            calls.orphans.erase(it);
            return taken;
        }
    }
    return nullptr;
}

void DispatchReturned(PIO_STACK_LOCATION location, DispatchCall* call, NTSTATUS status) {
    std::unique_ptr<DispatchCall> finished;
    {
        DispatchCalls& calls = Calls();
        std::lock_guard lock(calls.mutex);
        call->returned = true;
        call->status = status;
        if (call->completed)
            finished = Judge(calls, TakeCall(calls, location, call));
        else if (call->orphaned)
            TakeCall(calls, location, call);  // freed uncompleted: nothing to judge
    }
    if (finished)
        ReportPendingMismatch(*finished);
}

// The completion walk reached `location`: its mark is final.
void LocationCompleted(PIO_STACK_LOCATION location) {
    std::vector<std::unique_ptr<DispatchCall>> finished;
    {
        DispatchCalls& calls = Calls();
        std::lock_guard lock(calls.mutex);
        auto [first, last] = calls.open.equal_range(location);
        for (auto it = first; it != last;) {
            DispatchCall& call = *it->second;
            call.completed = true;
            call.markedPending = (location->Control & SL_PENDING_RETURNED) != 0;
            if (call.returned) {
                std::unique_ptr<DispatchCall> taken = std::move(it->second);
                it = calls.open.erase(it);
                if (auto faulty = Judge(calls, std::move(taken)))
                    finished.push_back(std::move(faulty));
            } else {
                ++it;
            }
        }
    }
    for (const auto& call : finished)
        ReportPendingMismatch(*call);
}

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

void winsim::kernel::ForgetDispatchCalls(PIRP irp) {
    auto first = reinterpret_cast<PIO_STACK_LOCATION>(irp + 1);
    auto last = first + (irp->StackCount > 0 ? irp->StackCount : 0);
    DispatchCalls& calls = Calls();
    std::lock_guard lock(calls.mutex);
    for (auto it = calls.open.begin(); it != calls.open.end();) {
        if (it->first < first || it->first >= last) {
            ++it;
            continue;
        }
        if (!it->second->returned) {  // its IofCallDriver still refers to it
            it->second->orphaned = true;
            calls.orphans.push_back(std::move(it->second));
        }
        it = calls.open.erase(it);
    }
}

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
    DispatchCall* call = OpenDispatchCall(Irp, location, DeviceObject, dispatch);
    NTSTATUS status = dispatch(DeviceObject, Irp);
    DispatchReturned(location, call, status);
    return status;
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
        LocationCompleted(location);
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
        CallbackEntry entry = EnterCallback();
        NTSTATUS status = routine(device, Irp, context);
        CheckCallbackReturn(
            entry, DescribeRoutine("completion routine", reinterpret_cast<const void*>(routine)) +
                       " of IRP " + Hex(Irp));
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
