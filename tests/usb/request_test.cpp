// Requests refused inside IoCallDriver, fault rules, and findings about clients.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using RequestTest = UsbStackTest;

UrbBuffer Copy(const URB& urb, USHORT lengthCut = 0, USHORT function = 0) {
    UrbBuffer buffer(sizeof urb);
    *buffer.get() = urb;
    buffer->UrbHeader.Length -= lengthCut;
    buffer->UrbHeader.Function = function ? function : urb.UrbHeader.Function;
    return buffer;
}

TEST_F(RequestTest, MalformedUrbsAreRefusedAtOnceWithTheirOwnStatus) {
    Configure();
    const size_t controlBefore = device.ControlLog().size();
    std::vector<uint8_t> notConfiguration = descriptor;
    notConfiguration[1] = USB_INTERFACE_DESCRIPTOR_TYPE;
    UrbBuffer tooShortForPipes = SelectUrb(&descriptor, nullptr, 0, 3);
    tooShortForPipes->UrbHeader.Length -= sizeof(USBD_PIPE_INFORMATION);
    const auto stray = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
    const USBD_PIPE_HANDLE in = PipeFor(kBulkIn);
    const auto otherConfiguration = reinterpret_cast<USBD_CONFIGURATION_HANDLE>(0x99);
    constexpr USBD_STATUS kInvalid = USBD_STATUS_INVALID_PARAMETER;
    struct Case {
        const char* what;
        UrbBuffer urb;
        USBD_STATUS status;
    } cases[] = {
        {"URB shorter than its structure", Copy(RegisterRead(), 1), kInvalid},
        {"unknown function", Copy(RegisterRead(), 0, 0x7F), USBD_STATUS_INVALID_URB_FUNCTION},
        {"pipe never issued", Copy(TransferUrb(stray, true, data, 4)),
         USBD_STATUS_INVALID_PIPE_HANDLE},
        {"IN transfer on an OUT endpoint", Copy(TransferOn(kBulkOut)), kInvalid},
        {"length without buffer or MDL", Copy(TransferUrb(in, true, nullptr, 16)), kInvalid},
        {"no such setting", SelectUrb(nullptr, configurationHandle, 7, 2),
         USBD_STATUS_INTERFACE_NOT_FOUND},
        {"not the current configuration", SelectUrb(nullptr, otherConfiguration, 1, 2), kInvalid},
        {"fewer pipes than the setting", SelectUrb(nullptr, configurationHandle, 1, 1), kInvalid},
        {"URB shorter than its interface information", std::move(tooShortForPipes), kInvalid},
        {"not a configuration descriptor", SelectUrb(&notConfiguration, nullptr, 0, 3),
         USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        UrbCall call(Pdo(), c.urb.get());
        EXPECT_EQ(call.Send(), STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(call.Completed());
        EXPECT_EQ(c.urb->UrbHeader.Status, c.status);
    }
    UrbCall noUrb(Pdo(), nullptr);
    EXPECT_EQ(noUrb.Send(), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(noUrb.Completed());

    EXPECT_EQ(device.ControlLog().size(), controlBefore);
    EXPECT_TRUE(device.TransferLog().empty());
}

// The device object passes IRPs further down: one with fewer locations than
// its StackSize is a finding, left uncompleted and free to be freed.
TEST_F(RequestTest, IrpWithoutAStackLocationForTheStackIsRefusedUntouched) {
    ExpectViolation("IRP_STACK");
    ASSERT_EQ(Pdo()->StackSize, 2);
    URB urb = RegisterRead();
    for (UCHAR major : {IRP_MJ_INTERNAL_DEVICE_CONTROL, IRP_MJ_DEVICE_CONTROL}) {
        SCOPED_TRACE(int{major});
        UrbCall call(Pdo(), &urb, 1);
        IoGetNextIrpStackLocation(call.irp)->MajorFunction = major;
        EXPECT_EQ(call.Send(), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_FALSE(call.Completed());
        EXPECT_EQ(call.irp->CurrentLocation, 2);  // as the client left it
    }
    EXPECT_EQ(stack->Counts().submitted, 0u);
    EXPECT_TRUE(device.ControlLog().empty());
}

TEST_F(RequestTest, FaultRuleHitsTheNthRequestOfItsKindCountedFromWhenItWasAdded) {
    URB urb;
    auto read = [&](URB& target) { return SubmitUrb(Pdo(), &(target = RegisterRead())); };
    EXPECT_EQ(read(urb), STATUS_SUCCESS);  // before the rule: not counted
    stack->AddFault({.kind = RequestKind::VendorDevice,
                     .occurrence = 2,
                     .action = FaultAction::FailWithStatus,
                     .usbdStatus = USBD_STATUS_XACT_ERROR});
    Configure();  // another kind: not counted

    EXPECT_EQ(read(urb), STATUS_SUCCESS);
    const size_t reachedDevice = device.ControlLog().size();
    EXPECT_EQ(read(urb), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_XACT_ERROR);
    EXPECT_EQ(device.ControlLog().size(), reachedDevice);
    EXPECT_EQ(read(urb), STATUS_SUCCESS);

    // Occurrence 0 hits every request until the rules are cleared.
    stack->AddFault({.kind = RequestKind::Any, .occurrence = 0, .action = FaultAction::Stall});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(read(urb), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_STALL_PID);
    }
    stack->ClearFaults();
    EXPECT_EQ(read(urb), STATUS_SUCCESS);
}

TEST_F(RequestTest, VendorRequestAbovePassiveLevelIsReported) {
    ExpectViolation("IRQL");
    URB urb = RegisterRead();
    UrbCall call(Pdo(), &urb);
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(call.Send(), STATUS_PENDING); });
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
