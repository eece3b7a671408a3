// What the camera's bulk-IN video endpoints send: the frame geometry taken
// from a format bank, the byte size of a frame, its pacing, and the rendered
// content with the sensor's defective pixels shown hot.
//
// Content is a test pattern: every raster sample is a folded ramp of
// (column + row) * step + frame number, so it is linear inside each colour
// plane (a hot pixel replaced by the mean of same-colour neighbours lands on
// the clean value, or within 2 counts of it at a fold), and a frame costs one
// pass over a cached table of positions.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace ornixcam {

// The layout of one frame, read from a bank when the frame starts.
struct FrameGeometry {
    uint32_t colourValue = 0;  // bits 0-7 colour id, bit 24 interlaced, bit 25 bottom-up
    uint32_t width = 0;        // window, sensor pixels
    uint32_t height = 0;
    int32_t startX = 0;
    int32_t startY = 0;
    uint32_t binX = 1;  // factor bytes
    uint32_t binY = 1;
    bool highSpeed = true;

    uint8_t ColourId() const { return static_cast<uint8_t>(colourValue); }
    bool Interlaced() const { return (colourValue & (1u << 24)) != 0; }
    bool BottomUp() const { return (colourValue & (1u << 25)) != 0; }
    uint32_t OutWidth() const { return binX == 0 ? 0 : width / binX; }
    uint32_t OutHeight() const { return binY == 0 ? 0 : height / binY; }
    bool operator==(const FrameGeometry&) const = default;
};

// How the sensor's pixels map onto frame samples.
struct SensorMapping {
    bool monochrome = false;
    uint32_t layout = 0;  // ORNIX_SENSOR_LAYOUT
    uint32_t origin = 0;  // ORNIX_SENSOR_ORIGIN
};

uint32_t BitsPerPixel(uint8_t colourId);
// Bytes of a full frame; for colour id 129 the most a point list may hold.
uint32_t FrameBytes(const FrameGeometry& geometry);
// Simulated time one frame takes on the wire: its bytes at `frequency`
// (KiB/s of pixel data), never faster than 13 packets of 512 bytes per
// 125 us microframe. 100 ns units; 0 frequency counts as the bus limit.
int64_t FrameDuration100ns(uint32_t frameBytes, uint32_t frequency);

// Frame samples (column, row as stored) that sensor pixel (x, y) lands on.
std::optional<std::pair<uint32_t, uint32_t>> MapSensorPixel(const FrameGeometry& geometry,
                                                            const SensorMapping& mapping,
                                                            uint32_t x, uint32_t y);
// The defect list (4-byte records x, y little-endian) mapped onto the frame,
// samples outside the frame left out, sorted by row then column.
std::vector<std::pair<uint32_t, uint32_t>> MapDefects(const FrameGeometry& geometry,
                                                      const SensorMapping& mapping,
                                                      std::span<const uint8_t> defectList);

enum class FrameContent { Pattern, Scene };

// Renders frames of one geometry; keeps the per-geometry base tables. A
// frame is begun once and copied out piece by piece as the pipe carries it.
class FrameRenderer {
  public:
    // Frame `n`; hot samples are drawn full-scale.
    void Begin(const FrameGeometry& geometry, uint64_t n,
               std::vector<std::pair<uint32_t, uint32_t>> hot, FrameContent content);
    size_t Size() const;
    // Bytes [offset, offset + dst.size()) of the frame begun last.
    void CopyOut(size_t offset, std::span<uint8_t> dst);

    // The whole frame `n` at once into `out` (resized).
    void Render(const FrameGeometry& geometry, uint64_t n,
                std::span<const std::pair<uint32_t, uint32_t>> hot, FrameContent content,
                std::vector<uint8_t>& out);

  private:
    void Prepare(const FrameGeometry& geometry);
    void DrawHot(size_t offset, std::span<uint8_t> dst) const;

    std::optional<FrameGeometry> cached_;
    std::vector<uint32_t> rowStarts_;  // per stored row: picture row * step
    std::vector<uint8_t> ramp_;        // the folded ramp, one period and a row more

    // The frame begun last: the pattern is drawn directly, anything else
    // is drawn whole into whole_.
    bool direct_ = false;
    std::vector<uint8_t> whole_;
    size_t size_ = 0;
    size_t samples_ = 0;
    size_t sampleBytes_ = 1;
    uint32_t period_ = 512;
    uint32_t rowSamples_ = 0;
    uint32_t add_ = 0;
    std::vector<std::pair<uint32_t, uint32_t>> hot_;
};

// The frame number a delivered frame carries, modulo 2^(bits + 1) for
// rasters of 8 or 16 bits (512 or 131072; 12/24-bit ids as 8-bit bytes),
// 2^32 for colour id 128 and 65535 for colour id 129. Nullopt when the
// bytes do not hold it.
std::optional<uint64_t> RecoverFrameNumber(const FrameGeometry& geometry,
                                           std::span<const uint8_t> frame,
                                           std::span<const std::pair<uint32_t, uint32_t>> hot);

}  // namespace ornixcam
