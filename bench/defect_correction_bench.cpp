// Cost of the defective-pixel correction on a delivered frame: per defect on
// a large raster, and as bytes merged per second for point-list frames.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "ornix.h"

namespace {

constexpr ULONG kWidth = 4000;
constexpr ULONG kHeight = 3000;
constexpr size_t kDefects = 10000;

struct Defect {
    uint16_t x;
    uint16_t y;
};

// Defects spread over the sensor, in the order the camera lists them.
std::vector<Defect> SortedDefects(size_t count, uint16_t width, uint16_t height) {
    std::mt19937 random(20261124);
    std::vector<Defect> defects(count);
    for (Defect& d : defects) {
        d = {static_cast<uint16_t>(random() % width), static_cast<uint16_t>(random() % height)};
    }
    std::sort(defects.begin(), defects.end(),
              [](const Defect& a, const Defect& b) { return a.y != b.y ? a.y < b.y : a.x < b.x; });
    return defects;
}

std::vector<uint8_t> Section(const std::vector<Defect>& defects) {
    std::vector<uint8_t> bytes;
    for (const Defect& d : defects) {
        bytes.insert(bytes.end(), {static_cast<uint8_t>(d.x), static_cast<uint8_t>(d.x >> 8),
                                   static_cast<uint8_t>(d.y), static_cast<uint8_t>(d.y >> 8)});
    }
    return bytes;
}

// A device context with only what the correction reads.
struct Device {
    std::unique_ptr<ORNIX_DEVICE_CONTEXT> ext = std::make_unique<ORNIX_DEVICE_CONTEXT>();
    std::vector<uint8_t> section;

    Device(const std::vector<Defect>& defects, ULONG colourValue) : section(Section(defects)) {
        std::memset(ext.get(), 0, sizeof(*ext));
        KeInitializeSpinLock(&ext->DefectLock);
        ext->PixelCorrectionEnabled = TRUE;
        ext->DefectSection = section.data();
        ext->DefectSectionLength = static_cast<ULONG>(section.size());
        ext->CameraId = 0x0A2F;
        ext->CaptureColourValue = colourValue;
        ext->WindowWidth = kWidth;
        ext->WindowHeight = kHeight;
        ext->BinningX = 1;
        ext->BinningY = 1;
    }
};

// Bayer 16-bit (big-endian samples, pairs two apart), full sensor window.
void BM_RasterPerDefect(benchmark::State& state) {
    Device device(SortedDefects(kDefects, kWidth, kHeight), 12);
    std::vector<uint8_t> frame(size_t{kWidth} * kHeight * 2);
    std::mt19937 random(7);
    for (uint8_t& b : frame) {
        b = static_cast<uint8_t>(random());
    }
    for (auto _ : state) {
        OrnixCorrectDefectivePixels(device.ext.get(), frame.data(),
                                    static_cast<ULONG>(frame.size()), FALSE);
        benchmark::ClobberMemory();
    }
    state.counters["per_defect"] = benchmark::Counter(
        kDefects, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_RasterPerDefect)->Unit(benchmark::kMicrosecond);

// Point-list frame of one record per 12th sensor pixel; every defect that
// falls on a record strikes it. One forward pass over list and frame.
void BM_PointListMerge(benchmark::State& state) {
    const std::vector<Defect> defects = SortedDefects(kDefects, kWidth, kHeight);
    Device device(defects, 129);
    std::vector<uint8_t> frame;
    for (uint32_t y = 0; y < kHeight; y++) {
        for (uint32_t x = y % 12; x < kWidth; x += 12) {
            frame.insert(frame.end(),
                         {static_cast<uint8_t>(x), static_cast<uint8_t>(x >> 8),
                          static_cast<uint8_t>(y), static_cast<uint8_t>(y >> 8), 0x34, 0x12});
        }
    }
    const std::vector<uint8_t> original = frame;
    for (auto _ : state) {
        state.PauseTiming();
        std::memcpy(frame.data(), original.data(), frame.size());
        state.ResumeTiming();
        OrnixCorrectDefectivePixels(device.ext.get(), frame.data(),
                                    static_cast<ULONG>(frame.size()), FALSE);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(frame.size() + device.section.size()));
}
BENCHMARK(BM_PointListMerge)->Unit(benchmark::kMicrosecond);

}  // namespace
