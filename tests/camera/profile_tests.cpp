// Camera profiles: the shipped default and its documentation, field-by-field
// overrides, and errors that name the offending field.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

#include "camera/profile.h"
#include "camera/register_map.h"

namespace ornixcam {
namespace {

using ::testing::HasSubstr;

TEST(DefaultProfile, MatchesTheShippedFile) {
    EXPECT_EQ(nlohmann::json::parse(std::ifstream(ORNIX_DEFAULT_PROFILE_PATH)),
              nlohmann::json::parse(DefaultProfileJson()));
    EXPECT_EQ(LoadProfile(ORNIX_DEFAULT_PROFILE_PATH), DefaultProfile());
}

// The profile documentation shows the default controls as a profile fragment.
TEST(DefaultProfile, DocumentedControlsAreTheShippedOnes) {
    std::ifstream file(ORNIX_PROFILE_DOC_PATH);
    const std::string doc((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t begin = doc.find("```json\n", doc.find("## `properties`"));
    ASSERT_NE(begin, std::string::npos) << "no profile fragment under ## `properties`";
    const std::string fragment = doc.substr(begin + 8, doc.find("```", begin + 8) - begin - 8);
    const nlohmann::json shipped = nlohmann::json::parse(std::ifstream(ORNIX_DEFAULT_PROFILE_PATH));
    EXPECT_EQ(nlohmann::json::parse(fragment)["properties"], shipped["properties"]);
    EXPECT_EQ(ParseProfile(fragment).properties, DefaultProfile().properties);
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
    EXPECT_EQ(p.strings.at(3), u"87654321");
    EXPECT_EQ(p.PowerUpValue(reg::kSpecVersion), 2u);
    // The speed register follows the bus speed unless set explicitly.
    EXPECT_EQ(p.PowerUpValue(reg::kSpeed), 0u);
    EXPECT_EQ(ParseProfile(R"({"device": {"speed": "full"}, "registers": {"0x0004": 7}})")
                  .PowerUpValue(reg::kSpeed),
              7u);
}

TEST(ParseProfile, ErrorsNameTheOffendingField) {
    auto endpoints = [](const char* list) {
        return R"({"configuration": {"alternateSettings": [{}, {"endpoints": [)" +
               std::string(list) + "]}]}}";
    };
    const std::string banks =  // 33 empty banks
        nlohmann::json(std::vector<nlohmann::json>(33, nlohmann::json::object())).dump();
    struct BadProfile {
        std::string json;
        const char* blamed;  // what the error message must mention
    } cases[] = {
        {R"({"device": )", "not valid JSON"},
        {R"([1, 2])", "profile: expected an object"},
        {R"({"devices": {}})", "devices: unknown field"},
        {R"({"device": {"idVendr": 1}})", "device.idVendr: unknown field"},
        {R"({"device": {"idVendor": 65536}})", "device.idVendor: expected an integer in 0..0xffff"},
        {R"({"device": {"idVendor": -1}})", "device.idVendor"},
        {R"({"device": {"idVendor": "1234"}})", "device.idVendor"},
        {R"({"device": {"speed": "super"}})", "device.speed"},
        {R"({"device": {"bMaxPacketSize0": 7}})", "device.bMaxPacketSize0"},
        {R"({"strings": {"256": "x"}})", "strings.256"},
        {R"({"strings": {"0": []}})", "strings.0"},
        {R"({"strings": {"4": ")" + std::string(127, '0') + R"("}})", "strings.4: longer"},
        {R"({"configuration": {"bConfigurationValue": 0}})", "configuration.bConfigurationValue"},
        {R"({"configuration": {"alternateSettings": []}})", "configuration.alternateSettings"},
        {endpoints(R"({"address": "0x80", "type": "bulk", "maxPacketSize": 64})"),
         "alternateSettings[1].endpoints[0].address"},
        {endpoints(R"({"address": "0x81", "type": "bulk"})"),
         "alternateSettings[1].endpoints[0].maxPacketSize: missing"},
        {endpoints(R"({"address": 1, "type": "bulk", "maxPacketSize": 64},
                      {"address": 1, "type": "bulk", "maxPacketSize": 64})"),
         "endpoints[1].address: endpoint listed twice"},
        {R"({"registers": {"0x0011": 1}})",
         "registers.0x0011: register indices are multiples of 4"},
        {R"({"registers": {"0x0014": 1}})", "registers.0x0014: the camera has no such register"},
        {R"({"registers": {"0x1180": 1}})", "registers.0x1180"},  // bank 3 of 3
        {R"({"rawDescriptors": {"device": "12 0"}})", "rawDescriptors.device: odd number"},
        {R"({"rawDescriptors": {"device": "12 0x"}})", "rawDescriptors.device: not a hex digit"},
        {R"({"quirks": {"shortReads": {"0x0214": 2}}})", "quirks.shortReads.0x0214"},
        {R"({"fpga": {"present": 1}})", "fpga.present: expected true or false"},
        {R"({"registry": {"TevrinKey": 5}})", "registry.TevrinKey"},
        {R"({"hostController": {"shortInTransfer": "halts"}})", "hostController.shortInTransfer"},
        {R"({"hostController": {"shortIn": "fails"}})", "hostController.shortIn: unknown field"},
        {R"({"productData": {"sections": [{"id": 1, "defects": [[1, 2, 3]]}]}})",
         "productData.sections[0].defects[0]"},
        {R"({"productData": {"sections": [{"id": 1, "defects": [], "bytes": ""}]}})",
         "productData.sections[0]: give either"},
        {R"({"productData": {"mappingType": 0, "sections": [{"id": 1, "bytes": ")" +
             std::string(2 * 0x700, 'A') + R"("}]}})",
         "productData.sections: 1800 bytes do not fit the 1792 bytes of mapping type 0"},
        {R"({"productData": {"eeproms": ["0xA0"]}})",
         "productData.sections: mapping type 1 needs EEPROM 0xA2"},
        {R"({"productData": {"eeproms": ["0xA4"]}})", "productData.eeproms[0]"},
        {R"({"productData": {"eepromImages": {"0xA2": "@no-such-file.bin"}}})",
         "productData.eepromImages.0xA2: cannot open"},
        {R"({"formatBanks": {}})", "formatBanks: expected an array"},
        {R"({"formatBanks": [{"position": [-32769, 0]}]})", "formatBanks[0].position[0]"},
        {R"({"formatBanks": [{"binnings": [1, 0]}]})", "formatBanks[0].binnings[1]: a binning"},
        {R"({"formatBanks": [{"validate": "center"}]})",
         R"(formatBanks[0].validate: expected one of "keep", "clamp", "centre", "align")"},
        {R"({"formatBanks": [{}, {"colorIdReadBack": 0}]})", "formatBanks[1].colorIdReadBack"},
        {R"({"formatBanks": )" + banks + "}", "formatBanks: at most 32"},
        {R"({"events": {"every": {"ms": 0, "mask": 1}}})", "events.every.ms: must be at least 1"},
        {R"({"events": {"every": {"mask": 1}}})", "events.every.ms: missing"},
        {R"({"events": {"sometimes": true}})", "events.sometimes: unknown field"},
        {R"({"events": {"at": [{"ms": 5, "mask": 1}, {"ms": 4, "mask": 1}]}})",
         "events.at[1].ms: must not be earlier than the entry before"},
        {R"({"events": {"faults": ["babble"]}})",
         R"(events.faults[0]: expected "longPacket", "zeroLength" or "stall", got "babble")"},
        {R"({"properties": {"brightnes": {}}})", "properties.brightnes: not a property"},
        {R"({"properties": {"record57": {}}})", "properties.record57"},
        {R"({"video": {"content": "noise"}})", "video.content"},
        {R"({"video": {"stillTriggersMs": [10, 5]}})", "video.stillTriggersMs[1]"},
        {R"({"video": {"pacing": 1}})", "video.pacing: expected true or false"},
        {R"({"power": {"losesFpgaInD3": 1}})", "power.losesFpgaInD3: expected true or false"},
        {R"({"power": {"losesFpga": true}})", "power.losesFpga: unknown field"}};
    for (const BadProfile& c : cases) {
        SCOPED_TRACE(c.json);
        EXPECT_THAT([&] { ParseProfile(c.json); },
                    ::testing::ThrowsMessage<ProfileError>(HasSubstr(c.blamed)));
    }
}

TEST(LoadProfile, ReadsEepromImagesNextToTheProfileAndNamesTheFileInErrors) {
    const auto directory = std::filesystem::temp_directory_path() /
                           ("ornix-camera-profile-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    std::ofstream(directory / "a2.bin", std::ios::binary) << "\x12\x34";
    std::ofstream(directory / "camera.json")
        << R"({"productData": {"sections": [], "eepromImages": {"0xA2": "@a2.bin"}}})";
    const Profile profile = LoadProfile(directory / "camera.json");
    std::filesystem::remove_all(directory);
    EXPECT_EQ(profile.productData.eepromImages.at(0xA2), (std::vector<uint8_t>{0x12, 0x34}));
    EXPECT_THAT([] { LoadProfile("/nonexistent/camera.json"); },
                ::testing::ThrowsMessage<ProfileError>(HasSubstr("/nonexistent/camera.json")));
}

}  // namespace
}  // namespace ornixcam
