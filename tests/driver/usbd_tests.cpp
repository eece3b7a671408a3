// Submission of URBs, its time-out and the synchronous bulk transfer; pipe reset, synchronous and
// deferred, and selection of an alternate setting on a configured camera.
#include <cstdint>
#include <span>
#include <string>
#include <thread>
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
    URB urb_{};
    ULONG value_ = 0;
};

// Completed in IoCallDriver or later, failed or without an IRP: each frees the
// semaphore. The time-out is UsbTimeoutTest's.
TEST_F(CallUsbdTest, ReturnsTheStatusTheRequestCompletesWith) {
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(value_, 1u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::VendorDevice), 1u);
    EXPECT_TRUE(Log().empty());
    const std::vector<std::string> failure{"ORNIX: ***Error*** USBCAMD_CallUSBD (c0000001)"};
    Stack().AddFault({.kind = RequestKind::VendorDevice});  // device not responding
    EXPECT_EQ(ReadVersion(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb_.UrbHeader.Status, USBD_STATUS_DEV_NOT_RESPONDING);
    EXPECT_EQ(Log(), failure);
    winsim::ClearDebugLog();
    winsim::FailAllocationsWithTag(kIrpTag);
    EXPECT_EQ(ReadVersion(), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Log(), failure);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::Any), 2u);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);  // the semaphore is free again
}

// Only control requests hold the semaphore; a failed transfer leaves the buffer alone.
TEST_F(CallUsbdTest, BulkTransferGoesOutWithoutTheRequestSemaphore) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    LONG controlCount = -1;
    LONG bulkCount = -1;
    Camera().SetReadHook(ORNIX_SPEC_VERSION, [&](uint16_t, uint32_t stored) {
        controlCount = KeReadStateSemaphore(&ext->UsbRequestSemaphore);
        return stored;
    });
    Camera().SetEndpointHandler(0x02, [&](std::span<uint8_t> data) {
        bulkCount = KeReadStateSemaphore(&ext->UsbRequestSemaphore);
        return usbsim::TransferResult::Ack(static_cast<uint32_t>(data.size()));
    });
    ASSERT_EQ(OrnixSelectAltSetting(ext, ext->FpgaAltSetting), STATUS_SUCCESS);
    std::vector<uint8_t> image(97991, 0x5A);
    const auto bulk = [&](BOOLEAN in) {
        return BulkAsynchTransfer(ext, image.data(), nullptr, ULONG(image.size()), ext->FpgaPipe,
                                  in);
    };
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(bulk(FALSE), STATUS_SUCCESS);
    EXPECT_EQ(controlCount, 0);
    EXPECT_EQ(bulkCount, 1);
    EXPECT_EQ(KeReadStateSemaphore(&ext->UsbRequestSemaphore), 1);
    Stack().AddFault({.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::Stall});
    EXPECT_EQ(bulk(FALSE), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Log().back(),
              "ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc0000001, USBD_STATUS 0xc0000004, "
              "length 0x0");
    Stack().Remove();
    EXPECT_EQ(bulk(TRUE), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(image, std::vector<uint8_t>(97991, 0x5A));
}

// A register read whose camera hangs while the request is on the bus: the
// driver gives up after five seconds, cancels the request and frees its IRP
// only once the stack has given it back.
using UsbTimeoutTest = DriverTest;

// The stack completes the cancelled request well after IoCancelIrp, as a slow
// host controller does; a driver freeing the IRP before that is a finding.
TEST_F(UsbTimeoutTest, RegisterReadOfAHungCameraTimesOutOnceTheCancelledRequestIsBack) {
    constexpr int64_t kTimeout = 50'000'000;                 // 5 s
    constexpr int64_t kCancellationLatency = 1'000'000'000;  // 100 s
    Stack().AddFault(
        {.kind = usbsim::RequestKind::VendorDevice, .action = usbsim::FaultAction::NeverComplete});
    Stack().SetCancellationLatency(kCancellationLatency);
    winsim::SetTimeScale(1000);  // nothing else is on the bus: the waits may pass quickly
    ULONG value = 0xA5A5A5A5;
    const int64_t start = winsim::Now100ns();
    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_IO_TIMEOUT);
    EXPECT_GE(winsim::Now100ns() - start, kTimeout + kCancellationLatency);
    winsim::SetTimeScale(kTimeScale);

    EXPECT_EQ(value, 0xA5A5A5A5u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_TRUE(Logged("ORNIX: ***Error*** USBCAMD_CallUSBD (c00000b5)"));
    // The request semaphore is free again.
    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
}

// Bring-up has configured the camera: both alternate settings are known.
using PipeTest = DriverTest;

// A deferred reset of `pipe`, run to its end.
void ResetLater(PORNIX_DEVICE_CONTEXT ext, ULONG pipe, CallbackRecord& record) {
    OrnixResetPipeNoWait(ext, pipe, RecordResetDone, &record);
    winsim::DrainWorkQueue();
}

// The halt is cleared by the stack's reset, then by the driver; the camera stops
// feeding the capture pipe first. A failed reset clears nothing.
TEST_F(PipeTest, DeferredResetStopsCaptureFirstAndCallsBackOnceWhateverHappens) {
    CallbackRecord capture, still, failed, noMemory, removed;
    ResetLater(Ext(), Ext()->CapturePipe, capture);
    ResetLater(Ext(), Ext()->StillPipe, still);
    const WireRequest clear81{0x02, kClearFeature, 0, 0x81, 0, {}};
    const WireRequest clear82{0x02, kClearFeature, 0, 0x82, 0, {}};
    const WireRequest stop{0x40, ORNIX_REQUEST_REGISTER, 0, 0x0214, 4, {0, 0, 0, 0}};
    EXPECT_EQ(ControlRequests(),
              (std::vector<WireRequest>{stop, clear81, clear81, clear82, clear82}));
    EXPECT_EQ(capture.calls, 1);
    EXPECT_EQ(capture.status, STATUS_SUCCESS);
    EXPECT_NE(capture.thread.load(), std::this_thread::get_id());
    EXPECT_EQ(still.status, STATUS_SUCCESS);
    // Each failure is reported, the lack of a work record at once.
    Camera().ClearRequests();
    Stack().AddFault({.kind = RequestKind::ResetPipe});
    ResetLater(Ext(), Ext()->StillPipe, failed);
    Stack().ClearFaults();
    EXPECT_EQ(failed.calls, 1);
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_TRUE(Logged("ORNIX: OrnixResetPipe failed"));
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ResetPipe), 3u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ClearEndpointFeature), 2u);
    winsim::ClearDebugLog();
    winsim::FailNthAllocation(1);
    ResetLater(Ext(), Ext()->CapturePipe, noMemory);
    EXPECT_EQ(noMemory.calls, 1);
    EXPECT_EQ(noMemory.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(noMemory.thread.load(), std::this_thread::get_id());
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixResetPipeNoWait: no mem"});
    Ext()->Removed = TRUE;
    winsim::ClearDebugLog();
    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_DEVICE_REMOVED);
    ResetLater(Ext(), Ext()->CapturePipe, removed);
    EXPECT_EQ(removed.calls, 1);
    EXPECT_EQ(removed.status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Log(), (std::vector<std::string>{"ORNIX: OrnixResetPipe: 0",
                                               "ORNIX: OrnixResetPipe: Removed"}));
    EXPECT_TRUE(ControlRequests().empty());
}

// Only the pipe handles come back from a selection; one that fails or is refused
// keeps the current setting, which needs nothing on the bus, even of a removed camera.
TEST_F(PipeTest, SelectionTakesNewPipeHandlesOnlyAndFailureKeepsTheSetting) {
    PUSBD_PIPE_INFORMATION fpga = &Ext()->InterfaceInfoTable[1]->Pipes[0];
    fpga->MaximumPacketSize = 64;  // differs from what the stack reports
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX:  OrnixSelectAltSetting: no mem"});
    Stack().AddFault({.kind = RequestKind::SelectInterface});  // device not responding
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixSelectAltSetting, USBD failed with 0xc0000001"));
    EXPECT_EQ(fpga->PipeHandle, nullptr);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 2), STATUS_INVALID_PARAMETER);  // not the camera's
    EXPECT_EQ(OrnixGetPipe(Ext(), 2, 0), nullptr);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);
    EXPECT_EQ(Camera().AlternateSetting(), 1);
    EXPECT_NE(fpga->PipeHandle, nullptr);
    EXPECT_EQ(fpga->MaximumPacketSize, 64);
    EXPECT_EQ(fpga->MaximumTransferSize, FpgaImageTable[0].Length);
    EXPECT_EQ(ControlRequests(),
              std::vector<WireRequest>{(WireRequest{0x01, kSetInterface, 1, 0, 0, {}})});
    Camera().ClearRequests();
    Ext()->Removed = TRUE;
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
