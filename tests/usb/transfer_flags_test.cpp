// TransferFlags: short IN transfers with and without USBD_SHORT_TRANSFER_OK on
// both kinds of host controller, and flags the stack does not define.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::ShortInTransfer;

class ShortTransferTest : public UsbStackTest,
                          public ::testing::WithParamInterface<ShortInTransfer> {};

// The device answers 3 bytes to every request for 8; descriptors are exempt,
// as the stack itself allows them to end short.
TEST_P(ShortTransferTest, ShortInTransferFailsOnlyWithoutTheFlagOnAStrictController) {
    RestartStack({.shortInTransfer = GetParam()});
    Configure();
    const bool strict = GetParam() == ShortInTransfer::Fails;
    uint8_t buffer[8] = {};
    const URB bulkIn = TransferUrb(PipeFor(kBulkIn), true, buffer, 8),
              vendorRead = VendorUrb(true, 0x12, kRegister, buffer, 8);
    URB descriptor{};
    UsbBuildGetDescriptorRequest(&descriptor, sizeof descriptor.UrbControlDescriptorRequest,
                                 USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, buffer, nullptr, 8, nullptr);
    struct Case {
        const char* what;
        uint8_t endpoint;  // 0: control
        URB urb;
        ULONG extraFlags;
        bool mayFail;  // IN without USBD_SHORT_TRANSFER_OK
    } cases[] = {
        {"bulk in", kBulkIn, bulkIn, 0, true},
        {"bulk in, short allowed", kBulkIn, bulkIn, USBD_SHORT_TRANSFER_OK, false},
        {"vendor read", 0, vendorRead, 0, true},
        {"vendor read, short allowed", 0, vendorRead, USBD_SHORT_TRANSFER_OK, false},
        {"descriptor", 0, descriptor, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        device.QueueAnswer(c.endpoint, TransferResult::Ack(3), {1, 2, 3});
        // The flags, like the length, sit at the same place in every transfer URB.
        URB urb = c.urb;
        urb.UrbBulkOrInterruptTransfer.TransferFlags |= c.extraFlags;
        const bool fails = strict && c.mayFail;
        EXPECT_EQ(SubmitUrb(Pdo(), &urb), fails ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS);
        EXPECT_EQ(urb.UrbHeader.Status,
                  fails ? USBD_STATUS_ERROR_SHORT_TRANSFER : USBD_STATUS_SUCCESS);
        // The bytes that came are in the buffer and counted either way.
        EXPECT_EQ(urb.UrbBulkOrInterruptTransfer.TransferBufferLength, 3u);
        EXPECT_EQ(buffer[2], 3);
        buffer[2] = 0;
    }
    // A full-length IN transfer is no short one.
    URB full = bulkIn;
    EXPECT_EQ(SubmitUrb(Pdo(), &full), STATUS_SUCCESS);
}

INSTANTIATE_TEST_SUITE_P(HostControllers, ShortTransferTest,
                         ::testing::Values(ShortInTransfer::Succeeds, ShortInTransfer::Fails),
                         [](const auto& info) {
                             return info.param == ShortInTransfer::Fails ? "Strict" : "Lenient";
                         });

using TransferFlagsTest = UsbStackTest;

// Each undefined bit is one finding and the request is refused before the bus.
TEST_F(TransferFlagsTest, UndefinedBitsAreFindingsAndTheRequestIsRefused) {
    Configure();
    const URB bulk = TransferUrb(PipeFor(kBulkIn), true, data, sizeof data),
              vendor = RegisterRead();
    constexpr ULONG kIn = USBD_TRANSFER_DIRECTION_IN;
    struct Case {
        const char* what;
        URB urb;
        ULONG flags;
        bool defined;
    } cases[] = {
        {"bulk: every defined bit", bulk,
         kIn | USBD_SHORT_TRANSFER_OK | USBD_START_ISO_TRANSFER_ASAP, true},
        {"bulk: default-pipe bit", bulk, kIn | USBD_DEFAULT_PIPE_TRANSFER, false},
        {"bulk: bit 4", bulk, kIn | 0x10, false},
        {"bulk: bit 31", bulk, kIn | 0x80000000, false},
        {"vendor: default-pipe bit", vendor, kIn | USBD_DEFAULT_PIPE_TRANSFER, true},
        {"vendor: bit 8", vendor, kIn | 0x100, false},
    };
    for (Case& c : cases) {
        SCOPED_TRACE(c.what);
        const size_t seen = device.TransferLog().size() + device.ControlLog().size();
        c.urb.UrbBulkOrInterruptTransfer.TransferFlags = c.flags;  // same place in both
        const NTSTATUS status = SubmitUrb(Pdo(), &c.urb);
        const std::vector<winsim::Violation> findings = winsim::TakeViolations();
        if (c.defined) {
            EXPECT_EQ(status, STATUS_SUCCESS);
            EXPECT_TRUE(findings.empty());
            continue;
        }
        EXPECT_EQ(status, STATUS_INVALID_PARAMETER);
        EXPECT_EQ(c.urb.UrbHeader.Status, USBD_STATUS_INVALID_PARAMETER);
        ASSERT_EQ(findings.size(), 1u);
        EXPECT_EQ(findings[0].check, "TRANSFER_FLAGS");
        EXPECT_EQ(device.TransferLog().size() + device.ControlLog().size(), seen);
    }
}

}  // namespace
}  // namespace usbtest
