// Format negotiation as the stream class runs it for KSPROPERTY_PIN_DATAINTERSECTION:
// the application names a pin and hands over a KSMULTIPLE_ITEM of data ranges
// and an output buffer; the class checks the list the way KS does and offers
// the ranges to the minidriver one at a time (SRB_GET_DATA_INTERSECTION) until
// one is answered with something other than STATUS_NO_MATCH.
//
// And the application's side of it: the size query with an empty buffer, the
// call with a buffer of the size answered, and the decoding of the answer.
#pragma once

#include <ksmedia.h>
#include <strmini.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "streamclass/filter_view.h"

namespace winsim {

struct SrbResult;
class StreamClass;

// What the property request gives back to the application.
struct IntersectionAnswer {
    NTSTATUS status = STATUS_PENDING;
    // Irp->IoStatus.Information: the minidriver's ActualBytesTransferred, i.e.
    // the bytes of the format, or the size needed when the status is
    // STATUS_BUFFER_OVERFLOW.
    ULONG information = 0;
    // What the minidriver wrote into the output buffer (the first
    // `information` bytes), on success only.
    std::vector<uint8_t> format;
};

// Lays the ranges out as a KSMULTIPLE_ITEM: each range starts on an 8-byte
// boundary, and Size covers the header and every range with its padding.
std::vector<uint8_t> PackDataRanges(const std::vector<std::vector<uint8_t>>& ranges);

// The class's walk over the ranges (StreamClass::PinDataIntersection uses it).
// `send` hands the filled STREAM_DATA_INTERSECT_INFO to the minidriver as
// SRB_GET_DATA_INTERSECTION. Blocks of an SRB the minidriver never completed
// go to `abandoned`, since it may still write into them.
class DataIntersectionWalk {
  public:
    using Send = std::function<SrbResult(STREAM_DATA_INTERSECT_INFO& info)>;

    DataIntersectionWalk(ULONG pinCount, Send send,
                         std::vector<std::unique_ptr<uint8_t[]>>& abandoned);
    IntersectionAnswer Run(ULONG pin, std::span<const uint8_t> dataRanges, ULONG outputLength);

  private:
    ULONG pinCount_;
    Send send_;
    std::vector<std::unique_ptr<uint8_t[]>>& abandoned_;
};

// ---- The application's side

// What an application gets from asking a pin for the format of one range:
// the status and, on success, the format bytes.
struct IntersectResult {
    NTSTATUS status = STATUS_PENDING;
    std::vector<uint8_t> format;
    ULONG sizeNeeded = 0;  // what the size query answered (0 if it answered no size)
};

// The size query with an empty buffer, then, when it answers
// STATUS_BUFFER_OVERFLOW, the call with a buffer of the size answered; any
// other first answer is the result, and so is an overflow asking for more
// than 64 KiB. Both calls send the one range.
IntersectResult Intersect(StreamClass& streamClass, ULONG pin, std::span<const uint8_t> dataRange);

// A concrete video format: a KSDATAFORMAT followed by a KS_VIDEOINFOHEADER
// (and, with a palette, the rest of a KS_VIDEOINFO).
struct VideoFormatView : VideoInfoView {
    uint32_t formatSize = 0;
    uint32_t sampleSize = 0;
    GUID majorFormat{};
    GUID subFormat{};
    GUID specifier{};
    bool hasPalette = false;  // long enough for KS_VIDEOINFO's colour table
};

// Nothing when the bytes are too short for the header and video information,
// FormatSize disagrees with their length, or the specifier is not VIDEOINFO.
std::optional<VideoFormatView> DecodeVideoFormat(std::span<const uint8_t> format);

// A copy of a published video range (KS_DATARANGE_VIDEO or its palette
// variant) asking for a window of `width` x `height` (the sign of biHeight
// kept) and a frame interval in 100 ns units; nothing when `range` is not a
// video range. Unset values keep the range's current ones.
std::optional<std::vector<uint8_t>> VideoRangeRequest(std::span<const uint8_t> range,
                                                      std::optional<int32_t> width,
                                                      std::optional<int32_t> height,
                                                      std::optional<int64_t> frameInterval);

}  // namespace winsim
