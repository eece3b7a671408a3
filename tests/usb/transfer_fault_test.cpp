// Transfer faults by endpoint and count: bus errors, short data, stalls, and
// completions held back so that the client sees them out of order.
#include "usb_stack_fixture.h"

namespace usbtest {
namespace {

class TransferFaultTest : public UsbStackTest {
  protected:
    void SetUp() override {
        UsbStackTest::SetUp();
        Configure();
    }

    struct Result {
        USBD_STATUS usbd;
        ULONG length;
    };
    Result Read(uint8_t endpoint, ULONG length = 512) {
        URB urb = TransferOn(endpoint, length);
        SubmitUrb(Pdo(), &urb);
        return {urb.UrbHeader.Status, urb.UrbBulkOrInterruptTransfer.TransferBufferLength};
    }
};

// Rules for the second and third bulk-IN transfers only: the interrupt
// endpoint's transfers in between neither count nor fail.
TEST_F(TransferFaultTest, RuleHitsCountConsecutiveRequestsOfItsEndpointOnly) {
    struct Case {
        FaultAction action;
        USBD_STATUS status;
        USBD_STATUS expected;
        ULONG expectedLength;
    } cases[] = {
        {FaultAction::FailWithStatus, USBD_STATUS_BABBLE_DETECTED, USBD_STATUS_BABBLE_DETECTED, 0},
        {FaultAction::FailWithStatus, USBD_STATUS_XACT_ERROR, USBD_STATUS_XACT_ERROR, 0},
        {FaultAction::ShortData, USBD_STATUS_SUCCESS, USBD_STATUS_SUCCESS, 100},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.status << " " << int(c.action));
        stack->ClearFaults();
        stack->AddFault({.kind = RequestKind::BulkOrInterrupt,
                         .occurrence = 2,
                         .action = c.action,
                         .usbdStatus = c.status,
                         .shortLength = 100,
                         .count = 2,
                         .endpoint = kBulkIn});
        EXPECT_EQ(Read(kBulkIn).length, 512u);
        for (int i = 0; i < 2; ++i) {
            const Result interrupt = Read(kInterruptIn, 8);
            EXPECT_EQ(interrupt.usbd, USBD_STATUS_SUCCESS);
            const Result hit = Read(kBulkIn);
            EXPECT_EQ(hit.usbd, c.expected);
            EXPECT_EQ(hit.length, c.expectedLength);
        }
        const Result after = Read(kBulkIn);
        EXPECT_EQ(after.usbd, USBD_STATUS_SUCCESS);
        EXPECT_EQ(after.length, 512u);
    }
}

TEST_F(TransferFaultTest, StallHaltsOnlyTheFilteredEndpoint) {
    stack->AddFault({.kind = RequestKind::BulkOrInterrupt,
                     .occurrence = 1,
                     .action = FaultAction::Stall,
                     .endpoint = kBulkIn});
    EXPECT_EQ(Read(kInterruptIn, 8).usbd, USBD_STATUS_SUCCESS);
    EXPECT_EQ(Read(kBulkIn).usbd, USBD_STATUS_STALL_PID);
    EXPECT_TRUE(StatusOf(kBulkIn).halted);
    EXPECT_FALSE(StatusOf(kInterruptIn).halted);
}

// A held completion comes back after the pipe's next request, or with an abort.
TEST_F(TransferFaultTest, OutOfOrderCompletionWaitsForThePipesNextRequestOrAnAbort) {
    const auto holdNext = [&] {
        stack->AddFault({.kind = RequestKind::BulkOrInterrupt,
                         .action = FaultAction::CompleteOutOfOrder,
                         .endpoint = kBulkIn});
    };
    holdNext();
    URB first = BulkIn(), second = BulkIn(), third = BulkIn();
    UrbCall firstCall(Pdo(), &first);
    ASSERT_EQ(firstCall.Send(), STATUS_PENDING);
    stack->WaitIdle();  // a held completion does not keep the stack busy
    EXPECT_FALSE(firstCall.Completed());
    UrbCall secondCall(Pdo(), &second);
    ASSERT_EQ(secondCall.Send(), STATUS_PENDING);
    EXPECT_EQ(secondCall.Wait(), STATUS_SUCCESS);
    EXPECT_EQ(firstCall.Wait(), STATUS_SUCCESS);
    EXPECT_LT(secondCall.completedAs, firstCall.completedAs);
    EXPECT_EQ(first.UrbBulkOrInterruptTransfer.TransferBufferLength, 512u);

    holdNext();
    UrbCall held(Pdo(), &third);
    ASSERT_EQ(held.Send(), STATUS_PENDING);
    stack->WaitIdle();
    EXPECT_FALSE(held.Completed());
    URB abort = PipeUrb(URB_FUNCTION_ABORT_PIPE, PipeFor(kBulkIn));
    EXPECT_EQ(SubmitUrb(Pdo(), &abort), STATUS_SUCCESS);
    EXPECT_EQ(held.Wait(), STATUS_SUCCESS);
}

}  // namespace
}  // namespace usbtest
