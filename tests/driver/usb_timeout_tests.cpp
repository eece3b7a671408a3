// A register read whose camera hangs while the request is on the bus: the
// driver gives up after five seconds, cancels the request and frees its IRP
// only once the stack has given it back.
#include <string>

#include "driver_harness.h"

namespace ornixtest {
namespace {

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
    EXPECT_TRUE(Logged("ORNIX: OrnixRegRead: index:0x0010 FAIOLED"));
    // The request semaphore is free again.
    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 1u);
}

}  // namespace
}  // namespace ornixtest
