// Defective-pixel correction of a delivered frame, in place on the reader's
// buffer. Runs in the bulk completion path (DISPATCH_LEVEL): one pass over the
// defect list, at most four neighbour reads per defect, no allocation.
//
// Arithmetic is signed 32-bit with wrap-around, as the camera's coordinates
// are; the helpers below wrap without relying on signed overflow.
#include "ornix.h"

// Colour value fields used here.
static const ULONG OrnixDefectInterlaced = 0x01000000;
static const ULONG OrnixDefectPointList = 129;  // frames of pixel records, not rasters
static const ULONG OrnixDefectLastRaster = 31;
// SensorLayout bits.
static const ULONG OrnixLayoutColourPairs = 1;  // colour-pair mapping on a monochrome camera
static const ULONG OrnixLayoutNoRowShift = 2;

// Camera models whose sensor reports window rows two lower than the defect
// list counts them (compared with the low 8 bits of the camera id).
static const UCHAR OrnixRowShiftModels[14] = {0x11, 0x12, 0x13, 0x14, 0x15, 0x21, 0x22,
                                              0x23, 0x24, 0x31, 0x32, 0x41, 0x42, 0x51};
// Camera models whose defect list is measured from 4 pixels before the
// window origin (compared with the whole camera id).
static const ULONG OrnixOriginShiftModels[3] = {0x1361, 0x1362, 0x1371};

BOOLEAN OrnixHasDefectRowShift(ULONG CameraId) {
    for (ULONG i = 0; i < ARRAYSIZE(OrnixRowShiftModels); i++) {
        if ((CameraId & 0xFF) == OrnixRowShiftModels[i]) {
            return TRUE;
        }
    }
    return FALSE;
}

BOOLEAN OrnixHasDefectOriginShift(ULONG CameraId) {
    for (ULONG i = 0; i < ARRAYSIZE(OrnixOriginShiftModels); i++) {
        if (CameraId == OrnixOriginShiftModels[i]) {
            return TRUE;
        }
    }
    return FALSE;
}

static inline LONG OrnixAdd32(LONG a, LONG b) {
    return (LONG)((ULONG)a + (ULONG)b);
}
static inline LONG OrnixSub32(LONG a, LONG b) {
    return (LONG)((ULONG)a - (ULONG)b);
}

static inline ULONG OrnixGet16(const UCHAR* p) {
    return (ULONG)p[0] | ((ULONG)p[1] << 8);
}

enum OrnixSampleKind { OrnixSample8, OrnixSample16Le, OrnixSample16Be };

// Where the stream's frame sits on the sensor, and how it is laid out.
struct OrnixDefectGeometry {
    LONG X0, Y0, W, H;
    LONG BX, BY;
    LONG OutW, OutH;
    LONG PX, PY;
    BOOLEAN Plain;  // monochrome without colour pairs
    BOOLEAN Interlaced;
};

// Maps sensor pixel (X, Y) to frame column and row; FALSE when it has no
// place on the binning grid of the window.
static BOOLEAN OrnixMapDefect(const OrnixDefectGeometry* G, LONG X, LONG Y, LONG* Column,
                              LONG* Row) {
    if (X < G->X0 || X >= OrnixAdd32(G->X0, G->W) || Y < G->Y0 || Y >= OrnixAdd32(G->Y0, G->H)) {
        return FALSE;
    }
    if (G->Plain) {
        LONG dx = OrnixSub32(X, G->X0);
        LONG dy = OrnixSub32(Y, G->Y0);
        if (dx % G->BX != 0 || dy % G->BY != 0) {
            return FALSE;
        }
        *Column = dx / G->BX;
        *Row = dy / G->BY;
        return TRUE;
    }
    LONG dx = OrnixSub32(OrnixSub32(X, G->X0), G->PX);
    LONG dy = OrnixSub32(OrnixSub32(Y, G->Y0), G->PY);
    if ((dx / 2) % G->BX != 0 || (dy / 2) % G->BY != 0) {
        return FALSE;
    }
    // Both members of a colour pair stay next to each other after binning;
    // the phase moves the grid by whole binned pairs.
    *Column = OrnixAdd32(OrnixAdd32((dx & ~1) / G->BX, dx & 1), (G->PX + 1) / (2 * G->BX));
    *Row = OrnixAdd32(OrnixAdd32((dy & ~1) / G->BY, dy & 1), (G->PY + 1) / (2 * G->BY));
    return TRUE;
}

// A raster frame as delivered: Length may fall short of the full raster, so
// every sample is checked against both the raster and the bytes present.
struct OrnixRaster {
    PUCHAR Frame;
    ULONG Length;
    OrnixSampleKind Kind;
    LONG OutW, OutH;
};

static BOOLEAN OrnixSampleOffset(const OrnixRaster* F, LONG Column, LONG Row, ULONG* Offset) {
    if (Column < 0 || Column >= F->OutW || Row < 0 || Row >= F->OutH) {
        return FALSE;
    }
    ULONG size = F->Kind == OrnixSample8 ? 1 : 2;
    ULONGLONG offset = ((ULONGLONG)(ULONG)Row * (ULONG)F->OutW + (ULONG)Column) * size;
    if (offset + size > F->Length) {
        return FALSE;
    }
    *Offset = (ULONG)offset;
    return TRUE;
}

static ULONG OrnixLoadSample(const OrnixRaster* F, ULONG Offset) {
    const UCHAR* p = F->Frame + Offset;
    switch (F->Kind) {
        case OrnixSample8:
            return p[0];
        case OrnixSample16Le:
            return OrnixGet16(p);
        default:
            return ((ULONG)p[0] << 8) | p[1];
    }
}

static VOID OrnixStoreSample(const OrnixRaster* F, ULONG Offset, ULONG Value) {
    PUCHAR p = F->Frame + Offset;
    switch (F->Kind) {
        case OrnixSample8:
            p[0] = (UCHAR)Value;
            break;
        case OrnixSample16Le:
            p[0] = (UCHAR)Value;
            p[1] = (UCHAR)(Value >> 8);
            break;
        default:
            p[0] = (UCHAR)(Value >> 8);
            p[1] = (UCHAR)Value;
            break;
    }
}

// Reads the pair at (C1, R1) and (C2, R2); FALSE when either lies outside.
static BOOLEAN OrnixLoadPair(const OrnixRaster* F, LONG C1, LONG R1, LONG C2, LONG R2, ULONG* First,
                             ULONG* Second) {
    ULONG o1, o2;
    if (!OrnixSampleOffset(F, C1, R1, &o1) || !OrnixSampleOffset(F, C2, R2, &o2)) {
        return FALSE;
    }
    *First = OrnixLoadSample(F, o1);
    *Second = OrnixLoadSample(F, o2);
    return TRUE;
}

static inline ULONG OrnixDifference(ULONG a, ULONG b) {
    return a > b ? a - b : b - a;
}

// Replaces sample (C, R) by the mean of the nearer-matching pair of
// same-colour neighbours d away. A target or pair outside the frame (window
// not a multiple of the binning, phase, interlace with vertical binning, short
// frame) is never touched: the target is then left as it is, and a pair that
// does not fit is not a candidate.
static VOID OrnixCorrectSample(const OrnixRaster* F, const OrnixDefectGeometry* G, LONG D, LONG C,
                               LONG R) {
    ULONG target;
    if (!OrnixSampleOffset(F, C, R, &target)) {
        return;
    }
    ULONG first = 0, second = 0;
    BOOLEAN havePair;
    BOOLEAN haveDifference = FALSE;
    ULONG difference = 0;
    if (C < D) {
        havePair = OrnixLoadPair(F, D, R, D, R, &first, &second);
    } else if (C >= OrnixSub32(F->OutW, D)) {
        havePair = OrnixLoadPair(F, OrnixSub32(C, D), R, OrnixSub32(C, D), R, &first, &second);
    } else {
        havePair = OrnixLoadPair(F, OrnixSub32(C, D), R, OrnixAdd32(C, D), R, &first, &second);
        haveDifference = havePair;
        difference = OrnixDifference(first, second);
    }
    if (!G->Interlaced && R >= D && R < OrnixSub32(F->OutH, D)) {
        ULONG up, down;
        if (OrnixLoadPair(F, C, OrnixSub32(R, D), C, OrnixAdd32(R, D), &up, &down)) {
            ULONG vertical = OrnixDifference(up, down);
            // On a tie the horizontal pair stays.
            if (!havePair || !haveDifference || vertical < difference) {
                first = up;
                second = down;
                havePair = TRUE;
            }
        }
    }
    if (havePair) {
        OrnixStoreSample(F, target, (first + second) / 2);
    }
}

// Strikes the listed pixels out of a point-list frame (6-byte records x, y,
// value, sorted by y then x) by zeroing their y. The list is expected in the
// same order, so one forward cursor serves the whole list.
static VOID OrnixStrikePoints(const OrnixDefectGeometry* G, const UCHAR* Defects, ULONG Count,
                              PUCHAR Frame, ULONG Length) {
    ULONG p = 0;
    for (ULONG i = 0; i < Count; i++) {
        LONG c, r;
        if (!OrnixMapDefect(G, (LONG)OrnixGet16(Defects + 4 * i),
                            (LONG)OrnixGet16(Defects + 4 * i + 2), &c, &r)) {
            continue;
        }
        // A record ending exactly at the frame's end is not examined.
        while (Length > 6 && p < Length - 6) {
            LONG x = (LONG)OrnixGet16(Frame + p);
            LONG y = (LONG)OrnixGet16(Frame + p + 2);
            if (y == r && x == c) {
                Frame[p + 2] = 0;
                Frame[p + 3] = 0;
                break;
            }
            if (y > r || (y == r && x > c)) {
                break;
            }
            p += 6;
        }
    }
}

static VOID OrnixCorrectRaster(const OrnixDefectGeometry* G, const OrnixRaster* F,
                               BOOLEAN Monochrome, const UCHAR* Defects, ULONG Count) {
    // The nearest pixel of the same colour in a mosaic is two away.
    const LONG d = Monochrome ? 1 : 2;
    for (ULONG i = 0; i < Count; i++) {
        LONG c, r;
        if (!OrnixMapDefect(G, (LONG)OrnixGet16(Defects + 4 * i),
                            (LONG)OrnixGet16(Defects + 4 * i + 2), &c, &r)) {
            continue;
        }
        if (G->Interlaced) {
            // Even picture rows first, odd rows after them; H counts sensor
            // rows, so with vertical binning an odd row can land past the
            // frame and is then left alone.
            r = (r % 2 == 0) ? r / 2 : OrnixAdd32(G->H / 2, r / 2);
        }
        OrnixCorrectSample(F, G, d, c, r);
    }
}

// Sample layout of a raster colour id; FALSE for 12- and 24-bit pixels,
// which are not 16-bit samples and are left uncorrected.
static BOOLEAN OrnixRasterSampleKind(ULONG ColourId, OrnixSampleKind* Kind) {
    switch (OrnixBitsPerPixel(ColourId)) {
        case 8:
            *Kind = OrnixSample8;
            return TRUE;
        case 16:
            *Kind = (ColourId == 6 || ColourId >= 24) ? OrnixSample16Le : OrnixSample16Be;
            return TRUE;
        default:
            return FALSE;
    }
}

// Everything but the defect list, which the caller reads under DefectLock.
static VOID OrnixCorrectWithList(PORNIX_DEVICE_CONTEXT Ext, PUCHAR Frame, ULONG Length,
                                 BOOLEAN Still, const UCHAR* Defects, ULONG Count) {
    ULONG colourValue = Still ? Ext->StillColourValue : Ext->CaptureColourValue;
    ULONG binX = Still ? Ext->StillBinningX : Ext->BinningX;
    ULONG binY = Still ? Ext->StillBinningY : Ext->BinningY;
    OrnixDefectGeometry g;
    g.W = (LONG)(Still ? Ext->StillWindowWidth : Ext->WindowWidth);
    g.H = (LONG)(Still ? Ext->StillWindowHeight : Ext->WindowHeight);
    g.X0 = Still ? Ext->StillStartX : Ext->StartX;
    g.Y0 = Still ? Ext->StillStartY : Ext->StartY;
    g.Interlaced = (colourValue & OrnixDefectInterlaced) != 0;

    if ((Ext->SensorLayout & OrnixLayoutNoRowShift) == 0 && g.Y0 != 0 &&
        OrnixHasDefectRowShift(Ext->CameraId)) {
        g.Y0 = OrnixAdd32(g.Y0, 2);
    }
    if (OrnixHasDefectOriginShift(Ext->CameraId)) {
        g.X0 = OrnixSub32(g.X0, 4);
        g.Y0 = OrnixSub32(g.Y0, 4);
    }

    ULONG colourId = colourValue & 0xFF;
    if (binX == 0 || binY == 0 || binX >= 65536 || binY >= 65536) {
        return;
    }
    g.BX = (LONG)binX;
    g.BY = (LONG)binY;
    g.OutW = g.W / g.BX;
    g.OutH = g.H / g.BY;
    g.PX = (LONG)(Ext->SensorOrigin & 0xFFFF) % (2 * g.BX);
    g.PY = (LONG)(Ext->SensorOrigin >> 16) % (2 * g.BY);
    g.Plain = Ext->Monochrome && (Ext->SensorLayout & OrnixLayoutColourPairs) == 0;

    if (colourId == OrnixDefectPointList) {
        OrnixStrikePoints(&g, Defects, Count, Frame, Length);
        return;
    }
    OrnixRaster raster;
    if (colourId > OrnixDefectLastRaster || !OrnixRasterSampleKind(colourId, &raster.Kind)) {
        return;
    }
    raster.Frame = Frame;
    raster.Length = Length;
    raster.OutW = g.OutW;
    raster.OutH = g.OutH;
    OrnixCorrectRaster(&g, &raster, Ext->Monochrome, Defects, Count);
}

// IRQL: <= DISPATCH_LEVEL. DefectLock keeps the list alive while it is
// walked: a product-data reload unpublishes it under the same lock. The
// switch is read under it too, as the property request turns it on and off
// while frames arrive.
VOID OrnixCorrectDefectivePixels(PORNIX_DEVICE_CONTEXT Ext, PUCHAR Frame, ULONG Length,
                                 BOOLEAN Still) {
    KIRQL oldIrql;
    KeAcquireSpinLock(&Ext->DefectLock, &oldIrql);
    if (Ext->PixelCorrectionEnabled && Ext->DefectSection) {
        OrnixCorrectWithList(Ext, Frame, Length, Still, Ext->DefectSection,
                             Ext->DefectSectionLength / 4);
    }
    KeReleaseSpinLock(&Ext->DefectLock, oldIrql);
}
