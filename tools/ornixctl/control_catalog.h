// The controls users name on ornixctl's command line, each mapped to the
// property (set and id) that carries it, and whether this camera offers it.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "ornixctl/device_properties.h"
#include "ornixctl/session.h"
#include "streamclass/filter_view.h"

namespace ornixctl {

// A name or value the user got wrong; the message says what is valid.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

enum class ControlKind {
    Standard,         // a video-processing or camera control, in property units
    StartPosition,    // capture or still region start, taken at the next selection
    Binning,          // capture or still binning, taken at the next selection
    LookUpTable,      // the 8-bit look-up table
    PixelCorrection,  // defective-pixel correction on or off
    TriggerMode,      // the still stream's trigger flags
    FrameRate,        // the capture format's actual and fastest frame interval
    FrameRates,       // the frame intervals the capture format offers
    Record,           // a camera property record, raw (parameter: record number)
    Section,          // a product-data section (parameter: section number)
    ProductData,      // the product data as a whole: set "reload"
    Statistics,       // per-stream frame and error counters
    Version,          // camera id, serial number, FPGA and driver version
    BusInfo,          // register-interface version and bus speed
    EventsEnabled,    // the device events switched on
};

struct ControlInfo {
    const char* name;
    ControlKind kind;
    GUID set;
    uint32_t id;
    bool still;  // the still stream's variant
    bool canGet;
    bool canSet;
    const char* values;  // what a set takes, for help and errors
};

struct ControlRef {
    const ControlInfo* info = nullptr;
    uint32_t parameter = 0;   // record or section number
    uint32_t propertyId = 0;  // the id requests use (a record's custom id)
    std::string Name() const;
};

// Every control, in the order `controls` lists them.
const std::vector<ControlInfo>& Controls();
// "brightness", "record:20", "section:4"; throws UsageError listing the valid names.
ControlRef FindControl(std::string_view name);
// The item of the control's property as the camera's filter publishes it;
// null when the camera does not offer the control.
const winsim::PropertyItemView* PublishedItem(Session& session, const ControlRef& control);
// The names, comma-separated, for messages.
std::string ValidNames();
// The property that carries the control.
PropertyAddress Address(const ControlRef& control);

}  // namespace ornixctl
