// Media-specific kernel streaming records (video formats and properties).
// The video records arrive with the format and property work; the base
// records live in ks.h.
#pragma once
#include "ks.h"

// Window-system basics the video records embed.
typedef struct tagRECT {
    LONG left;
    LONG top;
    LONG right;
    LONG bottom;
} RECT, *PRECT;

typedef struct tagSIZE {
    LONG cx;
    LONG cy;
} SIZE, *PSIZE;

// ---- video processing, camera control and video control properties

typedef enum {
    KSPROPERTY_VIDEOPROCAMP_BRIGHTNESS,
    KSPROPERTY_VIDEOPROCAMP_CONTRAST,
    KSPROPERTY_VIDEOPROCAMP_HUE,
    KSPROPERTY_VIDEOPROCAMP_SATURATION,
    KSPROPERTY_VIDEOPROCAMP_SHARPNESS,
    KSPROPERTY_VIDEOPROCAMP_GAMMA,
    KSPROPERTY_VIDEOPROCAMP_COLORENABLE,
    KSPROPERTY_VIDEOPROCAMP_WHITEBALANCE,
    KSPROPERTY_VIDEOPROCAMP_BACKLIGHT_COMPENSATION,
    KSPROPERTY_VIDEOPROCAMP_GAIN,
} KSPROPERTY_VIDCAP_VIDEOPROCAMP;

#define KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO 0x0001L
#define KSPROPERTY_VIDEOPROCAMP_FLAGS_MANUAL 0x0002L

// Get and set record of one video-processing control (40 bytes).
typedef struct {
    KSPROPERTY Property;
    LONG Value;
    ULONG Flags;
    ULONG Capabilities;
} KSPROPERTY_VIDEOPROCAMP_S, *PKSPROPERTY_VIDEOPROCAMP_S;

typedef enum {
    KSPROPERTY_CAMERACONTROL_PAN,
    KSPROPERTY_CAMERACONTROL_TILT,
    KSPROPERTY_CAMERACONTROL_ROLL,
    KSPROPERTY_CAMERACONTROL_ZOOM,
    KSPROPERTY_CAMERACONTROL_EXPOSURE,
    KSPROPERTY_CAMERACONTROL_IRIS,
    KSPROPERTY_CAMERACONTROL_FOCUS,
} KSPROPERTY_VIDCAP_CAMERACONTROL;

#define KSPROPERTY_CAMERACONTROL_FLAGS_AUTO 0x0001L
#define KSPROPERTY_CAMERACONTROL_FLAGS_MANUAL 0x0002L

// Get and set record of one camera control (40 bytes).
typedef struct {
    KSPROPERTY Property;
    LONG Value;
    ULONG Flags;
    ULONG Capabilities;
} KSPROPERTY_CAMERACONTROL_S, *PKSPROPERTY_CAMERACONTROL_S;

typedef enum {
    KSPROPERTY_VIDEOCONTROL_CAPS,
    KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE,
    KSPROPERTY_VIDEOCONTROL_FRAME_RATES,
    KSPROPERTY_VIDEOCONTROL_MODE,
} KSPROPERTY_VIDCAP_VIDEOCONTROL;

typedef enum {
    KS_VideoControlFlag_FlipHorizontal = 0x0001,
    KS_VideoControlFlag_FlipVertical = 0x0002,
    KS_Obsolete_VideoControlFlag_ExternalTriggerEnable = 0x0010,
    KS_Obsolete_VideoControlFlag_Trigger = 0x0020,
    KS_VideoControlFlag_ExternalTriggerEnable = 0x0004,
    KS_VideoControlFlag_Trigger = 0x0008,
} KS_VideoControlFlags;

// The capabilities of one stream (32 bytes).
typedef struct {
    KSPROPERTY Property;
    ULONG StreamIndex;
    ULONG VideoControlCaps;
} KSPROPERTY_VIDEOCONTROL_CAPS_S, *PKSPROPERTY_VIDEOCONTROL_CAPS_S;

// The mode of one stream, KS_VideoControlFlag_* (32 bytes).
typedef struct {
    KSPROPERTY Property;
    ULONG StreamIndex;
    LONG Mode;
} KSPROPERTY_VIDEOCONTROL_MODE_S, *PKSPROPERTY_VIDEOCONTROL_MODE_S;

// The frame interval in use and the shortest one available, 100 ns units (56 bytes).
typedef struct {
    KSPROPERTY Property;
    ULONG StreamIndex;
    ULONG RangeIndex;
    SIZE Dimensions;
    LONGLONG CurrentActualFrameRate;
    LONGLONG CurrentMaxAvailableFrameRate;
} KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S, *PKSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE_S;

// Asks for the frame intervals of a range and size (40 bytes); the answer is a
// KSMULTIPLE_ITEM followed by its LONGLONG intervals.
typedef struct {
    KSPROPERTY Property;
    ULONG StreamIndex;
    ULONG RangeIndex;
    SIZE Dimensions;
} KSPROPERTY_VIDEOCONTROL_FRAME_RATES_S, *PKSPROPERTY_VIDEOCONTROL_FRAME_RATES_S;

// ---- still-image trigger events

typedef enum {
    KSEVENT_VIDCAPTOSTI_EXT_TRIGGER,
} KSEVENT_VIDCAPTOSTI;

// ---- video formats and data ranges (VIDEOINFO), dropped-frame counts

typedef int WINBOOL;
typedef LONGLONG REFERENCE_TIME;

typedef struct tagKS_RGBQUAD {
    UCHAR rgbBlue;
    UCHAR rgbGreen;
    UCHAR rgbRed;
    UCHAR rgbReserved;
} KS_RGBQUAD, *PKS_RGBQUAD;

#define KS_iPALETTE_COLORS 256
#define KS_iMASK_COLORS 3

typedef struct tagKS_BITMAPINFOHEADER {
    ULONG biSize;
    LONG biWidth;
    LONG biHeight;  // negative: the first row is the top one
    USHORT biPlanes;
    USHORT biBitCount;
    ULONG biCompression;  // FourCC, or 0 for uncompressed
    ULONG biSizeImage;
    LONG biXPelsPerMeter;
    LONG biYPelsPerMeter;
    ULONG biClrUsed;
    ULONG biClrImportant;
} KS_BITMAPINFOHEADER, *PKS_BITMAPINFOHEADER;

typedef struct tag_KS_TRUECOLORINFO {
    ULONG dwBitMasks[KS_iMASK_COLORS];
    KS_RGBQUAD bmiColors[KS_iPALETTE_COLORS];
} KS_TRUECOLORINFO, *PKS_TRUECOLORINFO;

typedef struct tagKS_VIDEOINFOHEADER {
    RECT rcSource;
    RECT rcTarget;
    ULONG dwBitRate;
    ULONG dwBitErrorRate;
    REFERENCE_TIME AvgTimePerFrame;  // 100 ns units
    KS_BITMAPINFOHEADER bmiHeader;
} KS_VIDEOINFOHEADER, *PKS_VIDEOINFOHEADER;

// The header followed by the colour table of palettised formats.
typedef struct tagKS_VIDEOINFO {
    RECT rcSource;
    RECT rcTarget;
    ULONG dwBitRate;
    ULONG dwBitErrorRate;
    REFERENCE_TIME AvgTimePerFrame;
    KS_BITMAPINFOHEADER bmiHeader;
    union {
        KS_RGBQUAD bmiColors[KS_iPALETTE_COLORS];
        ULONG dwBitMasks[KS_iMASK_COLORS];
        KS_TRUECOLORINFO TrueColorInfo;
    };
} KS_VIDEOINFO, *PKS_VIDEOINFO;

typedef enum {
    KS_AnalogVideo_None = 0x00000000,
    KS_AnalogVideo_NTSC_M = 0x00000001,
    KS_AnalogVideo_NTSC_M_J = 0x00000002,
    KS_AnalogVideo_NTSC_433 = 0x00000004,
    KS_AnalogVideo_PAL_B = 0x00000010,
    KS_AnalogVideo_PAL_D = 0x00000020,
    KS_AnalogVideo_PAL_G = 0x00000040,
    KS_AnalogVideo_PAL_H = 0x00000080,
    KS_AnalogVideo_PAL_I = 0x00000100,
    KS_AnalogVideo_PAL_M = 0x00000200,
    KS_AnalogVideo_PAL_N = 0x00000400,
    KS_AnalogVideo_PAL_60 = 0x00000800,
    KS_AnalogVideo_SECAM_B = 0x00001000,
    KS_AnalogVideo_SECAM_D = 0x00002000,
    KS_AnalogVideo_SECAM_G = 0x00004000,
    KS_AnalogVideo_SECAM_H = 0x00008000,
    KS_AnalogVideo_SECAM_K = 0x00010000,
    KS_AnalogVideo_SECAM_K1 = 0x00020000,
    KS_AnalogVideo_SECAM_L = 0x00040000,
    KS_AnalogVideo_SECAM_L1 = 0x00080000,
    KS_AnalogVideo_PAL_N_COMBO = 0x00100000
} KS_AnalogVideoStandard;

// What a video pin can crop, scale and how fast it can deliver.
typedef struct _KS_VIDEO_STREAM_CONFIG_CAPS {
    GUID guid;
    ULONG VideoStandard;  // KS_AnalogVideoStandard bits
    SIZE InputSize;
    SIZE MinCroppingSize;
    SIZE MaxCroppingSize;
    int CropGranularityX;
    int CropGranularityY;
    int CropAlignX;
    int CropAlignY;
    SIZE MinOutputSize;
    SIZE MaxOutputSize;
    int OutputGranularityX;
    int OutputGranularityY;
    int StretchTapsX;
    int StretchTapsY;
    int ShrinkTapsX;
    int ShrinkTapsY;
    LONGLONG MinFrameInterval;  // 100 ns units
    LONGLONG MaxFrameInterval;
    LONG MinBitsPerSecond;
    LONG MaxBitsPerSecond;
} KS_VIDEO_STREAM_CONFIG_CAPS, *PKS_VIDEO_STREAM_CONFIG_CAPS;

// StreamDescriptionFlags of a video data range.
#define KS_VIDEOSTREAM_PREVIEW 0x0001
#define KS_VIDEOSTREAM_CAPTURE 0x0002
#define KS_VIDEOSTREAM_VBI 0x0010
#define KS_VIDEOSTREAM_NABTS 0x0020
#define KS_VIDEOSTREAM_CC 0x0100
#define KS_VIDEOSTREAM_EDS 0x0200
#define KS_VIDEOSTREAM_TELETEXT 0x0400
#define KS_VIDEOSTREAM_STILL 0x1000
#define KS_VIDEOSTREAM_IS_VPE 0x8000

typedef struct tagKS_DATARANGE_VIDEO {
    KSDATARANGE DataRange;
    WINBOOL bFixedSizeSamples;
    WINBOOL bTemporalCompression;
    ULONG StreamDescriptionFlags;
    ULONG MemoryAllocationFlags;
    KS_VIDEO_STREAM_CONFIG_CAPS ConfigCaps;
    KS_VIDEOINFOHEADER VideoInfoHeader;
} KS_DATARANGE_VIDEO, *PKS_DATARANGE_VIDEO;

// The same range for palettised formats: the header carries its colour table.
typedef struct tagKS_DATARANGE_VIDEO_PALETTE {
    KSDATARANGE DataRange;
    WINBOOL bFixedSizeSamples;
    WINBOOL bTemporalCompression;
    ULONG StreamDescriptionFlags;
    ULONG MemoryAllocationFlags;
    KS_VIDEO_STREAM_CONFIG_CAPS ConfigCaps;
    KS_VIDEOINFO VideoInfo;
} KS_DATARANGE_VIDEO_PALETTE, *PKS_DATARANGE_VIDEO_PALETTE;

typedef struct tagKS_DATAFORMAT_VIDEOINFOHEADER {
    KSDATAFORMAT DataFormat;
    KS_VIDEOINFOHEADER VideoInfoHeader;
} KS_DATAFORMAT_VIDEOINFOHEADER, *PKS_DATAFORMAT_VIDEOINFOHEADER;

typedef enum { KSPROPERTY_DROPPEDFRAMES_CURRENT } KSPROPERTY_VIDCAP_DROPPEDFRAMES;

typedef struct {
    KSPROPERTY Property;
    LONGLONG PictureNumber;
    LONGLONG DropCount;
    ULONG AverageFrameSize;
} KSPROPERTY_DROPPEDFRAMES_CURRENT_S, *PKSPROPERTY_DROPPEDFRAMES_CURRENT_S;

// Follows the KSSTREAM_HEADER of every video frame a capture pin delivers.
typedef struct tagKS_FRAME_INFO {
    ULONG ExtendedHeaderSize;
    DWORD dwFrameFlags;
    LONGLONG PictureNumber;
    LONGLONG DropCount;
    HANDLE hDirectDraw;
    HANDLE hSurfaceHandle;
    RECT DirectDrawRect;
    DWORD Reserved1;
    DWORD Reserved2;
    DWORD Reserved3;
    DWORD Reserved4;
} KS_FRAME_INFO, *PKS_FRAME_INFO;

// Records without pointers: one layout in every Windows data model.
static_assert(sizeof(KS_BITMAPINFOHEADER) == 40, "KS_BITMAPINFOHEADER layout");
static_assert(sizeof(KS_VIDEOINFOHEADER) == 88, "KS_VIDEOINFOHEADER layout");
static_assert(__builtin_offsetof(KS_VIDEOINFOHEADER, bmiHeader) == 48, "KS_VIDEOINFOHEADER layout");
static_assert(sizeof(KS_VIDEOINFO) == 1128, "KS_VIDEOINFO layout");
static_assert(__builtin_offsetof(KS_VIDEOINFO, bmiColors) == 88, "KS_VIDEOINFO layout");
static_assert(sizeof(KS_VIDEO_STREAM_CONFIG_CAPS) == 128, "KS_VIDEO_STREAM_CONFIG_CAPS layout");
static_assert(__builtin_offsetof(KS_VIDEO_STREAM_CONFIG_CAPS, MinFrameInterval) == 104,
              "KS_VIDEO_STREAM_CONFIG_CAPS layout");
static_assert(sizeof(KS_DATARANGE_VIDEO) == 296, "KS_DATARANGE_VIDEO layout");
static_assert(__builtin_offsetof(KS_DATARANGE_VIDEO, ConfigCaps) == 80,
              "KS_DATARANGE_VIDEO layout");
static_assert(__builtin_offsetof(KS_DATARANGE_VIDEO, VideoInfoHeader) == 208,
              "KS_DATARANGE_VIDEO layout");
static_assert(sizeof(KS_DATARANGE_VIDEO_PALETTE) == 1336, "KS_DATARANGE_VIDEO_PALETTE layout");
static_assert(sizeof(KS_DATAFORMAT_VIDEOINFOHEADER) == 152, "KS_DATAFORMAT_VIDEOINFOHEADER layout");
static_assert(sizeof(KSPROPERTY_DROPPEDFRAMES_CURRENT_S) == 48,
              "KSPROPERTY_DROPPEDFRAMES_CURRENT_S layout");
