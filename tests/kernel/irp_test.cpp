// IRPs down two drivers and back through completion routines; cancel; IRP checks,
// and the pending status of dispatch routines.
#include "kernel_test.h"

#include <vector>

namespace kerneltest {
namespace {

// What a completion routine saw when it ran; the owner's routine sees no device.
struct CompletionSeen {
    PDEVICE_OBJECT device;
    BOOLEAN pendingReturned;
    NTSTATUS status;
};

// How the bus's dispatch routine treats an IRP; the first two leave it held.
enum class Bus { MarkAndPend, PendUnmarked, MarkCompleteAndSucceed, CompleteAndPendUnmarked };
// Whether the filter passes IRPs down with a completion routine, and whether that
// propagates the pending mark.
enum class Filter { Propagates, Drops, NoRoutine };

// A filter over a bus that by default keeps every IRP pending (cancelable) until the
// test completes it; the filter passes IRPs down with a completion routine of its own.
class IrpStack : public KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        seen.clear();
        pending = nullptr;
        busMode = Bus::MarkAndPend;
        filterMode = Filter::Propagates;
        bus = Device(u"\\Driver\\Bus", BusDispatch, 1);
        filter = Device(u"\\Driver\\Filter", FilterDispatch, 2);
    }

    void TearDown() override {
        for (PDEVICE_OBJECT device : {filter, bus}) {
            PDRIVER_OBJECT driver = device->DriverObject;
            winsim::DeleteDeviceObject(device);
            winsim::DeleteDriverObject(driver);
        }
        KernelTest::TearDown();
    }

    static PDEVICE_OBJECT Device(const char16_t* name, PDRIVER_DISPATCH dispatch, CCHAR stack) {
        PDRIVER_OBJECT driver = winsim::CreateDriverObject(name);
        driver->MajorFunction[IRP_MJ_INTERNAL_DEVICE_CONTROL] = dispatch;
        return winsim::CreateDeviceObject(driver, 0, stack);
    }

    static NTSTATUS NTAPI BusDispatch(PDEVICE_OBJECT, PIRP irp) {
        irp->IoStatus.Status = STATUS_SUCCESS;
        switch (busMode) {
            case Bus::MarkAndPend:
                IoMarkIrpPending(irp);
                IoSetCancelRoutine(irp, BusCancel);
                pending = irp;
                return STATUS_PENDING;
            case Bus::PendUnmarked:
                pending = irp;
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

    static void NTAPI BusCancel(PDEVICE_OBJECT device, PIRP irp) {
        cancelSawDevice = device;
        cancelSawIrql = KeGetCurrentIrql();
        IoReleaseCancelSpinLock(irp->CancelIrql);
        pending = nullptr;
        irp->IoStatus.Status = STATUS_CANCELLED;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }

    static NTSTATUS NTAPI FilterDispatch(PDEVICE_OBJECT, PIRP irp) {
        IoCopyCurrentIrpStackLocationToNext(irp);
        if (filterMode != Filter::NoRoutine)
            IoSetCompletionRoutine(irp, FilterCompletion, nullptr, TRUE, TRUE, TRUE);
        return IoCallDriver(bus, irp);
    }

    static NTSTATUS NTAPI FilterCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID) {
        seen.push_back({device, irp->PendingReturned, irp->IoStatus.Status});
        if (irp->PendingReturned && filterMode == Filter::Propagates)
            IoMarkIrpPending(irp);
        return STATUS_SUCCESS;
    }

    static NTSTATUS NTAPI OwnerCompletion(PDEVICE_OBJECT device, PIRP irp, PVOID) {
        seen.push_back({device, irp->PendingReturned, irp->IoStatus.Status});
        return STATUS_MORE_PROCESSING_REQUIRED;
    }

    PIRP SendToFilter(bool onSuccess = true, bool onError = true, bool onCancel = true) {
        PIRP irp = IoAllocateIrp(filter->StackSize, FALSE);
        IoGetNextIrpStackLocation(irp)->MajorFunction = IRP_MJ_INTERNAL_DEVICE_CONTROL;
        IoSetCompletionRoutine(irp, OwnerCompletion, nullptr, onSuccess, onError, onCancel);
        EXPECT_EQ(IoCallDriver(filter, irp),
                  busMode == Bus::MarkCompleteAndSucceed ? STATUS_SUCCESS : STATUS_PENDING);
        EXPECT_EQ(pending, busMode <= Bus::PendUnmarked ? irp : nullptr);
        return irp;
    }

    static void CompletePending(NTSTATUS status) {
        PIRP irp = pending;
        pending = nullptr;
        IoSetCancelRoutine(irp, nullptr);
        irp->IoStatus.Status = status;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
    }

    static inline std::vector<CompletionSeen> seen;
    static inline PIRP pending;
    static inline Bus busMode;
    static inline Filter filterMode;
    static inline PDEVICE_OBJECT bus;
    static inline PDEVICE_OBJECT cancelSawDevice;
    static inline KIRQL cancelSawIrql;
    PDEVICE_OBJECT filter;
};

TEST_F(IrpStack, CompletionUnwindsThroughBothLevelsWithPendingReturnedBeforeTheFree) {
    PIRP irp = SendToFilter();
    CompletePending(STATUS_SUCCESS);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].device, filter) << "runs in the context of the device above";
    EXPECT_TRUE(seen[0].pendingReturned);
    EXPECT_EQ(seen[1].device, nullptr) << "nothing above the top location";
    EXPECT_TRUE(seen[1].pendingReturned) << "the filter marked its level pending";
    IoFreeIrp(irp);

    // Without a routine of the filter's, its level passes the pending mark up. While the
    // bus holds the IRP, it may not be freed.
    filterMode = Filter::NoRoutine;
    seen.clear();
    irp = SendToFilter();
    IoFreeIrp(irp);
    ExpectViolation("IRP_FREED_WHILE_PENDING", {AddressText(irp), "lower driver still holds it"});
    CompletePending(STATUS_SUCCESS);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].device, nullptr);
    EXPECT_TRUE(seen[0].pendingReturned);
    IoFreeIrp(irp);
}

TEST_F(IrpStack, RoutineRunsOnlyForTheOutcomesItAskedFor) {
    PIRP irp = SendToFilter(/*onSuccess=*/true, /*onError=*/false, /*onCancel=*/false);
    CompletePending(STATUS_IO_TIMEOUT);
    ASSERT_EQ(seen.size(), 1u) << "the owner's routine only wanted success";
    // So nothing stopped the IRP at its top.
    ExpectViolation("IRP_COMPLETION",
                    {"completed past its top location", "STATUS_MORE_PROCESSING_REQUIRED"});
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    ExpectViolation("IRP_COMPLETION", {"already completed"});
    IoFreeIrp(irp);
}

TEST_F(IrpStack, CancelCallsTheCancelRoutineUnderTheCancelSpinLock) {
    PIRP irp = SendToFilter();
    EXPECT_TRUE(IoCancelIrp(irp));
    EXPECT_EQ(cancelSawDevice, bus);
    EXPECT_EQ(cancelSawIrql, DISPATCH_LEVEL);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
    EXPECT_TRUE(irp->Cancel);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].status, STATUS_CANCELLED);
    IoFreeIrp(irp);

    // Without a cancel routine the IRP is only marked.
    seen.clear();
    irp = SendToFilter();
    IoSetCancelRoutine(irp, nullptr);
    EXPECT_FALSE(IoCancelIrp(irp));
    EXPECT_TRUE(irp->Cancel);
    EXPECT_TRUE(seen.empty());
    CompletePending(STATUS_CANCELLED);
    EXPECT_EQ(seen.size(), 2u);
    IoFreeIrp(irp);
}

TEST_F(IrpStack, CallWithoutAStackLocationLeftIsRefusedAndAnIrpLeftAtUnloadReported) {
    PIRP noRoom = IoAllocateIrp(0, FALSE);
    EXPECT_EQ(IoCallDriver(bus, noRoom), STATUS_INVALID_DEVICE_REQUEST);
    ExpectViolation("IRP_STACK", {"no stack location left", "StackCount 0"});
    EXPECT_FALSE(winsim::CheckPoolEmpty("driver unload"));
    ExpectViolation("IRP_LEAK", {"driver unload", "1 IRP "});
    IoFreeIrp(noRoom);
    EXPECT_TRUE(winsim::CheckPoolEmpty("test end"));
}

struct PendingCase {
    const char* name;
    Bus bus;
    Filter filter;
    const char* culprit;  // the driver named by the IRP_PENDING finding; none when correct
    const char* gist;
};

class PendingStatus : public IrpStack, public testing::WithParamInterface<PendingCase> {};

// The finding comes when both the dispatch routine has returned and the IRP has
// completed past its level, whichever is later.
TEST_P(PendingStatus, PendingIsReturnedExactlyWhenMarked) {
    const PendingCase& c = GetParam();
    busMode = c.bus;
    filterMode = c.filter;
    PIRP irp = SendToFilter();
    if (pending != nullptr) {
        EXPECT_TRUE(winsim::TakeViolations().empty()) << "nothing to judge before completion";
        CompletePending(STATUS_SUCCESS);
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
    testing::Values(PendingCase{"Correct", Bus::MarkAndPend, Filter::Propagates, nullptr, nullptr},
                    PendingCase{"BusPendsUnmarked", Bus::PendUnmarked, Filter::Propagates, "bus",
                                "returned STATUS_PENDING for IRP"},
                    PendingCase{"BusMarksButSucceeds", Bus::MarkCompleteAndSucceed,
                                Filter::Propagates, "bus",
                                "pending (IoMarkIrpPending) but returned 0x00000000"},
                    PendingCase{"BusCompletesAndPendsUnmarked", Bus::CompleteAndPendUnmarked,
                                Filter::Propagates, "bus", "without marking it pending"},
                    PendingCase{"FilterDropsTheMark", Bus::MarkAndPend, Filter::Drops, "filter",
                                "without marking it pending"}),
    [](const testing::TestParamInfo<PendingCase>& info) { return info.param.name; });

}  // namespace
}  // namespace kerneltest
