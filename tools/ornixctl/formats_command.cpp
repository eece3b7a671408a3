#include "ornixctl/formats_command.h"

#include <cstddef>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "ornixctl/names.h"
#include "ornixctl/text_table.h"
#include "streamclass/data_intersection.h"

namespace ornixctl {
namespace {

// The driver's record behind a pin's format, found through the capture
// table so that a pointer the driver does not own is never followed.
const ORNIX_FORMAT_RECORD* RecordOf(Session& session, ULONG pin, ULONG format) {
    const HW_STREAM_HEADER* header = session.Rig().StreamClass().StreamHeader();
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    if (header == nullptr || ext->CaptureFormats == nullptr) {
        return nullptr;
    }
    const auto* streams = reinterpret_cast<const HW_STREAM_INFORMATION*>(header + 1);
    const PKSDATAFORMAT range = streams[pin].StreamFormatsArray[format];
    for (ULONG i = 0; i < ext->CaptureFormatCount; ++i) {
        if (ext->CaptureFormats[i] == range) {
            // CONTAINING_RECORD by offsetof, without the macro's null-pointer trick.
            return reinterpret_cast<const ORNIX_FORMAT_RECORD*>(
                reinterpret_cast<const char*>(range) - offsetof(ORNIX_FORMAT_RECORD, DataRange));
        }
    }
    return nullptr;
}

std::string Size(int32_t w, int32_t h) {
    return std::to_string(w) + "x" + std::to_string(h);
}

nlohmann::ordered_json FormatJson(const winsim::DataRangeView& range, ULONG index,
                                  const ORNIX_FORMAT_RECORD* record) {
    nlohmann::ordered_json f;
    f["index"] = index;
    if (record != nullptr) {
        f["bank"] = record->FormatIndex;
        f["colourId"] = record->ColourId;
    }
    f["subtype"] = SubtypeName(range.subFormat);
    f["subtypeGuid"] = winsim::GuidText(range.subFormat);
    f["formatSize"] = range.formatSize;
    f["sampleSize"] = range.sampleSize;
    if (!range.video) {
        return f;
    }
    const winsim::VideoRangeView& v = *range.video;
    f["fourcc"] = FourCCText(v.fourCC);
    f["fourccValue"] = v.fourCC;
    f["bitsPerPixel"] = v.bitsPerPixel;
    f["width"] = v.width;
    f["height"] = v.height;
    f["topDown"] = v.topDown;
    f["minWidth"] = v.minWidth;
    f["minHeight"] = v.minHeight;
    f["maxWidth"] = v.maxWidth;
    f["maxHeight"] = v.maxHeight;
    f["stepX"] = v.stepX;
    f["stepY"] = v.stepY;
    f["frameInterval"] = v.avgTimePerFrame;
    f["minFrameInterval"] = v.minFrameInterval;
    f["maxFrameInterval"] = v.maxFrameInterval;
    f["bitRate"] = v.bitRate;
    f["minBitsPerSecond"] = v.minBitsPerSecond;
    f["maxBitsPerSecond"] = v.maxBitsPerSecond;
    f["imageSize"] = v.imageSize;
    f["fixedSizeSamples"] = v.fixedSizeSamples;
    f["palette"] = v.hasPalette;
    return f;
}

std::string Rate(double framesPerSecond) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f fps", framesPerSecond);
    return text;
}

// The driver builds a format's frame-rate chart when it programs the camera
// for it: the intersection of the format's own range does that, as an
// application's would. The chart is then read from the driver.
nlohmann::ordered_json FrameRateChartJson(Session& session, const winsim::DataRangeView& range) {
    nlohmann::ordered_json chart;
    const winsim::IntersectResult result =
        winsim::Intersect(session.Rig().StreamClass(), ORNIX_CAPTURE_STREAM, range.bytes);
    chart["intersection"] = NtStatusName(result.status);
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    const bool built = NT_SUCCESS(result.status) && ext->KFreqChart != nullptr;
    chart["built"] = built;
    chart["entries"] = nlohmann::json::array();
    if (!built || !range.video) {
        return chart;
    }
    const winsim::VideoRangeView& v = *range.video;
    for (LONG i = 0; i < ext->KFreqChartCount; ++i) {
        const USHORT frequency = ext->KFreqChart[i];
        const LONGLONG interval = OrnixFrameInterval(
            static_cast<ULONG>(v.width), static_cast<ULONG>(v.height), v.bitsPerPixel, frequency);
        nlohmann::ordered_json entry;
        entry["frequency"] = frequency;
        entry["frameInterval"] = interval;
        entry["framesPerSecond"] = interval > 0 ? 1e7 / static_cast<double>(interval) : 0.0;
        chart["entries"].push_back(entry);
    }
    return chart;
}

void PrintFrameRateCharts(const nlohmann::ordered_json& formats, std::ostream& out) {
    out << "\nFrame rates (frequency, frame interval in 100 ns units, rate):\n";
    TextTable table({"#", "Frequency", "Interval", "Rate"});
    for (const auto& f : formats) {
        if (!f.contains("frameRates")) {
            continue;
        }
        const auto& chart = f["frameRates"];
        const std::string index = f["index"].dump();
        if (!chart["built"].get<bool>()) {
            table.AddRow({index, "chart not built (intersection: " +
                                     chart["intersection"].get<std::string>() + ")"});
            continue;
        }
        bool first = true;
        for (const auto& e : chart["entries"]) {
            table.AddRow({first ? index : "", e["frequency"].dump(), e["frameInterval"].dump(),
                          Rate(e["framesPerSecond"].get<double>())});
            first = false;
        }
    }
    table.Print(out);
}

}  // namespace

int RunFormats(Session& session, bool json, std::ostream& out) {
    const winsim::FilterView& filter = session.Rig().StreamClass().Filter();
    nlohmann::ordered_json doc;
    doc["camera"] = session.ProfileName();
    doc["pins"] = nlohmann::json::array();
    for (const winsim::PinView& pin : filter.pins) {
        nlohmann::ordered_json p;
        p["pin"] = pin.number;
        p["name"] = pin.name ? PinName(*pin.name) : "";
        p["nameGuid"] = pin.name ? winsim::GuidText(*pin.name) : "";
        p["category"] = pin.category ? winsim::GuidText(*pin.category) : "";
        p["dataFlow"] = pin.dataFlow == KSPIN_DATAFLOW_OUT ? "out" : "in";
        p["possibleInstances"] = pin.possibleInstances;
        p["formats"] = nlohmann::json::array();
        for (ULONG i = 0; i < pin.ranges.size(); ++i) {
            nlohmann::ordered_json f =
                FormatJson(pin.ranges[i], i, RecordOf(session, pin.number, i));
            // The chart belongs to the capture stream: the still pin has none.
            if (pin.number == ORNIX_CAPTURE_STREAM && pin.ranges[i].video) {
                f["frameRates"] = FrameRateChartJson(session, pin.ranges[i]);
            }
            p["formats"].push_back(std::move(f));
        }
        doc["pins"].push_back(p);
    }
    if (json) {
        out << doc.dump(2) << "\n";
        return 0;
    }

    out << "Camera: " << session.ProfileName() << "\n";
    if (doc["pins"].empty()) {
        out << "\nNo pins: the camera has no bulk-in endpoint, so there is nothing to stream.\n";
    }
    for (const auto& p : doc["pins"]) {
        out << "\nPin " << p["pin"].get<unsigned>() << ": " << p["name"].get<std::string>() << " ("
            << p["formats"].size() << " formats)\n";
        TextTable table({"#", "Bank", "Colour", "Subtype", "FourCC", "Bits", "Size", "Smallest",
                         "Largest", "Step", "Interval", "Min interval", "Max interval", "Bit rate",
                         "Sample"});
        for (const auto& f : p["formats"]) {
            if (!f.contains("width")) {
                table.AddRow({std::to_string(f["index"].get<unsigned>()), "", "",
                              f["subtype"].get<std::string>(), "(not a video range)"});
                continue;
            }
            auto num = [&](const char* key) { return f.contains(key) ? f[key].dump() : "-"; };
            table.AddRow(
                {num("index"), num("bank"), num("colourId"), f["subtype"].get<std::string>(),
                 f["fourcc"].get<std::string>(), num("bitsPerPixel"), Size(f["width"], f["height"]),
                 Size(f["minWidth"], f["minHeight"]), Size(f["maxWidth"], f["maxHeight"]),
                 Size(f["stepX"], f["stepY"]), IntervalText(f["frameInterval"]),
                 IntervalText(f["minFrameInterval"]), IntervalText(f["maxFrameInterval"]),
                 num("bitRate") + " (" + num("minBitsPerSecond") + ".." + num("maxBitsPerSecond") +
                     ")",
                 num("sampleSize") + (f["fixedSizeSamples"].get<bool>() ? "" : " variable")});
        }
        table.Print(out);
        if (p["pin"] == ORNIX_CAPTURE_STREAM && !p["formats"].empty()) {
            PrintFrameRateCharts(p["formats"], out);
        }
    }
    return 0;
}

}  // namespace ornixctl
