// The stack against the simulated camera: enumeration the way the driver
// does it (descriptors, then the configuration), then a register read.
#include "camera/camera.h"
#include "usb/configuration_descriptor.h"
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

TEST(CameraIntegrationTest, EnumeratesTheCameraAndReadsARegister) {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    winsim::SetTimeScale(1000);
    ornixcam::Camera camera;
    {
        usbsim::UsbStack stack(camera);
        const PDEVICE_OBJECT pdo = stack.PhysicalDeviceObject();
        auto getDescriptor = [&](uint8_t type, std::vector<uint8_t>& buffer) {
            URB urb{};
            auto& u = urb.UrbControlDescriptorRequest;
            u.Hdr.Length = sizeof u;
            u.Hdr.Function = URB_FUNCTION_GET_DESCRIPTOR_FROM_DEVICE;
            u.TransferBufferLength = static_cast<ULONG>(buffer.size());
            u.TransferBuffer = buffer.data();
            u.DescriptorType = type;
            EXPECT_EQ(SubmitUrb(pdo, &urb), STATUS_SUCCESS);
            buffer.resize(u.TransferBufferLength);
        };
        std::vector<uint8_t> device(18), configuration(64);
        getDescriptor(USB_DEVICE_DESCRIPTOR_TYPE, device);
        ASSERT_EQ(device.size(), 18u);
        EXPECT_EQ(device[1], USB_DEVICE_DESCRIPTOR_TYPE);
        getDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration);
        configuration.resize(configuration.at(2) | configuration.at(3) << 8);
        getDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration);

        const auto parsed = usbsim::ParseConfigurationDescriptor(configuration);
        ASSERT_TRUE(parsed);
        const usbsim::AlternateSettingDescription* setting = parsed->Find(0, 0);
        ASSERT_NE(setting, nullptr);
        const auto pipes = static_cast<ULONG>(setting->endpoints.size());
        UrbBuffer select = SelectUrb(&configuration, nullptr, 0, pipes, 4096);
        ASSERT_EQ(SubmitUrb(pdo, select.get()), STATUS_SUCCESS);
        EXPECT_EQ(camera.Configuration(), parsed->configurationValue);
        EXPECT_EQ(stack.ConfigurationValue(), parsed->configurationValue);
        EXPECT_EQ(stack.OpenPipes().size(), setting->endpoints.size());

        uint8_t value[4] = {};
        URB read = VendorUrb(true, ornixcam::vendor_request::kRegisterAccess, 0x0010, value, 4);
        ASSERT_EQ(SubmitUrb(pdo, &read), STATUS_SUCCESS);
        ASSERT_EQ(read.UrbControlVendorClassRequest.TransferBufferLength, 4u);
        EXPECT_EQ(value[0] | value[1] << 8 | value[2] << 16 | static_cast<uint32_t>(value[3]) << 24,
                  camera.PeekRegister(0x0010));
    }
    for (const winsim::Violation& v : winsim::TakeViolations()) {
        ADD_FAILURE() << v.check << ": " << v.message;
    }
}

}  // namespace
}  // namespace usbtest
