// KSPROPERTY_OXCUSTOM_LUT8 set: the 8-bit look-up table goes to the camera
// through the message window, and the driver keeps a copy for later gets.
#include "custom_set.h"

// The camera takes at most this much of a table.
#define ORNIX_LUT8_SENT_MAX 256

// The copy holds the whole buffer, also beyond what the camera took. A
// copy that cannot be allocated is not an error: the table was sent, and
// later gets report no table.
static VOID OrnixKeepLut8(PORNIX_DEVICE_CONTEXT Ext, const UCHAR* Table, ULONG Length) {
    if (Ext->Lut8Buffer != NULL && Ext->Lut8Length != Length) {
        OrnixFreePool(Ext->Lut8Buffer);
        Ext->Lut8Buffer = NULL;
        Ext->Lut8Length = 0;
    }
    if (Ext->Lut8Buffer == NULL && Length != 0) {
        Ext->Lut8Buffer = (PUCHAR)OrnixAllocatePool(Length);
        if (Ext->Lut8Buffer != NULL) {
            Ext->Lut8Length = Length;
        }
    }
    if (Ext->Lut8Buffer != NULL) {
        RtlCopyMemory(Ext->Lut8Buffer, Table, Length);
    }
}

NTSTATUS OrnixSetLut8(PORNIX_DEVICE_CONTEXT Ext, PHW_STREAM_REQUEST_BLOCK Srb) {
    ULONG size;
    PUCHAR table = OrnixPropertyData(Srb, &size);
    ULONG sent = size < ORNIX_LUT8_SENT_MAX ? size : ORNIX_LUT8_SENT_MAX;
    NTSTATUS status = OrnixMessageWrite(Ext, 0, table, sent);
    if (NT_SUCCESS(status)) {
        OrnixKeepLut8(Ext, table, size);
    }
    return OrnixSetResult(Srb, status);
}
