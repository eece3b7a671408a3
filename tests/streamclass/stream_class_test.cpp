// Loading a minidriver through its DriverEntry; adapter SRBs: serialisation, completion tracking.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

TEST_F(StreamClassTest, RefusesARegistrationOfAnotherLayoutOrWithoutItsEntryPoints) {
    const std::pair<const char*, void (*)(HW_INITIALIZATION_DATA&)> flaws[] = {
        {"another layout", [](HW_INITIALIZATION_DATA& d) { d.HwInitializationDataSize -= 4; }},
        {"no HwReceivePacket", [](HW_INITIALIZATION_DATA& d) { d.HwReceivePacket = nullptr; }},
        {"no HwCancelPacket", [](HW_INITIALIZATION_DATA& d) { d.HwCancelPacket = nullptr; }},
        {"no time-out handler",
         [](HW_INITIALIZATION_DATA& d) { d.HwRequestTimeoutHandler = nullptr; }},
        {"no device extension", [](HW_INITIALIZATION_DATA& d) { d.DeviceExtensionSize = 0; }},
    };
    for (const auto& [name, flaw] : flaws) {
        SCOPED_TRACE(name);
        Fake().editRegistration = flaw;
        winsim::StreamClass sc(FakeDriverEntry);
        EXPECT_EQ(sc.DriverEntryStatus(), STATUS_INVALID_PARAMETER);
    }
}

TEST_F(StreamClassTest, AFailedInitialisationIsNotFollowedByCompletion) {
    std::vector<ULONG> commands;
    Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) {
        commands.push_back(srb->Command);
        CompleteAdapterSrb(srb, STATUS_DEVICE_NOT_READY);
    };
    {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        EXPECT_EQ(sc.Start(), STATUS_DEVICE_NOT_READY);
    }
    // Nor by teardown: the adapter never started.
    EXPECT_EQ(commands, std::vector<ULONG>{SRB_INITIALIZE_DEVICE});
}

// The first SRB waits inside the minidriver for the second: without the class's
// synchronisation it arrives; with it, it never may (so that wait is bounded).
TEST_F(StreamClassTest, SendsConcurrentlyOnlyWhenSynchronisationIsOff) {
    for (const bool synchronised : {false, true}) {
        SCOPED_TRACE(synchronised ? "synchronised" : "not synchronised");
        KEVENT firstInside, secondArrived;
        for (PKEVENT event : {&firstInside, &secondArrived})
            KeInitializeEvent(event, NotificationEvent, FALSE);
        std::atomic<int> inside{0}, maxInside{0};
        Fake().editRegistration = [=](HW_INITIALIZATION_DATA& d) {
            d.TurnOffSynchronization = !synchronised;
        };
        Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) {
            const int now = ++inside;
            maxInside = std::max(maxInside.load(), now);
            if (srb->Command == SRB_GET_STREAM_INFO) {
                KeSetEvent(&firstInside, 0, FALSE);
                LARGE_INTEGER bounded = kerneltest::RelativeTimeout(100);  // simulated seconds
                KeWaitForSingleObject(&secondArrived, Executive, KernelMode, FALSE,
                                      synchronised ? &bounded : nullptr);
            } else {
                KeSetEvent(&secondArrived, 0, FALSE);
            }
            --inside;
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        std::thread first([&] { sc.SendAdapterSrb(SRB_GET_STREAM_INFO); });
        kerneltest::Wait(&firstInside);
        std::thread second([&] { sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER); });
        first.join();
        second.join();
        EXPECT_EQ(maxInside, synchronised ? 1 : 2);
        EXPECT_EQ(sc.SrbsCompleted(), 2u);
    }
}

TEST_F(StreamClassTest, ReportsSrbsCompletedTwiceNeverOrUnsentAndPoolLeftAtUnload) {
    {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
        ExpectViolation("SRB_COMPLETED_TWICE", {"SRB_PAGING_OUT_DRIVER"});

        Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK) {};
        EXPECT_FALSE(sc.SendAdapterSrb(SRB_GET_STREAM_INFO).completed);
        ExpectViolation("SRB_NEVER_COMPLETED", {"SRB_GET_STREAM_INFO"});

        HW_STREAM_REQUEST_BLOCK stray{};
        stray.HwDeviceExtension = sc.DeviceExtension();
        CompleteAdapterSrb(&stray, STATUS_SUCCESS);
        ExpectViolation("SRB_UNKNOWN", {"an SRB the stream class never sent"});

        Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            ExAllocatePoolWithTag(NonPagedPool, 100, 0x206D6457);
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
        sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
    }
    ExpectViolation("POOL_LEAK", {"Wdm ", "1 block"});
}

}  // namespace
}  // namespace sctest
