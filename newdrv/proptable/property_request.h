// The parts of an adapter property request the handlers use: the property
// record (the KSPROPERTY header and any extra input, PropertyInputSize
// bytes) and the data buffer (PropertyInfo, PropertyOutputSize bytes, for
// gets and sets alike). Nothing here reads or writes outside those sizes,
// and words are stored little-endian byte by byte, so a buffer needs no
// particular alignment.
#pragma once

#include "ornix.h"

static inline PSTREAM_PROPERTY_DESCRIPTOR OrnixPropertyDescriptor(PHW_STREAM_REQUEST_BLOCK Srb) {
    return Srb->CommandData.PropertyInfo;
}

// Whether the request names a property at all: a descriptor and a record
// that holds at least the KSPROPERTY header. The routers refuse any other.
BOOLEAN ORNIXAPI OrnixPropertyRequestIsSound(PHW_STREAM_REQUEST_BLOCK Srb);

// Property sets are told apart by all 16 bytes of their GUID.
static inline BOOLEAN OrnixIsPropertySet(const GUID* Set, const GUID* Wanted) {
    return RtlEqualMemory(Set, Wanted, sizeof(GUID));
}

// Property.Id of a request the router accepted.
ULONG ORNIXAPI OrnixPropertyId(PHW_STREAM_REQUEST_BLOCK Srb);

// The data buffer and its size; a missing buffer counts as 0 bytes.
PUCHAR ORNIXAPI OrnixPropertyData(PHW_STREAM_REQUEST_BLOCK Srb, PULONG Size);

// Fields of the property record past its header. FALSE when the record is
// too short to hold the field.
BOOLEAN ORNIXAPI OrnixRecordUlong(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PULONG Value);
BOOLEAN ORNIXAPI OrnixRecordUshort(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PUSHORT Value);
BOOLEAN ORNIXAPI OrnixRecordUchar(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Offset, PUCHAR Value);

// Little-endian words at any byte position.
static inline ULONG OrnixLoadUlong(const UCHAR* Bytes) {
    return (ULONG)Bytes[0] | ((ULONG)Bytes[1] << 8) | ((ULONG)Bytes[2] << 16) |
           ((ULONG)Bytes[3] << 24);
}
static inline USHORT OrnixLoadUshort(const UCHAR* Bytes) {
    return (USHORT)(Bytes[0] | (Bytes[1] << 8));
}
static inline VOID OrnixStoreUlong(PUCHAR Bytes, ULONG Value) {
    Bytes[0] = (UCHAR)Value;
    Bytes[1] = (UCHAR)(Value >> 8);
    Bytes[2] = (UCHAR)(Value >> 16);
    Bytes[3] = (UCHAR)(Value >> 24);
}
static inline VOID OrnixStoreUshort(PUCHAR Bytes, USHORT Value) {
    Bytes[0] = (UCHAR)Value;
    Bytes[1] = (UCHAR)(Value >> 8);
}
static inline VOID OrnixStoreUlonglong(PUCHAR Bytes, ULONGLONG Value) {
    OrnixStoreUlong(Bytes, (ULONG)Value);
    OrnixStoreUlong(Bytes + 4, (ULONG)(Value >> 32));
}

// The size rule of a get whose answer has a fixed size: an empty buffer asks
// for the size (STATUS_BUFFER_OVERFLOW, ActualBytesTransferred = AnswerSize),
// a smaller one is refused (STATUS_BUFFER_TOO_SMALL, 0 bytes). STATUS_SUCCESS
// with *Answer pointing at the buffer and ActualBytesTransferred = AnswerSize
// when the answer fits; the caller fills it in.
NTSTATUS ORNIXAPI OrnixFixedSizeAnswer(PHW_STREAM_REQUEST_BLOCK Srb, ULONG AnswerSize,
                                       PUCHAR* Answer);

// The data a set reads: STATUS_SUCCESS with *Data when the buffer holds at
// least `Needed` bytes; otherwise STATUS_BUFFER_TOO_SMALL with 0 bytes
// reported, and the caller changes nothing.
NTSTATUS ORNIXAPI OrnixSetData(PHW_STREAM_REQUEST_BLOCK Srb, ULONG Needed, PUCHAR* Data);

// The success rule of a set: a succeeded set reports the data buffer's size
// as transferred, a failed one 0. Returns Status.
NTSTATUS ORNIXAPI OrnixSetResult(PHW_STREAM_REQUEST_BLOCK Srb, NTSTATUS Status);
