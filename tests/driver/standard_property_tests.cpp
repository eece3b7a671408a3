// The video-processing and camera-control sets as views of the camera's
// property records: unit conversions at their edges, the automatic-mode
// flags, what reaches the registers, and the buffer sizes the handlers take.
#include "property_requests.h"

namespace ornixtest {
namespace {

// A short buffer that reaches the driver fails an ASSERT first (checked builds).
const size_t kAssertsFired = ornixtest::DriverChecksAsserts() ? 1 : 0;

constexpr size_t kValue = 24, kFlags = 28, kCapabilities = 32;
constexpr ULONG kStandardSize = 40;
constexpr uint32_t kAuto = 1, kManual = 2;

constexpr ULONG kBrightness = 0, kContrast = 1, kGain = 9;  // video processing
constexpr ULONG kExposure = 4;                              // camera control

class StandardPropertyTest : public DriverTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }

    void PokeRecord(ULONG record, uint32_t control, uint32_t value) {
        Camera().PokeRegister(ORNIX_PROPERTY_RECORD(record), control);
        Camera().PokeRegister(ORNIX_PROPERTY_RECORD(record) + 4, value);
    }
    PropertyAnswer Get(const GUID& set, ULONG id, ULONG size = kStandardSize) {
        return Props().Get(set, id, size);
    }
    // Value and flags in a KSPROPERTY_VIDEOPROCAMP_S / _CAMERACONTROL_S.
    PropertyAnswer Set(const GUID& set, ULONG id, int32_t value, uint32_t flags,
                       size_t size = kStandardSize) {
        Bytes data = PropertyRecord(set, id, KSPROPERTY_TYPE_SET);
        Bytes fields = Words({static_cast<uint32_t>(value), flags, 0});
        data.insert(data.end(), fields.begin(), fields.end());
        data.resize(size);
        return Props().Set(set, id, data, {}, false);
    }
};

TEST_F(StandardPropertyTest, GetsConvertRegisterValuesAtTheirEdges) {
    struct Case {
        const GUID* set;
        ULONG id;
        ULONG record;
        uint32_t reg;
        int32_t property;
    } cases[] = {
        {&OrnixPropSetVideoProcAmp, kBrightness, 0, 6550, 1000},
        {&OrnixPropSetVideoProcAmp, kBrightness, 0, 654, 99},         // truncated
        {&OrnixPropSetVideoProcAmp, kContrast, 1, 0xFFFFF000, -100},  // signed
        {&OrnixPropSetVideoProcAmp, kContrast, 1, 4095, 99},          // toward zero
        {&OrnixPropSetVideoProcAmp, kContrast, 1, 0xFFFFF001, -99},   // toward zero
        {&OrnixPropSetVideoProcAmp, kGain, 15, 0x1000, 0},
        {&OrnixPropSetVideoProcAmp, kGain, 15, 0x0FF0, 0x0FFFFFFF},          // unsigned shift
        {&OrnixPropSetVideoProcAmp, 5, 5, 0xDEADBEEF, int32_t(0xDEADBEEF)},  // gamma: as is
        {&OrnixPropSetCameraControl, kExposure, 10, 0, -21},
        {&OrnixPropSetCameraControl, kExposure, 10, 1333333, 0},  // just below the step
        {&OrnixPropSetCameraControl, kExposure, 10, 1333334, 1},
        {&OrnixPropSetCameraControl, kExposure, 10, 10000, -7},
        {&OrnixPropSetCameraControl, 6, 12, 123, 123},  // focus, unconverted
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "record " << c.record << " = " << c.reg);
        PokeRecord(c.record, ORNIX_PROPERTY_PRESENT, c.reg);
        PropertyAnswer answer = Get(*c.set, c.id);
        ASSERT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(static_cast<int32_t>(WordAt(answer.data, kValue)), c.property);
        EXPECT_EQ(answer.returned, kStandardSize);
    }
}

TEST_F(StandardPropertyTest, ControlWordBitsBecomeFlagsAndCapabilities) {
    struct Case {
        uint32_t control;
        uint32_t flags;
        uint32_t capabilities;
    } cases[] = {
        {0x80000000, kManual, kManual},         {0xC0000000, kManual, kManual | kAuto},
        {0xC0004000, kAuto, kManual | kAuto},   {0x80004000, kAuto, kManual},
        {0x7FFFBFFF, kManual, kManual | kAuto},  // only bits 30 and 14 count
    };
    struct Control {
        const GUID* set;
        ULONG id;
        ULONG record;
    } controls[] = {{&OrnixPropSetVideoProcAmp, 2, 2}, {&OrnixPropSetCameraControl, 1, 7}};
    for (const Control& control : controls) {  // hue, tilt
        for (const Case& c : cases) {
            SCOPED_TRACE(::testing::Message() << std::hex << c.control);
            PokeRecord(control.record, c.control, 5);
            PropertyAnswer answer = Get(*control.set, control.id);
            EXPECT_EQ(WordAt(answer.data, kFlags), c.flags);
            EXPECT_EQ(WordAt(answer.data, kCapabilities), c.capabilities);
        }
    }
}

// Control word first (only bit 14, from the AUTO flag), then the converted value.
TEST_F(StandardPropertyTest, SetsWriteTheControlWordThenTheConvertedValue) {
    struct Case {
        const GUID* set;
        ULONG id;
        int32_t value;
        uint32_t flags;
        uint16_t base;
        uint32_t control;
        uint32_t reg;
    } cases[] = {
        {&OrnixPropSetVideoProcAmp, kGain, 10, kManual, 0x04F0, 0, 0x10A0},
        {&OrnixPropSetVideoProcAmp, kGain, 0, kAuto | kManual, 0x04F0, 0x4000, 0x1000},
        {&OrnixPropSetVideoProcAmp, kBrightness, 1000, 0, 0x0400, 0, 6550},
        {&OrnixPropSetVideoProcAmp, kContrast, -100, kAuto, 0x0410, 0x4000, 0xFFFFF000},
        {&OrnixPropSetVideoProcAmp, 4, -3, kManual, 0x0440, 0, 0xFFFFFFFD},  // sharpness
        {&OrnixPropSetCameraControl, kExposure, 13, kAuto, 0x04A0, 0x4000, 4096000000u},
        {&OrnixPropSetCameraControl, kExposure, -5, kManual, 0x04A0, 0, 31250},
        {&OrnixPropSetCameraControl, kExposure, -20, kManual, 0x04A0, 0, 0},
        {&OrnixPropSetCameraControl, kExposure, INT32_MIN, kManual, 0x04A0, 0, 0},
        {&OrnixPropSetCameraControl, 0, 7, 0xFFFFFFFE, 0x0460, 0, 7},  // pan
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message() << "id " << c.id << " value " << c.value);
        Camera().ClearRequests();
        PropertyAnswer answer = Set(*c.set, c.id, c.value, c.flags);
        EXPECT_EQ(answer.status, STATUS_SUCCESS);
        EXPECT_EQ(answer.returned, kStandardSize);
        using Writes = std::vector<std::pair<uint16_t, uint32_t>>;
        EXPECT_EQ(RegisterWrites(VendorRequests()),
                  (Writes{{c.base, c.control}, {uint16_t(c.base + 4), c.reg}}));
    }
}

// A control without a record (colour enable; camera control id 7) never
// reaches the registers.
TEST_F(StandardPropertyTest, ControlsWithoutARecordAreNotSupported) {
    for (auto [set, id] : {std::pair{&OrnixPropSetVideoProcAmp, 6u},
                           {&OrnixPropSetVideoProcAmp, 10u},
                           {&OrnixPropSetCameraControl, 7u}}) {
        PropertyAnswer get = Get(*set, id);
        EXPECT_EQ(get.status, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(WordAt(get.data, kValue), 0u);
        PropertyAnswer set_ = Set(*set, id, 1, kManual);
        EXPECT_EQ(set_.status, STATUS_NOT_SUPPORTED);
        EXPECT_EQ(set_.returned, 0u);
    }
    EXPECT_TRUE(VendorRequests().empty());
}

// A failed control-word write leaves the value alone; a failed read answers
// nothing meaningful but zeros.
TEST_F(StandardPropertyTest, RegisterFailuresStopTheSequence) {
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 1});
    PropertyAnswer set = Set(OrnixPropSetVideoProcAmp, kGain, 10, kManual);
    EXPECT_FALSE(NT_SUCCESS(set.status));
    EXPECT_EQ(set.returned, 0u);
    EXPECT_TRUE(RegisterWrites(VendorRequests()).empty());

    PokeRecord(15, 0xC0004000, 0x2000);
    Stack().AddFault({.kind = usbsim::RequestKind::VendorDevice, .occurrence = 2});
    PropertyAnswer get = Get(OrnixPropSetVideoProcAmp, kGain);
    EXPECT_FALSE(NT_SUCCESS(get.status));
    EXPECT_EQ(WordAt(get.data, kValue), 0u);
    EXPECT_EQ(WordAt(get.data, kFlags), 0u);

    Stack().Remove();
    Camera().ClearRequests();
    EXPECT_EQ(Set(OrnixPropSetVideoProcAmp, kGain, 10, kManual).status, STATUS_DEVICE_REMOVED);
    EXPECT_TRUE(VendorRequests().empty());
}

// The framework's minimum data size keeps short buffers away; should one
// arrive, it is asserted and then answered by the size rule, never written.
TEST_F(StandardPropertyTest, GetBuffersFollowTheSizeRule) {
    PokeRecord(0, ORNIX_PROPERTY_PRESENT, 6550);
    for (ULONG size : {0u, 1u, 39u}) {
        SCOPED_TRACE(size);
        PropertyAnswer answer = Get(OrnixPropSetVideoProcAmp, kBrightness, size);
        EXPECT_EQ(answer.status, size == 0 ? STATUS_BUFFER_OVERFLOW : STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(answer.returned, size == 0 ? kStandardSize : 0u);
        EXPECT_EQ(answer.data, Bytes(size, 0));
        EXPECT_TRUE(answer.guardIntact);
        EXPECT_EQ(TakeViolations("ASSERT").size(), kAssertsFired);
    }
    EXPECT_TRUE(VendorRequests().empty());
    PropertyAnswer larger = Get(OrnixPropSetCameraControl, 0, 64);
    EXPECT_EQ(larger.status, STATUS_SUCCESS);
    EXPECT_EQ(larger.returned, kStandardSize);
    EXPECT_EQ(larger.outputSize, kStandardSize);
    EXPECT_EQ(Bytes(larger.data.begin() + 40, larger.data.end()), Bytes(24, 0));
    EXPECT_TRUE(larger.guardIntact);
}

TEST_F(StandardPropertyTest, ShortSetBuffersAreRefusedBeforeAnyWrite) {
    for (size_t size : {0u, 32u, 39u}) {
        PropertyAnswer answer = Set(OrnixPropSetCameraControl, kExposure, 0, kManual, size);
        EXPECT_EQ(answer.status, STATUS_BUFFER_TOO_SMALL);
        EXPECT_EQ(answer.returned, 0u);
    }
    EXPECT_TRUE(VendorRequests().empty());
}

}  // namespace
}  // namespace ornixtest
