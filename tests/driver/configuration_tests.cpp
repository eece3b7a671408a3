// USB configuration: descriptor search and select-configuration request, fetching
// and checking descriptors, camera id, interface version, serial number, pipe map.
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

constexpr uint8_t kBulk = 2;
constexpr uint8_t kInterrupt = 3;

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

class ConfigurationTest : public UnstartedDriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return profile_; }
    static Bytes Interface(uint8_t setting, uint8_t endpoints, uint8_t protocol = 0) {
        return {9, 4, 0, setting, endpoints, 0xFF, 0x01, protocol, 0};
    }
    static Bytes Endpoint(uint8_t address, uint8_t type, uint16_t packet, uint8_t interval = 0) {
        return {7, 5, address, type, uint8_t(packet & 0xFF), uint8_t(packet >> 8), interval};
    }
    static Bytes ClassSpecific(uint8_t length) { return WithByte(Bytes(length, 0x24), 0, length); }
    // Plugs in a camera with this profile and starts the adapter.
    NTSTATUS Start(const ornixcam::Profile& profile) {
        profile_ = profile;
        DriverTest::TearDown();  // the camera plugged in before goes away
        DriverTest::SetUp();
        AddAdapter();
        return StartAdapter();
    }
    ornixcam::Profile profile_ = ornixcam::DefaultProfile();
};

// Two settings of interface 0 (three endpoints, then one), a class descriptor between.
class DescriptorTest : public ConfigurationTest {
  protected:
    static constexpr size_t kSetting0 = 9;
    static constexpr size_t kSetting1 = 9 + 9 + 3 * 7 + 5;
    Bytes bytes_ = Configuration({Interface(0, 3, 0x02), Endpoint(0x81, kBulk, 512),
                                  Endpoint(0x82, 0x0D, 64),  // isochronous, synchronous
                                  Endpoint(0x83, kInterrupt, 8, 4), ClassSpecific(5),
                                  Interface(1, 1, 0x03), Endpoint(0x02, kBulk, 512)});
    PUSB_CONFIGURATION_DESCRIPTOR Descriptor() {
        return reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(bytes_.data());
    }
    PVOID At(size_t offset) { return bytes_.data() + offset; }
    PUSB_INTERFACE_DESCRIPTOR Find(size_t start, LONG number, LONG setting, LONG cls = -1,
                                   LONG subClass = -1, LONG protocol = -1) {
        return USBD_ParseConfigurationDescriptorEx(Descriptor(), At(start), number, setting, cls,
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
    // The search stops at the total length and at a zero length.
    EXPECT_EQ(Find(kSetting1 + 9, -1, -1), nullptr);
    bytes_[kSetting0 + 9 + 3 * 7] = 0;  // the class-specific descriptor
    EXPECT_EQ(Find(0, -1, 0), At(kSetting0));
    EXPECT_EQ(Find(0, -1, 1), nullptr);
    bytes_[kSetting0 + 9 + 3 * 7] = 5;
    bytes_[2] = kSetting1;  // the second setting lies beyond the total length
    EXPECT_EQ(Find(0, -1, 1), nullptr);
}

// In list order, each interface right after the previous one; none without memory.
TEST_F(DescriptorTest, RequestDescribesEveryListedInterfaceAndItsPipes) {
    using SelectUrb = struct _URB_SELECT_CONFIGURATION;
    USBD_INTERFACE_LIST_ENTRY list[3] = {
        {Find(0, 0, 1), nullptr}, {Find(0, 0, 0), nullptr}, {nullptr, nullptr}};
    winsim::FailAllocationsWithTag(kDriverTag);
    EXPECT_EQ(USBD_CreateConfigurationRequestEx(Descriptor(), list), nullptr);
    winsim::ClearAllocationFailures();
    EXPECT_EQ(list[0].Interface, nullptr);
    auto* urb = reinterpret_cast<SelectUrb*>(USBD_CreateConfigurationRequestEx(Descriptor(), list));
    ASSERT_NE(urb, nullptr);
    const size_t one = GET_USBD_INTERFACE_SIZE(1);
    EXPECT_EQ(urb->Hdr.Length, offsetof(SelectUrb, Interface) + one + GET_USBD_INTERFACE_SIZE(3));
    EXPECT_EQ(list[0].Interface, &urb->Interface);
    EXPECT_EQ(reinterpret_cast<uint8_t*>(list[1].Interface),
              reinterpret_cast<uint8_t*>(&urb->Interface) + one);
    // Each pipe: address, packet size, type, interval, transfer size, flags.
    using Row = std::tuple<int, int, int, int, ULONG, ULONG>;
    std::vector<Row> pipes;
    for (const USBD_INTERFACE_LIST_ENTRY& entry : std::span(list, 2)) {
        const PUSBD_INTERFACE_INFORMATION i = entry.Interface;
        for (const USBD_PIPE_INFORMATION& p : std::span(i->Pipes, i->NumberOfPipes)) {
            pipes.emplace_back(p.EndpointAddress, p.MaximumPacketSize, p.PipeType, p.Interval,
                               p.MaximumTransferSize, p.PipeFlags);
        }
    }
    constexpr ULONG kAny = 0xFFFFFFFF;
    EXPECT_EQ(pipes, (std::vector<Row>{{0x02, 512, UsbdPipeTypeBulk, 0, kAny, 0},
                                       {0x81, 512, UsbdPipeTypeBulk, 0, kAny, 0},
                                       {0x82, 64, UsbdPipeTypeIsochronous, 0, kAny, 0},
                                       {0x83, 8, UsbdPipeTypeInterrupt, 4, kAny, 0}}));
    ExFreePoolWithTag(urb, kDriverTag);  // one block: nothing is left for TearDown
}

// A camera sending 200 bytes of configuration (64 are asked for first, then the
// whole; exactly 64 need only the first), only a product id for its camera id and
// a newer interface version is brought up. Broken descriptors fail bring-up
// without a read past what the camera returned, leaving nothing.
TEST_F(ConfigurationTest, UnusualCameraIsBroughtUpAndBrokenDescriptorsFailLeavingNothing) {
    // Settings at offsets 9 and 39, the FPGA endpoint at 48, a class descriptor at 55.
    const auto layoutWith = [](uint8_t classLength) {
        return Configuration({Interface(0, 3), Endpoint(0x81, kBulk, 512),
                              Endpoint(0x82, kBulk, 512), Endpoint(0x83, kInterrupt, 8),
                              Interface(1, 1), Endpoint(0x02, kBulk, 512),
                              ClassSpecific(classLength)});
    };
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.rawDescriptors.configuration = layoutWith(9);
    ASSERT_EQ(profile.rawDescriptors.configuration->size(), 64u);
    ASSERT_EQ(Start(profile), STATUS_SUCCESS);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 2u);  // device, one
    const Bytes layout = layoutWith(145);
    profile.rawDescriptors.configuration = layout;
    profile.device.idProduct = 0x1234;
    profile.registers[ORNIX_SPEC_VERSION] = 3;
    ASSERT_EQ(Start(profile), STATUS_SUCCESS);
    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:64"), 1u);
    EXPECT_EQ(CountLogged("ORNIX: Getting configuration descriptor's, length:200"), 1u);
    EXPECT_EQ(Ext()->StreamCount, 2u);
    EXPECT_EQ(Ext()->CameraId, 0x1234u);
    EXPECT_TRUE(Logged("ORNIX: PID fix for OrnixFindCameraId failure bug"));
    EXPECT_EQ(Ext()->SpecVersion, 1u);
    EXPECT_EQ(CountLogged("ORNIX: Specification version too high:3, we support:1"), 1u);
    const std::tuple<const char*, Bytes, NTSTATUS> cases[] = {
        {"zero-length endpoint", WithByte(layout, 18 + 7, 0), STATUS_INVALID_PARAMETER},
        {"total longer than returned", WithByte(layout, 3, 1), STATUS_INVALID_PARAMETER},
        {"total shorter than a header", WithByte(layout, 2, 5), STATUS_INVALID_PARAMETER},
        {"more endpoints than follow", WithByte(layout, 39 + 4, 3), STATUS_INVALID_PARAMETER},
        {"descriptor running past the end", WithByte(layout, 55, 146), STATUS_INVALID_PARAMETER},
        {"no setting of interface 0", WithByte(WithByte(layout, 9 + 2, 1), 39 + 2, 1),
         STATUS_INSUFFICIENT_RESOURCES},
    };
    for (const auto& [what, configuration, status] : cases) {
        SCOPED_TRACE(what);
        profile.rawDescriptors.configuration = configuration;
        EXPECT_EQ(Start(profile), status);
        EXPECT_EQ(Ext()->Initialized, 0);
        EXPECT_EQ(Ext()->ConfigurationDescriptor, nullptr);
        EXPECT_EQ(Ext()->InterfaceInfoTable, nullptr);
        EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
    }
    profile.rawDescriptors.device =
        Bytes{12, 1, 0x00, 0x02, 0xFF, 0, 0, 64, 0x34, 0x12, 0x2F, 0x0A};
    EXPECT_EQ(Start(profile), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(Ext()->DeviceDescriptor, nullptr);
    EXPECT_EQ(Ext()->CameraId, 0u);
    EXPECT_EQ(Stack().Counts(usbsim::RequestKind::GetDescriptor).submitted, 1u);
}

// The second selection sends setting 0 as the pipe map assigned it, with frame-sized
// transfers, and keeps the answer: the video pipes hold their size, capped by bus
// speed, their flag and their handles after bring-up.
TEST_F(ConfigurationTest, VideoPipesKeepTheirAssignedTransferSizesAfterBringUp) {
    ornixcam::Profile small = ornixcam::DefaultProfile();  // one bank, of 8 bits only
    small.formatBanks.resize(1);
    small.formatBanks[0].maxSize = small.formatBanks[0].size = {320, 240};
    small.formatBanks[0].colorInquiry = 8;
    ornixcam::Profile fullSpeed = ornixcam::DefaultProfile();
    fullSpeed.device.speed = usbsim::BusSpeed::Full;
    for (ornixcam::AlternateSettingProfile& setting : fullSpeed.configuration.alternateSettings) {
        for (ornixcam::EndpointProfile& endpoint : setting.endpoints) {
            if (endpoint.type == ornixcam::EndpointType::Bulk) {
                endpoint.maxPacketSize = 64;
            }
        }
    }
    fullSpeed.registers[ORNIX_SPEED] = 0;
    const struct {
        const char* name;
        ornixcam::Profile profile;
        ULONG size;
    } cases[] = {
        {"largest frame above the 2 MiB cap", ornixcam::DefaultProfile(), 0x200000},
        {"full speed: 256 KiB cap", fullSpeed, 0x40000},
        {"largest frame below the cap", small, 320 * 240},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(Start(c.profile), STATUS_SUCCESS);
        ASSERT_EQ(Ext()->VideoAltSetting, 0u);
        ASSERT_EQ(Ext()->StreamCount, 2u);
        const USBD_INTERFACE_INFORMATION* video = Ext()->InterfaceInfoTable[0];
        for (ULONG pipe : {Ext()->CapturePipe, Ext()->StillPipe}) {
            SCOPED_TRACE(pipe);
            const USBD_PIPE_INFORMATION& info = video->Pipes[pipe];
            EXPECT_EQ(info.MaximumTransferSize, c.size);
            EXPECT_EQ(info.PipeFlags & USBD_PF_CHANGE_MAX_PACKET, ULONG(USBD_PF_CHANGE_MAX_PACKET));
            EXPECT_NE(info.PipeHandle, nullptr);
        }
    }
}

// The string the device descriptor names (3 if none), in US English; anything
// but eight decimal digits reads as 0.
TEST_F(ConfigurationTest, SerialNumberIsExactlyEightDecimalDigits) {
    using Asked = std::tuple<int, int, int, int>;  // bRequest, wValue, wIndex, wLength
    constexpr const char* kCount = "ORNIX: OrnixGetSerialNumber: wrong char count";
    constexpr const char* kChar = "ORNIX: OrnixGetSerialNumber: wrong char in sn";
    const struct {
        uint8_t named;   // by the device descriptor
        uint8_t string;  // the string asked for and set
        std::u16string text;
        ULONG number;
        std::vector<std::string> log;
    } cases[] = {
        {5, 5, u"00000042", 42, {}},
        {0, 3, u"00012345", 12345, {"ORNIX: OrnixGetSerialNumber: inexistant, asusming 3"}},
        {3, 3, u"\u0139\u3230045678", 90045678, {}},  // only the low byte of each character counts
        {3, 3, u"1234567", 0, {kCount}},
        {3, 3, u"123456789", 0, {kCount}},
        {3, 3, u"/1234567", 0, {kChar}},
        {3, 3, u"1234567:", 0, {kChar}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text.begin(), c.text.end()));
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.device.iSerialNumber = c.named;
        profile.strings[c.string] = c.text;
        ASSERT_EQ(Start(profile), STATUS_SUCCESS);
        ConfigureCamera();
        EXPECT_EQ(OrnixGetSerialNumber(Ext()), c.number);
        const std::vector<WireRequest> asked = ControlRequests();
        ASSERT_EQ(asked.size(), 1u);
        EXPECT_EQ(Asked(asked[0].bRequest, asked[0].wValue, asked[0].wIndex, asked[0].wLength),
                  Asked(0x06, 0x0300 | c.string, 0x0409, 32));
        EXPECT_EQ(Log(), c.log);
    }
    Stack().AddFault(
        {.kind = usbsim::RequestKind::GetDescriptor, .action = usbsim::FaultAction::Stall});
    EXPECT_EQ(OrnixGetSerialNumber(Ext()), 0u);
    EXPECT_EQ(Log().back(), "ORNIX: OrnixGetSerialNumber: failed to get number");
}

constexpr ULONG kNone = ORNIX_NO_PIPE;
constexpr USBD_PIPE_TYPE kBulkPipe = UsbdPipeTypeBulk;
constexpr USBD_PIPE_TYPE kInterruptPipe = UsbdPipeTypeInterrupt;

using AssignPipesTest = DriverTest;

// Hand-built request records: what OrnixAssignPipes sees of a camera.
TEST_F(AssignPipesTest, BulkInPipesOfTheVideoSettingAreCaptureAndStillInAMapBuiltAfresh) {
    OrnixUninitializeDevice(Ext());  // no formats: the frame limit is 4096
    std::vector<std::vector<uint64_t>> storage;
    using PipeShape = std::tuple<UCHAR, USBD_PIPE_TYPE, USHORT>;  // address, type, packet size
    const auto setting = [&](std::initializer_list<PipeShape> pipes) {  // pipes of one setting
        storage.emplace_back((GET_USBD_INTERFACE_SIZE(pipes.size()) + 7) / 8);
        auto* info = reinterpret_cast<PUSBD_INTERFACE_INFORMATION>(storage.back().data());
        for (auto [address, type, packet] : pipes) {
            // Packet size, address, interval, type, handle, transfer size, flags.
            info->Pipes[info->NumberOfPipes++] = {packet, address, 0, type, nullptr, 0xFFFFFFFF, 0};
        }
        return info;
    };
    // (streams, interrupt, capture, still, FPGA pipe, high speed)
    const auto assign = [&](std::initializer_list<PUSBD_INTERFACE_INFORMATION> settings) {
        std::vector<USBD_INTERFACE_LIST_ENTRY> list;
        for (PUSBD_INTERFACE_INFORMATION info : settings) {
            list.push_back({nullptr, info});
        }
        list.push_back({nullptr, nullptr});
        EXPECT_EQ(OrnixAssignPipes(Ext(), list.data()), 0u);
        PORNIX_DEVICE_CONTEXT e = Ext();
        return std::vector<ULONG>{e->StreamCount, e->InterruptPipe, e->CapturePipe,
                                  e->StillPipe,   e->FpgaPipe,      ULONG(e->HighSpeed)};
    };
    PUSBD_INTERFACE_INFORMATION video = setting({{0x83, kInterruptPipe, 8},
                                                 {0x81, kBulkPipe, 512},
                                                 {0x82, kBulkPipe, 512},
                                                 {0x84, kBulkPipe, 512}});
    PUSBD_INTERFACE_INFORMATION fpga = setting({{0x02, kBulkPipe, 512}});
    EXPECT_EQ(assign({video, fpga}), (std::vector<ULONG>{2, 0, 1, 2, 0, 1}));
    EXPECT_EQ(Ext()->FpgaAltSetting, 1u);
    // (size, flags): the frame limit below the cap; a third bulk-in pipe untouched.
    std::vector<std::pair<ULONG, ULONG>> sizes;
    for (const USBD_PIPE_INFORMATION& pipe : std::span(video->Pipes, 4)) {
        sizes.emplace_back(pipe.MaximumTransferSize, pipe.PipeFlags);
    }
    constexpr ULONG kChange = USBD_PF_CHANGE_MAX_PACKET;
    EXPECT_EQ(sizes, (std::vector<std::pair<ULONG, ULONG>>{
                         {8, 0}, {4096, kChange}, {4096, kChange}, {0xFFFFFFFF, 0}}));
    EXPECT_EQ(fpga->Pipes[0].MaximumTransferSize, FpgaImageTable[0].Length);
    // Nothing of the map before survives.
    EXPECT_EQ(assign({setting({{0x83, kInterruptPipe, 8}}), setting({{0x81, kBulkPipe, 64}})}),
              (std::vector<ULONG>{1, 0, 0, kNone, kNone, 0}));
    EXPECT_EQ(Ext()->VideoAltSetting, 1u);
    // A bulk-in pipe of another setting is no still pipe.
    EXPECT_EQ(assign({setting({{0x81, kBulkPipe, 512}, {0x83, kInterruptPipe, 8}}),
                      setting({{0x82, kBulkPipe, 512}, {0x02, kBulkPipe, 512}})}),
              (std::vector<ULONG>{1, 1, 0, kNone, 1, 1}));
    EXPECT_EQ(Ext()->FpgaAltSetting, 1u);
}

}  // namespace
}  // namespace ornixtest
