// Writing an Image as a PNG file with libpng. Builds without libpng (the
// 32-bit host build has none) report that PNG output is unavailable.
#pragma once

#include <string>

#include "ornixctl/frame_image.h"

namespace ornixctl {

// False when this build has no PNG support.
bool PngAvailable();

// Writes `image` to `path`; an empty string on success, else the reason.
std::string WritePng(const std::string& path, const Image& image);

}  // namespace ornixctl
