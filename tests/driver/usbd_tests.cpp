// Submission of URBs and the synchronous bulk transfer; pipe reset, synchronous and
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
    NTSTATUS Bulk(std::vector<uint8_t>& buffer, BOOLEAN directionIn) {
        return BulkAsynchTransfer(Ext(), buffer.data(), nullptr, static_cast<ULONG>(buffer.size()),
                                  Ext()->FpgaPipe, directionIn);
    }
    URB urb_{};
    ULONG value_ = 0;
};

// Completed in IoCallDriver or later, failed, or without an IRP: each frees the semaphore.
TEST_F(CallUsbdTest, ReturnsTheStatusTheRequestCompletesWith) {
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(value_, 1u);
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
    EXPECT_EQ(value_, 1u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::VendorDevice), 2u);
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
    EXPECT_EQ(SubmittedSinceStart(RequestKind::Any), 3u);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
}

TEST_F(CallUsbdTest, RequestStillPendingAfterFiveSecondsIsCancelledAndTimesOut) {
    Stack().AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    winsim::SetTimeScale(1000);  // nothing else is on the bus: the wait may pass quickly
    const int64_t start = winsim::Now100ns();
    EXPECT_EQ(ReadVersion(), STATUS_IO_TIMEOUT);
    EXPECT_GE(winsim::Now100ns() - start, 50'000'000);
    winsim::SetTimeScale(kTimeScale);
    // Cancelled before it was freed (the verifier checks); the semaphore is free again.
    EXPECT_EQ(Stack().Counts(RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c00000b5)"});
    EXPECT_EQ(ReadVersion(), STATUS_SUCCESS);
}

// Only control requests hold the semaphore; a failed transfer leaves the buffer alone.
TEST_F(CallUsbdTest, BulkTransferGoesOutWholeWithoutTheRequestSemaphore) {
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
    Stack().AddFault({.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::Stall});
    EXPECT_EQ(Bulk(image, FALSE), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(Log().back(),
              "ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc0000001, USBD_STATUS 0xc0000004, "
              "length 0x0");
    Stack().Remove();
    EXPECT_EQ(Bulk(image, TRUE), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(image, std::vector<uint8_t>(97991, 0x5A));
    EXPECT_EQ(Log().back().rfind("ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc00002b6, ", 0),
              0u);
}

// Bring-up has configured the camera: both alternate settings are known.
using PipeTest = DriverTest;

struct ResetRecord {
    int calls = 0;
    NTSTATUS status = STATUS_PENDING;
    std::thread::id thread;
};

VOID RecordReset(PORNIX_DEVICE_CONTEXT, NTSTATUS status, PVOID context) {
    auto* record = static_cast<ResetRecord*>(context);
    *record = {record->calls + 1, status, std::this_thread::get_id()};
}

// A deferred reset of `pipe`, run to its end: what the callback saw.
ResetRecord ResetLater(PORNIX_DEVICE_CONTEXT ext, ULONG pipe) {
    ResetRecord record;
    OrnixResetPipeNoWait(ext, pipe, RecordReset, &record);
    winsim::DrainWorkQueue();
    return record;
}

// The halt is cleared by the stack's reset, then by the driver.
TEST_F(PipeTest, ResetClearsTheHaltAndTheDeferredOneStopsCaptureFirst) {
    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_SUCCESS);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ResetPipe), 1u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixResetPipe: 0"});
    const ResetRecord capture = ResetLater(Ext(), Ext()->CapturePipe);
    const ResetRecord still = ResetLater(Ext(), Ext()->StillPipe);
    const WireRequest clear81{0x02, kClearFeature, 0, 0x81, 0, {}};
    const WireRequest clear82{0x02, kClearFeature, 0, 0x82, 0, {}};
    const WireRequest stop{0x40, ORNIX_REQUEST_REGISTER, 0, 0x0214, 4, {0, 0, 0, 0}};
    EXPECT_EQ(ControlRequests(), (std::vector<WireRequest>{clear81, clear81, stop, clear81, clear81,
                                                           clear82, clear82}));
    EXPECT_EQ(capture.calls, 1);
    EXPECT_EQ(capture.status, STATUS_SUCCESS);
    EXPECT_NE(capture.thread, std::this_thread::get_id());
    EXPECT_EQ(still.status, STATUS_SUCCESS);
}

// The deferred reset reports each failure, its own lack of memory at once.
TEST_F(PipeTest, FailedResetsClearNothingAndTheDeferredOneReportsThem) {
    Stack().AddFault({.kind = RequestKind::ResetPipe, .occurrence = 0});
    EXPECT_FALSE(NT_SUCCESS(OrnixResetPipe(Ext(), Ext()->StillPipe)));
    const ResetRecord failed = ResetLater(Ext(), Ext()->StillPipe);
    Stack().ClearFaults();
    EXPECT_EQ(failed.calls, 1);
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_TRUE(Logged("ORNIX: OrnixResetPipe failed"));
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ResetPipe), 2u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ClearEndpointFeature), 0u);
    Camera().ClearRequests();
    winsim::ClearDebugLog();
    winsim::FailNthAllocation(1);
    ResetRecord noMemory;
    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordReset, &noMemory);
    EXPECT_EQ(noMemory.calls, 1);
    EXPECT_EQ(noMemory.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(noMemory.thread, std::this_thread::get_id());
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixResetPipeNoWait: no mem"});
    winsim::DrainWorkQueue();
    Ext()->Removed = TRUE;
    winsim::ClearDebugLog();
    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_DEVICE_REMOVED);
    const ResetRecord removed = ResetLater(Ext(), Ext()->CapturePipe);
    EXPECT_EQ(removed.calls, 1);
    EXPECT_EQ(removed.status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Log(), (std::vector<std::string>{"ORNIX: OrnixResetPipe: 0",
                                               "ORNIX: OrnixResetPipe: Removed"}));
    EXPECT_TRUE(ControlRequests().empty());
}

// Bring-up kept the records of both settings; only the selected one has handles.
TEST_F(PipeTest, SelectedSettingGetsNewPipeHandlesOnly) {
    PUSBD_INTERFACE_INFORMATION fpga = Ext()->InterfaceInfoTable[1];
    EXPECT_NE(Ext()->InterfaceInfoTable[0]->InterfaceHandle, nullptr);
    EXPECT_EQ(fpga->Pipes[0].PipeHandle, nullptr);
    fpga->Pipes[0].MaximumPacketSize = 64;  // differs from what the stack reports
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
    EXPECT_EQ(Camera().AlternateSetting(), 1);
    EXPECT_NE(fpga->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(fpga->Pipes[0].MaximumPacketSize, 64);
    EXPECT_EQ(fpga->Pipes[0].MaximumTransferSize, FpgaImageTable[0].Length);
    EXPECT_EQ(fpga->InterfaceHandle, nullptr);
    EXPECT_EQ(ControlRequests(),
              std::vector<WireRequest>{(WireRequest{0x01, kSetInterface, 1, 0, 0, {}})});
}

// The current setting needs nothing on the bus, even of a removed camera.
TEST_F(PipeTest, FailedOrRefusedSelectionKeepsTheCurrentSetting) {
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX:  OrnixSelectAltSetting: no mem"});
    Stack().AddFault({.kind = RequestKind::SelectInterface});  // device not responding
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixSelectAltSetting, USBD failed with 0xc0000001"));
    EXPECT_EQ(Ext()->InterfaceInfoTable[1]->Pipes[0].PipeHandle, nullptr);
    Camera().ClearRequests();
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 2), STATUS_INVALID_PARAMETER);  // not the camera's
    EXPECT_EQ(OrnixGetPipe(Ext(), 2, 0), nullptr);
    Ext()->Removed = TRUE;
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
