// How requests come back: later on a host-controller thread at DISPATCH_LEVEL,
// short; cancelled, held, removed or dropped with the stack.
#include <tuple>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class CompletionTest : public UsbStackTest {};

TEST_F(CompletionTest, ReadPendsThenCompletesAtDispatchLevelOnAHostControllerThreadShortDataToo) {
    device.QueueAnswer(0, TransferResult::Ack(2), {0xD4, 0xC3});
    URB urb = RegisterRead();
    UrbCall call(Pdo(), &urb);
    EXPECT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(call.completionIrql, DISPATCH_LEVEL);
    EXPECT_NE(call.completionThread, std::this_thread::get_id());
    // Short data is a success with the bytes moved; the host asked for all four.
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferBufferLength, 2u);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 4), (std::vector<uint8_t>{0xD4, 0xC3, 0, 0}));
    const SetupPacket setup = device.ControlLog().back();
    EXPECT_EQ(
        std::tuple(setup.bmRequestType, setup.bRequest, setup.wValue, setup.wIndex, setup.wLength),
        std::tuple(0xC0, 0x12, 0, kRegister, 4));
}

TEST_F(CompletionTest, HeldRequestWaitsUntilCancelledAndMayNotBeSentAgainMeanwhile) {
    ExpectViolation("IRP_REUSED_WHILE_PENDING");
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    URB urb = RegisterRead();
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    stack->WaitIdle();  // a held request does not keep the stack busy
    EXPECT_FALSE(call.Completed());
    EXPECT_EQ(stack->PendingRequests(), 1u);

    call.PrepareNextLocation();  // as a careless client would
    EXPECT_EQ(call.Send(), STATUS_INVALID_DEVICE_REQUEST);
    // The stack left the IRP alone; undo the second call's step down the stack.
    IoSkipCurrentIrpStackLocation(call.irp);
    EXPECT_TRUE(IoCancelIrp(call.irp));
    EXPECT_EQ(call.Wait(), STATUS_CANCELLED);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_TRUE(device.ControlLog().empty());
}

// IoCancelIrp only takes the request off the bus; a host-controller thread
// completes it once the latency has passed, and a pipe abort waits for that.
TEST_F(CompletionTest, CancelledRequestCompletesLaterOnAHostControllerThread) {
    Configure();
    constexpr int64_t kLatency = 2'000'000;  // 0.2 simulated seconds
    stack->SetCancellationLatency(kLatency);
    device.SetNak(kBulkIn, true);
    URB transfer = BulkIn();
    UrbCall call(Pdo(), &transfer);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    stack->WaitIdle();

    const int64_t cancelledAt = winsim::Now100ns();
    EXPECT_TRUE(IoCancelIrp(call.irp));
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(kBulkIn));
    UrbCall aborting(Pdo(), &abort);
    ASSERT_EQ(aborting.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_CANCELLED);
    EXPECT_EQ(transfer.UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_NE(call.completionThread, std::this_thread::get_id());
    EXPECT_EQ(call.completionIrql, DISPATCH_LEVEL);
    EXPECT_GE(call.completedAt - cancelledAt, kLatency);
    EXPECT_EQ(aborting.Wait(), STATUS_SUCCESS);
    EXPECT_LT(call.completedAs.load(), aborting.completedAs.load());
}

// A client that frees the IRP right after IoCancelIrp, without waiting for
// its completion routine, is caught; destroying the stack completes it, and
// cancels a transfer waiting for its endpoint at once.
TEST_F(CompletionTest, FreeingACancelledIrpBeforeItCompletesIsCaught) {
    ExpectViolation("IRP_FREED_WHILE_PENDING");
    Configure();
    device.SetNak(kBulkIn, true);
    URB transfer = BulkIn();
    UrbCall bulk(Pdo(), &transfer);
    ASSERT_EQ(bulk.Send(), STATUS_PENDING);
    stack->SetCancellationLatency(864'000'000'000);  // a simulated day
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    URB urb = RegisterRead();
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_TRUE(IoCancelIrp(call.irp));
    IoFreeIrp(call.irp);  // refused: the stack still holds it
    EXPECT_FALSE(call.Completed());
    stack.reset();
    EXPECT_TRUE(bulk.Completed());
    EXPECT_EQ(bulk.Wait(), STATUS_CANCELLED);
    EXPECT_EQ(call.Wait(), STATUS_CANCELLED);
}

TEST_F(CompletionTest, RequestOnTheBusFinishesNormallyDespiteCancel) {
    Configure();
    HoldOnBus(kBulkIn);
    URB urb = BulkIn();
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    WaitOnBus();

    EXPECT_FALSE(IoCancelIrp(call.irp));  // no cancel routine while the device has it
    Release();
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbBulkOrInterruptTransfer.TransferBufferLength, 512u);
}

TEST_F(CompletionTest, RemovalFailsPendingAndLaterRequestsWithDeviceGone) {
    Configure();
    device.SetNak(kBulkIn, true);
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    URB transfer = BulkIn(), read = RegisterRead();
    UrbCall bulk(Pdo(), &transfer), control(Pdo(), &read);
    ASSERT_EQ(bulk.Send(), STATUS_PENDING);
    ASSERT_EQ(control.Send(), STATUS_PENDING);
    stack->WaitIdle();

    stack->Remove();
    EXPECT_EQ(bulk.Wait(), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(transfer.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(control.Wait(), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(read.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);

    URB later = RegisterRead();
    EXPECT_EQ(SubmitUrb(Pdo(), &later), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(later.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
}

}  // namespace
}  // namespace usbtest
