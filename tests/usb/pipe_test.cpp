// Pipe behaviour: a stall halts the endpoint until the pipe is reset, a NAKed
// transfer waits for the device's ready callback, and an abort cancels the
// pipe's transfers before it completes itself.
#include <mutex>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::PipeStatus;
using usbsim::TransferResult;

class PipeTest : public UsbStackTest {
  protected:
    void SetUp() override {
        UsbStackTest::SetUp();
        Configure();
    }

    PipeStatus StatusOf(uint8_t endpoint) const {
        for (const PipeStatus& pipe : stack->OpenPipes()) {
            if (pipe.endpointAddress == endpoint) {
                return pipe;
            }
        }
        ADD_FAILURE() << "no pipe for endpoint " << int{endpoint};
        return {};
    }

    URB BulkIn(std::vector<uint8_t>& buffer) {
        return TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, buffer.data(),
                           static_cast<ULONG>(buffer.size()));
    }
};

TEST_F(PipeTest, StallHaltsTheEndpointUntilThePipeIsReset) {
    std::vector<uint8_t> buffer(512);
    URB ok = BulkIn(buffer);
    ASSERT_EQ(SubmitUrb(Pdo(), &ok), STATUS_SUCCESS);
    EXPECT_EQ(StatusOf(FakeUsbDevice::kBulkIn).dataToggle, 1);  // one packet went by

    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Stall());
    URB stalled = BulkIn(buffer);
    EXPECT_EQ(SubmitUrb(Pdo(), &stalled), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stalled.UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(StatusOf(FakeUsbDevice::kBulkIn).halted);

    URB refused = BulkIn(buffer);
    EXPECT_EQ(SubmitUrb(Pdo(), &refused), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(refused.UrbHeader.Status, USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(device.TransferLog().size(), 2u);  // the halted pipe sent nothing

    URB reset =
        PipeUrb(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, PipeFor(FakeUsbDevice::kBulkIn));
    {
        UrbCall call(Pdo(), &reset, true);
        ASSERT_EQ(call.Send(), STATUS_PENDING);
        EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    }
    const usbsim::SetupPacket clearHalt = device.ControlLog().back();
    EXPECT_EQ(clearHalt.bmRequestType, 0x02);
    EXPECT_EQ(clearHalt.bRequest, 1);
    EXPECT_EQ(clearHalt.wValue, 0);  // ENDPOINT_HALT
    EXPECT_EQ(clearHalt.wIndex, FakeUsbDevice::kBulkIn);
    EXPECT_FALSE(StatusOf(FakeUsbDevice::kBulkIn).halted);
    EXPECT_EQ(StatusOf(FakeUsbDevice::kBulkIn).dataToggle, 0);

    URB again = BulkIn(buffer);
    EXPECT_EQ(SubmitUrb(Pdo(), &again), STATUS_SUCCESS);
}

TEST_F(PipeTest, NakedTransferWaitsForTheReadyCallbackOfItsEndpoint) {
    device.SetNak(FakeUsbDevice::kInterruptIn, true);
    uint8_t event[4] = {};
    URB urb = TransferUrb(PipeFor(FakeUsbDevice::kInterruptIn), true, event, sizeof event);
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);

    stack->WaitIdle();  // a NAKed transfer does not keep the stack busy
    device.SignalReady(FakeUsbDevice::kBulkIn);
    stack->WaitIdle();
    EXPECT_FALSE(call.Completed());
    EXPECT_EQ(stack->PendingRequests(), 1u);
    EXPECT_EQ(device.TransferLog().size(), 1u);  // not retried for another endpoint

    device.SetNak(FakeUsbDevice::kInterruptIn, false);
    device.QueueAnswer(FakeUsbDevice::kInterruptIn, TransferResult::Ack(4), {0x08, 0, 0, 0});
    device.SignalReady(0);  // every endpoint
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(event[0], 0x08);
}

TEST_F(PipeTest, ReadinessSignalledDuringTheNakedTransactionIsNotLost) {
    device.QueueAnswer(FakeUsbDevice::kInterruptIn, TransferResult::Nak());
    device.QueueAnswer(FakeUsbDevice::kInterruptIn, TransferResult::Ack(4), {0x01, 0, 0, 0});
    bool signalled = false;
    device.SetTransferHook([&](uint8_t endpoint) {
        if (!signalled) {  // the device has data just as it answers Nak
            signalled = true;
            device.SignalReady(endpoint);
        }
    });
    uint8_t event[4] = {};
    URB urb = TransferUrb(PipeFor(FakeUsbDevice::kInterruptIn), true, event, sizeof event);
    EXPECT_EQ(SubmitUrb(Pdo(), &urb), STATUS_SUCCESS);
    EXPECT_EQ(event[0], 0x01);
}

TEST_F(PipeTest, AbortCancelsEveryPendingTransferBeforeCompletingItself) {
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    std::mutex mutex;
    std::vector<int> completionOrder;
    auto record = [&](int who) {
        std::lock_guard lock(mutex);
        completionOrder.push_back(who);
    };

    std::vector<uint8_t> buffers[3] = {std::vector<uint8_t>(512), std::vector<uint8_t>(512),
                                       std::vector<uint8_t>(512)};
    std::vector<URB> urbs;
    for (auto& buffer : buffers) {
        urbs.push_back(BulkIn(buffer));
    }
    std::vector<std::unique_ptr<UrbCall>> transfers;
    for (int i = 0; i < 3; ++i) {
        transfers.push_back(std::make_unique<UrbCall>(Pdo(), &urbs[i]));
        transfers.back()->onCompletion = [&record, i] { record(i); };
        ASSERT_EQ(transfers.back()->Send(), STATUS_PENDING);
    }
    stack->WaitIdle();

    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(FakeUsbDevice::kBulkIn));
    UrbCall call(Pdo(), &abort, true);
    call.onCompletion = [&] { record(99); };
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(call.Send(), STATUS_PENDING); });
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(completionOrder, (std::vector<int>{0, 1, 2, 99}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(transfers[i]->Wait(), STATUS_CANCELLED);
        EXPECT_EQ(urbs[i].UrbHeader.Status, USBD_STATUS_CANCELED);
    }

    device.SetNak(FakeUsbDevice::kBulkIn, false);
    URB after = BulkIn(buffers[0]);
    EXPECT_EQ(SubmitUrb(Pdo(), &after), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
