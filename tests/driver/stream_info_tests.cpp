// SRB_GET_STREAM_INFO: the stream descriptor, its pins, topology and the
// property sets each pin offers.
#include <cstdint>
#include <string>
#include <vector>

#include "camera_capabilities.h"

namespace ornixtest {
namespace {

const std::string kCapturePin = "FB6C4281-0353-11D1-905F-0000C0CC16BA";
const std::string kStillPin = "FB6C428A-0353-11D1-905F-0000C0CC16BA";

class StreamInfoTest : public DriverTest {
  protected:
    // One bank offering colour ids 8 and 12: two formats.
    void BuildTwoFormats() {
        const auto bank = [](ULONG reg) { return USHORT(ORNIX_BANK_REGISTER(reg, 0)); };
        Camera().PokeRegister(ORNIX_FORMAT_COUNT, 1);
        Camera().PokeRegister(bank(ORNIX_FMT_MAX_SIZE), 1280 | 1024 << 16);
        Camera().PokeRegister(bank(ORNIX_FMT_UNIT_SIZE), 16 | 16 << 16);
        Camera().PokeRegister(bank(ORNIX_FMT_SIZE), 640 | 480 << 16);
        Camera().PokeRegister(bank(ORNIX_FMT_COLOR_ID), 12);
        Camera().PokeRegister(bank(ORNIX_FMT_COLOR_INQ), 12);
        Camera().PokeRegister(bank(ORNIX_FMT_FREQ_PARA), 30000 | 30000 << 16);
        ASSERT_EQ(OrnixBuildStreamsInfo(Ext()), STATUS_SUCCESS);
        ASSERT_EQ(Ext()->CaptureFormatCount, 2u);
    }

    // The descriptor as the stream class asks for it: header and `streams`
    // records, `slack` bytes more or less.
    SrbResult Query(ULONG streams, LONG slack = 0) {
        ULONG size =
            ULONG(sizeof(HW_STREAM_HEADER) + streams * sizeof(HW_STREAM_INFORMATION) + slack);
        buffer_.assign(size / 8 + 1, 0xA5A5A5A5A5A5A5A5ull);
        winsim::ClearDebugLog();
        return Class().SendAdapterSrb(SRB_GET_STREAM_INFO, buffer_.data(), size);
    }
    const HW_STREAM_HEADER& Header() const {
        return reinterpret_cast<const HW_STREAM_DESCRIPTOR*>(buffer_.data())->StreamHeader;
    }
    const HW_STREAM_INFORMATION& Stream(ULONG n) const {
        return (&reinterpret_cast<const HW_STREAM_DESCRIPTOR*>(buffer_.data())->StreamInfo)[n];
    }
    bool Untouched() const {
        for (uint64_t word : buffer_) {
            if (word != 0xA5A5A5A5A5A5A5A5ull) {
                return false;
            }
        }
        return true;
    }

  private:
    std::vector<uint64_t> buffer_;
};

TEST_F(StreamInfoTest, EachPinOffersTheCaptureFormatsUnderItsOwnName) {
    BuildTwoFormats();
    const std::string names[] = {kCapturePin, kStillPin};
    for (ULONG streams : {2u, 1u}) {
        SCOPED_TRACE(streams);
        Ext()->StreamCount = streams;

        ASSERT_EQ(Query(streams).status, STATUS_SUCCESS);

        EXPECT_EQ(Header().NumberOfStreams, streams);
        EXPECT_EQ(Header().SizeOfHwStreamInformation, sizeof(HW_STREAM_INFORMATION));
        for (ULONG n = 0; n < streams; ++n) {
            const HW_STREAM_INFORMATION& stream = Stream(n);
            EXPECT_EQ(stream.NumberOfPossibleInstances, 1u);
            EXPECT_EQ(stream.DataFlow, KSPIN_DATAFLOW_OUT);
            EXPECT_EQ(stream.DataAccessible, TRUE);
            EXPECT_EQ(stream.NumberOfFormatArrayEntries, 2u);
            EXPECT_EQ(stream.StreamFormatsArray, Ext()->CaptureFormats);
            EXPECT_EQ(GuidText(stream.Name), names[n]);
            EXPECT_EQ(GuidText(stream.Category), names[n]);
            EXPECT_EQ(stream.NumStreamPropArrayEntries, 2u);
            EXPECT_EQ(stream.StreamPropertiesArray, OrnixStreamPropertySets);
            EXPECT_EQ(stream.NumStreamEventArrayEntries, 0u);
            EXPECT_EQ(stream.MediumsCount, 0u);
            EXPECT_EQ(stream.BridgeStream, FALSE);
        }
    }
}

// Without any table (no usable banks left none) the records are still
// named, their formats empty.
TEST_F(StreamInfoTest, StreamsWithoutAFormatTableOfferNoFormats) {
    OrnixReleaseCameraTables(Ext());
    ASSERT_EQ(Ext()->CaptureStreamInfo, nullptr);
    Ext()->StreamCount = 2;

    ASSERT_EQ(Query(2).status, STATUS_SUCCESS);

    for (ULONG n = 0; n < 2; ++n) {
        EXPECT_EQ(Stream(n).NumberOfFormatArrayEntries, 0u);
        EXPECT_EQ(Stream(n).StreamFormatsArray, nullptr);
        EXPECT_EQ(Stream(n).NumStreamPropArrayEntries, 2u);
    }
    EXPECT_EQ(GuidText(Stream(0).Name), kCapturePin);
    EXPECT_EQ(GuidText(Stream(1).Name), kStillPin);
}

TEST_F(StreamInfoTest, HeaderCarriesTopologyTheDeviceTablesAndTheEventRoutineWithEvents) {
    BuildTwoFormats();
    Ext()->StreamCount = 1;

    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);

    EXPECT_EQ(Header().NumDevPropArrayEntries, Ext()->PropertySetCount);
    EXPECT_EQ(Header().DevicePropertiesArray, Ext()->PropertySets);
    ASSERT_NE(Ext()->EventSetCount, 0u);
    EXPECT_EQ(Header().NumDevEventArrayEntries, Ext()->EventSetCount);
    EXPECT_EQ(Header().DeviceEventsArray, Ext()->EventSets);
    EXPECT_EQ(Header().DeviceEventRoutine, &OrnixDeviceEventProc);
    const KSTOPOLOGY* topology = Header().Topology;
    ASSERT_NE(topology, nullptr);
    ASSERT_EQ(topology->CategoriesCount, 3u);
    EXPECT_EQ(GuidText(&topology->Categories[0]), "6994AD05-93EF-11D0-A3CC-00A0C9223196");
    EXPECT_EQ(GuidText(&topology->Categories[1]), kStillPin);
    EXPECT_EQ(GuidText(&topology->Categories[2]), "65E8773D-8F56-11D0-A3B9-00A0C9223196");
    EXPECT_EQ(topology->TopologyNodesCount, 0u);
    EXPECT_EQ(topology->TopologyConnectionsCount, 0u);
    EXPECT_EQ(topology->TopologyNodesNames, nullptr);

    const ULONG eventSets = Ext()->EventSetCount;
    Ext()->EventSetCount = 0;
    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);
    EXPECT_EQ(Header().DeviceEventRoutine, nullptr);
    Ext()->EventSetCount = eventSets;
}

TEST_F(StreamInfoTest, PinPropertySetsAreGetOnlyAllocatorFramingAndDroppedFrames) {
    const struct {
        const char* set;
        ULONG id;
        ULONG size;
    } expected[] = {
        {"1D58C920-AC9B-11CF-A5D6-28DB04C10000", 3, 24},  // KSPROPERTY_CONNECTION_ALLOCATORFRAMING
        {"C6E13344-30AC-11D0-A18C-00A0C9118956", 0, 48},  // KSPROPERTY_DROPPEDFRAMES_CURRENT
    };
    for (int n = 0; n < 2; ++n) {
        SCOPED_TRACE(n);
        const KSPROPERTY_SET& set = OrnixStreamPropertySets[n];
        EXPECT_EQ(GuidText(set.Set), expected[n].set);
        ASSERT_EQ(set.PropertiesCount, 1u);
        const KSPROPERTY_ITEM& item = set.PropertyItem[0];
        EXPECT_EQ(item.PropertyId, expected[n].id);
        EXPECT_TRUE(item.GetSupported);
        EXPECT_FALSE(item.SetSupported);
        EXPECT_EQ(item.MinProperty, expected[n].size);
        EXPECT_EQ(item.MinData, expected[n].size);
    }
}

TEST_F(StreamInfoTest, AdapterNotReadyOrBufferTooSmallWritesNothing) {
    BuildTwoFormats();
    Ext()->StreamCount = 2;

    Ext()->Uninitializing = TRUE;
    EXPECT_EQ(Query(2).status, STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(Untouched());
    EXPECT_TRUE(Logged("ORNIX:  ext NOT Initialized "));
    Ext()->Uninitializing = FALSE;

    Ext()->Initialized = FALSE;
    EXPECT_EQ(Query(2).status, STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(Untouched());
    Ext()->Initialized = TRUE;

    EXPECT_EQ(Query(2, -8).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(Untouched());
    std::vector<winsim::Violation> asserts = TakeViolations("ASSERT");
    ASSERT_EQ(asserts.size(), 1u);
    EXPECT_NE(asserts[0].message.find(
                  "Srb->NumberOfBytesToTransfer >= sizeof (HW_STREAM_HEADER) + "
                  "deviceExtension->StreamCount * sizeof (HW_STREAM_INFORMATION) at storminf"),
              std::string::npos)
        << asserts[0].message;
}

}  // namespace
}  // namespace ornixtest
