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

bool SameGuid(const GUID* a, const GUID& b) {
    return a != nullptr && std::memcmp(a, &b, sizeof(GUID)) == 0;
}

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

    NTSTATUS Build() {
        winsim::ClearDebugLog();
        return OrnixBuildEventSet(Ext());
    }

    // A camera with both sets: still pipe, interrupt pipe, events 0 to 2.
    void BuildBothSets() {
        SetStreams(2);
        SetInterruptPipe(true);
        Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 7);
        ASSERT_EQ(Build(), STATUS_SUCCESS);
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
    }

    std::vector<Signalled> Signals() {
        std::lock_guard lock(mutex_);
        return signalled_;
    }

  private:
    std::mutex mutex_;
    std::vector<Signalled> signalled_;
};

TEST_F(EventSetTest, OneStreamCameraWithoutInterruptPipeHasNoEvents) {
    SetStreams(1);
    SetInterruptPipe(false);
    EXPECT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);
    EXPECT_TRUE(VendorRequests().empty());  // no support mask to read
}

TEST_F(EventSetTest, StillPipeAloneOffersTheTriggerSet) {
    SetStreams(2);
    SetInterruptPipe(false);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->EventSetCount, 1u);
    const KSEVENT_SET& set = Ext()->EventSets[0];
    EXPECT_TRUE(SameGuid(set.Set, OrnixEventSetVidCapToSti));
    ASSERT_EQ(EventIds(set), (std::vector<ULONG>{KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}));
    const KSEVENT_ITEM& item = set.EventItem[0];
    EXPECT_EQ(item.DataInput, 0u);
    EXPECT_EQ(item.ExtraEntryData, 0u);
    EXPECT_EQ(item.AddHandler, nullptr);
    EXPECT_EQ(item.RemoveHandler, nullptr);
    EXPECT_EQ(item.SupportHandler, nullptr);
}

TEST_F(EventSetTest, DeviceEventsAreTheSupportedBitsInAscendingOrder) {
    SetStreams(1);
    SetInterruptPipe(true);
    Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 5);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->EventSetCount, 1u);
    const KSEVENT_SET& set = Ext()->EventSets[0];
    EXPECT_TRUE(SameGuid(set.Set, OrnixEventSetOxEvents));
    EXPECT_EQ(EventIds(set), (std::vector<ULONG>{0, 2}));
    for (ULONG i = 0; i < set.EventsCount; ++i) {
        EXPECT_EQ(set.EventItem[i].DataInput, 0u);
        EXPECT_EQ(set.EventItem[i].ExtraEntryData, 0u);
        EXPECT_EQ(set.EventItem[i].AddHandler, nullptr);
    }
    EXPECT_FALSE(Ext()->NoEventRegisters);

    Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 0x80000001);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(EventIds(Ext()->EventSets[0]), (std::vector<ULONG>{0, 31}));
}

TEST_F(EventSetTest, EmptySupportMaskOffersEventZeroWithoutEventRegisters) {
    SetStreams(1);
    SetInterruptPipe(true);
    Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 0);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->EventSetCount, 1u);
    EXPECT_EQ(EventIds(Ext()->EventSets[0]), (std::vector<ULONG>{0}));
    EXPECT_TRUE(Ext()->NoEventRegisters);
}

TEST_F(EventSetTest, TriggerSetComesBeforeDeviceEvents) {
    BuildBothSets();
    EXPECT_TRUE(SameGuid(Ext()->EventSets[0].Set, OrnixEventSetVidCapToSti));
    EXPECT_TRUE(SameGuid(Ext()->EventSets[1].Set, OrnixEventSetOxEvents));
    EXPECT_EQ(EventIds(Ext()->EventSets[1]), (std::vector<ULONG>{0, 1, 2}));
}

TEST_F(EventSetTest, UnreadableSupportMaskLeavesNoTableAtAll) {
    SetStreams(2);
    SetInterruptPipe(true);
    Stack().AddFault(FaultRule{.kind = RequestKind::VendorDevice, .occurrence = 1});
    EXPECT_FALSE(NT_SUCCESS(Build()));
    EXPECT_TRUE(Logged("ORNIX: OrnixBuildEventSet: Failed to read ORNIX_INTERRUPT_EVENT_SUPPORT"));
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);
}

TEST_F(EventSetTest, WithoutMemoryThereIsNoTable) {
    SetStreams(2);
    SetInterruptPipe(true);
    Camera().PokeRegister(ORNIX_INTERRUPT_EVENT_SUPPORT, 1);
    winsim::FailAllocationsOfSize(2 * sizeof(KSEVENT_SET) + sizeof(KSEVENT_ITEM));
    EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();
    EXPECT_TRUE(Logged("ORNIX: OrnixBuildEventSet: No memory"));
    EXPECT_EQ(Ext()->EventSets, nullptr);
    EXPECT_EQ(Ext()->EventSetCount, 0u);
}

TEST_F(EventSetTest, EveryEnableAndDisableMovesBothCounters) {
    BuildBothSets();
    SetCounters(0, 0);
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);  // the still-image trigger
    EXPECT_EQ(Ext()->StiEventCount, 1);
    EXPECT_EQ(Ext()->DeviceEventCount, 1);
    EXPECT_EQ(EventProc(true, 1), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StiEventCount, 2);
    EXPECT_EQ(Ext()->DeviceEventCount, 2);
    EXPECT_EQ(EventProc(false, 0), STATUS_SUCCESS);
    EXPECT_EQ(EventProc(false, 1), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StiEventCount, 0);
    EXPECT_EQ(Ext()->DeviceEventCount, 0);
}

TEST_F(EventSetTest, CountersFollowOnlyTheSetsThatExist) {
    SetStreams(2);
    SetInterruptPipe(false);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    SetCounters(0, 0);
    EXPECT_EQ(EventProc(true, 0), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StiEventCount, 1);
    EXPECT_EQ(Ext()->DeviceEventCount, 0);
}

TEST_F(EventSetTest, EnableOutsideTheTableFailsButDisableIsAccepted) {
    BuildBothSets();
    SetCounters(1, 1);
    winsim::ClearDebugLog();
    EXPECT_EQ(EventProc(true, 2), STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because index out of range"));
    EXPECT_EQ(Ext()->StiEventCount, 1);
    EXPECT_EQ(Ext()->DeviceEventCount, 1);

    EXPECT_EQ(EventProc(false, 2), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StiEventCount, 0);
    EXPECT_EQ(Ext()->DeviceEventCount, 0);
}

TEST_F(EventSetTest, AfterRemovalOnlyDisablesAreAccepted) {
    BuildBothSets();
    SetCounters(1, 1);
    Ext()->Removed = TRUE;
    winsim::ClearDebugLog();
    EXPECT_EQ(EventProc(true, 0), STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(Logged("ORNIX: OrnixDeviceEventProc: Failing because removed"));
    EXPECT_EQ(Ext()->StiEventCount, 1);
    EXPECT_EQ(EventProc(false, 0), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->StiEventCount, 0);
    EXPECT_EQ(Ext()->DeviceEventCount, 0);
}

TEST_F(EventSetTest, AdapterWithoutEventSetsAnswersNotImplemented) {
    SetStreams(1);
    SetInterruptPipe(false);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(EventProc(false, 0), STATUS_NOT_IMPLEMENTED);
    EXPECT_EQ(EventProc(true, 0), STATUS_INVALID_PARAMETER);
}

TEST_F(EventSetTest, InterruptPacketSignalsOneEventPerBitInAscendingOrder) {
    BuildBothSets();
    SetCounters(0, 1);
    winsim::ClearDebugLog();
    OrnixNotifyForOrnixEvents(Ext(), 0x80000001);

    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 1, events: 0x80000001"));
    EXPECT_EQ(Signals(), (std::vector<Signalled>{{Ext(), OrnixEventSetOxEvents, 0},
                                                 {Ext(), OrnixEventSetOxEvents, 31}}));
}

TEST_F(EventSetTest, NobodyListeningMeansNothingSignalled) {
    BuildBothSets();
    SetCounters(0, 0);
    winsim::ClearDebugLog();
    OrnixNotifyForOrnixEvents(Ext(), 0x5);
    OrnixNotifyStiMonitor(Ext());
    EXPECT_TRUE(Logged("ORNIX: OrnixNotifyForOrnixEvents, eventCount = 0, events: 0x00000005"));
    EXPECT_TRUE(Signals().empty());
}

TEST_F(EventSetTest, DeliveredStillSignalsTheTrigger) {
    BuildBothSets();
    SetCounters(1, 0);
    OrnixNotifyStiMonitor(Ext());
    EXPECT_EQ(Signals(), (std::vector<Signalled>{
                             {Ext(), OrnixEventSetVidCapToSti, KSEVENT_VIDCAPTOSTI_EXT_TRIGGER}}));
}

}  // namespace
}  // namespace ornixtest
