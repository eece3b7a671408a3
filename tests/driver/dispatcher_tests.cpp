// The adapter SRB dispatcher: serialisation by RequestMutex, the requests it
// answers itself and the codes it does not know.
#include <cstdio>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using DispatcherTest = DriverTest;

// Samples the state of a mutex each time the driver prints, that is from
// inside the handler of the SRB being dispatched.
class MutexStateWhilePrinting {
  public:
    explicit MutexStateWhilePrinting(PKMUTEX mutex) {
        winsim::SetDebugSink(
            [this, mutex](std::string_view) { states_.push_back(KeReadStateMutex(mutex)); });
    }
    ~MutexStateWhilePrinting() { winsim::SetDebugSink(nullptr); }
    const std::vector<LONG>& States() const { return states_; }

  private:
    std::vector<LONG> states_;
};

TEST_F(DispatcherTest, LaterRequestsHoldRequestMutexExactlyOnceWhileHandled) {
    MutexStateWhilePrinting probe(&Ext()->RequestMutex);

    SrbResult result = Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL);

    ASSERT_TRUE(result.completed);
    // 0: owned once by the dispatching thread; 1: free again afterwards.
    EXPECT_EQ(probe.States(), std::vector<LONG>{0});
    EXPECT_EQ(KeReadStateMutex(&Ext()->RequestMutex), 1);
}

TEST_F(DispatcherTest, RequestThatCannotTakeTheMutexIsCompletedUndispatched) {
    // A mutex the kernel refuses to wait on: the wait fails.
    Ext()->RequestMutex.Header.Type = 0xEE;

    SrbResult result = Class().SendAdapterSrb(SRB_SURPRISE_REMOVAL);

    EXPECT_TRUE(result.completed);
    EXPECT_FALSE(NT_SUCCESS(result.status));
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixReceivePacket: Failed to take mutex"});
    EXPECT_EQ(Ext()->Removed, 0);
    EXPECT_EQ(TakeViolations("BAD_OBJECT").size(), 1u);
    KeInitializeMutex(&Ext()->RequestMutex, 0);
}

class UnknownCodeTest : public DriverTest, public ::testing::WithParamInterface<ULONG> {};

TEST_P(UnknownCodeTest, CompletesNotImplementedWithMessage) {
    const ULONG code = GetParam();

    SrbResult result = Class().SendAdapterSrb(static_cast<SRB_COMMAND>(code));

    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
    char expected[64];
    std::snprintf(expected, sizeof expected, "ORNIX: SRB unknown code : 0x%x!!", code);
    EXPECT_EQ(Log(), std::vector<std::string>{expected});
}

INSTANTIATE_TEST_SUITE_P(DeviceInstanceAndOutOfRange, UnknownCodeTest,
                         ::testing::Values(SRB_OPEN_DEVICE_INSTANCE, SRB_CLOSE_DEVICE_INSTANCE,
                                           0x10Fu),
                         [](const ::testing::TestParamInfo<ULONG>& info) {
                             char name[16];
                             std::snprintf(name, sizeof name, "Code%X", info.param);
                             return std::string(name);
                         });

TEST_F(DispatcherTest, UnknownDeviceCommandNamesThePnpMinorFunction) {
    SrbResult result = Class().SendUnknownDeviceCommand(IRP_MJ_PNP, IRP_MN_SURPRISE_REMOVAL);

    EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: IRP_MJ_PNP, minor: 0x17"});
}

TEST_F(DispatcherTest, UnknownDeviceCommandOfAnotherMajorNamesTheSrbCode) {
    SrbResult result = Class().SendUnknownDeviceCommand(IRP_MJ_POWER, 2);

    EXPECT_EQ(result.status, STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: SRB_UNKNOWN_DEVICE_COMMAND 10a"});
}

TEST_F(DispatcherTest, InitializationCompleteSucceedsAndDoesNothingElse) {
    SrbResult result = Class().SendAdapterSrb(SRB_INITIALIZATION_COMPLETE);

    EXPECT_TRUE(result.completed);
    EXPECT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_TRUE(Log().empty());
    EXPECT_TRUE(ControlRequests().empty());
}

}  // namespace
}  // namespace ornixtest
