// PROPSETID_ORNIX_TEVRINSGL: the pass-through request, product-data sections
// and their reload (also while frames are being corrected), and per-stream
// statistics.
#include <atomic>
#include <thread>

#include "property_requests.h"
#include "stream_fixture.h"

namespace ornixtest {
namespace {

constexpr ULONG kCapture = ORNIX_CAPTURE_STREAM, kStill = ORNIX_STILL_STREAM;
constexpr uint8_t kSgl = 0x13;

// Section 4 of the default camera's product data.
const Bytes kSection4 = {0x4F, 0x52, 0x4E, 0x58, 0x01, 0x00, 0x00, 0x00,
                         0x00, 0x05, 0x00, 0x04, 0x10, 0x00, 0x20, 0x00};

// TevrinSglRawRequest after the header: wIndex, wValue, wLength, 2 unused bytes.
Bytes RawRequest(uint16_t index, uint16_t value, uint16_t length) {
    return Words({index | uint32_t{value} << 16, length});
}

class TevrinPropertyTest : public StreamingTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }
    PropertyAnswer Get(ULONG id, ULONG size, const Bytes& extra) {
        return Props().Get(OrnixPropSetTevrinSgl, id, size, extra);
    }
    PropertyAnswer Set(ULONG id, const Bytes& data, const Bytes& extra) {
        return Props().Set(OrnixPropSetTevrinSgl, id, data, extra);
    }
    PropertyAnswer Section(uint8_t id, ULONG size) {
        return Get(KSPROPERTY_TEVRINSGL_VPD, size, Words({id, 0}));
    }
    PropertyAnswer Reload(uint8_t parameter = 0) {
        return Set(KSPROPERTY_TEVRINSGL_VPD, {}, Words({parameter, 0}));
    }
    PropertyAnswer Stats(uint32_t stream, ULONG size = 32) {
        Bytes extra = Words({stream});
        extra.resize(ORNIX_TEVRINSGL_STATS_SIZE - sizeof(KSPROPERTY));
        return Get(KSPROPERTY_TEVRINSGL_STATS, size, extra);
    }
    PropertyAnswer Correction(bool on) {
        return Props().Set(OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_PIXELCORRECTION,
                           Words({on ? 0x8000u : 0u, on ? 1u : 0u}));
    }
    size_t SglRequests() {
        std::vector<WireRequest> requests = VendorRequests();
        return std::count_if(requests.begin(), requests.end(),
                             [](const WireRequest& r) { return r.bRequest == kSgl; });
    }
};

// ---------------------------------------------------------------- pass-through

TEST_F(TevrinPropertyTest, RawGetIsOneReadRequest) {
    // Index 12 asks for the product data's mapping type (1 on this camera).
    PropertyAnswer query = Get(KSPROPERTY_TEVRINSGL_RAW, 0, RawRequest(12, 0, 4));
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 4u);
    PropertyAnswer short_ = Get(KSPROPERTY_TEVRINSGL_RAW, 3, RawRequest(12, 0, 4));
    EXPECT_EQ(short_.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(short_.returned, 0u);
    EXPECT_TRUE(VendorRequests().empty());

    PropertyAnswer read = Get(KSPROPERTY_TEVRINSGL_RAW, 8, RawRequest(12, 0x0102, 4));
    EXPECT_EQ(read.status, STATUS_SUCCESS);
    EXPECT_EQ(read.returned, 4u);
    EXPECT_EQ(read.data, Words({1, 0}));
    EXPECT_TRUE(read.guardIntact);
    ASSERT_EQ(VendorRequests(),
              (std::vector<WireRequest>{{0xC0, kSgl, 0x0102, 12, 4, Words({1})}}));

    // The request fields sit past the header: a record without them is refused.
    Bytes cut = RawRequest(12, 0, 4);
    cut.resize(7);
    winsim::ClearDebugLog();
    EXPECT_EQ(Get(KSPROPERTY_TEVRINSGL_RAW, 8, cut).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(Logged("ORNIX: some buffer too small"));
}

TEST_F(TevrinPropertyTest, RawSetIsOneWriteRequest) {
    // The EEPROM at 0xA2 takes a two-byte address, high byte first.
    const uint16_t pointer = (0xA2 >> 1) | 2 << 8;
    PropertyAnswer refused = Set(KSPROPERTY_TEVRINSGL_RAW, {0x12}, RawRequest(0, pointer, 2));
    EXPECT_EQ(refused.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(VendorRequests().empty());
    PropertyAnswer written =
        Set(KSPROPERTY_TEVRINSGL_RAW, {0x12, 0x34, 0x56}, RawRequest(0, pointer, 2));
    EXPECT_EQ(written.status, STATUS_SUCCESS);
    EXPECT_EQ(written.returned, 3u);
    EXPECT_EQ(Camera().EepromPointer(0xA2), 0x1234);
    EXPECT_EQ(VendorRequests(),
              (std::vector<WireRequest>{{0x40, kSgl, pointer, 0, 2, {0x12, 0x34}}}));
    Bytes cut = RawRequest(0, pointer, 2);
    cut.resize(7);
    EXPECT_EQ(Set(KSPROPERTY_TEVRINSGL_RAW, {1, 2}, cut).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Set(KSPROPERTY_TEVRINSGL_STATS, Bytes(32, 0), Bytes(32, 0)).status,
              STATUS_NOT_SUPPORTED);
    EXPECT_EQ(Get(3, 32, Bytes(8, 0)).status, STATUS_NOT_SUPPORTED);
}

// ---------------------------------------------------------------- product data

TEST_F(TevrinPropertyTest, SectionsComeFromTheImageReadAtStart) {
    PropertyAnswer whole = Section(4, 24);
    EXPECT_EQ(whole.status, STATUS_SUCCESS);
    EXPECT_EQ(whole.returned, 16u);
    EXPECT_EQ(Bytes(whole.data.begin(), whole.data.begin() + 16), kSection4);
    EXPECT_EQ(Bytes(whole.data.begin() + 16, whole.data.end()), Bytes(8, 0));
    EXPECT_TRUE(whole.guardIntact);
    EXPECT_TRUE(Logged("ORNIX: reading VPD section 4"));

    PropertyAnswer query = Section(4, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 16u);
    PropertyAnswer short_ = Section(4, 15);
    EXPECT_EQ(short_.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(short_.returned, 0u);
    EXPECT_EQ(short_.data, Bytes(15, 0));
    PropertyAnswer missing = Section(9, 16);
    EXPECT_EQ(missing.status, STATUS_NOT_FOUND);
    EXPECT_EQ(missing.returned, 0u);
    EXPECT_TRUE(VendorRequests().empty()) << "sections come from memory";
}

TEST_F(TevrinPropertyTest, AReloadReadsTheEepromAgain) {
    // Where section 4's payload lies on the EEPROM.
    uint16_t at = 0x3000;
    while (Camera().PeekEeprom(0xA2, at) != kSection4[0] ||
           Camera().PeekEeprom(0xA2, at + 1) != kSection4[1]) {
        ASSERT_LT(++at, 0x3700);
    }
    const Bytes changed = {0xAA, 0xBB};
    Camera().PokeEeprom(0xA2, at, changed);
    EXPECT_EQ(Section(4, 16).data, kSection4) << "still the image read at start";

    winsim::ClearDebugLog();
    PropertyAnswer invalid = Reload(1);
    EXPECT_EQ(invalid.status, STATUS_INVALID_PARAMETER);
    EXPECT_TRUE(Logged("ORNIX: invalid parameter"));
    Bytes shortRecord = Words({0});
    PropertyAnswer cut = Set(KSPROPERTY_TEVRINSGL_VPD, {}, shortRecord);
    EXPECT_EQ(cut.status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(VendorRequests().empty());

    PropertyAnswer reloaded = Reload();
    EXPECT_EQ(reloaded.status, STATUS_SUCCESS);
    EXPECT_EQ(reloaded.returned, 0u);
    EXPECT_TRUE(Logged("ORNIX: invalidating the VPD"));
    EXPECT_GT(SglRequests(), 0u);
    Bytes expected = kSection4;
    std::copy(changed.begin(), changed.end(), expected.begin());
    EXPECT_EQ(Section(4, 16).data, expected);
    EXPECT_NE(Ext()->DefectSection, nullptr);
}

// The defect list in use by a running, corrected stream is not replaced;
// with the correction off it is.
TEST_F(TevrinPropertyTest, TheListInUseIsNotReloaded) {
    ASSERT_NE(Ext()->DefectSection, nullptr);
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    Camera().ClearRequests();
    winsim::ClearDebugLog();
    const PUCHAR image = Ext()->VpdImage;
    EXPECT_EQ(Reload().status, STATUS_SUCCESS);
    EXPECT_TRUE(VendorRequests().empty());
    EXPECT_EQ(Ext()->VpdImage, image);
    EXPECT_FALSE(Logged("ORNIX: invalidating the VPD"));

    ASSERT_EQ(Correction(false).status, STATUS_SUCCESS);
    EXPECT_EQ(Reload().status, STATUS_SUCCESS);
    EXPECT_GT(SglRequests(), 0u);
    EXPECT_TRUE(Logged("ORNIX: invalidating the VPD"));
}

// Frames are corrected on the bus's threads while the list is reloaded
// through the property, again and again (correction is switched off for
// each reload, so that it really happens): no correction may walk a freed
// list (the sanitizer builds watch).
TEST_F(TevrinPropertyTest, ReloadsWhileFramesAreCorrectedTouchNoFreedList) {
    const ULONG defectBytes = Ext()->DefectSectionLength;
    ASSERT_GT(defectBytes, 0u);
    std::unique_ptr<winsim::Pin> pin = OpenPin(kCapture);
    ASSERT_EQ(pin->Run(), STATUS_SUCCESS);
    std::atomic<bool> done{false};
    std::atomic<int> frames{0};
    std::thread consumer([&] {
        while (!done.load()) {
            std::optional<winsim::PinFrame> frame = pin->NextFrame(kPatience);
            if (!frame) {
                break;
            }
            frames.fetch_add(1);
        }
    });
    constexpr int kReloads = 20;
    int reloaded = 0;
    for (int i = 0; i < kReloads; ++i) {
        const int seen = frames.load();
        ASSERT_EQ(Correction(false).status, STATUS_SUCCESS);
        reloaded += Reload().status == STATUS_SUCCESS;
        ASSERT_EQ(Correction(true).status, STATUS_SUCCESS);
        // Frames go on between reloads.
        const auto deadline =
            std::chrono::steady_clock::now() + std::chrono::duration<double>(kPatience);
        while (frames.load() < seen + 2 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
    }
    done.store(true);
    consumer.join();
    EXPECT_EQ(reloaded, kReloads);
    EXPECT_GE(frames.load(), 2 * kReloads);
    EXPECT_EQ(Ext()->DefectSectionLength, defectBytes);
    EXPECT_EQ(pin->Stop(), STATUS_SUCCESS);
}

// ---------------------------------------------------------------- statistics

TEST_F(TevrinPropertyTest, StatisticsBelongToEachStream) {
    EXPECT_EQ(Stats(kCapture).data, Words({0, 0, 0, 0, 0, 0, 0, 0})) << "not open";
    EXPECT_EQ(Stats(kStill).data, Words({1, 0, 0, 0, 0, 0, 0, 0}));

    std::unique_ptr<winsim::Pin> capture = OpenPin(kCapture);
    std::unique_ptr<winsim::Pin> still = OpenPin(kStill);
    ASSERT_EQ(capture->Run(), STATUS_SUCCESS);
    TakeFrames(*capture, kCapture, 5);
    ASSERT_EQ(capture->SetState(KSSTATE_PAUSE), STATUS_SUCCESS);  // the counters hold still
    const ORNIX_STREAM_STATISTICS counted = Statistics(kCapture);
    PropertyAnswer stats = Stats(kCapture);
    EXPECT_EQ(stats.status, STATUS_SUCCESS);
    EXPECT_EQ(stats.returned, 32u);
    EXPECT_GE(WordAt(stats.data, 4), 5u);
    EXPECT_EQ(stats.data,
              Words({0, static_cast<uint32_t>(counted.ActualFramesCaptured),
                     static_cast<uint32_t>(counted.DropCount), counted.ActualFramesDropped,
                     counted.UsbShortErrors, counted.UsbXactErrors, counted.UsbBabbleErrors,
                     counted.UsbOtherErrors}));
    EXPECT_EQ(Stats(kStill).data, Words({1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(TevrinPropertyTest, StatisticsRequestsOfTheWrongShapeAreRefused) {
    winsim::ClearDebugLog();
    PropertyAnswer beyond = Stats(2);
    EXPECT_EQ(beyond.status, STATUS_INVALID_PARAMETER);
    EXPECT_EQ(beyond.returned, 0u);
    EXPECT_TRUE(Logged("ORNIX: KSPROPERTY_TEVRINSGL_STATS querying stats for invlaid stream"));

    PropertyAnswer query = Stats(kCapture, 0);
    EXPECT_EQ(query.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(query.returned, 32u);
    EXPECT_TRUE(Logged("ORNIX: KSPROPERTY_TEVRINSGL_STATS: output buffer too small"));
    for (ULONG size : {1u, 31u}) {
        PropertyAnswer short_ = Stats(kCapture, size);
        EXPECT_EQ(short_.status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(short_.data, Bytes(size, 0));
    }
    PropertyAnswer larger = Stats(kCapture, 40);
    EXPECT_EQ(larger.returned, 32u);
    EXPECT_EQ(Bytes(larger.data.begin() + 32, larger.data.end()), Bytes(8, 0));

    Bytes cut = Words({kCapture});
    cut.resize(ORNIX_TEVRINSGL_STATS_SIZE - sizeof(KSPROPERTY) - 1);
    EXPECT_EQ(Get(KSPROPERTY_TEVRINSGL_STATS, 32, cut).status, STATUS_BUFFER_TOO_SMALL);
    EXPECT_TRUE(Logged("ORNIX: KSPROPERTY_TEVRINSGL_STATS: some buffer too small"));
}

}  // namespace
}  // namespace ornixtest
