// Requests the stack refuses inside IoCallDriver, fault rules that hit the
// request they name, and the verifier's findings about clients.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class RequestTest : public UsbStackTest {
  protected:
    NTSTATUS Read(URB& urb) {
        urb = RegisterRead();
        return SubmitUrb(Pdo(), &urb);
    }
};

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
    std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
    std::vector<uint8_t> notConfiguration = descriptor;
    notConfiguration[1] = USB_INTERFACE_DESCRIPTOR_TYPE;
    UrbBuffer tooShortForPipes = SelectUrb(&descriptor, nullptr, 0, 3, 4096);
    tooShortForPipes->UrbHeader.Length -= sizeof(USBD_PIPE_INFORMATION);
    const auto unknownPipe = reinterpret_cast<USBD_PIPE_HANDLE>(0x1234);
    const USBD_PIPE_HANDLE bulkIn = PipeFor(FakeUsbDevice::kBulkIn);
    struct Case {
        const char* what;
        UrbBuffer urb;
        USBD_STATUS status;
    } cases[] = {
        {"URB shorter than its function's structure", Copy(RegisterRead(), 1),
         USBD_STATUS_INVALID_PARAMETER},
        {"function the stack does not know", Copy(RegisterRead(), 0, 0x7F),
         USBD_STATUS_INVALID_URB_FUNCTION},
        {"pipe handle the stack never issued", Copy(TransferUrb(unknownPipe, true, data, 4)),
         USBD_STATUS_INVALID_PIPE_HANDLE},
        {"IN transfer on an OUT endpoint", Copy(TransferOn(FakeUsbDevice::kBulkOut)),
         USBD_STATUS_INVALID_PARAMETER},
        {"transfer above the pipe's MaximumTransferSize",
         Copy(TransferUrb(bulkIn, true, data, 0x200001)), USBD_STATUS_INVALID_PARAMETER},
        {"data length without buffer or MDL", Copy(TransferUrb(bulkIn, true, nullptr, 16)),
         USBD_STATUS_INVALID_PARAMETER},
        {"alternate setting the configuration does not have",
         SelectUrb(nullptr, configurationHandle, 7, 2, 4096), USBD_STATUS_INTERFACE_NOT_FOUND},
        {"configuration handle that is not the current one",
         SelectUrb(nullptr, reinterpret_cast<USBD_CONFIGURATION_HANDLE>(0x99), 1, 2, 4096),
         USBD_STATUS_INVALID_PARAMETER},
        {"interface information with room for fewer pipes than the setting has",
         SelectUrb(nullptr, configurationHandle, 1, 1, 4096), USBD_STATUS_INVALID_PARAMETER},
        {"URB too short for the interface information it announces", std::move(tooShortForPipes),
         USBD_STATUS_INVALID_PARAMETER},
        {"descriptor that is not a configuration descriptor",
         SelectUrb(&notConfiguration, nullptr, 0, 3, 4096),
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
    EXPECT_EQ(stack->PendingRequests(), 0u);
    EXPECT_EQ(stack->Counts().failed, 12u);
}

TEST_F(RequestTest, FaultRuleHitsTheNthRequestOfItsKindCountedFromWhenItWasAdded) {
    URB urb;
    EXPECT_EQ(Read(urb), STATUS_SUCCESS);  // before the rule: not counted
    stack->AddFault({.kind = RequestKind::VendorDevice,
                     .occurrence = 2,
                     .action = FaultAction::FailWithStatus,
                     .usbdStatus = USBD_STATUS_XACT_ERROR});
    Configure();  // another kind: not counted

    EXPECT_EQ(Read(urb), STATUS_SUCCESS);
    const size_t reachedDevice = device.ControlLog().size();
    EXPECT_EQ(Read(urb), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_XACT_ERROR);
    EXPECT_EQ(device.ControlLog().size(), reachedDevice);
    EXPECT_EQ(Read(urb), STATUS_SUCCESS);

    const usbsim::RequestCounts vendor = stack->Counts(RequestKind::VendorDevice);
    EXPECT_EQ(vendor.submitted, 4u);
    EXPECT_EQ(vendor.completed, 3u);
    EXPECT_EQ(vendor.failed, 1u);
    EXPECT_EQ(stack->Counts(RequestKind::SelectConfiguration).completed, 1u);

    // Occurrence 0 hits every request until the rules are cleared.
    stack->AddFault({.kind = RequestKind::Any, .occurrence = 0, .action = FaultAction::Stall});
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(Read(urb), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_STALL_PID);
    }
    stack->ClearFaults();
    EXPECT_EQ(Read(urb), STATUS_SUCCESS);
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
