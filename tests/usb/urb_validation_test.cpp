// Requests the stack refuses at once, inside IoCallDriver, each with the USBD
// status that names what is wrong, and without anything reaching the device.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

using usbsim::RequestKind;

class UrbValidationTest : public UsbStackTest {
  protected:
    void SetUp() override {
        UsbStackTest::SetUp();
        Configure();
    }

    void ExpectRefused(PURB urb, USBD_STATUS usbd, NTSTATUS nt) {
        UrbCall call(Pdo(), urb);
        EXPECT_EQ(call.Send(), nt);
        EXPECT_TRUE(call.Completed());
        if (urb != nullptr) {
            EXPECT_EQ(urb->UrbHeader.Status, usbd);
        }
    }
};

TEST_F(UrbValidationTest, MalformedUrbsAreRefusedWithTheirOwnStatus) {
    const size_t controlBefore = device.ControlLog().size();
    uint8_t buffer[64] = {};
    {
        SCOPED_TRACE("URB shorter than its function's structure");
        URB urb = VendorUrb(true, 0x12, 0, 0x10, buffer, 4);
        urb.UrbHeader.Length -= 1;
        ExpectRefused(&urb, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("function the stack does not know");
        URB urb = VendorUrb(true, 0x12, 0, 0x10, buffer, 4);
        urb.UrbHeader.Function = 0x7F;
        ExpectRefused(&urb, USBD_STATUS_INVALID_URB_FUNCTION, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("pipe handle the stack never issued");
        URB urb = TransferUrb(reinterpret_cast<USBD_PIPE_HANDLE>(0x1234), true, buffer, 64);
        ExpectRefused(&urb, USBD_STATUS_INVALID_PIPE_HANDLE, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("IN transfer on an OUT endpoint");
        URB urb = TransferUrb(PipeFor(FakeUsbDevice::kBulkOut), true, buffer, 64);
        ExpectRefused(&urb, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("transfer above the pipe's MaximumTransferSize");
        URB urb = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, buffer, 0x200001);
        ExpectRefused(&urb, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("data length without buffer or MDL");
        URB urb = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, nullptr, 16);
        ExpectRefused(&urb, USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("alternate setting the configuration does not have");
        UrbBuffer urb = SelectInterfaceUrb(configurationHandle, 7, 2, 4096);
        ExpectRefused(urb.get(), USBD_STATUS_INTERFACE_NOT_FOUND, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("configuration handle that is not the current one");
        UrbBuffer urb =
            SelectInterfaceUrb(reinterpret_cast<USBD_CONFIGURATION_HANDLE>(0x99), 1, 2, 4096);
        ExpectRefused(urb.get(), USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("interface information with room for fewer pipes than the setting has");
        UrbBuffer urb = SelectInterfaceUrb(configurationHandle, 1, 1, 4096);
        ExpectRefused(urb.get(), USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("URB too short for the interface information it announces");
        std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
        UrbBuffer urb = SelectConfigurationUrb(descriptor, 0, 3, 4096);
        urb->UrbHeader.Length -= sizeof(USBD_PIPE_INFORMATION);
        ExpectRefused(urb.get(), USBD_STATUS_INVALID_PARAMETER, STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("descriptor that is not a configuration descriptor");
        std::vector<uint8_t> descriptor = FakeUsbDevice::ConfigurationDescriptor();
        descriptor[1] = USB_INTERFACE_DESCRIPTOR_TYPE;
        UrbBuffer urb = SelectConfigurationUrb(descriptor, 0, 3, 4096);
        ExpectRefused(urb.get(), USBD_STATUS_INAVLID_CONFIGURATION_DESCRIPTOR,
                      STATUS_INVALID_PARAMETER);
    }
    {
        SCOPED_TRACE("no URB at all");
        ExpectRefused(nullptr, 0, STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(device.ControlLog().size(), controlBefore);
    EXPECT_TRUE(device.TransferLog().empty());
    EXPECT_EQ(stack->PendingRequests(), 0u);
    EXPECT_EQ(stack->Counts().failed, 12u);
}

TEST_F(UrbValidationTest, OnlyUrbSubmissionsAreServed) {
    uint8_t buffer[4] = {};
    URB urb = VendorUrb(true, 0x12, 0, 0x10, buffer, 4);
    {
        UrbCall call(Pdo(), &urb);
        IoGetNextIrpStackLocation(call.Irp())->MajorFunction = IRP_MJ_CREATE;
        EXPECT_EQ(call.Send(), STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_TRUE(call.Completed());
    }
    {
        UrbCall call(Pdo(), &urb);
        IoGetNextIrpStackLocation(call.Irp())->Parameters.DeviceIoControl.IoControlCode =
            IOCTL_INTERNAL_USB_GET_PORT_STATUS;
        EXPECT_EQ(call.Send(), STATUS_NOT_SUPPORTED);
        EXPECT_TRUE(call.Completed());
    }
    EXPECT_EQ(stack->Counts(RequestKind::VendorDevice).submitted, 0u);
}

}  // namespace
}  // namespace usbtest
