// Which of the camera's 57 property records backs a (group, property id).
#include "ornix.h"

// Custom ids that share the record of a standard control.
#define ORNIX_EXPOSURE_RECORD 10
#define ORNIX_FOCUS_RECORD 12
#define ORNIX_GAIN_RECORD 15

static BOOLEAN OrnixVideoProcAmpRecord(ULONG Id, PULONG Record) {
    if (Id <= 5) {
        *Record = Id;  // brightness .. gamma: records 0 to 5
        return TRUE;
    }
    if (Id == 9) {
        *Record = ORNIX_GAIN_RECORD;
        return TRUE;
    }
    return FALSE;
}

static BOOLEAN OrnixCameraControlRecord(ULONG Id, PULONG Record) {
    if (Id <= 6) {
        *Record = 6 + Id;  // pan .. focus: records 6 to 12
        return TRUE;
    }
    return FALSE;
}

// Custom ids 7, 8, 16 to 20, 32, 37 and 38 are served from elsewhere.
static BOOLEAN OrnixCustomRecord(ULONG Id, PULONG Record) {
    if (Id <= 6) {
        *Record = 13 + Id;
    } else if (Id >= 9 && Id <= 15) {
        *Record = 11 + Id;
    } else if (Id >= 21 && Id <= 30) {
        *Record = 6 + Id;
    } else if (Id == 31) {
        *Record = ORNIX_EXPOSURE_RECORD;
    } else if (Id >= 33 && Id <= 36) {
        *Record = 4 + Id;
    } else if (Id >= 39 && Id <= 50) {
        *Record = 2 + Id;
    } else if (Id == 52) {
        *Record = 53;
    } else if (Id == 53) {
        *Record = ORNIX_FOCUS_RECORD;
    } else if (Id >= 54 && Id <= 56) {
        *Record = Id;
    } else {
        return FALSE;
    }
    return TRUE;
}

// Pure; any IRQL. *Record is left untouched when there is no record.
BOOLEAN OrnixPropertyRecordIndex(ULONG Group, ULONG Id, PULONG Record) {
    switch (Group) {
        case ORNIX_GROUP_VIDEOPROCAMP:
            return OrnixVideoProcAmpRecord(Id, Record);
        case ORNIX_GROUP_CAMERACONTROL:
            return OrnixCameraControlRecord(Id, Record);
        case ORNIX_GROUP_OXCUSTOM:
            return OrnixCustomRecord(Id, Record);
        default:
            return FALSE;
    }
}
