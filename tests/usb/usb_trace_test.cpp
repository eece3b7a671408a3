// The bus trace: usbmon packets in a pcap file, large bulk data cut to the snapshot length.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

const char kTshark[] = "/usr/bin/tshark";

std::string Output(const std::string& command) {  // its standard output
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    for (int c; pipe && (c = fgetc(pipe)) != EOF;) {
        output += static_cast<char>(c);
    }
    return pipe && pclose(pipe) >= 0 ? output : "";
}

class UsbTraceTest : public UsbStackTest {};

TEST_F(UsbTraceTest, EveryTransactionIsSubmittedAndCompletedWithLargeDataCut) {
    if (!std::filesystem::exists(kTshark)) {
        GTEST_SKIP() << "tshark is not installed";
    }
    const std::string path =
        ::testing::TempDir() + "usb_trace_" + std::to_string(getpid()) + ".pcap";
    stack->StartTrace(path);
    Configure();
    URB read = RegisterRead(), bulk = BulkIn(0x200000);
    ASSERT_EQ(SubmitUrb(Pdo(), &read), STATUS_SUCCESS);
    ASSERT_EQ(SubmitUrb(Pdo(), &bulk), STATUS_SUCCESS);
    stack->StopTrace();

    std::array<uint32_t, 6> header{};  // magic, version, zone, accuracy, snaplen, link type
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(header.data()), 24);
    EXPECT_EQ(header[4], 262144u);
    EXPECT_EQ(header[5], 220u);
    // One line per packet, the fields separated by tabs.
    auto decode = [&](const std::string& options) {
        return Output(std::string(kTshark) + " -r " + path + " " + options + " 2>/dev/null");
    };
    EXPECT_EQ(decode("-Y usb.setup.bRequest==18 -T fields -e usb.bmRequestType"
                     " -e usb.setup.bRequest -e usb.setup.wIndex -e usb.setup.wLength"),
              "0xc0\t18\t16\t4\n");
    // Type, transfer type, endpoint, status, URB length, data captured,
    // packet length and bytes kept; then the request of a setup packet.
    EXPECT_EQ(decode("-T fields -e usb.urb_type -e usb.transfer_type -e usb.endpoint_address"
                     " -e usb.urb_status -e usb.urb_len -e usb.data_len -e frame.len"
                     " -e frame.cap_len -e usb.setup.bRequest"),
              "'S'\t0x02\t0x00\t-115\t0\t0\t64\t64\t9\n"
              "'C'\t0x02\t0x00\t0\t0\t0\t64\t64\t\n"
              "'S'\t0x02\t0x80\t-115\t4\t0\t64\t64\t18\n"
              "'C'\t0x02\t0x80\t0\t4\t4\t68\t68\t\n"
              "'S'\t0x03\t0x81\t-115\t2097152\t0\t64\t64\t\n"
              "'C'\t0x03\t0x81\t0\t2097152\t262080\t2097216\t262144\t\n");
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace usbtest
