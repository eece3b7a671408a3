// SRB_GET_STREAM_INFO as the class sends it during start, the checks it
// applies to the descriptor and the application's view decoded from it.
#include <gtest/gtest.h>

#include <functional>

#include "fake_descriptor.h"
#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

constexpr ULONG kOneStream = sizeof(HW_STREAM_HEADER) + sizeof(HW_STREAM_INFORMATION);
constexpr ULONG kTwoStreams = kOneStream + sizeof(HW_STREAM_INFORMATION);

PHW_STREAM_HEADER Header(PHW_STREAM_REQUEST_BLOCK srb) {
    return &srb->CommandData.StreamBuffer->StreamHeader;
}

PHW_STREAM_INFORMATION Stream(PHW_STREAM_REQUEST_BLOCK srb, ULONG n) {
    return reinterpret_cast<PHW_STREAM_INFORMATION>(Header(srb) + 1) + n;
}

class StreamInfoTest : public StreamClassTest {
  protected:
    // The minidriver announces `size`, then answers the stream-info request
    // with the fake descriptor of `streams` pins, edited by `edit`.
    void Script(ULONG size, ULONG streams,
                std::function<void(PHW_STREAM_REQUEST_BLOCK)> edit = nullptr) {
        Fake().onSrb = [=, this](PHW_STREAM_REQUEST_BLOCK srb) {
            commands_.push_back(srb->Command);
            if (srb->Command == SRB_INITIALIZE_DEVICE) {
                srb->CommandData.ConfigInfo->StreamDescriptorSize = size;
            } else if (srb->Command == SRB_GET_STREAM_INFO) {
                bytesOffered_ = srb->NumberOfBytesToTransfer;
                FillDescriptor(&srb->CommandData.StreamBuffer->StreamHeader, streams, tables_);
                if (edit) {
                    edit(srb);
                }
            }
            CompleteAdapterSrb(srb, status_);
        };
    }
    // Starting fails on the descriptor, and the class tears the adapter down.
    void ExpectRefused(winsim::StreamClass& sc, std::initializer_list<std::string_view> gists) {
        EXPECT_FALSE(NT_SUCCESS(sc.Start()));
        ExpectViolation("STREAM_INFO", gists);
        EXPECT_EQ(commands_, (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                                 SRB_UNINITIALIZE_DEVICE}));
        EXPECT_TRUE(sc.Filter().pins.empty());
        EXPECT_EQ(sc.StreamHeader(), nullptr);
    }

    FakeDescriptorTables tables_;
    std::vector<ULONG> commands_;
    ULONG bytesOffered_ = 0;
    NTSTATUS status_ = STATUS_SUCCESS;
};

TEST_F(StreamInfoTest, AsksForExactlyTheAnnouncedSizeAndDecodesThePins) {
    Script(kTwoStreams, 2);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ASSERT_EQ(sc.Start(), STATUS_SUCCESS);
    EXPECT_EQ(bytesOffered_, kTwoStreams);
    ASSERT_NE(sc.StreamHeader(), nullptr);
    EXPECT_EQ(sc.StreamDescriptor().size(), kTwoStreams);

    const winsim::FilterView& view = sc.Filter();
    ASSERT_EQ(view.pins.size(), 2u);
    EXPECT_TRUE(winsim::SameGuid(*view.pins[0].name, kFakeCapturePin));
    EXPECT_TRUE(winsim::SameGuid(*view.pins[1].category, kFakeStillPin));
    EXPECT_EQ(view.pins[1].dataFlow, KSPIN_DATAFLOW_OUT);
    ASSERT_EQ(view.pins[1].ranges.size(), 2u);

    const winsim::VideoRangeView& grey = *view.pins[0].ranges[0].video;
    EXPECT_TRUE(winsim::SameGuid(grey.subFormat, kFakeSubtype));
    EXPECT_EQ(grey.fourCC, 0x42474752u);
    EXPECT_EQ(grey.bitsPerPixel, 8u);
    EXPECT_EQ(grey.width, 640);
    EXPECT_EQ(grey.height, 480);
    EXPECT_TRUE(grey.topDown);
    EXPECT_EQ(grey.minWidth, 16);
    EXPECT_EQ(grey.maxHeight, 1024);
    EXPECT_EQ(grey.stepX, 16);
    EXPECT_EQ(grey.minFrameInterval, 266240);
    EXPECT_EQ(grey.maxFrameInterval, 1066240);
    EXPECT_EQ(grey.avgTimePerFrame, 532480);
    EXPECT_EQ(grey.maxBitsPerSecond, 49152000);
    EXPECT_EQ(grey.sampleSize, 640u * 480u);
    EXPECT_TRUE(grey.fixedSizeSamples);
    EXPECT_TRUE(grey.hasPalette);
    EXPECT_TRUE(grey.greyRampPalette);
    const winsim::VideoRangeView& wide = *view.pins[0].ranges[1].video;
    EXPECT_EQ(wide.bitsPerPixel, 16u);
    EXPECT_FALSE(wide.hasPalette);

    // The raw descriptor dies with the minidriver's tables; the view stays.
    ASSERT_EQ(sc.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(sc.StreamHeader(), nullptr);
    EXPECT_EQ(sc.Filter().pins.size(), 2u);
}

TEST_F(StreamInfoTest, DecodesPropertyRangesEventsAndTopology) {
    Script(kOneStream, 1);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ASSERT_EQ(sc.Start(), STATUS_SUCCESS);
    const winsim::FilterView& view = sc.Filter();

    const winsim::PropertySetView* set = view.FindPropertySet(kFakePropertySet);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->items.size(), 2u);
    const winsim::PropertyItemView& ranged = set->items[0];
    EXPECT_TRUE(ranged.get && ranged.set);
    EXPECT_EQ(ranged.minProperty, 40u);
    ASSERT_TRUE(ranged.range.has_value());
    EXPECT_EQ(ranged.range->minimum, -10);
    EXPECT_EQ(ranged.range->maximum, 10000);
    EXPECT_EQ(ranged.range->step, 1u);
    EXPECT_EQ(ranged.range->defaultValue, 5000);
    const winsim::PropertyItemView& plain = set->items[1];
    EXPECT_EQ(plain.id, 7u);
    EXPECT_TRUE(plain.get);
    EXPECT_FALSE(plain.set);
    EXPECT_FALSE(plain.range.has_value());

    const winsim::EventSetView* events = view.FindEventSet(kFakeEventSet);
    ASSERT_NE(events, nullptr);
    EXPECT_EQ(events->eventIds, (std::vector<uint32_t>{0, 2}));
    EXPECT_TRUE(view.hasDeviceEventRoutine);
    EXPECT_EQ(view.topologyCategories.size(), 2u);
}

TEST_F(StreamInfoTest, AFailedRequestFailsTheStart) {
    Script(kOneStream, 1);
    status_ = STATUS_DEVICE_NOT_READY;
    Fake().onSrb = [inner = Fake().onSrb, this](PHW_STREAM_REQUEST_BLOCK srb) {
        // Only the stream-info request fails.
        status_ = srb->Command == SRB_GET_STREAM_INFO ? STATUS_DEVICE_NOT_READY : STATUS_SUCCESS;
        inner(srb);
    };
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    EXPECT_EQ(sc.Start(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(sc.StreamInfoStatus(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(commands_, (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                             SRB_UNINITIALIZE_DEVICE}));
}

TEST_F(StreamInfoTest, RefusesAnAnnouncedSizeTooSmallForOneStream) {
    Script(sizeof(HW_STREAM_HEADER), 0);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    EXPECT_FALSE(NT_SUCCESS(sc.Start()));
    ExpectViolation("STREAM_INFO", {"StreamDescriptorSize"});
}

TEST_F(StreamInfoTest, RefusesAMinidriverWritingPastTheBuffer) {
    // Announces one stream but writes two.
    Script(kOneStream, 2);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ExpectRefused(sc, {"wrote past"});
}

TEST_F(StreamInfoTest, RefusesAStreamCountThatDisagreesWithTheSize) {
    Script(kTwoStreams, 1);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ExpectRefused(sc, {"NumberOfStreams is 1", "holds 2"});
}

TEST_F(StreamInfoTest, RefusesAnotherStreamRecordSize) {
    Script(kOneStream, 1,
           [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->SizeOfHwStreamInformation = 72; });
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ExpectRefused(sc, {"SizeOfHwStreamInformation is 72"});
}

// Each counted array that the minidriver leaves null is one finding.
struct MissingArray {
    const char* gist;
    void (*edit)(PHW_STREAM_REQUEST_BLOCK);
};

class MissingArrayTest : public StreamInfoTest,
                         public ::testing::WithParamInterface<MissingArray> {};

TEST_P(MissingArrayTest, IsReported) {
    Script(kOneStream, 1, GetParam().edit);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ExpectRefused(sc, {GetParam().gist});
}

INSTANTIATE_TEST_SUITE_P(
    StreamInfo, MissingArrayTest,
    ::testing::Values(
        MissingArray{
            "device property sets: 1 entries but no array",
            [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->DevicePropertiesArray = nullptr; }},
        MissingArray{
            "device event sets: 1 entries",
            [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->DeviceEventsArray = nullptr; }},
        MissingArray{
            "stream 0 formats: 2 entries",
            [](PHW_STREAM_REQUEST_BLOCK srb) { Stream(srb, 0)->StreamFormatsArray = nullptr; }},
        MissingArray{
            "stream 0 property sets: 3 entries",
            [](PHW_STREAM_REQUEST_BLOCK srb) { Stream(srb, 0)->NumStreamPropArrayEntries = 3; }},
        MissingArray{"format 1 is a null pointer",
                     [](PHW_STREAM_REQUEST_BLOCK srb) {
                         static PKSDATAFORMAT holey[2];
                         holey[0] = Stream(srb, 0)->StreamFormatsArray[0];
                         Stream(srb, 0)->StreamFormatsArray = holey;
                     }},
        MissingArray{"device property set 0 items: 9 entries", [](PHW_STREAM_REQUEST_BLOCK srb) {
                         static KSPROPERTY_SET set;
                         set = Header(srb)->DevicePropertiesArray[0];
                         set.PropertiesCount = 9;
                         set.PropertyItem = nullptr;
                         Header(srb)->DevicePropertiesArray = &set;
                     }}));

}  // namespace
}  // namespace sctest
