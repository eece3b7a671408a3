// Shared by the parser and the built-in profile: applies profile JSON on top of
// a base profile.
#pragma once

#include <filesystem>
#include <string_view>

#include "camera/profile.h"

namespace ornixcam {

// Fields present in `json` replace those of `base`; throws ProfileError.
// Files named in the profile ("@name") are looked up in `baseDirectory`.
Profile ProfileFromJson(std::string_view json, Profile base,
                        const std::filesystem::path& baseDirectory = {});

}  // namespace ornixcam
