// Fault rules hit the request they name, counted per kind from the moment
// they are added; the verifier catches requests at the wrong IRQL and IRPs
// sent again while the stack still holds them.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

class FaultAndVerifierTest : public UsbStackTest {
  protected:
    NTSTATUS RegisterRead(PURB urb) {
        *urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
        return SubmitUrb(Pdo(), urb);
    }

    uint8_t data[4] = {};
};

TEST_F(FaultAndVerifierTest, RuleHitsTheNthRequestOfItsKindCountedFromWhenItWasAdded) {
    URB urb;
    EXPECT_EQ(RegisterRead(&urb), STATUS_SUCCESS);  // before the rule: not counted
    stack->AddFault({.kind = RequestKind::VendorDevice,
                     .occurrence = 2,
                     .action = FaultAction::FailWithStatus,
                     .usbdStatus = USBD_STATUS_XACT_ERROR});

    uint8_t descriptor[18];
    URB other = DescriptorUrb(USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, descriptor, sizeof descriptor);
    EXPECT_EQ(SubmitUrb(Pdo(), &other), STATUS_SUCCESS);  // another kind: not counted

    EXPECT_EQ(RegisterRead(&urb), STATUS_SUCCESS);
    const size_t reachedDevice = device.ControlLog().size();
    EXPECT_EQ(RegisterRead(&urb), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_XACT_ERROR);
    EXPECT_EQ(device.ControlLog().size(), reachedDevice);
    EXPECT_EQ(RegisterRead(&urb), STATUS_SUCCESS);

    const usbsim::RequestCounts vendor = stack->Counts(RequestKind::VendorDevice);
    EXPECT_EQ(vendor.submitted, 4u);
    EXPECT_EQ(vendor.completed, 3u);
    EXPECT_EQ(vendor.failed, 1u);
    EXPECT_EQ(stack->Counts(RequestKind::GetDescriptor).completed, 1u);
}

TEST_F(FaultAndVerifierTest, EveryOccurrenceRuleHitsAllRequestsUntilCleared) {
    stack->AddFault({.kind = RequestKind::Any, .occurrence = 0, .action = FaultAction::Stall});
    URB urb;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(RegisterRead(&urb), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_STALL_PID);
    }
    stack->ClearFaults();
    EXPECT_EQ(RegisterRead(&urb), STATUS_SUCCESS);
}

TEST_F(FaultAndVerifierTest, VendorRequestAbovePassiveLevelIsReported) {
    ExpectViolation("IRQL");
    URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    UrbCall call(Pdo(), &urb);
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(call.Send(), STATUS_PENDING); });
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
}

TEST_F(FaultAndVerifierTest, TransfersAndAbortsMayComeAtDispatchLevel) {
    Configure();
    uint8_t frame[512];
    URB transfer = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(FakeUsbDevice::kBulkIn));
    UrbCall bulk(Pdo(), &transfer), aborting(Pdo(), &abort, true);
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        EXPECT_EQ(bulk.Send(), STATUS_PENDING);
        EXPECT_EQ(aborting.Send(), STATUS_PENDING);
    });
    bulk.Wait();
    EXPECT_EQ(aborting.Wait(), STATUS_SUCCESS);
    // TearDown fails on any verifier finding.
}

TEST_F(FaultAndVerifierTest, IrpSentAgainWhileTheStackHoldsItIsReported) {
    ExpectViolation("IRP_REUSED_WHILE_PENDING");
    stack->AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);

    call.PrepareNextLocation();  // as a careless client would
    EXPECT_EQ(call.Send(), STATUS_INVALID_DEVICE_REQUEST);
    // The stack left the IRP alone; undo the second call's step down the stack.
    IoSkipCurrentIrpStackLocation(call.Irp());

    EXPECT_TRUE(call.Cancel());
    EXPECT_EQ(call.Wait(), STATUS_CANCELLED);
}

}  // namespace
}  // namespace usbtest
