// How valid requests come back: pending and later on a host-controller thread
// at DISPATCH_LEVEL, inside IoCallDriver under the synchronous fault, with
// short data, and with completions of one pipe running side by side.
#include <chrono>
#include <future>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;
using usbsim::TransferResult;
using namespace std::chrono_literals;

constexpr auto kGenerousWait = 60s;  // only a broken stack ever waits this long

class CompletionTest : public UsbStackTest {};

TEST_F(CompletionTest, VendorReadPendsThenCompletesAtDispatchLevelOnAHostControllerThread) {
    device.SetRegister(0x0010, 0xA1B2C3D4);
    uint8_t data[4] = {};
    URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    UrbCall call(Pdo(), &urb);

    EXPECT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(call.completionIrql, DISPATCH_LEVEL);
    EXPECT_NE(call.completionThread, std::this_thread::get_id());
    EXPECT_EQ(urb.UrbHeader.Status, USBD_STATUS_SUCCESS);
    EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferBufferLength, 4u);
    EXPECT_EQ(data[0], 0xD4);
    EXPECT_EQ(data[3], 0xA1);
    const usbsim::SetupPacket setup = device.ControlLog().back();
    EXPECT_EQ(setup.bmRequestType, 0xC0);
    EXPECT_EQ(setup.bRequest, 0x12);
    EXPECT_EQ(setup.wIndex, 0x0010);
    EXPECT_EQ(setup.wLength, 4);
}

TEST_F(CompletionTest, SynchronousFaultCompletesInsideIoCallDriverAtTheCallersIrql) {
    stack->AddFault(
        {.kind = RequestKind::VendorDevice, .action = FaultAction::CompleteSynchronously});
    uint8_t data[4] = {1, 2, 3, 4};
    URB write = VendorUrb(false, 0x12, 0, 0x0020, data, sizeof data);
    UrbCall call(Pdo(), &write);
    EXPECT_EQ(call.Send(), STATUS_SUCCESS);
    EXPECT_TRUE(call.Completed());
    EXPECT_EQ(call.completionThread, std::this_thread::get_id());
    EXPECT_EQ(call.completionIrql, PASSIVE_LEVEL);
    EXPECT_EQ(device.ControlLog().back().bmRequestType, 0x40);

    // A failure comes back the same way, as IoCallDriver's result.
    Configure();
    stack->AddFault(
        {.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::CompleteSynchronously});
    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Stall());
    uint8_t frame[512];
    URB transfer = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    UrbCall bulk(Pdo(), &transfer);
    NTSTATUS returned = STATUS_PENDING;
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { returned = bulk.Send(); });
    EXPECT_EQ(returned, STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(bulk.Completed());
    EXPECT_EQ(bulk.completionIrql, DISPATCH_LEVEL);
    EXPECT_EQ(transfer.UrbHeader.Status, USBD_STATUS_STALL_PID);
}

TEST_F(CompletionTest, CompletionsOfOnePipeRunConcurrently) {
    Configure();
    uint8_t a[512], b[512];
    URB first = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, a, sizeof a);
    URB second = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, b, sizeof b);
    UrbCall one(Pdo(), &first), two(Pdo(), &second);

    // Each completion routine waits for the other one to have started: both
    // finish only if the second runs while the first is blocked.
    std::promise<void> firstBlocked, secondRan;
    std::future<void> firstBlockedSeen = firstBlocked.get_future();
    std::future<void> secondRanSeen = secondRan.get_future();
    bool firstSawSecond = false, secondSawFirst = false;
    one.onCompletion = [&] {
        firstBlocked.set_value();
        firstSawSecond = secondRanSeen.wait_for(kGenerousWait) == std::future_status::ready;
    };
    two.onCompletion = [&] {
        secondSawFirst = firstBlockedSeen.wait_for(kGenerousWait) == std::future_status::ready;
        secondRan.set_value();
    };

    EXPECT_EQ(one.Send(), STATUS_PENDING);
    EXPECT_EQ(two.Send(), STATUS_PENDING);
    EXPECT_EQ(one.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(two.Wait(), STATUS_SUCCESS);
    EXPECT_TRUE(firstSawSecond);
    EXPECT_TRUE(secondSawFirst);
}

TEST_F(CompletionTest, ShortDataIsASuccessWithTheBytesMoved) {
    Configure();
    uint8_t data[4] = {};
    device.QueueAnswer(0, TransferResult::Ack(2), {0xAA, 0xBB});
    URB read = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
    EXPECT_EQ(SubmitUrb(Pdo(), &read), STATUS_SUCCESS);
    EXPECT_EQ(read.UrbControlVendorClassRequest.TransferBufferLength, 2u);
    EXPECT_EQ(device.ControlLog().back().wLength, 4);  // the host asked for all four

    uint8_t frame[4096];
    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Ack(100));
    URB bulk = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    EXPECT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    EXPECT_EQ(bulk.UrbBulkOrInterruptTransfer.TransferBufferLength, 100u);

    stack->AddFault(
        {.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::ShortData, .shortLength = 7});
    bulk = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame, sizeof frame);
    EXPECT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    EXPECT_EQ(bulk.UrbBulkOrInterruptTransfer.TransferBufferLength, 7u);
}

}  // namespace
}  // namespace usbtest
