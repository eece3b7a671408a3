#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::In;
using test::Out;
using test::SetConfiguration;
using test::SetInterface;
using test::TransferIn;
using test::TransferOut;
using usbsim::Handshake;

constexpr uint8_t kCapture = 0x81, kStill = 0x82, kEvents = 0x83, kDownload = 0x02;

Handshake HaltEndpoint(Camera& camera, uint8_t endpoint, bool halt) {
    return Out(camera, 0x02, halt ? 3 : 1, /*ENDPOINT_HALT*/ 0, endpoint);
}

TEST(Configuration, AcceptsOnlyZeroOrTheProfileValue) {
    Camera camera;
    EXPECT_EQ(In(camera, 0x80, 8, 0, 0, 1).data, std::vector<uint8_t>{0});
    EXPECT_EQ(SetConfiguration(camera, 2), Handshake::Stall);
    EXPECT_EQ(camera.Configuration(), 0);
    EXPECT_EQ(SetConfiguration(camera, 1), Handshake::Ack);
    EXPECT_EQ(In(camera, 0x80, 8, 0, 0, 1).data, std::vector<uint8_t>{1});
    EXPECT_EQ(SetConfiguration(camera, 0), Handshake::Ack);
    EXPECT_EQ(camera.Configuration(), 0);
}

TEST(Configuration, EndpointsWorkOnlyInTheirConfiguredSetting) {
    Camera camera;
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), Handshake::Stall);
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);

    for (uint8_t endpoint : {kCapture, kStill, kEvents}) {
        EXPECT_EQ(TransferIn(camera, endpoint, 512).handshake(), Handshake::Nak) << +endpoint;
    }
    EXPECT_EQ(TransferOut(camera, kDownload, {1, 2, 3}).handshake, Handshake::Stall);
    EXPECT_EQ(TransferIn(camera, 0x01, 512).handshake(), Handshake::Stall);  // direction matters

    ASSERT_EQ(SetInterface(camera, 1), Handshake::Ack);
    EXPECT_EQ(In(camera, 0x81, 10, 0, 0, 1).data, std::vector<uint8_t>{1});
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), Handshake::Stall);
    EXPECT_EQ(TransferOut(camera, kDownload, std::vector<uint8_t>(512)).actual, 512u);
    EXPECT_EQ(TransferOut(camera, kDownload, {1, 2, 3}).actual, 3u);
    EXPECT_EQ(camera.BytesReceived(kDownload), 515u);

    // Reconfiguring returns to alternate setting 0.
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);
    EXPECT_EQ(camera.AlternateSetting(), 0);
}

TEST(Configuration, SetInterfaceRejectsWhatDoesNotExist) {
    Camera camera;
    EXPECT_EQ(SetInterface(camera, 0), Handshake::Stall);  // not configured yet
    EXPECT_EQ(In(camera, 0x81, 10, 0, 0, 1).handshake(), Handshake::Stall);
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);
    EXPECT_EQ(SetInterface(camera, 2), Handshake::Stall);
    EXPECT_EQ(SetInterface(camera, 0, /*interface*/ 1), Handshake::Stall);
    EXPECT_EQ(camera.AlternateSetting(), 0);
}

TEST(EndpointHalt, StallsTransfersUntilCleared) {
    Camera camera;
    EXPECT_EQ(HaltEndpoint(camera, kCapture, true), Handshake::Stall);  // not configured
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);

    ASSERT_EQ(HaltEndpoint(camera, kCapture, true), Handshake::Ack);
    EXPECT_TRUE(camera.EndpointHalted(kCapture));
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), Handshake::Stall);
    EXPECT_EQ(In(camera, 0x82, 0, 0, kCapture, 2).data, (std::vector<uint8_t>{1, 0}));
    EXPECT_EQ(TransferIn(camera, kStill, 512).handshake(), Handshake::Nak);  // others unaffected

    ASSERT_EQ(HaltEndpoint(camera, kCapture, false), Handshake::Ack);
    EXPECT_EQ(TransferIn(camera, kCapture, 512).handshake(), Handshake::Nak);
    EXPECT_EQ(In(camera, 0x82, 0, 0, kCapture, 2).data, (std::vector<uint8_t>{0, 0}));

    // Only endpoints of the active setting can be halted; endpoint 0 can be cleared.
    EXPECT_EQ(HaltEndpoint(camera, kDownload, true), Handshake::Stall);
    EXPECT_EQ(HaltEndpoint(camera, 0x00, false), Handshake::Ack);
    EXPECT_EQ(Out(camera, 0x02, 1, /*not ENDPOINT_HALT*/ 1, kCapture), Handshake::Stall);

    ASSERT_EQ(HaltEndpoint(camera, kStill, true), Handshake::Ack);
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);
    EXPECT_FALSE(camera.EndpointHalted(kStill));
}

TEST(GetStatus, ReportsPowerAndRejectsUnknownRecipients) {
    Camera busPowered;
    EXPECT_EQ(In(busPowered, 0x80, 0, 0, 0, 2).data, (std::vector<uint8_t>{0, 0}));
    EXPECT_EQ(In(busPowered, 0x81, 0, 0, 0, 2).handshake(), Handshake::Stall);
    EXPECT_EQ(In(busPowered, 0x82, 0, 0, kCapture, 2).handshake(), Handshake::Stall);

    Camera selfPowered(ParseProfile(R"({"configuration": {"bmAttributes": "0xE0"}})"));
    EXPECT_EQ(Out(selfPowered, 0x00, 3, /*DEVICE_REMOTE_WAKEUP*/ 1, 0), Handshake::Ack);
    EXPECT_EQ(In(selfPowered, 0x80, 0, 0, 0, 2).data, (std::vector<uint8_t>{3, 0}));
    EXPECT_EQ(Out(busPowered, 0x00, 3, 1, 0), Handshake::Stall);  // no remote wakeup
}

TEST(ControlRequests, OtherRequestTypesStall) {
    Camera camera;
    EXPECT_EQ(In(camera, 0xA1, 1, 0, 0, 4).handshake(), Handshake::Stall);  // class
    EXPECT_EQ(In(camera, 0xC0, 0x11, 0, 0, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(In(camera, 0xC1, 0x12, 0, 0x0010, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(In(camera, 0x80, 6, 0x0700, 0, 9).handshake(), Handshake::Stall);  // other speed
}

TEST(RequestLog, RecordsWhatCrossedTheBus) {
    Camera camera;
    test::ReadRegisters(camera, 0x0010, 4);
    test::WriteRegister(camera, 0x0010, 5);  // read-only: stalls
    SetConfiguration(camera);
    SetInterface(camera, 1);
    TransferOut(camera, kDownload, std::vector<uint8_t>(3000, 0xAA));

    const auto log = camera.Requests();
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[0].kind, LoggedRequest::Kind::Control);
    EXPECT_EQ(log[0].setup.bRequest, 0x12);
    EXPECT_EQ(log[0].deviceData, (std::vector<uint8_t>{1, 0, 0, 0}));
    EXPECT_EQ(log[1].hostData, (std::vector<uint8_t>{5, 0, 0, 0}));
    EXPECT_EQ(log[1].result.handshake, Handshake::Stall);
    EXPECT_EQ(log[4].kind, LoggedRequest::Kind::Transfer);
    EXPECT_EQ(log[4].endpoint, kDownload);
    EXPECT_EQ(log[4].result.actual, 3000u);
    EXPECT_EQ(log[4].hostData.size(), RequestLog::kMaxTransferBytesKept);

    camera.ClearRequests();
    EXPECT_TRUE(camera.Requests().empty());
}

TEST(EndpointHooks, ReplaceTheNakAndWakeTheStack) {
    Camera camera;
    std::vector<uint8_t> woken;
    camera.SetReadyCallback([&](uint8_t endpoint) { woken.push_back(endpoint); });
    camera.SetEndpointHandler(kEvents, [](std::span<uint8_t> data) {
        data[0] = 0x42;
        return usbsim::TransferResult::Ack(1);
    });
    ASSERT_EQ(SetConfiguration(camera), Handshake::Ack);
    camera.SignalReady(kEvents);
    EXPECT_EQ(woken, std::vector<uint8_t>{kEvents});
    EXPECT_EQ(TransferIn(camera, kEvents, 8).data, std::vector<uint8_t>{0x42});

    camera.SetEndpointHandler(kEvents, nullptr);
    EXPECT_EQ(TransferIn(camera, kEvents, 8).handshake(), Handshake::Nak);
}

// Host-controller threads reach the camera at the same time; run under TSan to
// catch races, and check no request is lost or torn.
TEST(Concurrency, ParallelRequestsStayConsistent) {
    Camera camera;
    SetConfiguration(camera);
    constexpr int kThreads = 4, kRounds = 200;
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            const auto index = static_cast<uint16_t>(0x0400 + 16 * t);
            for (int round = 0; round < kRounds; ++round) {
                const uint32_t value = static_cast<uint32_t>(t << 16 | round);
                if (test::WriteRegister(camera, index, value) != Handshake::Ack ||
                    test::ReadRegisters(camera, index, 4).data != test::Le32(value) ||
                    TransferIn(camera, kCapture, 512).handshake() != Handshake::Nak) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(camera.Requests().size(), 1u + kThreads * kRounds * 3);
}

}  // namespace
}  // namespace ornixcam
