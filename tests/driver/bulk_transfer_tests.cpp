// The single synchronous bulk transfer on a pipe of the FPGA setting.
#include <cstdint>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

class BulkTransferTest : public DriverTest {
  protected:
    void SetUp() override {
        DriverTest::SetUp();
        ConfigureCamera();
        ASSERT_EQ(OrnixSelectAltSetting(Ext(), Ext()->FpgaAltSetting), STATUS_SUCCESS);
        Camera().ClearRequests();
        winsim::ClearDebugLog();
    }

    NTSTATUS Send(std::vector<uint8_t>& buffer, BOOLEAN directionIn = FALSE) {
        return BulkAsynchTransfer(Ext(), buffer.data(), nullptr, static_cast<ULONG>(buffer.size()),
                                  Ext()->FpgaPipe, directionIn);
    }
};

TEST_F(BulkTransferTest, WholeImageGoesOutInOneTransfer) {
    std::vector<uint8_t> image(97991, 0x5A);
    const uint64_t received = Camera().BytesReceived(0x02);
    const uint64_t submitted = Stack().Counts(RequestKind::BulkOrInterrupt).submitted;

    EXPECT_EQ(Send(image), STATUS_SUCCESS);

    EXPECT_EQ(Camera().BytesReceived(0x02) - received, image.size());
    EXPECT_EQ(Stack().Counts(RequestKind::BulkOrInterrupt).submitted - submitted, 1u);
    EXPECT_EQ(Log(),
              (std::vector<std::string>{"ORNIX: BulkAsynchTransfer, pipe:0, size:0x17ec7",
                                        "ORNIX: BulkAsynchTransfer, exit with ntstatus 0x00000000, "
                                        "USBD_STATUS 0x00000000, length 0x17ec7"}));
}

TEST_F(BulkTransferTest, FailureIsReturnedWithTheUsbdStatus) {
    std::vector<uint8_t> data(64, 0x5A);
    Stack().AddFault({.kind = RequestKind::BulkOrInterrupt, .action = FaultAction::Stall});

    EXPECT_EQ(Send(data), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Log().back(),
              "ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc0000001, USBD_STATUS 0xc0000004, "
              "length 0x0");
}

TEST_F(BulkTransferTest, RemovedCameraLeavesTheBufferAlone) {
    std::vector<uint8_t> buffer(512, 0x5A);
    Stack().Remove();

    EXPECT_EQ(Send(buffer, TRUE), STATUS_DEVICE_REMOVED);

    EXPECT_EQ(buffer, std::vector<uint8_t>(512, 0x5A));
    EXPECT_EQ(Log().back().rfind("ORNIX: BulkAsynchTransfer, exit with ntstatus 0xc00002b6, ", 0),
              0u);
}

}  // namespace
}  // namespace ornixtest
