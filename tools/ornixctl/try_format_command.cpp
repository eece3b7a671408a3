#include "ornixctl/try_format_command.h"

#include <charconv>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "camera/register_map.h"
#include "ornixctl/frame_image.h"
#include "ornixctl/names.h"
#include "ornixctl/text_table.h"

namespace ornixctl {
namespace {

namespace reg = ornixcam::reg;

// The still bank keeps its registers at the capture bank's offsets.
static_assert(reg::still::kPosition == reg::fmt::kPosition &&
              reg::still::kSize == reg::fmt::kSize && reg::still::kColorId == reg::fmt::kColorId &&
              reg::still::kBinning == reg::fmt::kBinning);

std::optional<int32_t> PositiveNumber(std::string_view text) {
    int32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc{} || end != text.data() + text.size() || value <= 0) {
        return std::nullopt;
    }
    return value;
}

nlohmann::ordered_json AnswerJson(const winsim::VideoFormatView& f) {
    nlohmann::ordered_json j;
    j["formatSize"] = f.formatSize;
    j["subtype"] = SubtypeName(f.subFormat);
    j["fourcc"] = FourCCText(f.fourCC);
    j["fourccValue"] = f.fourCC;
    j["bitsPerPixel"] = f.bitsPerPixel;
    j["width"] = f.width;
    j["height"] = f.height;
    j["topDown"] = f.topDown;
    j["frameInterval"] = f.avgTimePerFrame;
    j["bitRate"] = f.bitRate;
    j["imageSize"] = f.imageSize;
    j["sampleSize"] = f.sampleSize;
    return j;
}

// The registers of the bank the driver selected, read from the camera model
// after the call: what the camera now runs, whatever the driver recorded.
nlohmann::ordered_json ProgrammedJson(Session& session, bool still) {
    PORNIX_DEVICE_CONTEXT ext = session.Device();
    const ORNIX_FORMAT_RECORD* record = still ? ext->StillFormat : ext->CaptureFormat;
    if (record == nullptr) {
        return nullptr;
    }
    const unsigned bank = record->FormatIndex;
    ornixcam::Camera& camera = session.Rig().Camera();
    auto peek = [&](uint16_t offset) {
        return camera.PeekRegister(still ? reg::StillBank(bank, offset)
                                         : reg::CaptureBank(bank, offset));
    };
    const uint32_t colour = peek(reg::fmt::kColorId);
    const uint32_t size = peek(reg::fmt::kSize);
    const uint32_t binning = peek(reg::fmt::kBinning);
    const uint32_t position = peek(reg::fmt::kPosition);
    nlohmann::ordered_json j;
    j["bank"] = bank;
    j["registers"] = still ? "still" : "capture";
    j["colourValue"] = colour;
    j["colourId"] = colour & 0xFF;
    j["interlaced"] = (colour & kColourInterlaced) != 0;
    j["bottomUp"] = (colour & kColourBottomUp) != 0;
    j["windowWidth"] = size & 0xFFFF;
    j["windowHeight"] = size >> 16;
    j["binningX"] = binning & 0xFF;
    j["binningY"] = (binning >> 16) & 0xFF;
    j["startX"] = static_cast<int16_t>(position & 0xFFFF);
    j["startY"] = static_cast<int16_t>(position >> 16);
    if (!still) {
        j["currentFrequency"] = peek(reg::fmt::kCurrentFrequency);
    }
    return j;
}

void PrintText(const nlohmann::ordered_json& doc, std::ostream& out) {
    const auto& request = doc["request"];
    out << "Camera: " << doc["camera"].get<std::string>() << "\n"
        << "Pin " << doc["pin"].get<unsigned>() << " (" << doc["pinName"].get<std::string>()
        << "), format " << doc["format"].get<unsigned>() << ", asked for "
        << request["width"].get<int32_t>() << "x" << request["height"].get<int64_t>() << " at "
        << IntervalText(request["frameInterval"]) << "\n";

    const auto& a = doc["answer"];
    out << "\nThe driver answers:\n";
    TextTable answer({"Field", "Value"});
    answer.AddRow({"Size", std::to_string(a["width"].get<int32_t>()) + "x" +
                               std::to_string(a["height"].get<int64_t>())});
    answer.AddRow({"Subtype", a["subtype"].get<std::string>()});
    const std::string fourcc = a["fourcc"].get<std::string>();
    answer.AddRow({"FourCC", fourcc.empty() ? "(none)" : fourcc});
    answer.AddRow({"Bits per pixel", a["bitsPerPixel"].dump()});
    answer.AddRow({"Orientation", a["topDown"].get<bool>() ? "top-down" : "bottom-up"});
    answer.AddRow({"Frame interval", IntervalText(a["frameInterval"])});
    answer.AddRow({"Bit rate", a["bitRate"].dump()});
    answer.AddRow({"Image size", a["imageSize"].dump()});
    answer.AddRow({"Format size", a["formatSize"].dump()});
    answer.Print(out);

    const auto& p = doc["programmed"];
    if (p.is_null()) {
        return;
    }
    out << "\nThe camera runs (" << p["registers"].get<std::string>() << " bank "
        << p["bank"].get<unsigned>() << "):\n";
    TextTable camera({"Register", "Value"});
    std::string flags;
    if (p["interlaced"].get<bool>()) {
        flags += ", interlaced";
    }
    if (p["bottomUp"].get<bool>()) {
        flags += ", bottom-up";
    }
    camera.AddRow({"Colour id", p["colourId"].dump() + flags + " (" +
                                    HexText(p["colourValue"].get<uint32_t>(), 8) + ")"});
    camera.AddRow({"Window", p["windowWidth"].dump() + "x" + p["windowHeight"].dump()});
    camera.AddRow({"Binning", p["binningX"].dump() + "x" + p["binningY"].dump()});
    camera.AddRow({"Start", p["startX"].dump() + ", " + p["startY"].dump()});
    if (p.contains("currentFrequency")) {
        camera.AddRow({"Current frequency", p["currentFrequency"].dump()});
    }
    camera.Print(out);
}

}  // namespace

std::optional<std::pair<int32_t, int32_t>> ParseSize(const std::string& text) {
    const size_t x = text.find('x');
    if (x == std::string::npos) {
        return std::nullopt;
    }
    const auto width = PositiveNumber(std::string_view(text).substr(0, x));
    const auto height = PositiveNumber(std::string_view(text).substr(x + 1));
    if (!width || !height) {
        return std::nullopt;
    }
    return std::pair{*width, *height};
}

int RunTryFormat(Session& session, const TryFormatOptions& options, bool json, std::ostream& out,
                 std::ostream& err) {
    const auto negotiated = NegotiateFormat(session, options, err);
    if (!negotiated) {
        return 1;
    }
    const ULONG pinNumber = negotiated->pin;
    const winsim::VideoRangeView& published = negotiated->published;
    const bool still = pinNumber == ORNIX_STILL_STREAM;

    nlohmann::ordered_json doc;
    doc["camera"] = session.ProfileName();
    doc["pin"] = pinNumber;
    doc["pinName"] = negotiated->pinName;
    doc["format"] = options.format;
    doc["request"] = {{"width", options.width.value_or(published.width)},
                      {"height", options.height ? int64_t{*options.height} : published.height},
                      {"frameInterval", options.frameInterval.value_or(published.avgTimePerFrame)}};
    doc["answer"] = AnswerJson(negotiated->answer);
    doc["programmed"] = ProgrammedJson(session, still);
    if (json) {
        out << doc.dump(2) << "\n";
    } else {
        PrintText(doc, out);
    }
    return 0;
}

}  // namespace ornixctl
