// Selecting configurations and settings (the wire, the URB, the handles that work
// afterwards); stalls until a pipe reset, NAKs until ready, and pipe aborts.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class ConfigurationTest : public UsbStackTest {
  protected:
    NTSTATUS Transfer(USBD_PIPE_HANDLE pipe, bool in, ULONG length) {
        std::vector<uint8_t> buffer(length);
        URB urb = TransferUrb(pipe, in, buffer.data(), length);
        return SubmitUrb(Pdo(), &urb);
    }
};

constexpr SetupFields kSetConfiguration1{0x00, 9, 1, 0, 0}, kSetInterface1{0x01, 11, 1, 0, 0};

TEST_F(ConfigurationTest, SelectConfigurationFillsHandlesAndKeepsTheClientsTransferSizes) {
    std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
    UrbBuffer urb = SelectUrb(&descriptor, nullptr, 0, 3);
    PUSBD_PIPE_INFORMATION pipes = InterfaceOf(urb)->Pipes;
    pipes[1].MaximumTransferSize = 97991;  // the bulk-out pipe takes one FPGA image
    pipes[1].PipeFlags = USBD_PF_CHANGE_MAX_PACKET;
    pipes[1].MaximumPacketSize = 64;
    pipes[2].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;

    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);
    EXPECT_EQ(Fields(device.ControlLog().back()), kSetConfiguration1);
    EXPECT_EQ(stack->ConfigurationValue(), 1);

    const USBD_INTERFACE_INFORMATION& info = *InterfaceOf(urb);
    EXPECT_NE(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);
    EXPECT_NE(info.InterfaceHandle, nullptr);
    EXPECT_EQ(info.NumberOfPipes, 3u);
    EXPECT_EQ(info.Class, 0xFF);
    // Address, type, packet size, interval, transfer size: the client may
    // keep its own packet size.
    auto pipe = [&](int i) {
        const USBD_PIPE_INFORMATION& p = pipes[i];
        return std::tuple<int, int, int, int, ULONG>(
            p.EndpointAddress, p.PipeType, p.MaximumPacketSize, p.Interval, p.MaximumTransferSize);
    };
    EXPECT_EQ(pipe(0), std::tuple(0x81, UsbdPipeTypeBulk, 512, 0, 0x200000u));
    EXPECT_EQ(pipe(1), std::tuple(0x02, UsbdPipeTypeBulk, 64, 0, 97991u));
    EXPECT_EQ(pipe(2), std::tuple(0x83, UsbdPipeTypeInterrupt, 4, 8,
                                  ULONG{USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE}));
    const std::set<USBD_PIPE_HANDLE> handles{pipes[0].PipeHandle, pipes[1].PipeHandle,
                                             pipes[2].PipeHandle};
    EXPECT_EQ(handles.size(), 3u);
    EXPECT_FALSE(handles.contains(nullptr));

    // Each pipe takes transfers up to its own MaximumTransferSize, not beyond.
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97991), STATUS_SUCCESS);
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97992), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Transfer(pipes[0].PipeHandle, true, 0x200000), STATUS_SUCCESS);
    EXPECT_EQ(device.TransferLog().front().second, 97991u);  // in one transfer
}

TEST_F(ConfigurationTest, SelectInterfaceReplacesThePipesAndCancelsTransfersOnTheOldOnes) {
    Configure(0);
    const USBD_PIPE_HANDLE oldInterrupt = PipeFor(FakeUsbDevice::kInterruptIn);
    device.SetNak(FakeUsbDevice::kInterruptIn, true);
    URB pending = TransferOn(FakeUsbDevice::kInterruptIn, 4);
    UrbCall transfer(Pdo(), &pending);
    RecordCompletion(transfer, 1);
    ASSERT_EQ(transfer.Send(), STATUS_PENDING);
    stack->WaitIdle();

    UrbBuffer select = SelectUrb(nullptr, configurationHandle, 1, 2);
    UrbCall call(Pdo(), select.get());
    RecordCompletion(call, 2);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(completionOrder, (std::vector<int>{1, 2}));  // the transfer first
    EXPECT_EQ(pending.UrbHeader.Status, USBD_STATUS_CANCELED);
    EXPECT_EQ(Fields(device.ControlLog().back()), kSetInterface1);
    EXPECT_EQ(stack->AlternateSetting(0), 1);
    const USBD_INTERFACE_INFORMATION& info = *InterfaceOf(select);
    EXPECT_EQ(info.Pipes[0].EndpointAddress, FakeUsbDevice::kBulkIn);
    EXPECT_EQ(PipeFor(FakeUsbDevice::kSecondBulkIn), (info.Pipes + 1)->PipeHandle);

    URB stale = TransferUrb(oldInterrupt, true, data, sizeof data);
    EXPECT_EQ(SubmitUrb(Pdo(), &stale), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(stale.UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    EXPECT_EQ(Transfer((info.Pipes + 1)->PipeHandle, true, 512), STATUS_SUCCESS);
}

TEST_F(ConfigurationTest, NonZeroSettingFollowsTheConfigurationAndUnconfiguringDropsIt) {
    Configure(1);
    const std::vector<SetupPacket> log = device.ControlLog();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(Fields(log[0]), kSetConfiguration1);
    EXPECT_EQ(Fields(log[1]), kSetInterface1);
    EXPECT_EQ(stack->AlternateSetting(0), 1);
    const USBD_PIPE_HANDLE old = PipeFor(FakeUsbDevice::kSecondBulkIn);
    EXPECT_EQ(Transfer(old, true, 512), STATUS_SUCCESS);

    // Only the header, descriptor and handle matter when the descriptor is null.
    UrbBuffer urb(60);
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);

    EXPECT_EQ(Fields(device.ControlLog().back()), (SetupFields{0x00, 9, 0, 0, 0}));
    EXPECT_EQ(stack->ConfigurationValue(), 0);
    EXPECT_TRUE(stack->OpenPipes().empty());
    EXPECT_EQ(Transfer(old, true, 512), STATUS_INVALID_PARAMETER);
}

class PipeTest : public UsbStackTest {
  protected:
    void SetUp() override {
        UsbStackTest::SetUp();
        Configure();
    }
};

TEST_F(PipeTest, StallHaltsTheEndpointUntilThePipeIsReset) {
    URB ok = BulkIn();
    ASSERT_EQ(SubmitUrb(Pdo(), &ok), STATUS_SUCCESS);
    EXPECT_EQ(StatusOf(FakeUsbDevice::kBulkIn).dataToggle, 1);  // one packet went by

    device.QueueAnswer(FakeUsbDevice::kBulkIn, TransferResult::Stall());
    URB stalled = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &stalled), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(stalled.UrbHeader.Status, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(StatusOf(FakeUsbDevice::kBulkIn).halted);

    URB refused = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &refused), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(refused.UrbHeader.Status, USBD_STATUS_ENDPOINT_HALTED);
    EXPECT_EQ(device.TransferLog().size(), 2u);  // the halted pipe sent nothing

    URB reset =
        PipeUrb(URB_FUNCTION_SYNC_RESET_PIPE_AND_CLEAR_STALL, PipeFor(FakeUsbDevice::kBulkIn));
    UrbCall call(Pdo(), &reset, true);
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);
    // CLEAR_FEATURE(ENDPOINT_HALT) to the endpoint.
    EXPECT_EQ(Fields(device.ControlLog().back()),
              (SetupFields{0x02, 1, 0, FakeUsbDevice::kBulkIn, 0}));
    EXPECT_FALSE(StatusOf(FakeUsbDevice::kBulkIn).halted);
    EXPECT_EQ(StatusOf(FakeUsbDevice::kBulkIn).dataToggle, 0);
    URB again = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &again), STATUS_SUCCESS);
}

TEST_F(PipeTest, NakedTransferWaitsForTheReadyCallbackOfItsEndpoint) {
    device.SetNak(FakeUsbDevice::kInterruptIn, true);
    URB urb = TransferOn(FakeUsbDevice::kInterruptIn, 4);
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
    EXPECT_EQ(buffers.back()[0], 0x08);
}

TEST_F(PipeTest, ReadinessSignalledDuringTheNakedTransactionIsNotLost) {
    device.QueueAnswer(FakeUsbDevice::kInterruptIn, TransferResult::Nak());
    device.QueueAnswer(FakeUsbDevice::kInterruptIn, TransferResult::Ack(4), {0x01, 0, 0, 0});
    bool signalled = false;
    device.onTransfer = [&](uint8_t endpoint) {
        if (!signalled) {  // the device has data just as it answers Nak
            signalled = true;
            device.SignalReady(endpoint);
        }
    };
    URB urb = TransferOn(FakeUsbDevice::kInterruptIn, 4);
    EXPECT_EQ(SubmitUrb(Pdo(), &urb), STATUS_SUCCESS);
    EXPECT_EQ(buffers.back()[0], 0x01);
}

TEST_F(PipeTest, AbortCancelsEveryPendingTransferBeforeCompletingItself) {
    device.SetNak(FakeUsbDevice::kBulkIn, true);
    URB urbs[3] = {BulkIn(), BulkIn(), BulkIn()};
    std::vector<std::unique_ptr<UrbCall>> transfers;
    for (int i = 0; i < 3; ++i) {
        transfers.push_back(std::make_unique<UrbCall>(Pdo(), &urbs[i]));
        RecordCompletion(*transfers.back(), i);
        ASSERT_EQ(transfers.back()->Send(), STATUS_PENDING);
    }
    stack->WaitIdle();

    // Aborts may come at DISPATCH_LEVEL; TearDown fails on any verifier finding.
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(FakeUsbDevice::kBulkIn));
    UrbCall call(Pdo(), &abort, true);
    RecordCompletion(call, 99);
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] { EXPECT_EQ(call.Send(), STATUS_PENDING); });
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(completionOrder, (std::vector<int>{0, 1, 2, 99}));
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(transfers[i]->Wait(), STATUS_CANCELLED);
        EXPECT_EQ(urbs[i].UrbHeader.Status, USBD_STATUS_CANCELED);
    }
    device.SetNak(FakeUsbDevice::kBulkIn, false);
    URB after = BulkIn();
    EXPECT_EQ(SubmitUrb(Pdo(), &after), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
