// Property requests on cameras that lack something: the still stream, the
// interrupt pipe, the look-up table, event registers, or version 1 of the
// register interface.
#include <algorithm>

#include "property_requests.h"
#include "stream_fixture.h"

namespace ornixtest {
namespace {

constexpr ULONG kStill = ORNIX_STILL_STREAM;
constexpr uint8_t kStillEndpoint = 0x82, kEventEndpoint = 0x83;
using Writes = std::vector<std::pair<uint16_t, uint32_t>>;

ornixcam::Profile Without(uint8_t endpoint) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    std::erase_if(profile.configuration.alternateSettings[0].endpoints,
                  [endpoint](const auto& e) { return e.address == endpoint; });
    return profile;
}

ornixcam::Profile WithRegister(uint16_t index, uint32_t value) {
    ornixcam::Profile profile = ornixcam::DefaultProfile();
    profile.registers[index] = value;
    return profile;
}

class ProfilePropertyTest : public StreamingTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }
    PropertyAnswer Custom(ULONG id, ULONG size) {
        return Props().Get(OrnixPropSetOxCustom, id, size);
    }
    PropertyAnswer SetCustom(ULONG id, const Bytes& data) {
        return Props().Set(OrnixPropSetOxCustom, id, data);
    }
    PropertyAnswer SetMode(ULONG stream, uint32_t mode) {
        return Props().Set(OrnixPropSetVideoControl, KSPROPERTY_VIDEOCONTROL_MODE, Bytes(32, 0),
                           Words({stream, mode}));
    }
    // The custom ids the adapter publishes.
    std::vector<ULONG> CustomIds() {
        for (ULONG i = 0; i < Ext()->PropertySetCount; ++i) {
            const KSPROPERTY_SET& set = Ext()->PropertySets[i];
            if (GuidText(set.Set) == GuidText(&OrnixPropSetOxCustom)) {
                std::vector<ULONG> ids;
                for (ULONG item = 0; item < set.PropertiesCount; ++item) {
                    ids.push_back(set.PropertyItem[item].PropertyId);
                }
                return ids;
            }
        }
        return {};
    }
    bool Publishes(ULONG id) {
        std::vector<ULONG> ids = CustomIds();
        return std::find(ids.begin(), ids.end(), id) != ids.end();
    }
};

class OneStreamCameraTest : public ProfilePropertyTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return Without(kStillEndpoint); }
};

TEST_F(OneStreamCameraTest, StillPropertiesAreNotSupportedAndNothingWaits) {
    ASSERT_EQ(Ext()->StreamCount, 1u);
    for (ULONG id : {KSPROPERTY_OXCUSTOM_STILLSTARTPOS, KSPROPERTY_OXCUSTOM_STILLBINNING}) {
        EXPECT_FALSE(Publishes(id));
        EXPECT_EQ(Custom(id, 8).status, STATUS_NOT_SUPPORTED);
        PropertyAnswer set = SetCustom(id, Words({0, 0x00010001}));
        EXPECT_EQ(set.status, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(set.returned, 0u);
    }
    EXPECT_EQ(Ext()->RequestedStillBinX, 1u);
    PropertyAnswer wait = SetCustom(KSPROPERTY_OXCUSTOM_STILLWAIT, Words({0, 0xFFFFFFFF}));
    EXPECT_EQ(wait.status, STATUS_SUCCESS);

    Bytes extra = Words({kStill});
    extra.resize(ORNIX_TEVRINSGL_STATS_SIZE - sizeof(KSPROPERTY));
    EXPECT_EQ(Props().Get(OrnixPropSetTevrinSgl, KSPROPERTY_TEVRINSGL_STATS, 32, extra).status,
              STATUS_INVALID_PARAMETER);
    // No still stream is ever open: the trigger register never hears of one.
    EXPECT_EQ(SetMode(kStill, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(RegisterWrites(VendorRequests()), (Writes{{ORNIX_STILL_TRIGGER, 3}}));
}

class NoInterruptPipeCameraTest : public ProfilePropertyTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return Without(kEventEndpoint); }
};

// Event control is not published; sent anyway it starts nothing and
// enables nothing.
TEST_F(NoInterruptPipeCameraTest, EventControlHasNoTransferToStart) {
    ASSERT_EQ(Ext()->InterruptPipe, ORNIX_NO_PIPE);
    EXPECT_FALSE(Publishes(KSPROPERTY_OXCUSTOM_EVENT_CONTROL));
    PropertyAnswer enable = SetCustom(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({0x8000, 1}));
    EXPECT_FALSE(NT_SUCCESS(enable.status));
    EXPECT_EQ(enable.returned, 0u);
    EXPECT_EQ(Ext()->EventsEnabled, 0u);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    EXPECT_TRUE(VendorRequests().empty());
    EXPECT_EQ(SubmittedSinceStart(usbsim::RequestKind::BulkOrInterrupt), 0u);
}

class NoEventRegistersCameraTest : public ProfilePropertyTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        return WithRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 0);
    }
};

// A camera that reports no events gets no enable or disable mask, but the
// transfer runs and stops as the requests say.
TEST_F(NoEventRegistersCameraTest, EventControlWritesNoMask) {
    ASSERT_TRUE(Ext()->NoEventRegisters);
    ASSERT_EQ(SetCustom(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({0x8000, 1})).status,
              STATUS_SUCCESS);
    EXPECT_EQ(InterlockedCompareExchange(&Ext()->InterruptPending, 0, 0), 1);
    EXPECT_EQ(Custom(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, 8).data, Words({0, 1}));
    ASSERT_EQ(SetCustom(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({0, 1})).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    EXPECT_TRUE(RegisterWrites(VendorRequests()).empty());
}

class NoLookUpTableCameraTest : public ProfilePropertyTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return WithRegister(ORNIX_SUPPORT0, 0); }
};

// The table is not offered; a probe finds no copy rather than stale bytes.
TEST_F(NoLookUpTableCameraTest, TheTableIsNotOfferedAndNoCopyExists) {
    EXPECT_FALSE(Publishes(KSPROPERTY_OXCUSTOM_LUT8));
    EXPECT_TRUE(Publishes(KSPROPERTY_OXCUSTOM_PIXELCORRECTION));
    PropertyAnswer probe = Custom(KSPROPERTY_OXCUSTOM_LUT8, 256);
    EXPECT_EQ(probe.status, STATUS_SUCCESS);
    EXPECT_EQ(probe.returned, 0u);
    EXPECT_EQ(probe.data, Bytes(256, 0));
}

class VersionZeroCameraTest : public ProfilePropertyTest {
  protected:
    ornixcam::Profile CameraProfile() const override { return WithRegister(ORNIX_SPEC_VERSION, 0); }
};

// Version 0 has no trigger register to read and no still-open bit.
TEST_F(VersionZeroCameraTest, TriggerModeWithoutTheStillOpenBit) {
    ASSERT_EQ(Ext()->SpecVersion, 0u);
    Camera().PokeRegister(ORNIX_STILL_TRIGGER, 0);
    PropertyAnswer mode =
        Props().Get(OrnixPropSetVideoControl, KSPROPERTY_VIDEOCONTROL_MODE, 32, Words({kStill, 0}));
    EXPECT_EQ(mode.status, STATUS_SUCCESS);
    EXPECT_EQ(WordAt(mode.data, 28), 12u);
    EXPECT_TRUE(VendorRequests().empty());

    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_TRUE(still);
    Camera().ClearRequests();
    EXPECT_EQ(SetMode(kStill, 0xC).status, STATUS_SUCCESS);
    EXPECT_EQ(RegisterWrites(VendorRequests()), (Writes{{ORNIX_STILL_TRIGGER, 3}}));
    EXPECT_EQ(Custom(KSPROPERTY_OXCUSTOM_BUSINFO, 8).data, Words({0, 2}));
}

}  // namespace
}  // namespace ornixtest
