// The items each built property set may offer, and the conditions under
// which it does.
#include "property_rows.h"

#include <ksmedia.h>

#define ROW(id, condition) \
    { (UCHAR)(id), (UCHAR)(condition), (UCHAR)OrnixGetAndSet }
#define ROW_ACCESS(id, condition, access) \
    { (UCHAR)(id), (UCHAR)(condition), (UCHAR)(access) }

static const ORNIX_ITEM_ROW OrnixVideoProcAmpRows[] = {
    ROW(KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_CONTRAST, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_HUE, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_SATURATION, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_SHARPNESS, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_GAMMA, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_VIDEOPROCAMP_GAIN, OrnixWhenRecordPresent),
};

// Focus has a record but is offered only as a custom property (id 53).
static const ORNIX_ITEM_ROW OrnixCameraControlRows[] = {
    ROW(KSPROPERTY_CAMERACONTROL_PAN, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_CAMERACONTROL_TILT, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_CAMERACONTROL_ROLL, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_CAMERACONTROL_ZOOM, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_CAMERACONTROL_EXPOSURE, OrnixWhenRecordPresent),
    ROW(KSPROPERTY_CAMERACONTROL_IRIS, OrnixWhenRecordPresent),
};

// Custom ids in publishing order; clients enumerate them in this order.
static const ORNIX_ITEM_ROW OrnixCustomRows[] = {
    ROW(31, OrnixWhenRecordPresent),
    ROW(0, OrnixWhenRecordPresent),
    ROW(1, OrnixWhenRecordPresent),
    ROW(2, OrnixWhenRecordPresent),
    ROW(3, OrnixWhenRecordPresent),
    ROW(4, OrnixWhenRecordPresent),
    ROW(5, OrnixWhenRecordPresent),
    ROW(6, OrnixWhenRecordPresent),
    ROW(7, OrnixWhenAlways),
    ROW(8, OrnixWhenTwoStreams),
    ROW(9, OrnixWhenRecordPresent),
    ROW(10, OrnixWhenRecordPresent),
    ROW(11, OrnixWhenRecordPresent),
    ROW(12, OrnixWhenRecordPresent),
    ROW(13, OrnixWhenRecordPresent),
    ROW(14, OrnixWhenRecordPresent),
    ROW(15, OrnixWhenRecordPresent),
    ROW(21, OrnixWhenRecordPresent),
    ROW(22, OrnixWhenRecordPresent),
    ROW(23, OrnixWhenRecordPresent),
    ROW(24, OrnixWhenRecordPresent),
    ROW(25, OrnixWhenRecordPresent),
    ROW(26, OrnixWhenRecordPresent),
    ROW(27, OrnixWhenRecordPresent),
    ROW(28, OrnixWhenRecordPresent),
    ROW(29, OrnixWhenRecordPresent),
    ROW(30, OrnixWhenRecordPresent),
    ROW_ACCESS(16, OrnixWhenAlways, OrnixSetOnly),
    ROW_ACCESS(17, OrnixWhenAlways, OrnixGetOnly),
    ROW_ACCESS(20, OrnixWhenAlways, OrnixGetOnly),
    ROW(18, OrnixWhenAlways),
    ROW(19, OrnixWhenTwoStreams),
    ROW(33, OrnixWhenRecordPresent),
    ROW(34, OrnixWhenRecordPresent),
    ROW(35, OrnixWhenRecordPresent),
    ROW(36, OrnixWhenRecordPresent),
    ROW(39, OrnixWhenRecordPresent),
    ROW(40, OrnixWhenAlways),
    ROW(41, OrnixWhenRecordPresent),
    ROW(42, OrnixWhenRecordPresent),
    ROW(43, OrnixWhenRecordPresent),
    ROW(44, OrnixWhenRecordPresent),
    ROW(45, OrnixWhenRecordPresent),
    ROW(46, OrnixWhenRecordPresent),
    ROW(47, OrnixWhenRecordPresent),
    ROW(48, OrnixWhenRecordPresent),
    ROW(49, OrnixWhenRecordPresent),
    ROW(50, OrnixWhenRecordPresent),
    ROW(52, OrnixWhenRecordPresent),
    ROW(53, OrnixWhenRecordPresent),
    ROW(54, OrnixWhenRecordPresent),
    ROW(55, OrnixWhenRecordPresent),
    ROW(56, OrnixWhenRecordPresent),
    ROW(32, OrnixWhenLutSupported),
    ROW(38, OrnixWhenInterruptPipe),
    ROW_ACCESS(37, OrnixWhenTwoStreams, OrnixSetOnly),
};

const ORNIX_BUILT_SET OrnixBuiltSets[] = {
    {ORNIX_GROUP_VIDEOPROCAMP, &OrnixPropSetVideoProcAmp, OrnixVideoProcAmpRows,
     ORNIX_ROW_COUNT(OrnixVideoProcAmpRows), TRUE},
    {ORNIX_GROUP_CAMERACONTROL, &OrnixPropSetCameraControl, OrnixCameraControlRows,
     ORNIX_ROW_COUNT(OrnixCameraControlRows), TRUE},
    {ORNIX_GROUP_OXCUSTOM, &OrnixPropSetOxCustom, OrnixCustomRows, ORNIX_ROW_COUNT(OrnixCustomRows),
     FALSE},
};
const ULONG OrnixBuiltSetCount = ORNIX_ROW_COUNT(OrnixBuiltSets);

const ULONG* OrnixRowRecord(const ORNIX_BUILT_SET* Set, const ORNIX_ITEM_ROW* Row,
                            const ORNIX_CAMERA_FACTS* Facts) {
    ULONG record;
    if (!OrnixPropertyRecordIndex(Set->Group, Row->Id, &record)) {
        return NULL;
    }
    return &Facts->Records[record * (ORNIX_PROPERTY_RECORD_SIZE / 4)];
}

BOOLEAN OrnixItemOffered(const ORNIX_BUILT_SET* Set, const ORNIX_ITEM_ROW* Row,
                         const ORNIX_CAMERA_FACTS* Facts) {
    switch (Row->Condition) {
        case OrnixWhenAlways:
            return TRUE;
        case OrnixWhenRecordPresent: {
            const ULONG* record = OrnixRowRecord(Set, Row, Facts);
            return record != NULL && (record[ORNIX_RECORD_CONTROL] & ORNIX_PROPERTY_PRESENT) != 0;
        }
        case OrnixWhenTwoStreams:
            return Facts->StreamCount == 2;
        case OrnixWhenLutSupported:
            return Facts->LutSupported;
        case OrnixWhenInterruptPipe:
            return Facts->HasInterruptPipe;
        default:
            return FALSE;
    }
}
