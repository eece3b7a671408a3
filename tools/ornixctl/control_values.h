// One control read or written through its property, in the units users know:
// standard controls in property units (exposure as log2 seconds), custom ones
// decoded from their records.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

#include "ornixctl/control_catalog.h"

namespace ornixctl {

struct ControlReading {
    nlohmann::ordered_json json;  // "name" and the control's own fields
    std::string text;             // the same for people, one line or a few
};

// "name = text", or "name:" and the text's lines for a text of several.
std::string ControlLine(const ControlReading& reading);

// Throws PropertyFailure when the driver refuses, UsageError for a control
// this camera does not offer or that cannot be read.
ControlReading ReadControl(Session& session, const ControlRef& control);

// Sets `value` (as the control's `values` describe); `autoMode` puts a
// standard control in automatic mode. Checks the value before anything
// reaches the driver: UsageError says what is valid.
void WriteControl(Session& session, const ControlRef& control, const std::string& value,
                  bool autoMode);

// Refuses a control the camera does not publish, naming it.
void RequireOffered(Session& session, const ControlRef& control);

}  // namespace ornixctl
