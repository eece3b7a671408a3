// A minimal minidriver each test scripts, and a fixture with a bus PDO for the adapter.
#pragma once

#include <strmini.h>

#include <functional>

#include "kernel/kernel.h"
#include "kernel/kernel_test.h"

namespace sctest {

struct FakeMinidriver {
    // What the minidriver does with each adapter SRB (by default: complete it successfully).
    std::function<void(PHW_STREAM_REQUEST_BLOCK)> onSrb;
    // Edits the registration before it is handed to the stream class.
    std::function<void(HW_INITIALIZATION_DATA&)> editRegistration;
};
inline FakeMinidriver fake;

// Completes an adapter SRB the way a minidriver does.
inline void CompleteAdapterSrb(PHW_STREAM_REQUEST_BLOCK srb, NTSTATUS status) {
    srb->Status = status;
    StreamClassDeviceNotification(DeviceRequestComplete, srb->HwDeviceExtension, srb, nullptr,
                                  nullptr, 0);
}

inline void STREAMAPI FakeReceivePacket(PHW_STREAM_REQUEST_BLOCK srb) {
    if (fake.onSrb) {
        fake.onSrb(srb);
    } else {
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    }
}

inline void STREAMAPI FakeIgnoreSrb(PHW_STREAM_REQUEST_BLOCK) {}

inline NTSTATUS NTAPI FakeDriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    HW_INITIALIZATION_DATA data{};
    data.HwInitializationDataSize = sizeof(data);
    data.HwReceivePacket = FakeReceivePacket;
    data.HwCancelPacket = data.HwRequestTimeoutHandler = FakeIgnoreSrb;
    data.DeviceExtensionSize = 64;
    data.TurnOffSynchronization = TRUE;
    if (fake.editRegistration) {
        fake.editRegistration(data);
    }
    return StreamClassRegisterAdapter(driver, registryPath, &data);
}

class StreamClassTest : public kerneltest::KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        fake = FakeMinidriver{};
        winsim::SetTimeScale(100000.0);  // the wait for an SRB never completed is short
        driver_ = winsim::CreateDriverObject(u"usbhub");
        pdo_ = winsim::CreateDeviceObject(driver_, 0, 2);
    }
    void TearDown() override {
        winsim::DeleteDeviceObject(pdo_);
        winsim::DeleteDriverObject(driver_);
        KernelTest::TearDown();
    }

    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
};

}  // namespace sctest
