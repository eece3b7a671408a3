// Choosing a concrete format on a pin as an application does: the pin's
// published range number N, asking in a copy of it for a window and a frame
// interval, sent as a data intersection. try-format shows the answer;
// capture and still open the pin with it.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "ornixctl/session.h"
#include "streamclass/data_intersection.h"

namespace ornixctl {

struct FormatRequest {
    std::string pin = "capture";  // "capture" or "still"
    unsigned format = 0;          // the pin's data range, numbered as `formats` does
    std::optional<int32_t> width, height;
    std::optional<int64_t> frameInterval;  // 100 ns units
};

struct NegotiatedFormat {
    ULONG pin = 0;  // stream number
    std::string pinName;
    winsim::VideoRangeView published;  // the range as the pin offers it
    std::vector<uint8_t> format;       // the driver's answer: KSDATAFORMAT + video info
    winsim::VideoFormatView answer;    // the same, decoded
};

// Nothing, with the reason on `err` ("ornixctl: ..."), when the pin or
// format does not exist or the driver refuses.
std::optional<NegotiatedFormat> NegotiateFormat(Session& session, const FormatRequest& request,
                                                std::ostream& err);

}  // namespace ornixctl
