// What the platform checks around the driver callbacks it calls: the state a
// completion routine, cancel routine or work item returns in, and the pending
// status of dispatch routines.
#include "kernel_test.h"

#include <string>
#include <tuple>

namespace kerneltest {
namespace {

// ---------------------------------------------------------------- callback return

enum class Callback { Completion, Cancel, WorkItem };
enum class Fault { None, RaisedIrql, SpinLockHeld, MutexHeld, CancelSpinLockHeld };

struct FaultCase {
    Fault fault;
    const char* gist;  // of the CALLBACK_RETURN finding; none for Fault::None
};

std::string CaseName(const testing::TestParamInfo<std::tuple<Callback, FaultCase>>& info) {
    static const char* const callbacks[] = {"Completion", "Cancel", "WorkItem"};
    static const char* const faults[] = {"None", "RaisedIrql", "SpinLockHeld", "MutexHeld",
                                         "CancelSpinLockHeld"};
    return std::string(callbacks[int(std::get<0>(info.param))]) +
           faults[int(std::get<1>(info.param).fault)];
}

class CallbackReturn : public KernelTest,
                       public testing::WithParamInterface<std::tuple<Callback, FaultCase>> {
  protected:
    // The faulty tail of every callback; a cancel routine first releases the cancel
    // spin lock unless that is its fault.
    static void Misbehave() {
        KIRQL ignored;
        switch (fault) {
            case Fault::RaisedIrql:
                KeRaiseIrql(DISPATCH_LEVEL, &ignored);
                break;
            case Fault::SpinLockHeld:
                KeAcquireSpinLock(&spinLock, &ignored);
                break;
            case Fault::MutexHeld:
                KeWaitForSingleObject(&mutex, Executive, KernelMode, FALSE, nullptr);
                break;
            default:
                break;
        }
    }

    static NTSTATUS NTAPI Completion(PDEVICE_OBJECT, PIRP, PVOID) {
        Misbehave();
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    static void NTAPI Cancel(PDEVICE_OBJECT, PIRP irp) {
        if (fault != Fault::CancelSpinLockHeld)
            IoReleaseCancelSpinLock(irp->CancelIrql);
        Misbehave();
    }

    static void NTAPI Work(PVOID) { Misbehave(); }

    static inline Fault fault;
    static inline KSPIN_LOCK spinLock;
    static inline KMUTEX mutex;
};

TEST_P(CallbackReturn, StateLeftBehindIsReportedNamingTheCallback) {
    auto [callback, faultCase] = GetParam();
    fault = faultCase.fault;
    KeInitializeSpinLock(&spinLock);
    KeInitializeMutex(&mutex, 0);

    const char* kind = nullptr;
    PIRP irp = IoAllocateIrp(1, FALSE);
    WORK_QUEUE_ITEM item;
    switch (callback) {
        case Callback::Completion:
            kind = "completion routine";
            IoSetCompletionRoutine(irp, Completion, nullptr, TRUE, TRUE, TRUE);
            IoSetNextIrpStackLocation(irp);  // as a lower driver holding it
            irp->IoStatus.Status = STATUS_SUCCESS;
            IoCompleteRequest(irp, IO_NO_INCREMENT);
            break;
        case Callback::Cancel:
            kind = "cancel routine";
            IoSetCancelRoutine(irp, Cancel);
            EXPECT_TRUE(IoCancelIrp(irp));
            break;
        case Callback::WorkItem:
            kind = "work item routine";
            ExInitializeWorkItem(&item, Work, nullptr);
            ExQueueWorkItem(&item, DelayedWorkQueue);
            winsim::DrainWorkQueue();
            break;
    }
    if (faultCase.fault == Fault::None) {
        EXPECT_TRUE(winsim::TakeViolations().empty());
    } else {
        ExpectViolation("CALLBACK_RETURN", {kind, "returned", faultCase.gist});
    }
    // The platform put the thread back as it was.
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_EQ(spinLock, 0u);
    KIRQL irql;
    IoAcquireCancelSpinLock(&irql);
    IoReleaseCancelSpinLock(irql);
    IoFreeIrp(irp);
}

INSTANTIATE_TEST_SUITE_P(
    EachCallbackEachFault, CallbackReturn,
    testing::Combine(
        testing::Values(Callback::Completion, Callback::Cancel, Callback::WorkItem),
        testing::Values(FaultCase{Fault::None, nullptr},
                        FaultCase{Fault::RaisedIrql,
                                  "returned at DISPATCH_LEVEL, but was called at PASSIVE_LEVEL"},
                        FaultCase{Fault::SpinLockHeld, "holding spin lock"},
                        FaultCase{Fault::MutexHeld, "holding mutex"})),
    CaseName);

// Only a cancel routine is given the cancel spin lock.
INSTANTIATE_TEST_SUITE_P(CancelSpinLock, CallbackReturn,
                         testing::Combine(testing::Values(Callback::Cancel),
                                          testing::Values(FaultCase{Fault::CancelSpinLockHeld,
                                                                    "(the cancel spin lock)"})),
                         CaseName);

// ---------------------------------------------------------------- pending status

// How the bus's dispatch routine treats an IRP, and whether the filter above it,
// which passes IRPs down with a completion routine, propagates the pending mark.
enum class Bus { MarkAndPend, PendUnmarked, MarkCompleteAndSucceed, CompleteAndPendUnmarked };

struct PendingCase {
    const char* name;
    Bus bus;
    bool filterPropagates;
    const char* culprit;  // the driver named by the IRP_PENDING finding; none when correct
    const char* gist;
};

class PendingStatus : public KernelTest, public testing::WithParamInterface<PendingCase> {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        held = nullptr;
        busDriver = winsim::CreateDriverObject(u"\\Driver\\Bus");
        busDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = BusDispatch;
        bus = winsim::CreateDeviceObject(busDriver, 0, 1);
        filterDriver = winsim::CreateDriverObject(u"\\Driver\\Filter");
        filterDriver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = FilterDispatch;
        filter = winsim::CreateDeviceObject(filterDriver, 0, 2);
    }

    void TearDown() override {
        winsim::DeleteDeviceObject(filter);
        winsim::DeleteDriverObject(filterDriver);
        winsim::DeleteDeviceObject(bus);
        winsim::DeleteDriverObject(busDriver);
        KernelTest::TearDown();
    }

    static NTSTATUS NTAPI BusDispatch(PDEVICE_OBJECT, PIRP irp) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        switch (GetParam().bus) {
            case Bus::MarkAndPend:
                IoMarkIrpPending(irp);
                held = irp;
                return STATUS_PENDING;
            case Bus::PendUnmarked:
                held = irp;
                return STATUS_PENDING;
            case Bus::MarkCompleteAndSucceed:
                IoMarkIrpPending(irp);
                IoCompleteRequest(irp, IO_NO_INCREMENT);
                return STATUS_SUCCESS;
            case Bus::CompleteAndPendUnmarked:
                IoCompleteRequest(irp, IO_NO_INCREMENT);
                return STATUS_PENDING;
        }
        return STATUS_SUCCESS;
    }

    static NTSTATUS NTAPI FilterDispatch(PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        IoSetCompletionRoutine(irp, FilterCompletion, nullptr, TRUE, TRUE, TRUE);
        return IoCallDriver(bus, irp);
    }

    static NTSTATUS NTAPI FilterCompletion(PDEVICE_OBJECT, PIRP irp, PVOID) {
        if (irp->PendingReturned && GetParam().filterPropagates)
            IoMarkIrpPending(irp);
        return STATUS_SUCCESS;
    }

    static NTSTATUS NTAPI OwnerCompletion(PDEVICE_OBJECT, PIRP, PVOID) {
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    static inline PIRP held;
    static inline PDEVICE_OBJECT bus;
    PDRIVER_OBJECT busDriver, filterDriver;
    PDEVICE_OBJECT filter;
};

// The finding comes when both the dispatch routine has returned and the IRP has
// completed past its level, whichever is later.
TEST_P(PendingStatus, PendingIsReturnedExactlyWhenMarked) {
    const PendingCase& c = GetParam();
    PIRP irp = IoAllocateIrp(filter->StackSize, FALSE);
    IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
    IoSetCompletionRoutine(irp, OwnerCompletion, nullptr, TRUE, TRUE, TRUE);
    IoCallDriver(filter, irp);
    if (held != nullptr) {
        EXPECT_TRUE(winsim::TakeViolations().empty()) << "nothing to judge before completion";
        IoCompleteRequest(held, IO_NO_INCREMENT);
    }
    if (c.culprit == nullptr) {
        EXPECT_TRUE(winsim::TakeViolations().empty());
    } else {
        ExpectViolation(
            "IRP_PENDING",
            {"dispatch routine", "of device " + AddressText(c.culprit[0] == 'b' ? bus : filter),
             AddressText(irp), c.gist});
    }
    IoFreeIrp(irp);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PendingStatus,
    testing::Values(PendingCase{"Correct", Bus::MarkAndPend, true, nullptr, nullptr},
                    PendingCase{"BusPendsUnmarked", Bus::PendUnmarked, true, "bus",
                                "returned STATUS_PENDING for IRP"},
                    PendingCase{"BusMarksButSucceeds", Bus::MarkCompleteAndSucceed, true, "bus",
                                "pending (IoMarkIrpPending) but returned 0x00000000"},
                    PendingCase{"BusCompletesAndPendsUnmarked", Bus::CompleteAndPendUnmarked, true,
                                "bus", "without marking it pending"},
                    PendingCase{"FilterDropsTheMark", Bus::MarkAndPend, false, "filter",
                                "without marking it pending"}),
    [](const testing::TestParamInfo<PendingCase>& info) { return info.param.name; });

}  // namespace
}  // namespace kerneltest
