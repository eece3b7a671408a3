// The property table built from the camera's property block: sets and items
// offered under which camera facts, their order, ranges and unit conversions.
#include <algorithm>
#include <array>
#include <tuple>
#include <vector>

#include <ksmedia.h>

#include "driver_harness.h"

namespace ornixtest {
namespace {

// One property record as the camera holds it: control, value, minimum, maximum.
using PropertyRecord = std::array<uint32_t, 4>;
constexpr uint32_t kPresent = ORNIX_PROPERTY_PRESENT;

std::vector<ULONG> Ids(const KSPROPERTY_SET& set) {
    std::vector<ULONG> ids;
    for (ULONG i = 0; i < set.PropertiesCount; ++i) {
        ids.push_back(set.PropertyItem[i].PropertyId);
    }
    return ids;
}

// What a client sees of a ranged item: default, minimum, maximum, step.
using PublishedRange = std::tuple<LONG, LONG, LONG, ULONG>;

PublishedRange RangeOf(const KSPROPERTY_ITEM& item) {
    const KSPROPERTY_MEMBERSLIST* lists = item.Values->MembersList;
    const auto* stepping = static_cast<const KSPROPERTY_STEPPING_LONG*>(lists[0].Members);
    return {*static_cast<const LONG*>(lists[1].Members), stepping->Bounds.SignedMinimum,
            stepping->Bounds.SignedMaximum, stepping->SteppingDelta};
}

class PropertyTableTest : public CapabilityTest {
  protected:
    void PokeRecord(ULONG record, const PropertyRecord& words) {
        for (int i = 0; i < 4; ++i) {
            Camera().PokeRegister(USHORT(ORNIX_PROPERTY_RECORD(record) + 4 * i), words[i]);
        }
    }
    // A one-stream camera without interrupt pipe, look-up table or controls.
    void MakeBareCamera() {
        for (ULONG record = 0; record < ORNIX_PROPERTY_RECORD_COUNT; ++record) {
            PokeRecord(record, {});
        }
        Camera().PokeRegister(ORNIX_SUPPORT0, 0);
        SetStreams(1);
        SetInterruptPipe(false);
    }

    NTSTATUS Build() {
        winsim::ClearDebugLog();
        return OrnixBuildStreamHeader(Ext());
    }

    const KSPROPERTY_SET* Set(ULONG n) const { return &Ext()->PropertySets[n]; }
};

// Standard controls lead with converted ranges and defaults; exposure in log seconds.
TEST_F(PropertyTableTest, StandardControlsPublishConvertedRangesAheadOfTheOtherSets) {
    MakeBareCamera();
    Camera().PokeRegister(ORNIX_SUPPORT0, 0xFFFFFFFE);  // only bit 0 offers the look-up table
    SetStreams(2);
    PokeRecord(0, {kPresent, 32750, 0, 65500});           // brightness
    PokeRecord(1, {kPresent, 4096, 0, 8192});             // contrast
    PokeRecord(15, {kPresent, 0x1000, 0x1000, 0x10000});  // gain
    PokeRecord(10, {kPresent, 10000, 100, 2000000});      // exposure
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->PropertySetCount, 5u);
    const KSPROPERTY_SET* amp = Set(0);
    ASSERT_EQ(GuidText(amp->Set), GuidText(&OrnixPropSetVideoProcAmp));
    ASSERT_EQ(Ids(*amp), (std::vector<ULONG>{0, 1, 9}));
    EXPECT_EQ(RangeOf(amp->PropertyItem[0]), (PublishedRange{5000, 0, 10000, 1}));
    EXPECT_EQ(RangeOf(amp->PropertyItem[1]), (PublishedRange{100, 0, 200, 1}));
    EXPECT_EQ(RangeOf(amp->PropertyItem[2]), (PublishedRange{0, 0, 3840, 1}));
    const KSPROPERTY_SET* camera = Set(1);
    ASSERT_EQ(GuidText(camera->Set), GuidText(&OrnixPropSetCameraControl));
    ASSERT_EQ(Ids(*camera), (std::vector<ULONG>{4}));
    EXPECT_EQ(RangeOf(camera->PropertyItem[0]), (PublishedRange{-7, -13, 1, 1}));
    EXPECT_EQ(Ext()->ExposureRange, camera->PropertyItem[0].Values->MembersList[0].Members);
    // Clients find the range first, then the default.
    for (const KSPROPERTY_ITEM* item : {&amp->PropertyItem[0], camera->PropertyItem}) {
        EXPECT_TRUE(item->GetSupported && item->SetSupported);
        EXPECT_EQ(item->MinProperty, sizeof(KSPROPERTY_VIDEOPROCAMP_S));
        EXPECT_EQ(item->MinData, sizeof(KSPROPERTY_VIDEOPROCAMP_S));
        ASSERT_EQ(item->Values->MembersListCount, 2u);
        const KSPROPERTY_MEMBERSLIST* lists = item->Values->MembersList;
        EXPECT_EQ(lists[0].MembersHeader.MembersFlags, ULONG(KSPROPERTY_MEMBER_RANGES));
        EXPECT_EQ(lists[1].MembersHeader.Flags, ULONG(KSPROPERTY_MEMBER_FLAG_DEFAULT));
    }
    // Custom 31 and 2 share the exposure and gain records (the map test has the other
    // records); 8, 19 and 37 need two streams.
    EXPECT_EQ(GuidText(Set(2)->Set), GuidText(&OrnixPropSetOxCustom));
    EXPECT_EQ(Ids(*Set(2)), (std::vector<ULONG>{31, 2, 7, 8, 16, 17, 20, 18, 19, 40, 37}));
    // 16 is set-only, 17 and 20 get-only; clients size custom data themselves.
    const KSPROPERTY_ITEM* custom = Set(2)->PropertyItem;
    EXPECT_TRUE(custom[2].GetSupported && custom[2].SetSupported);
    EXPECT_FALSE(custom[4].GetSupported || custom[5].SetSupported || custom[6].SetSupported);
    EXPECT_EQ(custom[2].MinProperty, sizeof(KSPROPERTY));
    EXPECT_EQ(custom[2].MinData, 0u);
    EXPECT_EQ(custom[2].Values, nullptr);
    // The sets every camera has come last.
    EXPECT_EQ(GuidText(Set(3)->Set), GuidText(&OrnixPropSetVideoControl));
    EXPECT_EQ(GuidText(Set(4)->Set), GuidText(&OrnixPropSetTevrinSgl));
    EXPECT_EQ(Ids(*Set(3)), (std::vector<ULONG>{0, 1, 2, 3}));
    EXPECT_EQ(Ids(*Set(4)), (std::vector<ULONG>{0, 1, 2}));
}

// Every record present: the filling pass must end where the counting pass measured.
TEST_F(PropertyTableTest, FullyEquippedCameraFillsExactlyTheCountedTable) {
    for (ULONG record = 0; record < ORNIX_PROPERTY_RECORD_COUNT; ++record) {
        PokeRecord(record, {kPresent | ORNIX_PROPERTY_AUTO_AVAILABLE, 3, 1, 5});
    }
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    SetStreams(2);
    SetInterruptPipe(true);
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->PropertySetCount, 5u);
    EXPECT_EQ(Ids(*Set(0)), (std::vector<ULONG>{0, 1, 2, 3, 4, 5, 9}));
    EXPECT_EQ(Ids(*Set(1)), (std::vector<ULONG>{0, 1, 2, 3, 4, 5}));
    std::vector<ULONG> custom = Ids(*Set(2));
    EXPECT_EQ(custom.size(), 56u);
    std::sort(custom.begin(), custom.end());
    EXPECT_EQ(std::adjacent_find(custom.begin(), custom.end()), custom.end());
    // Only 51 is never published; 0 to 56 otherwise all appear.
    EXPECT_EQ(std::find(custom.begin(), custom.end(), 51u), custom.end());
    EXPECT_NE(Ext()->ExposureRange, nullptr);  // the driver's own ASSERTs fail TearDown
}

// Failed reads leave cleared values, not buffer contents; failed allocations no table.
TEST_F(PropertyTableTest, FailedReadsBuildFromClearedValuesFailedAllocationsBuildNothing) {
    MakeBareCamera();
    PokeRecord(0, {kPresent, 32750, 0, 65500});  // brightness
    Camera().PokeRegister(ORNIX_SUPPORT0, 1);
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_TRUE(Logged("ORNIX: Failed to prop reg block"));
    ASSERT_EQ(Ext()->PropertySetCount, 3u);  // no standard controls, so no set of theirs
    EXPECT_EQ(Ext()->ExposureRange, nullptr);
    EXPECT_EQ(Ids(*Set(0)), (std::vector<ULONG>{7, 16, 17, 20, 18, 40, 32}));  // 32: look-up table
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 2});
    ASSERT_EQ(Build(), STATUS_SUCCESS);
    EXPECT_TRUE(Logged("ORNIX: Failed to read support0 register"));
    ASSERT_EQ(Ext()->PropertySetCount, 4u);  // brightness's set back
    EXPECT_EQ(Ids(*Set(1)), (std::vector<ULONG>{7, 16, 17, 20, 18, 40}));
    MakeBareCamera();
    for (size_t size :
         {3 * sizeof(KSPROPERTY_SET) + 6 * sizeof(KSPROPERTY_ITEM), sizeof(ORNIX_DEFERRED_BLOCK)}) {
        SCOPED_TRACE(size);
        winsim::FailAllocationsOfSize(size);
        EXPECT_EQ(Build(), STATUS_INSUFFICIENT_RESOURCES);
        winsim::ClearAllocationFailures();
        EXPECT_EQ(Ext()->PropertySets, nullptr);
        EXPECT_EQ(Ext()->PropertySetCount, 0u);
    }
}

// ---------------------------------------------------------------- unit conversions

// The table test above converts each control's usual values; these are the edges.
TEST(UnitConverterTest, LinearControlsTruncateTowardZeroExposureRoundsToAPowerOfTwo) {
    EXPECT_EQ(OrnixBrightnessToProperty(-1000), -152);  // -152.67
    EXPECT_EQ(OrnixBrightnessToRegister(5000), 32750);
    EXPECT_EQ(OrnixBrightnessToRegister(-1), -6);  // -6.55
    EXPECT_EQ(OrnixContrastToProperty(4095), 99);
    EXPECT_EQ(OrnixContrastToRegister(100), 4096);
    EXPECT_EQ(OrnixContrastToRegister(-3), -122);  // -122.88
    // Gain counts sixteenths above unity, in unsigned 32 bits: below unity it wraps
    // (a 64-bit offset would give 0xFFFFFF00 and 0xFFFFFFFF here).
    const std::pair<ULONG, ULONG> gain[] = {
        {0x100F, 0}, {0x1000, 0}, {0x0FFF, 268435455}, {0, 268435200}, {0xFFFFFFFF, 0x0FFFFEFF}};
    for (auto [reg, property] : gain) {
        EXPECT_EQ(OrnixGainToProperty(reg), property) << "register " << reg;
    }
    EXPECT_EQ(OrnixGainToRegister(0), 0x1000u);
    EXPECT_EQ(OrnixGainToRegister(3840), 0x10000u);
    EXPECT_EQ(OrnixGainToRegister(0x0FFFFFFF), 0x0FF0u);  // wraps
    // Exposure is log seconds, rounded to the nearest power and clamped; the step
    // from n to n + 1 lies near 1,333,333 x 2^n us. r + r / 2 is formed in 32 bits:
    // around 0xAAAAAAAB it wraps, and exactly there it wraps to 0, which reads as
    // the shortest exposure, like a register of 0.
    const std::pair<ULONG, LONG> toProperty[] = {
        {0, -21},          {1, -20},          {1333333, 0},     {1333334, 1},     {666666, -1},
        {666667, 0},       {0x7FFFFFFF, 11},  {0x80000000, 11}, {0xAAAAAAAA, 12}, {0xAAAAAAAB, -21},
        {0xAAAAAAAC, -19}, {0xAAAAAAB0, -17}, {0xAAB8BA29, 0},  {0xFFFFFFFF, 11}};
    for (auto [microseconds, property] : toProperty) {
        EXPECT_EQ(OrnixExposureToProperty(microseconds), property) << microseconds << " us";
    }
    const std::pair<LONG, ULONG> toRegister[] = {
        {0, 1000000u}, {1, 2000000u}, {12, 4096000000u},         {13, 4096000000u},
        {-19, 1u},     {-20, 0u},     {0x7FFFFFFF, 4096000000u}, {LONG(0x80000000), 0u}};
    for (auto [property, microseconds] : toRegister) {
        EXPECT_EQ(OrnixExposureToRegister(property), microseconds) << "property " << property;
    }
}

// Where a (group, id) has no record the answer is FALSE and the output untouched.
TEST(PropertyRecordMapTest, StandardAndCustomIdsMapAtTheEdgesOfEachRun) {
    constexpr ULONG kAmp = ORNIX_GROUP_VIDEOPROCAMP;
    constexpr ULONG kCam = ORNIX_GROUP_CAMERACONTROL;
    constexpr ULONG kOx = ORNIX_GROUP_OXCUSTOM;
    constexpr ULONG kNone = 0xDEADBEEF;
    const ULONG rows[][3] = {
        {kAmp, 0, 0},     {kAmp, 5, 5},     {kAmp, 6, kNone}, {kAmp, 9, 15},    {kAmp, 10, kNone},
        {kCam, 0, 6},     {kCam, 4, 10},    {kCam, 6, 12},    {kCam, 7, kNone}, {0, 0, kNone},
        {4, 0, kNone},    {kOx, 0, 13},     {kOx, 6, 19},     {kOx, 7, kNone},  {kOx, 8, kNone},
        {kOx, 9, 20},     {kOx, 15, 26},    {kOx, 16, kNone}, {kOx, 20, kNone}, {kOx, 21, 27},
        {kOx, 30, 36},    {kOx, 31, 10},    {kOx, 32, kNone}, {kOx, 33, 37},    {kOx, 36, 40},
        {kOx, 37, kNone}, {kOx, 38, kNone}, {kOx, 39, 41},    {kOx, 50, 52},    {kOx, 51, kNone},
        {kOx, 52, 53},    {kOx, 53, 12},    {kOx, 54, 54},    {kOx, 56, 56},    {kOx, 57, kNone},
    };
    for (const auto& [group, id, expected] : rows) {
        SCOPED_TRACE("group " + std::to_string(group) + " id " + std::to_string(id));
        ULONG record = kNone;
        EXPECT_EQ(OrnixPropertyRecordIndex(group, id, &record), expected != kNone);
        EXPECT_EQ(record, expected);
    }
}

}  // namespace
}  // namespace ornixtest
