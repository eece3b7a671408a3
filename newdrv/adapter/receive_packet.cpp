// The adapter SRB dispatcher: serialises adapter requests, routes each to its
// handler and completes it before returning.
#include "adapter/adapter_requests.h"

// Routes one adapter SRB. IRQL: PASSIVE_LEVEL; handlers may block.
static NTSTATUS OrnixDispatchAdapterSrb(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    switch (Srb->Command) {
        case SRB_GET_STREAM_INFO:
            OrnixVerbose(ORNIX_PREFIX "SRB_GET_STREAM_INFO\n");
            return AdapterStreamInfo(Ext, Srb);
        case SRB_OPEN_STREAM:
            OrnixVerbose(ORNIX_PREFIX "SRB_OPEN_STREAM\n");
            return StreamOpenStream(Ext, Srb);
        case SRB_CLOSE_STREAM:
            OrnixVerbose(ORNIX_PREFIX "SRB_CLOSE_STREAM\n");
            return StreamClose(Ext, Srb);
        case SRB_GET_DEVICE_PROPERTY:
            OrnixVerbose(ORNIX_PREFIX "SRB_GET_DEVICE_PROPERTY\n");
            return ORNIX_GetPropertyRequest(Ext, Srb);
        case SRB_SET_DEVICE_PROPERTY:
            OrnixVerbose(ORNIX_PREFIX "SRB_SET_DEVICE_PROPERTY\n");
            return ORNIX_SetPropertyRequest(Ext, Srb);
        case SRB_INITIALIZE_DEVICE:
            DbgPrint(ORNIX_PREFIX "SRB_INITIALIZE_DEVICE\n");
            return OrnixInitialize(Ext, Srb);
        case SRB_CHANGE_POWER_STATE:
            OrnixVerbose(ORNIX_PREFIX "SRB_CHANGE_POWER_STATE\n");
            return OrnixSetDevicePowerState(Ext, Srb);
        case SRB_UNINITIALIZE_DEVICE:
            DbgPrint(ORNIX_PREFIX "SRB_UNINITIALIZE_DEVICE\n");
            return OrnixUninitializeDevice(Ext);
        case SRB_UNKNOWN_DEVICE_COMMAND:
            return OrnixUnknownDeviceCommand(Ext, Srb);
        case SRB_PAGING_OUT_DRIVER:
            OrnixVerbose(ORNIX_PREFIX "SRB_PAGING_OUT_DRIVER\n");
            return OrnixPagingOut(Ext);
        case SRB_GET_DATA_INTERSECTION:
            OrnixVerbose(ORNIX_PREFIX "SRB_GET_DATA_INTERSECTION\n");
            return AdapterFormatFromRange(Ext, Srb);
        case SRB_INITIALIZATION_COMPLETE:
            OrnixVerbose(ORNIX_PREFIX "SRB_INITIALIZATION_COMPLETE\n");
            return STATUS_SUCCESS;
        case SRB_SURPRISE_REMOVAL:
            return OrnixSurpriseRemoval(Ext);
        default:
            // SRB_OPEN_DEVICE_INSTANCE and SRB_CLOSE_DEVICE_INSTANCE land here too.
            DbgPrint(ORNIX_PREFIX "SRB unknown code : 0x%x!!\n", (ULONG)Srb->Command);
            return STATUS_NOT_IMPLEMENTED;
    }
}

static VOID OrnixCompleteAdapterSrb(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb,
                                    NTSTATUS Status) {
    Srb->Status = Status;
    StreamClassDeviceNotification(DeviceRequestComplete, Ext, Srb, NULL, NULL, 0);
}

// IRQL: PASSIVE_LEVEL. The stream class may call this on several threads at
// once (synchronisation is turned off); RequestMutex runs one SRB at a time.
VOID STREAMAPI OrnixReceivePacket(PHW_STREAM_REQUEST_BLOCK Srb) {
    PORNIX_DEVICE_CONTEXT ext = (PORNIX_DEVICE_CONTEXT)Srb->HwDeviceExtension;

    // SRB_INITIALIZE_DEVICE runs unserialised: it is the request that clears
    // the device context and creates RequestMutex in the first place.
    BOOLEAN serialised = Srb->Command != SRB_INITIALIZE_DEVICE;
    if (serialised) {
        NTSTATUS wait =
            KeWaitForSingleObject(&ext->RequestMutex, Executive, KernelMode, FALSE, NULL);
        if (wait != STATUS_SUCCESS) {
            DbgPrint(ORNIX_PREFIX "OrnixReceivePacket: Failed to take mutex\n");
            OrnixCompleteAdapterSrb(ext, Srb, wait);
            return;
        }
    }

    NTSTATUS status = OrnixDispatchAdapterSrb(ext, Srb);

    // Released before completion: after SRB_UNINITIALIZE_DEVICE completes the
    // stream class frees the context that holds the mutex.
    if (serialised) {
        KeReleaseMutex(&ext->RequestMutex, FALSE);
    }
    OrnixCompleteAdapterSrb(ext, Srb, status);
}
