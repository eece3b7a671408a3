// SRB_INITIALIZE_DEVICE end to end: what a successful bring-up reports to
// the stream class, and what a failed one leaves untouched.
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

using BringUpTest = DriverTest;

TEST_F(BringUpTest, StreamDescriptorHoldsOneInformationRecordPerStream) {
    EXPECT_EQ(Ext()->StreamCount, 2u);
    EXPECT_EQ(Class().StreamDescriptorSize(),
              sizeof(HW_STREAM_HEADER) + 2 * sizeof(HW_STREAM_INFORMATION));
    EXPECT_EQ(Ext()->Initialized, 1);
    EXPECT_EQ(Ext()->SpecVersion, 1u);
    EXPECT_NE(Ext()->ConfigurationHandle, nullptr);
    EXPECT_EQ(Camera().Configuration(), 1);
}

class FailedBringUpTest : public DriverTest {
  protected:
    bool StartsAdapterInSetUp() const override { return false; }
};

TEST_F(FailedBringUpTest, TouchesNeitherStreamsNorTheInterruptPipe) {
    // The second selection, after the formats are known.
    Stack().AddFault({.kind = RequestKind::SelectConfiguration, .occurrence = 2});
    AddAdapter();

    EXPECT_EQ(StartAdapter(), STATUS_UNSUCCESSFUL);

    EXPECT_EQ(Ext()->Initialized, 0);
    EXPECT_EQ(Ext()->Uninitializing, 1);
    EXPECT_EQ(Stack().Counts(RequestKind::AbortPipe).submitted, 0u);
    EXPECT_FALSE(InterruptMutexTakenUnderRequestMutex());
    for (const std::string& line : Log()) {
        EXPECT_EQ(line.find("ORNIX: S# "), std::string::npos) << line;
    }
    // Unconfigured once more, and only once per teardown that found a handle.
    EXPECT_EQ(CountLogged("ORNIX: Unconfiguring device"), 1u);
    EXPECT_EQ(Camera().Configuration(), 0);
    EXPECT_TRUE(
        Logged("ORNIX: Selecting the Configuration fialed with 0xc0000001, USBD 0xc0000005"));
    EXPECT_EQ(winsim::OutstandingPool()[kDriverTag].blocks, 0u);
}

}  // namespace
}  // namespace ornixtest
