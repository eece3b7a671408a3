// The rig plugs in the camera a profile describes, installation included.
#include <gtest/gtest.h>

#include "camera/profile.h"
#include "kernel/kernel.h"
#include "rig/rig.h"

namespace {

ULONG CameraIdWith(const char* profileJson) {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    ornixrig::RigOptions options;
    options.profile = ornixcam::ParseProfile(profileJson);
    ULONG cameraId = 0;
    {
        ornixrig::Rig rig(std::move(options));
        EXPECT_EQ(rig.Start(), STATUS_SUCCESS);
        cameraId = rig.Device()->CameraId;
    }
    for (const auto& finding : winsim::TakeViolations()) {
        ADD_FAILURE() << finding.check << ": " << finding.message;
    }
    return cameraId;
}

TEST(Rig, TheProfilesDriverKeyReachesTheDriver) {
    // The registry fixes the camera id; without it the product id is used.
    EXPECT_EQ(CameraIdWith(R"({"registry": {"TevrinKey": "Ornix0123"}})"), 0x123u);
    EXPECT_EQ(CameraIdWith(R"({"device": {"idProduct": "0x0A2F"}})"), 0xA2Fu);
}

TEST(Rig, RegistryValuesMustBeText) {
    EXPECT_THROW(ornixcam::ParseProfile(R"({"registry": {"TevrinKey": 5}})"),
                 ornixcam::ProfileError);
}

}  // namespace
