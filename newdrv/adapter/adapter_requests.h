// Adapter SRBs that the dispatcher answers itself rather than handing them
// to another subsystem. All run at PASSIVE_LEVEL under RequestMutex.
#pragma once

#include "ornix.h"

NTSTATUS ORNIXAPI OrnixUnknownDeviceCommand(PORNIX_DEVICE_CONTEXT Ext,
                                            PHW_STREAM_REQUEST_BLOCK Srb);
NTSTATUS ORNIXAPI OrnixPagingOut(PORNIX_DEVICE_CONTEXT Ext);
NTSTATUS ORNIXAPI OrnixSurpriseRemoval(PORNIX_DEVICE_CONTEXT Ext);
