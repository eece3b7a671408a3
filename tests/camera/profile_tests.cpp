#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "camera/profile.h"
#include "camera/register_map.h"

namespace ornixcam {
namespace {

using ::testing::HasSubstr;

std::string ReadFile(const char* path) {
    std::ifstream file(path);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

TEST(DefaultProfile, MatchesTheShippedFile) {
    const std::string shipped = ReadFile(ORNIX_DEFAULT_PROFILE_PATH);
    ASSERT_FALSE(shipped.empty());
    EXPECT_EQ(nlohmann::json::parse(shipped), nlohmann::json::parse(DefaultProfileJson()));
    EXPECT_EQ(LoadProfile(ORNIX_DEFAULT_PROFILE_PATH), DefaultProfile());
}

TEST(ParseProfile, OverridesTheDefaultFieldByField) {
    const Profile p = ParseProfile(R"({
        // Comments are allowed in hand-written profiles.
        "device": {"idProduct": 2609, "speed": "full"},
        "strings": {"3": "87654321"},
        "registers": {"0x0010": "0x00000002"}
    })");
    EXPECT_EQ(p.device.idVendor, 0x1B0F);
    EXPECT_EQ(p.device.idProduct, 0x0A31);
    EXPECT_EQ(p.strings.at(1), u"Ornix Imaging");
    EXPECT_EQ(p.strings.at(3), u"87654321");
    EXPECT_EQ(p.PowerUpValue(reg::kSpecVersion), 2u);
    EXPECT_EQ(p.PowerUpValue(reg::kFormatCount), 3u);
    // The speed register follows the bus speed unless set explicitly.
    EXPECT_EQ(p.PowerUpValue(reg::kSpeed), 0u);
    EXPECT_EQ(ParseProfile(R"({"device": {"speed": "full"}, "registers": {"0x0004": 7}})")
                  .PowerUpValue(reg::kSpeed),
              7u);
    // Removing a register also drops the value the default gave it.
    EXPECT_FALSE(ParseProfile(R"({"registerAccess": {"0x4FF8": "none"}})")
                     .registers.contains(reg::kSupport0));
}

struct BadProfile {
    std::string json;
    const char* blamed;  // what the error message must mention
};

class ParseProfileErrors : public ::testing::TestWithParam<BadProfile> {};

TEST_P(ParseProfileErrors, NameTheOffendingField) {
    try {
        ParseProfile(GetParam().json);
        FAIL() << "accepted: " << GetParam().json;
    } catch (const ProfileError& error) {
        EXPECT_THAT(error.what(), HasSubstr(GetParam().blamed));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ParseProfileErrors,
    ::testing::Values(
        BadProfile{R"({"device": )", "not valid JSON"},
        BadProfile{R"([1, 2])", "profile: expected an object"},
        BadProfile{R"({"devices": {}})", "devices: unknown field"},
        BadProfile{R"({"device": {"idVendr": 1}})", "device.idVendr: unknown field"},
        BadProfile{R"({"device": {"idVendor": 65536}})",
                   "device.idVendor: expected an integer in 0..0xffff"},
        BadProfile{R"({"device": {"idVendor": -1}})", "device.idVendor"},
        BadProfile{R"({"device": {"idVendor": 1.5}})", "device.idVendor"},
        BadProfile{R"({"device": {"idVendor": "0x1G"}})", "device.idVendor"},
        BadProfile{R"({"device": {"idVendor": "1234"}})", "device.idVendor"},
        BadProfile{R"({"device": {"speed": "super"}})", "device.speed"},
        BadProfile{R"({"device": {"bMaxPacketSize0": 7}})", "device.bMaxPacketSize0"},
        BadProfile{R"({"strings": {"256": "x"}})", "strings.256"},
        BadProfile{R"({"strings": {"1": 5}})", "strings.1: expected a string"},
        BadProfile{R"({"strings": {"0": []}})", "strings.0"},
        BadProfile{
            R"({"strings": {"4": "0123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456789012345678901234567890123456"}})",
            "strings.4: longer"},
        BadProfile{R"({"configuration": {"bConfigurationValue": 0}})",
                   "configuration.bConfigurationValue"},
        BadProfile{R"({"configuration": {"alternateSettings": []}})",
                   "configuration.alternateSettings"},
        BadProfile{
            R"({"configuration": {"alternateSettings": [{"endpoints": [{"address": "0x80", "type": "bulk", "maxPacketSize": 64}]}]}})",
            "alternateSettings[0].endpoints[0].address"},
        BadProfile{
            R"({"configuration": {"alternateSettings": [{}, {"endpoints": [{"address": "0x81", "type": "bulk"}]}]}})",
            "alternateSettings[1].endpoints[0].maxPacketSize: missing"},
        BadProfile{
            R"({"configuration": {"alternateSettings": [{"endpoints": [{"address": 1, "type": "control", "maxPacketSize": 64}]}]}})",
            "endpoints[0].type"},
        BadProfile{R"({"configuration": {"alternateSettings": [{"endpoints": [
            {"address": 1, "type": "bulk", "maxPacketSize": 64},
            {"address": 1, "type": "bulk", "maxPacketSize": 64}]}]}})",
                   "endpoints[1].address: endpoint listed twice"},
        BadProfile{R"({"registers": {"0x0011": 1}})",
                   "registers.0x0011: register indices are multiples of 4"},
        BadProfile{R"({"registers": {"0x0014": 1}})",
                   "registers.0x0014: the camera has no such register"},
        BadProfile{R"({"registers": {"0x1180": 1}})", "registers.0x1180"},  // bank 3 of 3
        BadProfile{R"({"registers": {"0x0010": "0x100000000"}})", "registers.0x0010"},
        BadProfile{R"({"registerAccess": {"0x0010": "rw"}})", "registerAccess.0x0010"},
        BadProfile{R"({"rawDescriptors": {"device": "12 0"}})",
                   "rawDescriptors.device: odd number"},
        BadProfile{R"({"rawDescriptors": {"device": "12 0x"}})",
                   "rawDescriptors.device: not a hex digit"},
        BadProfile{R"({"quirks": {"shortReads": {"0x0214": 2}}})", "quirks.shortReads.0x0214"},
        BadProfile{R"({"quirks": {"slowReads": {}}})", "quirks.slowReads: unknown field"}));

INSTANTIATE_TEST_SUITE_P(
    DeviceModels, ParseProfileErrors,
    ::testing::Values(
        BadProfile{R"({"fpga": {"present": 1}})", "fpga.present: expected true or false"},
        BadProfile{R"({"fpga": {"image": "release0"}})", "fpga.image"},
        BadProfile{R"({"fpga": {"busyPolls": -1}})", "fpga.busyPolls"},
        BadProfile{R"({"fpga": {"versio": 1}})", "fpga.versio: unknown field"},
        BadProfile{R"({"productData": {"sections": [{"bytes": "00"}]}})",
                   "productData.sections[0].id: missing"},
        BadProfile{R"({"productData": {"sections": [{"id": 1, "defects": [[1, 2, 3]]}]}})",
                   "productData.sections[0].defects[0]"},
        BadProfile{R"({"productData": {"sections": [{"id": 1, "defects": [[65536, 0]]}]}})",
                   "productData.sections[0].defects[0][0]"},
        BadProfile{R"({"productData": {"sections": [{"id": 1, "defects": [], "bytes": ""}]}})",
                   "productData.sections[0]: give either"},
        BadProfile{R"({"productData": {"mappingType": 0, "sections": [{"id": 1, "bytes": ")" +
                       std::string(2 * 0x700, 'A') + R"("}]}})",
                   "productData.sections: 1800 bytes do not fit the 1792 bytes of mapping type 0"},
        BadProfile{R"({"productData": {"eeproms": ["0xA0"]}})",
                   "productData.sections: mapping type 1 needs EEPROM 0xA2"},
        BadProfile{R"({"productData": {"eeproms": ["0xA4"]}})", "productData.eeproms[0]"},
        BadProfile{R"({"productData": {"eepromImages": {"0xA1": "00"}}})",
                   "productData.eepromImages.0xA1"},
        BadProfile{R"({"productData": {"eepromImages": {"0xA2": "@no-such-file.bin"}}})",
                   "productData.eepromImages.0xA2: cannot open"},
        BadProfile{R"({"productData": {"probeByte": 256}})", "productData.probeByte"},
        BadProfile{R"({"formatBanks": {}})", "formatBanks: expected an array"},
        BadProfile{R"({"formatBanks": [{"maxSize": [1280]}]})", "formatBanks[0].maxSize"},
        BadProfile{R"({"formatBanks": [{}, {"size": [1, 65536]}]})", "formatBanks[1].size[1]"},
        BadProfile{R"({"formatBanks": [{"position": [-32769, 0]}]})", "formatBanks[0].position[0]"},
        BadProfile{R"({"formatBanks": [{"colorInquiry": {"extra": "0x10000"}}]})",
                   "formatBanks[0].colorInquiry.extra"},
        BadProfile{R"({"formatBanks": [{"frequency": {"min": 70000}}]})",
                   "formatBanks[0].frequency.min"},
        BadProfile{R"({"formatBanks": [{"chart": [1, 65536]}]})", "formatBanks[0].chart[1]"},
        BadProfile{R"({"formatBanks": [{"colourId": 8}]})", "formatBanks[0].colourId: unknown"},
        BadProfile{R"({"formatBanks": [)" +
                       [] {
                           std::string banks;
                           for (int i = 0; i < 33; ++i)
                               banks += i ? ",{}" : "{}";
                           return banks;
                       }() +
                       "]}",
                   "formatBanks: at most 32"},
        BadProfile{R"({"properties": {"brightnes": {}}})", "properties.brightnes: not a property"},
        BadProfile{R"({"properties": {"record57": {}}})", "properties.record57"},
        BadProfile{R"({"properties": {"gain": {"value": -2147483649}}})", "properties.gain.value"},
        BadProfile{R"({"properties": {"gain": {"minimum": 0}}})",
                   "properties.gain.minimum: unknown field"}));

TEST(LoadProfile, ReadsEepromImagesNextToTheProfile) {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("ornix-camera-profile-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    std::ofstream(directory / "a2.bin", std::ios::binary) << "\x12\x34";
    std::ofstream(directory / "camera.json")
        << R"({"productData": {"sections": [], "eepromImages": {"0xA2": "@a2.bin"}}})";
    const Profile profile = LoadProfile(directory / "camera.json");
    std::filesystem::remove_all(directory);
    EXPECT_EQ(profile.productData.eepromImages.at(0xA2), (std::vector<uint8_t>{0x12, 0x34}));
}

TEST(LoadProfile, NamesTheFileInErrors) {
    EXPECT_THAT([] { LoadProfile("/nonexistent/camera.json"); },
                ::testing::ThrowsMessage<ProfileError>(HasSubstr("/nonexistent/camera.json")));
}

}  // namespace
}  // namespace ornixcam
