// Routing of adapter property requests by the set's GUID, and requests the
// routers must refuse before any handler reads them.
#include "property_requests.h"

namespace ornixtest {
namespace {

class PropertyRoutingTest : public DriverTest {
  protected:
    PropertyClient Props() { return PropertyClient(Class()); }
};

// Each set reaches its own handler: the answers differ in size and content.
TEST_F(PropertyRoutingTest, EachSetReachesItsHandler) {
    Camera().PokeRegister(ORNIX_PROPERTY_RECORD(0), 0x80000000);
    Camera().PokeRegister(ORNIX_PROPERTY_RECORD(0) + 4, 655);
    PropertyAnswer brightness = Props().Get(OrnixPropSetVideoProcAmp, 0, 40);
    EXPECT_EQ(brightness.status, STATUS_SUCCESS);
    EXPECT_EQ(WordAt(brightness.data, 24), 100u);

    Camera().PokeRegister(ORNIX_PROPERTY_RECORD(6) + 4, 77);  // pan
    PropertyAnswer pan = Props().Get(OrnixPropSetCameraControl, 0, 40);
    EXPECT_EQ(WordAt(pan.data, 24), 77u);

    PropertyAnswer caps = Props().Get(OrnixPropSetVideoControl, KSPROPERTY_VIDEOCONTROL_CAPS, 32,
                                      Words({ORNIX_STILL_STREAM, 0}));
    EXPECT_EQ(caps.status, STATUS_SUCCESS);
    EXPECT_EQ(WordAt(caps.data, 28), 12u);

    PropertyAnswer version = Props().Get(OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_VERSION, 16);
    EXPECT_EQ(WordAt(version.data, 12), 0x05010171u);

    PropertyAnswer stats = Props().Get(OrnixPropSetTevrinSgl, KSPROPERTY_TEVRINSGL_STATS, 0,
                                       Words({1, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(stats.status, STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(stats.returned, 32u);
}

// All 16 bytes decide: a GUID one bit away from a known set is unknown. A get
// says so on the debugger, a set does not; neither reports bytes.
TEST_F(PropertyRoutingTest, UnknownSetsAreRefusedGetsWithAMessage) {
    for (const GUID* known :
         {&OrnixPropSetVideoControl, &OrnixPropSetVideoProcAmp, &OrnixPropSetCameraControl,
          &OrnixPropSetOxCustom, &OrnixPropSetTevrinSgl}) {
        for (int byte : {0, 15}) {
            GUID near = *known;
            reinterpret_cast<uint8_t*>(&near)[byte] ^= 1;
            SCOPED_TRACE(GuidText(&near));
            winsim::ClearDebugLog();
            PropertyAnswer get = Props().Get(near, 0, 64);
            EXPECT_EQ(get.status, STATUS_NOT_SUPPORTED);
            EXPECT_EQ(get.returned, 0u);
            EXPECT_EQ(CountLogged("ORNIX: ORNIX_GetPropertyRequest: property set not supported"),
                      1u);
            PropertyAnswer set = Props().Set(near, 0, Bytes(64, 0));
            EXPECT_EQ(set.status, STATUS_NOT_SUPPORTED);
            EXPECT_EQ(set.returned, 0u);
            EXPECT_EQ(CountLogged("ORNIX: ORNIX_GetPropertyRequest: property set not supported"),
                      1u);
        }
    }
    EXPECT_TRUE(VendorRequests().empty());
}

// A record shorter than the KSPROPERTY header names no set or id: nothing of
// it is read (the sanitizer builds watch the block's end).
TEST_F(PropertyRoutingTest, ARecordShorterThanTheHeaderIsNotRead) {
    for (SRB_COMMAND command : {SRB_GET_DEVICE_PROPERTY, SRB_SET_DEVICE_PROPERTY}) {
        Bytes record =
            PropertyRecord(OrnixPropSetOxCustom, KSPROPERTY_OXCUSTOM_RESET, KSPROPERTY_TYPE_SET);
        record.resize(sizeof(KSPROPERTY) - 1);
        PropertyAnswer answer = SendProperty(Class(), command, record, Bytes(8, 0));
        EXPECT_EQ(answer.status, STATUS_INVALID_PARAMETER);
        EXPECT_TRUE(answer.guardIntact);
    }
    EXPECT_TRUE(VendorRequests().empty());
}

}  // namespace
}  // namespace ornixtest
