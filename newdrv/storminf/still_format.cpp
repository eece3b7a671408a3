// Still-format selection: the camera's separate still bank, programmed for a
// format, window, binning and start position. No frame rates here.
#include "ornix.h"

#define ORNIX_BIN_FACTOR(v) ((v)&0xFF)
#define ORNIX_POSITION_X(v) ((LONG)(SHORT)((v)&0xFFFF))
#define ORNIX_POSITION_Y(v) ((LONG)(SHORT)((v) >> 16))

// The four window writes and the validation; messages printed here.
static NTSTATUS OrnixWriteStillWindow(PORNIX_DEVICE_CONTEXT Ext, ULONG Bank, ULONG Width,
                                      ULONG Height) {
    NTSTATUS status = OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_POSITION, Bank), 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to set the position\n");
        return status;
    }
    status = OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_BINNING, Bank),
                           Ext->StillBinningX | (Ext->StillBinningY << 16));
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to set the binning\n");
        return status;
    }
    status =
        OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_SIZE, Bank), Width | (Height << 16));
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to set the size\n");
        return status;
    }
    Ext->StillWindowWidth = Width;
    Ext->StillWindowHeight = Height;
    status = OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_POSITION, Bank),
                           ((ULONG)Ext->StillStartY << 16) | ((ULONG)Ext->StillStartX & 0xFFFF));
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to set the position to centered\n");
        return status;
    }
    if (!(Ext->SensorLayout & ORNIX_SENSOR_PLACES_WINDOW)) {
        return STATUS_SUCCESS;
    }
    status = OrnixRegWrite(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_VALIDATE, Bank), 0);
    if (!NT_SUCCESS(status)) {
        DbgPrint("Failed to validate\n");
        return status;
    }
    ULONG position = 0;
    status = OrnixRegRead(Ext, ORNIX_BANK_REGISTER(ORNIX_STILL_POSITION, Bank), &position);
    if (!NT_SUCCESS(status)) {
        DbgPrint(ORNIX_PREFIX "Failed to read cur pos\n");
        return status;
    }
    Ext->StillStartX = ORNIX_POSITION_X(position);
    Ext->StillStartY = ORNIX_POSITION_Y(position);
    return STATUS_SUCCESS;
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
    if (colour == 0 && !(Ext->SensorLayout & ORNIX_SENSOR_PLACES_WINDOW)) {
        colour = Format->ColourId;
    }
    Ext->StillColourValue = colour;
    return STATUS_SUCCESS;
}
