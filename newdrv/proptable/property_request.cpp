// Access to the property record and the data buffer of a property request,
// each within the size the request gives for it.
#include "property_request.h"

BOOLEAN OrnixPropertyRequestIsSound(PHW_STREAM_REQUEST_BLOCK Srb) {
    PSTREAM_PROPERTY_DESCRIPTOR descriptor = OrnixPropertyDescriptor(Srb);
    return descriptor != NULL && descriptor->Property != NULL &&
           descriptor->PropertyInputSize >= sizeof(KSPROPERTY);
}

ULONG OrnixPropertyId(PHW_STREAM_REQUEST_BLOCK Srb) {
    return OrnixPropertyDescriptor(Srb)->Property->Id;
}

PUCHAR OrnixPropertyData(PHW_STREAM_REQUEST_BLOCK Srb, PULONG Size) {
    PSTREAM_PROPERTY_DESCRIPTOR descriptor = OrnixPropertyDescriptor(Srb);
    if (descriptor->PropertyInfo == NULL) {
        *Size = 0;
        return NULL;
    }
    *Size = descriptor->PropertyOutputSize;
    return (PUCHAR)descriptor->PropertyInfo;
}

// The record's bytes [Offset, Offset + Length), or NULL when it is shorter.
static const UCHAR* OrnixRecordField(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, ULONG Length) {
    PSTREAM_PROPERTY_DESCRIPTOR descriptor = OrnixPropertyDescriptor(Srb);
    ULONG size = descriptor->PropertyInputSize;
    if (Offset > size || Length > size - Offset) {
        return NULL;
    }
    return (const UCHAR*)descriptor->Property + Offset;
}

BOOLEAN OrnixRecordUlong(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PULONG Value) {
    const UCHAR* field = OrnixRecordField(Srb, Offset, sizeof(ULONG));
    if (field == NULL) {
        return FALSE;
    }
    *Value = OrnixLoadUlong(field);
    return TRUE;
}

BOOLEAN OrnixRecordUshort(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PUSHORT Value) {
    const UCHAR* field = OrnixRecordField(Srb, Offset, sizeof(USHORT));
    if (field == NULL) {
        return FALSE;
    }
    *Value = OrnixLoadUshort(field);
    return TRUE;
}

BOOLEAN OrnixRecordUchar(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PUCHAR Value) {
    const UCHAR* field = OrnixRecordField(Srb, Offset, sizeof(UCHAR));
    if (field == NULL) {
        return FALSE;
    }
    *Value = *field;
    return TRUE;
}

NTSTATUS OrnixFixedSizeAnswer(PHW_STREAM_REQUEST_BLOCK Srb, ULONG AnswerSize, PUCHAR* Answer) {
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size == 0) {
        Srb->ActualBytesTransferred = AnswerSize;
        return STATUS_BUFFER_OVERFLOW;
    }
    if (size < AnswerSize) {
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    Srb->ActualBytesTransferred = AnswerSize;
    *Answer = data;
    return STATUS_SUCCESS;
}

NTSTATUS OrnixSetData(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Needed, PUCHAR* Data) {
    ULONG size;
    PUCHAR data = OrnixPropertyData(Srb, &size);
    if (size < Needed || data == NULL) {
        Srb->ActualBytesTransferred = 0;
        return STATUS_BUFFER_TOO_SMALL;
    }
    *Data = data;
    return STATUS_SUCCESS;
}

NTSTATUS OrnixSetResult(PHW_STREAM_REQUEST_BLOCK Srb, NTSTATUS Status) {
    ULONG size;
    OrnixPropertyData(Srb, &size);
    Srb->ActualBytesTransferred = NT_SUCCESS(Status) ? size : 0;
    return Status;
}
