#include "streamclass/data_intersection.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "kernel/kernel.h"
#include "streamclass/stream_class.h"

namespace winsim {
namespace {

// Guard behind the application's output buffer: room for a whole palette
// format, the usual overrun of a minidriver that ignores the buffer size.
constexpr size_t kGuardBytes = 1200;
constexpr uint8_t kGuardFill = 0xCD;

// The largest answer an application allocates a buffer for.
constexpr ULONG kMaxFormatSize = 0x10000;

// Items of a KSMULTIPLE_ITEM start on 8-byte boundaries.
constexpr size_t QuadAlign(size_t n) {
    return (n + 7) & ~size_t{7};
}

// FORMAT_VideoInfo.
constexpr GUID kSpecifierVideoInfo = {
    0x05589F80, 0xC356, 0x11CE, {0xBF, 0x01, 0x00, 0xAA, 0x00, 0x55, 0x59, 0x5A}};

template <typename T>
T Read(std::span<const uint8_t> bytes, size_t offset = 0) {
    T value;
    std::memcpy(&value, bytes.data() + offset, sizeof value);
    return value;
}

}  // namespace

std::vector<uint8_t> PackDataRanges(const std::vector<std::vector<uint8_t>>& ranges) {
    std::vector<uint8_t> item(sizeof(KSMULTIPLE_ITEM));
    for (const std::vector<uint8_t>& range : ranges) {
        item.resize(QuadAlign(item.size()));
        item.insert(item.end(), range.begin(), range.end());
    }
    const KSMULTIPLE_ITEM header{static_cast<ULONG>(item.size()),
                                 static_cast<ULONG>(ranges.size())};
    std::memcpy(item.data(), &header, sizeof header);
    return item;
}

DataIntersectionWalk::DataIntersectionWalk(ULONG pinCount, Send send,
                                           std::vector<std::unique_ptr<uint8_t[]>>& abandoned)
    : pinCount_(pinCount), send_(std::move(send)), abandoned_(abandoned) {}

IntersectionAnswer DataIntersectionWalk::Run(ULONG pin, std::span<const uint8_t> dataRanges,
                                             ULONG outputLength) {
    IntersectionAnswer answer;
    // The minidriver is only ever asked about pins its filter has.
    if (pin >= pinCount_) {
        answer.status = STATUS_INVALID_PARAMETER;
        return answer;
    }
    if (dataRanges.size() < sizeof(KSMULTIPLE_ITEM)) {
        answer.status = STATUS_INVALID_BUFFER_SIZE;
        return answer;
    }
    const auto list = Read<KSMULTIPLE_ITEM>(dataRanges);
    if (list.Size < sizeof(KSMULTIPLE_ITEM) || list.Size > dataRanges.size()) {
        answer.status = STATUS_INVALID_BUFFER_SIZE;
        return answer;
    }

    // One buffer, as the application has one, reused for every range; the
    // guard behind it catches a minidriver that writes past its size.
    auto output = std::make_unique<uint8_t[]>(outputLength + kGuardBytes);
    std::memset(output.get(), 0, outputLength);
    std::memset(output.get() + outputLength, kGuardFill, kGuardBytes);

    size_t offset = sizeof(KSMULTIPLE_ITEM);
    for (ULONG i = 0; i < list.Count; ++i) {
        const size_t left = offset < list.Size ? list.Size - offset : 0;
        if (left < sizeof(KSDATARANGE)) {
            answer.status = STATUS_INVALID_BUFFER_SIZE;
            return answer;
        }
        const ULONG formatSize = Read<KSDATARANGE>(dataRanges, offset).FormatSize;
        if (formatSize < sizeof(KSDATARANGE)) {
            answer.status = STATUS_INVALID_PARAMETER;
            return answer;
        }
        if (formatSize > left) {
            answer.status = STATUS_INVALID_BUFFER_SIZE;
            return answer;
        }
        // Exactly FormatSize bytes of heap: a minidriver that reads beyond
        // the size the range claims is caught by AddressSanitizer.
        auto range = std::make_unique<uint8_t[]>(formatSize);
        std::memcpy(range.get(), dataRanges.data() + offset, formatSize);

        STREAM_DATA_INTERSECT_INFO info{};
        info.StreamNumber = pin;
        info.DataRange = reinterpret_cast<PKSDATARANGE>(range.get());
        info.DataFormatBuffer = output.get();
        info.SizeOfDataFormatBuffer = outputLength;
        const SrbResult result = send_(info);
        if (!result.completed) {
            abandoned_.push_back(std::move(range));
            abandoned_.push_back(std::move(output));
            answer.status = STATUS_IO_TIMEOUT;
            return answer;
        }
        if (std::any_of(output.get() + outputLength, output.get() + outputLength + kGuardBytes,
                        [](uint8_t b) { return b != kGuardFill; })) {
            ReportViolation("DATA_INTERSECTION", "SRB_GET_DATA_INTERSECTION for pin " +
                                                     std::to_string(pin) + " wrote past the " +
                                                     std::to_string(outputLength) +
                                                     "-byte data format buffer");
            std::memset(output.get() + outputLength, kGuardFill, kGuardBytes);
        }
        if (result.status == STATUS_NO_MATCH) {
            offset += QuadAlign(formatSize);
            continue;
        }
        answer.status = result.status;
        answer.information = result.actualBytesTransferred;
        if (NT_SUCCESS(result.status)) {
            if (result.actualBytesTransferred > outputLength) {
                ReportViolation("DATA_INTERSECTION",
                                "SRB_GET_DATA_INTERSECTION for pin " + std::to_string(pin) +
                                    " succeeded with ActualBytesTransferred " +
                                    std::to_string(result.actualBytesTransferred) + " for a " +
                                    std::to_string(outputLength) + "-byte data format buffer");
            }
            const ULONG written = std::min(result.actualBytesTransferred, outputLength);
            answer.format.assign(output.get(), output.get() + written);
        }
        return answer;
    }
    answer.status = STATUS_NO_MATCH;
    return answer;
}

IntersectResult Intersect(StreamClass& streamClass, ULONG pin, std::span<const uint8_t> dataRange) {
    const std::vector<uint8_t> list =
        PackDataRanges({std::vector<uint8_t>(dataRange.begin(), dataRange.end())});
    IntersectResult result;
    const IntersectionAnswer query = streamClass.PinDataIntersection(pin, list, 0);
    if (query.status != STATUS_BUFFER_OVERFLOW) {
        result.status = query.status;
        result.format = query.format;
        return result;
    }
    result.sizeNeeded = query.information;
    // No format is that large: an application would not allocate the buffer.
    if (query.information > kMaxFormatSize) {
        result.status = query.status;
        return result;
    }
    const IntersectionAnswer answer = streamClass.PinDataIntersection(pin, list, query.information);
    result.status = answer.status;
    result.format = answer.format;
    return result;
}

std::optional<VideoFormatView> DecodeVideoFormat(std::span<const uint8_t> format) {
    constexpr size_t kHeaderSize = sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFOHEADER);
    if (format.size() < kHeaderSize) {
        return std::nullopt;
    }
    const auto header = Read<KSDATAFORMAT>(format);
    if (header.FormatSize != format.size() || !SameGuid(header.Specifier, kSpecifierVideoInfo)) {
        return std::nullopt;
    }
    VideoFormatView view;
    static_cast<VideoInfoView&>(view) =
        DecodeVideoInfo(Read<KS_VIDEOINFOHEADER>(format, sizeof(KSDATAFORMAT)));
    view.formatSize = header.FormatSize;
    view.sampleSize = header.SampleSize;
    view.majorFormat = header.MajorFormat;
    view.subFormat = header.SubFormat;
    view.specifier = header.Specifier;
    view.hasPalette = format.size() >= sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFO);
    return view;
}

std::optional<std::vector<uint8_t>> VideoRangeRequest(std::span<const uint8_t> range,
                                                      std::optional<int32_t> width,
                                                      std::optional<int32_t> height,
                                                      std::optional<int64_t> frameInterval) {
    if (range.size() < sizeof(KS_DATARANGE_VIDEO) ||
        Read<KSDATARANGE>(range).FormatSize != range.size() ||
        !SameGuid(Read<KSDATARANGE>(range).Specifier, kSpecifierVideoInfo)) {
        return std::nullopt;
    }
    std::vector<uint8_t> request(range.begin(), range.end());
    auto video = Read<KS_DATARANGE_VIDEO>(request);
    KS_BITMAPINFOHEADER& bitmap = video.VideoInfoHeader.bmiHeader;
    if (width) {
        bitmap.biWidth = *width;
    }
    if (height) {
        // The published orientation stays: only the size changes.
        // Negated by wrapping, so that any height an application sends is defined.
        bitmap.biHeight =
            bitmap.biHeight < 0 ? static_cast<LONG>(0u - static_cast<uint32_t>(*height)) : *height;
    }
    if (frameInterval) {
        video.VideoInfoHeader.AvgTimePerFrame = *frameInterval;
    }
    std::memcpy(request.data(), &video, sizeof video);
    return request;
}

}  // namespace winsim
