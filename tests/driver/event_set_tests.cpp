// Device event sets: which a camera offers, counted enables, and signalled events.
#include <string>
#include <tuple>
#include <vector>

#include <ksmedia.h>

#include "driver_harness.h"
#include "streamclass/device_events.h"

namespace ornixtest {
namespace {

class EventSetTest : public CapabilityTest {
  protected:
    NTSTATUS Build(ULONG streams, bool interruptPipe, uint32_t supportMask = 0) {
        SetStreams(streams);
        SetInterruptPipe(interruptPipe);
        Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, supportMask);
        winsim::ClearDebugLog();
        Camera().ClearRequests();
        return OrnixBuildEventSet(Ext());
    }

    NTSTATUS EventProc(bool enable, ULONG setIndex) {
        HW_EVENT_DESCRIPTOR descriptor{};
        descriptor.Enable = enable ? TRUE : FALSE;
        descriptor.EnableEventSetIndex = setIndex;
        descriptor.DeviceExtension = reinterpret_cast<struct _HW_DEVICE_EXTENSION*>(Ext());
        return OrnixDeviceEventProc(&descriptor);
    }

    void SetCounters(LONG sti, LONG device) {
        Ext()->StiEventCount = sti;
        Ext()->DeviceEventCount = device;
    }
    void ExpectCounters(LONG sti, LONG device) {
        EXPECT_EQ(Ext()->StiEventCount, sti);
        EXPECT_EQ(Ext()->DeviceEventCount, device);
    }
};

TEST_F(EventSetTest, SetsFollowTheStillAndInterruptPipesWithTheSupportedEventsOrNoMemory) {
    const std::string sti = GuidText(&OrnixEventSetVidCapToSti);
    const std::string ox = GuidText(&OrnixEventSetOxEvents);
    const struct {
        ULONG streams;
        bool interruptPipe;
        uint32_t supportMask;
        std::vector<std::string> sets;  // the still-image trigger set always first
        std::vector<ULONG> deviceIds;
        bool noEventRegisters = false;
    } cases[] = {
        {1, false, 7, {}, {}},  // no support mask to read either
        {2, false, 7, {sti}, {}},
        {1, true, 0x80000001, {ox}, {0, 31}},
        {1, true, 0, {ox}, {0}, true},  // without event registers event 0 remains
        {2, true, 7, {sti, ox}, {0, 1, 2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Ext()->NoEventRegisters = FALSE;
        ASSERT_EQ(Build(c.streams, c.interruptPipe, c.supportMask), STATUS_SUCCESS);
        ASSERT_EQ(Ext()->EventSetCount, c.sets.size());
        EXPECT_EQ(Ext()->EventSets == nullptr, c.sets.empty());
        EXPECT_EQ(VendorRequests().size(), c.interruptPipe ? 1u : 0u);
        EXPECT_EQ(bool(Ext()->NoEventRegisters), c.noEventRegisters);
        for (size_t n = 0; n < c.sets.size(); ++n) {
            const KSEVENT_SET& set = Ext()->EventSets[n];
            EXPECT_EQ(GuidText(set.Set), c.sets[n]);
            std::vector<ULONG> ids;
            for (ULONG i = 0; i < set.EventsCount; ++i) {  // no data and no handlers of our own
                const KSEVENT_ITEM& item = set.EventItem[i];
                ids.push_back(item.EventId);
                EXPECT_TRUE(item.DataInput == 0 && item.ExtraEntryData == 0 && !item.AddHandler &&
                            !item.RemoveHandler && !item.SupportHandler);
            }
            EXPECT_EQ(ids, c.sets[n] == sti ? std::vector<ULONG>{KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}
                                            : c.deviceIds);
        }
    }
    // Without memory there is no table; an unreadable mask is in the bring-up fault sweep.
    winsim::FailAllocationsOfSize(2 * sizeof(KSEVENT_SET) + sizeof(KSEVENT_ITEM));
    EXPECT_EQ(Build(2, true, 1), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();
    EXPECT_TRUE(Logged("ORNIX: OrnixBuildEventSet: No memory"));
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);
}

// Either set moves both counters of the sets that exist. Enables out of the
// table or after removal fail; disables are always counted, so listeners can leave.
TEST_F(EventSetTest, EnablesMoveTheCountersOfTheSetsThatExistBadEnablesFail) {
    ASSERT_EQ(Build(2, true, 7), STATUS_SUCCESS);
    ExpectCounters(0, 0);
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);  // the still-image trigger
    EXPECT_EQ(EventProc(true, 1), STATUS_SUCCESS);
    ExpectCounters(2, 2);
    EXPECT_EQ(EventProc(false, 0), STATUS_SUCCESS);
    ExpectCounters(1, 1);
    EXPECT_EQ(EventProc(true, 2), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because index out of range"));
    Ext()->Removed = TRUE;
    EXPECT_EQ(EventProc(true, 0), STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because removed"));
    ExpectCounters(1, 1);
    EXPECT_EQ(EventProc(false, 2), STATUS_SUCCESS);
    ExpectCounters(0, 0);
    Ext()->Removed = FALSE;
    ASSERT_EQ(Build(2, false), STATUS_SUCCESS);  // no interrupt pipe
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);
    ExpectCounters(1, 0);
    ASSERT_EQ(Build(1, false), STATUS_SUCCESS);  // no sets at all
    EXPECT_EQ(EventProc(false, 0), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(EventProc(true, 0), STATUS_INVALID_PARAMETER);
}

// Each counter gates its own set: one device event per bit, ascending; stills the trigger.
// Every signal here comes from this thread.
TEST_F(EventSetTest, SignalsGoOutOnlyWhileSomebodyListens) {
    ASSERT_EQ(Build(2, true, 7), STATUS_SUCCESS);
    using Signalled = std::tuple<PVOID, std::string, ULONG>;  // extension, set, event id
    std::vector<Signalled> signals;
    winsim::SetDeviceEventObserver([&](PVOID extension, const GUID& set, ULONG id) {
        signals.emplace_back(extension, GuidText(&set), id);
    });
    SetCounters(0, 1);
    OrnixNotifyForOrnixEvents(Ext(), 0x80000001);
    OrnixNotifyStiMonitor(Ext());
    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 1, events: 0x80000001"));
    SetCounters(1, 0);
    OrnixNotifyForOrnixEvents(Ext(), 0x5);
    OrnixNotifyStiMonitor(Ext());
    winsim::SetDeviceEventObserver({});
    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 0, events: 0x00000005"));
    const std::string events = GuidText(&OrnixEventSetOxEvents);
    EXPECT_EQ(signals, (std::vector<Signalled>{{Ext(), events, 0},
                                               {Ext(), events, 31},
                                               {Ext(), GuidText(&OrnixEventSetVidCapToSti),
                                                KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}}));
}

}  // namespace
}  // namespace ornixtest
