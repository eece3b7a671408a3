// Camera register access: each operation is one vendor control transfer,
// waited for and checked for length. IRQL: PASSIVE_LEVEL throughout.
#include "ornix.h"

// One per call, on the caller's stack; filled by OrnixRegRequestComplete.
typedef struct _ORNIX_REG_WAIT {
    KEVENT Done;
    NTSTATUS Status;
    ULONG Length;  // bytes requested, then bytes transferred
} ORNIX_REG_WAIT, *PORNIX_REG_WAIT;

NTSTATUS OrnixRegRequestComplete(PORNIX_DEVICE_CONTEXT Ext, PVOID WaitRecord, NTSTATUS Status) {
    PORNIX_REG_WAIT wait = (PORNIX_REG_WAIT)WaitRecord;
    wait->Status = Status;
    KeSetEvent(&wait->Done, IO_NO_INCREMENT, FALSE);
    return STATUS_MORE_PROCESSING_REQUIRED;
}

// Runs one transfer and waits for its callback. *Transferred receives the
// bytes moved (the requested length when the transfer failed).
static NTSTATUS OrnixRegTransfer(PORNIX_DEVICE_CONTEXT Ext, UCHAR Request, USHORT Value,
                                 USHORT Index, PVOID Buffer, ULONG Length, BOOLEAN DirectionIn,
                                 PULONG Transferred) {
    ORNIX_REG_WAIT wait;
    KeInitializeEvent(&wait.Done, NotificationEvent, FALSE);
    wait.Status = STATUS_UNSUCCESSFUL;
    wait.Length = Length;

    // At passive level the transfer and its callback have run on return.
    OrnixControlVendorCommand2(Ext, Request, Value, Index, Buffer, &wait.Length, DirectionIn,
                               OrnixRegRequestComplete, &wait);
    KeWaitForSingleObject(&wait.Done, Executive, KernelMode, FALSE, NULL);

    *Transferred = wait.Length;
    return wait.Status;
}

// A register index travels as the 16-bit wIndex.
static USHORT OrnixWireIndex(ULONG Index) {
    return (USHORT)(Index & 0xFFFF);
}

// Short answers are not checked: the camera's register reads are trusted.
NTSTATUS OrnixRegRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PULONG Value) {
    USHORT wIndex = OrnixWireIndex(Index);
    ULONG transferred;
    NTSTATUS status = OrnixRegTransfer(Ext, ORNIX_REQUEST_REGISTER, 0, wIndex, Value, sizeof(ULONG),
                                       TRUE, &transferred);
    if (NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "OrnixRegRead: index:0x%04x, read:0x%08lx\n", (ULONG)wIndex, *Value);
    } else {
        DbgPrint(ORNIX_PREFIX "OrnixRegRead: index:0x%04x FAIOLED\n", (ULONG)wIndex);
    }
    return status;
}

NTSTATUS OrnixRegWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, ULONG Value) {
    USHORT wIndex = OrnixWireIndex(Index);
    DbgPrint(ORNIX_PREFIX "OrnixRegWrite, index:0x%04x, value:0x%08lx\n", (ULONG)wIndex, Value);
    ULONG data = Value;
    ULONG transferred;
    NTSTATUS status = OrnixRegTransfer(Ext, ORNIX_REQUEST_REGISTER, 0, wIndex, &data, sizeof(data),
                                       FALSE, &transferred);
    if (NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "OrnixRegWrite, index:0x%04x, value:0x%08lx successful\n",
                 (ULONG)wIndex, Value);
    } else {
        DbgPrint(ORNIX_PREFIX " OrnixRegWrite fialed\n");
    }
    return status;
}

// A short block read is an error; the bytes that did arrive are in Buffer.
NTSTATUS OrnixBlockRead(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer, ULONG Length) {
    USHORT wIndex = OrnixWireIndex(Index);
    DbgPrint(ORNIX_PREFIX "OrnixBlockRead: 0x%x\n", (ULONG)wIndex);
    ULONG transferred;
    NTSTATUS status = OrnixRegTransfer(Ext, ORNIX_REQUEST_REGISTER, 0, wIndex, Buffer, Length, TRUE,
                                       &transferred);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (transferred < Length) {
        DbgPrint(ORNIX_PREFIX "OrnixBlockRead: partial transfer only\n");
        return STATUS_INVALID_PARAMETER;
    }

    // Property records (16 bytes) and value pairs (8 bytes) are worth seeing.
    ULONG words[4];
    if (Length == sizeof(words)) {
        RtlCopyMemory(words, Buffer, sizeof(words));
        DbgPrint(ORNIX_PREFIX "OrnixBlockRead of 0x%x: 0x%08lx 0x%08lx 0x%08lx 0x%08lx\n",
                 (ULONG)wIndex, words[0], words[1], words[2], words[3]);
    } else if (Length == 2 * sizeof(ULONG)) {
        RtlCopyMemory(words, Buffer, 2 * sizeof(ULONG));
        DbgPrint(ORNIX_PREFIX "OrnixBlockRead of 0x%x: 0x%08lx 0x%08lx\n", (ULONG)wIndex, words[0],
                 words[1]);
    }
    return status;
}

// Length 0 is a write without data stage.
NTSTATUS OrnixBlockWrite(PORNIX_DEVICE_CONTEXT Ext, ULONG Index, PVOID Buffer, ULONG Length) {
    USHORT wIndex = OrnixWireIndex(Index);
    if (Length == 2 * sizeof(ULONG)) {
        ULONG words[2];
        RtlCopyMemory(words, Buffer, sizeof(words));
        DbgPrint(ORNIX_PREFIX "OrnixBlockWrite, index:0x%04x, values:0x%x 0x%08lx\n", (ULONG)wIndex,
                 words[0], words[1]);
    } else {
        DbgPrint(ORNIX_PREFIX "OrnixBlockWrite, index:0x%04x, size:0x%x\n", (ULONG)wIndex, Length);
    }
    ULONG transferred;
    NTSTATUS status = OrnixRegTransfer(Ext, ORNIX_REQUEST_REGISTER, 0, wIndex, Buffer, Length,
                                       FALSE, &transferred);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX " OrnixBlockWrite fialed\n");
    }
    return status;
}

NTSTATUS OrnixSglRead(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value, USHORT Length,
                      PVOID Buffer) {
    DbgPrint(ORNIX_PREFIX "OrnixSglRead, index:%d, value:0x%x\n", (ULONG)Index, (ULONG)Value);
    ULONG transferred;
    NTSTATUS status =
        OrnixRegTransfer(Ext, ORNIX_REQUEST_SGL, Value, Index, Buffer, Length, TRUE, &transferred);
    if (NT_SUCCESS(status) && transferred < Length) {
        DbgPrint(ORNIX_PREFIX "OrnixSglRead: partial transfer only (index:0x%04x,val:0x%04x)\n",
                 (ULONG)Index, (ULONG)Value);
        return STATUS_INVALID_PARAMETER;
    }
    return status;
}

NTSTATUS OrnixSglWrite(PORNIX_DEVICE_CONTEXT Ext, USHORT Index, USHORT Value, USHORT Length,
                       PVOID Buffer) {
    DbgPrint(ORNIX_PREFIX "OrnixSglWrite, index: %d, value:0x%x\n", (ULONG)Index, (ULONG)Value);
    ULONG transferred;
    NTSTATUS status =
        OrnixRegTransfer(Ext, ORNIX_REQUEST_SGL, Value, Index, Buffer, Length, FALSE, &transferred);
    if (NT_SUCCESS(status) && transferred < Length) {
        DbgPrint(ORNIX_PREFIX "OrnixSglWritew: partial transfer only\n");
        return STATUS_INVALID_PARAMETER;
    }
    return status;
}
