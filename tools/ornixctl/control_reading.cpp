// Reading controls: each kind's property answer decoded into JSON and text.
#include <cmath>
#include <cstdio>

#include "ornix.h"
#include "ornixctl/control_values.h"
#include "ornixctl/names.h"

namespace ornixctl {
namespace {

using Json = nlohmann::ordered_json;

std::string HexBytes(const Bytes& bytes, size_t limit) {
    std::string text;
    for (size_t i = 0; i < bytes.size() && i < limit; ++i) {
        char hex[4];
        std::snprintf(hex, sizeof hex, "%02X", bytes[i]);
        text += (i ? " " : "") + std::string(hex);
    }
    if (bytes.size() > limit) {
        text += " ...";
    }
    return text;
}

// 2^value seconds, as a photographer reads it.
std::string ExposureTime(int32_t value) {
    if (value >= 0) {
        return std::to_string(uint64_t{1} << std::min(value, 62)) + " s";
    }
    return "1/" + std::to_string(uint64_t{1} << std::min(-int64_t{value}, int64_t{62})) + " s";
}

ControlReading Standard(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 40, Bytes(16, 0));
    const auto value = static_cast<int32_t>(WordAt(answer, 24));
    const uint32_t flags = WordAt(answer, 28);
    const uint32_t capabilities = WordAt(answer, 32);
    const bool automatic = (flags & KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO) != 0;
    const bool autoAvailable = (capabilities & KSPROPERTY_VIDEOPROCAMP_FLAGS_AUTO) != 0;

    ControlReading reading;
    Json& j = reading.json;
    j["name"] = control.Name();
    j["value"] = value;
    j["mode"] = automatic ? "auto" : "manual";
    j["autoAvailable"] = autoAvailable;
    reading.text = std::to_string(value);
    if (control.info->kind == ControlKind::Standard && control.info->id == 4 &&
        winsim::SameGuid(control.info->set, OrnixPropSetCameraControl)) {
        j["seconds"] = std::ldexp(1.0, value);
        reading.text += " (" + ExposureTime(value) + ")";
    }
    reading.text += automatic ? ", auto" : ", manual";
    if (const winsim::PropertyItemView* item = PublishedItem(session, control);
        item && item->range) {
        j["minimum"] = item->range->minimum;
        j["maximum"] = item->range->maximum;
        j["step"] = item->range->step;
        reading.text += "; range " + std::to_string(item->range->minimum) + " to " +
                        std::to_string(item->range->maximum) + " step " +
                        std::to_string(item->range->step);
        if (item->range->defaultValue) {
            j["default"] = *item->range->defaultValue;
            reading.text += ", default " + std::to_string(*item->range->defaultValue);
        }
    }
    if (autoAvailable) {
        reading.text += "; auto available";
    }
    return reading;
}

ControlReading Position(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 8);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["x"] = HalfAt(answer, 4);
    reading.json["y"] = HalfAt(answer, 6);
    reading.text = std::to_string(HalfAt(answer, 4)) + "," + std::to_string(HalfAt(answer, 6)) +
                   " (in use; a new position takes effect at the next format selection)";
    return reading;
}

ControlReading Binning(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 8);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["horizontal"] = HalfAt(answer, 4);
    reading.json["vertical"] = HalfAt(answer, 6);
    reading.text = std::to_string(HalfAt(answer, 4)) + "x" + std::to_string(HalfAt(answer, 6));
    if (!control.info->still) {
        reading.json["cameraStatus"] = WordAt(answer, 0);
        reading.text += " (camera status " + HexText(WordAt(answer, 0), 8) + ")";
    }
    return reading;
}

ControlReading LookUpTable(Session& session, const ControlRef& control) {
    const Bytes table = GetSizedProperty(session, Address(control));
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["length"] = table.size();
    reading.json["bytes"] = table;
    reading.text = table.empty() ? "none written"
                                 : std::to_string(table.size()) + " bytes: " + HexBytes(table, 16);
    return reading;
}

ControlReading PixelCorrection(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 16);
    const bool on = (WordAt(answer, 0) & 0x8000) != 0;
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["enabled"] = on;
    reading.text = on ? "on" : "off";
    return reading;
}

std::string ModeText(uint32_t mode) {
    std::string text;
    if (mode & KS_VideoControlFlag_Trigger) {
        text = "trigger";
    }
    if (mode & KS_VideoControlFlag_ExternalTriggerEnable) {
        text += text.empty() ? "external" : ",external";
    }
    return text.empty() ? "none" : text;
}

ControlReading TriggerMode(Session& session, const ControlRef& control) {
    Bytes extra(8, 0);
    PutWord(extra, 0, 1);  // the still stream
    const Bytes answer = GetProperty(session, Address(control), 32, extra);
    const uint32_t mode = WordAt(answer, 28);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["flags"] = mode;
    reading.json["mode"] = ModeText(mode);
    reading.text = ModeText(mode) + " (flags " + HexText(mode, 2) + ")";
    return reading;
}

ControlReading FrameRate(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 56, Bytes(32, 0));
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["frameInterval"] = QuadAt(answer, 40);
    reading.json["fastestFrameInterval"] = QuadAt(answer, 48);
    reading.text = IntervalText(QuadAt(answer, 40)) + ", fastest " +
                   IntervalText(QuadAt(answer, 48)) + " (100 ns units)";
    return reading;
}

ControlReading FrameRates(Session& session, const ControlRef& control) {
    const Bytes answer = GetSizedProperty(session, Address(control), Bytes(16, 0));
    const uint32_t count = WordAt(answer, 4);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["frameIntervals"] = Json::array();
    for (uint32_t i = 0; i < count && 8 + 8 * size_t{i} + 8 <= answer.size(); ++i) {
        const int64_t interval = QuadAt(answer, 8 + 8 * size_t{i});
        reading.json["frameIntervals"].push_back(interval);
        reading.text += (i ? ", " : "") + IntervalText(interval);
    }
    if (reading.text.empty()) {
        reading.text = "none";
    }
    return reading;
}

ControlReading Record(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 16);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["propertyId"] = control.propertyId;
    const char* fields[] = {"control", "value", "minimum", "maximum"};
    for (size_t i = 0; i < 4 && 4 * i + 4 <= answer.size(); ++i) {
        reading.json[fields[i]] = WordAt(answer, 4 * i);
    }
    const uint32_t word = WordAt(answer, 0);
    reading.text = "control " + HexText(word, 8) + " value " +
                   std::to_string(static_cast<int32_t>(WordAt(answer, 4))) + " range " +
                   std::to_string(static_cast<int32_t>(WordAt(answer, 8))) + " to " +
                   std::to_string(static_cast<int32_t>(WordAt(answer, 12))) +
                   ((word & 0x80000000u) ? "" : " (not present)") +
                   ((word & 0x4000u) ? ", auto" : "");
    return reading;
}

ControlReading Section(Session& session, const ControlRef& control) {
    Bytes extra(8, 0);
    extra[0] = static_cast<uint8_t>(control.parameter);
    Bytes section;
    try {
        section = GetSizedProperty(session, Address(control), extra);
    } catch (const PropertyFailure& e) {
        if (e.Status() != STATUS_NOT_FOUND) {
            throw;
        }
        throw PropertyFailure(control.Name() + " (the product data has no such section)",
                              e.Status());
    }
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["length"] = section.size();
    reading.json["bytes"] = section;
    reading.text = std::to_string(section.size()) + " bytes";
    for (size_t row = 0; row < section.size(); row += 16) {
        char offset[32];
        std::snprintf(offset, sizeof offset, "\n  %04zX  ", row);
        reading.text += offset + HexBytes(Bytes(section.begin() + static_cast<ptrdiff_t>(row),
                                                section.begin() + static_cast<ptrdiff_t>(std::min(
                                                                      row + 16, section.size()))),
                                          16);
    }
    return reading;
}

ControlReading Statistics(Session& session, const ControlRef& control) {
    static const char* const kFields[] = {"framesCaptured", "dropCount",  "framesDropped",
                                          "shortErrors",    "xactErrors", "babbleErrors",
                                          "otherErrors"};
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["streams"] = Json::array();
    const size_t streams = session.Rig().StreamClass().Filter().pins.size();
    for (uint32_t index = 0; index < streams; ++index) {
        Bytes extra(32, 0);
        PutWord(extra, 0, index);
        const Bytes answer = GetProperty(session, Address(control), 32, extra);
        Json stream;
        stream["stream"] = index;
        reading.text += std::string(index ? "\n  still:  " : "\n  capture:");
        for (size_t i = 0; i < std::size(kFields); ++i) {
            stream[kFields[i]] = WordAt(answer, 4 * (i + 1));
            reading.text +=
                " " + std::string(kFields[i]) + " " + std::to_string(WordAt(answer, 4 * (i + 1)));
        }
        reading.json["streams"].push_back(stream);
    }
    return reading;
}

std::string DriverVersionText(uint32_t word) {
    return std::to_string(word >> 24) + "." + std::to_string((word >> 16) & 0xFF) + "." +
           std::to_string((word >> 8) & 0xFF) + "." + std::to_string(word & 0xFF);
}

ControlReading Version(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 16);
    ControlReading reading;
    Json& j = reading.json;
    j["name"] = control.Name();
    j["cameraId"] = WordAt(answer, 0);
    j["serialNumber"] = WordAt(answer, 4);
    j["fpgaVersion"] = WordAt(answer, 8);
    j["driverVersion"] = DriverVersionText(WordAt(answer, 12));
    reading.text = "camera id " + std::to_string(WordAt(answer, 0)) + ", serial number " +
                   std::to_string(WordAt(answer, 4)) + ", FPGA version " +
                   HexText(WordAt(answer, 8), 8) + ", driver " +
                   DriverVersionText(WordAt(answer, 12));
    return reading;
}

ControlReading BusInfo(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 8);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["registerInterfaceVersion"] = WordAt(answer, 0);
    reading.json["highSpeed"] = WordAt(answer, 4) == 2;
    reading.text = "register interface version " + std::to_string(WordAt(answer, 0)) + ", " +
                   (WordAt(answer, 4) == 2 ? "high speed" : "full speed");
    return reading;
}

ControlReading EventsEnabled(Session& session, const ControlRef& control) {
    const Bytes answer = GetProperty(session, Address(control), 8);
    ControlReading reading;
    reading.json["name"] = control.Name();
    reading.json["mask"] = WordAt(answer, 4);
    reading.text = HexText(WordAt(answer, 4), 8);
    return reading;
}

}  // namespace

std::string ControlLine(const ControlReading& reading) {
    const std::string name = reading.json["name"].get<std::string>();
    return reading.text.starts_with('\n') ? name + ":" + reading.text : name + " = " + reading.text;
}

void RequireOffered(Session& session, const ControlRef& control) {
    if (PublishedItem(session, control) == nullptr) {
        throw UsageError(control.Name() + ": this camera does not offer it");
    }
}

ControlReading ReadControl(Session& session, const ControlRef& control) {
    RequireOffered(session, control);
    if (!control.info->canGet) {
        throw UsageError(control.Name() + " can only be set (to " + control.info->values + ")");
    }
    switch (control.info->kind) {
        case ControlKind::Standard:
            return Standard(session, control);
        case ControlKind::StartPosition:
            return Position(session, control);
        case ControlKind::Binning:
            return Binning(session, control);
        case ControlKind::LookUpTable:
            return LookUpTable(session, control);
        case ControlKind::PixelCorrection:
            return PixelCorrection(session, control);
        case ControlKind::TriggerMode:
            return TriggerMode(session, control);
        case ControlKind::FrameRate:
            return FrameRate(session, control);
        case ControlKind::FrameRates:
            return FrameRates(session, control);
        case ControlKind::Record:
            return Record(session, control);
        case ControlKind::Section:
            return Section(session, control);
        case ControlKind::Statistics:
            return Statistics(session, control);
        case ControlKind::Version:
            return Version(session, control);
        case ControlKind::BusInfo:
            return BusInfo(session, control);
        case ControlKind::EventsEnabled:
            return EventsEnabled(session, control);
        case ControlKind::ProductData:
            break;
    }
    throw UsageError(control.Name() + " cannot be read");
}

}  // namespace ornixctl
