// Driver entry and SRB_INITIALIZE_DEVICE: registration, the state a fresh
// adapter starts in, device objects and the camera id.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

class InitializeTest : public DriverTest {
  protected:
    bool StartsAdapterInSetUp() const override { return false; }

    void TearDown() override {
        DriverTest::TearDown();
        if (realPdo_ != nullptr) {
            winsim::DeleteDeviceObject(realPdo_);
            winsim::DeleteDriverObject(busDriver_);
        }
    }

    PDEVICE_OBJECT RealPdo() {
        busDriver_ = winsim::CreateDriverObject(u"\\Driver\\usbhub");
        realPdo_ = winsim::CreateDeviceObject(busDriver_, 0, 1);
        return realPdo_;
    }

  private:
    PDRIVER_OBJECT busDriver_ = nullptr;
    PDEVICE_OBJECT realPdo_ = nullptr;
};

std::string Hex32(const char* label, const void* address) {
    char line[64];
    std::snprintf(line, sizeof line, "ORNIX:   %s0x%08x", label,
                  static_cast<unsigned>(reinterpret_cast<uintptr_t>(address)));
    return line;
}

TEST_F(InitializeTest, DriverEntryAnnouncesItselfAndRegistersTheAdapter) {
    EXPECT_EQ(Log().front(), "ORNIX: DriverEntry91");
    // The driver serialises adapter requests itself, so that handlers may block.
    EXPECT_TRUE(Class().Registration().TurnOffSynchronization);
}

TEST_F(InitializeTest, InitializeDeviceRunsWithoutTheMutexItCreates) {
    AddAdapter();
    // A usable mutex left in the context: a driver that took it here would
    // hold it while handling the request and then release a mutex that
    // initialisation had recreated, which it does not own.
    KeInitializeMutex(&Ext()->RequestMutex, 0);
    std::vector<LONG> statesWhileHandled;
    winsim::SetDebugSink([&](std::string_view) {
        statesWhileHandled.push_back(KeReadStateMutex(&Ext()->RequestMutex));
    });

    EXPECT_EQ(StartAdapter(), STATUS_SUCCESS);

    winsim::SetDebugSink(nullptr);
    // The first line is the request's own trace, printed before its handler.
    ASSERT_FALSE(statesWhileHandled.empty());
    EXPECT_EQ(statesWhileHandled.front(), 1);
    EXPECT_EQ(KeReadStateMutex(&Ext()->RequestMutex), 1);
}

TEST_F(InitializeTest, FreshAdapterStartsFromAClearedContext) {
    AddAdapter();
    std::memset(Ext(), 0xFF, sizeof(ORNIX_DEVICE_CONTEXT));  // leftovers must not survive

    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);

    PORNIX_DEVICE_CONTEXT ext = Ext();
    EXPECT_EQ(ext->Signature, 0x7374EEF1u);
    EXPECT_EQ(ext->Initialized, 1);
    EXPECT_EQ(ext->Removed, 0);
    EXPECT_EQ(ext->PixelCorrectionEnabled, 1);
    EXPECT_EQ(ext->DevicePowerState, 1u);
    EXPECT_EQ(ext->Uninitializing, 0);
    EXPECT_EQ(ext->StreamContexts[0], nullptr);
    EXPECT_EQ(ext->StreamContexts[1], nullptr);
    EXPECT_EQ(ext->InterruptUrb, nullptr);
    EXPECT_EQ(ext->InterruptPending, 0);
    EXPECT_EQ(ext->Lut8Buffer, nullptr);
    EXPECT_EQ(KeReadStateSemaphore(&ext->UsbRequestSemaphore), 1);
    EXPECT_EQ(KeReadStateMutex(&ext->InterruptMutex), 1);
    EXPECT_EQ(KeReadStateMutex(&ext->RequestMutex), 1);
}

TEST_F(InitializeTest, ClassDeviceObjectBecomesDirectIoAndReady) {
    AddAdapter();

    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);

    const ULONG flags = Class().ClassDeviceObject()->Flags;
    EXPECT_EQ(flags & DO_DIRECT_IO, static_cast<ULONG>(DO_DIRECT_IO));
    EXPECT_EQ(flags & DO_DEVICE_INITIALIZING, 0u);
}

TEST_F(InitializeTest, WithoutRealPdoTheRegistryOfThePdoIsRead) {
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, u"TevrinKey", u"Ornix0A2F");
    AddAdapter();

    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);

    PORNIX_DEVICE_CONTEXT ext = Ext();
    EXPECT_EQ(ext->PhysicalDeviceObject, Pdo());
    EXPECT_EQ(ext->ClassDeviceObject, Class().ClassDeviceObject());
    EXPECT_EQ(ext->RealPhysicalDeviceObject, Pdo());
    EXPECT_EQ(ext->CameraId, 0xA2Fu);
    std::vector<std::string> log = Log();
    const std::vector<std::string> announced{
        "ORNIX: OrnixInitialize:", Hex32("pExt:", ext), Hex32("PDO :", Pdo()),
        Hex32("CDO :", Class().ClassDeviceObject()), Hex32("RPDO:", nullptr)};
    EXPECT_NE(std::search(log.begin(), log.end(), announced.begin(), announced.end()), log.end());
}

TEST_F(InitializeTest, RealPdoIsKeptAndItsRegistryRead) {
    PDEVICE_OBJECT real = RealPdo();
    winsim::SetRegistryString(real, PLUGPLAY_REGKEY_DRIVER, u"TevrinKey", u"ornix1234");
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, u"TevrinKey", u"ornix5678");
    AddAdapter(real);

    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);

    EXPECT_EQ(Ext()->RealPhysicalDeviceObject, real);
    EXPECT_EQ(Ext()->PhysicalDeviceObject, Pdo());
    EXPECT_EQ(Ext()->CameraId, 0x1234u);
}

}  // namespace
}  // namespace ornixtest
