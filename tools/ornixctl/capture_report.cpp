#include "ornixctl/capture_report.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <string_view>

#include "ornixctl/frame_image.h"
#include "ornixctl/names.h"

namespace ornixctl {
namespace {

std::optional<int64_t> CounterIn(std::string_view line, std::string_view name) {
    const std::string key = "ORNIX: STOP: " + std::string(name) + ":";
    const size_t at = line.find(key);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    const std::string_view digits = line.substr(at + key.size());
    int64_t value = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (error != std::errc{}) {
        return std::nullopt;
    }
    return value;
}

std::string Count(const std::optional<int64_t>& value) {
    return value ? std::to_string(*value) : "-";
}

nlohmann::ordered_json OrNull(const std::optional<int64_t>& value) {
    return value ? nlohmann::ordered_json(*value) : nlohmann::ordered_json(nullptr);
}

}  // namespace

StopCounters ParseStopCounters(const std::vector<std::string>& debugLog) {
    StopCounters counters;
    const std::pair<const char*, std::optional<int64_t>*> fields[] = {
        {"UsbShortErrors", &counters.usbShortErrors},
        {"UsbXactErrors", &counters.usbTransactionErrors},
        {"UsbBabbleErrors", &counters.usbBabbleErrors},
        {"UsbOtherErrors", &counters.usbOtherErrors},
        {"ActualFramesCaptured", &counters.framesCaptured},
        {"ActualFramesDropped", &counters.framesDropped},
    };
    for (const std::string& line : debugLog) {
        for (const auto& [name, field] : fields) {
            if (auto value = CounterIn(line, name)) {
                *field = value;
            }
        }
    }
    return counters;
}

nlohmann::ordered_json SummaryJson(const CaptureSummary& s) {
    nlohmann::ordered_json j;
    j["camera"] = s.camera;
    j["pin"] = s.pin;
    j["format"] = s.format;
    j["width"] = s.width;
    j["height"] = s.height;
    j["colourId"] = s.colourValue & kColourIdMask;
    j["interlaced"] = (s.colourValue & kColourInterlaced) != 0;
    j["bottomUp"] = (s.colourValue & kColourBottomUp) != 0;
    j["frameInterval"] = s.frameInterval;
    j["fault"] =
        s.fault.empty() ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(s.fault);
    j["framesRequested"] = s.framesRequested;
    j["framesReceived"] = s.framesReceived;
    j["framesWritten"] = s.framesWritten;
    j["framesEmpty"] = s.framesEmpty;
    j["framesFailed"] = s.framesFailed;
    j["bytesReceived"] = s.bytesReceived;
    j["seconds"] = s.seconds;
    j["pictureNumber"] = OrNull(s.pictureNumber);
    j["dropCount"] = OrNull(s.dropCount);
    j["framesCaptured"] = s.pictureNumber && s.dropCount
                              ? nlohmann::ordered_json(*s.pictureNumber - *s.dropCount)
                              : OrNull(s.stop.framesCaptured);
    j["framesDropped"] = OrNull(s.stop.framesDropped);
    j["usbShortErrors"] = OrNull(s.stop.usbShortErrors);
    j["usbTransactionErrors"] = OrNull(s.stop.usbTransactionErrors);
    j["usbBabbleErrors"] = OrNull(s.stop.usbBabbleErrors);
    j["usbOtherErrors"] = OrNull(s.stop.usbOtherErrors);
    j["cancelRequests"] = s.cancelRequests;
    j["readsCancelled"] = s.readsCancelled;
    j["powerCycles"] = s.powerCycles;
    j["fpgaReloads"] = s.fpgaReloads;
    j["outputDirectory"] = s.outputDirectory;
    j["files"] = s.files;
    return j;
}

void PrintSummary(const CaptureSummary& s, std::ostream& out) {
    const nlohmann::ordered_json j = SummaryJson(s);
    auto number = [&](const char* key) {
        return j[key].is_null() ? std::string("-") : j[key].dump();
    };
    out << "Camera: " << s.camera << "\n"
        << "Pin: " << s.pin << ", format " << s.format << ", " << s.width << "x" << s.height
        << ", colour id " << (s.colourValue & kColourIdMask)
        << ((s.colourValue & kColourInterlaced) ? ", interlaced" : "")
        << ((s.colourValue & kColourBottomUp) ? ", bottom-up" : "") << ", "
        << IntervalText(s.frameInterval) << "\n";
    if (!s.fault.empty()) {
        out << "Injected fault: " << s.fault << "\n";
    }
    out << "Frames: " << s.framesWritten << " written, " << s.framesEmpty << " empty, "
        << s.framesFailed << " failed, of " << s.framesReceived << " received ("
        << s.framesRequested << " asked for)\n"
        << "Frames captured: " << number("framesCaptured") << "\n"
        << "Drop count: " << Count(s.dropCount) << "\n"
        << "Frames dropped: " << number("framesDropped") << "\n"
        << "USB errors: short " << number("usbShortErrors") << ", transaction "
        << number("usbTransactionErrors") << ", babble " << number("usbBabbleErrors") << ", other "
        << number("usbOtherErrors") << "\n";
    if (s.cancelRequests > 0) {
        out << "Cancelled reads: " << s.readsCancelled << " (" << s.cancelRequests
            << " cancels asked)\n";
    }
    if (s.powerCycles > 0) {
        out << "Power cycles: " << s.powerCycles << ", FPGA reloads: " << s.fpgaReloads << "\n";
    }
    out << "Files: " << s.files.size() << " in " << s.outputDirectory << "\n";
}

std::string ProgressText(unsigned frames, unsigned total, double seconds, uint64_t bytes,
                         int64_t dropped, bool bar) {
    std::string text;
    if (bar) {
        constexpr unsigned kWidth = 24;
        const unsigned filled = total == 0 ? kWidth : std::min(kWidth, frames * kWidth / total);
        text = "[" + std::string(filled, '#') + std::string(kWidth - filled, ' ') + "] ";
    }
    const double fps = seconds > 0 ? frames / seconds : 0;
    const double megabytes = seconds > 0 ? static_cast<double>(bytes) / 1e6 / seconds : 0;
    char line[128];
    std::snprintf(line, sizeof line, "%u/%u frames  %.1f fps  %.1f MB/s  %lld dropped", frames,
                  total, fps, megabytes, static_cast<long long>(dropped));
    return text + line;
}

void ProgressLine::Show(const std::string& text) {
    if (!terminal_) {
        out_ << text << "\n";
        return;
    }
    out_ << "\r" << text;
    if (text.size() < shown_) {
        out_ << std::string(shown_ - text.size(), ' ');
    }
    out_.flush();
    shown_ = text.size();
}

void ProgressLine::Finish() {
    if (terminal_ && shown_ > 0) {
        out_ << "\n";
        shown_ = 0;
    }
}

}  // namespace ornixctl
