#include "ornixctl/names.h"

#include <cstdio>
#include <iterator>
#include <utility>

#include "ornix.h"
#include "streamclass/filter_view.h"

namespace ornixctl {
namespace {

struct Named {
    GUID guid;
    const char* name;
};

constexpr GUID kVideoProcAmp = {
    0xC6E13360, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
constexpr GUID kCameraControl = {
    0xC6E13370, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
constexpr GUID kVideoControl = {
    0x6A2E0670, 0x28E4, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};
constexpr GUID kOxCustom = {
    0xB017B3F9, 0x570E, 0x48EE, {0x88, 0xBE, 0x8A, 0x61, 0x34, 0x3F, 0x09, 0x8F}};
constexpr GUID kTevrinSgl = {
    0x2FC8C9E7, 0x876E, 0x42F0, {0x9D, 0xEE, 0x31, 0x98, 0x42, 0xFD, 0x9E, 0xA9}};
constexpr GUID kConnection = {
    0x1D58C920, 0xAC9B, 0x11CF, {0xA5, 0xD6, 0x28, 0xDB, 0x04, 0xC1, 0x00, 0x00}};
constexpr GUID kDroppedFrames = {
    0xC6E13344, 0x30AC, 0x11D0, {0xA1, 0x8C, 0x00, 0xA0, 0xC9, 0x11, 0x89, 0x56}};

const Named kPropertySets[] = {
    {kVideoProcAmp, "VideoProcAmp"},   {kCameraControl, "CameraControl"},
    {kVideoControl, "VideoControl"},   {kOxCustom, "OxCustom"},
    {kTevrinSgl, "TevrinSgl"},         {kConnection, "Connection"},
    {kDroppedFrames, "DroppedFrames"},
};

const Named kEventSets[] = {
    {{0xDB47DE20, 0xF628, 0x11D1, {0xBA, 0x41, 0x00, 0xA0, 0xC9, 0x0D, 0x2B, 0x05}}, "VidCapToSti"},
    {{0x79CD8C74, 0x3E2A, 0x47B2, {0x91, 0xA0, 0xB9, 0x00, 0xBD, 0x65, 0xB4, 0x2E}}, "OxEvents"},
};

const Named kPins[] = {
    {{0xFB6C4281, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}}, "Capture"},
    {{0xFB6C428A, 0x0353, 0x11D1, {0x90, 0x5F, 0x00, 0x00, 0xC0, 0xCC, 0x16, 0xBA}}, "Still"},
    {{0x6994AD05, 0x93EF, 0x11D0, {0xA3, 0xCC, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}}, "Video"},
    {{0x65E8773D, 0x8F56, 0x11D0, {0xA3, 0xB9, 0x00, 0xA0, 0xC9, 0x22, 0x31, 0x96}},
     "Capture category"},
};

const Named kSubtypes[] = {
    {{0xF6E72551, 0xEEC1, 0x4018, {0x8A, 0xFB, 0x8B, 0xBD, 0x05, 0x35, 0x06, 0x01}}, "RAW8"},
    {{0x53723BDE, 0x1892, 0x4EA8, {0x9F, 0xA9, 0x0F, 0x9B, 0x40, 0xA5, 0x41, 0xDA}}, "RAW16"},
    {{0x65FC077C, 0xA4BC, 0x471D, {0x89, 0x90, 0xCB, 0x87, 0x48, 0x7E, 0xA9, 0x9B}}, "RAW16B"},
    {{0x7B5FE90B, 0xBF66, 0x43D2, {0x8A, 0x49, 0xD8, 0x78, 0x03, 0x12, 0xD8, 0xE8}}, "IYRB"},
    {{0x0ACE3A01, 0x809E, 0x4A51, {0x83, 0xF3, 0xF0, 0x61, 0x98, 0x61, 0xCE, 0x84}}, "CNT"},
    {{0xDD14F0E3, 0x2E0F, 0x4AB9, {0xA6, 0x3A, 0xE1, 0xD2, 0x4E, 0x30, 0x11, 0x2A}}, "FLTR"},
};

const char* const kProcAmpItems[] = {"Brightness",  "Contrast",     "Hue",
                                     "Saturation",  "Sharpness",    "Gamma",
                                     "ColorEnable", "WhiteBalance", "BacklightCompensation",
                                     "Gain"};
const char* const kCameraItems[] = {"Pan", "Tilt", "Roll", "Zoom", "Exposure", "Iris", "Focus"};
const char* const kVideoControlItems[] = {"Caps", "ActualFrameRate", "FrameRates", "Mode"};
const char* const kTevrinItems[] = {"Raw", "Vpd", "Stats"};

struct NamedId {
    uint32_t id;
    const char* name;
};

// Custom items served from the adapter's own state rather than a record.
const NamedId kCustomItems[] = {
    {7, "StartPos"},   {8, "StillStartPos"}, {16, "Reset"},           {17, "Version"},
    {18, "Binning"},   {19, "StillBinning"}, {20, "BusInfo"},         {32, "Lut8"},
    {37, "StillWait"}, {38, "EventControl"}, {40, "PixelCorrection"},
};

std::string Find(const Named* table, size_t count, const GUID& guid) {
    for (size_t i = 0; i < count; ++i) {
        if (winsim::SameGuid(table[i].guid, guid)) {
            return table[i].name;
        }
    }
    return winsim::GuidText(guid);
}

template <size_t N>
std::string Pick(const char* const (&names)[N], uint32_t id) {
    return id < N ? names[id] : "";
}

}  // namespace

std::string PropertySetName(const GUID& set) {
    return Find(kPropertySets, std::size(kPropertySets), set);
}

std::string PropertyItemName(const GUID& set, uint32_t id) {
    if (winsim::SameGuid(set, kVideoProcAmp)) {
        return Pick(kProcAmpItems, id);
    }
    if (winsim::SameGuid(set, kCameraControl)) {
        return Pick(kCameraItems, id);
    }
    if (winsim::SameGuid(set, kVideoControl)) {
        return Pick(kVideoControlItems, id);
    }
    if (winsim::SameGuid(set, kTevrinSgl)) {
        return Pick(kTevrinItems, id);
    }
    if (winsim::SameGuid(set, kOxCustom)) {
        for (const NamedId& item : kCustomItems) {
            if (item.id == id) {
                return item.name;
            }
        }
        ULONG record = 0;
        if (OrnixPropertyRecordIndex(3, id, &record)) {
            return "Record " + std::to_string(record);
        }
    }
    return "";
}

std::string EventSetName(const GUID& set) {
    return Find(kEventSets, std::size(kEventSets), set);
}

std::string PinName(const GUID& guid) {
    return Find(kPins, std::size(kPins), guid);
}

std::string SubtypeName(const GUID& subtype) {
    return Find(kSubtypes, std::size(kSubtypes), subtype);
}

std::string FourCCText(uint32_t fourCC) {
    if (fourCC == 0) {
        return "";
    }
    std::string text;
    for (int i = 0; i < 4; ++i) {
        const auto c = static_cast<unsigned char>(fourCC >> (8 * i));
        if (c >= 0x20 && c < 0x7F) {
            text += static_cast<char>(c);
        } else {
            char hex[8];
            std::snprintf(hex, sizeof hex, "\\x%02X", c);
            text += hex;
        }
    }
    return text;
}

std::string HexText(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%0*X", digits, static_cast<unsigned>(value));
    return text;
}

std::string NtStatusName(NTSTATUS status) {
#define ORNIXCTL_STATUS(name) \
    { name, #name }
    static const std::pair<NTSTATUS, const char*> kNames[] = {
        ORNIXCTL_STATUS(STATUS_SUCCESS),
        ORNIXCTL_STATUS(STATUS_PENDING),
        ORNIXCTL_STATUS(STATUS_BUFFER_OVERFLOW),
        ORNIXCTL_STATUS(STATUS_UNSUCCESSFUL),
        ORNIXCTL_STATUS(STATUS_NOT_IMPLEMENTED),
        ORNIXCTL_STATUS(STATUS_INVALID_PARAMETER),
        ORNIXCTL_STATUS(STATUS_INVALID_DEVICE_REQUEST),
        ORNIXCTL_STATUS(STATUS_BUFFER_TOO_SMALL),
        ORNIXCTL_STATUS(STATUS_INSUFFICIENT_RESOURCES),
        ORNIXCTL_STATUS(STATUS_DEVICE_DATA_ERROR),
        ORNIXCTL_STATUS(STATUS_DEVICE_NOT_CONNECTED),
        ORNIXCTL_STATUS(STATUS_DEVICE_NOT_READY),
        ORNIXCTL_STATUS(STATUS_IO_TIMEOUT),
        ORNIXCTL_STATUS(STATUS_NOT_SUPPORTED),
        ORNIXCTL_STATUS(STATUS_CANCELLED),
        ORNIXCTL_STATUS(STATUS_INVALID_BUFFER_SIZE),
        ORNIXCTL_STATUS(STATUS_NOT_FOUND),
        ORNIXCTL_STATUS(STATUS_NO_MATCH),
        ORNIXCTL_STATUS(STATUS_DEVICE_REMOVED),
    };
#undef ORNIXCTL_STATUS
    const std::string hex = HexText(static_cast<uint32_t>(status), 8);
    for (const auto& [value, name] : kNames) {
        if (value == status) {
            return std::string(name) + " (" + hex + ")";
        }
    }
    return hex;
}

std::string IntervalText(int64_t interval100ns) {
    if (interval100ns <= 0) {
        return std::to_string(interval100ns);
    }
    char text[48];
    std::snprintf(text, sizeof text, "%lld (%.2f fps)", static_cast<long long>(interval100ns),
                  1e7 / static_cast<double>(interval100ns));
    return text;
}

}  // namespace ornixctl
