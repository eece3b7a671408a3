// Reconciles the binning and start position asked for with the window an
// application wants, before a capture or still format is selected.
#include "bank_window.h"

// IRQL: PASSIVE_LEVEL, under RequestMutex.
VOID OrnixValidateWindow(PORNIX_DEVICE_CONTEXT Ext, BOOLEAN Still, ULONG Width, ULONG Height,
                         ULONG MaxWidth, ULONG MaxHeight) {
    ULONG bx = Still ? Ext->RequestedStillBinX : Ext->RequestedBinX;
    ULONG by = Still ? Ext->RequestedStillBinY : Ext->RequestedBinY;
    LONG sx = Still ? Ext->RequestedStillStartX : Ext->RequestedStartX;
    LONG sy = Still ? Ext->RequestedStillStartY : Ext->RequestedStartY;

    // 64-bit products and sums: a requested start is an application's
    // number and may be anywhere in the 32-bit range.
    if ((ULONGLONG)Width * ORNIX_BIN_FACTOR(bx) > MaxWidth ||
        (ULONGLONG)Height * ORNIX_BIN_FACTOR(by) > MaxHeight) {
        DbgPrint(ORNIX_PREFIX "width/height (%d/%d) too much for binning(%d/%d), resetting it\n",
                 (int)Width, (int)Height, (int)ORNIX_BIN_FACTOR(bx), (int)ORNIX_BIN_FACTOR(by));
        bx = 1;
        by = 1;
    }
    LONGLONG sensorWidth = (LONGLONG)Width * ORNIX_BIN_FACTOR(bx);
    LONGLONG sensorHeight = (LONGLONG)Height * ORNIX_BIN_FACTOR(by);
    if (sensorWidth + sx > (LONGLONG)MaxWidth) {
        DbgPrint(ORNIX_PREFIX "Bad startX, resetting it\n");
        sx = (LONG)((LONGLONG)MaxWidth - sensorWidth);
    }
    if (sensorHeight + sy > (LONGLONG)MaxHeight) {
        DbgPrint(ORNIX_PREFIX "Bad startY, resetting it\n");
        sy = (LONG)((LONGLONG)MaxHeight - sensorHeight);
    }
    if (sx < 0) {
        DbgPrint(ORNIX_PREFIX "Bad startX, resetting it\n");
        sx = 0;
    }
    if (sy < 0) {
        DbgPrint(ORNIX_PREFIX "Bad startY, resetting it\n");
        sy = 0;
    }

    if (Still) {
        if (bx != Ext->StillBinningX || by != Ext->StillBinningY || sx != Ext->StillStartX ||
            sy != Ext->StillStartY) {
            Ext->StillWindowWidth = 0;
            Ext->StillWindowHeight = 0;
            Ext->StillBinningX = bx;
            Ext->StillBinningY = by;
            Ext->StillStartX = sx;
            Ext->StillStartY = sy;
        }
        return;
    }
    if (bx != Ext->BinningX || by != Ext->BinningY || sx != Ext->StartX || sy != Ext->StartY) {
        // Another binning or start changes the window and so the frame rates.
        Ext->WindowWidth = 0;
        Ext->WindowHeight = 0;
        Ext->FreqMin = 0;
        Ext->FreqMax = 0;
        Ext->FreqCur = 0;
        OrnixDiscardFreqChart(Ext);
        Ext->BinningX = bx;
        Ext->BinningY = by;
        Ext->StartX = sx;
        Ext->StartY = sy;
    }
}
