// Gets of PROPSETID_ORNIX_TEVRINSGL: a pass-through read (vendor request
// 0x13), a section of the product data, and a stream's statistics.
#include "proptable/property_request.h"

// TevrinSglRawRequest: the header, then wIndex, wValue and wLength of the request.
#define ORNIX_RAW_INDEX_OFFSET 24
#define ORNIX_RAW_VALUE_OFFSET 26
#define ORNIX_RAW_LENGTH_OFFSET 28
#define ORNIX_VPD_SECTION_OFFSET 24   // the product-data section wanted
#define ORNIX_STATS_STREAM_OFFSET 24  // the stream whose statistics are wanted
#define ORNIX_STATS_ANSWER 32         // OrnixStatsRecord: eight words

static NTSTATUS OrnixShortRecord(PHW_STREAM_REQUEST_BLOCK Srb) {
    DbgPrint(ORNIX_PREFIX "some buffer too small\n");
    Srb->ActualBytesTransferred = 0;
    return STATUS_BUFFER_TOO_SMALL;
}

static NTSTATUS OrnixGetRaw(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    USHORT index, value, length;
    if (OrnixPropertyDescriptor(Srb)->PropertyInputSize < ORNIX_TEVRINSGL_REQUEST_SIZE ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_INDEX_OFFSET, &index) ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_VALUE_OFFSET, &value) ||
        !OrnixRecordUshort(Srb, ORNIX_RAW_LENGTH_OFFSET, &length)) {
        return OrnixShortRecord(Srb);
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = length;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (size < length) {
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    NTSTATUS status = OrnixSglRead(Ext, index, value, length, data);
    Srb->ActualBytesTransferred = length;  // whatever the read returned
    return status;
}

// A size query (empty buffer) gets the section's size.
static NTSTATUS OrnixGetVpdSection(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    UCHAR section;
    if (OrnixPropertyDescriptor(Srb)->PropertyInputSize < ORNIX_TEVRINSGL_REQUEST_SIZE ||
        !OrnixRecordUchar(Srb, ORNIX_VPD_SECTION_OFFSET, &section)) {
        return OrnixShortRecord(Srb);
    }
    DbgPrint(ORNIX_PREFIX "reading VPD section %d\n", section);
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    ULONG length = size;
    NTSTATUS status = OrnixReturnVpdSection(Ext, data, &length, section);
    if (!NT_SUCCESS(status) && status != STATUS_BUFFER_OVERFLOW) {
        Srb->ActualBytesTransferred = 0;
        return status;
    }
    if (size != 0 && status == STATUS_BUFFER_OVERFLOW) {
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    Srb->ActualBytesTransferred = length;
    return status;
}

static BOOLEAN OrnixStreamExists(PORNIX_DEVICE_CONTEXT Ext, ULONG Stream) {
    if (Stream == ORNIX_CAPTURE_STREAM) {
        return Ext->CapturePipe != ORNIX_NO_PIPE;
    }
    if (Stream == ORNIX_STILL_STREAM) {
        return Ext->StillPipe != ORNIX_NO_PIPE;
    }
    return FALSE;
}

// Word 0 the stream index, then the counters of the stream's current run;
// a stream that is not open has none.
static NTSTATUS OrnixGetStatistics(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG stream;
    if (OrnixPropertyDescriptor(Srb)->PropertyInputSize < ORNIX_TEVRINSGL_STATS_SIZE ||
        !OrnixRecordUlong(Srb, ORNIX_STATS_STREAM_OFFSET, &stream)) {
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_TEVRINSGL_STATS: some buffer too small\n");
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size < ORNIX_STATS_ANSWER) {
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_TEVRINSGL_STATS: output buffer too small\n");
        if (size == 0) {
            Srb->ActualBytesTransferred = ORNIX_STATS_ANSWER;
            return STATUS_BUFFER_OVERFLOW;
        }
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (!OrnixStreamExists(Ext, stream)) {
        DbgPrint(ORNIX_PREFIX "KSPROPERTY_TEVRINSGL_STATS querying stats for invlaid stream\n");
        Srb->ActualBytesTransferred = 0;
        return STATUS_INVALID_PARAMETER;
    }
    DbgPrint(ORNIX_PREFIX
             "KSPROPERTY_TEVRINSGL_STATS for index %d, inputSize:0x%x, "
             "outputsize:0x%x\n",
             stream, OrnixPropertyDescriptor(Srb)->PropertyInputSize, size);
    RtlZeroMemory(data, ORNIX_STATS_ANSWER);
    OrnixStoreUlong(data, stream);
    // Open and close run under RequestMutex too: the context stays while it is read.
    PORNIX_STREAM_CONTEXT context = Ext->StreamContexts[stream];
    if (context != NULL) {
        ORNIX_STREAM_STATISTICS statistics;
        StreamReadStatistics(context, &statistics);
        OrnixStoreUlong(data + 4, (ULONG)statistics.ActualFramesCaptured);
        OrnixStoreUlong(data + 8, (ULONG)statistics.DropCount);
        OrnixStoreUlong(data + 12, statistics.ActualFramesDropped);
        OrnixStoreUlong(data + 16, statistics.UsbShortErrors);
        OrnixStoreUlong(data + 20, statistics.UsbXactErrors);
        OrnixStoreUlong(data + 24, statistics.UsbBabbleErrors);
        OrnixStoreUlong(data + 28, statistics.UsbOtherErrors);
    }
    Srb->ActualBytesTransferred = ORNIX_STATS_ANSWER;
    return STATUS_SUCCESS;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex.
NTSTATUS OrnixGetTevrinSglProperty(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    switch (OrnixPropertyId(Srb)) {
        case KSPROPERTY_TEVRINSGL_RAW:
            return OrnixGetRaw(Ext, Srb);
        case KSPROPERTY_TEVRINSGL_VPD:
            return OrnixGetVpdSection(Ext, Srb);
        case KSPROPERTY_TEVRINSGL_STATS:
            return OrnixGetStatistics(Ext, Srb);
        default:
            Srb->ActualBytesTransferred = 0;
            return STATUS_NOT_SUPPORTED;
    }
}
