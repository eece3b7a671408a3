// Starting the adapter: SRB_GET_STREAM_INFO sized by StreamDescriptorSize, the checks on
// the descriptor and the application's view decoded from it.
#include <gtest/gtest.h>

#include <ksmedia.h>

#include <tuple>

#include "stream_class_fixture.h"
#include "streamclass/stream_class.h"

namespace sctest {
namespace {

constexpr ULONG kOneStream = sizeof(HW_STREAM_HEADER) + sizeof(HW_STREAM_INFORMATION);
constexpr ULONG kTwoStreams = kOneStream + sizeof(HW_STREAM_INFORMATION);

const GUID kSubtype = {1, 1, 1, {1}};
const GUID kPropertySet = {2, 2, 2, {2}};
const GUID kEventSet = {3, 3, 3, {3}};
const GUID kCapturePin = {4, 4, 4, {4}};
const GUID kStillPin = {5, 5, 5, {5}};
// MEDIATYPE_Video and FORMAT_VideoInfo: the pair that marks a video-info range.
const GUID kTypeVideo = {
    0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const GUID kVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

NTSTATUS STREAMAPI EventRoutine(PHW_EVENT_DESCRIPTOR) {
    return STATUS_SUCCESS;
}

void FillRange(KS_DATARANGE_VIDEO& r, ULONG formatSize, USHORT bits, ULONG fourCC) {
    r.DataRange.FormatSize = formatSize;
    r.DataRange.SampleSize = 640 * 480 * bits / 8;
    r.DataRange.MajorFormat = kTypeVideo;
    r.DataRange.SubFormat = kSubtype;
    r.DataRange.Specifier = kVideoInfo;
    r.bFixedSizeSamples = TRUE;
    r.ConfigCaps.MinOutputSize = {16, 8};
    r.ConfigCaps.MaxOutputSize = {1280, 1024};
    r.ConfigCaps.OutputGranularityX = 16;
    r.ConfigCaps.MinFrameInterval = 266240;
    r.ConfigCaps.MaxFrameInterval = 1066240;
    r.ConfigCaps.MaxBitsPerSecond = 49152000;
    r.VideoInfoHeader.AvgTimePerFrame = 532480;
    r.VideoInfoHeader.bmiHeader.biWidth = 640;
    r.VideoInfoHeader.bmiHeader.biHeight = -480;
    r.VideoInfoHeader.bmiHeader.biBitCount = bits;
    r.VideoInfoHeader.bmiHeader.biCompression = fourCC;
}

// A video minidriver's tables: pins sharing a grey-palette range and a plain one, a ranged
// and a plain property item, an event set and a topology.
struct Tables {
    Tables() {
        FillRange(reinterpret_cast<KS_DATARANGE_VIDEO&>(grey), sizeof grey, 8, 0x42474752);
        for (int n = 0; n < KS_iPALETTE_COLORS; ++n) {
            const auto v = static_cast<UCHAR>(n);
            grey.VideoInfo.bmiColors[n] = {v, v, v, 0};
        }
        FillRange(wide, sizeof wide, 16, 0);
        stepping.SteppingDelta = 1;
        stepping.Bounds.SignedMinimum = -10;
        stepping.Bounds.SignedMaximum = 10000;
        members[0] = {{KSPROPERTY_MEMBER_RANGES, sizeof stepping, 1, 0}, &stepping};
        // Count 4 over one value, as some minidrivers publish their default.
        members[1] = {{KSPROPERTY_MEMBER_VALUES, sizeof(LONG), 4, KSPROPERTY_MEMBER_FLAG_DEFAULT},
                      &defaultValue};
        values.PropTypeSet.Id = VT_I4;
        values.MembersListCount = 2;
        values.MembersList = members;
        items[0].GetSupported = TRUE;
        items[0].SetSupported = TRUE;
        items[0].MinProperty = 40;
        items[0].Values = &values;
        items[1].PropertyId = 7;
        items[1].GetSupported = TRUE;
        items[1].MinProperty = 24;
        eventItems[1].EventId = 2;
        topology.CategoriesCount = 2;
        topology.Categories = categories;
    }

    // A descriptor of `streams` pins (the buffer must hold them).
    void Fill(PHW_STREAM_HEADER header, ULONG streams) {
        header->NumberOfStreams = streams;
        header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
        header->NumDevPropArrayEntries = 1;
        header->DevicePropertiesArray = &propertySet;
        header->NumDevEventArrayEntries = 1;
        header->DeviceEventsArray = &eventSet;
        header->Topology = &topology;
        header->DeviceEventRoutine = EventRoutine;
        auto* info = reinterpret_cast<PHW_STREAM_INFORMATION>(header + 1);
        for (ULONG s = 0; s < streams; ++s) {
            info[s].NumberOfPossibleInstances = 1;
            info[s].DataFlow = KSPIN_DATAFLOW_OUT;
            info[s].DataAccessible = TRUE;
            info[s].NumberOfFormatArrayEntries = 2;
            info[s].StreamFormatsArray = formats;
            info[s].Name = info[s].Category = const_cast<GUID*>(s == 0 ? &kCapturePin : &kStillPin);
        }
    }

    KS_DATARANGE_VIDEO_PALETTE grey{};
    KS_DATARANGE_VIDEO wide{};
    PKSDATAFORMAT formats[2] = {reinterpret_cast<PKSDATAFORMAT>(&grey),
                                reinterpret_cast<PKSDATAFORMAT>(&wide)};
    KSPROPERTY_STEPPING_LONG stepping{};
    LONG defaultValue = 5000;
    KSPROPERTY_MEMBERSLIST members[2]{};
    KSPROPERTY_VALUES values{};
    KSPROPERTY_ITEM items[2]{};
    KSPROPERTY_SET propertySet{&kPropertySet, 2, items, 0, nullptr};
    KSEVENT_ITEM eventItems[2]{};
    KSEVENT_SET eventSet{&kEventSet, 2, eventItems};
    GUID categories[2] = {kCapturePin, kStillPin};  // any two
    KSTOPOLOGY topology{};
};

PHW_STREAM_HEADER Header(PHW_STREAM_REQUEST_BLOCK srb) {
    return &srb->CommandData.StreamBuffer->StreamHeader;
}

PHW_STREAM_INFORMATION Stream(PHW_STREAM_REQUEST_BLOCK srb, ULONG n) {
    return reinterpret_cast<PHW_STREAM_INFORMATION>(Header(srb) + 1) + n;
}

class StreamInfoTest : public StreamClassTest {
  protected:
    // Announces `size`, then answers with `streams` pins, edited by `edit`, and infoStatus_.
    void Script(ULONG size, ULONG streams, void (*edit)(PHW_STREAM_REQUEST_BLOCK) = nullptr) {
        commands_.clear();
        Fake().onSrb = [=, this](PHW_STREAM_REQUEST_BLOCK srb) {
            commands_.push_back(srb->Command);
            EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
            NTSTATUS status = STATUS_SUCCESS;
            if (srb->Command == SRB_INITIALIZE_DEVICE) {
                config_ = *srb->CommandData.ConfigInfo;
                srb->CommandData.ConfigInfo->StreamDescriptorSize = size;
            } else if (srb->Command == SRB_GET_STREAM_INFO) {
                bytesOffered_ = srb->NumberOfBytesToTransfer;
                tables_.Fill(Header(srb), streams);
                if (edit) {
                    edit(srb);
                }
                status = infoStatus_;
            }
            CompleteAdapterSrb(srb, status);
        };
    }

    Tables tables_;
    std::vector<ULONG> commands_;
    PORT_CONFIGURATION_INFORMATION config_{};
    ULONG bytesOffered_ = 0;
    NTSTATUS infoStatus_ = STATUS_SUCCESS;
};

TEST_F(StreamInfoTest, StartAsksForTheAnnouncedSizeAndDecodesTheView) {
    Script(kTwoStreams, 2);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_, nullptr);
    ASSERT_EQ(sc.Start(), STATUS_SUCCESS);
    EXPECT_EQ(config_.SizeOfThisPacket, sizeof(PORT_CONFIGURATION_INFORMATION));
    EXPECT_EQ(std::tuple(config_.PhysicalDeviceObject, config_.RealPhysicalDeviceObject,
                         config_.ClassDeviceObject, config_.HwDeviceExtension),
              std::tuple(pdo_, nullptr, sc.ClassDeviceObject(), sc.DeviceExtension()));
    EXPECT_TRUE(sc.ClassDeviceObject()->Flags & DO_DEVICE_INITIALIZING);
    EXPECT_EQ(sc.StreamDescriptorSize(), kTwoStreams);
    EXPECT_EQ(bytesOffered_, kTwoStreams);
    ASSERT_NE(sc.StreamHeader(), nullptr);
    EXPECT_EQ(sc.StreamDescriptor().size(), kTwoStreams);

    const winsim::FilterView& view = sc.Filter();
    ASSERT_EQ(view.pins.size(), 2u);
    EXPECT_TRUE(winsim::SameGuid(*view.pins[0].name, kCapturePin));
    EXPECT_TRUE(winsim::SameGuid(*view.pins[1].category, kStillPin));
    EXPECT_EQ(view.pins[1].dataFlow, KSPIN_DATAFLOW_OUT);
    ASSERT_EQ(view.pins[1].ranges.size(), 2u);

    const winsim::VideoRangeView& grey = *view.pins[0].ranges[0].video;
    EXPECT_TRUE(winsim::SameGuid(grey.subFormat, kSubtype));
    EXPECT_EQ(std::tuple(grey.fourCC, grey.bitsPerPixel, grey.sampleSize),
              std::tuple(0x42474752u, 8u, 640u * 480u));
    EXPECT_EQ(std::tuple(grey.width, grey.height, grey.minWidth, grey.maxHeight, grey.stepX),
              std::tuple(640, 480, 16, 1024, 16));
    EXPECT_EQ(std::tuple(grey.minFrameInterval, grey.maxFrameInterval, grey.avgTimePerFrame,
                         grey.maxBitsPerSecond),
              std::tuple(266240, 1066240, 532480, 49152000));
    EXPECT_TRUE(grey.topDown && grey.fixedSizeSamples && grey.hasPalette && grey.greyRampPalette);
    const winsim::VideoRangeView& wide = *view.pins[0].ranges[1].video;
    EXPECT_EQ(wide.bitsPerPixel, 16u);
    EXPECT_FALSE(wide.hasPalette);

    const winsim::PropertySetView* set = view.FindPropertySet(kPropertySet);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->items.size(), 2u);
    const winsim::PropertyItemView& ranged = set->items[0];
    EXPECT_TRUE(ranged.get && ranged.set);
    EXPECT_EQ(ranged.minProperty, 40u);
    ASSERT_TRUE(ranged.range.has_value());
    EXPECT_EQ(std::tuple(ranged.range->minimum, ranged.range->maximum, ranged.range->step),
              std::tuple(-10, 10000, 1u));
    EXPECT_EQ(ranged.range->defaultValue, 5000);
    const winsim::PropertyItemView& plain = set->items[1];
    EXPECT_EQ(plain.id, 7u);
    EXPECT_TRUE(plain.get);
    EXPECT_FALSE(plain.set);
    EXPECT_FALSE(plain.range.has_value());

    const winsim::EventSetView* events = view.FindEventSet(kEventSet);
    ASSERT_NE(events, nullptr);
    EXPECT_EQ(events->eventIds, (std::vector<uint32_t>{0, 2}));
    EXPECT_TRUE(view.hasDeviceEventRoutine);
    EXPECT_EQ(view.topologyCategories.size(), 2u);

    // The raw descriptor dies with the minidriver's tables; the view stays.
    ASSERT_EQ(sc.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(sc.StreamHeader(), nullptr);
    EXPECT_EQ(sc.Filter().pins.size(), 2u);
    EXPECT_EQ(commands_,
              (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                  SRB_INITIALIZATION_COMPLETE, SRB_UNINITIALIZE_DEVICE}));
}

TEST_F(StreamInfoTest, AFailedRequestFailsTheStart) {
    Script(kOneStream, 1);
    infoStatus_ = STATUS_DEVICE_NOT_READY;
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    EXPECT_EQ(sc.Start(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(sc.StreamInfoStatus(), STATUS_DEVICE_NOT_READY);
    EXPECT_EQ(commands_, (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                             SRB_UNINITIALIZE_DEVICE}));
}

// A descriptor the class cannot use fails the start with one finding and a teardown.
TEST_F(StreamInfoTest, RefusesAnUnusableDescriptor) {
    struct Refusal {
        const char* gist;
        ULONG size;
        ULONG streams;
        void (*edit)(PHW_STREAM_REQUEST_BLOCK);
        const char* moreGist = "";
    };
    static PKSDATAFORMAT holey[2];
    static KSPROPERTY_SET itemless;
    const Refusal refusals[] = {
        {"StreamDescriptorSize", sizeof(HW_STREAM_HEADER), 0, nullptr},
        {"wrote past", kOneStream, 2, nullptr},  // announces one stream but writes two
        {"NumberOfStreams is 1", kTwoStreams, 1, nullptr, "holds 2"},
        {"SizeOfHwStreamInformation is 72", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->SizeOfHwStreamInformation = 72; }},
        {"device property sets: 1 entries but no array", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->DevicePropertiesArray = nullptr; }},
        {"device event sets: 1 entries", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->DeviceEventsArray = nullptr; }},
        {"stream 0 formats: 2 entries", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Stream(srb, 0)->StreamFormatsArray = nullptr; }},
        {"stream 0 property sets: 3 entries", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Stream(srb, 0)->NumStreamPropArrayEntries = 3; }},
        {"format 1 is a null pointer", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             holey[0] = Stream(srb, 0)->StreamFormatsArray[0];
             Stream(srb, 0)->StreamFormatsArray = holey;
         }},
        {"device property set 0 items: 9 entries", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             itemless = Header(srb)->DevicePropertiesArray[0];
             itemless.PropertiesCount = 9;
             itemless.PropertyItem = nullptr;
             Header(srb)->DevicePropertiesArray = &itemless;
         }},
    };
    for (const Refusal& r : refusals) {
        SCOPED_TRACE(r.gist);
        Script(r.size, r.streams, r.edit);
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        EXPECT_FALSE(NT_SUCCESS(sc.Start()));
        ExpectViolation("STREAM_INFO", {r.gist, r.moreGist});
        // A size too small for one stream is refused before asking.
        std::vector<ULONG> expected{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                    SRB_UNINITIALIZE_DEVICE};
        if (r.streams == 0)
            expected.erase(expected.begin() + 1);
        EXPECT_EQ(commands_, expected);
        EXPECT_TRUE(sc.Filter().pins.empty());
        EXPECT_EQ(sc.StreamHeader(), nullptr);
    }
}

}  // namespace
}  // namespace sctest
