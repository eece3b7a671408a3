#include "ornixctl/control_catalog.h"

#include <charconv>

#include "ornix.h"

namespace ornixctl {
namespace {

constexpr const char* kStandardValues = "a whole number in the control's range";
constexpr const char* kPositionValues = "X,Y with each 0 to 65535";
constexpr const char* kBinningValues = "HxV with each 1 to 255";

std::vector<ControlInfo> BuildControls() {
    using K = ControlKind;
    const GUID& amp = OrnixPropSetVideoProcAmp;
    const GUID& cam = OrnixPropSetCameraControl;
    const GUID& video = OrnixPropSetVideoControl;
    const GUID& custom = OrnixPropSetOxCustom;
    const GUID& tevrin = OrnixPropSetTevrinSgl;
    return {
        {"brightness", K::Standard, amp, 0, false, true, true, kStandardValues},
        {"contrast", K::Standard, amp, 1, false, true, true, kStandardValues},
        {"hue", K::Standard, amp, 2, false, true, true, kStandardValues},
        {"saturation", K::Standard, amp, 3, false, true, true, kStandardValues},
        {"sharpness", K::Standard, amp, 4, false, true, true, kStandardValues},
        {"gamma", K::Standard, amp, 5, false, true, true, kStandardValues},
        {"gain", K::Standard, amp, 9, false, true, true, kStandardValues},
        {"pan", K::Standard, cam, 0, false, true, true, kStandardValues},
        {"tilt", K::Standard, cam, 1, false, true, true, kStandardValues},
        {"roll", K::Standard, cam, 2, false, true, true, kStandardValues},
        {"zoom", K::Standard, cam, 3, false, true, true, kStandardValues},
        {"exposure", K::Standard, cam, 4, false, true, true,
         "log2 of the exposure time in seconds, a whole number in the control's range"},
        {"iris", K::Standard, cam, 5, false, true, true, kStandardValues},
        {"start-position", K::StartPosition, custom, KSPROPERTY_OXCUSTOM_STARTPOS, false, true,
         true, kPositionValues},
        {"still-start-position", K::StartPosition, custom, KSPROPERTY_OXCUSTOM_STILLSTARTPOS, true,
         true, true, kPositionValues},
        {"binning", K::Binning, custom, KSPROPERTY_OXCUSTOM_BINNING, false, true, true,
         kBinningValues},
        {"still-binning", K::Binning, custom, KSPROPERTY_OXCUSTOM_STILLBINNING, true, true, true,
         kBinningValues},
        {"lut", K::LookUpTable, custom, KSPROPERTY_OXCUSTOM_LUT8, false, true, true,
         "a file whose bytes are the table (1 to 65536 bytes)"},
        {"pixel-correction", K::PixelCorrection, custom, KSPROPERTY_OXCUSTOM_PIXELCORRECTION, false,
         true, true, "on or off"},
        {"trigger-mode", K::TriggerMode, video, KSPROPERTY_VIDEOCONTROL_MODE, true, true, true,
         "none, trigger, external or trigger,external"},
        {"frame-rate", K::FrameRate, video, KSPROPERTY_VIDEOCONTROL_ACTUAL_FRAME_RATE, false, true,
         false, ""},
        {"frame-rates", K::FrameRates, video, KSPROPERTY_VIDEOCONTROL_FRAME_RATES, false, true,
         false, ""},
        {"record", K::Record, custom, 0, false, true, true,
         "VALUE, or CONTROL,VALUE to write the control word too"},
        {"section", K::Section, tevrin, KSPROPERTY_TEVRINSGL_VPD, false, true, false, ""},
        {"product-data", K::ProductData, tevrin, KSPROPERTY_TEVRINSGL_VPD, false, false, true,
         "reload"},
        {"statistics", K::Statistics, tevrin, KSPROPERTY_TEVRINSGL_STATS, false, true, false, ""},
        {"version", K::Version, custom, KSPROPERTY_OXCUSTOM_VERSION, false, true, false, ""},
        {"bus-info", K::BusInfo, custom, KSPROPERTY_OXCUSTOM_BUSINFO, false, true, false, ""},
        {"events-enabled", K::EventsEnabled, custom, KSPROPERTY_OXCUSTOM_EVENT_CONTROL, false, true,
         false, ""},
    };
}

// The lowest custom id that reaches `record`, if any does.
std::optional<uint32_t> CustomIdOfRecord(uint32_t record) {
    for (ULONG id = 0; id < 64; ++id) {
        ULONG reached = 0;
        // Pixel correction answers from the adapter, not from record 42.
        if (id != KSPROPERTY_OXCUSTOM_PIXELCORRECTION &&
            OrnixPropertyRecordIndex(3, id, &reached) && reached == record) {
            return id;
        }
    }
    return std::nullopt;
}

std::optional<uint32_t> ParseNumber(std::string_view text) {
    uint32_t value = 0;
    const char* end = text.data() + text.size();
    auto [ptr, ec] = std::from_chars(text.data(), end, value);
    if (text.empty() || ec != std::errc() || ptr != end) {
        return std::nullopt;
    }
    return value;
}

}  // namespace

std::string ControlRef::Name() const {
    if (info->kind == ControlKind::Record || info->kind == ControlKind::Section) {
        return std::string(info->name) + ":" + std::to_string(parameter);
    }
    return info->name;
}

const std::vector<ControlInfo>& Controls() {
    static const std::vector<ControlInfo> controls = BuildControls();
    return controls;
}

std::string ValidNames() {
    std::string names;
    for (const ControlInfo& control : Controls()) {
        names += names.empty() ? "" : ", ";
        names += control.name;
        if (control.kind == ControlKind::Record || control.kind == ControlKind::Section) {
            names += ":N";
        }
    }
    return names;
}

ControlRef FindControl(std::string_view name) {
    const size_t colon = name.find(':');
    const std::string_view base = name.substr(0, colon);
    for (const ControlInfo& control : Controls()) {
        if (base != control.name) {
            continue;
        }
        ControlRef ref{&control, 0, control.id};
        const bool numbered =
            control.kind == ControlKind::Record || control.kind == ControlKind::Section;
        if (!numbered) {
            if (colon != std::string_view::npos) {
                throw UsageError("'" + std::string(name) + "': " + control.name +
                                 " takes no number");
            }
            return ref;
        }
        const auto number =
            colon == std::string_view::npos ? std::nullopt : ParseNumber(name.substr(colon + 1));
        if (control.kind == ControlKind::Section) {
            if (!number || *number > 255) {
                throw UsageError("'" + std::string(name) +
                                 "': give a product-data section as section:N, N from 0 to 255");
            }
            ref.parameter = *number;
            return ref;
        }
        if (!number || *number > 56) {
            throw UsageError("'" + std::string(name) +
                             "': give a property record as record:N, N from 0 to 56");
        }
        const auto id = CustomIdOfRecord(*number);
        if (!id) {
            // The valid records as runs: "10, 12 to 41, 43 to 56".
            std::string valid;
            for (uint32_t first = 0; first <= 56; ++first) {
                if (!CustomIdOfRecord(first)) {
                    continue;
                }
                uint32_t last = first;
                while (last < 56 && CustomIdOfRecord(last + 1)) {
                    ++last;
                }
                valid += (valid.empty() ? "" : ", ") + std::to_string(first) +
                         (last > first ? " to " + std::to_string(last) : "");
                first = last;
            }
            throw UsageError("record " + std::to_string(*number) +
                             " has no raw access (a standard control or the adapter serves "
                             "it); raw records are " +
                             valid);
        }
        ref.parameter = *number;
        ref.propertyId = *id;
        return ref;
    }
    throw UsageError("unknown control '" + std::string(name) + "'; valid names: " + ValidNames());
}

PropertyAddress Address(const ControlRef& control) {
    return {control.info->set, control.propertyId, control.Name()};
}

const winsim::PropertyItemView* PublishedItem(Session& session, const ControlRef& control) {
    for (const winsim::PropertySetView& set : session.Rig().StreamClass().Filter().propertySets) {
        if (!winsim::SameGuid(set.set, control.info->set)) {
            continue;
        }
        for (const winsim::PropertyItemView& item : set.items) {
            if (item.id == control.propertyId) {
                return &item;
            }
        }
    }
    return nullptr;
}

}  // namespace ornixctl
