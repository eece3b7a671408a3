// The FPGA download: its sequence (the simulated camera accepts only the right
// image), each way it can fail and what is undone then, and when none is needed.
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::RequestKind;

constexpr uint32_t kFpgaVersion = 0x00010203;  // the default camera's

using Lines = std::vector<std::string>;

class FpgaTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        ConfigureCamera();
        UnconfigureFpga();
        Ext()->FpgaVersion = 0;
        winsim::ClearDebugLog();
    }

    // As after D3: the FPGA has lost its configuration.
    void UnconfigureFpga() {
        ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_ENTER), STATUS_SUCCESS);
        ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_LEAVE), STATUS_SUCCESS);
        ASSERT_FALSE(Camera().FpgaConfigured());
        Camera().ClearRequests();
    }

    // The mode register answers i(dle), b(usy) or d(one) in turn, the last one for ever.
    void ScriptModeReads(std::string answers) {
        auto next = std::make_shared<size_t>(0);
        Camera().SetReadHook(ORNIX_FPGA_MODE, [answers, next](uint16_t, uint32_t) -> uint32_t {
            const char answer = answers[std::min((*next)++, answers.size() - 1)];
            return answer == 'b' ? ORNIX_FPGA_BUSY : answer == 'd' ? ORNIX_FPGA_CONFIGURED : 0;
        });
    }

    // What the camera saw, one short line per request.
    Lines Traffic() {
        Lines lines;
        for (const ornixcam::LoggedRequest& logged : Camera().Requests()) {
            const usbsim::SetupPacket& setup = logged.setup;
            char line[64];
            if (logged.kind == ornixcam::LoggedRequest::Kind::Transfer) {
                std::snprintf(line, sizeof(line), "bulk %02x %u", logged.endpoint,
                              logged.result.actual);
            } else if (setup.bmRequestType == 0xC0 && setup.bRequest == ORNIX_REQUEST_REGISTER) {
                std::snprintf(line, sizeof(line), "read %04x", setup.wIndex);
            } else if (setup.bmRequestType == 0x40 && setup.bRequest == ORNIX_REQUEST_REGISTER) {
                uint32_t value = 0;
                std::memcpy(&value, logged.hostData.data(),
                            std::min<size_t>(sizeof(value), logged.hostData.size()));
                std::snprintf(line, sizeof(line), "write %04x=%x", setup.wIndex, value);
            } else if (setup.bmRequestType == 0x01 && setup.bRequest == kSetInterface) {
                std::snprintf(line, sizeof(line), "setting %u", setup.wValue);
            } else if (setup.bmRequestType == 0x02 && setup.bRequest == kClearFeature) {
                std::snprintf(line, sizeof(line), "clear halt %02x", setup.wIndex);
            } else {
                std::snprintf(line, sizeof(line), "other %02x %02x", setup.bmRequestType,
                              setup.bRequest);
            }
            lines.emplace_back(line);
        }
        return lines;
    }
};

// Into the FPGA's setting 1, the image, a poll, out of program mode and its check, back
// to setting 0, and the version.
const Lines kDownload = {"read 0008",     "setting 1",     "write 0008=ffffffff",
                         "clear halt 02", "clear halt 02", "bulk 02 97991",
                         "read 0008",     "write 0008=0",  "read 0008",
                         "setting 0",     "read 000c"};

TEST_F(FpgaTest, DownloadSendsTheImageWaitsWhileBusyAndReadsTheVersionOnlyTheFirstTime) {
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), kDownload);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    // Busy at the first poll this time: one delay and one more poll.
    UnconfigureFpga();
    ScriptModeReads("ibid");
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(CountLogged("ORNIX: Delay for fpga still programming"), 1u);
    Lines expected = kDownload;
    expected.insert(expected.begin() + 6, "read 0008");  // after the image
    expected.pop_back();                                 // no version read
    EXPECT_EQ(Traffic(), expected);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
}

// bcdDevice indexes the image table: a release without image must not read past it.
TEST_F(FpgaTest, NothingIsDoneWithoutNeed) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    const ULONG pipe = ext->FpgaPipe;
    auto expectOnly = [&](const std::string& message, const Lines& traffic) {
        winsim::ClearDebugLog();
        Camera().ClearRequests();
        EXPECT_EQ(OrnixProgramFpga(ext), STATUS_SUCCESS) << message;
        ASSERT_EQ(Log().size(), 1 + traffic.size());  // a trace for each register read
        EXPECT_EQ(Log().back(), message);
        EXPECT_EQ(Traffic(), traffic) << message;
    };
    ext->FpgaPipe = ORNIX_NO_PIPE;
    expectOnly("ORNIX: No FPGA pipe", {});
    ext->FpgaPipe = pipe;
    ext->DeviceDescriptor->bcdDevice = 1;  // a release without image
    expectOnly("ORNIX: No FPGA program, fpgaConfig is 1", {});
    ext->DeviceDescriptor->bcdDevice = 0;
    ScriptModeReads("d");
    expectOnly("ORNIX: fpga is already programmed!!", {"read 0008"});
}

// One failing step of the download: the requests that still reach the camera are the
// download's up to that step, then what undoes it.
struct FailureCase {
    const char* name;
    RequestKind kind;  // Other: nothing is made to fail
    uint32_t occurrence;
    const char* message;  // nullptr: nothing printed
    NTSTATUS status;
    size_t reached;              // requests of kDownload the camera saw
    Lines undo;                  // the requests after them
    std::string modeReads = "";  // as ScriptModeReads takes them; empty: the camera's FPGA
};

class FpgaFailureTest : public FpgaTest, public ::testing::WithParamInterface<FailureCase> {};

// Failed requests complete with STATUS_DEVICE_REMOVED, unlike the driver's own failures.
TEST_P(FpgaFailureTest, FailureIsReportedAndUndone) {
    const FailureCase& c = GetParam();
    if (!c.modeReads.empty()) {
        ScriptModeReads(c.modeReads);
    }
    if (c.kind != RequestKind::Other) {
        Stack().AddFault({.kind = c.kind,
                          .occurrence = c.occurrence,
                          .action = usbsim::FaultAction::FailWithStatus,
                          .usbdStatus = USBD_STATUS_DEVICE_GONE});
    }
    EXPECT_EQ(OrnixProgramFpga(Ext()), c.status);
    if (c.message != nullptr) {
        EXPECT_EQ(CountLogged(c.message), 1u);
    }
    EXPECT_EQ(Ext()->FpgaVersion, 0u);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    Lines expected(kDownload.begin(), kDownload.begin() + c.reached);
    expected.insert(expected.end(), c.undo.begin(), c.undo.end());
    EXPECT_EQ(Traffic(), expected);
}

constexpr RequestKind kVendor = RequestKind::VendorDevice;
constexpr NTSTATUS kGone = STATUS_DEVICE_REMOVED;
// Once in program mode it is left and setting 0 restored; once left, only the setting.
const Lines kLeave = {"write 0008=0", "setting 0"};
const Lines kRestore = {"setting 0"};
// The FPGA still busy after the first poll: one or two more polls before leaving.
const Lines kPollsAndLeave[] = {{"read 0008", "write 0008=0", "setting 0"},
                                {"read 0008", "read 0008", "write 0008=0", "setting 0"}};
const FailureCase kFailures[] = {
    // A failed first read is refused before it reaches the camera.
    {"FirstRead", kVendor, 1, "ORNIX: fpga mode regread failed", kGone, 0, {}},
    {"SettingNotSelectable", RequestKind::SelectInterface, 1, nullptr, kGone, 1, {}},
    {"EnterProgramMode", kVendor, 2, "ORNIX: Failed to set in fpga program mode", kGone, 2, kLeave},
    {"PipeReset", RequestKind::ResetPipe, 1, "ORNIX: Failed to reset fpga pipe with 0xc00002b6",
     kGone, 3, kLeave},
    {"BulkTransfer", RequestKind::BulkOrInterrupt, 1,
     "ORNIX: Failed to program fpga, usb bulk failed:0xc00002b6", kGone, 5, kLeave},
    {"BusyPoll", kVendor, 3, "ORNIX: Failed to read fpga mode reg", kGone, 6, kLeave},
    {"FinalBusyRead", kVendor, 5, "ORNIX: Could not read fpga mode reg", kGone, 7,
     kPollsAndLeave[0], "ibb"},
    {"StillBusyAfterTwoDelays", RequestKind::Other, 0, "ORNIX: fpga still programming, failing",
     STATUS_UNSUCCESSFUL, 7, kPollsAndLeave[1], "ib"},
    {"LeaveProgramMode", kVendor, 4, "ORNIX: fpga mode write fialed", kGone, 7, kRestore},
    {"DoneRead", kVendor, 5, "ORNIX: fpga mode regread failed", kGone, 8, kRestore},
    {"DoneBitClear", RequestKind::Other, 0, "ORNIX: Unexpected!: Fpga remained not programmed",
     STATUS_UNSUCCESSFUL, 9, kRestore, "i"},
};
INSTANTIATE_TEST_SUITE_P(EachStep, FpgaFailureTest, ::testing::ValuesIn(kFailures),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.name);
                         });

// When the saved setting cannot be selected again, the device may be in either
// setting: the driver marks it unknown, so the next selection of any setting is
// sent, no pipe is reset before that, and the next download starts from a real
// selection of the FPGA's setting.
TEST_F(FpgaTest, SettingThatCannotBeRestoredIsUnknownUntilSelectedAgain) {
    const struct {
        const char* name;
        RequestKind failing;  // besides the second selection, the restore
        NTSTATUS status;
    } cases[] = {
        {"after the download", RequestKind::Other, kGone},
        {"after a failed transfer", RequestKind::BulkOrInterrupt, kGone},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        UnconfigureFpga();
        ASSERT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_SUCCESS);
        Camera().ClearRequests();
        if (c.failing != RequestKind::Other) {
            Stack().AddFault({.kind = c.failing, .usbdStatus = USBD_STATUS_DEVICE_GONE});
        }
        Stack().AddFault({.kind = RequestKind::SelectInterface,
                          .occurrence = 2,
                          .usbdStatus = USBD_STATUS_DEVICE_GONE});
        EXPECT_EQ(OrnixProgramFpga(Ext()), c.status);
        Stack().ClearFaults();
        EXPECT_EQ(Ext()->CurrentAltSetting, ORNIX_UNKNOWN_ALT_SETTING);
        EXPECT_EQ(Camera().AlternateSetting(), 1u);  // the restore never reached it
        EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->FpgaPipe), STATUS_INVALID_PARAMETER);
        // Either setting is really selected now.
        Camera().ClearRequests();
        EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);
        EXPECT_EQ(Traffic(), Lines{"setting 1"});
        EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
    }
    // A download entered with the setting unknown selects the FPGA's and stays there.
    UnconfigureFpga();
    Ext()->CurrentAltSetting = ORNIX_UNKNOWN_ALT_SETTING;
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Traffic().at(1), "setting 1");
    EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
    ASSERT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_SUCCESS);  // as teardown expects
}

}  // namespace
}  // namespace ornixtest
