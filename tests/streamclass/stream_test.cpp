// Streams: open and close through the adapter with a class-owned stream
// extension, the refusals the class makes itself, the tracking of stream SRB
// completions, master clock queries and stream properties with a guard
// behind the application's buffer.
#include <gtest/gtest.h>

#include <optional>

#include "fake_streaming_minidriver.h"
#include "streamclass/master_clock.h"

namespace sctest {
namespace {

TEST_F(StreamingTest, OpensAStreamOnAZeroedExtensionWithItsFormatAndClosesIt) {
    const std::vector<uint8_t> format = TestFormat();
    PHW_STREAM_OBJECT stream = sc_->OpenStream(1, format);
    ASSERT_NE(stream, nullptr);
    EXPECT_EQ(state_.openedObject.SizeOfThisPacket, sizeof(HW_STREAM_OBJECT));
    EXPECT_EQ(state_.openedObject.StreamNumber, 1u);
    EXPECT_EQ(state_.openedObject.HwDeviceExtension, sc_->DeviceExtension());
    EXPECT_TRUE(state_.extensionZeroed);
    EXPECT_EQ(state_.openFormat, format);
    EXPECT_EQ(sc_->OpenStreamCount(1), 1u);

    // Control SRBs reach the routine installed at open, at PASSIVE_LEVEL.
    const winsim::StreamSrbResult get = sc_->SendStreamControl(stream, SRB_GET_STREAM_STATE);
    EXPECT_TRUE(get.completed);
    EXPECT_EQ(get.srb.CommandData.StreamState, KSSTATE_STOP);
    EXPECT_EQ(state_.controlIrqls, std::vector<ULONG>{PASSIVE_LEVEL});

    EXPECT_EQ(sc_->CloseStream(stream), STATUS_SUCCESS);
    EXPECT_EQ(state_.closed, std::vector<PHW_STREAM_OBJECT>{stream});
    EXPECT_EQ(sc_->OpenStreamCount(1), 0u);
    // Closed, the number can be opened again.
    PHW_STREAM_OBJECT again = sc_->OpenStream(1, format);
    ASSERT_NE(again, nullptr);
    sc_->CloseStream(again);
}

TEST_F(StreamingTest, RefusesUnpublishedStreamsExtraInstancesAndWhatTheDriverRefuses) {
    const std::vector<uint8_t> format = TestFormat();
    PHW_STREAM_OBJECT first = sc_->OpenStream(0, format);
    ASSERT_NE(first, nullptr);
    struct Case {
        const char* name;
        ULONG number;
        NTSTATUS driverAnswer;
        NTSTATUS expected;
        bool reachesDriver;
        std::optional<std::vector<uint8_t>> ownFormat;  // else the test's format
    };
    const Case cases[] = {
        {"number not below NumberOfStreams",
         2,
         STATUS_SUCCESS,
         STATUS_INVALID_PARAMETER,
         false,
         {}},
        {"second instance", 0, STATUS_SUCCESS, STATUS_INVALID_DEVICE_REQUEST, false, {}},
        {"driver refuses", 1, STATUS_DEVICE_NOT_READY, STATUS_DEVICE_NOT_READY, true, {}},
        {"no format", 1, STATUS_SUCCESS, STATUS_INVALID_PARAMETER, false, std::vector<uint8_t>{}},
        {"format shorter than KSDATAFORMAT", 1, STATUS_SUCCESS, STATUS_INVALID_PARAMETER, false,
         std::vector<uint8_t>(format.begin(), format.begin() + sizeof(KSDATAFORMAT) - 1)},
        {"FormatSize past the bytes passed", 1, STATUS_SUCCESS, STATUS_INVALID_PARAMETER, false,
         std::vector<uint8_t>(format.begin(), format.end() - 1)},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        state_.openStatus = c.driverAnswer;
        const uint64_t sent = sc_->SrbsSent();
        NTSTATUS status = STATUS_SUCCESS;
        EXPECT_EQ(sc_->OpenStream(c.number, c.ownFormat.value_or(format), &status), nullptr);
        EXPECT_EQ(status, c.expected);
        EXPECT_EQ(sc_->SrbsSent() - sent, c.reachesDriver ? 1u : 0u);
    }
    // A refused open holds no instance.
    state_.openStatus = STATUS_SUCCESS;
    PHW_STREAM_OBJECT still = sc_->OpenStream(1, format);
    EXPECT_NE(still, nullptr);
    sc_->CloseStream(still);
    sc_->CloseStream(first);
}

TEST_F(StreamingTest, ReportsStreamSrbsCompletedTwiceOnTheWrongStreamOrNever) {
    const std::vector<uint8_t> format = TestFormat();
    PHW_STREAM_OBJECT capture = sc_->OpenStream(0, format);
    PHW_STREAM_OBJECT still = sc_->OpenStream(1, format);
    ASSERT_TRUE(capture && still);
    struct Case {
        const char* check;
        const char* gist;
        std::function<void(PHW_STREAM_REQUEST_BLOCK)> complete;
    };
    const Case cases[] = {
        {"SRB_COMPLETED_TWICE", "SRB_READ_DATA completed a second time",
         [](PHW_STREAM_REQUEST_BLOCK srb) {
             CompleteRead(srb, STATUS_SUCCESS, 0);
             CompleteRead(srb, STATUS_SUCCESS, 0);
         }},
        {"SRB_WRONG_STREAM", "SRB_READ_DATA completed on stream object",
         [still](PHW_STREAM_REQUEST_BLOCK srb) {
             OnCompletionThread([&] { CompleteStreamSrb(srb, STATUS_SUCCESS, still); });
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.check);
        PHW_STREAM_REQUEST_BLOCK read = sc_->CreateDataSrb(capture, SRB_READ_DATA, nullptr);
        // The capture pin's header is followed by its frame information.
        struct {
            KSSTREAM_HEADER header;
            KS_FRAME_INFO info;
        } headers{};
        uint8_t buffer[16];
        headers.header.Data = buffer;
        read->CommandData.DataBufferArray = &headers.header;
        sc_->SendDataSrb(read);
        c.complete(TakeRead(0));
        ExpectViolation(c.check, {c.gist});
    }
    // The lost one is reported when the class gives up waiting.
    EXPECT_FALSE(sc_->SendStreamControl(capture, SRB_PROPOSE_DATA_FORMAT).completed);
    ExpectViolation("SRB_NEVER_COMPLETED", {"SRB_PROPOSE_DATA_FORMAT"});
    sc_->CloseStream(still);
    sc_->CloseStream(capture);
}

TEST_F(StreamingTest, MasterClockGivesThePinsStreamTimeAndReportsUnknownHandles) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    const HANDLE clock = state_.clock[0];
    ASSERT_NE(clock, nullptr);
    auto query = [](HANDLE handle) {
        HW_TIME_CONTEXT context{};
        context.Function = TIME_GET_STREAM_TIME;
        OnCompletionThread([&] { StreamClassQueryMasterClockSync(handle, &context); });
        return context;
    };
    EXPECT_EQ(query(clock).Time, 0u);  // not run yet

    const int64_t beforeRun = winsim::Now100ns();
    ASSERT_EQ(pin->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(pin->SetState(KSSTATE_RUN), STATUS_SUCCESS);
    const HW_TIME_CONTEXT running = query(clock);
    const int64_t after = winsim::Now100ns();
    EXPECT_LE(static_cast<int64_t>(running.Time), after - beforeRun);
    EXPECT_GE(static_cast<int64_t>(running.SystemTime), beforeRun);
    EXPECT_LE(static_cast<int64_t>(running.SystemTime), after);

    pin->SetClockSource([] { return int64_t{123456789}; });
    EXPECT_EQ(query(clock).Time, 123456789u);
    EXPECT_EQ(pin->StreamTime(), 123456789);

    ASSERT_EQ(pin->IndicateMasterClock(false), STATUS_SUCCESS);
    EXPECT_EQ(state_.clock[0], nullptr);

    HW_TIME_CONTEXT stale = query(reinterpret_cast<HANDLE>(0x1234));
    EXPECT_EQ(stale.Time, 0u);
    ExpectViolation("MASTER_CLOCK", {"unknown handle"});
}

TEST_F(StreamingTest, StreamPropertiesAskTheSetByIndexAndCatchWritesPastTheBuffer) {
    auto pin = winsim::Pin::Open(*sc_, Options(0));
    ASSERT_NE(pin, nullptr);
    std::vector<uint8_t> output(sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S));
    ULONG returned = 0;
    EXPECT_EQ(pin->GetProperty(kDroppedFramesSet, 0, output, &returned), STATUS_SUCCESS);
    EXPECT_EQ(returned, 48u);
    EXPECT_EQ(output, std::vector<uint8_t>(48, 0x5A));
    EXPECT_EQ(state_.propertyAsked.PropertySetID, 1u);  // its place among the stream's sets
    EXPECT_EQ(state_.propertyAsked.PropertyOutputSize, 48u);
    EXPECT_TRUE(winsim::SameGuid(state_.propertyHeader.Set, kDroppedFramesSet));
    EXPECT_EQ(state_.propertyHeader.Flags, static_cast<ULONG>(KSPROPERTY_TYPE_GET));

    std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> dropped = pin->DroppedFrames();
    ASSERT_TRUE(dropped.has_value());
    EXPECT_EQ(dropped->AverageFrameSize, 0x5A5A5A5Au);

    state_.propertyWrites = 60;
    EXPECT_EQ(pin->GetProperty(kDroppedFramesSet, 0, output), STATUS_BUFFER_OVERFLOW);
    ExpectViolation("STREAM_PROPERTY", {"wrote past the 48-byte data buffer"});

    const GUID unpublished = {9, 9, 9, {9}};
    const uint64_t sent = sc_->SrbsSent();
    EXPECT_EQ(pin->GetProperty(unpublished, 0, output), STATUS_PROPSET_NOT_FOUND);
    EXPECT_EQ(sc_->SrbsSent(), sent);
}

}  // namespace
}  // namespace sctest
