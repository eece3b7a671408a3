// SRB_GET_STREAM_INFO: the stream descriptor reported to the stream class.
// Both pins offer the capture format table; they differ in name only.
#include "ornix.h"

// The buffer check's text as the checked build reports it.
#define ORNIX_STREAM_INFO_SIZE_ASSERTION                           \
    "Srb->NumberOfBytesToTransfer >= sizeof (HW_STREAM_HEADER) + " \
    "deviceExtension->StreamCount * sizeof (HW_STREAM_INFORMATION)"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS AdapterStreamInfo(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    OrnixVerbose(ORNIX_PREFIX "AdapterStreamInfo\n");
    if (!Ext->Initialized || OrnixFlagIsSet(&Ext->Uninitializing)) {
        DbgPrint(ORNIX_PREFIX " ext NOT Initialized \n");
        return STATUS_DEVICE_NOT_READY;
    }

    // The stream class passes the size announced at initialisation; anything
    // smaller is refused rather than overrun.
    if (Srb->NumberOfBytesToTransfer <
        sizeof(HW_STREAM_HEADER) + Ext->StreamCount * sizeof(HW_STREAM_INFORMATION)) {
        RtlAssert((PVOID)ORNIX_STREAM_INFO_SIZE_ASSERTION, (PVOID) "storminf", __LINE__, NULL);
        return STATUS_BUFFER_TOO_SMALL;
    }

    PHW_STREAM_HEADER header = &Srb->CommandData.StreamBuffer->StreamHeader;
    PHW_STREAM_INFORMATION streams = &Srb->CommandData.StreamBuffer->StreamInfo;
    const ULONG streamCount = Ext->StreamCount;

    for (ULONG i = 0; i < streamCount; ++i) {
        if (Ext->CaptureStreamInfo != NULL) {
            streams[i] = *Ext->CaptureStreamInfo;
        } else {
            RtlZeroMemory(&streams[i], sizeof(streams[i]));
        }
    }

    header->NumberOfStreams = streamCount;
    header->SizeOfHwStreamInformation = sizeof(HW_STREAM_INFORMATION);
    header->NumDevPropArrayEntries = Ext->PropertySetCount;
    header->DevicePropertiesArray = Ext->PropertySets;
    header->NumDevEventArrayEntries = Ext->EventSetCount;
    header->DeviceEventsArray = Ext->EventSets;
    header->Topology = (PKSTOPOLOGY)&OrnixFilterTopology;
    header->DeviceEventRoutine = Ext->EventSetCount != 0 ? OrnixDeviceEventProc : NULL;

    for (ULONG i = 0; i < streamCount; ++i) {
        const GUID* pin =
            i == ORNIX_STILL_STREAM ? &OrnixPinNameVideoStill : &OrnixPinNameVideoCapture;
        streams[i].NumberOfPossibleInstances = 1;
        streams[i].DataFlow = KSPIN_DATAFLOW_OUT;
        streams[i].DataAccessible = TRUE;
        streams[i].Name = (GUID*)pin;
        streams[i].Category = (GUID*)pin;
        streams[i].NumStreamPropArrayEntries = ORNIX_STREAM_PROPERTY_SET_COUNT;
        streams[i].StreamPropertiesArray = (PKSPROPERTY_SET)OrnixStreamPropertySets;
    }
    return STATUS_SUCCESS;
}
