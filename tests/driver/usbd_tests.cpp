// Submission of URBs: completion paths, the 5-second limit, the request
// semaphore and a missing IRP; and the one synchronous bulk transfer on a
// pipe of the FPGA setting.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

// A register read built by hand, so that the URB's own status can be seen.
class CallUsbdTest : public DriverTest {
  protected:
    NTSTATUS ReadVersion() {
        value_ = 0;
        UsbBuildVendorRequest(&urb_, URB_FUNCTION_VENDOR_DEVICE,
                              sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                              USBD_TRANSFER_DIRECTION_IN, 0, ORNIX_REQUEST_REGISTER, 0,
                              ORNIX_SPEC_VERSION, &value_, nullptr, sizeof(value_), nullptr);
        return OrnixCallUsbd(Ext(), &urb_);
    }
    NTSTATUS Bulk(std::vector<uint8_t>& buffer, BOOLEAN directionIn) {
        return BulkAsynchTransfer(Ext(), buffer.data(), nullptr, static_cast<ULONG>(buffer.size()),
                                  Ext()->FpgaPipe, directionIn);
    }

    URB urb_{};
    ULONG value_ = 0;
};

TEST_F(CallUsbdTest, ReturnsTheStatusTheRequestCompletesWith) {
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(value_, 1u);

    // Completed inside IoCallDriver: the status comes back at once.
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(value_, 1u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::VendorDevice), 2u);
    EXPECT_TRUE(Log().empty());

    Stack().AddFault({.kind = RequestKind::VendorDevice,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    EXPECT_EQ(ReadVersion(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb_.UrbHeader.Status, USBD_STATUS_DEV_NOT_RESPONDING);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c0000001)"});
}

TEST_F(CallUsbdTest, RequestStillPendingAfterFiveSecondsIsCancelledAndTimesOut) {
    Stack().AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    // Nothing else is on the bus, so the wait may pass quickly.
    winsim::SetTimeScale(1000);
    const int64_t start = winsim::Now100ns();

    EXPECT_EQ(ReadVersion(), STATUS_IO_TIMEOUT);

    EXPECT_GE(winsim::Now100ns() - start, 50'000'000);
    winsim::SetTimeScale(kTimeScale);
    // The IRP came back cancelled before it was freed (the verifier checks
    // the free), and the semaphore is free for the next request.
    EXPECT_EQ(Stack().Counts(RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c00000b5)"});
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
}

TEST_F(CallUsbdTest, MissingIrpFailsTheRequestAndReleasesTheSemaphore) {
    winsim::FailAllocationsWithTag(kIrpTag);

    EXPECT_EQ(ReadVersion(), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c0000001)"});
    EXPECT_EQ(SubmittedSinceStart(RequestKind::Any), 0u);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
}

// Control requests hold the request semaphore while on the bus; bulk
// transfers (the FPGA image) bypass it, and the image goes out in one piece.
TEST_F(CallUsbdTest, OnlyControlRequestsHoldTheRequestSemaphore) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    LONG controlCount = -1;
    LONG bulkCount = -1;
    size_t received = 0;
    Camera().SetReadHook(ORNIX_SPEC_VERSION, [&](uint16_t, uint32_t stored) {
        controlCount = KeReadStateSemaphore(&ext->UsbRequestSemaphore);
        return stored;
    });
    Camera().SetEndpointHandler(0x02, [&](std::span<uint8_t> data) {
        bulkCount = KeReadStateSemaphore(&ext->UsbRequestSemaphore);
        received += data.size();
        return usbsim::TransferResult::Ack(static_cast<uint32_t>(data.size()));
    });
    ASSERT_EQ(OrnixSelectAltSetting(ext, ext->FpgaAltSetting), STATUS_SUCCESS);
    std::vector<uint8_t> image(97991, 0x5A);
    winsim::ClearDebugLog();

    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(Bulk(image, FALSE), STATUS_SUCCESS);

    EXPECT_EQ(controlCount, 0);
    EXPECT_EQ(bulkCount, 1);
    EXPECT_EQ(KeReadStateSemaphore(&ext->UsbRequestSemaphore), 1);
    EXPECT_EQ(received, image.size());
    EXPECT_EQ(SubmittedSinceStart(RequestKind::BulkOrInterrupt), 1u);
    EXPECT_EQ(Log(),
              (std::vector<std::string>{"ORNIX: BulkAsynchTransfer, pipe:0, size:0x17ec7",
                                        "ORNIX: BulkAsynchTransfer, exit with ntstatus 0x00000000, "
                                        "USBD_STATUS 0x00000000, length 0x17ec7"}));
}

TEST_F(CallUsbdTest, FailedBulkTransferReportsTheUsbdStatusAndLeavesTheBufferAlone) {
    ASSERT_EQ(OrnixSelectAltSetting(Ext(), Ext()->FpgaAltSetting), STATUS_SUCCESS);
    std::vector<uint8_t> buffer(512, 0x5A);

    Stack().AddFault({.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::Stall});
    EXPECT_EQ(Bulk(buffer, FALSE), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Log().back(),
              "ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc0000001, USBD_STATUS 0xc0000004, "
              "length 0x0");

    Stack().Remove();
    EXPECT_EQ(Bulk(buffer, TRUE), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(buffer, std::vector<uint8_t>(512, 0x5A));
    EXPECT_EQ(Log().back().rfind("ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc00002b6, ", 0),
              0u);
}

}  // namespace
}  // namespace ornixtest
