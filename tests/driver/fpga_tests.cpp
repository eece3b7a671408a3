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

using usbsim::FaultAction;
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
    void ScriptModeReads(const std::string& answers) {
        auto script = std::make_shared<std::vector<uint32_t>>();
        for (char answer : answers) {
            script->push_back(answer == 'b'   ? ORNIX_FPGA_BUSY
                              : answer == 'd' ? ORNIX_FPGA_CONFIGURED
                                              : 0);
        }
        auto next = std::make_shared<size_t>(0);
        Camera().SetReadHook(ORNIX_FPGA_MODE, [script, next](uint16_t, uint32_t) {
            return (*script)[std::min((*next)++, script->size() - 1)];
        });
    }

    // What the camera saw, one short line per request.
    Lines Traffic() {
        Lines lines;
        char line[64];
        for (const ornixcam::LoggedRequest& logged : Camera().Requests()) {
            const usbsim::SetupPacket& setup = logged.setup;
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

    size_t Delays() { return CountLogged("ORNIX: Delay for fpga still programming"); }
};

Lines operator+(Lines a, const Lines& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Up to the image, when the FPGA pipe needs setting 1.
const Lines kToImage = {"read 0008",     "setting 1",     "write 0008=ffffffff",
                        "clear halt 02", "clear halt 02", "bulk 02 97991"};
const Lines kDownloadInFpgaSetting =
    kToImage + Lines{"read 0008", "write 0008=0", "read 0008", "setting 0", "read 000c"};

TEST_F(FpgaTest, DownloadSendsTheImageAndReadsTheVersionOnlyTheFirstTime) {
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Traffic(), kDownloadInFpgaSetting);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Camera().AlternateSetting(), 0);
    EXPECT_EQ(Delays(), 0u);
    UnconfigureFpga();
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    Lines expected = kDownloadInFpgaSetting;
    expected.pop_back();  // no version read
    EXPECT_EQ(Traffic(), expected);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
}

TEST_F(FpgaTest, BusyOnceIsWaitedForOnce) {
    ScriptModeReads("ibid");
    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Delays(), 1u);
    EXPECT_EQ(Traffic(), (kToImage + Lines{"read 0008", "read 0008", "write 0008=0", "read 0008",
                                           "setting 0", "read 000c"}));
}

// bcdDevice indexes the image table: a release without image must not read past it.
TEST_F(FpgaTest, NothingIsDoneWithoutNeed) {
    PORNIX_DEVICE_CONTEXT ext = Ext();
    const ULONG pipe = ext->FpgaPipe;
    PUSB_DEVICE_DESCRIPTOR descriptor = ext->DeviceDescriptor;
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
    ext->DeviceDescriptor = nullptr;
    expectOnly("ORNIX: No Device Descriptor", {});
    ext->DeviceDescriptor = descriptor;
    descriptor->bcdDevice = 1;  // a release without image
    expectOnly("ORNIX: No FPGA program, fpgaConfig is 1", {});
    descriptor->bcdDevice = 0;
    ScriptModeReads("d");
    expectOnly("ORNIX: fpga is already programmed!!", {"read 0008"});
}

// One failing step of the download, and what must follow it.
enum class Undo {
    None,
    LeaveProgramModeAndRestore,  // write 0 to the mode register, then the old setting
    Restore,                     // the old setting only
};

struct FailureCase {
    const char* name;
    RequestKind kind;  // Other: nothing is made to fail
    uint32_t occurrence;
    const char* message;  // nullptr: nothing printed
    NTSTATUS status;
    Undo undo;
    uint64_t vendorRequests;     // register requests sent, the failed one included
    std::string modeReads = "";  // as ScriptModeReads takes them; empty: the camera's FPGA
};

void PrintTo(const FailureCase& c, std::ostream* out) {
    *out << c.name;
}

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
                          .action = FaultAction::FailWithStatus,
                          .usbdStatus = USBD_STATUS_DEVICE_GONE});
    }
    const uint64_t vendorBefore = Stack().Counts(RequestKind::VendorDevice).submitted;
    EXPECT_EQ(OrnixProgramFpga(Ext()), c.status);
    if (c.message != nullptr) {
        EXPECT_EQ(CountLogged(c.message), 1u);
    }
    EXPECT_EQ(Ext()->FpgaVersion, 0u);
    // Undo shows in the register requests sent and in the traffic that reached the camera.
    EXPECT_EQ(Stack().Counts(RequestKind::VendorDevice).submitted - vendorBefore, c.vendorRequests);
    Lines traffic = Traffic();
    if (c.undo == Undo::None) {
        // A failed first read is refused before it reaches the camera.
        EXPECT_EQ(traffic, c.kind == RequestKind::VendorDevice ? Lines{} : Lines{"read 0008"});
        return;
    }
    ASSERT_GE(traffic.size(), 2u);
    EXPECT_EQ(traffic.back(), "setting 0");
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Camera().AlternateSetting(), 0);
    if (c.undo == Undo::LeaveProgramModeAndRestore) {
        EXPECT_EQ(traffic[traffic.size() - 2], "write 0008=0");
    }
}

// Register requests: 1 mode read, 2 enter program mode, 3 busy poll, 4 leave, 5 done read.
constexpr RequestKind kVendor = RequestKind::VendorDevice;
constexpr NTSTATUS kGone = STATUS_DEVICE_REMOVED;
constexpr Undo kLeave = Undo::LeaveProgramModeAndRestore;
const FailureCase kFailures[] = {
    {"FirstRead", kVendor, 1, "ORNIX: fpga mode regread failed", kGone, Undo::None, 1},
    {"SettingNotSelectable", RequestKind::SelectInterface, 1, nullptr, kGone, Undo::None, 1},
    {"EnterProgramMode", kVendor, 2, "ORNIX: Failed to set in fpga program mode", kGone, kLeave, 3},
    {"PipeReset", RequestKind::ResetPipe, 1, "ORNIX: Failed to reset fpga pipe with 0xc00002b6",
     kGone, kLeave, 3},
    {"BulkTransfer", RequestKind::BulkOrInterrupt, 1,
     "ORNIX: Failed to program fpga, usb bulk failed:0xc00002b6", kGone, kLeave, 3},
    {"BusyPoll", kVendor, 3, "ORNIX: Failed to read fpga mode reg", kGone, kLeave, 4},
    {"FinalBusyRead", kVendor, 5, "ORNIX: Could not read fpga mode reg", kGone, kLeave, 6, "ibb"},
    {"StillBusyAfterTwoDelays", RequestKind::Other, 0, "ORNIX: fpga still programming, failing",
     STATUS_UNSUCCESSFUL, kLeave, 6, "ib"},
    {"LeaveProgramMode", kVendor, 4, "ORNIX: fpga mode write fialed", kGone, Undo::Restore, 4},
    {"DoneRead", kVendor, 5, "ORNIX: fpga mode regread failed", kGone, Undo::Restore, 5},
    {"DoneBitClear", RequestKind::Other, 0, "ORNIX: Unexpected!: Fpga remained not programmed",
     STATUS_UNSUCCESSFUL, Undo::Restore, 5, "i"},
};
INSTANTIATE_TEST_SUITE_P(EachStep, FpgaFailureTest, ::testing::ValuesIn(kFailures),
                         [](const ::testing::TestParamInfo<FailureCase>& info) {
                             return std::string(info.param.name);
                         });

}  // namespace
}  // namespace ornixtest
