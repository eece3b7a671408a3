#include "ornixctl/negotiation.h"

#include "ornix.h"
#include "ornixctl/names.h"

namespace ornixctl {

std::optional<NegotiatedFormat> NegotiateFormat(Session& session, const FormatRequest& request,
                                                std::ostream& err) {
    const ULONG pinNumber = request.pin == "still" ? ORNIX_STILL_STREAM : ORNIX_CAPTURE_STREAM;
    const winsim::FilterView& filter = session.Rig().StreamClass().Filter();
    if (pinNumber >= filter.pins.size()) {
        err << "ornixctl: the camera has no " << request.pin << " pin\n";
        return std::nullopt;
    }
    const winsim::PinView& pin = filter.pins[pinNumber];
    if (request.format >= pin.ranges.size()) {
        err << "ornixctl: the " << request.pin << " pin has " << pin.ranges.size()
            << " formats; there is no format " << request.format << "\n";
        return std::nullopt;
    }
    const winsim::DataRangeView& range = pin.ranges[request.format];
    const auto ask = winsim::VideoRangeRequest(range.bytes, request.width, request.height,
                                               request.frameInterval);
    if (!ask || !range.video) {
        err << "ornixctl: format " << request.format << " is not a video range\n";
        return std::nullopt;
    }
    const winsim::IntersectResult result =
        winsim::Intersect(session.Rig().StreamClass(), pinNumber, *ask);
    if (!NT_SUCCESS(result.status)) {
        err << "ornixctl: the driver refused the format: " << NtStatusName(result.status) << "\n";
        return std::nullopt;
    }
    const auto answer = winsim::DecodeVideoFormat(result.format);
    if (!answer) {
        err << "ornixctl: the driver answered " << result.format.size()
            << " bytes that are not a video format\n";
        return std::nullopt;
    }
    return NegotiatedFormat{pinNumber, pin.name ? PinName(*pin.name) : "", *range.video,
                            result.format, *answer};
}

}  // namespace ornixctl
