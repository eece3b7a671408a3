// Device events as applications use them: enables checked against the published
// sets and offered to the minidriver, and signals that reach only the listeners of
// that adapter, set and id.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <vector>

#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

const GUID kSetA = {0xA, 0, 0, {1}};
const GUID kSetB = {0xB, 0, 0, {2}};
const GUID kUnpublished = {0xC, 0, 0, {3}};

const KSEVENT_ITEM kItemsA[] = {{0, 0, 0, nullptr, nullptr, nullptr},
                                {2, 0, 0, nullptr, nullptr, nullptr}};
const KSEVENT_ITEM kItemsB[] = {{0, 0, 0, nullptr, nullptr, nullptr}};
KSEVENT_SET gSets[] = {{&kSetA, 2, kItemsA}, {&kSetB, 1, kItemsB}};

// What the minidriver's device event routine saw, and what it answers.
struct Call {
    HW_EVENT_DESCRIPTOR descriptor;
    KIRQL irql;
};
std::vector<Call> gCalls;
NTSTATUS gAnswer = STATUS_SUCCESS;

NTSTATUS STREAMAPI FakeEventRoutine(PHW_EVENT_DESCRIPTOR descriptor) {
    gCalls.push_back({*descriptor, KeGetCurrentIrql()});
    return gAnswer;
}

class DeviceEventTest : public StreamClassTest {
  protected:
    void SetUp() override {
        StreamClassTest::SetUp();
        gCalls.clear();
        gAnswer = STATUS_SUCCESS;
        fake.onSrb = [](PHW_STREAM_REQUEST_BLOCK srb) {
            if (srb->Command == SRB_INITIALIZE_DEVICE) {
                srb->CommandData.ConfigInfo->StreamDescriptorSize = sizeof(HW_STREAM_HEADER);
            } else if (srb->Command == SRB_GET_STREAM_INFO) {
                HW_STREAM_HEADER& header = srb->CommandData.StreamBuffer->StreamHeader;
                header.SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
                header.NumDevEventArrayEntries = 2;
                header.DeviceEventsArray = gSets;
                header.DeviceEventRoutine = FakeEventRoutine;
            }
            CompleteAdapterSrb(srb, STATUS_SUCCESS);
        };
    }

    // A started adapter.
    std::unique_ptr<winsim::StreamClass> Adapter() {
        auto sc = std::make_unique<winsim::StreamClass>(FakeDriverEntry);
        sc->AddDevice(pdo_);
        EXPECT_EQ(sc->Start(), STATUS_SUCCESS);
        return sc;
    }

    static void Signal(winsim::StreamClass& sc, const GUID& set, ULONG id) {
        GUID copy = set;
        StreamClassDeviceNotification(SignalMultipleDeviceEvents, sc.DeviceExtension(), &copy, id);
    }
};

TEST_F(DeviceEventTest, EnableChecksTheSetAndIdThenAsksTheMinidriver) {
    auto sc = Adapter();
    NTSTATUS status = STATUS_SUCCESS;
    EXPECT_EQ(sc->EnableDeviceEvent(kUnpublished, 0, &status), nullptr);
    EXPECT_EQ(status, STATUS_PROPSET_NOT_FOUND);
    EXPECT_EQ(sc->EnableDeviceEvent(kSetA, 1, &status), nullptr);
    EXPECT_EQ(status, STATUS_NOT_FOUND);
    EXPECT_TRUE(gCalls.empty());
    gAnswer = STATUS_DEVICE_REMOVED;  // a refusal keeps nothing enabled
    EXPECT_EQ(sc->EnableDeviceEvent(kSetB, 0, &status), nullptr);
    EXPECT_EQ(status, STATUS_DEVICE_REMOVED);
    gAnswer = STATUS_SUCCESS;

    auto listener = sc->EnableDeviceEvent(kSetB, 0, &status);
    ASSERT_NE(listener, nullptr);
    EXPECT_EQ(status, STATUS_SUCCESS);
    EXPECT_EQ(sc->DisableDeviceEvent(listener), STATUS_SUCCESS);
    EXPECT_EQ(sc->DisableDeviceEvent(listener), STATUS_NOT_FOUND);
    ASSERT_EQ(gCalls.size(), 3u);
    for (size_t n = 1; n < 3; ++n) {
        const HW_EVENT_DESCRIPTOR& d = gCalls[n].descriptor;
        EXPECT_EQ(d.Enable, n == 1 ? TRUE : FALSE);
        EXPECT_EQ(d.EventEntry, listener->Entry());
        EXPECT_EQ(d.EventData, listener->Data());
        EXPECT_EQ(d.DeviceExtension, sc->DeviceExtension());
        EXPECT_EQ(d.EnableEventSetIndex, 1u);  // the set's place in the device event array
        EXPECT_EQ(gCalls[n].irql, PASSIVE_LEVEL);
    }
    EXPECT_EQ(listener->Entry()->EventSet, &gSets[1]);
    EXPECT_EQ(listener->Entry()->EventItem, &kItemsB[0]);
    Signal(*sc, kSetB, 0);
    EXPECT_EQ(listener->Count(), 0u) << "disabled";
}

TEST_F(DeviceEventTest, SignalsReachOnlyTheListenersOfThatAdapterSetAndId) {
    auto a = Adapter();
    auto b = Adapter();
    auto a0 = a->EnableDeviceEvent(kSetA, 0);
    auto a0Again = a->EnableDeviceEvent(kSetA, 0);
    auto a2 = a->EnableDeviceEvent(kSetA, 2);
    auto aB0 = a->EnableDeviceEvent(kSetB, 0);
    auto b0 = b->EnableDeviceEvent(kSetA, 0);
    ASSERT_TRUE(a0 && a0Again && a2 && aB0 && b0);

    // From a completion routine's thread and level; the waits need no sleeps.
    std::thread signaller([&] {
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
            Signal(*a, kSetA, 0);
            Signal(*a, kSetA, 2);
            Signal(*a, kSetA, 0);
        });
    });
    // The fixture's clock runs 100 000 times fast: bound the waits by real seconds.
    constexpr int64_t kPatience100ns = 10'000'000'000'000;
    EXPECT_TRUE(a0->WaitForCount(2, kPatience100ns));
    EXPECT_TRUE(a2->WaitForCount(1, kPatience100ns));
    signaller.join();
    EXPECT_EQ((std::vector<uint64_t>{a0->Count(), a0Again->Count(), a2->Count(), aB0->Count(),
                                     b0->Count()}),
              (std::vector<uint64_t>{2, 2, 1, 0, 0}));

    // Stopping the adapter disables what is left, telling the minidriver.
    gCalls.clear();
    ASSERT_EQ(a->Stop(), STATUS_SUCCESS);
    EXPECT_EQ(gCalls.size(), 4u);
    EXPECT_TRUE(std::all_of(gCalls.begin(), gCalls.end(),
                            [](const Call& c) { return c.descriptor.Enable == FALSE; }));
    EXPECT_FALSE(a0->Enabled());
    EXPECT_TRUE(b0->Enabled());
}

// An application waits for each event in turn; the wait is bounded in real
// time, so the fixture's fast clock does not cut it short.
TEST_F(DeviceEventTest, AListenerTakesEachEventOnceAndIsReleasedWhenDisabled) {
    auto sc = Adapter();
    auto listener = sc->EnableDeviceEvent(kSetA, 2);
    ASSERT_NE(listener, nullptr);
    std::thread signaller([&] {
        winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
            Signal(*sc, kSetA, 2);
            Signal(*sc, kSetA, 2);
        });
    });
    EXPECT_TRUE(listener->WaitForNext());
    EXPECT_TRUE(listener->WaitForNext());
    signaller.join();
    EXPECT_EQ(listener->Count(), 2u);

    // What arrived before the disable can still be taken; then a waiter
    // learns at once that nothing more comes.
    Signal(*sc, kSetA, 2);
    bool taken = true;
    std::thread waiter([&] {
        EXPECT_TRUE(listener->WaitForNext());
        taken = listener->WaitForNext();
    });
    EXPECT_EQ(sc->DisableDeviceEvent(listener), STATUS_SUCCESS);
    waiter.join();
    EXPECT_FALSE(taken);
}

}  // namespace
}  // namespace sctest
