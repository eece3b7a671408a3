// The rig plugs in the camera a profile describes, installation included.
#include <gtest/gtest.h>

#include <string>

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

// Register reads do not allow short transfers: a camera answering two of four
// bytes passes on one host controller and fails on the other.
TEST(Rig, TheProfilesHostControllerDecidesWhetherAShortReadFails) {
    const struct {
        const char* behaviour;
        NTSTATUS status;
        USBD_STATUS usbdStatus;
    } cases[] = {{"succeeds", STATUS_SUCCESS, USBD_STATUS_SUCCESS},
                 {"fails", STATUS_UNSUCCESSFUL, USBD_STATUS_ERROR_SHORT_TRANSFER}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.behaviour);
        winsim::ResetKernel();
        winsim::SetVerifierMode(winsim::VerifierMode::Record);
        ornixrig::RigOptions options;
        options.profile = ornixcam::ParseProfile(
            std::string(R"({"hostController": {"shortInTransfer": ")") + c.behaviour + "\"}}");
        {
            ornixrig::Rig rig(std::move(options));
            ASSERT_EQ(rig.Start(), STATUS_SUCCESS);
            rig.Camera().SetShortRead(ORNIX_SPEC_VERSION, 2);
            ULONG value = 0;
            EXPECT_EQ(OrnixRegRead(rig.Device(), ORNIX_SPEC_VERSION, &value), c.status);
            URB urb{};
            UsbBuildVendorRequest(&urb, URB_FUNCTION_VENDOR_DEVICE,
                                  sizeof urb.UrbControlVendorClassRequest,
                                  USBD_TRANSFER_DIRECTION_IN, 0, ORNIX_REQUEST_REGISTER, 0,
                                  ORNIX_SPEC_VERSION, &value, nullptr, sizeof value, nullptr);
            EXPECT_EQ(OrnixCallUsbd(rig.Device(), &urb), c.status);
            EXPECT_EQ(urb.UrbHeader.Status, c.usbdStatus);
            EXPECT_EQ(urb.UrbControlVendorClassRequest.TransferBufferLength, 2u);
        }
        for (const auto& finding : winsim::TakeViolations()) {
            ADD_FAILURE() << finding.check << ": " << finding.message;
        }
    }
}

TEST(Rig, RegistryValuesMustBeText) {
    EXPECT_THROW(ornixcam::ParseProfile(R"({"registry": {"TevrinKey": 5}})"),
                 ornixcam::ProfileError);
}

}  // namespace
