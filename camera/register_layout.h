// Which registers exist and which way each one may be accessed.
#pragma once

#include <cstdint>
#include <map>

#include "camera/register_map.h"

namespace ornixcam {

// Register index -> access. Indices missing from the map are unknown to the camera.
using RegisterLayout = std::map<uint16_t, Access>;

// The layout of a camera with `formatBanks` capture and still banks (capped at
// reg::kMaxFormatBanks), with `overrides` applied on top: an override adds a
// register or changes its direction, and Access::None removes it.
RegisterLayout BuildRegisterLayout(unsigned formatBanks,
                                   const std::map<uint16_t, Access>& overrides = {});

}  // namespace ornixcam
