// Selecting configurations and settings (the URB, the handles that work afterwards,
// unconfiguring); stalls until a pipe reset, NAKs until ready, and pipe aborts.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using ConfigurationTest = UsbStackTest;

TEST_F(ConfigurationTest, SelectConfigurationFillsHandlesAndKeepsTheClientsTransferSizes) {
    UrbBuffer urb = SelectUrb(&descriptor, nullptr, 0, 3);
    PUSBD_PIPE_INFORMATION pipes = InterfaceOf(urb)->Pipes;
    pipes[1].MaximumTransferSize = 97991;  // the bulk-out pipe takes one FPGA image
    pipes[1].PipeFlags = USBD_PF_CHANGE_MAX_PACKET;
    pipes[1].MaximumPacketSize = 64;
    pipes[2].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;

    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);
    EXPECT_EQ(stack->ConfigurationValue(), 1);
    // The client may keep its own packet size.
    EXPECT_EQ(std::tuple(pipes[1].EndpointAddress, pipes[1].PipeType, pipes[1].MaximumPacketSize,
                         pipes[1].MaximumTransferSize),
              std::tuple(0x02, UsbdPipeTypeBulk, 64, 97991u));
    EXPECT_EQ(pipes[2].Interval, 8);

    // Each pipe takes transfers up to its own MaximumTransferSize, not beyond.
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97991), STATUS_SUCCESS);
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97992), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Transfer(pipes[0].PipeHandle, true, 0x200000), STATUS_SUCCESS);
    EXPECT_EQ(device.TransferLog().front().second, 97991u);  // in one transfer
}

TEST_F(ConfigurationTest,
       SelectInterfaceReplacesThePipesCancellingTransfersAndUnconfiguringDropsThem) {
    Configure();
    const USBD_PIPE_HANDLE oldInterrupt = PipeFor(kInterruptIn);
    device.SetNak(kInterruptIn, true);
    URB pending = TransferOn(kInterruptIn, 4);
    UrbCall transfer(Pdo(), &pending);
    ASSERT_EQ(transfer.Send(), STATUS_PENDING);
    stack->WaitIdle();

    UrbBuffer select = SelectUrb(nullptr, configurationHandle, 1, 2);
    UrbCall call(Pdo(), select.get());
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_LT(transfer.completedAs.load(), call.completedAs.load());  // the transfer first
    EXPECT_EQ(pending.UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_EQ(stack->AlternateSetting(0), 1);
    const USBD_PIPE_HANDLE fresh = (InterfaceOf(select)->Pipes + 1)->PipeHandle;
    EXPECT_EQ(PipeFor(kSecondBulkIn), fresh);
    ExpectStale(oldInterrupt);
    EXPECT_EQ(Transfer(fresh, true, 512), STATUS_SUCCESS);

    // Only the header, descriptor and handle matter when the descriptor is null.
    UrbBuffer unconfigure(60);
    unconfigure->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    ASSERT_EQ(SubmitUrb(Pdo(), unconfigure.get()), STATUS_SUCCESS);
    EXPECT_TRUE(stack->OpenPipes().empty());
    EXPECT_EQ(Transfer(fresh, true, 512), STATUS_INVALID_PARAMETER);
}

// Selecting a configuration aborts every old pipe: waiting transfers come back
// cancelled, one the device is answering finishes first, and the selection
// completes after all of them.
TEST_F(ConfigurationTest, SelectingAConfigurationCancelsWaitingTransfersOfTheOldPipesFirst) {
    Configure();
    const USBD_PIPE_HANDLE oldIn = PipeFor(kBulkIn);
    device.SetNak(kBulkIn, true);
    device.SetNak(kInterruptIn, true);
    HoldOnBus(kBulkOut);
    URB urbs[3] = {BulkIn(), TransferOn(kInterruptIn, 4),
                   TransferUrb(PipeFor(kBulkOut), false, data, sizeof data)};
    std::list<UrbCall> transfers;
    SendAll(urbs, transfers);
    WaitOnBus();

    UrbBuffer select = SelectUrb(&descriptor, nullptr, 0, 3);
    UrbCall call(Pdo(), select.get());
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(transfers.front().Wait(), STATUS_CANCELLED);
    EXPECT_EQ((++transfers.begin())->Wait(), STATUS_CANCELLED);
    EXPECT_EQ(urbs[1].UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_FALSE(call.Completed());  // the OUT transfer is still on the bus
    Release();
    EXPECT_EQ(transfers.back().Wait(), STATUS_SUCCESS);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    for (const UrbCall& transfer : transfers) {
        EXPECT_LT(transfer.completedAs.load(), call.completedAs.load());
    }
    ExpectStale(oldIn);
}

using PipeTest = UsbStackTest;

TEST_F(PipeTest, StallHaltsTheEndpointUntilThePipeIsReset) {
    Configure();
    URB ok = BulkIn();
    ASSERT_EQ(SubmitUrb(Pdo(), &ok), STATUS_SUCCESS);
    EXPECT_EQ(StatusOf(kBulkIn).dataToggle, 1);  // one packet went by

    device.QueueAnswer(kBulkIn, TransferResult::Stall());
    URB stalled = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &stalled), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stalled.UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(StatusOf(kBulkIn).halted);

    URB refused = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &refused), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(refused.UrbHeader.Status, USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(device.TransferLog().size(), 2u);  // the halted pipe sent nothing

    URB reset = PipeUrb(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, PipeFor(kBulkIn));
    UrbCall call(Pdo(), &reset);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_FALSE(StatusOf(kBulkIn).halted);
    EXPECT_EQ(StatusOf(kBulkIn).dataToggle, 0);
    URB again = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &again), STATUS_SUCCESS);
}

TEST_F(PipeTest, NakedTransferWaitsForTheReadinessOfItsEndpointEvenDuringTheNak) {
    Configure();
    device.SetNak(kInterruptIn, true);
    URB urb = TransferOn(kInterruptIn, 4);
    UrbCall call(Pdo(), &urb);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    stack->WaitIdle();  // a NAKed transfer does not keep the stack busy
    device.SignalReady(kBulkIn);
    stack->WaitIdle();
    EXPECT_FALSE(call.Completed());
    EXPECT_EQ(device.TransferLog().size(), 1u);  // not retried for another endpoint

    // The device has data just as it answers Nak once more: that readiness is not lost.
    device.SetNak(kInterruptIn, false);
    device.QueueAnswer(kInterruptIn, TransferResult::Nak());
    device.QueueAnswer(kInterruptIn, TransferResult::Ack(4), {0x08, 0, 0, 0});
    bool signalled = false;
    device.onTransfer = [&](uint8_t endpoint) {
        if (!signalled) {
            signalled = true;
            device.SignalReady(endpoint);
        }
    };
    device.SignalReady(0);  // every endpoint
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(buffers.back()[0], 0x08);
}

TEST_F(PipeTest, AbortCancelsEveryPendingTransferBeforeCompletingItself) {
    Configure();
    device.SetNak(kBulkIn, true);
    URB urbs[3] = {BulkIn(), BulkIn(), BulkIn()};
    std::list<UrbCall> transfers;
    SendAll(urbs, transfers);
    stack->WaitIdle();

    // Aborts may come at DISPATCH_LEVEL; TearDown fails on any verifier finding.
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(kBulkIn));
    UrbCall call(Pdo(), &abort);
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(call.Send(), STATUS_PENDING); });
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    int expectedOrder = call.completedAs - 3;  // in the order sent, right before the abort
    for (UrbCall& transfer : transfers) {
        EXPECT_EQ(transfer.Wait(), STATUS_CANCELLED);
        EXPECT_EQ(transfer.completedAs, expectedOrder++);
    }
    device.SetNak(kBulkIn, false);
    URB after = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &after), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
