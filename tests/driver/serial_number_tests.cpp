// The camera's serial number, read from the string descriptor its device
// descriptor names.
#include <string>
#include <utility>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

class SerialNumberTest : public DriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return profile_; }

    // Replugs a camera whose string `index` holds `text`, with a device
    // descriptor that names string `serialIndex` as the serial number.
    void Plug(uint8_t index, const std::u16string& text, uint8_t serialIndex = 3) {
        profile_ = ornixcam::DefaultProfile();
        profile_.device.iSerialNumber = serialIndex;
        profile_.strings[index] = text;
        DriverTest::TearDown();
        DriverTest::SetUp();
    }

    // String indices the camera was asked for, as wValue of GET_DESCRIPTOR.
    std::vector<uint16_t> StringRequests() const {
        std::vector<uint16_t> values;
        for (const WireRequest& request : ControlRequests()) {
            if (request.bRequest == 0x06 && (request.wValue >> 8) == USB_STRING_DESCRIPTOR_TYPE) {
                EXPECT_EQ(request.wIndex, 0x0409);
                EXPECT_EQ(request.wLength, 32);
                values.push_back(request.wValue);
            }
        }
        return values;
    }

    ornixcam::Profile profile_ = ornixcam::DefaultProfile();
};

TEST_F(SerialNumberTest, ExactlyEightDecimalDigitsMakeANumber) {
    constexpr const char* kCount = "ORNIX: OrnixGetSerialNumber: wrong char count";
    constexpr const char* kChar = "ORNIX: OrnixGetSerialNumber: wrong char in sn";
    const struct {
        uint8_t serialIndex;  // named by the device descriptor
        uint8_t string;       // the string asked for and set
        std::u16string text;
        ULONG number;
        std::vector<std::string> log;
    } cases[] = {
        {3, 3, u"00012345", 12345, {}},
        {3, 3, u"99999999", 99999999, {}},
        {5, 5, u"00000042", 42, {}},
        {0, 3, u"00012345", 12345, {"ORNIX: OrnixGetSerialNumber: inexistant, asusming 3"}},
        {3, 3, u"\u0131\u3232345678", 12345678, {}},  // only the low byte of each character counts
        {3, 3, u"1234567", 0, {kCount}},
        {3, 3, u"123456789", 0, {kCount}},
        {3, 3, u"", 0, {kCount}},
        {3, 3, u"/1234567", 0, {kChar}},
        {3, 3, u"1234567:", 0, {kChar}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text.begin(), c.text.end()));
        Plug(c.string, c.text, c.serialIndex);

        EXPECT_EQ(OrnixGetSerialNumber(Ext()), c.number);
        EXPECT_EQ(StringRequests(), std::vector<uint16_t>{uint16_t(0x0300 | c.string)});
        EXPECT_EQ(Log(), c.log);
    }
}

TEST_F(SerialNumberTest, FailedRequestOrNoDeviceDescriptorReadsAsZero) {
    Plug(3, u"00012345");
    Stack().AddFault(
        {.kind = usbsim::RequestKind::GetDescriptor, .action = usbsim::FaultAction::Stall});
    EXPECT_EQ(OrnixGetSerialNumber(Ext()), 0u);
    EXPECT_EQ(Log().back(), "ORNIX: OrnixGetSerialNumber: failed to get number");

    Plug(3, u"00012345");
    PUSB_DEVICE_DESCRIPTOR descriptor = std::exchange(Ext()->DeviceDescriptor, nullptr);
    EXPECT_EQ(OrnixGetSerialNumber(Ext()), 0u);
    Ext()->DeviceDescriptor = descriptor;
    EXPECT_TRUE(StringRequests().empty());
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixGetSerialNumber: no device desc"});
}

}  // namespace
}  // namespace ornixtest
