// SRB_GET_STREAM_INFO: the stream descriptor, its pins, topology and the
// property sets each pin offers.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

std::string GuidText(const GUID* guid) {
    if (guid == nullptr) {
        return "none";
    }
    char text[40];
    std::snprintf(text, sizeof(text), "%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X",
                  guid->Data1, guid->Data2, guid->Data3, guid->Data4[0], guid->Data4[1],
                  guid->Data4[2], guid->Data4[3], guid->Data4[4], guid->Data4[5], guid->Data4[6],
                  guid->Data4[7]);
    return text;
}

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

TEST_F(StreamInfoTest, BothPinsOfferTheCaptureFormatsUnderTheirOwnNames) {
    BuildTwoFormats();
    Ext()->StreamCount = 2;

    SrbResult result = Query(2);

    ASSERT_EQ(result.status, STATUS_SUCCESS);
    EXPECT_EQ(Header().NumberOfStreams, 2u);
    EXPECT_EQ(Header().SizeOfHwStreamInformation, sizeof(HW_STREAM_INFORMATION));
    const std::string names[] = {kCapturePin, kStillPin};
    for (ULONG n = 0; n < 2; ++n) {
        SCOPED_TRACE(n);
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

TEST_F(StreamInfoTest, OnePipeCameraReportsOnlyTheCapturePin) {
    BuildTwoFormats();
    Ext()->StreamCount = 1;

    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);

    EXPECT_EQ(Header().NumberOfStreams, 1u);
    EXPECT_EQ(GuidText(Stream(0).Name), kCapturePin);
    EXPECT_EQ(Stream(0).NumberOfFormatArrayEntries, 2u);
}

TEST_F(StreamInfoTest, StreamsWithoutUsableBanksOfferNoFormats) {
    Camera().PokeRegister(ORNIX_FORMAT_COUNT, 0);
    ASSERT_EQ(OrnixBuildStreamsInfo(Ext()), STATUS_SUCCESS);
    Ext()->StreamCount = 2;

    ASSERT_EQ(Query(2).status, STATUS_SUCCESS);
    EXPECT_EQ(Stream(0).NumberOfFormatArrayEntries, 0u);
    EXPECT_EQ(Stream(1).NumberOfFormatArrayEntries, 0u);
    EXPECT_EQ(GuidText(Stream(1).Name), kStillPin);

    // Without any table the records are still named, their formats empty.
    OrnixReleaseCameraTables(Ext());
    Ext()->CaptureStreamInfo = nullptr;
    Ext()->CaptureFormats = nullptr;
    Ext()->CaptureFormatCount = 0;
    ASSERT_EQ(Query(2).status, STATUS_SUCCESS);
    EXPECT_EQ(Stream(0).NumberOfFormatArrayEntries, 0u);
    EXPECT_EQ(Stream(0).StreamFormatsArray, nullptr);
    EXPECT_EQ(GuidText(Stream(0).Name), kCapturePin);
    EXPECT_EQ(Stream(0).NumStreamPropArrayEntries, 2u);
    EXPECT_EQ(GuidText(Stream(1).Name), kStillPin);
}

TEST_F(StreamInfoTest, HeaderCarriesTopologyAndTheDeviceTables) {
    BuildTwoFormats();
    Ext()->StreamCount = 1;

    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);

    EXPECT_EQ(Header().NumDevPropArrayEntries, Ext()->PropertySetCount);
    EXPECT_EQ(Header().DevicePropertiesArray, Ext()->PropertySets);
    EXPECT_EQ(Header().NumDevEventArrayEntries, Ext()->EventSetCount);
    EXPECT_EQ(Header().DeviceEventsArray, Ext()->EventSets);
    const KSTOPOLOGY* topology = Header().Topology;
    ASSERT_NE(topology, nullptr);
    ASSERT_EQ(topology->CategoriesCount, 3u);
    EXPECT_EQ(GuidText(&topology->Categories[0]), "6994AD05-93EF-11D0-A3CC-00A0C9223196");
    EXPECT_EQ(GuidText(&topology->Categories[1]), kStillPin);
    EXPECT_EQ(GuidText(&topology->Categories[2]), "65E8773D-8F56-11D0-A3B9-00A0C9223196");
    EXPECT_EQ(topology->TopologyNodesCount, 0u);
    EXPECT_EQ(topology->TopologyConnectionsCount, 0u);
    EXPECT_EQ(topology->TopologyNodesNames, nullptr);
}

TEST_F(StreamInfoTest, EventRoutineOnlyWithDeviceEventSets) {
    BuildTwoFormats();
    Ext()->StreamCount = 1;
    const ULONG eventSets = Ext()->EventSetCount;

    Ext()->EventSetCount = 0;
    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);
    EXPECT_EQ(Header().DeviceEventRoutine, nullptr);

    Ext()->EventSetCount = 1;
    ASSERT_EQ(Query(1).status, STATUS_SUCCESS);
    EXPECT_EQ(Header().DeviceEventRoutine, &OrnixDeviceEventProc);
    Ext()->EventSetCount = eventSets;
}

TEST_F(StreamInfoTest, PinPropertySetsAreGetOnlyAllocatorFramingAndDroppedFrames) {
    const KSPROPERTY_SET& connection = OrnixStreamPropertySets[0];
    EXPECT_EQ(GuidText(connection.Set), "1D58C920-AC9B-11CF-A5D6-28DB04C10000");
    ASSERT_EQ(connection.PropertiesCount, 1u);
    EXPECT_EQ(connection.PropertyItem[0].PropertyId, 3u);  // KSPROPERTY_CONNECTION_ALLOCATORFRAMING
    EXPECT_TRUE(connection.PropertyItem[0].GetSupported);
    EXPECT_FALSE(connection.PropertyItem[0].SetSupported);
    EXPECT_EQ(connection.PropertyItem[0].MinProperty, 24u);
    EXPECT_EQ(connection.PropertyItem[0].MinData, 24u);

    const KSPROPERTY_SET& dropped = OrnixStreamPropertySets[1];
    EXPECT_EQ(GuidText(dropped.Set), "C6E13344-30AC-11D0-A18C-00A0C9118956");
    ASSERT_EQ(dropped.PropertiesCount, 1u);
    EXPECT_EQ(dropped.PropertyItem[0].PropertyId, 0u);  // KSPROPERTY_DROPPEDFRAMES_CURRENT
    EXPECT_TRUE(dropped.PropertyItem[0].GetSupported);
    EXPECT_FALSE(dropped.PropertyItem[0].SetSupported);
    EXPECT_EQ(dropped.PropertyItem[0].MinProperty, 48u);
    EXPECT_EQ(dropped.PropertyItem[0].MinData, 48u);
}

TEST_F(StreamInfoTest, AdapterNotReadyAnswersDeviceNotReadyAndWritesNothing) {
    BuildTwoFormats();
    Ext()->StreamCount = 1;

    Ext()->Uninitializing = TRUE;
    EXPECT_EQ(Query(1).status, STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(Untouched());
    EXPECT_TRUE(Logged("ORNIX:  ext NOT Initialized "));
    Ext()->Uninitializing = FALSE;

    Ext()->Initialized = FALSE;
    EXPECT_EQ(Query(1).status, STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(Untouched());
    Ext()->Initialized = TRUE;
}

TEST_F(StreamInfoTest, BufferTooSmallForTheStreamsIsAssertedAndNotOverrun) {
    BuildTwoFormats();
    Ext()->StreamCount = 2;

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

TEST_F(StreamInfoTest, StreamClassStartSeesTheDiscoveredFormats) {
    // The start in SetUp asked for the descriptor of the camera as it came.
    EXPECT_EQ(Class().StreamInfoStatus(), STATUS_SUCCESS);
    ASSERT_NE(Class().StreamHeader(), nullptr);
    EXPECT_EQ(Class().StreamHeader()->NumberOfStreams, Ext()->StreamCount);
    EXPECT_EQ(Class().StreamHeader()->SizeOfHwStreamInformation, sizeof(HW_STREAM_INFORMATION));
}

}  // namespace
}  // namespace ornixtest
