// The device event sets: which sets a camera offers, the counting of enables
// and disables, and the events signalled to the stream class.
#include <cstring>
#include <mutex>
#include <vector>

#include <ksmedia.h>

#include "camera_capabilities.h"
#include "streamclass/device_events.h"

namespace ornixtest {
namespace {

using usbsim::FaultRule;
using usbsim::RequestKind;

std::vector<ULONG> EventIds(const KSEVENT_SET& set) {
    std::vector<ULONG> ids;
    for (ULONG i = 0; i < set.EventsCount; ++i) {
        ids.push_back(set.EventItem[i].EventId);
    }
    return ids;
}

struct Signalled {
    PVOID extension;
    GUID set;
    ULONG id;

    bool operator==(const Signalled& other) const {
        return extension == other.extension && std::memcmp(&set, &other.set, sizeof set) == 0 &&
               id == other.id;
    }
};

std::ostream& operator<<(std::ostream& out, const Signalled& s) {
    return out << "{" << s.extension << ", set " << std::hex << s.set.Data1 << std::dec << ", id "
               << s.id << "}";
}

class EventSetTest : public CapabilityTest {
  protected:
    void SetUp() override {
        CapabilityTest::SetUp();
        winsim::SetDeviceEventObserver([this](PVOID extension, const GUID& set, ULONG id) {
            std::lock_guard lock(mutex_);
            signalled_.push_back({extension, set, id});
        });
    }
    void TearDown() override {
        winsim::SetDeviceEventObserver({});
        CapabilityTest::TearDown();
    }

    NTSTATUS Build(ULONG streams, bool interruptPipe, uint32_t supportMask = 0) {
        SetStreams(streams);
        SetInterruptPipe(interruptPipe);
        Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, supportMask);
        winsim::ClearDebugLog();
        Camera().ClearRequests();
        return OrnixBuildEventSet(Ext());
    }

    // A camera with both sets: still pipe, interrupt pipe, events 0 to 2.
    void BuildBothSets() {
        ASSERT_EQ(Build(2, true, 7), STATUS_SUCCESS);
        ASSERT_EQ(Ext()->EventSetCount, 2u);
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
        winsim::ClearDebugLog();
    }
    void ExpectCounters(LONG sti, LONG device) {
        EXPECT_EQ(Ext()->StiEventCount, sti);
        EXPECT_EQ(Ext()->DeviceEventCount, device);
    }

    std::vector<Signalled> Signals() {
        std::lock_guard lock(mutex_);
        return signalled_;
    }

  private:
    std::mutex mutex_;
    std::vector<Signalled> signalled_;
};

TEST_F(EventSetTest, SetsFollowTheStillAndInterruptPipesWithTheSupportedEventsAscending) {
    const struct {
        ULONG streams;
        bool interruptPipe;
        uint32_t supportMask;
        bool trigger;                  // the still-image trigger set, always first
        std::vector<ULONG> deviceIds;  // empty: no device-event set
        bool noEventRegisters;
    } cases[] = {
        {1, false, 7, false, {}, false},  // no support mask to read either
        {2, false, 7, true, {}, false},
        {1, true, 5, false, {0, 2}, false},
        {1, true, 0x80000001, false, {0, 31}, false},
        {1, true, 0, false, {0}, true},  // without event registers event 0 remains
        {2, true, 7, true, {0, 1, 2}, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.streams << " streams, interrupt pipe "
                                        << c.interruptPipe << ", mask " << c.supportMask);
        Ext()->NoEventRegisters = FALSE;
        ASSERT_EQ(Build(c.streams, c.interruptPipe, c.supportMask), STATUS_SUCCESS);
        const ULONG sets = (c.trigger ? 1 : 0) + (c.deviceIds.empty() ? 0 : 1);
        ASSERT_EQ(Ext()->EventSetCount, sets);
        EXPECT_EQ(Ext()->EventSets == nullptr, sets == 0);
        EXPECT_EQ(VendorRequests().size(), c.interruptPipe ? 1u : 0u);
        EXPECT_EQ(bool(Ext()->NoEventRegisters), c.noEventRegisters);
        std::vector<const KSEVENT_ITEM*> items;
        if (c.trigger) {
            const KSEVENT_SET& set = Ext()->EventSets[0];
            EXPECT_TRUE(SameGuid(set.Set, OrnixEventSetVidCapToSti));
            EXPECT_EQ(EventIds(set), (std::vector<ULONG>{KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}));
            items.push_back(&set.EventItem[0]);
        }
        if (!c.deviceIds.empty()) {
            const KSEVENT_SET& set = Ext()->EventSets[sets - 1];
            EXPECT_TRUE(SameGuid(set.Set, OrnixEventSetOxEvents));
            EXPECT_EQ(EventIds(set), c.deviceIds);
            for (ULONG i = 0; i < set.EventsCount; ++i) {
                items.push_back(&set.EventItem[i]);
            }
        }
        for (const KSEVENT_ITEM* item : items) {  // no data and no handlers of our own
            EXPECT_EQ(item->DataInput | item->ExtraEntryData, 0u);
            EXPECT_TRUE(item->AddHandler == nullptr && item->RemoveHandler == nullptr &&
                        item->SupportHandler == nullptr);
        }
    }
}

TEST_F(EventSetTest, UnreadableSupportMaskOrNoMemoryLeavesNoTableAtAll) {
    Stack().AddFault(FaultRule{.kind = RequestKind::VendorDevice, .occurrence = 1});
    EXPECT_FALSE(NT_SUCCESS(Build(2, true, 1)));
    EXPECT_TRUE(Logged("ORNIX: OrnixBuildEventSet: Failed to read ORNIX_INTERRUPT_EVENT_SUPPORT"));
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);

    winsim::FailAllocationsOfSize(2 * sizeof(KSEVENT_SET) + sizeof(KSEVENT_ITEM));
    EXPECT_EQ(Build(2, true, 1), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();
    EXPECT_TRUE(Logged("ORNIX: OrnixBuildEventSet: No memory"));
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);
}

TEST_F(EventSetTest, EveryEnableAndDisableMovesTheCountersOfTheSetsThatExist) {
    BuildBothSets();
    SetCounters(0, 0);
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);  // the still-image trigger
    ExpectCounters(1, 1);
    EXPECT_EQ(EventProc(true, 1), STATUS_SUCCESS);
    ExpectCounters(2, 2);
    EXPECT_EQ(EventProc(false, 0), STATUS_SUCCESS);
    EXPECT_EQ(EventProc(false, 1), STATUS_SUCCESS);
    ExpectCounters(0, 0);

    ASSERT_EQ(Build(2, false), STATUS_SUCCESS);  // no interrupt pipe
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);
    ExpectCounters(1, 0);
}

TEST_F(EventSetTest, EnableOutsideTheTableOrAfterRemovalFailsButDisableIsAccepted) {
    BuildBothSets();
    SetCounters(1, 1);
    EXPECT_EQ(EventProc(true, 2), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because index out of range"));
    ExpectCounters(1, 1);
    EXPECT_EQ(EventProc(false, 2), STATUS_SUCCESS);
    ExpectCounters(0, 0);

    SetCounters(1, 1);
    Ext()->Removed = TRUE;
    EXPECT_EQ(EventProc(true, 0), STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because removed"));
    ExpectCounters(1, 1);
    EXPECT_EQ(EventProc(false, 0), STATUS_SUCCESS);
    ExpectCounters(0, 0);
}

TEST_F(EventSetTest, AdapterWithoutEventSetsAnswersNotImplemented) {
    ASSERT_EQ(Build(1, false), STATUS_SUCCESS);
    EXPECT_EQ(EventProc(false, 0), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(EventProc(true, 0), STATUS_INVALID_PARAMETER);
}

// Each counter gates its own set: device events one per bit, ascending; a
// delivered still the trigger.
TEST_F(EventSetTest, SignalsGoOutOnlyWhileSomebodyListens) {
    BuildBothSets();
    SetCounters(0, 1);
    OrnixNotifyForOrnixEvents(Ext(), 0x80000001);
    OrnixNotifyStiMonitor(Ext());
    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 1, events: 0x80000001"));
    EXPECT_EQ(Signals(), (std::vector<Signalled>{{Ext(), OrnixEventSetOxEvents, 0},
                                                 {Ext(), OrnixEventSetOxEvents, 31}}));

    SetCounters(1, 0);
    OrnixNotifyForOrnixEvents(Ext(), 0x5);
    OrnixNotifyStiMonitor(Ext());
    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 0, events: 0x00000005"));
    EXPECT_EQ(Signals().size(), 3u);
    EXPECT_EQ(Signals().back(),
              (Signalled{Ext(), OrnixEventSetVidCapToSti, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}));
}

}  // namespace
}  // namespace ornixtest
