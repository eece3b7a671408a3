// The window writes and the position validation that capture and still
// selection share; each bank kind names its registers and failure lines.
#pragma once
#include "ornix.h"

// The binning factor is the low byte of a binning value.
#define ORNIX_BIN_FACTOR(v) ((v)&0xFF)
// Both halves of a position register, sign-extended.
#define ORNIX_POSITION_X(v) ((LONG)(SHORT)((v)&0xFFFF))
#define ORNIX_POSITION_Y(v) ((LONG)(SHORT)((v) >> 16))

// One kind of format bank (capture or still): register indices of bank 0,
// and the line printed when each write or read fails.
typedef struct _ORNIX_BANK_WINDOW {
    ULONG Position;
    ULONG Binning;
    ULONG Size;
    ULONG Validate;
    const char* PositionFailed;
    const char* BinningFailed;
    const char* SizeFailed;
    const char* CentreFailed;
    const char* ValidateFailed;
} ORNIX_BANK_WINDOW;

extern const ORNIX_BANK_WINDOW OrnixCaptureWindow;
extern const ORNIX_BANK_WINDOW OrnixStillWindow;

// Writes position 0, the binning, the sensor window and then the start
// position, in that order. *WindowWidth and *WindowHeight take the window
// once its size is written. IRQL: PASSIVE_LEVEL.
NTSTATUS ORNIXAPI OrnixWriteBankWindow(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_BANK_WINDOW* Kind,
                                       ULONG Bank, ULONG BinningX, ULONG BinningY, ULONG Width,
                                       ULONG Height, LONG StartX, LONG StartY, PULONG WindowWidth,
                                       PULONG WindowHeight);

// Asks a camera that places the window itself to check it, and reads back
// the start position it settled on. IRQL: PASSIVE_LEVEL.
NTSTATUS ORNIXAPI OrnixValidateBankWindow(PORNIX_DEVICE_CONTEXT Ext, const ORNIX_BANK_WINDOW* Kind,
                                          ULONG Bank, PLONG StartX, PLONG StartY);

// The colour value a bank reads back after a selection; a camera that does
// not place the window itself may read 0, which stands for the record's id.
static inline ULONG OrnixSelectedColourValue(PORNIX_DEVICE_CONTEXT Ext, ULONG ReadBack,
                                             PORNIX_FORMAT_RECORD Format) {
    if (ReadBack == 0 && !(Ext->SensorLayout & ORNIX_SENSOR_PLACES_WINDOW)) {
        return Format->ColourId;
    }
    return ReadBack;
}
