#include "camera/profile_events.h"

#include <limits>
#include <string>

#include "camera/json_values.h"

namespace ornixcam {
namespace {

using json_values::Fail;
using json_values::Path;
using nlohmann::json;

constexpr uint32_t kMaxMask = std::numeric_limits<uint32_t>::max();
constexpr uint32_t kMaxMs = std::numeric_limits<uint32_t>::max();

uint32_t Field(const json& object, const char* key, const std::string& path, uint64_t max) {
    auto it = object.find(key);
    if (it == object.end()) {
        Fail(Path(path, key), "missing");
    }
    return static_cast<uint32_t>(json_values::Unsigned(*it, Path(path, key), max));
}

EventFault ParseFault(const json& value, const std::string& path) {
    const std::string& text = json_values::Text(value, path);
    if (text == "longPacket")
        return EventFault::LongPacket;
    if (text == "zeroLength")
        return EventFault::ZeroLengthPacket;
    if (text == "stall")
        return EventFault::Stall;
    Fail(path, "expected \"longPacket\", \"zeroLength\" or \"stall\", got \"" + text + "\"");
}

}  // namespace

void ParseEvents(const json& object, EventsProfile& events) {
    const std::string path = "events";
    json_values::RequireFields(object, path, {"every", "at", "faults", "longPacketBytes"});
    if (auto it = object.find("every"); it != object.end()) {
        const std::string every = Path(path, "every");
        json_values::RequireFields(*it, every, {"ms", "mask"});
        events.periodMs = Field(*it, "ms", every, kMaxMs);
        events.periodicMask = Field(*it, "mask", every, kMaxMask);
        if (events.periodMs == 0) {
            Fail(Path(every, "ms"), "must be at least 1");
        }
    }
    if (auto it = object.find("at"); it != object.end()) {
        const std::string at = Path(path, "at");
        json_values::RequireArray(*it, at);
        events.at.clear();
        for (size_t i = 0; i < it->size(); ++i) {
            const std::string entry = Path(at, i);
            json_values::RequireFields((*it)[i], entry, {"ms", "mask"});
            ScheduledEvents scheduled{Field((*it)[i], "ms", entry, kMaxMs),
                                      Field((*it)[i], "mask", entry, kMaxMask)};
            if (!events.at.empty() && scheduled.atMs < events.at.back().atMs) {
                Fail(Path(entry, "ms"), "must not be earlier than the entry before");
            }
            events.at.push_back(scheduled);
        }
    }
    if (auto it = object.find("faults"); it != object.end()) {
        const std::string faults = Path(path, "faults");
        json_values::RequireArray(*it, faults);
        events.faults.clear();
        for (size_t i = 0; i < it->size(); ++i) {
            events.faults.push_back(ParseFault((*it)[i], Path(faults, i)));
        }
    }
    if (auto it = object.find("longPacketBytes"); it != object.end()) {
        events.longPacketBytes = static_cast<uint16_t>(json_values::Unsigned(
            *it, Path(path, "longPacketBytes"), std::numeric_limits<uint16_t>::max()));
    }
}

void ParseVideo(const json& object, VideoProfile& video) {
    const std::string path = "video";
    json_values::RequireFields(object, path, {"pacing", "content", "stillTriggersMs"});
    if (auto it = object.find("pacing"); it != object.end()) {
        if (!it->is_boolean()) {
            Fail(Path(path, "pacing"), "expected true or false");
        }
        video.pacing = it->get<bool>();
    }
    if (auto it = object.find("content"); it != object.end()) {
        const std::string& text = json_values::Text(*it, Path(path, "content"));
        if (text != "pattern" && text != "scene") {
            Fail(Path(path, "content"), "expected \"pattern\" or \"scene\", got \"" + text + "\"");
        }
        video.scene = text == "scene";
    }
    if (auto it = object.find("stillTriggersMs"); it != object.end()) {
        const std::string triggers = Path(path, "stillTriggersMs");
        json_values::RequireArray(*it, triggers);
        video.stillTriggersMs.clear();
        for (size_t i = 0; i < it->size(); ++i) {
            const auto ms =
                static_cast<uint32_t>(json_values::Unsigned((*it)[i], Path(triggers, i), kMaxMs));
            if (!video.stillTriggersMs.empty() && ms < video.stillTriggersMs.back()) {
                Fail(Path(triggers, i), "must not be earlier than the entry before");
            }
            video.stillTriggersMs.push_back(ms);
        }
    }
}

}  // namespace ornixcam
