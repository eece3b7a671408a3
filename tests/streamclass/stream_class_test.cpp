// Loading a minidriver through its DriverEntry; adapter SRBs and their completion tracking.
#include <gtest/gtest.h>

#include "stream_class_fixture.h"
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

}  // namespace
}  // namespace sctest
