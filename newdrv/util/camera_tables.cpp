// Release of the per-camera tables built during bring-up, at shutdown and
// after a failed format discovery. Safe to run any number of times.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL.
VOID OrnixReleaseCameraTables(PORNIX_DEVICE_CONTEXT Ext) {
    // The frame-rate chart is the one table owned outright.
    OrnixDiscardFreqChart(Ext);

    // The start-up tables live on the deferred-free list: only the
    // references go here, the memory goes with the list below. Every
    // reference into them goes too, so none outlives its block.
    Ext->CaptureStreamInfo = NULL;
    Ext->CaptureFormats = NULL;
    Ext->CaptureFormatCount = 0;
    Ext->PropertySets = NULL;
    Ext->PropertySetCount = 0;
    Ext->ExposureRange = NULL;
    Ext->EventSets = NULL;
    Ext->EventSetCount = 0;
    Ext->CaptureFormat = NULL;
    Ext->StillFormat = NULL;
    Ext->NextCaptureFormat = NULL;

    OrnixInvalidateVpd(Ext);
    OrnixFreeDeferred(Ext);
}
