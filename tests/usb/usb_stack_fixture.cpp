#include "usb_stack_fixture.h"

#include <usbdi.h>

namespace usbtest {

URB VendorUrb(bool in, uint8_t request, uint16_t value, uint16_t index, void* buffer,
              ULONG length) {
    URB urb{};
    auto& u = urb.UrbControlVendorClassRequest;
    u.Hdr.Length = sizeof u;
    u.Hdr.Function = URB_FUNCTION_VENDOR_DEVICE;
    u.TransferFlags = in ? USBD_TRANSFER_DIRECTION_IN : 0;
    u.TransferBufferLength = length;
    u.TransferBuffer = buffer;
    u.Request = request;
    u.Value = value;
    u.Index = index;
    return urb;
}

URB DescriptorUrb(uint8_t type, uint8_t index, uint16_t language, void* buffer, ULONG length) {
    URB urb{};
    auto& u = urb.UrbControlDescriptorRequest;
    u.Hdr.Length = sizeof u;
    u.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
    u.TransferBufferLength = length;
    u.TransferBuffer = buffer;
    u.DescriptorType = type;
    u.Index = index;
    u.LanguageId = language;
    return urb;
}

URB TransferUrb(USBD_PIPE_HANDLE pipe, bool in, void* buffer, ULONG length) {
    URB urb{};
    auto& u = urb.UrbBulkOrInterruptTransfer;
    u.Hdr.Length = sizeof u;
    u.Hdr.Function = URB_FUNCTION_BULK_OR_INTERRUPT_TRANSFER;
    u.PipeHandle = pipe;
    u.TransferFlags = in ? USBD_TRANSFER_DIRECTION_IN : 0;
    u.TransferBufferLength = length;
    u.TransferBuffer = buffer;
    return urb;
}

URB PipeUrb(USHORT function, USBD_PIPE_HANDLE pipe) {
    URB urb{};
    urb.UrbPipeRequest.Hdr.Length = sizeof urb.UrbPipeRequest;
    urb.UrbPipeRequest.Hdr.Function = function;
    urb.UrbPipeRequest.PipeHandle = pipe;
    return urb;
}

namespace {

void FillInterface(USBD_INTERFACE_INFORMATION& info, uint8_t alternate, ULONG pipes,
                   ULONG maximumTransferSize) {
    info.Length = static_cast<USHORT>(GET_USBD_INTERFACE_SIZE(pipes));
    info.InterfaceNumber = 0;
    info.AlternateSetting = alternate;
    info.NumberOfPipes = pipes;
    for (ULONG i = 0; i < pipes; ++i) {
        (info.Pipes + i)->MaximumTransferSize = maximumTransferSize;
    }
}

}  // namespace

UrbBuffer SelectConfigurationUrb(std::vector<uint8_t>& descriptor, uint8_t alternate, ULONG pipes,
                                 ULONG maximumTransferSize) {
    UrbBuffer urb(GET_SELECT_CONFIGURATION_REQUEST_SIZE(1, pipes));
    auto& u = urb->UrbSelectConfiguration;
    u.Hdr.Length = static_cast<USHORT>(urb.size());
    u.Hdr.Function = URB_FUNCTION_SELECT_CONFIGURATION;
    u.ConfigurationDescriptor = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(descriptor.data());
    FillInterface(u.Interface, alternate, pipes, maximumTransferSize);
    return urb;
}

UrbBuffer SelectInterfaceUrb(USBD_CONFIGURATION_HANDLE configuration, uint8_t alternate,
                             ULONG pipes, ULONG maximumTransferSize) {
    UrbBuffer urb(GET_SELECT_INTERFACE_REQUEST_SIZE(pipes));
    auto& u = urb->UrbSelectInterface;
    u.Hdr.Length = static_cast<USHORT>(urb.size());
    u.Hdr.Function = URB_FUNCTION_SELECT_INTERFACE;
    u.ConfigurationHandle = configuration;
    FillInterface(u.Interface, alternate, pipes, maximumTransferSize);
    return urb;
}

PUSBD_INTERFACE_INFORMATION InterfaceOf(UrbBuffer& urb) {
    return urb->UrbHeader.Function == URB_FUNCTION_SELECT_CONFIGURATION
               ? &urb->UrbSelectConfiguration.Interface
               : &urb->UrbSelectInterface.Interface;
}

void UsbStackTest::SetUp() {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    winsim::SetTimeScale(1000);
    stack = std::make_unique<usbsim::UsbStack>(device, options);
}

void UsbStackTest::TearDown() {
    stack.reset();
    std::vector<std::string> seen;
    for (const winsim::Violation& v : winsim::TakeViolations()) {
        seen.push_back(v.check);
        if (std::find(expectedViolations.begin(), expectedViolations.end(), v.check) ==
            expectedViolations.end()) {
            ADD_FAILURE() << "unexpected verifier finding " << v.check << ": " << v.message;
        }
    }
    for (const std::string& check : expectedViolations) {
        EXPECT_NE(std::find(seen.begin(), seen.end(), check), seen.end())
            << "the verifier did not report " << check;
    }
}

void UsbStackTest::Configure(uint8_t alternate, ULONG maximumTransferSize) {
    std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
    const ULONG pipes = alternate == 0 ? 3 : 2;
    UrbBuffer urb = SelectConfigurationUrb(descriptor, alternate, pipes, maximumTransferSize);
    ASSERT_EQ(SubmitUrb(Pdo(), urb.get()), STATUS_SUCCESS);
    configurationHandle = urb->UrbSelectConfiguration.ConfigurationHandle;
}

USBD_PIPE_HANDLE UsbStackTest::PipeFor(uint8_t endpoint) const {
    for (const usbsim::PipeStatus& pipe : stack->OpenPipes()) {
        if (pipe.endpointAddress == endpoint) {
            return pipe.handle;
        }
    }
    ADD_FAILURE() << "no open pipe for endpoint " << int{endpoint};
    return nullptr;
}

}  // namespace usbtest
