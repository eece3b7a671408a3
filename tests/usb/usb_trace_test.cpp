// The bus trace: a pcap file of usbmon packets that Wireshark tools decode,
// with large bulk data cut to the snapshot length.
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

struct PcapPacket {
    uint32_t capturedLength = 0;
    uint32_t originalLength = 0;
    std::vector<uint8_t> bytes;

    uint32_t U32(size_t offset) const {
        return bytes[offset] | bytes[offset + 1] << 8 | bytes[offset + 2] << 16 |
               static_cast<uint32_t>(bytes[offset + 3]) << 24;
    }
    char Type() const { return static_cast<char>(bytes[8]); }
    uint8_t Endpoint() const { return bytes[10]; }
    int32_t Status() const { return static_cast<int32_t>(U32(28)); }
    uint32_t UrbLength() const { return U32(32); }
    uint32_t DataLength() const { return U32(36); }
};

struct PcapFile {
    uint32_t snapLength = 0;
    uint32_t linkType = 0;
    std::vector<PcapPacket> packets;
};

uint32_t ReadU32(std::istream& in) {
    std::array<uint8_t, 4> b{};
    in.read(reinterpret_cast<char*>(b.data()), 4);
    return b[0] | b[1] << 8 | b[2] << 16 | static_cast<uint32_t>(b[3]) << 24;
}

PcapFile ReadPcap(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    PcapFile file;
    EXPECT_EQ(ReadU32(in), 0xA1B2C3D4u);
    ReadU32(in);  // version
    ReadU32(in);  // time zone
    ReadU32(in);  // accuracy
    file.snapLength = ReadU32(in);
    file.linkType = ReadU32(in);
    while (in.peek() != EOF) {
        PcapPacket packet;
        ReadU32(in);  // seconds
        ReadU32(in);  // microseconds
        packet.capturedLength = ReadU32(in);
        packet.originalLength = ReadU32(in);
        packet.bytes.resize(packet.capturedLength);
        in.read(reinterpret_cast<char*>(packet.bytes.data()), packet.capturedLength);
        file.packets.push_back(std::move(packet));
    }
    return file;
}

class UsbTraceTest : public UsbStackTest {
  protected:
    std::filesystem::path TracePath() const {
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        // The process id keeps builds that run the same test at once apart.
        return std::filesystem::path(::testing::TempDir()) /
               ("usb_trace_" + std::string(info->name()) + "_" + std::to_string(getpid()) +
                ".pcap");
    }

    void RegisterRead() {
        device.SetRegister(0x0010, 0x01020304);
        uint8_t data[4];
        URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
        ASSERT_EQ(SubmitUrb(Pdo(), &urb), STATUS_SUCCESS);
    }
};

TEST_F(UsbTraceTest, EveryTransactionIsSubmittedAndCompletedWithLargeDataCut) {
    const std::filesystem::path path = TracePath();
    stack->StartTrace(path);
    Configure();
    RegisterRead();
    std::vector<uint8_t> frame(0x200000);
    URB bulk = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame.data(), 0x200000);
    ASSERT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    stack->StopTrace();

    const PcapFile file = ReadPcap(path);
    EXPECT_EQ(file.snapLength, 262144u);
    EXPECT_EQ(file.linkType, 220u);
    ASSERT_EQ(file.packets.size(), 6u);  // SET_CONFIGURATION, register read, bulk: S and C each

    const PcapPacket& setConfiguration = file.packets[0];
    EXPECT_EQ(setConfiguration.Type(), 'S');
    EXPECT_EQ(setConfiguration.bytes[14], '\0');  // a setup packet follows
    EXPECT_EQ(setConfiguration.bytes[41], 9);     // bRequest SET_CONFIGURATION

    const PcapPacket& readDone = file.packets[3];
    EXPECT_EQ(readDone.Type(), 'C');
    EXPECT_EQ(readDone.Endpoint(), 0x80);
    EXPECT_EQ(readDone.Status(), 0);
    ASSERT_EQ(readDone.DataLength(), 4u);
    EXPECT_EQ(readDone.U32(64), 0x01020304u);  // the IN data rides on the completion

    const PcapPacket& bulkSubmitted = file.packets[4];
    EXPECT_EQ(bulkSubmitted.Status(), -115);  // in progress
    EXPECT_EQ(bulkSubmitted.UrbLength(), 0x200000u);
    EXPECT_EQ(bulkSubmitted.DataLength(), 0u);

    const PcapPacket& bulkDone = file.packets[5];
    EXPECT_EQ(bulkDone.Endpoint(), FakeUsbDevice::kBulkIn);
    EXPECT_EQ(bulkDone.UrbLength(), 0x200000u);
    EXPECT_EQ(bulkDone.DataLength(), 262144u - 64);
    EXPECT_EQ(bulkDone.capturedLength, 262144u);
    EXPECT_EQ(bulkDone.originalLength, 64u + 0x200000u);
    std::filesystem::remove(path);
}

std::string RunCommand(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return output;
    }
    std::array<char, 256> chunk;
    while (fgets(chunk.data(), chunk.size(), pipe) != nullptr) {
        output += chunk.data();
    }
    pclose(pipe);
    return output;
}

TEST_F(UsbTraceTest, TsharkDecodesAVendorRegisterRead) {
    const std::filesystem::path tshark = "/usr/bin/tshark";
    if (!std::filesystem::exists(tshark)) {
        GTEST_SKIP() << "tshark is not installed";
    }
    const std::filesystem::path path = TracePath();
    stack->StartTrace(path);
    RegisterRead();
    stack->StopTrace();

    const std::filesystem::path errors = path.string() + ".stderr";
    const std::string decoded = RunCommand(tshark.string() + " -r " + path.string() +
                                           " -Y usb.setup.bRequest -T fields"
                                           " -e usb.bmRequestType -e usb.setup.bRequest"
                                           " -e usb.setup.wIndex -e usb.setup.wLength 2>" +
                                           errors.string());
    EXPECT_EQ(decoded, "0xc0\t18\t16\t4\n") << RunCommand("cat " + errors.string());
    std::filesystem::remove(path);
    std::filesystem::remove(errors);
}

}  // namespace
}  // namespace usbtest
