// USB configuration during bring-up: fetching the configuration descriptor,
// the pipe map, the camera id fallback, the interface version, and cameras
// whose descriptors would lead a careless driver astray.
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using Bytes = std::vector<uint8_t>;

Bytes Interface(uint8_t setting, uint8_t endpoints) {
    return {9, 4, 0, setting, endpoints, 0xFF, 0, 0, 0};
}
Bytes Endpoint(uint8_t address, uint8_t type, uint16_t packet) {
    return {7, 5, address, type, uint8_t(packet & 0xFF), uint8_t(packet >> 8), 0};
}
Bytes ClassSpecific(uint8_t length) {
    Bytes bytes(length, 0);
    bytes[0] = length;
    bytes[1] = 0x24;
    return bytes;
}

// A configuration descriptor of the given parts with the right total length.
Bytes Configuration(std::initializer_list<Bytes> parts) {
    Bytes bytes{9, 2, 0, 0, 1, 1, 0, 0x80, 250};
    for (const Bytes& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    bytes[2] = uint8_t(bytes.size() & 0xFF);
    bytes[3] = uint8_t(bytes.size() >> 8);
    return bytes;
}

constexpr uint8_t kBulk = 2;
constexpr uint8_t kInterrupt = 3;

class ConfigurationTest : public DriverTest {
  protected:
    bool StartsAdapterInSetUp() const override { return false; }
    ornixcam::Profile CameraProfile() const override { return profile_; }

    // Plugs in a camera with this profile and starts the adapter.
    NTSTATUS Start(const ornixcam::Profile& profile) {
        profile_ = profile;
        DriverTest::TearDown();  // the default camera of SetUp goes away unused
        DriverTest::SetUp();
        AddAdapter();
        return StartAdapter();
    }
    NTSTATUS StartWithConfiguration(const Bytes& configuration) {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.rawDescriptors.configuration = configuration;
        return Start(profile);
    }

    ornixcam::Profile profile_ = ornixcam::DefaultProfile();
};

TEST_F(ConfigurationTest, ShortDescriptorIsFetchedInOneRequest) {
    const Bytes forty = Configuration({Interface(0, 2), Endpoint(0x81, kBulk, 512),
                                       Endpoint(0x83, kInterrupt, 8), ClassSpecific(8)});
    ASSERT_EQ(forty.size(), 40u);

    ASSERT_EQ(StartWithConfiguration(forty), STATUS_SUCCESS);

    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:64"), 1u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 2u);
    EXPECT_EQ(Ext()->StreamCount, 1u);
    EXPECT_EQ(Ext()->FpgaPipe, ORNIX_NO_PIPE);
}

TEST_F(ConfigurationTest, LongDescriptorTakesASecondRequestOfItsTotalLength) {
    const Bytes twoHundred =
        Configuration({Interface(0, 3), Endpoint(0x81, kBulk, 512), Endpoint(0x82, kBulk, 512),
                       Endpoint(0x83, kInterrupt, 8), Interface(1, 1), Endpoint(0x02, kBulk, 512),
                       ClassSpecific(145)});
    ASSERT_EQ(twoHundred.size(), 200u);

    ASSERT_EQ(StartWithConfiguration(twoHundred), STATUS_SUCCESS);

    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:64"), 1u);
    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:200"), 1u);
    EXPECT_EQ(Ext()->ConfigurationDescriptor->wTotalLength, 200);
    EXPECT_EQ(Ext()->StreamCount, 2u);
}

TEST_F(ConfigurationTest, DefaultCameraGetsTheFullPipeMap) {
    ASSERT_EQ(Start(ornixcam::DefaultProfile()), STATUS_SUCCESS);

    PORNIX_DEVICE_CONTEXT ext = Ext();
    EXPECT_EQ(ext->StreamCount, 2u);
    EXPECT_EQ(ext->VideoAltSetting, 0u);
    EXPECT_EQ(ext->CapturePipe, 0u);
    EXPECT_EQ(ext->StillPipe, 1u);
    EXPECT_EQ(ext->InterruptPipe, 2u);
    EXPECT_EQ(ext->FpgaAltSetting, 1u);
    EXPECT_EQ(ext->FpgaPipe, 0u);
    EXPECT_EQ(ext->HighSpeed, 1);
    // Record 0 is the one the stack returned, with its handles.
    PUSBD_INTERFACE_INFORMATION video = ext->InterfaceInfoTable[0];
    EXPECT_NE(video->InterfaceHandle, nullptr);
    EXPECT_NE(video->Pipes[ext->CapturePipe].PipeHandle, nullptr);
    EXPECT_EQ(ext->InterfaceInfoTable[1]->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(ext->InterfaceInfoTable[1]->Pipes[0].MaximumTransferSize, FpgaImageTable[0].Length);
}

TEST_F(ConfigurationTest, BulkInOfAnotherSettingIsNoStillPipe) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.configuration.alternateSettings = {
        {.endpoints = {{0x81, ornixcam::EndpointType::Bulk, 512, 0},
                       {0x83, ornixcam::EndpointType::Interrupt, 8, 4}}},
        {.endpoints = {{0x82, ornixcam::EndpointType::Bulk, 512, 0},
                       {0x02, ornixcam::EndpointType::Bulk, 512, 0}}},
    };

    ASSERT_EQ(Start(profile), STATUS_SUCCESS);

    EXPECT_EQ(Ext()->StreamCount, 1u);
    EXPECT_EQ(Ext()->StillPipe, ORNIX_NO_PIPE);
    EXPECT_EQ(Ext()->FpgaAltSetting, 1u);
    EXPECT_EQ(Ext()->FpgaPipe, 1u);
    EXPECT_EQ(Class().StreamDescriptorSize(),
              sizeof(HW_STREAM_HEADER) + sizeof(HW_STREAM_INFORMATION));
}

TEST_F(ConfigurationTest, ProductIdIsTheCameraIdOnlyWhenTheRegistryGaveNone) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.device.idProduct = 0x1234;

    ASSERT_EQ(Start(profile), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CameraId, 0x1234u);
    EXPECT_TRUE(Logged("ORNIX: PID fix for OrnixFindCameraId failure bug"));

    DriverTest::TearDown();
    DriverTest::SetUp();
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, u"TevrinKey", u"Ornix0A2F");
    AddAdapter();
    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CameraId, 0xA2Fu);
    EXPECT_FALSE(Logged("ORNIX: PID fix for OrnixFindCameraId failure bug"));
}

TEST_F(ConfigurationTest, NewerInterfaceVersionRunsAsVersionOne) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.registers[ORNIX_SPEC_VERSION] = 3;

    ASSERT_EQ(Start(profile), STATUS_SUCCESS);

    EXPECT_EQ(Ext()->SpecVersion, 1u);
    EXPECT_EQ(CountLogged("ORNIX: Specification version too high:3, we support:1"), 1u);
}

// Hand-built request records: what OrnixAssignPipes sees of a camera.
class AssignPipesTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        OrnixUninitializeDevice(Ext());  // no formats: the frame limit is 4096
    }
    PUSBD_INTERFACE_INFORMATION Setting(std::initializer_list<USBD_PIPE_INFORMATION> pipes) {
        storage_.emplace_back((GET_USBD_INTERFACE_SIZE(pipes.size()) + 7) / 8);
        auto* info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(storage_.back().data());
        info->NumberOfPipes = ULONG(pipes.size());
        ULONG i = 0;
        for (const USBD_PIPE_INFORMATION& pipe : pipes) {
            info->Pipes[i++] = pipe;
        }
        return info;
    }
    static USBD_PIPE_INFORMATION Pipe(UCHAR address, USBD_PIPE_TYPE type, USHORT packet) {
        USBD_PIPE_INFORMATION pipe{};
        pipe.EndpointAddress = address;
        pipe.PipeType = type;
        pipe.MaximumPacketSize = packet;
        pipe.MaximumTransferSize = 0xFFFFFFFF;
        return pipe;
    }
    void Assign(std::initializer_list<PUSBD_INTERFACE_INFORMATION> settings) {
        list_.clear();
        for (PUSBD_INTERFACE_INFORMATION setting : settings) {
            list_.push_back({nullptr, setting});
        }
        list_.push_back({nullptr, nullptr});
        EXPECT_EQ(OrnixAssignPipes(Ext(), list_.data()), 0u);
    }

  private:
    std::vector<std::vector<uint64_t>> storage_;
    std::vector<USBD_INTERFACE_LIST_ENTRY> list_;
};

TEST_F(AssignPipesTest, TwoBulkInPipesOfOneSettingAreCaptureAndStill) {
    PUSBD_INTERFACE_INFORMATION video =
        Setting({Pipe(0x83, UsbdPipeTypeInterrupt, 8), Pipe(0x81, UsbdPipeTypeBulk, 512),
                 Pipe(0x82, UsbdPipeTypeBulk, 512), Pipe(0x84, UsbdPipeTypeBulk, 512)});
    PUSBD_INTERFACE_INFORMATION fpga = Setting({Pipe(0x02, UsbdPipeTypeBulk, 512)});

    Assign({video, fpga});

    PORNIX_DEVICE_CONTEXT ext = Ext();
    EXPECT_EQ(ext->StreamCount, 2u);
    EXPECT_EQ(ext->InterruptPipe, 0u);
    EXPECT_EQ(ext->CapturePipe, 1u);
    EXPECT_EQ(ext->StillPipe, 2u);
    EXPECT_EQ(ext->FpgaPipe, 0u);
    EXPECT_EQ(ext->FpgaAltSetting, 1u);
    // A frame limit below the cap is used unchanged.
    EXPECT_EQ(video->Pipes[1].MaximumTransferSize, 4096u);
    EXPECT_EQ(video->Pipes[1].PipeFlags, ULONG(USBD_PF_CHANGE_MAX_PACKET));
    EXPECT_EQ(video->Pipes[2].MaximumTransferSize, 4096u);
    EXPECT_EQ(video->Pipes[0].MaximumTransferSize, 8u);
    EXPECT_EQ(video->Pipes[0].PipeFlags, 0u);
    // A third bulk-in pipe is left as it was.
    EXPECT_EQ(video->Pipes[3].MaximumTransferSize, 0xFFFFFFFFu);
    EXPECT_EQ(video->Pipes[3].PipeFlags, 0u);
    EXPECT_EQ(fpga->Pipes[0].MaximumTransferSize, FpgaImageTable[0].Length);
    EXPECT_EQ(ext->HighSpeed, 1);
}

TEST_F(AssignPipesTest, MapIsRebuiltFromScratchAndFollowsThePacketSize) {
    Assign({Setting({Pipe(0x81, UsbdPipeTypeBulk, 512), Pipe(0x82, UsbdPipeTypeBulk, 512)})});
    ASSERT_EQ(Ext()->StreamCount, 2u);

    Assign({Setting({Pipe(0x83, UsbdPipeTypeInterrupt, 8)}),
            Setting({Pipe(0x81, UsbdPipeTypeBulk, 64)})});

    EXPECT_EQ(Ext()->StreamCount, 1u);
    EXPECT_EQ(Ext()->VideoAltSetting, 1u);
    EXPECT_EQ(Ext()->CapturePipe, 0u);
    EXPECT_EQ(Ext()->StillPipe, ORNIX_NO_PIPE);
    EXPECT_EQ(Ext()->FpgaPipe, ORNIX_NO_PIPE);
    EXPECT_EQ(Ext()->HighSpeed, 0);
}

// Cameras whose descriptors do not hold together: bring-up fails without
// reading past what the camera returned, and leaves nothing behind.
struct BrokenCamera {
    const char* name;
    Bytes configuration;
    NTSTATUS status;
};

void PrintTo(const BrokenCamera& camera, std::ostream* out) {
    *out << camera.name;
}

Bytes WithByte(Bytes bytes, size_t offset, uint8_t value) {
    bytes.at(offset) = value;
    return bytes;
}

// Settings at offsets 9 and 39, the FPGA endpoint at 48; 55 bytes.
Bytes DefaultLayout() {
    return Configuration({Interface(0, 3), Endpoint(0x81, kBulk, 512), Endpoint(0x82, kBulk, 512),
                          Endpoint(0x83, kInterrupt, 8), Interface(1, 1),
                          Endpoint(0x02, kBulk, 512)});
}

class BrokenDescriptorTest : public ConfigurationTest,
                             public ::testing::WithParamInterface<BrokenCamera> {};

TEST_P(BrokenDescriptorTest, BringUpFailsAndReleasesEverything) {
    EXPECT_EQ(StartWithConfiguration(GetParam().configuration), GetParam().status);

    EXPECT_EQ(Ext()->Initialized, 0);
    EXPECT_EQ(Ext()->ConfigurationDescriptor, nullptr);
    EXPECT_EQ(Ext()->InterfaceInfoTable, nullptr);
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, BrokenDescriptorTest,
    ::testing::Values(BrokenCamera{"zero-length endpoint", WithByte(DefaultLayout(), 18 + 7, 0),
                                   STATUS_INVALID_PARAMETER},
                      BrokenCamera{"total longer than returned", WithByte(DefaultLayout(), 3, 1),
                                   STATUS_INVALID_PARAMETER},
                      BrokenCamera{"total shorter than a header", WithByte(DefaultLayout(), 2, 5),
                                   STATUS_INVALID_PARAMETER},
                      BrokenCamera{"more endpoints than follow",
                                   WithByte(DefaultLayout(), 39 + 4, 3),
                                   STATUS_INVALID_PARAMETER},
                      BrokenCamera{"descriptor running past the end",
                                   WithByte(DefaultLayout(), 48, 9),
                                   STATUS_INVALID_PARAMETER},
                      BrokenCamera{"no setting of interface 0",
                                   WithByte(WithByte(DefaultLayout(), 9 + 2, 1), 39 + 2, 1),
                                   STATUS_INSUFFICIENT_RESOURCES}));

TEST_F(ConfigurationTest, ShortDeviceDescriptorFailsBringUp) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.rawDescriptors.device =
        Bytes{12, 1, 0x00, 0x02, 0xFF, 0, 0, 64, 0x34, 0x12, 0x2F, 0x0A};

    EXPECT_EQ(Start(profile), STATUS_INVALID_PARAMETER);

    EXPECT_EQ(Ext()->DeviceDescriptor, nullptr);
    EXPECT_EQ(Ext()->CameraId, 0u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 1u);
}

}  // namespace
}  // namespace ornixtest
