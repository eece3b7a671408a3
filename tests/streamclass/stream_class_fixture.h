// A kernel with the verifier recording, the fake minidriver reset and a bus
// physical device object for the adapter to sit on.
#pragma once

#include "fake_minidriver.h"
#include "kernel/kernel.h"
#include "kernel/kernel_test.h"

namespace sctest {

class StreamClassTest : public kerneltest::KernelTest {
  protected:
    void SetUp() override {
        KernelTest::SetUp();
        Fake() = FakeMinidriver{};
        winsim::SetTimeScale(100000.0);
        driver_ = winsim::CreateDriverObject(u"usbhub");
        pdo_ = winsim::CreateDeviceObject(driver_, 0, 2);
    }
    void TearDown() override {
        winsim::DeleteDeviceObject(pdo_);
        winsim::DeleteDriverObject(driver_);
        Fake() = FakeMinidriver{};
        KernelTest::TearDown();
    }

    PDRIVER_OBJECT driver_ = nullptr;
    PDEVICE_OBJECT pdo_ = nullptr;
};

}  // namespace sctest
