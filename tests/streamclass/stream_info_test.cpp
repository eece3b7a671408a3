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

const GUID kPropertySet = {2, 2, 2, {2}};
// MEDIATYPE_Video and FORMAT_VideoInfo: the pair that marks a video-info range.
const GUID kTypeVideo = {
    0x73646976, 0x0000, 0x0010, {0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71}};
const GUID kVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

// A video minidriver's tables: pins sharing a top-down grey-palette range and a plain
// one, and a ranged and a plain property item.
struct Tables {
    Tables() {
        for (KSDATARANGE* range : {&grey.DataRange, &plain.DataRange}) {
            range->MajorFormat = kTypeVideo;
            range->Specifier = kVideoInfo;
        }
        grey.DataRange.FormatSize = sizeof grey;
        grey.VideoInfo.bmiHeader.biHeight = -480;
        grey.VideoInfo.bmiHeader.biBitCount = 8;
        for (int n = 0; n < KS_iPALETTE_COLORS; ++n) {
            const auto v = static_cast<UCHAR>(n);
            grey.VideoInfo.bmiColors[n] = {v, v, v, 0};
        }
        plain.DataRange.FormatSize = sizeof plain;
        members[0] = {{KSPROPERTY_MEMBER_RANGES, sizeof stepping, 1, 0}, &stepping};
        // Count 4 over one value, as some minidrivers publish their default.
        members[1] = {{KSPROPERTY_MEMBER_VALUES, sizeof(LONG), 4, KSPROPERTY_MEMBER_FLAG_DEFAULT},
                      &defaultValue};
        values.MembersListCount = 2;
        values.MembersList = members;
        items[0].GetSupported = items[0].SetSupported = items[1].GetSupported = TRUE;
        items[0].Values = &values;
    }

    // A descriptor of `streams` pins (the buffer must hold them).
    void Fill(PHW_STREAM_HEADER header, ULONG streams) {
        header->NumberOfStreams = streams;
        header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
        header->NumDevPropArrayEntries = 1;
        header->DevicePropertiesArray = &propertySet;
        auto* info = reinterpret_cast<PHW_STREAM_INFORMATION>(header + 1);
        for (ULONG s = 0; s < streams; ++s) {
            info[s].NumberOfFormatArrayEntries = 2;
            info[s].StreamFormatsArray = formats;
        }
    }

    KS_DATARANGE_VIDEO_PALETTE grey{};
    KS_DATARANGE_VIDEO plain{};
    PKSDATAFORMAT formats[2] = {&grey.DataRange, &plain.DataRange};
    KSPROPERTY_STEPPING_LONG stepping{};
    LONG defaultValue = 5000;
    KSPROPERTY_MEMBERSLIST members[2]{};
    KSPROPERTY_VALUES values{};
    KSPROPERTY_ITEM items[2]{};
    KSPROPERTY_SET propertySet{&kPropertySet, 2, items, 0, nullptr};
};

PHW_STREAM_HEADER Header(PHW_STREAM_REQUEST_BLOCK srb) {
    return &srb->CommandData.StreamBuffer->StreamHeader;
}

PHW_STREAM_INFORMATION Stream(PHW_STREAM_REQUEST_BLOCK srb, ULONG n) {
    return reinterpret_cast<PHW_STREAM_INFORMATION>(Header(srb) + 1) + n;
}

class StreamInfoTest : public StreamClassTest {
  protected:
    // Announces `size`, then answers with `streams` pins, edited by `edit`; the `failing`
    // command comes back with STATUS_DEVICE_NOT_READY.
    void Script(ULONG size, ULONG streams, ULONG failing = ~0u,
                void (*edit)(PHW_STREAM_REQUEST_BLOCK) = nullptr) {
        commands_.clear();
        fake.onSrb = [=, this](PHW_STREAM_REQUEST_BLOCK srb) {
            commands_.push_back(srb->Command);
            if (srb->Command == SRB_INITIALIZE_DEVICE) {
                srb->CommandData.ConfigInfo->StreamDescriptorSize = size;
            } else if (srb->Command == SRB_GET_STREAM_INFO) {
                bytesOffered_ = srb->NumberOfBytesToTransfer;
                tables_.Fill(Header(srb), streams);
                if (edit) {
                    edit(srb);
                }
            }
            CompleteAdapterSrb(srb,
                               srb->Command == failing ? STATUS_DEVICE_NOT_READY : STATUS_SUCCESS);
        };
    }

    Tables tables_;
    std::vector<ULONG> commands_;
    ULONG bytesOffered_ = 0;
};

TEST_F(StreamInfoTest, StartAsksForTheAnnouncedSizeAndDecodesTheView) {
    Script(kTwoStreams, 2);
    winsim::StreamClass sc(FakeDriverEntry);
    sc.AddDevice(pdo_);
    ASSERT_EQ(sc.Start(), STATUS_SUCCESS);
    EXPECT_EQ(bytesOffered_, kTwoStreams);
    ASSERT_NE(sc.StreamHeader(), nullptr);

    const winsim::FilterView& view = sc.Filter();
    ASSERT_EQ(view.pins.size(), 2u);
    ASSERT_EQ(view.pins[1].ranges.size(), 2u);
    const winsim::VideoRangeView& grey = *view.pins[1].ranges[0].video;
    EXPECT_EQ(std::tuple(grey.bitsPerPixel, grey.height), std::tuple(8u, int64_t{480}));
    EXPECT_TRUE(grey.topDown && grey.hasPalette && grey.greyRampPalette);
    const winsim::VideoRangeView& plain = *view.pins[1].ranges[1].video;
    EXPECT_FALSE(plain.topDown || plain.hasPalette);

    const winsim::PropertySetView* set = view.FindPropertySet(kPropertySet);
    ASSERT_NE(set, nullptr);
    ASSERT_EQ(set->items.size(), 2u);
    EXPECT_TRUE(set->items[0].get && set->items[0].set) << "a TRUE flag means supported";
    ASSERT_TRUE(set->items[0].range.has_value());
    EXPECT_EQ(set->items[0].range->defaultValue, 5000);
    EXPECT_TRUE(set->items[1].get);
    EXPECT_FALSE(set->items[1].set);
    EXPECT_FALSE(set->items[1].range.has_value());

    // The raw descriptor dies with the minidriver's tables, the extension with the
    // adapter; the view stays.
    ASSERT_EQ(sc.Stop(), STATUS_SUCCESS);
    EXPECT_EQ(sc.StreamHeader(), nullptr);
    EXPECT_EQ(sc.DeviceExtension(), nullptr);
    EXPECT_EQ(sc.Filter().pins.size(), 2u);
    EXPECT_EQ(commands_,
              (std::vector<ULONG>{SRB_INITIALIZE_DEVICE, SRB_GET_STREAM_INFO,
                                  SRB_INITIALIZATION_COMPLETE, SRB_UNINITIALIZE_DEVICE}));
}

// A failed SRB_GET_STREAM_INFO fails the start and is followed by one teardown only.
TEST_F(StreamInfoTest, AFailedRequestFailsTheStart) {
    Script(kOneStream, 1, SRB_GET_STREAM_INFO);
    {
        winsim::StreamClass sc(FakeDriverEntry);
        sc.AddDevice(pdo_);
        EXPECT_EQ(sc.Start(), STATUS_DEVICE_NOT_READY);
        EXPECT_EQ(sc.StreamInfoStatus(), STATUS_DEVICE_NOT_READY);
    }
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
        {"StreamDescriptorSize", sizeof(HW_STREAM_HEADER) - 4, 0, nullptr},
        {"wrote past", kOneStream, 2, nullptr},  // announces one stream but writes two
        {"NumberOfStreams is 1", kTwoStreams, 1, nullptr, "holds 2"},
        {"SizeOfHwStreamInformation is 72", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Header(srb)->SizeOfHwStreamInformation = 72; }},
        {"stream 0 formats: 2 entries but no array", kOneStream, 1,
         [](PHW_STREAM_REQUEST_BLOCK srb) { Stream(srb, 0)->StreamFormatsArray = nullptr; }},
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
        Script(r.size, r.streams, ~0u, r.edit);
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
