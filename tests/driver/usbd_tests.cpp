// Submission of URBs: completion paths, the 5-second limit, the request
// semaphore and a missing IRP.
#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::FaultRule;
using usbsim::RequestKind;

using CallUsbdTest = DriverTest;

// A register read built by hand, so that the URB's own status can be seen.
void BuildRegisterRead(URB& urb, USHORT index, ULONG* value) {
    UsbBuildVendorRequest(&urb, URB_FUNCTION_VENDOR_DEVICE,
                          sizeof(struct _URB_CONTROL_VENDOR_OR_CLASS_REQUEST),
                          USBD_TRANSFER_DIRECTION_IN, 0, ORNIX_REQUEST_REGISTER, 0, index, value,
                          nullptr, sizeof(*value), nullptr);
}

void BuildCaptureRead(URB& urb, USBD_PIPE_HANDLE pipe, std::vector<uint8_t>& buffer) {
    UsbBuildInterruptOrBulkTransferRequest(
        &urb, sizeof(struct _URB_BULK_OR_INTERRUPT_TRANSFER), pipe, buffer.data(), nullptr,
        static_cast<ULONG>(buffer.size()), USBD_TRANSFER_DIRECTION_IN, nullptr);
}

TEST_F(CallUsbdTest, ReturnsTheStatusAPendingRequestCompletesWith) {
    ULONG value = 0;
    URB urb{};
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);
    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_SUCCESS);
    EXPECT_EQ(value, 1u);

    Stack().AddFault({.kind = RequestKind::VendorDevice,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);
    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_DEV_NOT_RESPONDING);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c0000001)"});
}

TEST_F(CallUsbdTest, RequestCompletedInsideIoCallDriverReturnsAtOnce) {
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    ULONG value = 0;
    URB urb{};
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);

    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_SUCCESS);

    EXPECT_EQ(value, 1u);
    EXPECT_EQ(SubmittedSinceStart(RequestKind::VendorDevice), 1u);
}

TEST_F(CallUsbdTest, RequestStillPendingAfterFiveSecondsIsCancelledAndTimesOut) {
    Stack().AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::NeverComplete});
    ULONG value = 0;
    URB urb{};
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);
    // Nothing else is on the bus, so the wait may pass quickly.
    winsim::SetTimeScale(1000);
    const int64_t start = winsim::Now100ns();

    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_IO_TIMEOUT);

    EXPECT_GE(winsim::Now100ns() - start, 50'000'000);
    winsim::SetTimeScale(kTimeScale);
    // The IRP came back cancelled before it was freed (the verifier checks
    // the free), and the semaphore is free for the next request.
    EXPECT_EQ(Stack().Counts(RequestKind::VendorDevice).cancelled, 1u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c00000b5)"});
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);
    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_SUCCESS);
}

TEST_F(CallUsbdTest, ControlRequestHoldsTheRequestSemaphoreOnTheBus) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    LONG countOnTheBus = -1;
    Camera().SetReadHook(ORNIX_SPEC_VERSION, [&](uint16_t, uint32_t stored) {
        countOnTheBus = KeReadStateSemaphore(&ext->UsbRequestSemaphore);
        return stored;
    });
    ULONG value = 0;

    EXPECT_EQ(OrnixRegRead(ext, ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);

    EXPECT_EQ(countOnTheBus, 0);
    EXPECT_EQ(KeReadStateSemaphore(&ext->UsbRequestSemaphore), 1);
}

TEST_F(CallUsbdTest, BulkTransferGoesOutWhileTheSemaphoreIsHeld) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    Camera().SetEndpointHandler(0x81, [](std::span<uint8_t> data) {
        std::fill(data.begin(), data.end(), 0x5A);
        return usbsim::TransferResult::Ack(static_cast<uint32_t>(data.size()));
    });
    std::vector<uint8_t> buffer(512);
    URB urb{};
    BuildCaptureRead(urb, ext->InterfaceInfoTable[0]->Pipes[ext->CapturePipe].PipeHandle, buffer);

    // As if a control request of another thread were in progress.
    KeWaitForSingleObject(&ext->UsbRequestSemaphore, Executive, KernelMode, FALSE, nullptr);
    std::future<NTSTATUS> bulk =
        std::async(std::launch::async, [&] { return OrnixCallUsbd(ext, &urb); });
    // Only a driver that waits for the semaphore is still busy after this
    // generous bound; it is released below so that the thread can finish.
    const bool finished = bulk.wait_for(std::chrono::seconds(60)) == std::future_status::ready;
    KeReleaseSemaphore(&ext->UsbRequestSemaphore, LOW_REALTIME_PRIORITY, 1, FALSE);

    EXPECT_TRUE(finished);
    EXPECT_EQ(bulk.get(), STATUS_SUCCESS);
    EXPECT_EQ(buffer, std::vector<uint8_t>(512, 0x5A));
}

TEST_F(CallUsbdTest, MissingIrpFailsTheRequestAndReleasesTheSemaphore) {
    winsim::FailAllocationsWithTag(kIrpTag);
    ULONG value = 0;
    URB urb{};
    BuildRegisterRead(urb, ORNIX_SPEC_VERSION, &value);

    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: ***Error*** USBCAMD_CallUSBD (c0000001)"});
    EXPECT_EQ(SubmittedSinceStart(RequestKind::Any), 0u);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(OrnixCallUsbd(Ext(), &urb), STATUS_SUCCESS);
}

}  // namespace
}  // namespace ornixtest
