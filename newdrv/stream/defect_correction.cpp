// Defective-pixel correction of delivered frames.
#include "ornix.h"

VOID OrnixCorrectDefectivePixels(PORNIX_DEVICE_CONTEXT Ext, PUCHAR Frame, ULONG Length,
                                 BOOLEAN Still) {}
BOOLEAN OrnixHasDefectRowShift(ULONG CameraId) {
    return FALSE;
}
BOOLEAN OrnixHasDefectOriginShift(ULONG CameraId) {
    return FALSE;
}
