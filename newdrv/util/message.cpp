// Messages to the camera: a header register, then the body in pieces of at
// most ORNIX_MESSAGE_PIECE_SIZE bytes through the message window.
#include "ornix.h"

// IRQL: PASSIVE_LEVEL. Anything but STATUS_SUCCESS ends the message.
NTSTATUS OrnixMessageWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Header, PVOID Buffer, ULONG Length) {
    OrnixVerbose(ORNIX_PREFIX "OrnixMessageWrite\n");
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_MESSAGE_HEADER, Header);
    if (status != STATUS_SUCCESS) {
        return status;
    }
    // An empty body is still announced by one write without data.
    if (Length == 0) {
        return OrnixBlockWrite(Ext, ORNIX_MESSAGE_DATA, Buffer, 0);
    }

    PUCHAR piece = (PUCHAR)Buffer;
    ULONG index = ORNIX_MESSAGE_DATA;
    ULONG remaining = Length;
    while (remaining > 0) {
        ULONG size = remaining < ORNIX_MESSAGE_PIECE_SIZE ? remaining : ORNIX_MESSAGE_PIECE_SIZE;
        status = OrnixBlockWrite(Ext, index, piece, size);
        if (status != STATUS_SUCCESS) {
            return status;
        }
        piece += size;
        index += size;
        remaining -= size;
    }
    return status;
}
