// The stack against the simulated camera: enumeration the way the driver
// does it (descriptors, then the configuration), then a register read.
#include "camera/camera.h"
#include "usb/configuration_descriptor.h"
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class CameraIntegrationTest : public ::testing::Test {
  protected:
    void SetUp() override {
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
        winsim::SetTimeScale(1000);
        stack = std::make_unique<usbsim::UsbStack>(camera);
    }
    void TearDown() override {
        stack.reset();
        for (const winsim::Violation& v : winsim::TakeViolations()) {
            ADD_FAILURE() << v.check << ": " << v.message;
        }
    }

    NTSTATUS GetDescriptor(uint8_t type, std::vector<uint8_t>& buffer) {
        URB urb = DescriptorUrb(type, 0, 0, buffer.data(), static_cast<ULONG>(buffer.size()));
        const NTSTATUS status = SubmitUrb(stack->PhysicalDeviceObject(), &urb);
        buffer.resize(urb.UrbControlDescriptorRequest.TransferBufferLength);
        return status;
    }

    ornixcam::Camera camera;
    std::unique_ptr<usbsim::UsbStack> stack;
};

TEST_F(CameraIntegrationTest, EnumeratesTheCameraAndReadsItsSpecVersion) {
    std::vector<uint8_t> device(18);
    ASSERT_EQ(GetDescriptor(USB_DEVICE_DESCRIPTOR_TYPE, device), STATUS_SUCCESS);
    ASSERT_EQ(device.size(), 18u);
    EXPECT_EQ(device[1], USB_DEVICE_DESCRIPTOR_TYPE);

    std::vector<uint8_t> configuration(64);
    ASSERT_EQ(GetDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration), STATUS_SUCCESS);
    configuration.resize(configuration[2] | configuration[3] << 8);
    ASSERT_EQ(GetDescriptor(USB_CONFIGURATION_DESCRIPTOR_TYPE, configuration), STATUS_SUCCESS);

    const auto parsed = usbsim::ParseConfigurationDescriptor(configuration);
    ASSERT_TRUE(parsed);
    const usbsim::AlternateSettingDescription* setting = parsed->Find(0, 0);
    ASSERT_NE(setting, nullptr);
    UrbBuffer select = SelectConfigurationUrb(configuration, 0,
                                              static_cast<ULONG>(setting->endpoints.size()), 4096);
    ASSERT_EQ(SubmitUrb(stack->PhysicalDeviceObject(), select.get()), STATUS_SUCCESS);
    EXPECT_EQ(camera.Configuration(), parsed->configurationValue);
    EXPECT_EQ(stack->ConfigurationValue(), parsed->configurationValue);
    EXPECT_EQ(stack->OpenPipes().size(), setting->endpoints.size());

    constexpr uint16_t kSpecVersion = 0x0010;
    uint8_t value[4] = {};
    URB read = VendorUrb(true, ornixcam::vendor_request::kRegisterAccess, 0, kSpecVersion, value,
                         sizeof value);
    ASSERT_EQ(SubmitUrb(stack->PhysicalDeviceObject(), &read), STATUS_SUCCESS);
    ASSERT_EQ(read.UrbControlVendorClassRequest.TransferBufferLength, 4u);
    EXPECT_EQ(value[0] | value[1] << 8 | value[2] << 16 | static_cast<uint32_t>(value[3]) << 24,
              camera.PeekRegister(kSpecVersion));
}

}  // namespace
}  // namespace usbtest
