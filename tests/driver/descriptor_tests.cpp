// The driver's own search of a configuration descriptor and its building of
// select-configuration requests.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

// A configuration with two settings of interface 0 (three endpoints, then
// one) and a class-specific descriptor between them; offsets of the
// interface descriptors are noted for the tests.
constexpr size_t kSetting0 = 9;
constexpr size_t kSetting1 = 9 + 9 + 3 * 7 + 5;
constexpr size_t kTotal = kSetting1 + 9 + 7;

std::vector<uint8_t> TwoSettingConfiguration() {
    std::vector<uint8_t> bytes = {
        9, 2,    kTotal, 0,    1,    1,    0,    0x80, 250,  // configuration
        9, 4,    0,      0,    3,    0xFF, 0x01, 0x02, 0,    // interface 0, setting 0
        7, 5,    0x81,   0x02, 0x00, 0x02, 0,                // bulk in, 512
        7, 5,    0x82,   0x0D, 0x40, 0x00, 0,                // isochronous, synchronous, 64
        7, 5,    0x83,   0x03, 0x08, 0x00, 4,                // interrupt in, 8, every 4
        5, 0x24, 1,      2,    3,                            // class-specific
        9, 4,    0,      1,    1,    0xFF, 0x01, 0x03, 0,    // interface 0, setting 1
        7, 5,    0x02,   0x02, 0x00, 0x02, 0,                // bulk out, 512
    };
    EXPECT_EQ(bytes.size(), kTotal);
    return bytes;
}

class DescriptorTest : public DriverTest {
  protected:
    std::vector<uint8_t> bytes_ = TwoSettingConfiguration();
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

TEST_F(DescriptorTest, SearchMatchesEachCriterionOrAny) {
    EXPECT_EQ(Find(0, -1, -1), At(kSetting0));
    EXPECT_EQ(Find(0, -1, 1), At(kSetting1));
    EXPECT_EQ(Find(0, 0, -1, 0xFF, 0x01, 0x03), At(kSetting1));
    EXPECT_EQ(Find(kSetting0, 0, 0), At(kSetting0));  // the start itself counts
    EXPECT_EQ(Find(0, 1, -1), nullptr);
    EXPECT_EQ(Find(0, -1, -1, 0x0E), nullptr);
    EXPECT_EQ(Find(0, -1, 2), nullptr);
}

TEST_F(DescriptorTest, SearchStaysInsideTheTotalLength) {
    EXPECT_EQ(Find(kSetting1 + 9, -1, -1), nullptr);

    // The second setting lies beyond a shortened total length.
    bytes_[2] = kSetting1;
    EXPECT_EQ(Find(0, -1, 1), nullptr);
}

TEST_F(DescriptorTest, ZeroLengthDescriptorEndsTheSearch) {
    bytes_[kSetting0 + 9 + 3 * 7] = 0;  // the class-specific descriptor

    EXPECT_EQ(Find(0, -1, 0), At(kSetting0));
    EXPECT_EQ(Find(0, -1, 1), nullptr);
}

using SelectUrb = struct _URB_SELECT_CONFIGURATION;

TEST_F(DescriptorTest, RequestDescribesEveryListedInterfaceAndItsPipes) {
    USBD_INTERFACE_LIST_ENTRY list[3] = {
        {Find(0, 0, 1), nullptr}, {Find(0, 0, 0), nullptr}, {nullptr, nullptr}};
    const uint64_t blocksBefore = winsim::OutstandingPool()[kDriverTag].blocks;

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

    EXPECT_EQ(fpga->Length, oneLength);
    EXPECT_EQ(fpga->InterfaceNumber, 0);
    EXPECT_EQ(fpga->AlternateSetting, 1);
    EXPECT_EQ(fpga->Class, 0xFF);
    EXPECT_EQ(fpga->SubClass, 0x01);
    EXPECT_EQ(fpga->Protocol, 0x03);
    EXPECT_EQ(fpga->NumberOfPipes, 1u);
    EXPECT_EQ(fpga->InterfaceHandle, nullptr);
    EXPECT_EQ(fpga->Pipes[0].EndpointAddress, 0x02);
    EXPECT_EQ(fpga->Pipes[0].MaximumPacketSize, 512);
    EXPECT_EQ(fpga->Pipes[0].PipeType, UsbdPipeTypeBulk);

    EXPECT_EQ(video->Length, threeLength);
    EXPECT_EQ(video->AlternateSetting, 0);
    EXPECT_EQ(video->Protocol, 0x02);
    ASSERT_EQ(video->NumberOfPipes, 3u);
    const struct {
        UCHAR address;
        USHORT packet;
        USBD_PIPE_TYPE type;
        UCHAR interval;
    } expected[] = {{0x81, 512, UsbdPipeTypeBulk, 0},
                    {0x82, 64, UsbdPipeTypeIsochronous, 0},
                    {0x83, 8, UsbdPipeTypeInterrupt, 4}};
    for (ULONG i = 0; i < 3; ++i) {
        const USBD_PIPE_INFORMATION& pipe = video->Pipes[i];
        EXPECT_EQ(pipe.EndpointAddress, expected[i].address) << i;
        EXPECT_EQ(pipe.MaximumPacketSize, expected[i].packet) << i;
        EXPECT_EQ(pipe.PipeType, expected[i].type) << i;
        EXPECT_EQ(pipe.Interval, expected[i].interval) << i;
        EXPECT_EQ(pipe.MaximumTransferSize, 0xFFFFFFFFu) << i;
        EXPECT_EQ(pipe.PipeFlags, 0u) << i;
        EXPECT_EQ(pipe.PipeHandle, nullptr) << i;
    }

    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, blocksBefore + 1);
    ExFreePoolWithTag(urb, kDriverTag);
}

TEST_F(DescriptorTest, RequestWithoutMemoryIsNone) {
    USBD_INTERFACE_LIST_ENTRY list[2] = {{Find(0, 0, 0), nullptr}, {nullptr, nullptr}};
    winsim::FailAllocationsWithTag(kDriverTag);

    EXPECT_EQ(USBD_CreateConfigurationRequestEx(Configuration(), list), nullptr);

    winsim::ClearAllocationFailures();
    EXPECT_EQ(list[0].Interface, nullptr);
}

// The request built from the camera's own descriptors is one the USB stack
// accepts and serves.
TEST_F(DescriptorTest, RequestFromTheCameraSelectsItsConfiguration) {
    std::vector<uint64_t> storage(512 / sizeof(uint64_t));
    URB get{};
    UsbBuildGetDescriptorRequest(&get, sizeof(struct _URB_CONTROL_DESCRIPTOR_REQUEST),
                                 USB_CONFIGURATION_DESCRIPTOR_TYPE, 0, 0, storage.data(), nullptr,
                                 512, nullptr);
    ASSERT_EQ(OrnixCallUsbd(Ext(), &get), STATUS_SUCCESS);
    auto* configuration = reinterpret_cast<PUSB_CONFIGURATION_DESCRIPTOR>(storage.data());

    USBD_INTERFACE_LIST_ENTRY list[2] = {
        {USBD_ParseConfigurationDescriptorEx(configuration, configuration, 0, 0, -1, -1, -1),
         nullptr},
        {nullptr, nullptr}};
    ASSERT_NE(list[0].InterfaceDescriptor, nullptr);
    PURB urb = USBD_CreateConfigurationRequestEx(configuration, list);
    ASSERT_NE(urb, nullptr);
    for (ULONG i = 0; i < list[0].Interface->NumberOfPipes; ++i) {
        list[0].Interface->Pipes[i].MaximumTransferSize = 4096;
    }

    EXPECT_EQ(OrnixCallUsbd(Ext(), urb), STATUS_SUCCESS);
    EXPECT_NE(urb->UrbSelectConfiguration.ConfigurationHandle, nullptr);
    EXPECT_NE(list[0].Interface->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(Stack().ConfigurationValue(), 1);
    ExFreePoolWithTag(urb, kDriverTag);
}

}  // namespace
}  // namespace ornixtest
