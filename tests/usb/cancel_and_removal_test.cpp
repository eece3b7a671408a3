// Requests that end without the device: cancelled by the client, held by a
// NeverComplete fault, or caught by surprise removal or by the stack's end.
#include <future>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

class CancelAndRemovalTest : public UsbStackTest {};

TEST_F(CancelAndRemovalTest, NeverCompletingRequestWaitsUntilCancelled) {
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    uint8_t data[4] = {};
    URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);

    stack->WaitIdle();  // a held request does not keep the stack busy
    EXPECT_FALSE(call.Completed());
    EXPECT_EQ(stack->PendingRequests(), 1u);

    EXPECT_TRUE(call.Cancel());
    EXPECT_EQ(call.Wait(), STATUS_CANCELLED);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_EQ(stack->PendingRequests(), 0u);
    EXPECT_EQ(stack->Counts(RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_TRUE(device.ControlLog().empty());
}

TEST_F(CancelAndRemovalTest, RequestOnTheBusFinishesNormallyDespiteCancel) {
    Configure();
    std::promise<void> onBus, release;
    std::shared_future<void> released = release.get_future().share();
    device.SetTransferHook([&, released](uint8_t) {
        onBus.set_value();
        released.wait();
    });
    uint8_t frame[512];
    URB urb = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    onBus.get_future().wait();

    EXPECT_FALSE(call.Cancel());  // no cancel routine while the device has it
    release.set_value();
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbBulkOrInterruptTransfer.TransferBufferLength, sizeof frame);
}

TEST_F(CancelAndRemovalTest, RemovalFailsPendingAndLaterRequestsWithDeviceGone) {
    Configure();
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    uint8_t frame[512], data[4];
    URB transfer = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    URB read = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
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

    URB later = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    UrbCall call(Pdo(), &later);
    EXPECT_EQ(call.Send(), STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(call.Completed());
    EXPECT_EQ(later.UrbHeader.Status, USBD_STATUS_DEVICE_GONE);
}

TEST_F(CancelAndRemovalTest, DestroyingTheStackCancelsWhatIsPending) {
    Configure();
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    uint8_t frame[512];
    URB transfer = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    UrbCall bulk(Pdo(), &transfer);
    ASSERT_EQ(bulk.Send(), STATUS_PENDING);

    stack.reset();
    EXPECT_TRUE(bulk.Completed());
    EXPECT_EQ(bulk.Wait(), STATUS_CANCELLED);
}

}  // namespace
}  // namespace usbtest
