// USB configuration: the driver's own search of a configuration descriptor
// and its select-configuration request, fetching the descriptor during
// bring-up, the pipe map, the camera id fallback, the interface version, and
// cameras whose descriptors would lead a careless driver astray.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <tuple>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using Bytes = std::vector<uint8_t>;

// A configuration with two settings of interface 0 (three endpoints, then
// one) and a class-specific descriptor between them.
constexpr size_t kSetting0 = 9;
constexpr size_t kSetting1 = 9 + 9 + 3 * 7 + 5;
constexpr uint8_t kTotal = kSetting1 + 9 + 7;

class DescriptorTest : public DriverTest {
  protected:
    Bytes bytes_ = {
        9, 2,    kTotal, 0,    1,    1,    0,    0x80, 250,  // configuration
        9, 4,    0,      0,    3,    0xFF, 0x01, 0x02, 0,    // interface 0, setting 0
        7, 5,    0x81,   0x02, 0x00, 0x02, 0,                // bulk in, 512
        7, 5,    0x82,   0x0D, 0x40, 0x00, 0,                // isochronous, synchronous, 64
        7, 5,    0x83,   0x03, 0x08, 0x00, 4,                // interrupt in, 8, every 4
        5, 0x24, 1,      2,    3,                            // class-specific
        9, 4,    0,      1,    1,    0xFF, 0x01, 0x03, 0,    // interface 0, setting 1
        7, 5,    0x02,   0x02, 0x00, 0x02, 0,                // bulk out, 512
    };
    PUSB_CONFIGURATION_DESCRIPTOR Configuration() {
        return reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes_.data());
    }
    PVOID At(size_t offset) { return bytes_.data() + offset; }
    PUSB_INTERFACE_DESCRIPTOR Find(size_t start, LONG number, LONG setting, LONG cls = -1,
                                   LONG subClass = -1, LONG protocol = -1) {
        return USBD_ParseConfigurationDescriptorEx(Configuration(), At(start), number, setting, cls,
                                                   subClass, protocol);
    }
};

TEST_F(DescriptorTest, SearchMatchesEachCriterionOrAnyInsideTheDescriptor) {
    EXPECT_EQ(Find(0, -1, -1), At(kSetting0));
    EXPECT_EQ(Find(0, -1, 1), At(kSetting1));
    EXPECT_EQ(Find(0, 0, -1, 0xFF, 0x01, 0x03), At(kSetting1));
    EXPECT_EQ(Find(kSetting0, 0, 0), At(kSetting0));  // the start itself counts
    EXPECT_EQ(Find(0, 1, -1), nullptr);
    EXPECT_EQ(Find(0, -1, -1, 0x0E), nullptr);
    EXPECT_EQ(Find(0, -1, 2), nullptr);

    // The search stops at the total length and at a zero length.
    EXPECT_EQ(Find(kSetting1 + 9, -1, -1), nullptr);

    bytes_[kSetting0 + 9 + 3 * 7] = 0;  // the class-specific descriptor
    EXPECT_EQ(Find(0, -1, 0), At(kSetting0));
    EXPECT_EQ(Find(0, -1, 1), nullptr);

    bytes_[kSetting0 + 9 + 3 * 7] = 5;
    bytes_[2] = kSetting1;  // the second setting lies beyond the total length
    EXPECT_EQ(Find(0, -1, 1), nullptr);
}

// Without memory there is no request; otherwise it describes every listed
// interface and its pipes.
TEST_F(DescriptorTest, RequestDescribesEveryListedInterfaceAndItsPipes) {
    using SelectUrb = struct _URB_SELECT_CONFIGURATION;
    USBD_INTERFACE_LIST_ENTRY list[3] = {
        {Find(0, 0, 1), nullptr}, {Find(0, 0, 0), nullptr}, {nullptr, nullptr}};
    const uint64_t blocksBefore = winsim::OutstandingPool()[kDriverTag].blocks;
    winsim::FailAllocationsWithTag(kDriverTag);
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(Configuration(), list), nullptr);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(list[0].Interface, nullptr);

    auto* urb =
        reinterpret_cast<SelectUrb*>(USBD_CreateConfigurationRequestEx(Configuration(), list));
    ASSERT_NE(urb, nullptr);

    const size_t oneLength = GET_USBD_INTERFACE_SIZE(1);
    const size_t threeLength = GET_USBD_INTERFACE_SIZE(3);
    EXPECT_EQ(urb->Hdr.Length, offsetof(SelectUrb, Interface) + oneLength + threeLength);
    EXPECT_EQ(urb->Hdr.Function, URB_FUNCTION_SELECT_CONFIGURATION);
    EXPECT_EQ(urb->ConfigurationDescriptor, Configuration());
    EXPECT_EQ(urb->ConfigurationHandle, nullptr);

    // In list order, each interface right after the previous one.
    PUSBD_INTERFACE_INFORMATION fpga = &urb->Interface;
    auto* video =
        reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(reinterpret_cast<uint8_t*>(fpga) + oneLength);
    EXPECT_EQ(list[0].Interface, fpga);
    EXPECT_EQ(list[1].Interface, video);
    // (length, number, setting, class, subclass, protocol, handle) and each
    // pipe's (address, packet, type, interval, transfer size, flags, handle).
    const auto header = [](PUSBD_INTERFACE_INFORMATION i) {
        return std::tuple<size_t, int, int, int, int, int, PVOID>(
            i->Length, i->InterfaceNumber, i->AlternateSetting, i->Class, i->SubClass, i->Protocol,
            i->InterfaceHandle);
    };
    using Pipe = std::tuple<int, int, USBD_PIPE_TYPE, int, ULONG, ULONG, PVOID>;
    const auto pipes = [](PUSBD_INTERFACE_INFORMATION i) {
        std::vector<Pipe> out;
        for (ULONG p = 0; p < i->NumberOfPipes; ++p) {
            const USBD_PIPE_INFORMATION& pipe = i->Pipes[p];
            out.emplace_back(pipe.EndpointAddress, pipe.MaximumPacketSize, pipe.PipeType,
                             pipe.Interval, pipe.MaximumTransferSize, pipe.PipeFlags,
                             pipe.PipeHandle);
        }
        return out;
    };
    EXPECT_EQ(header(fpga), std::make_tuple(oneLength, 0, 1, 0xFF, 0x01, 0x03, nullptr));
    EXPECT_EQ(header(video), std::make_tuple(threeLength, 0, 0, 0xFF, 0x01, 0x02, nullptr));
    EXPECT_EQ(pipes(fpga),
              (std::vector<Pipe>{{0x02, 512, UsbdPipeTypeBulk, 0, 0xFFFFFFFF, 0, nullptr}}));
    EXPECT_EQ(pipes(video), (std::vector<Pipe>{
                                {0x81, 512, UsbdPipeTypeBulk, 0, 0xFFFFFFFF, 0, nullptr},
                                {0x82, 64, UsbdPipeTypeIsochronous, 0, 0xFFFFFFFF, 0, nullptr},
                                {0x83, 8, UsbdPipeTypeInterrupt, 4, 0xFFFFFFFF, 0, nullptr},
                            }));

    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, blocksBefore + 1);
    ExFreePoolWithTag(urb, kDriverTag);
}

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

Bytes WithByte(Bytes bytes, size_t offset, uint8_t value) {
    bytes.at(offset) = value;
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
        DriverTest::TearDown();  // the camera plugged in before goes away
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

// The first request asks for 64 bytes; only a longer configuration takes a
// second request of its total length.
TEST_F(ConfigurationTest, DescriptorIsFetchedWholeInOneOrTwoRequests) {
    const Bytes forty = Configuration({Interface(0, 2), Endpoint(0x81, kBulk, 512),
                                       Endpoint(0x83, kInterrupt, 8), ClassSpecific(8)});
    ASSERT_EQ(forty.size(), 40u);
    ASSERT_EQ(StartWithConfiguration(forty), STATUS_SUCCESS);
    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:64"), 1u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 2u);
    EXPECT_EQ(Ext()->StreamCount, 1u);
    EXPECT_EQ(Ext()->FpgaPipe, ORNIX_NO_PIPE);

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

// The product id stands in for a camera id the registry did not give; an
// interface version above 1 runs as version 1.
TEST_F(ConfigurationTest, ProductIdAndNewerInterfaceVersionAreFallenBackOn) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.device.idProduct = 0x1234;
    profile.registers[ORNIX_SPEC_VERSION] = 3;
    constexpr const char* kFix = "ORNIX: PID fix for OrnixFindCameraId failure bug";

    ASSERT_EQ(Start(profile), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CameraId, 0x1234u);
    EXPECT_TRUE(Logged(kFix));
    EXPECT_EQ(Ext()->SpecVersion, 1u);
    EXPECT_EQ(CountLogged("ORNIX: Specification version too high:3, we support:1"), 1u);

    DriverTest::TearDown();
    DriverTest::SetUp();
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, u"TevrinKey", u"Ornix0A2F");
    AddAdapter();
    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->CameraId, 0xA2Fu);
    EXPECT_FALSE(Logged(kFix));
}

// Cameras whose descriptors do not hold together: bring-up fails without
// reading past what the camera returned, and leaves nothing behind.
TEST_F(ConfigurationTest, BrokenDescriptorsFailBringUpAndReleaseEverything) {
    // Settings at offsets 9 and 39, the FPGA endpoint at 48; 55 bytes.
    const Bytes layout =
        Configuration({Interface(0, 3), Endpoint(0x81, kBulk, 512), Endpoint(0x82, kBulk, 512),
                       Endpoint(0x83, kInterrupt, 8), Interface(1, 1), Endpoint(0x02, kBulk, 512)});
    const struct {
        const char* what;
        Bytes configuration;
        NTSTATUS status;
    } cases[] = {
        {"zero-length endpoint", WithByte(layout, 18 + 7, 0), STATUS_INVALID_PARAMETER},
        {"total longer than returned", WithByte(layout, 3, 1), STATUS_INVALID_PARAMETER},
        {"total shorter than a header", WithByte(layout, 2, 5), STATUS_INVALID_PARAMETER},
        {"more endpoints than follow", WithByte(layout, 39 + 4, 3), STATUS_INVALID_PARAMETER},
        {"descriptor running past the end", WithByte(layout, 48, 9), STATUS_INVALID_PARAMETER},
        {"no setting of interface 0", WithByte(WithByte(layout, 9 + 2, 1), 39 + 2, 1),
         STATUS_INSUFFICIENT_RESOURCES},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        EXPECT_EQ(StartWithConfiguration(c.configuration), c.status);

        EXPECT_EQ(Ext()->Initialized, 0);
        EXPECT_EQ(Ext()->ConfigurationDescriptor, nullptr);
        EXPECT_EQ(Ext()->InterfaceInfoTable, nullptr);
        EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
    }

    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.rawDescriptors.device =
        Bytes{12, 1, 0x00, 0x02, 0xFF, 0, 0, 64, 0x34, 0x12, 0x2F, 0x0A};
    EXPECT_EQ(Start(profile), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Ext()->DeviceDescriptor, nullptr);
    EXPECT_EQ(Ext()->CameraId, 0u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 1u);
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
        std::copy(pipes.begin(), pipes.end(), info->Pipes);
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
        std::vector<USBD_INTERFACE_LIST_ENTRY> list;
        for (PUSBD_INTERFACE_INFORMATION setting : settings) {
            list.push_back({nullptr, setting});
        }
        list.push_back({nullptr, nullptr});
        EXPECT_EQ(OrnixAssignPipes(Ext(), list.data()), 0u);
    }

  private:
    std::vector<std::vector<uint64_t>> storage_;
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

TEST_F(AssignPipesTest, MapIsRebuiltFromScratchFromTheSettingsGiven) {
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

    // A bulk-in pipe of another setting is no still pipe.
    Assign({Setting({Pipe(0x81, UsbdPipeTypeBulk, 512), Pipe(0x83, UsbdPipeTypeInterrupt, 8)}),
            Setting({Pipe(0x82, UsbdPipeTypeBulk, 512), Pipe(0x02, UsbdPipeTypeBulk, 512)})});
    EXPECT_EQ(Ext()->StreamCount, 1u);
    EXPECT_EQ(Ext()->StillPipe, ORNIX_NO_PIPE);
    EXPECT_EQ(Ext()->FpgaAltSetting, 1u);
    EXPECT_EQ(Ext()->FpgaPipe, 1u);
}

}  // namespace
}  // namespace ornixtest
