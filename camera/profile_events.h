// Parser of the profile's `events` section: the interrupt endpoint's
// schedule and faults.
#pragma once

#include <nlohmann/json.hpp>

#include "camera/profile.h"

namespace ornixcam {

// Merges the JSON into `events` field by field; errors throw ProfileError.
void ParseEvents(const nlohmann::json& object, EventsProfile& events);
// The `video` section: pacing, content and the external still triggers.
void ParseVideo(const nlohmann::json& object, VideoProfile& video);

}  // namespace ornixcam
