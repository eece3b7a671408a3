// How requests come back: later on a host-controller thread at DISPATCH_LEVEL,
// or inside IoCallDriver; short; cancelled, held, removed or dropped with the stack.
#include <future>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class CompletionTest : public UsbStackTest {};

TEST_F(CompletionTest, ReadsPendThenCompleteAtDispatchLevelOnAHostControllerThreadShortOrNot) {
    device.QueueAnswer(0, TransferResult::Ack(4), {0xD4, 0xC3, 0xB2, 0xA1});
    URB urb = RegisterRead();
    UrbCall call(Pdo(), &urb);
    EXPECT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(call.completionIrql, DISPATCH_LEVEL);
    EXPECT_NE(call.completionThread, std::this_thread::get_id());
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferBufferLength, 4u);
    EXPECT_EQ(std::vector<uint8_t>(data, data + 4), (std::vector<uint8_t>{0xD4, 0xC3, 0xB2, 0xA1}));
    EXPECT_EQ(Fields(device.ControlLog().back()), (SetupFields{0xC0, 0x12, 0, kRegister, 4}));

    // Short data is a success with the bytes moved.
    Configure();
    device.QueueAnswer(0, TransferResult::Ack(2), {0xAA, 0xBB});
    URB read = RegisterRead();
    EXPECT_EQ(SubmitUrb(Pdo(), &read), STATUS_SUCCESS);
    EXPECT_EQ(read.UrbControlVendorClassRequest.TransferBufferLength, 2u);
    EXPECT_EQ(device.ControlLog().back().wLength, 4);  // the host asked for all four

    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Ack(100));
    URB bulk = BulkIn(4096);
    EXPECT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    EXPECT_EQ(bulk.UrbBulkOrInterruptTransfer.TransferBufferLength, 100u);

    stack->AddFault(
        {.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::ShortData, .shortLength = 7});
    bulk = BulkIn(4096);
    EXPECT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    EXPECT_EQ(bulk.UrbBulkOrInterruptTransfer.TransferBufferLength, 7u);
}

TEST_F(CompletionTest, SynchronousFaultCompletesInsideIoCallDriverAtTheCallersIrql) {
    stack->AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    URB write = VendorUrb(false, 0x12, 0x0020, data, sizeof data);
    UrbCall call(Pdo(), &write);
    EXPECT_EQ(call.Send(), STATUS_SUCCESS);
    EXPECT_TRUE(call.Completed());
    EXPECT_EQ(call.completionThread, std::this_thread::get_id());
    EXPECT_EQ(call.completionIrql, PASSIVE_LEVEL);
    EXPECT_EQ(device.ControlLog().back().bmRequestType, 0x40);

    // A failure comes back the same way, as IoCallDriver's result.
    Configure();
    stack->AddFault(
        {.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::CompleteSynchronously});
    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Stall());
    URB transfer = BulkIn();
    UrbCall bulk(Pdo(), &transfer);
    NTSTATUS returned = STATUS_PENDING;
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { returned = bulk.Send(); });
    EXPECT_EQ(returned, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(bulk.Completed());
    EXPECT_EQ(bulk.completionIrql, DISPATCH_LEVEL);
    EXPECT_EQ(transfer.UrbHeader.Status, USBD_STATUS_STALL_PID);
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
    EXPECT_EQ(stack->PendingRequests(), 0u);
    EXPECT_EQ(stack->Counts(RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_TRUE(device.ControlLog().empty());
}

TEST_F(CompletionTest, RequestOnTheBusFinishesNormallyDespiteCancel) {
    Configure();
    std::promise<void> onBus, release;
    std::shared_future<void> released = release.get_future().share();
    device.onTransfer = [&, released](uint8_t) {
        onBus.set_value();
        released.wait();
    };
    URB urb = BulkIn();
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    onBus.get_future().wait();

    EXPECT_FALSE(IoCancelIrp(call.irp));  // no cancel routine while the device has it
    release.set_value();
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbBulkOrInterruptTransfer.TransferBufferLength, 512u);
}

TEST_F(CompletionTest, RemovalFailsPendingAndLaterRequestsWithDeviceGone) {
    Configure();
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    URB transfer = BulkIn(), read = RegisterRead();
    UrbCall bulk(Pdo(), &transfer), control(Pdo(), &read);
    ASSERT_EQ(bulk.Send(), STATUS_PENDING);
    ASSERT_EQ(control.Send(), STATUS_PENDING);
    stack->WaitIdle();

    stack->Remove();
    EXPECT_TRUE(stack->Removed());
    EXPECT_EQ(bulk.Wait(), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(transfer.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
    EXPECT_EQ(control.Wait(), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(read.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);

    URB later = RegisterRead();
    UrbCall call(Pdo(), &later);
    EXPECT_EQ(call.Send(), STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(call.Completed());
    EXPECT_EQ(later.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
}

TEST_F(CompletionTest, DestroyingTheStackCancelsWhatIsPending) {
    Configure();
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    URB transfer = BulkIn();
    UrbCall bulk(Pdo(), &transfer);
    ASSERT_EQ(bulk.Send(), STATUS_PENDING);
    stack.reset();
    EXPECT_TRUE(bulk.Completed());
    EXPECT_EQ(bulk.Wait(), STATUS_CANCELLED);
}

}  // namespace
}  // namespace usbtest
