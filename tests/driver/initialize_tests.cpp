// Driver entry and SRB_INITIALIZE_DEVICE: registration, a fresh adapter's state,
// device objects, and the camera id from the TevrinKey registry value.
#include <cstring>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using Lines = std::vector<std::string>;

constexpr std::u16string_view kValueName = u"TevrinKey";

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

TEST_F(InitializeTest, DriverEntryAnnouncesItselfAndRegistersTheAdapter) {
    EXPECT_EQ(Log().front(), "ORNIX: DriverEntry91");
    // The driver serialises adapter requests itself, so that handlers may block.
    EXPECT_TRUE(Class().Registration().TurnOffSynchronization);
}

TEST_F(InitializeTest, InitializeDeviceRunsWithoutTheMutexItCreates) {
    AddAdapter();
    // A driver taking this leftover mutex would release one that initialisation recreated.
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

// Without a real PDO the camera id comes from the registry of the PDO.
TEST_F(InitializeTest, FreshAdapterStartsFromAClearedContextAndAReadyDeviceObject) {
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, u"Ornix0A2F");
    AddAdapter();
    std::memset(Ext(), 0xFF, sizeof(ORNIX_DEVICE_CONTEXT));  // leftovers must not survive
    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
    PORNIX_DEVICE_CONTEXT ext = Ext();
    EXPECT_EQ(ext->Signature, 0x7374EEF1u);
    EXPECT_EQ(std::vector<LONG>({ext->Initialized, ext->PixelCorrectionEnabled,
                                 LONG(ext->DevicePowerState), ext->Removed, ext->Uninitializing,
                                 ext->InterruptPending}),
              std::vector<LONG>({1, 1, 1, 0, 0, 0}));
    EXPECT_EQ(std::vector<const void*>({ext->StreamContexts[0], ext->StreamContexts[1],
                                        ext->InterruptUrb, ext->Lut8Buffer}),
              std::vector<const void*>(4, nullptr));
    EXPECT_EQ(KeReadStateSemaphore(&ext->UsbRequestSemaphore), 1);
    EXPECT_EQ(KeReadStateMutex(&ext->InterruptMutex), 1);
    EXPECT_EQ(KeReadStateMutex(&ext->RequestMutex), 1);
    const ULONG flags = Class().ClassDeviceObject()->Flags;
    EXPECT_EQ(flags & DO_DIRECT_IO, static_cast<ULONG>(DO_DIRECT_IO));
    EXPECT_EQ(flags & DO_DEVICE_INITIALIZING, 0u);
    EXPECT_EQ(ext->PhysicalDeviceObject, Pdo());
    EXPECT_EQ(ext->ClassDeviceObject, Class().ClassDeviceObject());
    EXPECT_EQ(ext->RealPhysicalDeviceObject, Pdo());
    EXPECT_EQ(ext->CameraId, 0xA2Fu);
}

TEST_F(InitializeTest, RealPdoIsKeptAndItsRegistryRead) {
    PDEVICE_OBJECT real = RealPdo();
    winsim::SetRegistryString(real, PLUGPLAY_REGKEY_DRIVER, kValueName, u"ornix1234");
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, u"ornix5678");
    AddAdapter(real);
    ASSERT_EQ(StartAdapter(), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->RealPhysicalDeviceObject, real);
    EXPECT_EQ(Ext()->PhysicalDeviceObject, Pdo());
    EXPECT_EQ(Ext()->CameraId, 0x1234u);
}

// ---------------------------------------------------------------- camera id

class CameraIdTest : public DriverTest {
  protected:
    ULONG FindCameraId() {
        Ext()->CameraId = 0;
        winsim::ClearDebugLog();
        OrnixFindCameraId(Ext());
        return Ext()->CameraId;
    }
    void SetValue(std::u16string_view text) {
        winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, text);
    }
};

TEST_F(CameraIdTest, ParsesTheHexDigitsAfterThePrefix) {
    // Case-insensitive prefix; digits up to the first other character; 17 characters at most.
    const std::pair<std::u16string, ULONG> cases[] = {{u"ORNIX0a2f", 0xA2F},
                                                      {u"Ornix0A2F", 0xA2F},
                                                      {u"ornix12g4", 0x12},
                                                      {u"ornix0123456789", 0x23456789},
                                                      {u"ornixABCDEF012345", 0xEF012345},
                                                      {u"camera0a2f", 0},
                                                      {u"ornix", 0},
                                                      {u"orni", 0}};
    for (const auto& [text, id] : cases) {
        SCOPED_TRACE(std::string(text.begin(), text.end()));
        SetValue(text);
        EXPECT_EQ(FindCameraId(), id);
        EXPECT_TRUE(Log().empty());
    }
}

TEST_F(CameraIdTest, UnusableValuesAreReportedAndIgnored) {
    EXPECT_EQ(FindCameraId(), 0u);  // no value at all
    EXPECT_EQ(Log(), Lines{"ORNIX: Failed to query partial info of TevrinKey with 0xc0000034"});
    // Another type, or too short: the query worked but the value is refused.
    const std::string refused = "ORNIX: Failed to query partial info of TevrinKey with 0x0";
    winsim::SetRegistryValue(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, REG_DWORD,
                             {0x2F, 0x0A, 0, 0});
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), Lines{refused});
    winsim::SetRegistryValue(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, REG_SZ, {'o', 0});
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), Lines{refused});
    SetValue(u"ornixABCDEF0123456");  // 18 characters and the terminator: 38 bytes
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), Lines{"ORNIX: Failed to query partial info of TevrinKey with 0x80000005"});
    SetValue(u"ornix0a2f");
    winsim::FailRegistryOpen(Pdo(), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(FindCameraId(), 0u);
    EXPECT_EQ(Log(), Lines{"ORNIX: Failed to open PDO key with 0xc000009a"});
    winsim::FailRegistryOpen(Pdo(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace ornixtest
