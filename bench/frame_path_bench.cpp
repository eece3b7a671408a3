// The frame path from the camera's bulk pipe to the application's buffers:
// paced at the camera's highest frame rate, unpaced against a plain memcpy
// of the same bytes, and the pool allocations a running stream makes.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <optional>
#include <vector>

#include "kernel/kernel.h"
#include "rig/rig.h"
#include "streamclass/data_intersection.h"
#include "streamclass/pin.h"

namespace {

constexpr double kPatience = 60;  // real seconds for one frame before giving up

struct CaptureRig {
    ornixrig::Rig rig;
    std::unique_ptr<winsim::Pin> pin;

    // The capture pin at its fastest frame interval (the highest frequency).
    explicit CaptureRig(bool paced) {
        winsim::SetVerifierMode(winsim::VerifierMode::Abort);
        rig.Camera().SetPacing(paced);
        if (rig.Start() != STATUS_SUCCESS) {
            return;
        }
        const winsim::DataRangeView& range = rig.StreamClass().Filter().pins.at(0).ranges.at(0);
        std::optional<std::vector<uint8_t>> request = winsim::VideoRangeRequest(
            range.bytes, std::nullopt, std::nullopt, range.video->minFrameInterval);
        winsim::IntersectionAnswer answer =
            rig.StreamClass().PinDataIntersection(0, winsim::PackDataRanges({*request}), 4096);
        winsim::PinOptions options;
        options.format = answer.format;
        options.queuedReads = 4;
        pin = winsim::Pin::Open(rig.StreamClass(), options);
        if (pin && pin->Run() != STATUS_SUCCESS) {
            pin.reset();
        }
    }
    ~CaptureRig() {
        pin.reset();
        rig.Stop();
    }
};

// 1,000 consecutive frames at the camera's own pace: none may be dropped.
void BM_PacedCapture(benchmark::State& state) {
    CaptureRig capture(true);
    if (!capture.pin) {
        state.SkipWithError("capture pin did not start");
        return;
    }
    constexpr int kFrames = 1000;
    int64_t frames = 0;
    for (auto _ : state) {
        for (int i = 0; i < kFrames; ++i) {
            std::optional<winsim::PinFrame> frame = capture.pin->NextFrame(kPatience);
            if (!frame || frame->status != STATUS_SUCCESS || frame->dataUsed == 0) {
                state.SkipWithError("a frame was lost");
                return;
            }
            ++frames;
        }
    }
    std::optional<KSPROPERTY_DROPPEDFRAMES_CURRENT_S> dropped = capture.pin->DroppedFrames();
    PORNIX_STREAM_CONTEXT stream = capture.rig.Device()->StreamContexts[0];
    ORNIX_STREAM_STATISTICS statistics{};
    StreamReadStatistics(stream, &statistics);
    state.counters["frames"] = double(frames);
    state.counters["drop_count"] = dropped ? double(dropped->DropCount) : -1;
    state.counters["frames_dropped"] = double(statistics.ActualFramesDropped);
    state.counters["cpu_per_frame"] = benchmark::Counter(
        double(frames), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.SetItemsProcessed(frames);
}
BENCHMARK(BM_PacedCapture)->Iterations(1)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime();

// As fast as the frame path goes, and a memcpy of the same bytes into the
// same number of frame buffers in the same run.
void BM_UnpacedCapture(benchmark::State& state) {
    CaptureRig capture(false);
    if (!capture.pin) {
        state.SkipWithError("capture pin did not start");
        return;
    }
    const size_t frameBytes = capture.rig.Device()->StreamContexts[0]->FrameSize;
    for (int i = 0; i < 20; ++i) {  // warm up: buffers touched, caches filled
        capture.pin->NextFrame(kPatience);
    }
    const uint64_t allocationsBefore = winsim::AllocationAttempts();
    int64_t frames = 0;
    auto started = std::chrono::steady_clock::now();
    for (auto _ : state) {
        std::optional<winsim::PinFrame> frame = capture.pin->NextFrame(kPatience);
        if (!frame || frame->dataUsed != frameBytes) {
            state.SkipWithError("a frame was lost");
            return;
        }
        ++frames;
    }
    const double captureSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const uint64_t allocations = winsim::AllocationAttempts() - allocationsBefore;

    std::vector<std::vector<uint8_t>> buffers(4, std::vector<uint8_t>(frameBytes));
    std::vector<uint8_t> source(frameBytes, 0x5A);
    started = std::chrono::steady_clock::now();
    for (int64_t i = 0; i < frames; ++i) {
        std::memcpy(buffers[size_t(i) % buffers.size()].data(), source.data(), frameBytes);
        benchmark::ClobberMemory();
    }
    const double memcpySeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    state.SetItemsProcessed(frames);
    state.SetBytesProcessed(frames * int64_t(frameBytes));
    state.counters["memcpy_ratio"] = captureSeconds > 0 ? memcpySeconds / captureSeconds : 0;
    state.counters["pool_allocations"] = double(allocations);
    ORNIX_STREAM_STATISTICS statistics{};
    StreamReadStatistics(capture.rig.Device()->StreamContexts[0], &statistics);
    state.counters["frames_dropped"] = double(statistics.ActualFramesDropped);
}
BENCHMARK(BM_UnpacedCapture)->MinTime(3)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
