// The bus trace: usbmon packets in a pcap file, large bulk data cut to the snapshot length.
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

const char kTshark[] = "/usr/bin/tshark";

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

    // One line per packet, the fields separated by tabs: type, transfer type, endpoint,
    // status, URB length, data captured, packet length and bytes kept; then the
    // request type, request, index and length of a setup packet.
    std::string command = kTshark;
    command += " -r " + path;
    command +=
        " -T fields -e usb.urb_type -e usb.transfer_type"
        " -e usb.endpoint_address -e usb.urb_status -e usb.urb_len"
        " -e usb.data_len -e frame.len -e frame.cap_len"
        " -e usb.bmRequestType -e usb.setup.bRequest"
        " -e usb.setup.wIndex -e usb.setup.wLength 2>/dev/null";
    std::string decoded;
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    for (int c; (c = fgetc(pipe)) != EOF;) {
        decoded += static_cast<char>(c);
    }
    pclose(pipe);
    EXPECT_EQ(decoded,
              "'S'\t0x02\t0x00\t-115\t0\t0\t64\t64\t0x00\t9\t0\t0\n"
              "'C'\t0x02\t0x00\t0\t0\t0\t64\t64\t\t\t\t\n"
              "'S'\t0x02\t0x80\t-115\t4\t0\t64\t64\t0xc0\t18\t16\t4\n"
              "'C'\t0x02\t0x80\t0\t4\t4\t68\t68\t\t\t\t\n"
              "'S'\t0x03\t0x81\t-115\t2097152\t0\t64\t64\t\t\t\t\n"
              "'C'\t0x03\t0x81\t0\t2097152\t262080\t2097216\t262144\t\t\t\t\n");
    std::filesystem::remove(path);
}

}  // namespace
}  // namespace usbtest
