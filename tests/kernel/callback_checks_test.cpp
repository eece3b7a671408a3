// What the platform checks around the driver callbacks it calls: the state a
// completion routine, cancel routine or work item returns in.
#include "kernel_test.h"

#include <string>
#include <tuple>

namespace kerneltest {
namespace {

enum class Callback { Completion, Cancel, WorkItem };
enum class Fault { None, RaisedIrql, SpinLockHeld, MutexHeld, CancelSpinLockHeld };

struct FaultCase {
    const char* name;
    Fault fault;
    const char* gist;  // of the CALLBACK_RETURN finding; none for Fault::None
};

std::string CaseName(const testing::TestParamInfo<std::tuple<Callback, FaultCase>>& info) {
    static const char* const callbacks[] = {"Completion", "Cancel", "WorkItem"};
    return std::string(callbacks[int(std::get<0>(info.param))]) + std::get<1>(info.param).name;
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
        testing::Values(FaultCase{"None", Fault::None, nullptr},
                        FaultCase{"RaisedIrql", Fault::RaisedIrql,
                                  "returned at DISPATCH_LEVEL, but was called at PASSIVE_LEVEL"},
                        FaultCase{"SpinLockHeld", Fault::SpinLockHeld, "holding spin lock"},
                        FaultCase{"MutexHeld", Fault::MutexHeld, "holding mutex"})),
    CaseName);

// Only a cancel routine is given the cancel spin lock.
INSTANTIATE_TEST_SUITE_P(CancelSpinLock, CallbackReturn,
                         testing::Combine(testing::Values(Callback::Cancel),
                                          testing::Values(FaultCase{"CancelSpinLockHeld",
                                                                    Fault::CancelSpinLockHeld,
                                                                    "(the cancel spin lock)"})),
                         CaseName);

}  // namespace
}  // namespace kerneltest
