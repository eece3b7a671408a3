// Shared by the parser and the built-in profile: applies profile JSON on top of
// a base profile.
#pragma once

#include <string_view>

#include "camera/profile.h"

namespace ornixcam {

// Fields present in `json` replace those of `base`; throws ProfileError.
Profile ProfileFromJson(std::string_view json, Profile base);

}  // namespace ornixcam
