// Loading a minidriver through its DriverEntry; adapter SRBs and their completion
// tracking; the device extension freed with the adapter; device notifications, whose
// arguments after the device extension are read by notification type, whichever way
// the minidriver declared the call.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "stream_class_fixture.h"
#include "streamclass/device_events.h"
#include "streamclass/srb_registry.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

TEST_F(StreamClassTest, RefusesARegistrationOfAnotherLayoutOrWithoutItsEntryPoints) {
    const std::pair<const char*, void (*)(HW_INITIALIZATION_DATA&)> flaws[] = {
        {"another layout", [](HW_INITIALIZATION_DATA& d) { d.HwInitializationDataSize -= 4; }},
        {"no HwReceivePacket", [](HW_INITIALIZATION_DATA& d) { d.HwReceivePacket = nullptr; }},
        {"no device extension", [](HW_INITIALIZATION_DATA& d) { d.DeviceExtensionSize = 0; }},
    };
    for (const auto& [name, flaw] : flaws) {
        SCOPED_TRACE(name);
        fake.editRegistration = flaw;
        winsim::StreamClass sc(FakeDriverEntry);
        EXPECT_EQ(sc.DriverEntryStatus(), STATUS_INVALID_PARAMETER);
    }
}

TEST_F(StreamClassTest, ReportsSrbsCompletedTwiceNeverOrUnsentAndPoolLeftAtUnload) {
    {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
        ExpectViolation("SRB_COMPLETED_TWICE", {"SRB_PAGING_OUT_DRIVER"});

        fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK) {};
        EXPECT_FALSE(sc.SendAdapterSrb(SRB_GET_STREAM_INFO).completed);
        ExpectViolation("SRB_NEVER_COMPLETED", {"SRB_GET_STREAM_INFO"});

        HW_STREAM_REQUEST_BLOCK stray{};
        stray.HwDeviceExtension = sc.DeviceExtension();
        CompleteAdapterSrb(&stray, STATUS_SUCCESS);
        ExpectViolation("SRB_UNKNOWN", {"an SRB the stream class never sent"});

        fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            ExAllocatePoolWithTag(NonPagedPool, 100, 0x206D6457);
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
    }
    ExpectViolation("POOL_LEAK", {"Wdm ", "1 block"});
}

// Each completion still counts (the sender goes on), and each flaw is one finding.
TEST_F(StreamClassTest, ReportsACompletionStillPendingOrThroughTheWrongNotification) {
    struct Flaw {
        const char* check;
        const char* gist;
        void (*complete)(PHW_STREAM_REQUEST_BLOCK);
    };
    const Flaw flaws[] = {
        {"SRB_STATUS_PENDING", "SRB_PAGING_OUT_DRIVER completed with its Status still",
         [](PHW_STREAM_REQUEST_BLOCK srb) { CompleteAdapterSrb(srb, STATUS_PENDING); }},
        {"SRB_NOTIFICATION",
         "adapter request SRB_PAGING_OUT_DRIVER completed through "
         "StreamRequestComplete",
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             HW_STREAM_OBJECT stream{};
             stream.HwDeviceExtension = srb->HwDeviceExtension;
             srb->Status = STATUS_SUCCESS;
             StreamClassStreamNotification(StreamRequestComplete, &stream, srb);
         }},
    };
    for (const Flaw& flaw : flaws) {
        SCOPED_TRACE(flaw.check);
        fake.onSrb = flaw.complete;
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        EXPECT_TRUE(sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER).completed);
        ExpectViolation(flaw.check, {flaw.gist});
    }
    // A stream request completed as if it were the adapter's.
    winsim::SrbRegistry srbs;
    HW_STREAM_OBJECT stream{};
    winsim::SrbRegistry::Entry& read = srbs.Create(SRB_READ_DATA, nullptr, 0, &stream);
    read.srb.Status = STATUS_SUCCESS;
    EXPECT_TRUE(srbs.Complete(&read.srb, winsim::kDeviceRequestComplete));
    ExpectViolation("SRB_NOTIFICATION",
                    {"stream request SRB_READ_DATA completed through DeviceRequestComplete"});
}

// The extension dies the moment SRB_UNINITIALIZE_DEVICE completes: a minidriver that
// still writes to it afterwards (say, to release a lock kept there) is caught, by
// ASan at once, by the verifier when the adapter goes away.
TEST_F(StreamClassTest, AMinidriverWritingItsExtensionAfterTeardownCompletedIsCaught) {
    fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
        auto* extension = static_cast<volatile uint8_t*>(srb->HwDeviceExtension);
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
        if (srb->Command == SRB_UNINITIALIZE_DEVICE) {
            extension[8] = 1;
        }
    };
    const auto startAndStop = [this] {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        sc.SendAdapterSrb(SRB_INITIALIZE_DEVICE);
        EXPECT_NE(sc.DeviceExtension(), nullptr);
        sc.SendAdapterSrb(SRB_UNINITIALIZE_DEVICE);
        EXPECT_EQ(sc.DeviceExtension(), nullptr);
    };
#if defined(__SANITIZE_ADDRESS__)
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(startAndStop(), "use-after-poison");
#else
    startAndStop();
    ExpectViolation("EXTENSION_USE_AFTER_FREE",
                    {"offset 0x8", "after SRB_UNINITIALIZE_DEVICE completed"});
#endif
    // Writing before completing is the minidriver's right.
    fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
        static_cast<volatile uint8_t*>(srb->HwDeviceExtension)[8] = 1;
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    };
    startAndStop();
}

struct Signalled {
    PVOID extension;
    GUID set;
    ULONG id;
};

// mingw-w64 declares the notification with six fixed parameters.
using SixParameterNotification = void(NTAPI*)(STREAM_MINIDRIVER_DEVICE_NOTIFICATION_TYPE, PVOID,
                                              PHW_STREAM_REQUEST_BLOCK, PKSEVENT_ENTRY, GUID*,
                                              ULONG);

TEST_F(StreamClassTest, SignalMultipleDeviceEventsTakesTheSetThenTheIdFromEitherDeclaration) {
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    std::vector<Signalled> seen;
    winsim::SetDeviceEventObserver([&](PVOID extension, const GUID& set, ULONG id) {
        seen.push_back({extension, set, id});
    });
    GUID set = {0x79CD8C74, 0x3E2A, 0x47B2, {0x91, 0xA0, 0xB9, 0x00, 0xBD, 0x65, 0xB4, 0x2E}};

    StreamClassDeviceNotification(SignalMultipleDeviceEvents, sc.DeviceExtension(), &set,
                                  ULONG(31));
    // As the Windows build passes them: the set and the id in the first two
    // positions after the extension, then two unused arguments.
    auto sixParameters = reinterpret_cast<SixParameterNotification>(&StreamClassDeviceNotification);
    sixParameters(SignalMultipleDeviceEvents, sc.DeviceExtension(),
                  reinterpret_cast<PHW_STREAM_REQUEST_BLOCK>(&set),
                  reinterpret_cast<PKSEVENT_ENTRY>(ULONG_PTR(2)), nullptr, 0);
    // The old positions (request block and event entry first) name no set.
    sixParameters(SignalMultipleDeviceEvents, sc.DeviceExtension(), nullptr, nullptr, &set, 5);
    winsim::SetDeviceEventObserver({});

    ASSERT_EQ(seen.size(), 2u);
    for (const Signalled& event : seen) {
        EXPECT_EQ(event.extension, sc.DeviceExtension());
        EXPECT_EQ(std::memcmp(&event.set, &set, sizeof set), 0);
    }
    EXPECT_EQ(seen[0].id, 31u);
    EXPECT_EQ(seen[1].id, 2u);
}

}  // namespace
}  // namespace sctest
