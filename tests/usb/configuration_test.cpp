// Selecting configurations and interface settings: what goes on the wire,
// what the stack fills into the URB, and which pipe handles work afterwards.
#include <mutex>
#include <set>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::SetupPacket;

class ConfigurationTest : public UsbStackTest {
  protected:
    NTSTATUS Transfer(USBD_PIPE_HANDLE pipe, bool in, ULONG length) {
        std::vector<uint8_t> buffer(length);
        URB urb = TransferUrb(pipe, in, buffer.data(), length);
        return SubmitUrb(Pdo(), &urb);
    }

    static void ExpectSetup(const SetupPacket& setup, uint8_t type, uint8_t request, uint16_t value,
                            uint16_t index) {
        EXPECT_EQ(setup.bmRequestType, type);
        EXPECT_EQ(setup.bRequest, request);
        EXPECT_EQ(setup.wValue, value);
        EXPECT_EQ(setup.wIndex, index);
        EXPECT_EQ(setup.wLength, 0);
    }
};

TEST_F(ConfigurationTest, SelectConfigurationFillsHandlesAndKeepsTheClientsTransferSizes) {
    std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
    UrbBuffer urb = SelectConfigurationUrb(descriptor, 0, 3, 0x200000);
    PUSBD_PIPE_INFORMATION pipes = InterfaceOf(urb)->Pipes;
    pipes[1].MaximumTransferSize = 97991;  // the bulk-out pipe takes one FPGA image
    pipes[1].PipeFlags = USBD_PF_CHANGE_MAX_PACKET;
    pipes[1].MaximumPacketSize = 64;
    pipes[2].MaximumTransferSize = USBD_DEFAULT_MAXIMUM_TRANSFER_SIZE;

    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);
    ExpectSetup(device.ControlLog().back(), 0x00, 9, FakeUsbDevice::kConfigurationValue, 0);
    EXPECT_EQ(stack->ConfigurationValue(), FakeUsbDevice::kConfigurationValue);

    const USBD_INTERFACE_INFORMATION& info = *InterfaceOf(urb);
    EXPECT_NE(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);
    EXPECT_NE(info.InterfaceHandle, nullptr);
    EXPECT_EQ(info.NumberOfPipes, 3u);
    EXPECT_EQ(info.Class, 0xFF);

    EXPECT_EQ(pipes[0].EndpointAddress, FakeUsbDevice::kBulkIn);
    EXPECT_EQ(pipes[0].PipeType, UsbdPipeTypeBulk);
    EXPECT_EQ(pipes[0].MaximumPacketSize, 512);
    EXPECT_EQ(pipes[0].MaximumTransferSize, 0x200000u);
    EXPECT_EQ(pipes[1].EndpointAddress, FakeUsbDevice::kBulkOut);
    EXPECT_EQ(pipes[1].MaximumPacketSize, 64);  // the client asked to keep its own
    EXPECT_EQ(pipes[2].EndpointAddress, FakeUsbDevice::kInterruptIn);
    EXPECT_EQ(pipes[2].PipeType, UsbdPipeTypeInterrupt);
    EXPECT_EQ(pipes[2].Interval, 8);
    EXPECT_EQ(pipes[2].MaximumPacketSize, 4);
    const std::set<USBD_PIPE_HANDLE> handles{pipes[0].PipeHandle, pipes[1].PipeHandle,
                                             pipes[2].PipeHandle};
    EXPECT_EQ(handles.size(), 3u);
    EXPECT_FALSE(handles.contains(nullptr));

    // Each pipe takes transfers up to its own MaximumTransferSize, not beyond.
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97991), STATUS_SUCCESS);
    EXPECT_EQ(Transfer(pipes[1].PipeHandle, false, 97992), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Transfer(pipes[0].PipeHandle, true, 0x200000), STATUS_SUCCESS);
    EXPECT_EQ(device.TransferLog().front().length, 97991u);  // in one transfer
}

TEST_F(ConfigurationTest, NonZeroAlternateSettingIsSelectedAfterTheConfiguration) {
    Configure(1);
    const std::vector<SetupPacket> log = device.ControlLog();
    ASSERT_EQ(log.size(), 2u);
    ExpectSetup(log[0], 0x00, 9, FakeUsbDevice::kConfigurationValue, 0);
    ExpectSetup(log[1], 0x01, 11, 1, 0);
    EXPECT_EQ(stack->AlternateSetting(0), 1);
    EXPECT_EQ(Transfer(PipeFor(FakeUsbDevice::kSecondBulkIn), true, 512), STATUS_SUCCESS);
}

TEST_F(ConfigurationTest, SelectInterfaceReplacesThePipesAndCancelsTransfersOnTheOldOnes) {
    Configure(0);
    const USBD_PIPE_HANDLE oldInterrupt = PipeFor(FakeUsbDevice::kInterruptIn);
    device.SetNak(FakeUsbDevice::kInterruptIn, true);
    std::mutex mutex;
    std::vector<std::string> completionOrder;
    auto record = [&](const char* who) {
        std::lock_guard lock(mutex);
        completionOrder.push_back(who);
    };

    uint8_t event[4];
    URB pending = TransferUrb(oldInterrupt, true, event, sizeof event);
    UrbCall transfer(Pdo(), &pending);
    transfer.onCompletion = [&] { record("transfer"); };
    ASSERT_EQ(transfer.Send(), STATUS_PENDING);
    stack->WaitIdle();

    UrbBuffer select = SelectInterfaceUrb(configurationHandle, 1, 2, 4096);
    UrbCall call(Pdo(), select.get());
    call.onCompletion = [&] { record("select"); };
    ASSERT_EQ(call.Send(), STATUS_PENDING);
    EXPECT_EQ(call.Wait(), STATUS_SUCCESS);

    EXPECT_EQ(completionOrder, (std::vector<std::string>{"transfer", "select"}));
    EXPECT_EQ(pending.UrbHeader.Status, USBD_STATUS_CANCELED);
    ExpectSetup(device.ControlLog().back(), 0x01, 11, 1, 0);
    EXPECT_EQ(stack->AlternateSetting(0), 1);
    const USBD_INTERFACE_INFORMATION& info = *InterfaceOf(select);
    EXPECT_EQ(info.Pipes[0].EndpointAddress, FakeUsbDevice::kBulkIn);
    EXPECT_EQ(PipeFor(FakeUsbDevice::kSecondBulkIn), (info.Pipes + 1)->PipeHandle);

    URB stale = TransferUrb(oldInterrupt, true, event, sizeof event);
    EXPECT_EQ(SubmitUrb(Pdo(), &stale), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(stale.UrbHeader.Status, USBD_STATUS_INVALID_PIPE_HANDLE);
    EXPECT_EQ(Transfer((info.Pipes + 1)->PipeHandle, true, 512), STATUS_SUCCESS);
}

TEST_F(ConfigurationTest, UnconfiguringInvalidatesEveryHandle) {
    Configure();
    const USBD_PIPE_HANDLE old = PipeFor(FakeUsbDevice::kBulkIn);

    // Only the header, descriptor and handle matter when the descriptor is null.
    UrbBuffer urb(sizeof(_URB_SELECT_CONFIGURATION));
    urb->UrbHeader.Length = 60;
    urb->UrbHeader.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);

    ExpectSetup(device.ControlLog().back(), 0x00, 9, 0, 0);
    EXPECT_EQ(stack->ConfigurationValue(), 0);
    EXPECT_TRUE(stack->OpenPipes().empty());
    EXPECT_EQ(Transfer(old, true, 512), STATUS_INVALID_PARAMETER);
}

}  // namespace
}  // namespace usbtest
