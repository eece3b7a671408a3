// The custom-set handlers that have a file of their own, called by
// OrnixSetCustomProperty. Each returns the status of the set and reports
// ActualBytesTransferred itself. IRQL: PASSIVE_LEVEL, under RequestMutex.
#pragma once

#include "proptable/property_request.h"

// The data every set of this group reads: {word 0, word 1}.
#define ORNIX_CUSTOM_SET_DATA 8

// Bit of word 0 that switches something on (events, pixel correction).
#define ORNIX_CUSTOM_ENABLE 0x8000

NTSTATUS ORNIXAPI OrnixSetCameraReset(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetLut8(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetStillWait(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetEventControl(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixSetPixelCorrection(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb);
