// Window writes and position validation of a capture or still bank.
#include "bank_window.h"

const ORNIX_BANK_WINDOW OrnixCaptureWindow = {
    ORNIX_FMT_POSITION,
    ORNIX_FMT_BINNING,
    ORNIX_FMT_SIZE,
    ORNIX_FMT_VALIDATE,
    ORNIX_PREFIX "Failed to set the position\n",
    ORNIX_PREFIX "Failed to set the binning\n",
    ORNIX_PREFIX "Failed to set the size\n",
    ORNIX_PREFIX "Failed to set the position to centered\n",
    "Failed to validate\n",
};

// The still bank's window lines carry no prefix.
const ORNIX_BANK_WINDOW OrnixStillWindow = {
    ORNIX_STILL_POSITION,
    ORNIX_STILL_BINNING,
    ORNIX_STILL_SIZE,
    ORNIX_STILL_VALIDATE,
    "Failed to set the position\n",
    "Failed to set the binning\n",
    "Failed to set the size\n",
    "Failed to set the position to centered\n",
    "Failed to validate\n",
};

static NTSTATUS OrnixWriteBankRegister(PORNIX_DEVICE_CONTEXT Ext, ULONG Register, ULONG Bank,
                                       ULONG Value, const char* FailureLine) {
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(Register, Bank), Value);
    if (!NT_SUCCESS(status)) {
        DbgPrint("%s", FailureLine);
    }
    return status;
}

NTSTATUS OrnixWriteBankWindow(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_BANK_WINDOW* Kind, ULONG Bank,
                              ULONG BinningX, ULONG BinningY, ULONG Width, ULONG Height,
                              LONG StartX, LONG StartY, PULONG WindowWidth, PULONG WindowHeight) {
    NTSTATUS status = OrnixWriteBankRegister(Ext, Kind->Position, Bank, 0, Kind->PositionFailed);
    if (NT_SUCCESS(status)) {
        status = OrnixWriteBankRegister(Ext, Kind->Binning, Bank, BinningX | (BinningY << 16),
                                        Kind->BinningFailed);
    }
    if (NT_SUCCESS(status)) {
        status =
            OrnixWriteBankRegister(Ext, Kind->Size, Bank, Width | (Height << 16), Kind->SizeFailed);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *WindowWidth = Width;
    *WindowHeight = Height;
    // The camera keeps 16 bits of each coordinate; the shift is unsigned.
    return OrnixWriteBankRegister(Ext, Kind->Position, Bank,
                                  ((ULONG)StartY << 16) | ((ULONG)StartX & 0xFFFF),
                                  Kind->CentreFailed);
}

NTSTATUS OrnixValidateBankWindow(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_BANK_WINDOW* Kind,
                                 ULONG Bank, PLONG StartX, PLONG StartY) {
    NTSTATUS status = OrnixWriteBankRegister(Ext, Kind->Validate, Bank, 0, Kind->ValidateFailed);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ULONG position = 0;
    status = OrnixRegRead(Ext, ORNIX_BANK_REGISTER(Kind->Position, Bank), &position);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to read cur pos\n");
        return status;
    }
    *StartX = ORNIX_POSITION_X(position);
    *StartY = ORNIX_POSITION_Y(position);
    return STATUS_SUCCESS;
}
