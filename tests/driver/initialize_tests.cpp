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

using InitializeTest = UnstartedDriverTest;

// The driver serialises adapter requests itself, so that handlers may block; a driver
// taking the leftover mutex would release one that initialisation recreated.
TEST_F(InitializeTest, InitializeDeviceRunsWithoutTheMutexItCreates) {
    EXPECT_TRUE(Class().Registration().TurnOffSynchronization);
    AddAdapter();
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

// A real PDO below the stack is kept and its registry gives the camera id; it may go
// before the adapter, which only reads that registry.
TEST_F(InitializeTest, FreshAdapterStartsFromAClearedContextAndAReadyDeviceObject) {
    PDRIVER_OBJECT bus = winsim::CreateDriverObject(u"\\Driver\\usbhub");
    PDEVICE_OBJECT real = winsim::CreateDeviceObject(bus, 0, 1);
    winsim::SetRegistryString(real, PLUGPLAY_REGKEY_DRIVER, kValueName, u"Ornix0A2F");
    winsim::SetRegistryString(Pdo(), PLUGPLAY_REGKEY_DRIVER, kValueName, u"ornix5678");
    AddAdapter(real);
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
    const ULONG flags = Class().ClassDeviceObject()->Flags;
    EXPECT_EQ(flags & DO_DIRECT_IO, static_cast<ULONG>(DO_DIRECT_IO));
    EXPECT_EQ(flags & DO_DEVICE_INITIALIZING, 0u);
    EXPECT_EQ(ext->PhysicalDeviceObject, Pdo());
    EXPECT_EQ(ext->ClassDeviceObject, Class().ClassDeviceObject());
    EXPECT_EQ(ext->RealPhysicalDeviceObject, real);
    EXPECT_EQ(ext->CameraId, 0xA2Fu);
    winsim::DeleteDeviceObject(real);
    winsim::DeleteDriverObject(bus);
}

// ---------------------------------------------------------------- camera id

class CameraIdTest : public DriverTest {
  protected:
    // As during initialisation without a real PDO.
    ULONG FindCameraId() {
        Ext()->RealPhysicalDeviceObject = nullptr;
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
    EXPECT_EQ(Ext()->RealPhysicalDeviceObject, Pdo());  // none was given: the PDO's registry
    // Case-insensitive prefix; digits up to the first other character; 17 characters at most.
    const std::pair<std::u16string, ULONG> cases[] = {
        {u"ORNIX0a2f", 0xA2F}, {u"ornix12g4", 0x12}, {u"ornixABCDEF012345", 0xEF012345},
        {u"camera0a2f", 0},    {u"ornix", 0},        {u"orni", 0}};
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
}

}  // namespace
}  // namespace ornixtest
