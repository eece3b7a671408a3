#include "fake_minidriver.h"

namespace sctest {

FakeMinidriver& Fake() {
    static FakeMinidriver fake;
    return fake;
}

void CompleteAdapterSrb(PHW_STREAM_REQUEST_BLOCK srb, NTSTATUS status) {
    srb->Status = status;
    StreamClassDeviceNotification(DeviceRequestComplete, srb->HwDeviceExtension, srb, nullptr,
                                  nullptr, 0);
}

namespace {

void STREAMAPI ReceivePacket(PHW_STREAM_REQUEST_BLOCK srb) {
    if (Fake().onSrb) {
        Fake().onSrb(srb);
    } else {
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    }
}

void STREAMAPI Ignore(PHW_STREAM_REQUEST_BLOCK) {}

}  // namespace

extern "C" NTSTATUS NTAPI FakeDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    HW_INITIALIZATION_DATA data{};
    data.HwInitializationDataSize = sizeof(data);
    data.HwReceivePacket = ReceivePacket;
    data.HwCancelPacket = Ignore;
    data.HwRequestTimeoutHandler = Ignore;
    data.DeviceExtensionSize = Fake().extensionSize;
    data.TurnOffSynchronization = TRUE;
    if (Fake().editRegistration) {
        Fake().editRegistration(data);
    }
    return StreamClassRegisterAdapter(driver, registryPath, &data);
}

}  // namespace sctest
