#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "fake_descriptor.h"
#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

TEST_F(StreamClassTest, RefusesARegistrationOfAnotherLayout) {
    Fake().editRegistration = [](HW_INITIALIZATION_DATA& d) { d.HwInitializationDataSize -= 4; };
    winsim::StreamClass sc(FakeDriverEntry);
    EXPECT_FALSE(NT_SUCCESS(sc.DriverEntryStatus()));
}

TEST_F(StreamClassTest, RefusesARegistrationWithoutItsEntryPoints) {
    Fake().editRegistration = [](HW_INITIALIZATION_DATA& d) { d.HwCancelPacket = nullptr; };
    winsim::StreamClass sc(FakeDriverEntry);
    EXPECT_EQ(sc.DriverEntryStatus(), STATUS_INVALID_PARAMETER);
}

TEST_F(StreamClassTest, StartPassesTheConfigurationAndCompletesInitialisation) {
    constexpr ULONG kOneStream = sizeof(HW_STREAM_HEADER) + sizeof(HW_STREAM_INFORMATION);
    std::vector<ULONG> commands;
    PORT_CONFIGURATION_INFORMATION seen{};
    FakeDescriptorTables tables;
    Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) {
        commands.push_back(srb->Command);
        EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
        if (srb->Command == SRB_INITIALIZE_DEVICE) {
            seen = *srb->CommandData.ConfigInfo;
            srb->CommandData.ConfigInfo->StreamDescriptorSize = kOneStream;
        }
        if (srb->Command == SRB_GET_STREAM_INFO) {
            FillDescriptor(&srb->CommandData.StreamBuffer->StreamHeader, 1, tables);
        }
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_, nullptr);
    ASSERT_EQ(sc.Start(), STATUS_SUCCESS);

    EXPECT_EQ(seen.SizeOfThisPacket, sizeof(PORT_CONFIGURATION_INFORMATION));
    EXPECT_EQ(seen.PhysicalDeviceObject, pdo_);
    EXPECT_EQ(seen.RealPhysicalDeviceObject, nullptr);
    EXPECT_EQ(seen.ClassDeviceObject, sc.ClassDeviceObject());
    EXPECT_EQ(seen.HwDeviceExtension, sc.DeviceExtension());
    EXPECT_TRUE(sc.ClassDeviceObject()->Flags & DO_DEVICE_INITIALIZING);
    EXPECT_EQ(sc.StreamDescriptorSize(), kOneStream);

    ASSERT_EQ(sc.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(commands, (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                            SRB_INITIALIZATION_COMPLETE, SRB_UNINITIALIZE_DEVICE}));
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

TEST_F(StreamClassTest, UnknownDeviceCommandCarriesTheIrpFunctions) {
    UCHAR major = 0, minor = 0;
    Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) {
        if (srb->Command == SRB_UNKNOWN_DEVICE_COMMAND) {
            PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(srb->Irp);
            major = stack->MajorFunction;
            minor = stack->MinorFunction;
        }
        CompleteAdapterSrb(srb, STATUS_NOT_IMPLEMENTED);
    };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    const winsim::SrbResult result = sc.SendUnknownDeviceCommand(IRP_MJ_PNP, 0x17);
    EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(major, IRP_MJ_PNP);
    EXPECT_EQ(minor, 0x17);
}

// The first SRB waits inside the minidriver for the second one to arrive:
// with the class's synchronisation off it must arrive; with it on it never
// may, so there the wait is bounded.
class Overlap {
  public:
    explicit Overlap(bool expectConcurrency) : expectConcurrency_(expectConcurrency) {
        KeInitializeEvent(&firstInside_, NotificationEvent, FALSE);
        KeInitializeEvent(&secondArrived_, NotificationEvent, FALSE);
    }

    void Enter(PHW_STREAM_REQUEST_BLOCK srb) {
        const int now = ++inside_;
        maxInside_ = std::max(maxInside_.load(), now);
        if (srb->Command == SRB_GET_STREAM_INFO) {
            KeSetEvent(&firstInside_, 0, FALSE);
            LARGE_INTEGER bounded;
            bounded.QuadPart = -100LL * 10'000'000;  // 100 simulated seconds
            KeWaitForSingleObject(&secondArrived_, Executive, KernelMode, FALSE,
                                  expectConcurrency_ ? nullptr : &bounded);
        } else {
            KeSetEvent(&secondArrived_, 0, FALSE);
        }
        --inside_;
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    }

    void SendTwo(winsim::StreamClass& sc) {
        std::thread first([&] { sc.SendAdapterSrb(SRB_GET_STREAM_INFO); });
        KeWaitForSingleObject(&firstInside_, Executive, KernelMode, FALSE, nullptr);
        std::thread second([&] { sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER); });
        first.join();
        second.join();
    }

    int MaxInside() const { return maxInside_; }

  private:
    const bool expectConcurrency_;
    KEVENT firstInside_;
    KEVENT secondArrived_;
    std::atomic<int> inside_{0};
    std::atomic<int> maxInside_{0};
};

TEST_F(StreamClassTest, SendsConcurrentlyWhenSynchronisationIsOff) {
    Overlap overlap(true);
    Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) { overlap.Enter(srb); };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    overlap.SendTwo(sc);
    EXPECT_EQ(overlap.MaxInside(), 2);
    EXPECT_EQ(sc.SrbsCompleted(), 2u);
}

TEST_F(StreamClassTest, SerialisesWhenSynchronisationIsOn) {
    Overlap overlap(false);
    Fake().editRegistration = [](HW_INITIALIZATION_DATA& d) { d.TurnOffSynchronization = FALSE; };
    Fake().onSrb = [&](PHW_STREAM_REQUEST_BLOCK srb) { overlap.Enter(srb); };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    overlap.SendTwo(sc);
    EXPECT_EQ(overlap.MaxInside(), 1);
}

TEST_F(StreamClassTest, ReportsAnSrbCompletedTwice) {
    Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
    ExpectViolation("SRB_COMPLETED_TWICE", {"SRB_PAGING_OUT_DRIVER"});
}

TEST_F(StreamClassTest, ReportsAnSrbNeverCompleted) {
    Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK) {};
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    const winsim::SrbResult result = sc.SendAdapterSrb(SRB_GET_STREAM_INFO);
    EXPECT_FALSE(result.completed);
    ExpectViolation("SRB_NEVER_COMPLETED", {"SRB_GET_STREAM_INFO"});
}

TEST_F(StreamClassTest, ReportsPoolTheMinidriverLeavesAtUnload) {
    Fake().onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
        ExAllocatePoolWithTag(NonPagedPool, 100, 0x206D6457);
        CompleteAdapterSrb(srb, STATUS_SUCCESS);
    };
    {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        sc.SendAdapterSrb(SRB_PAGING_OUT_DRIVER);
    }
    ExpectViolation("POOL_LEAK", {"Wdm ", "1 block"});
}

}  // namespace
}  // namespace sctest
