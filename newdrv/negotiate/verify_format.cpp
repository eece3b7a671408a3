// Verification of the concrete format a stream is opened with: acceptable
// for the pin, and programmed into the camera.
#include "negotiate.h"

// Steps 1 to 4: the format is one of this range's. Messages as printed.
static BOOLEAN OrnixFormatFitsRange(PORNIX_DEVICE_CONTEXT Ext,
                                    const KS_DATAFORMAT_VIDEOINFOHEADER* Format,
                                    const KS_DATARANGE_VIDEO* Offered, ULONG StreamNumber,
                                    ULONG Width, ULONG Height) {
    if (!OrnixSameGuid(&Format->DataFormat.MajorFormat, &Offered->DataRange.MajorFormat)) {
        DbgPrint(ORNIX_PREFIX "GUID major format do not match\n");
        return FALSE;
    }
    if (!OrnixSameGuid(&Format->DataFormat.SubFormat, &Offered->DataRange.SubFormat)) {
        DbgPrint(ORNIX_PREFIX "GUID sub format do not match\n");
        return FALSE;
    }
    if (!OrnixSameGuid(&Format->DataFormat.Specifier, &Offered->DataRange.Specifier)) {
        DbgPrint(ORNIX_PREFIX "GUID specifier do not match\n");
        return FALSE;
    }
    if (Format->VideoInfoHeader.bmiHeader.biBitCount !=
        Offered->VideoInfoHeader.bmiHeader.biBitCount) {
        DbgPrint(ORNIX_PREFIX "Invalid bit count\n");
        return FALSE;
    }
    ULONG colourId = OrnixRangeRecord((PKSDATAFORMAT)Offered)->ColourId;
    if (Format->VideoInfoHeader.bmiHeader.biSizeImage !=
        GetUsbFrameSize(Ext, StreamNumber, colourId, Width, Height)) {
        DbgPrint(ORNIX_PREFIX "Invalid size image\n");
        return FALSE;
    }
    if (OrnixWindowTooLarge(Offered, Width, Height)) {
        OrnixVerbose("Window too large\n");
        return FALSE;
    }
    if (OrnixWindowOffGrid(Offered, Width, Height)) {
        OrnixVerbose("Window not multiple\n");
        return FALSE;
    }
    return TRUE;
}

// Step 5: programs the camera for the stream; the binning and start it
// settled on become the requested ones. FALSE when the camera refused.
static BOOLEAN OrnixProgramVerified(PORNIX_DEVICE_CONTEXT Ext,
                                    const KS_DATAFORMAT_VIDEOINFOHEADER* Format,
                                    const KS_DATARANGE_VIDEO* Offered, ULONG StreamNumber,
                                    ULONG Width, ULONG Height, PULONG ColourValue) {
    PORNIX_FORMAT_RECORD record = OrnixRangeRecord((PKSDATAFORMAT)Offered);
    ULONG maxWidth = (ULONG)Offered->ConfigCaps.MaxOutputSize.cx;
    ULONG maxHeight = (ULONG)Offered->ConfigCaps.MaxOutputSize.cy;
    if (StreamNumber == ORNIX_CAPTURE_STREAM) {
        OrnixValidateWindow(Ext, FALSE, Width, Height, maxWidth, maxHeight);
        LONGLONG requested = Format->VideoInfoHeader.AvgTimePerFrame;
        if (!NT_SUCCESS(OrnixSelectFormat(Ext, record, Width, Height, TRUE, &requested, NULL))) {
            OrnixVerbose("Ohh... Failed to select the format\n");
            return FALSE;
        }
        Ext->RequestedBinX = Ext->BinningX;
        Ext->RequestedBinY = Ext->BinningY;
        Ext->RequestedStartX = Ext->StartX;
        Ext->RequestedStartY = Ext->StartY;
        *ColourValue = Ext->CaptureColourValue;
        return TRUE;
    }
    OrnixValidateWindow(Ext, TRUE, Width, Height, maxWidth, maxHeight);
    if (!NT_SUCCESS(OrnixSelectStillFormat(Ext, record, Width, Height))) {
        OrnixVerbose("Ohh... Failed to select the still format\n");
        return FALSE;
    }
    Ext->RequestedStillBinX = Ext->StillBinningX;
    Ext->RequestedStillBinY = Ext->StillBinningY;
    Ext->RequestedStillStartX = Ext->StillStartX;
    Ext->RequestedStillStartY = Ext->StillStartY;
    *ColourValue = Ext->StillColourValue;
    return TRUE;
}

// IRQL: PASSIVE_LEVEL, under RequestMutex (stream open). Every candidate
// that passes the checks is programmed, even if a later check refuses it.
BOOLEAN AdapterVerifyFormat(PORNIX_DEVICE_CONTEXT Ext, PKSDATAFORMAT Format, ULONG StreamNumber) {
    if (!Ext->Initialized || OrnixFlagIsSet(&Ext->Uninitializing)) {
        DbgPrint(ORNIX_PREFIX " ext NOT Initialized \n");
        return FALSE;
    }
    if (StreamNumber != ORNIX_CAPTURE_STREAM && StreamNumber != ORNIX_STILL_STREAM) {
        return FALSE;
    }
    // The fields below lie in the video information header: a shorter
    // format cannot be one of ours, and must not be read past its end.
    if (Format == NULL || Format->FormatSize < sizeof(KS_DATAFORMAT_VIDEOINFOHEADER)) {
        return FALSE;
    }
    const KS_DATAFORMAT_VIDEOINFOHEADER* format = (const KS_DATAFORMAT_VIDEOINFOHEADER*)Format;
    const KS_BITMAPINFOHEADER* bitmap = &format->VideoInfoHeader.bmiHeader;
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: Stream=%d\n", (int)StreamNumber);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: FormatSize=%d\n", (int)Format->FormatSize);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: MajorFormat=%x\n",
                 (ULONG)Format->MajorFormat.Data1);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: pVideoInfoHdrToVerify=%x\n",
                 (ULONG)(ULONG_PTR)&format->VideoInfoHeader);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: KS_VIDEOINFOHEADER size =%d\n",
                 (int)sizeof(KS_VIDEOINFOHEADER));
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: Width=%d Height=%d  biBitCount=%d\n",
                 (int)bitmap->biWidth, (int)bitmap->biHeight, (int)bitmap->biBitCount);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: biSizeImage =%d\n", (int)bitmap->biSizeImage);
    OrnixVerbose(ORNIX_PREFIX "AdapterVerifyFormat: AvgTimePerFrame =%d\n",
                 (int)format->VideoInfoHeader.AvgTimePerFrame);

    ULONG width = (ULONG)bitmap->biWidth;
    ULONG height = OrnixAbsoluteHeight(bitmap->biHeight);
    for (ULONG i = 0; i < Ext->CaptureFormatCount; i++) {
        const KS_DATARANGE_VIDEO* offered = (const KS_DATARANGE_VIDEO*)Ext->CaptureFormats[i];
        if (!OrnixFormatFitsRange(Ext, format, offered, StreamNumber, width, height)) {
            continue;
        }
        ULONG colourValue = 0;
        if (!OrnixProgramVerified(Ext, format, offered, StreamNumber, width, height,
                                  &colourValue)) {
            continue;
        }
        ULONG needed = OrnixColourFourCC(colourValue);
        if (bitmap->biCompression != needed) {
            DbgPrint(ORNIX_PREFIX "Invalid compression, format:0x%x, needs0x%x\n",
                     (ULONG)bitmap->biCompression, needed);
            continue;
        }
        BOOLEAN bottomUp = (colourValue & ORNIX_COLOUR_VALUE_BOTTOM_UP) != 0;
        if ((bitmap->biHeight > 0) != bottomUp) {
            DbgPrint(ORNIX_PREFIX "Invalid biHeight polarity, biHeight:%d, bottomTop:%d\n",
                     (int)bitmap->biHeight, bottomUp ? 1 : 0);
            continue;
        }
        OrnixVerbose(ORNIX_PREFIX "OrnixSelectFormat success, %dx%d, AvgTimePerFrame:%d\n",
                     (int)width, (int)height, (int)format->VideoInfoHeader.AvgTimePerFrame);
        return TRUE;
    }
    return FALSE;
}
