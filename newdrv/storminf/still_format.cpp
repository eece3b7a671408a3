// Still-format selection: the camera's separate still bank, programmed for a
// format, window, binning and start position. No frame rates here.
#include "bank_window.h"

// The four window writes, then the validation by a camera that places the
// window itself.
static NTSTATUS OrnixWriteStillWindow(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, ULONG Width,
                                      ULONG Height) {
    NTSTATUS status = OrnixWriteBankWindow(
        Ext, &OrnixStillWindow, Bank, Ext->StillBinningX, Ext->StillBinningY, Width, Height,
        Ext->StillStartX, Ext->StillStartY, &Ext->StillWindowWidth, &Ext->StillWindowHeight);
    if (!NT_SUCCESS(status) || !(Ext->SensorLayout & ORNIX_SENSOR_PLACES_WINDOW)) {
        return status;
    }
    return OrnixValidateBankWindow(Ext, &OrnixStillWindow, Bank, &Ext->StillStartX,
                                   &Ext->StillStartY);
}

// IRQL: PASSIVE_LEVEL, under RequestMutex, after OrnixValidateWindow (still).
NTSTATUS OrnixSelectStillFormat(PORNIX_DEVICE_CONTEXT Ext, PORNIX_FORMAT_RECORD Format, ULONG Width,
                                ULONG Height) {
    OrnixVerbose(ORNIX_PREFIX "OrnixSelectStillFormat\n");
    ULONG sensorWidth = Width * ORNIX_BIN_FACTOR(Ext->StillBinningX);
    ULONG sensorHeight = Height * ORNIX_BIN_FACTOR(Ext->StillBinningY);
    ULONG bank = Format->FormatIndex;

    if (Format != Ext->StillFormat) {
        NTSTATUS status =
            OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_COLOR_ID, bank), Format->ColourId);
        if (!NT_SUCCESS(status)) {
            DbgPrint(ORNIX_PREFIX "Failed to set the color ID\n");
            Ext->StillFormat = NULL;
            return status;
        }
        Ext->StillFormat = Format;
        Ext->StillWindowWidth = 0;
        Ext->StillWindowHeight = 0;
    }
    // An unchanged window ends the selection: the colour value still holds.
    if (sensorWidth == Ext->StillWindowWidth && sensorHeight == Ext->StillWindowHeight) {
        return STATUS_SUCCESS;
    }
    NTSTATUS status = OrnixWriteStillWindow(Ext, bank, sensorWidth, sensorHeight);
    if (!NT_SUCCESS(status)) {
        Ext->StillFormat = NULL;
        return status;
    }

    ULONG colour = 0;
    if (!NT_SUCCESS(OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_COLOR_ID, bank), &colour))) {
        DbgPrint(ORNIX_PREFIX "Failed to read the current color id\n");
        return STATUS_UNSUCCESSFUL;
    }
    Ext->StillColourValue = OrnixSelectedColourValue(Ext, colour, Format);
    return STATUS_SUCCESS;
}
