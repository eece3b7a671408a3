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

TEST_F(PipeTest, FailedResetClearsNothingAndTheDeferredOneReportsIt) {
    Stack().AddFault({.kind = RequestKind::ResetPipe, .occurrence = 0});
    ResetRecord record;

    EXPECT_FALSE(NT_SUCCESS(OrnixResetPipe(Ext(), Ext()->StillPipe)));
    OrnixResetPipeNoWait(Ext(), Ext()->StillPipe, RecordReset, &record);
    winsim::DrainWorkQueue();
    Stack().ClearFaults();

    EXPECT_EQ(record.calls, 1);
    EXPECT_FALSE(NT_SUCCESS(record.status));
    EXPECT_TRUE(Logged("ORNIX: OrnixResetPipe failed"));
    EXPECT_EQ(SubmittedSinceStart(RequestKind::ResetPipe), 2u);
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

TEST_F(PipeTest, ResetsOfARemovedCameraFailWithoutTraffic) {
    Ext()->Removed = TRUE;
    ResetRecord record;

    EXPECT_EQ(OrnixResetPipe(Ext(), Ext()->CapturePipe), STATUS_DEVICE_REMOVED);
    OrnixResetPipeNoWait(Ext(), Ext()->CapturePipe, RecordReset, &record);
    winsim::DrainWorkQueue();

    EXPECT_EQ(record.calls, 1);
    EXPECT_EQ(record.status, STATUS_DEVICE_REMOVED);
    EXPECT_EQ(Log(), (std::vector<std::string>{"ORNIX: OrnixResetPipe: 0",
                                               "ORNIX: OrnixResetPipe: Removed"}));
    EXPECT_TRUE(ControlRequests().empty());
}

// Bring-up kept the records of both settings; only the selected one has handles.
TEST_F(PipeTest, SelectedSettingGetsNewPipeHandlesOnly) {
    PUSBD_INTERFACE_INFORMATION fpga = Ext()->InterfaceInfoTable[1];
    EXPECT_NE(Ext()->InterfaceInfoTable[0]->InterfaceHandle, nullptr);
    EXPECT_EQ(fpga->Pipes[0].PipeHandle, nullptr);
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

// A failed, refused or needless selection keeps the current setting; the
// current one needs nothing on the bus, even of a removed camera.
TEST_F(PipeTest, FailedOrRefusedSelectionKeepsTheCurrentSetting) {
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX:  OrnixSelectAltSetting: no mem"});

    Stack().AddFault({.kind = RequestKind::SelectInterface,
                      .action = FaultAction::FailWithStatus,
                      .usbdStatus = USBD_STATUS_DEV_NOT_RESPONDING});
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixSelectAltSetting, USBD failed with 0xc0000001"));
    EXPECT_EQ(Ext()->InterfaceInfoTable[1]->Pipes[0].PipeHandle, nullptr);
    Camera().ClearRequests();

    // A setting the camera does not have.
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 2), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OrnixGetPipe(Ext(), 2, 0), nullptr);

    Ext()->Removed = TRUE;
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 1), STATUS_DEVICE_REMOVED);
    EXPECT_EQ(OrnixSelectAltSetting(Ext(), 0), STATUS_SUCCESS);

    EXPECT_EQ(Ext()->CurrentAltSetting, 0u);
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
