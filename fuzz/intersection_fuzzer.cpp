// Format negotiation against a camera the input describes: the data ranges
// an application proposes come from the input too, as raw bytes with a
// FormatSize of the input's choosing or as the published ranges with fields
// changed. Each range goes through the stream class's intersection (the
// class's checks, then the driver's), and each format the driver answers is
// checked and handed to the driver's format verification, changed or not.
// Any verifier finding, sanitizer report or crash is a failure.
//
// Input: a 16-bit length L, then L bytes of camera (see camera_input.h, then
// chart edits), then the intersections. Splitting by length keeps the two
// parts independent, so a change to the camera does not reshuffle the ranges.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "camera_input.h"
#include "kernel/kernel.h"
#include "rig/rig.h"
#include "streamclass/data_intersection.h"

namespace {

constexpr unsigned kMaxIntersections = 4;
constexpr unsigned kMaxChartEntries = 9;
// Raw ranges up to a palette range and a little beyond.
constexpr uint16_t kMaxRawRange = 1400;

[[noreturn]] void Broken(const char* what) {
    std::fprintf(stderr, "intersection: %s\n", what);
    std::abort();
}

// Frame-rate charts are what the negotiation reads last; the bring-up
// fuzzer's camera leaves them alone.
void MutateCharts(ornixfuzz::Input& in, ornixcam::Profile& profile) {
    const unsigned edits = in.Pick(3);
    for (unsigned e = 0; e < edits && !profile.formatBanks.empty(); ++e) {
        auto& bank =
            profile.formatBanks[in.Pick(static_cast<unsigned>(profile.formatBanks.size()))];
        bank.chart.resize(in.Pick(kMaxChartEntries + 1));
        for (uint16_t& entry : bank.chart) {
            entry = in.U16();
        }
        bank.chartCount = in.Bool() ? std::nullopt : std::optional<uint32_t>(in.Byte() % 16);
    }
}

void Poke(std::vector<uint8_t>& bytes, uint16_t offset, uint32_t value, unsigned width) {
    if (bytes.empty()) {
        return;
    }
    const size_t at = offset % bytes.size();
    std::memcpy(bytes.data() + at, &value, std::min<size_t>(width, bytes.size() - at));
}

// A published range with some bytes changed; FormatSize (the first word) may
// change as well, to disagree with the bytes sent.
std::vector<uint8_t> ChangedRange(ornixfuzz::Input& in, std::vector<uint8_t> range) {
    const unsigned edits = in.Pick(5);
    for (unsigned e = 0; e < edits; ++e) {
        const uint16_t offset = in.U16();
        const uint32_t value = in.U32();
        Poke(range, offset, value, in.Bool() ? 4 : 1);
    }
    return range;
}

// Raw bytes of the input's length, FormatSize honest or the input's.
std::vector<uint8_t> RawRange(ornixfuzz::Input& in) {
    std::vector<uint8_t> range = in.Bytes(in.U16() % (kMaxRawRange + 1));
    if (range.size() >= sizeof(ULONG)) {
        const auto size = static_cast<ULONG>(range.size());
        const ULONG formatSize = in.Bool() ? size : in.U32();
        std::memcpy(range.data(), &formatSize, sizeof formatSize);
    }
    return range;
}

// What the driver must answer on success: a video format of one of its two
// sizes, as long as it says.
void CheckAnswer(const std::vector<uint8_t>& format) {
    const auto view = winsim::DecodeVideoFormat(format);
    if (!view) {
        Broken("a successful intersection answered something that is not a video format");
    }
    if (format.size() != sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFOHEADER) &&
        format.size() != sizeof(KSDATAFORMAT) + sizeof(KS_VIDEOINFO)) {
        Broken("a successful intersection answered a format of an unexpected size");
    }
}

// The answered format, perhaps changed, handed to the driver's verification
// as a stream open would hand it: in a block of exactly its FormatSize.
void Verify(ornixfuzz::Input& in, ornixrig::Rig& rig, ULONG pin, std::vector<uint8_t> format) {
    if (!in.Bool()) {
        return;
    }
    const unsigned edits = in.Pick(4);
    for (unsigned e = 0; e < edits; ++e) {
        // Past FormatSize: the class hands over a format exactly as long as it says.
        const uint16_t offset = static_cast<uint16_t>(sizeof(ULONG) + in.U16());
        Poke(format, offset, in.U32(), in.Bool() ? 4 : 1);
    }
    auto block = std::make_unique<uint8_t[]>(format.size());
    std::memcpy(block.get(), format.data(), format.size());
    const ULONG stream = in.Bool() ? in.Byte() : pin;
    winsim::RunAtIrql(PASSIVE_LEVEL, [&] {
        AdapterVerifyFormat(rig.Device(), reinterpret_cast<PKSDATAFORMAT>(block.get()), stream);
    });
}

void Negotiate(ornixfuzz::Input& in, ornixrig::Rig& rig) {
    winsim::StreamClass& sc = rig.StreamClass();
    const winsim::FilterView& filter = sc.Filter();
    const unsigned count = 1 + in.Pick(kMaxIntersections);
    for (unsigned n = 0; n < count; ++n) {
        const unsigned kind = in.Pick(3);
        // One past the last pin: the class must refuse it.
        const auto pin = static_cast<ULONG>(in.Pick(static_cast<unsigned>(filter.pins.size()) + 1));
        const std::vector<winsim::DataRangeView>* ranges =
            pin < filter.pins.size() ? &filter.pins[pin].ranges : nullptr;
        std::vector<uint8_t> range;
        if (kind == 0 || ranges == nullptr || ranges->empty()) {
            range = RawRange(in);
        } else {
            const winsim::DataRangeView& published =
                (*ranges)[in.Pick(static_cast<unsigned>(ranges->size()))];
            if (kind == 1) {
                range = ChangedRange(in, published.bytes);
            } else {
                const auto width = static_cast<int32_t>(in.U32());
                const auto height = static_cast<int32_t>(in.U32());
                const auto interval = static_cast<int64_t>(in.U32() | uint64_t{in.U32()} << 32);
                range = winsim::VideoRangeRequest(published.bytes, width, height, interval)
                            .value_or(published.bytes);
            }
        }

        if (in.Bool()) {
            // The application's way: size query, then the call.
            const winsim::IntersectResult result = winsim::Intersect(sc, pin, range);
            if (NT_SUCCESS(result.status)) {
                CheckAnswer(result.format);
                Verify(in, rig, pin, result.format);
            }
        } else {
            // One call with a buffer of the input's size, as a careless application makes it.
            const ULONG output = in.U16() % 1400;
            const winsim::IntersectionAnswer answer =
                sc.PinDataIntersection(pin, winsim::PackDataRanges({range}), output);
            if (NT_SUCCESS(answer.status)) {
                CheckAnswer(answer.format);
            }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    winsim::SetDebugSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return ornixfuzz::RunOnCamera(data, size, MutateCharts, Negotiate, "end of negotiation");
}
