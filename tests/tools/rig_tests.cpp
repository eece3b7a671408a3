// The rig plugs in the camera a profile describes, installation included.
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "camera/profile.h"
#include "kernel/kernel.h"
#include "rig/rig.h"

namespace {

// Runs `body` on a started rig with the camera of `profileJson`; the verifier
// must find nothing.
void WithRig(const std::string& profileJson, const std::function<void(ornixrig::Rig&)>& body) {
    winsim::ResetKernel();
    winsim::SetVerifierMode(winsim::VerifierMode::Record);
    ornixrig::RigOptions options;
    options.profile = ornixcam::ParseProfile(profileJson);
    {
        ornixrig::Rig rig(std::move(options));
        ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
        body(rig);
    }
    for (const auto& finding : winsim::TakeViolations()) {
        ADD_FAILURE() << finding.check << ": " << finding.message;
    }
}

TEST(Rig, TheProfilesDriverKeyReachesTheDriver) {
    // The registry fixes the camera id; without it the product id is used.
    WithRig(R"({"registry": {"TevrinKey": "Ornix0123"}})",
            [](ornixrig::Rig& rig) { EXPECT_EQ(rig.Device()->CameraId, 0x123u); });
    WithRig(R"({"device": {"idProduct": "0x0A2F"}})",
            [](ornixrig::Rig& rig) { EXPECT_EQ(rig.Device()->CameraId, 0xA2Fu); });
}

// Register reads do not allow short transfers: a camera answering two of four
// bytes passes on one host controller and fails on the other. (The URB's status
// and length per controller: ShortTransferTest in usb_tests.)
TEST(Rig, TheProfilesHostControllerDecidesWhetherAShortReadFails) {
    for (const auto& [behaviour, expected] :
         {std::pair{"succeeds", STATUS_SUCCESS}, {"fails", STATUS_UNSUCCESSFUL}}) {
        SCOPED_TRACE(behaviour);
        const NTSTATUS status = expected;  // lambdas cannot capture a structured binding
        WithRig(std::string(R"({"hostController": {"shortInTransfer": ")") + behaviour + "\"}}",
                [&](ornixrig::Rig& rig) {
                    rig.Camera().SetShortRead(ORNIX_SPEC_VERSION, 2);
                    ULONG value = 0;
                    EXPECT_EQ(OrnixRegRead(rig.Device(), ORNIX_SPEC_VERSION, &value), status);
                });
    }
}

}  // namespace
