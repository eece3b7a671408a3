// Pipe control on a configured camera: synchronous and deferred pipe reset,
// and selection of an alternate setting.
#include <string>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

// Bring-up has configured the camera: both alternate settings are known.
using PipeTest = DriverTest;

// The halt cleared on one endpoint: once by the stack's reset, once by the driver.
std::vector<WireRequest> ResetOf(uint16_t endpoint) {
    const WireRequest clearHalt{0x02, kClearFeature, 0, endpoint, 0, {}};
    return {clearHalt, clearHalt};
}

struct ResetRecord {
    int calls = 0;
    NTSTATUS status = STATUS_PENDING;
    std::thread::id thread;
};

VOID RecordReset(PORNIX_DEVICE_CONTEXT, NTSTATUS status, PVOID context) {
    auto* record = static_cast<ResetRecord*>(context);
    ++record->calls;
    record->status = status;
    record->thread = std::this_thread::get_id();
}

TEST_F(PipeTest, ResetSendsResetPipeThenClearsTheEndpointHalt) {
    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_SUCCESS);

    EXPECT_EQ(ControlRequests(), ResetOf(0x81));
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ResetPipe), 1u);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixResetPipe: 0"});
}

TEST_F(PipeTest, FailedResetClearsNothing) {
    Stack().AddFault({.kind = RequestKind::ResetPipe, .action = FaultAction::FailWithStatus});

    EXPECT_FALSE(NT_SUCCESS(OrnixResetPipe(Ext(), Ext()->StillPipe)));

    EXPECT_EQ(SubmittedSinceStart(RequestKind::ClearEndpointFeature), 0u);
}

TEST_F(PipeTest, DeferredResetStopsTheCameraFirstOnlyForTheCapturePipe) {
    ResetRecord capture;
    ResetRecord still;

    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordReset, &capture);
    winsim::DrainWorkQueue();
    OrnixResetPipeNoWait(Ext(), Ext()->StillPipe, RecordReset, &still);
    winsim::DrainWorkQueue();

    std::vector<WireRequest> expected{{0x40, ORNIX_REQUEST_REGISTER, 0, 0x0214, 4, {0, 0, 0, 0}}};
    for (uint16_t endpoint : {0x81, 0x82}) {
        for (const WireRequest& request : ResetOf(endpoint)) {
            expected.push_back(request);
        }
    }
    EXPECT_EQ(ControlRequests(), expected);
    EXPECT_EQ(capture.calls, 1);
    EXPECT_EQ(capture.status, STATUS_SUCCESS);
    EXPECT_NE(capture.thread, std::this_thread::get_id());
    EXPECT_EQ(still.status, STATUS_SUCCESS);
}

TEST_F(PipeTest, DeferredResetOfARemovedCameraReportsRemovalWithoutTraffic) {
    Ext()->Removed = TRUE;
    ResetRecord record;

    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordReset, &record);
    winsim::DrainWorkQueue();

    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(ControlRequests().empty());
}

TEST_F(PipeTest, DeferredResetWithoutMemoryCallsBackAtOnce) {
    winsim::FailNthAllocation(1);
    ResetRecord record;

    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordReset, &record);

    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(record.thread, std::this_thread::get_id());
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixResetPipeNoWait: no mem"});
    winsim::DrainWorkQueue();
    EXPECT_TRUE(ControlRequests().empty());
}

TEST_F(PipeTest, FailedDeferredResetReportsItsStatus) {
    Stack().AddFault({.kind = RequestKind::ResetPipe, .action = FaultAction::FailWithStatus});
    ResetRecord record;

    OrnixResetPipeNoWait(Ext(), Ext()->StillPipe, RecordReset, &record);
    winsim::DrainWorkQueue();

    EXPECT_FALSE(NT_SUCCESS(record.status));
    EXPECT_TRUE(Logged("ORNIX: OrnixResetPipe failed"));
}

TEST_F(PipeTest, SelectingTheCurrentSettingSendsNothingEvenAfterRemoval) {
    Ext()->Removed = TRUE;

    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_SUCCESS);

    EXPECT_TRUE(ControlRequests().empty());
}

TEST_F(PipeTest, SelectedSettingGetsNewPipeHandlesOnly) {
    PUSBD_INTERFACE_INFORMATION fpga = Ext()->InterfaceInfoTable[1];
    fpga->Pipes[0].MaximumPacketSize = 64;  // differs from what the stack reports

    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_SUCCESS);

    EXPECT_EQ(Ext()->CurrentAltSetting, 1u);
    EXPECT_EQ(Camera().AlternateSetting(), 1);
    EXPECT_NE(fpga->Pipes[0].PipeHandle, nullptr);
    EXPECT_EQ(fpga->Pipes[0].MaximumPacketSize, 64);
    EXPECT_EQ(fpga->Pipes[0].MaximumTransferSize, FpgaImageTable[0].Length);
    EXPECT_EQ(fpga->InterfaceHandle, nullptr);
    EXPECT_EQ(ControlRequests(),
              std::vector<WireRequest>{(WireRequest{0x01, kSetInterface, 1, 0, 0, {}})});
}

TEST_F(PipeTest, FailedSelectionKeepsTheCurrentSetting) {
    Stack().AddFault({.kind = RequestKind::SelectInterface,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});

    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_EQ(Ext()->InterfaceInfoTable[1]->Pipes[0].PipeHandle, nullptr);
    EXPECT_TRUE(Logged("ORNIX:  OrnixSelectAltSetting, USBD failed with 0xc0000001"));
}

TEST_F(PipeTest, SelectionRefusedAfterRemovalOrWithoutMemory) {
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX:  OrnixSelectAltSetting: no mem"});

    Ext()->Removed = TRUE;
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_DEVICE_REMOVED);

    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
