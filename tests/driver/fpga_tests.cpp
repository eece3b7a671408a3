// Configuration of the camera's FPGA: the download sequence, each way it can
// fail and what is undone then, and the cases that need no download.
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

constexpr uint32_t kImageLength = 97991;
constexpr uint32_t kFpgaVersion = 0x00010203;  // the default camera's
constexpr uint32_t kIdle = 0;
constexpr uint32_t kBusy = ORNIX_FPGA_BUSY;
constexpr uint32_t kDone = ORNIX_FPGA_CONFIGURED;

class FpgaTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        ConfigureCamera();
        PORNIX_DEVICE_CONTEXT ext = Ext();
        if (ext->DeviceDescriptor == nullptr) {
            ReadDeviceDescriptor();
        }
        // Whatever bring-up did, start from an FPGA that needs its image.
        ASSERT_EQ(OrnixRegWrite(ext, ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_ENTER), STATUS_SUCCESS);
        ASSERT_EQ(OrnixRegWrite(ext, ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_LEAVE), STATUS_SUCCESS);
        ASSERT_FALSE(Camera().FpgaConfigured());
        ext->FpgaVersion = 0;
        Camera().ClearRequests();
        winsim::ClearDebugLog();
    }

    void ReadDeviceDescriptor() {
        auto* descriptor = static_cast<PUSB_DEVICE_DESCRIPTOR>(
            ExAllocatePoolWithTag(NonPagedPool, sizeof(USB_DEVICE_DESCRIPTOR), kDriverTag));
        ASSERT_NE(descriptor, nullptr);
        URB get{};
        UsbBuildGetDescriptorRequest(&get, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                     USB_DEVICE_DESCRIPTOR_TYPE, 0, 0, descriptor, nullptr,
                                     sizeof(USB_DEVICE_DESCRIPTOR), nullptr);
        Ext()->DeviceDescriptor = descriptor;  // freed by teardown
        ASSERT_EQ(OrnixCallUsbd(Ext(), &get), STATUS_SUCCESS);
    }

    // The mode register answers these values in turn, the last one for ever.
    void ScriptModeReads(std::vector<uint32_t> values) {
        auto script = std::make_shared<std::vector<uint32_t>>(std::move(values));
        auto next = std::make_shared<size_t>(0);
        Camera().SetReadHook(ORNIX_FPGA_MODE, [script, next](uint16_t, uint32_t) {
            uint32_t value = (*script)[std::min(*next, script->size() - 1)];
            ++*next;
            return value;
        });
    }

    // What the camera saw, one short line per request.
    std::vector<std::string> Traffic() const {
        std::vector<std::string> lines;
        char line[64];
        for (const ornixcam::LoggedRequest& logged :
             const_cast<FpgaTest*>(this)->Camera().Requests()) {
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

using Lines = std::vector<std::string>;

const Lines kDownloadInFpgaSetting = {"read 0008",     "setting 1",     "write 0008=ffffffff",
                                      "clear halt 02", "clear halt 02", "bulk 02 97991",
                                      "read 0008",     "write 0008=0",  "read 0008",
                                      "setting 0",     "read 000c"};

TEST_F(FpgaTest, FirstDownloadSendsTheImageAndReadsTheVersion) {
    const uint64_t received = Camera().BytesReceived(0x02);

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Traffic(), kDownloadInFpgaSetting);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Camera().BytesReceived(0x02) - received, kImageLength);
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Camera().AlternateSetting(), 0);
    EXPECT_EQ(Delays(), 0u);
}

TEST_F(FpgaTest, SecondDownloadLeavesTheVersionAlone) {
    ASSERT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);
    // As after D3: the FPGA has lost its configuration.
    ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_ENTER), STATUS_SUCCESS);
    ASSERT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, ORNIX_FPGA_MODE_LEAVE), STATUS_SUCCESS);
    Camera().ClearRequests();

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);

    Lines expected = kDownloadInFpgaSetting;
    expected.pop_back();
    EXPECT_EQ(Traffic(), expected);
    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, kFpgaVersion);
}

TEST_F(FpgaTest, FpgaPipeInTheCurrentSettingNeedsNoSelection) {
    ASSERT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);
    Camera().ClearRequests();

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Traffic(),
              (Lines{"read 0008", "write 0008=ffffffff", "clear halt 02", "clear halt 02",
                     "bulk 02 97991", "read 0008", "write 0008=0", "read 0008", "read 000c"}));
    EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
}

TEST_F(FpgaTest, BusyOnceIsWaitedForOnce) {
    ScriptModeReads({kIdle, kBusy, kIdle, kDone});

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Delays(), 1u);
    EXPECT_EQ(Traffic(), (Lines{"read 0008", "setting 1", "write 0008=ffffffff", "clear halt 02",
                                "clear halt 02", "bulk 02 97991", "read 0008", "read 0008",
                                "write 0008=0", "read 0008", "setting 0", "read 000c"}));
}

TEST_F(FpgaTest, StillBusyAfterTwoDelaysFails) {
    ScriptModeReads({kIdle, kBusy, kBusy, kBusy});

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Delays(), 2u);
    EXPECT_TRUE(Logged("ORNIX: fpga still programming, failing"));
    EXPECT_EQ(Traffic(), (Lines{"read 0008", "setting 1", "write 0008=ffffffff", "clear halt 02",
                                "clear halt 02", "bulk 02 97991", "read 0008", "read 0008",
                                "read 0008", "write 0008=0", "setting 0"}));
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Ext()->FpgaVersion, 0u);
}

TEST_F(FpgaTest, ConfiguredFpgaIsOnlyAsked) {
    ScriptModeReads({kDone});

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_SUCCESS);

    EXPECT_EQ(Traffic(), Lines{"read 0008"});
    EXPECT_EQ(Log().back(), "ORNIX: fpga is already programmed!!");
}

TEST_F(FpgaTest, NothingIsDoneWithoutPipeDescriptorOrImage) {
    const struct {
        const char* message;
        void (*prepare)(PORNIX_DEVICE_CONTEXT ext, PUSB_DEVICE_DESCRIPTOR& saved);
    } cases[] = {
        {"ORNIX: No FPGA pipe",
         [](PORNIX_DEVICE_CONTEXT ext, PUSB_DEVICE_DESCRIPTOR&) { ext->FpgaPipe = ORNIX_NO_PIPE; }},
        {"ORNIX: No Device Descriptor",
         [](PORNIX_DEVICE_CONTEXT ext, PUSB_DEVICE_DESCRIPTOR& saved) {
             saved = ext->DeviceDescriptor;
             ext->DeviceDescriptor = nullptr;
         }},
        {"ORNIX: No FPGA program, fpgaConfig is 1",
         [](PORNIX_DEVICE_CONTEXT ext, PUSB_DEVICE_DESCRIPTOR&) {
             ext->DeviceDescriptor->bcdDevice = 1;
         }},
    };
    for (const auto& c : cases) {
        PORNIX_DEVICE_CONTEXT ext = Ext();
        ULONG pipe = ext->FpgaPipe;
        PUSB_DEVICE_DESCRIPTOR saved = nullptr;
        c.prepare(ext, saved);
        winsim::ClearDebugLog();

        EXPECT_EQ(OrnixProgramFpga(ext), STATUS_SUCCESS) << c.message;

        EXPECT_EQ(Log(), Lines{c.message});
        EXPECT_TRUE(Traffic().empty()) << c.message;
        ext->FpgaPipe = pipe;
        if (saved != nullptr) {
            ext->DeviceDescriptor = saved;
        }
        ext->DeviceDescriptor->bcdDevice = 0;
    }
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
    std::vector<uint32_t> modeReads;  // empty: the camera's own FPGA
    const char* message;              // nullptr: nothing printed
    bool failsWithStepStatus;         // else STATUS_UNSUCCESSFUL
    Undo undo;
    uint64_t vendorRequests;  // register requests sent, the failed one included
};

std::ostream& operator<<(std::ostream& out, const FailureCase& c) {
    return out << c.name;
}

class FpgaFailureTest : public FpgaTest, public ::testing::WithParamInterface<FailureCase> {};

// Requests that fail complete with "device gone", whose status
// (STATUS_DEVICE_REMOVED) differs from the one the driver makes up itself.
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

    NTSTATUS status = OrnixProgramFpga(Ext());

    EXPECT_EQ(status, c.failsWithStepStatus ? STATUS_DEVICE_REMOVED : STATUS_UNSUCCESSFUL);
    if (c.message != nullptr) {
        EXPECT_EQ(CountLogged(c.message), 1u);
    }
    EXPECT_EQ(Ext()->FpgaVersion, 0u);

    // Undo shows in the number of register requests (the failed one
    // included) and in the traffic that reached the camera.
    EXPECT_EQ(Stack().Counts(RequestKind::VendorDevice).submitted - vendorBefore, c.vendorRequests);
    Lines traffic = Traffic();
    ASSERT_FALSE(traffic.empty());
    if (c.undo == Undo::None) {
        EXPECT_EQ(traffic, Lines{"read 0008"});
        return;
    }
    EXPECT_EQ(traffic.back(), "setting 0");
    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Camera().AlternateSetting(), 0);
    if (c.undo == Undo::LeaveProgramModeAndRestore) {
        EXPECT_EQ(traffic[traffic.size() - 2], "write 0008=0");
    }
}

// Register requests of a download: 1 mode read, 2 enter program mode, 3 busy
// poll, 4 leave program mode, 5 done read.
INSTANTIATE_TEST_SUITE_P(
    EachStep, FpgaFailureTest,
    ::testing::Values(FailureCase{"SettingNotSelectable",
                                  RequestKind::SelectInterface,
                                  1,
                                  {},
                                  nullptr,
                                  true,
                                  Undo::None,
                                  1},
                      FailureCase{"EnterProgramMode",
                                  RequestKind::VendorDevice,
                                  2,
                                  {},
                                  "ORNIX: Failed to set in fpga program mode",
                                  true,
                                  Undo::LeaveProgramModeAndRestore,
                                  3},
                      FailureCase{"PipeReset",
                                  RequestKind::ResetPipe,
                                  1,
                                  {},
                                  "ORNIX: Failed to reset fpga pipe with 0xc00002b6",
                                  true,
                                  Undo::LeaveProgramModeAndRestore,
                                  3},
                      FailureCase{"BulkTransfer",
                                  RequestKind::BulkOrInterrupt,
                                  1,
                                  {},
                                  "ORNIX: Failed to program fpga, usb bulk failed:0xc00002b6",
                                  true,
                                  Undo::LeaveProgramModeAndRestore,
                                  3},
                      FailureCase{"BusyPoll",
                                  RequestKind::VendorDevice,
                                  3,
                                  {},
                                  "ORNIX: Failed to read fpga mode reg",
                                  true,
                                  Undo::LeaveProgramModeAndRestore,
                                  4},
                      FailureCase{"FinalBusyRead",
                                  RequestKind::VendorDevice,
                                  5,
                                  {kIdle, kBusy, kBusy},
                                  "ORNIX: Could not read fpga mode reg",
                                  true,
                                  Undo::LeaveProgramModeAndRestore,
                                  6},
                      FailureCase{"LeaveProgramMode",
                                  RequestKind::VendorDevice,
                                  4,
                                  {},
                                  "ORNIX: fpga mode write fialed",
                                  true,
                                  Undo::Restore,
                                  4},
                      FailureCase{"DoneRead",
                                  RequestKind::VendorDevice,
                                  5,
                                  {},
                                  "ORNIX: fpga mode regread failed",
                                  true,
                                  Undo::Restore,
                                  5},
                      FailureCase{"DoneBitClear",
                                  RequestKind::Other,
                                  0,
                                  {kIdle},
                                  "ORNIX: Unexpected!: Fpga remained not programmed",
                                  false,
                                  Undo::Restore,
                                  5}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return std::string(info.param.name); });

TEST_F(FpgaTest, FailedFirstReadChangesNothing) {
    Stack().AddFault({.kind = RequestKind::VendorDevice,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEVICE_GONE});

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_DEVICE_REMOVED);

    EXPECT_EQ(Log().back(), "ORNIX: fpga mode regread failed");
    EXPECT_EQ(Traffic(), Lines{});  // refused before it reached the camera
}

TEST_F(FpgaTest, FailedReturnToTheOldSettingSkipsTheVersion) {
    Stack().AddFault({.kind = RequestKind::SelectInterface,
                      .occurrence = 2,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEVICE_GONE});

    EXPECT_EQ(OrnixProgramFpga(Ext()), STATUS_DEVICE_REMOVED);

    EXPECT_TRUE(Camera().FpgaConfigured());
    EXPECT_EQ(Ext()->FpgaVersion, 0u);
    Lines traffic = Traffic();
    EXPECT_EQ(std::count(traffic.begin(), traffic.end(), "read 000c"), 0);
}

TEST(FpgaImageTable, HoldsTheReleaseZeroImage) {
    ASSERT_EQ(FpgaImageCount, 1u);
    EXPECT_EQ(FpgaImageTable[0].Length, kImageLength);
    EXPECT_EQ(OrnixFpgaImageRelease0Length, kImageLength);
    EXPECT_EQ(FpgaImageTable[0].Data, OrnixFpgaImageRelease0);
    std::span<const uint8_t> accepted = ornixcam::ExpectedFpgaImage();
    ASSERT_EQ(accepted.size(), kImageLength);
    EXPECT_EQ(std::memcmp(accepted.data(), FpgaImageTable[0].Data, kImageLength), 0);
}

}  // namespace
}  // namespace ornixtest
