// The camera's serial number, read from its string descriptor. Each case
// needs a camera with its own strings, so these tests bring up just the
// camera, the USB stack and the part of the device context the read uses.
#include <memory>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

class SerialNumberTest : public ::testing::Test {
  protected:
    void SetUp() override {
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
        winsim::SetTimeScale(kTimeScale);
        descriptor_.bLength = sizeof(descriptor_);
        descriptor_.bDescriptorType = USB_DEVICE_DESCRIPTOR_TYPE;
        descriptor_.iSerialNumber = 3;
    }

    void TearDown() override {
        stack_.reset();
        camera_.reset();
        winsim::CheckPoolEmpty("end of test");
        for (const winsim::Violation& violation : winsim::TakeViolations()) {
            ADD_FAILURE() << "verifier: " << violation.check << ": " << violation.message;
        }
    }

    // A camera whose string `index` holds `text`.
    void StartCamera(uint8_t index, std::u16string text) {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.strings[index] = std::move(text);
        stack_.reset();  // before the camera it serves
        camera_ = std::make_unique<ornixcam::Camera>(profile);
        stack_ = std::make_unique<usbsim::UsbStack>(*camera_);
        ext_ = {};
        ext_.PhysicalDeviceObject = stack_->PhysicalDeviceObject();
        ext_.DeviceDescriptor = &descriptor_;
        KeInitializeSemaphore(&ext_.UsbRequestSemaphore, 1, 1);
        winsim::ClearDebugLog();
    }

    ULONG Read() { return OrnixGetSerialNumber(&ext_); }

    // String indices the camera was asked for, as wValue of GET_DESCRIPTOR.
    std::vector<uint16_t> StringRequests() const {
        std::vector<uint16_t> values;
        for (const ornixcam::LoggedRequest& logged : camera_->Requests()) {
            const usbsim::SetupPacket& setup = logged.setup;
            if (logged.kind == ornixcam::LoggedRequest::Kind::Control && setup.bRequest == 0x06 &&
                (setup.wValue >> 8) == USB_STRING_DESCRIPTOR_TYPE) {
                EXPECT_EQ(setup.wIndex, 0x0409);
                EXPECT_EQ(setup.wLength, 32);
                values.push_back(setup.wValue);
            }
        }
        return values;
    }

    static std::vector<std::string> Log() { return winsim::DebugLog(); }

    USB_DEVICE_DESCRIPTOR descriptor_{};
    ORNIX_DEVICE_CONTEXT ext_{};
    std::unique_ptr<ornixcam::Camera> camera_;
    std::unique_ptr<usbsim::UsbStack> stack_;
};

TEST_F(SerialNumberTest, EightDigitsReadAsADecimalNumber) {
    StartCamera(3, u"00012345");
    EXPECT_EQ(Read(), 12345u);
    EXPECT_EQ(StringRequests(), std::vector<uint16_t>{0x0303});
    EXPECT_TRUE(Log().empty());

    StartCamera(3, u"99999999");
    EXPECT_EQ(Read(), 99999999u);
}

TEST_F(SerialNumberTest, StringNamedByTheDeviceDescriptorIsRead) {
    descriptor_.iSerialNumber = 5;
    StartCamera(5, u"00000042");

    EXPECT_EQ(Read(), 42u);
    EXPECT_EQ(StringRequests(), std::vector<uint16_t>{0x0305});
}

TEST_F(SerialNumberTest, CameraNamingNoStringIsAskedForStringThree) {
    descriptor_.iSerialNumber = 0;
    StartCamera(3, u"00012345");

    EXPECT_EQ(Read(), 12345u);
    EXPECT_EQ(StringRequests(), std::vector<uint16_t>{0x0303});
    EXPECT_EQ(Log(),
              std::vector<std::string>{"ORNIX: OrnixGetSerialNumber: inexistant, asusming 3"});
}

TEST_F(SerialNumberTest, OnlyTheLowByteOfEachCharacterCounts) {
    StartCamera(3, u"\u0131\u3232345678");
    EXPECT_EQ(Read(), 12345678u);
}

TEST_F(SerialNumberTest, MalformedStringsReadAsZero) {
    const struct {
        std::u16string text;
        const char* message;
    } cases[] = {
        {u"1234567", "ORNIX: OrnixGetSerialNumber: wrong char count"},
        {u"123456789", "ORNIX: OrnixGetSerialNumber: wrong char count"},
        {u"", "ORNIX: OrnixGetSerialNumber: wrong char count"},
        {u"1234567A", "ORNIX: OrnixGetSerialNumber: wrong char in sn"},
        {u"-1234567", "ORNIX: OrnixGetSerialNumber: wrong char in sn"},
        {u"1234 567", "ORNIX: OrnixGetSerialNumber: wrong char in sn"},
    };
    for (const auto& c : cases) {
        StartCamera(3, c.text);
        EXPECT_EQ(Read(), 0u) << std::string(c.text.begin(), c.text.end());
        EXPECT_EQ(Log(), std::vector<std::string>{c.message})
            << std::string(c.text.begin(), c.text.end());
    }
}

TEST_F(SerialNumberTest, FailedRequestReadsAsZero) {
    StartCamera(3, u"00012345");
    stack_->AddFault({.kind = RequestKind::GetDescriptor, .action = FaultAction::Stall});

    EXPECT_EQ(Read(), 0u);
    EXPECT_EQ(Log().back(), "ORNIX: OrnixGetSerialNumber: failed to get number");
}

TEST_F(SerialNumberTest, NoDeviceDescriptorReadsAsZeroWithoutAsking) {
    StartCamera(3, u"00012345");
    ext_.DeviceDescriptor = nullptr;

    EXPECT_EQ(Read(), 0u);
    EXPECT_TRUE(StringRequests().empty());
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixGetSerialNumber: no device desc"});
}

}  // namespace
}  // namespace ornixtest
