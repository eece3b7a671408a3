// The property table built from the camera's property block: which sets and
// items it offers under which camera facts, the published ranges, and what
// happens when reads or allocations fail.
#include <algorithm>
#include <cstring>
#include <vector>

#include <ksmedia.h>

#include "camera_capabilities.h"

namespace ornixtest {
namespace {

using usbsim::FaultRule;
using usbsim::RequestKind;

constexpr ULONG kBrightnessRecord = 0;
constexpr ULONG kContrastRecord = 1;
constexpr ULONG kExposureRecord = 10;
constexpr ULONG kFocusRecord = 12;
constexpr ULONG kGainRecord = 15;

bool SameGuid(const GUID* a, const GUID& b) {
    return a != nullptr && std::memcmp(a, &b, sizeof(GUID)) == 0;
}

std::vector<ULONG> Ids(const KSPROPERTY_SET& set) {
    std::vector<ULONG> ids;
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        ids.push_back(set.PropertyItem[i].PropertyId);
    }
    return ids;
}

// What a client sees of a ranged item.
struct PublishedRange {
    LONG defaultValue;
    LONG minimum;
    LONG maximum;
    ULONG step;
};

PublishedRange RangeOf(const KSPROPERTY_ITEM& item) {
    const KSPROPERTY_MEMBERSLIST* lists = item.Values->MembersList;
    const auto* stepping = static_cast<const KSPROPERTY_STEPPING_LONG*>(lists[0].Members);
    const auto* defaultValue = static_cast<const LONG*>(lists[1].Members);
    return {*defaultValue, stepping->Bounds.SignedMinimum, stepping->Bounds.SignedMaximum,
            stepping->SteppingDelta};
}

bool operator==(const PublishedRange& a, const PublishedRange& b) {
    return a.defaultValue == b.defaultValue && a.minimum == b.minimum && a.maximum == b.maximum &&
           a.step == b.step;
}

std::ostream& operator<<(std::ostream& out, const PublishedRange& r) {
    return out << "{default " << r.defaultValue << ", " << r.minimum << ".." << r.maximum
               << " step " << r.step << "}";
}

class PropertyTableTest : public CapabilityTest {
  protected:
    // A one-stream camera without interrupt pipe, look-up table or controls.
    void MakeBareCamera() {
        ClearAllRecords();
        Camera().PokeRegister(ORNIX_SUPPORT0, 0);
        SetStreams(1);
        SetInterruptPipe(false);
    }

    NTSTATUS Build() {
        winsim::ClearDebugLog();
        return OrnixBuildStreamHeader(Ext());
    }

    std::vector<const KSPROPERTY_SET*> Sets() const {
        std::vector<const KSPROPERTY_SET*> sets;
        for (ULONG i = 0; i < Ext()->PropertySetCount; ++i) {
            sets.push_back(&Ext()->PropertySets[i]);
        }
        return sets;
    }

    const KSPROPERTY_SET* FindSet(const GUID& guid) const {
        for (const KSPROPERTY_SET* set : Sets()) {
            if (SameGuid(set->Set, guid)) {
                return set;
            }
        }
        return nullptr;
    }

    const KSPROPERTY_ITEM* FindItem(const GUID& guid, ULONG id) const {
        const KSPROPERTY_SET* set = FindSet(guid);
        if (set == nullptr) {
            return nullptr;
        }
        for (ULONG i = 0; i < set->PropertiesCount; ++i) {
            if (set->PropertyItem[i].PropertyId == id) {
                return &set->PropertyItem[i];
            }
        }
        return nullptr;
    }

    std::vector<ULONG> CustomIds() const {
        const KSPROPERTY_SET* custom = FindSet(OrnixPropSetOxCustom);
        return custom == nullptr ? std::vector<ULONG>{} : Ids(*custom);
    }
};

TEST_F(PropertyTableTest, BareCameraOffersSixCustomItemsAndTheStaticSets) {
    MakeBareCamera();
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    ASSERT_EQ(Ext()->PropertySetCount, 3u);
    const std::vector<const KSPROPERTY_SET*> sets = Sets();
    EXPECT_TRUE(SameGuid(sets[0]->Set, OrnixPropSetOxCustom));
    EXPECT_TRUE(SameGuid(sets[1]->Set, OrnixPropSetVideoControl));
    EXPECT_TRUE(SameGuid(sets[2]->Set, OrnixPropSetTevrinSgl));
    EXPECT_EQ(Ids(*sets[0]), (std::vector<ULONG>{7, 16, 17, 20, 18, 40}));
    EXPECT_EQ(Ids(*sets[1]), (std::vector<ULONG>{0, 1, 2, 3}));
    EXPECT_EQ(Ids(*sets[2]), (std::vector<ULONG>{0, 1, 2}));
    EXPECT_EQ(Ext()->ExposureRange, nullptr);

    // 16 is set-only, 17 and 20 get-only; clients size custom data themselves.
    const KSPROPERTY_ITEM* items = sets[0]->PropertyItem;
    EXPECT_NE(items[0].GetSupported, FALSE);
    EXPECT_NE(items[0].SetSupported, FALSE);
    EXPECT_EQ(items[1].GetSupported, FALSE);
    EXPECT_EQ(items[2].SetSupported, FALSE);
    EXPECT_EQ(items[3].SetSupported, FALSE);
    EXPECT_EQ(items[0].MinProperty, sizeof(KSPROPERTY));
    EXPECT_EQ(items[0].MinData, 0u);
    EXPECT_EQ(items[0].Values, nullptr);
}

TEST_F(PropertyTableTest, VideoProcessingControlsPublishConvertedRanges) {
    MakeBareCamera();
    PokeRecord(kBrightnessRecord, {kPresent, 32750, 0, 65500});
    PokeRecord(kGainRecord, {kPresent, 0x1000, 0x1000, 0x10000});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    ASSERT_EQ(Ext()->PropertySetCount, 4u);
    const KSPROPERTY_SET* set = Sets()[0];
    ASSERT_TRUE(SameGuid(set->Set, OrnixPropSetVideoProcAmp));
    EXPECT_EQ(Ids(*set), (std::vector<ULONG>{0, 9}));
    EXPECT_EQ(RangeOf(set->PropertyItem[0]), (PublishedRange{5000, 0, 10000, 1}));
    EXPECT_EQ(RangeOf(set->PropertyItem[1]), (PublishedRange{0, 0, 3840, 1}));
    EXPECT_EQ(FindSet(OrnixPropSetCameraControl), nullptr);
}

TEST_F(PropertyTableTest, StandardItemDescribesItsValuesForClients) {
    MakeBareCamera();
    PokeRecord(kContrastRecord, {kPresent, 4096, 0, 8192});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    const KSPROPERTY_ITEM* item = FindItem(OrnixPropSetVideoProcAmp, 1);
    ASSERT_NE(item, nullptr);
    EXPECT_NE(item->GetSupported, FALSE);
    EXPECT_NE(item->SetSupported, FALSE);
    EXPECT_EQ(item->MinProperty, sizeof(KSPROPERTY_VIDEOPROCAMP_S));
    EXPECT_EQ(item->MinData, sizeof(KSPROPERTY_VIDEOPROCAMP_S));
    EXPECT_EQ(item->SerializedSize, 4u);
    EXPECT_EQ(item->RelationsCount, 0u);
    ASSERT_NE(item->Values, nullptr);

    const KSPROPERTY_VALUES& values = *item->Values;
    EXPECT_TRUE(SameGuid(&values.PropTypeSet.Set, OrnixPropTypeSetGeneral));
    EXPECT_EQ(values.PropTypeSet.Id, static_cast<ULONG>(VT_I4));
    EXPECT_EQ(values.PropTypeSet.Flags, 0u);
    ASSERT_EQ(values.MembersListCount, 2u);
    const KSPROPERTY_MEMBERSHEADER& range = values.MembersList[0].MembersHeader;
    EXPECT_EQ(range.MembersFlags, static_cast<ULONG>(KSPROPERTY_MEMBER_RANGES));
    EXPECT_EQ(range.MembersSize, sizeof(KSPROPERTY_STEPPING_LONG));
    EXPECT_EQ(range.MembersCount, 1u);
    EXPECT_EQ(range.Flags, 0u);
    const KSPROPERTY_MEMBERSHEADER& byDefault = values.MembersList[1].MembersHeader;
    EXPECT_EQ(byDefault.MembersFlags, static_cast<ULONG>(KSPROPERTY_MEMBER_VALUES));
    EXPECT_EQ(byDefault.MembersSize, sizeof(LONG));
    EXPECT_EQ(byDefault.Flags, static_cast<ULONG>(KSPROPERTY_MEMBER_FLAG_DEFAULT));
    EXPECT_EQ(RangeOf(*item), (PublishedRange{100, 0, 200, 1}));
}

TEST_F(PropertyTableTest, ExposurePublishesLogSecondsAndLeadsTheCustomSetOnTwoStreams) {
    MakeBareCamera();
    SetStreams(2);
    PokeRecord(kExposureRecord, {kPresent, 10000, 100, 2000000});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    ASSERT_EQ(Ext()->PropertySetCount, 4u);
    const KSPROPERTY_SET* set = Sets()[0];
    ASSERT_TRUE(SameGuid(set->Set, OrnixPropSetCameraControl));
    ASSERT_EQ(Ids(*set), (std::vector<ULONG>{4}));
    EXPECT_EQ(RangeOf(set->PropertyItem[0]), (PublishedRange{-7, -13, 1, 1}));
    EXPECT_EQ(Ext()->ExposureRange, set->PropertyItem[0].Values->MembersList[0].Members);

    EXPECT_EQ(CustomIds(), (std::vector<ULONG>{31, 7, 8, 16, 17, 20, 18, 19, 40, 37}));
    const KSPROPERTY_ITEM* setOnly = FindItem(OrnixPropSetOxCustom, 37);
    ASSERT_NE(setOnly, nullptr);
    EXPECT_EQ(setOnly->GetSupported, FALSE);
    EXPECT_NE(setOnly->SetSupported, FALSE);
}

TEST_F(PropertyTableTest, LookUpTableAndEventItemsFollowSupportBitAndInterruptPipe) {
    MakeBareCamera();
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    SetInterruptPipe(true);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(CustomIds(), (std::vector<ULONG>{7, 16, 17, 20, 18, 40, 32, 38}));

    // Only bit 0 of the support register counts.
    Camera().PokeRegister(ORNIX_SUPPORT0, 0xFFFFFFFE);
    SetInterruptPipe(false);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_EQ(CustomIds(), (std::vector<ULONG>{7, 16, 17, 20, 18, 40}));
}

TEST_F(PropertyTableTest, FocusIsOfferedOnlyAsCustomProperty) {
    MakeBareCamera();
    PokeRecord(kFocusRecord, {kPresent, 5, 0, 10});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_EQ(FindSet(OrnixPropSetCameraControl), nullptr);
    EXPECT_EQ(Ext()->PropertySetCount, 3u);
    const std::vector<ULONG> ids = CustomIds();
    EXPECT_NE(std::find(ids.begin(), ids.end(), 53u), ids.end());
}

// Every record present: the filling pass must land exactly where the
// counting pass measured (the driver asserts it) with every id once.
TEST_F(PropertyTableTest, FullyEquippedCameraFillsExactlyTheCountedTable) {
    for (ULONG record = 0; record < ORNIX_PROPERTY_RECORD_COUNT; ++record) {
        PokeRecord(record, {kPresent | ORNIX_PROPERTY_AUTO_AVAILABLE, 3, 1, 5});
    }
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    SetStreams(2);
    SetInterruptPipe(true);
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    ASSERT_EQ(Ext()->PropertySetCount, 5u);
    EXPECT_EQ(Ids(*Sets()[0]), (std::vector<ULONG>{0, 1, 2, 3, 4, 5, 9}));
    EXPECT_EQ(Ids(*Sets()[1]), (std::vector<ULONG>{0, 1, 2, 3, 4, 5}));
    std::vector<ULONG> custom = CustomIds();
    EXPECT_EQ(custom.size(), 56u);
    std::sort(custom.begin(), custom.end());
    EXPECT_EQ(std::adjacent_find(custom.begin(), custom.end()), custom.end());
    // Only 51 is never published; 0 to 56 otherwise all appear.
    EXPECT_EQ(std::find(custom.begin(), custom.end(), 51u), custom.end());
    EXPECT_NE(Ext()->ExposureRange, nullptr);
    EXPECT_TRUE(TakeViolations("ASSERT").empty());
}

TEST_F(PropertyTableTest, FailedBlockReadBuildsFromAClearedBuffer) {
    PokeRecord(kBrightnessRecord, {kPresent, 32750, 0, 65500});
    SetStreams(1);
    SetInterruptPipe(false);
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    Stack().AddFault(FaultRule{.kind = RequestKind::VendorDevice, .occurrence = 1});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_TRUE(Logged("ORNIX: Failed to prop reg block"));
    EXPECT_EQ(FindSet(OrnixPropSetVideoProcAmp), nullptr);
    // The support register was still read.
    EXPECT_EQ(CustomIds(), (std::vector<ULONG>{7, 16, 17, 20, 18, 40, 32}));
}

TEST_F(PropertyTableTest, FailedSupportReadMeansNoLookUpTable) {
    MakeBareCamera();
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    Stack().AddFault(FaultRule{.kind = RequestKind::VendorDevice, .occurrence = 2});
    ASSERT_EQ(Build(), STATUS_SUCCESS);

    EXPECT_TRUE(Logged("ORNIX: Failed to read support0 register"));
    EXPECT_FALSE(Logged("ORNIX: Failed to prop reg block"));
    EXPECT_EQ(CustomIds(), (std::vector<ULONG>{7, 16, 17, 20, 18, 40}));
}

TEST_F(PropertyTableTest, WithoutMemoryThereIsNoTable) {
    MakeBareCamera();
    winsim::FailAllocationsOfSize(3 * sizeof(KSPROPERTY_SET) + 6 * sizeof(KSPROPERTY_ITEM));
    EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();

    EXPECT_EQ(Ext()->PropertySets, nullptr);
    EXPECT_EQ(Ext()->PropertySetCount, 0u);
}

TEST_F(PropertyTableTest, TableThatCannotBeDeferredIsFreedAtOnce) {
    MakeBareCamera();
    winsim::FailAllocationsOfSize(sizeof(ORNIX_DEFERRED_BLOCK));
    EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
    winsim::ClearAllocationFailures();

    EXPECT_EQ(Ext()->PropertySets, nullptr);
    EXPECT_EQ(Ext()->PropertySetCount, 0u);
    // TearDown's pool check finds the block if it was kept.
}

}  // namespace
}  // namespace ornixtest
