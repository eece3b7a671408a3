// The bus trace: a pcap file of usbmon packets that Wireshark's tools decode,
// with large bulk data cut to the snapshot length.
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

const std::filesystem::path kTshark = "/usr/bin/tshark";

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

class UsbTraceTest : public UsbStackTest {
  protected:
    void SetUp() override {
        if (!std::filesystem::exists(kTshark)) {
            GTEST_SKIP() << "tshark is not installed";
        }
        UsbStackTest::SetUp();
        // The process id keeps builds that run the same test at once apart.
        const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
        path =
            std::filesystem::path(::testing::TempDir()) /
            ("usb_trace_" + std::string(info->name()) + "_" + std::to_string(getpid()) + ".pcap");
    }

    void TearDown() override {
        UsbStackTest::TearDown();
        std::error_code ignored;
        std::filesystem::remove(path, ignored);
        std::filesystem::remove(path.string() + ".stderr", ignored);
    }

    void RegisterRead() {
        device.SetRegister(0x0010, 0x01020304);
        uint8_t data[4];
        URB urb = VendorUrb(true, 0x12, 0, 0x0010, data, sizeof data);
        ASSERT_EQ(SubmitUrb(Pdo(), &urb), STATUS_SUCCESS);
    }

    // One line per packet, the fields separated by tabs.
    std::string Decode(const std::string& options) {
        const std::string errors = path.string() + ".stderr";
        const std::string decoded =
            RunCommand(kTshark.string() + " -r " + path.string() + " " + options + " 2>" + errors);
        if (decoded.empty()) {
            ADD_FAILURE() << RunCommand("cat " + errors);
        }
        return decoded;
    }

    std::filesystem::path path;
};

TEST_F(UsbTraceTest, TsharkDecodesAVendorRegisterRead) {
    stack->StartTrace(path);
    RegisterRead();
    stack->StopTrace();

    EXPECT_EQ(Decode("-Y usb.setup.bRequest -T fields -e usb.bmRequestType"
                     " -e usb.setup.bRequest -e usb.setup.wIndex -e usb.setup.wLength"),
              "0xc0\t18\t16\t4\n");
}

TEST_F(UsbTraceTest, EveryTransactionIsSubmittedAndCompletedWithLargeDataCut) {
    stack->StartTrace(path);
    Configure();
    RegisterRead();
    std::vector<uint8_t> frame(0x200000);
    URB bulk = TransferUrb(PipeFor(FakeUsbDevice::kBulkIn), true, frame.data(), 0x200000);
    ASSERT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    stack->StopTrace();

    std::ifstream file(path, std::ios::binary);
    std::array<uint32_t, 6> header{};  // magic, version, zone, accuracy, snaplen, link type
    file.read(reinterpret_cast<char*>(header.data()), sizeof header);
    EXPECT_EQ(header[4], 262144u);
    EXPECT_EQ(header[5], 220u);

    // Type, transfer type, endpoint, status, URB length, data captured,
    // packet length and bytes kept; then the request of a setup packet.
    EXPECT_EQ(Decode("-T fields -e usb.urb_type -e usb.transfer_type -e usb.endpoint_address"
                     " -e usb.urb_status -e usb.urb_len -e usb.data_len -e frame.len"
                     " -e frame.cap_len -e usb.setup.bRequest"),
              "'S'\t0x02\t0x00\t-115\t0\t0\t64\t64\t9\n"
              "'C'\t0x02\t0x00\t0\t0\t0\t64\t64\t\n"
              "'S'\t0x02\t0x80\t-115\t4\t0\t64\t64\t18\n"
              "'C'\t0x02\t0x80\t0\t4\t4\t68\t68\t\n"
              "'S'\t0x03\t0x81\t-115\t2097152\t0\t64\t64\t\n"
              "'C'\t0x03\t0x81\t0\t2097152\t262080\t2097216\t262144\t\n");
}

}  // namespace
}  // namespace usbtest
