// The camera id from the TevrinKey registry value.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

constexpr std::u16string_view kValueName = u"TevrinKey";

class CameraIdTest : public DriverTest {
  protected:
    ULONG FindCameraId() {
        Ext()->CameraId = 0;
        winsim::ClearDebugLog();
        OrnixFindCameraId(Ext());
        return Ext()->CameraId;
    }
    void SetValue(std::u16string_view text) {
        winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, text);
    }
};

struct IdCase {
    std::u16string text;
    ULONG id;
};

std::string Narrow(std::u16string_view text) {
    return std::string(text.begin(), text.end());
}

void PrintTo(const IdCase& c, std::ostream* out) {
    *out << Narrow(c.text);
}

class CameraIdTextTest : public CameraIdTest, public ::testing::WithParamInterface<IdCase> {};

TEST_P(CameraIdTextTest, ParsesTheHexDigitsAfterThePrefix) {
    SetValue(GetParam().text);

    EXPECT_EQ(FindCameraId(), GetParam().id);
    EXPECT_TRUE(Log().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Texts, CameraIdTextTest,
    ::testing::Values(IdCase{u"ORNIX0a2f", 0xA2F}, IdCase{u"ornix0A2F", 0xA2F},
                      IdCase{u"Ornix0a2f", 0xA2F}, IdCase{u"ornix12g4", 0x12},
                      IdCase{u"ornix0123456789", 0x23456789},
                      IdCase{u"ornixABCDEF012345", 0xEF012345},  // 17 characters: the most
                      IdCase{u"camera0a2f", 0}, IdCase{u"ornix", 0}, IdCase{u"orni", 0}),
    [](const ::testing::TestParamInfo<IdCase>& info) { return Narrow(info.param.text); });

TEST_F(CameraIdTest, ValueOfAnotherTypeOrTooShortIsIgnored) {
    const std::string refused = "ORNIX: Failed to query partial info of TevrinKey with 0x0";
    winsim::SetRegistryValue(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, REG_DWORD,
                             {0x2F, 0x0A, 0, 0});
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), std::vector<std::string>{refused});

    winsim::SetRegistryValue(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, REG_SZ, {'o', 0});
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), std::vector<std::string>{refused});
}

TEST_F(CameraIdTest, ValueLongerThanTheBufferFailsTheQuery) {
    SetValue(u"ornixABCDEF0123456");  // 18 characters and the terminator: 38 bytes

    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), std::vector<std::string>{
                         "ORNIX: Failed to query partial info of TevrinKey with 0x80000005"});
}

TEST_F(CameraIdTest, MissingValueIsIgnored) {
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), std::vector<std::string>{
                         "ORNIX: Failed to query partial info of TevrinKey with 0xc0000034"});
}

TEST_F(CameraIdTest, KeyThatCannotBeOpenedIsReported) {
    SetValue(u"ornix0a2f");
    winsim::FailRegistryOpen(Pdo(), STATUS_INSUFFICIENT_RESOURCES);

    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: Failed to open PDO key with 0xc000009a"});
    winsim::FailRegistryOpen(Pdo(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace ornixtest
