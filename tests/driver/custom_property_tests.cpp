// PROPSETID_VIDCAP_OXCUSTOM: requests that wait for the next format
// selection, answers of fixed size, the reset, the look-up table copy,
// event control, pixel correction, the record-backed ids, and set handlers
// given less data than they read.
#include <cstring>

#include "property_requests.h"
#include "stream_fixture.h"

namespace ornixtest {
namespace {

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM, kStill = ORNIX_STILL_STREAM;
constexpr uint32_t kEnable = 0x8000;
using Writes = std::vector<std::pair<uint16_t, uint32_t>>;

// {word 0, x, y} as the start-position and binning sets take them.
Bytes Pair(uint32_t word0, uint16_t x, uint16_t y) {
    return Words({word0, x | uint32_t{y} << 16});
}

class CustomPropertyTest : public StreamingTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }
    PropertyAnswer Get(ULONG id, ULONG size) { return Props().Get(OrnixPropSetOxCustom, id, size); }
    PropertyAnswer Set(ULONG id, const Bytes& data, bool guarded = true) {
        return Props().Set(OrnixPropSetOxCustom, id, data, {}, guarded);
    }
    Writes CameraWrites() { return RegisterWrites(VendorRequests()); }
};

// ---------------------------------------------------------------- next selection

TEST_F(CustomPropertyTest, StartPositionsApplyAtTheNextSelection) {
    const std::pair<int32_t, int32_t> half{640, 512};
    Negotiate(kCapture, 0, half);
    Negotiate(kStill, 0, half);
    Camera().ClearRequests();
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_STARTPOS, Pair(0xFFFFFFFF, 0x10, 0x20)).status,
              STATUS_SUCCESS);
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_STILLSTARTPOS, Pair(0, 0x30, 0x40)).status, STATUS_SUCCESS);
    EXPECT_TRUE(VendorRequests().empty());
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_STARTPOS, 8).data, Pair(0, 0, 0));
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_STILLSTARTPOS, 8).data, Pair(0, 0, 0));

    Negotiate(kCapture, 0, half);
    EXPECT_EQ(Camera().PeekRegister(ORNIX_FMT_POSITION), 0x00200010u);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_STARTPOS, 8).data, Pair(0, 0x10, 0x20));
    Negotiate(kStill, 0, half);
    EXPECT_EQ(Camera().PeekRegister(ORNIX_STILL_POSITION), 0x00400030u);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_STILLSTARTPOS, 8).data, Pair(0, 0x30, 0x40));
}

// A factor of 0 in the low byte is refused; the high byte travels with it.
TEST_F(CustomPropertyTest, BinningRequestsNeedANonZeroFactor) {
    for (ULONG id : {KSPROPERTY_OXCUSTOM_BINNING, KSPROPERTY_OXCUSTOM_STILLBINNING}) {
        SCOPED_TRACE(id);
        for (auto [x, y] : {std::pair<uint16_t, uint16_t>{0x0100, 1}, {1, 0x0200}, {0, 0}}) {
            PropertyAnswer refused = Set(id, Pair(0, x, y));
            EXPECT_EQ(refused.status, STATUS_INVALID_PARAMETER);
            EXPECT_EQ(refused.returned, 0u);
        }
        EXPECT_EQ(Set(id, Pair(0, 0x0102, 2)).status, STATUS_SUCCESS);
    }
    EXPECT_EQ(Ext()->RequestedBinX, 0x0102u);
    EXPECT_EQ(Ext()->RequestedBinY, 2u);
    EXPECT_EQ(Ext()->RequestedStillBinX, 0x0102u);
    EXPECT_EQ(Ext()->RequestedStillBinY, 2u);
    EXPECT_TRUE(VendorRequests().empty());

    // The get reports the binning in use and the camera's status word: the
    // format selected is unbinned, which the camera reads as 1 by 1.
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_BINNING, 8).data, Pair(0x00010001, 1, 1));
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    PropertyAnswer failed = Get(KSPROPERTY_OXCUSTOM_BINNING, 8);
    EXPECT_EQ(failed.status, STATUS_SUCCESS);
    EXPECT_EQ(failed.data, Pair(0, 1, 1));
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_STILLBINNING, 8).data, Pair(0, 1, 1));
}

// ---------------------------------------------------------------- fixed answers

TEST_F(CustomPropertyTest, FixedSizeAnswersFollowTheSizeRule) {
    const std::pair<ULONG, ULONG> answers[] = {
        {KSPROPERTY_OXCUSTOM_STARTPOS, 8},      {KSPROPERTY_OXCUSTOM_STILLSTARTPOS, 8},
        {KSPROPERTY_OXCUSTOM_VERSION, 16},      {KSPROPERTY_OXCUSTOM_BINNING, 8},
        {KSPROPERTY_OXCUSTOM_STILLBINNING, 8},  {KSPROPERTY_OXCUSTOM_BUSINFO, 8},
        {KSPROPERTY_OXCUSTOM_EVENT_CONTROL, 8}, {KSPROPERTY_OXCUSTOM_PIXELCORRECTION, 16},
    };
    for (auto [id, size] : answers) {
        SCOPED_TRACE(::testing::Message() << "id " << id);
        PropertyAnswer query = Get(id, 0);
        EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
        EXPECT_EQ(query.returned, size);
        EXPECT_TRUE(query.guardIntact);
        for (ULONG small : {1u, size - 1}) {
            PropertyAnswer refused = Get(id, small);
            EXPECT_EQ(refused.status, STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(refused.returned, 0u);
            EXPECT_EQ(refused.data, Bytes(small, 0));
            EXPECT_TRUE(refused.guardIntact);
        }
        EXPECT_TRUE(VendorRequests().empty()) << "refused before any register read";
        EXPECT_EQ(Get(id, size).returned, size);
        PropertyAnswer larger = Get(id, size + 8);
        EXPECT_EQ(larger.status, STATUS_SUCCESS);
        EXPECT_EQ(larger.returned, size);
        EXPECT_EQ(Bytes(larger.data.begin() + size, larger.data.end()), Bytes(8, 0));
        EXPECT_TRUE(larger.guardIntact);
        Camera().ClearRequests();
    }
}

TEST_F(CustomPropertyTest, VersionAndBusAnswers) {
    Ext()->CameraId = 0x1234;
    PropertyAnswer version = Get(KSPROPERTY_OXCUSTOM_VERSION, 16);
    EXPECT_EQ(version.status, STATUS_SUCCESS);
    EXPECT_EQ(version.data, Words({0x1234, 12345, 0x00010203, 0x05010171}));
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    PropertyAnswer failed = Get(KSPROPERTY_OXCUSTOM_VERSION, 16);
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_EQ(failed.returned, 16u) << "the register read fails the get, not its size";
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_BUSINFO, 8).data, Words({1, 2}));
    for (ULONG setOnly : {KSPROPERTY_OXCUSTOM_RESET, KSPROPERTY_OXCUSTOM_STILLWAIT}) {
        EXPECT_EQ(Get(setOnly, 8).status, STATUS_NOT_SUPPORTED);
    }
    for (ULONG getOnly : {KSPROPERTY_OXCUSTOM_VERSION, KSPROPERTY_OXCUSTOM_BUSINFO}) {
        EXPECT_EQ(Set(getOnly, Bytes(16, 0)).status, STATUS_NOT_SUPPORTED);
    }
}

// ---------------------------------------------------------------- reset

TEST_F(CustomPropertyTest, ResetIsRefusedWhileAStreamIsOpen) {
    Negotiate(kCapture);
    for (ULONG pin : {kCapture, kStill}) {
        std::unique_ptr<winsim::Pin> open = OpenPin(pin);
        ASSERT_TRUE(open);
        Camera().ClearRequests();
        PORNIX_FORMAT_RECORD format = Ext()->CaptureFormat;
        PropertyAnswer refused = Set(KSPROPERTY_OXCUSTOM_RESET, {});
        EXPECT_EQ(refused.status, STATUS_UNSUCCESSFUL);
        EXPECT_EQ(refused.returned, 0u);
        EXPECT_TRUE(VendorRequests().empty());
        EXPECT_EQ(Ext()->CaptureFormat, format);
        EXPECT_NE(Ext()->KFreqChart, nullptr);
    }

    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_STARTPOS, Pair(0, 8, 4)).status, STATUS_SUCCESS);
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_BINNING, Pair(0, 2, 2)).status, STATUS_SUCCESS);
    Camera().ClearRequests();
    PropertyAnswer reset = Set(KSPROPERTY_OXCUSTOM_RESET, Bytes(4, 0));
    EXPECT_EQ(reset.status, STATUS_SUCCESS);
    EXPECT_EQ(reset.returned, 4u);
    EXPECT_EQ(CameraWrites(), (Writes{{ORNIX_RESET, 0xFFFFFFFF}}));
    EXPECT_EQ(Ext()->CaptureFormat, nullptr);
    EXPECT_EQ(Ext()->StillFormat, nullptr);
    EXPECT_EQ(Ext()->KFreqChart, nullptr);
    EXPECT_EQ(Ext()->KFreqChartCount, 0);
    for (ULONG binning : {Ext()->BinningX, Ext()->BinningY, Ext()->StillBinningX,
                          Ext()->StillBinningY, Ext()->RequestedBinX, Ext()->RequestedBinY,
                          Ext()->RequestedStillBinX, Ext()->RequestedStillBinY}) {
        EXPECT_EQ(binning, 1u);
    }
    EXPECT_EQ(Ext()->RequestedStartX, 8);
    EXPECT_EQ(Ext()->RequestedStartY, 4);

    // The next selection programs the colour id afresh.
    Camera().ClearRequests();
    Negotiate(kCapture);
    Writes writes = CameraWrites();
    EXPECT_NE(std::find_if(writes.begin(), writes.end(),
                           [](const auto& w) { return w.first == ORNIX_FMT_COLOR_ID; }),
              writes.end());
}

// ---------------------------------------------------------------- look-up table

TEST_F(CustomPropertyTest, TheLookUpTableGoesToTheCameraAndAWholeCopyStays) {
    PropertyAnswer none = Get(KSPROPERTY_OXCUSTOM_LUT8, 16);
    EXPECT_EQ(none.status, STATUS_SUCCESS);
    EXPECT_EQ(none.returned, 0u);

    Bytes table(300);
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = static_cast<uint8_t>(i * 7 + 3);
    }
    PropertyAnswer sent = Set(KSPROPERTY_OXCUSTOM_LUT8, table, false);
    ASSERT_EQ(sent.status, STATUS_SUCCESS);
    EXPECT_EQ(sent.returned, 300u);
    std::optional<ornixcam::Message> message = Camera().LastMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->header, 0u);
    EXPECT_EQ(message->body, Bytes(table.begin(), table.begin() + 256));
    EXPECT_TRUE(Logged("ORNIX: Get of KSPROPERTY_OXCUSTOM_LUT8, length:0x0, nS:0x10"));

    PropertyAnswer query = Get(KSPROPERTY_OXCUSTOM_LUT8, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 300u);
    PropertyAnswer short_ = Get(KSPROPERTY_OXCUSTOM_LUT8, 299);
    EXPECT_EQ(short_.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(short_.returned, 0u);
    EXPECT_EQ(short_.data, Bytes(299, 0));
    PropertyAnswer whole = Get(KSPROPERTY_OXCUSTOM_LUT8, 300);
    EXPECT_EQ(whole.status, STATUS_SUCCESS);
    EXPECT_EQ(whole.data, table);
    PropertyAnswer larger = Get(KSPROPERTY_OXCUSTOM_LUT8, 310);
    EXPECT_EQ(larger.returned, 300u);
    EXPECT_TRUE(larger.guardIntact);

    // Another size replaces the copy; a table the camera refused leaves it.
    const Bytes small = {9, 8, 7};
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_LUT8, small).status, STATUS_SUCCESS);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_LUT8, 3).data, small);
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 2});
    PropertyAnswer failed = Set(KSPROPERTY_OXCUSTOM_LUT8, Bytes(3, 1));
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_EQ(failed.returned, 0u);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_LUT8, 3).data, small);
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_LUT8, {}).status, STATUS_SUCCESS);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_LUT8, 0).returned, 0u) << "an empty table keeps no copy";
}

// ---------------------------------------------------------------- event control

TEST_F(CustomPropertyTest, EventControlRunsTheInterruptTransferWhileAnyEventIsOn) {
    auto running = [this] { return InterlockedCompareExchange(&Ext()->InterruptPending, 0, 0); };
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({kEnable, 0x3})).status, STATUS_SUCCESS);
    EXPECT_EQ(running(), 1);
    EXPECT_EQ(SubmittedSinceStart(usbsim::RequestKind::BulkOrInterrupt), 1u);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, 8).data, Words({0, 0x3}));
    EXPECT_TRUE(TakenUnderRequestMutex(&Ext()->InterruptMutex));

    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({0, 0x1})).status, STATUS_SUCCESS);
    EXPECT_EQ(running(), 1) << "event 1 is still on";
    EXPECT_EQ(Ext()->EventsEnabled, 0x2u);
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({0, 0x2})).status, STATUS_SUCCESS);
    EXPECT_EQ(running(), 0);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    EXPECT_EQ(Ext()->EventsEnabled, 0u);
    EXPECT_EQ(SubmittedSinceStart(usbsim::RequestKind::AbortPipe), 1u);

    // An empty mask starts nothing but is still written.
    ASSERT_EQ(Set(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({kEnable, 0})).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->InterruptUrb, nullptr);
    EXPECT_EQ(CameraWrites(), (Writes{{ORNIX_EVENT_ENABLE, 3},
                                      {ORNIX_EVENT_DISABLE, 1},
                                      {ORNIX_EVENT_DISABLE, 2},
                                      {ORNIX_EVENT_ENABLE, 0}}));
}

// A refused register write leaves the mask; the transfer it started stays for
// the next request (or teardown) to stop.
TEST_F(CustomPropertyTest, ARefusedEventWriteLeavesTheMask) {
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    PropertyAnswer failed = Set(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, Words({kEnable, 0x4}));
    EXPECT_FALSE(NT_SUCCESS(failed.status));
    EXPECT_EQ(failed.returned, 0u);
    EXPECT_TRUE(Logged("ORNIX: Failed to set the event control"));
    EXPECT_EQ(Ext()->EventsEnabled, 0u);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_EVENT_CONTROL, 8).data, Words({0, 0}));
}

// ---------------------------------------------------------------- pixel correction

TEST_F(CustomPropertyTest, PixelCorrectionTellsTheCameraOnlyWhenItHasTheControl) {
    ASSERT_NE(Camera().PeekRegister(ORNIX_DEFECT_CORRECTION) & ORNIX_PROPERTY_PRESENT, 0u);
    PropertyAnswer off = Set(KSPROPERTY_OXCUSTOM_PIXELCORRECTION, Words({0, 5, 0xEEEEEEEE}));
    EXPECT_EQ(off.status, STATUS_SUCCESS);
    EXPECT_EQ(off.returned, 12u);
    EXPECT_FALSE(Ext()->PixelCorrectionEnabled);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_PIXELCORRECTION, 16).data, Words({0, 0, 0, 0}));
    std::vector<WireRequest> requests = VendorRequests();
    ASSERT_EQ(requests.size(), 2u);  // the control word read, then the record
    EXPECT_EQ(requests[1].wIndex, ORNIX_DEFECT_CORRECTION);
    EXPECT_EQ(requests[1].data, Words({0, 5}));

    Camera().PokeRegister(ORNIX_DEFECT_CORRECTION, 0x7FFFFFFF);  // no bit 31
    Camera().ClearRequests();
    PropertyAnswer on = Set(KSPROPERTY_OXCUSTOM_PIXELCORRECTION, Words({kEnable, 1}));
    EXPECT_EQ(on.status, STATUS_SUCCESS);
    EXPECT_TRUE(Ext()->PixelCorrectionEnabled);
    EXPECT_EQ(Get(KSPROPERTY_OXCUSTOM_PIXELCORRECTION, 16).data, Words({kEnable, 0, 0, 0}));
    EXPECT_TRUE(CameraWrites().empty());

    // The switch follows the request even when the camera cannot be asked.
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    EXPECT_FALSE(NT_SUCCESS(Set(KSPROPERTY_OXCUSTOM_PIXELCORRECTION, Words({0, 0})).status));
    EXPECT_FALSE(Ext()->PixelCorrectionEnabled);
}

// ---------------------------------------------------------------- record-backed ids

TEST_F(CustomPropertyTest, RecordIdsPassTheirRecordThrough) {
    const uint16_t record13 = ORNIX_PROPERTY_RECORD(13);
    for (int word = 0; word < 4; ++word) {
        Camera().PokeRegister(record13 + 4 * word, 0x11111111u * (word + 1));
    }
    PropertyAnswer control = Get(0, 4);
    EXPECT_EQ(control.returned, 4u);
    EXPECT_EQ(control.data, Words({0x11111111}));
    ASSERT_EQ(VendorRequests().size(), 1u);
    EXPECT_EQ(VendorRequests()[0].wLength, 4u) << "only the control word is read";
    PropertyAnswer whole = Get(0, 64);
    EXPECT_EQ(whole.returned, 16u);
    EXPECT_EQ(Bytes(whole.data.begin(), whole.data.begin() + 16),
              Words({0x11111111, 0x22222222, 0x33333333, 0x44444444}));
    EXPECT_TRUE(whole.guardIntact);

    // An empty buffer asks for the size: no zero-length read goes out.
    Camera().ClearRequests();
    PropertyAnswer query = Get(0, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 16u);
    EXPECT_TRUE(VendorRequests().empty());

    // Sets write control word and value; 2 and 53 reach gain and focus.
    ASSERT_EQ(Set(0, Words({0x4000, 7, 0xFFFFFFFF})).status, STATUS_SUCCESS);
    ASSERT_EQ(Set(2, Words({0, 9})).status, STATUS_SUCCESS);
    ASSERT_EQ(Set(53, Words({0, 10})).status, STATUS_SUCCESS);
    std::vector<WireRequest> requests = VendorRequests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].wIndex, record13);
    EXPECT_EQ(requests[0].data, Words({0x4000, 7}));
    EXPECT_EQ(requests[1].wIndex, ORNIX_PROPERTY_RECORD(15));
    EXPECT_EQ(requests[2].wIndex, ORNIX_PROPERTY_RECORD(12));

    // Ids without a record never reach the registers.
    Camera().ClearRequests();
    for (ULONG id : {51u, 57u, 0x80000000u}) {
        EXPECT_EQ(Get(id, 16).status, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(Set(id, Words({0, 0})).status, STATUS_NOT_SUPPORTED);
    }
    EXPECT_TRUE(VendorRequests().empty());
}

// Record 35 (id 29) shapes the frame rates: the chart goes, the frequency in use stays.
TEST_F(CustomPropertyTest, TheFrameRateRecordDropsTheChart) {
    Negotiate(kCapture);
    Camera().ClearRequests();
    ASSERT_NE(Ext()->KFreqChart, nullptr);
    const USHORT current = Ext()->FreqCur;
    ASSERT_EQ(Set(29, Words({0, 1})).status, STATUS_SUCCESS);
    EXPECT_EQ(Ext()->KFreqChart, nullptr);
    EXPECT_EQ(Ext()->FreqMin, 0u);
    EXPECT_EQ(Ext()->FreqMax, 0u);
    EXPECT_EQ(Ext()->FreqCur, current);
    EXPECT_EQ(CameraWrites(), (Writes{{ORNIX_PROPERTY_RECORD(35), 0}}));
}

// ---------------------------------------------------------------- short data

// Every set that reads words 0 and 1 refuses less than 8 bytes before it
// changes anything (the exact-size blocks let the sanitizers see a read past).
TEST_F(CustomPropertyTest, SetsGivenLessThanTheyReadChangeNothing) {
    Negotiate(kCapture);
    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_EQ(still->SetState(KSSTATE_ACQUIRE), STATUS_SUCCESS);
    ASSERT_EQ(still->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);
    ASSERT_EQ(still->SetState(KSSTATE_RUN), STATUS_SUCCESS);  // a still wait would block
    Camera().ClearRequests();
    struct Fields {
        LONG startX;
        ULONG binX, stillBinY, events;
        PUSHORT chart;
        BOOLEAN correction;
        bool operator==(const Fields&) const = default;
    };
    auto fields = [this] {
        return Fields{Ext()->RequestedStartX, Ext()->RequestedBinX, Ext()->RequestedStillBinY,
                      Ext()->EventsEnabled,   Ext()->KFreqChart,    Ext()->PixelCorrectionEnabled};
    };
    const Fields before = fields();
    for (ULONG id : {7u, 8u, 18u, 19u, 29u, 37u, 38u, 40u, 0u, 31u}) {
        for (size_t size : {0u, 4u, 7u}) {
            SCOPED_TRACE(::testing::Message() << "id " << id << ", " << size << " bytes");
            PropertyAnswer answer = Set(id, Bytes(size, 0xFF), false);
            EXPECT_EQ(answer.status, STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(answer.returned, 0u);
        }
    }
    EXPECT_TRUE(VendorRequests().empty());
    EXPECT_TRUE(fields() == before);
}

// ---------------------------------------------------------------- still wait

class StillWaitTest : public CustomPropertyTest {
  protected:
    void SetUp() override {
        CustomPropertyTest::SetUp();
        still_ = OpenPin(kStill);
        ASSERT_TRUE(still_);
    }
    void TearDown() override {
        still_.reset();
        CustomPropertyTest::TearDown();
    }
    void RunStill() {
        for (KSSTATE state : {KSSTATE_ACQUIRE, KSSTATE_PAUSE, KSSTATE_RUN}) {
            ASSERT_EQ(still_->SetState(state), STATUS_SUCCESS);
        }
    }
    PropertyAnswer Wait(int32_t timeoutUs) {
        return Set(KSPROPERTY_OXCUSTOM_STILLWAIT, Words({0, static_cast<uint32_t>(timeoutUs)}));
    }
    bool Wanted() {
        return InterlockedCompareExchange(&Stream(kStill)->DriverReadyWanted, 0, 0) != 0;
    }

    std::unique_ptr<winsim::Pin> still_;
};

TEST_F(StillWaitTest, NothingIsWaitedForUnlessTheStillStreamRunsWithoutARead) {
    PropertyAnswer stopped = Wait(-1);
    EXPECT_EQ(stopped.status, STATUS_SUCCESS);
    EXPECT_EQ(stopped.returned, 8u);
    RunStill();
    std::shared_ptr<winsim::PinRead> read = still_->SubmitRead();
    EXPECT_EQ(Wait(-1).status, STATUS_SUCCESS) << "a read is already held";
    EXPECT_FALSE(Wanted());
}

TEST_F(StillWaitTest, AnExpiredTimeOutEndsTheWait) {
    RunStill();
    PropertyAnswer expired = Wait(0);
    EXPECT_EQ(expired.status, STATUS_TIMEOUT);
    EXPECT_EQ(expired.returned, 0u);
    EXPECT_FALSE(Wanted());
}

// The wait holds the dispatcher; a read, which does not pass through it, ends it.
TEST_F(StillWaitTest, AReadFromAnotherThreadEndsAWaitWithoutTimeOut) {
    RunStill();
    for (int32_t timeoutUs : {-1, 1'000'000'000}) {
        SCOPED_TRACE(timeoutUs);
        PropertyAnswer answer;
        std::thread waiter([&] { answer = Wait(timeoutUs); });
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(kPatience);
        while (!Wanted() && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        EXPECT_TRUE(Wanted());
        std::shared_ptr<winsim::PinRead> read = still_->SubmitRead();
        waiter.join();
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(answer.returned, 8u);
        EXPECT_FALSE(Wanted());
        Camera().TriggerStill();  // gives the read back before the next round
        ASSERT_TRUE(read->Wait(kPatience));
    }
}

}  // namespace
}  // namespace ornixtest
