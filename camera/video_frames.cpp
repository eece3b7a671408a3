#include "camera/video_frames.h"

#include <algorithm>
#include <cstring>

namespace ornixcam {
namespace {

constexpr uint8_t kCount = 128;
constexpr uint8_t kPointList = 129;
constexpr uint32_t kPointStep = 8;  // a point every 8 columns and rows
constexpr uint32_t kPointRecord = 6;

enum class SampleKind { Byte, Little16, Big16 };

SampleKind KindOf(uint8_t id) {
    const uint32_t bits = BitsPerPixel(id);
    if (bits != 16) {
        return SampleKind::Byte;  // 8, and 12/24-bit ids addressed byte by byte
    }
    return id == 6 || (id >= 24 && id <= 31) ? SampleKind::Little16 : SampleKind::Big16;
}

// Stored samples per row: the output width, or for 12/24-bit ids the bytes
// of a row (the frame seen as 8-bit samples).
uint32_t RowSamples(const FrameGeometry& g) {
    const uint32_t bits = BitsPerPixel(g.ColourId());
    if (bits == 12 || bits == 24) {
        return g.OutHeight() == 0 ? 0 : FrameBytes(g) / g.OutHeight();
    }
    return g.OutWidth();
}

// The picture row that stored row `s` holds.
uint32_t PictureRow(const FrameGeometry& g, uint32_t s) {
    const uint32_t outH = g.OutHeight();
    if (g.BottomUp()) {
        s = outH - 1 - s;
    }
    if (g.Interlaced()) {
        const uint32_t half = g.height / 2;
        return s < half ? 2 * s : 2 * (s - half) + 1;
    }
    return s;
}

// The fold that keeps the ramp continuous: up to full scale, then back down.
template <typename T>
T Fold(uint32_t x) {
    constexpr uint32_t kBits = sizeof(T) * 8;
    constexpr uint32_t kMask = (1u << (kBits + 1)) - 1;
    x &= kMask;
    const uint32_t down = 0u - (x >> kBits);  // all ones on the way down
    return static_cast<T>((x ^ down) & ((1u << kBits) - 1));
}

// One count per sample: the fold direction stays readable from two neighbours.
uint32_t Step(SampleKind) {
    return 1;
}

void Put16(uint8_t* p, uint16_t v, SampleKind kind) {
    if (kind == SampleKind::Little16) {
        p[0] = static_cast<uint8_t>(v);
        p[1] = static_cast<uint8_t>(v >> 8);
    } else {
        p[0] = static_cast<uint8_t>(v >> 8);
        p[1] = static_cast<uint8_t>(v);
    }
}

uint16_t Get16(const uint8_t* p, SampleKind kind) {
    return kind == SampleKind::Little16 ? static_cast<uint16_t>(p[0] | p[1] << 8)
                                        : static_cast<uint16_t>(p[0] << 8 | p[1]);
}

void RenderPoints(const FrameGeometry& g, uint64_t n,
                  std::span<const std::pair<uint32_t, uint32_t>> hot, std::vector<uint8_t>& out) {
    // A sparse grid that moves one column per frame, with the hot samples
    // merged in: all sorted by row, then column.
    std::vector<std::pair<uint32_t, uint32_t>> hotByRow(hot.begin(), hot.end());
    std::sort(hotByRow.begin(), hotByRow.end(), [](auto a, auto b) {
        return std::pair{a.second, a.first} < std::pair{b.second, b.first};
    });
    const uint32_t cap = FrameBytes(g);
    const uint32_t outW = g.OutWidth(), outH = g.OutHeight();
    const uint32_t shift = static_cast<uint32_t>(n % kPointStep);
    out.clear();
    const auto add = [&](uint32_t x, uint32_t y, uint16_t value) {
        // The list always ends short of the largest frame.
        if (out.size() + 2 * kPointRecord > cap) {
            return;
        }
        const uint8_t rec[kPointRecord] = {
            static_cast<uint8_t>(x),     static_cast<uint8_t>(x >> 8),
            static_cast<uint8_t>(y),     static_cast<uint8_t>(y >> 8),
            static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
        out.insert(out.end(), rec, rec + kPointRecord);
    };
    size_t h = 0;
    for (uint32_t y = 0; y < outH; ++y) {
        const bool gridRow = y % kPointStep == 0;
        for (uint32_t x = shift; gridRow && x < outW; x += kPointStep) {
            for (; h < hotByRow.size() &&
                   std::pair{hotByRow[h].second, hotByRow[h].first} < std::pair{y, x};
                 ++h) {
                add(hotByRow[h].first, hotByRow[h].second, 0xFFFF);
            }
            if (h < hotByRow.size() && hotByRow[h] == std::pair{x, y}) {
                continue;  // the hot record stands for this point
            }
            add(x, y, static_cast<uint16_t>(n % 0xFFFF));  // 0xFFFF marks hot points
        }
        for (; h < hotByRow.size() && hotByRow[h].second == y; ++h) {
            add(hotByRow[h].first, y, 0xFFFF);
        }
    }
}

}  // namespace

uint32_t BitsPerPixel(uint8_t id) {
    switch (id) {
        case 0:
        case 8:
        case 9:
        case 10:
        case 11:
        case 16:
        case 17:
        case 18:
        case 19:
        case kCount:
        case kPointList:
            return 8;
        case 1:
            return 12;
        case 3:
        case 4:
        case 7:
            return 24;
        default:
            return id == 2 || id == 5 || id == 6 || (id >= 12 && id <= 15) || (id >= 20 && id <= 31)
                       ? 16
                       : 0;
    }
}

uint32_t FrameBytes(const FrameGeometry& g) {
    const uint32_t w = g.OutWidth(), h = g.OutHeight();
    if (w == 0 || h == 0) {
        return 0;
    }
    if (g.ColourId() == kCount) {
        return 4;
    }
    const uint32_t bytes = BitsPerPixel(g.ColourId()) * w * h / 8;
    if (g.ColourId() == kPointList) {
        return std::min<uint32_t>(bytes, g.highSpeed ? 0x200000 : 0x40000);
    }
    return bytes;
}

int64_t FrameDuration100ns(uint32_t frameBytes, uint32_t frequency) {
    constexpr int64_t kMicroframe100ns = 1250;
    constexpr int64_t kBytesPerMicroframe = 13 * 512;
    const int64_t bytes = frameBytes;
    const int64_t busLimit =
        (bytes + kBytesPerMicroframe - 1) / kBytesPerMicroframe * kMicroframe100ns;
    if (frequency == 0) {
        return busLimit;
    }
    const int64_t perRate =
        (bytes * 10'000'000 + int64_t{frequency} * 1024 - 1) / (int64_t{frequency} * 1024);
    return std::max(perRate, busLimit);
}

std::optional<std::pair<uint32_t, uint32_t>> MapSensorPixel(const FrameGeometry& g,
                                                            const SensorMapping& m, uint32_t x,
                                                            uint32_t y) {
    const int32_t bx = static_cast<int32_t>(g.binX), by = static_cast<int32_t>(g.binY);
    const int32_t sx = static_cast<int32_t>(x), sy = static_cast<int32_t>(y);
    const int32_t w = static_cast<int32_t>(g.width), h = static_cast<int32_t>(g.height);
    if (bx <= 0 || by <= 0 || sx < g.startX || sx >= g.startX + w || sy < g.startY ||
        sy >= g.startY + h) {
        return std::nullopt;
    }
    int32_t c = 0, r = 0;
    if (m.monochrome && (m.layout & 1) == 0) {
        const int32_t dx = sx - g.startX, dy = sy - g.startY;
        if (dx % bx != 0 || dy % by != 0) {
            return std::nullopt;
        }
        c = dx / bx;
        r = dy / by;
    } else {
        // Pixels of one colour pair bin together; the phase is the sensor's
        // colour origin within a binned pair.
        const int32_t px = static_cast<int32_t>(m.origin & 0xFFFF) % (2 * bx);
        const int32_t py = static_cast<int32_t>(m.origin >> 16) % (2 * by);
        const int32_t dx = sx - g.startX - px, dy = sy - g.startY - py;
        if ((dx / 2) % bx != 0 || (dy / 2) % by != 0) {
            return std::nullopt;
        }
        c = (dx & ~1) / bx + (dx & 1) + (px + 1) / (2 * bx);
        r = (dy & ~1) / by + (dy & 1) + (py + 1) / (2 * by);
    }
    if (g.Interlaced()) {
        r = r % 2 == 0 ? r / 2 : h / 2 + r / 2;
    }
    if (c < 0 || r < 0 || static_cast<uint32_t>(c) >= g.OutWidth() ||
        static_cast<uint32_t>(r) >= g.OutHeight()) {
        return std::nullopt;
    }
    return std::pair{static_cast<uint32_t>(c), static_cast<uint32_t>(r)};
}

std::vector<std::pair<uint32_t, uint32_t>> MapDefects(const FrameGeometry& g,
                                                      const SensorMapping& m,
                                                      std::span<const uint8_t> list) {
    std::vector<std::pair<uint32_t, uint32_t>> samples;
    const uint32_t bits = BitsPerPixel(g.ColourId());
    if (bits != 8 && bits != 16) {
        return samples;  // 12/24-bit rasters and the count frame have no sample grid
    }
    for (size_t i = 0; i + 4 <= list.size(); i += 4) {
        const uint32_t x = list[i] | list[i + 1] << 8, y = list[i + 2] | list[i + 3] << 8;
        if (auto s = MapSensorPixel(g, m, x, y)) {
            samples.push_back(*s);
        }
    }
    std::sort(samples.begin(), samples.end(), [](auto a, auto b) {
        return std::pair{a.second, a.first} < std::pair{b.second, b.first};
    });
    samples.erase(std::unique(samples.begin(), samples.end()), samples.end());
    return samples;
}

void FrameRenderer::Prepare(const FrameGeometry& g) {
    if (cached_ == g) {
        return;
    }
    const SampleKind kind = KindOf(g.ColourId());
    const uint32_t rowSamples = RowSamples(g), outH = g.OutHeight();
    const uint32_t step = Step(kind);
    rowStarts_.resize(outH);
    for (uint32_t s = 0; s < outH; ++s) {
        rowStarts_[s] = PictureRow(g, s) * step;
    }
    // One fold period and a row beyond it, stored as the frame stores
    // samples: any row of any frame is one contiguous slice of it.
    const uint32_t period = kind == SampleKind::Byte ? 512 : 131072;
    const size_t sampleBytes = kind == SampleKind::Byte ? 1 : 2;
    ramp_.resize((size_t{period} + rowSamples) * sampleBytes);
    for (size_t x = 0; x < size_t{period} + rowSamples; ++x) {
        const uint32_t folded = static_cast<uint32_t>(x % period);
        if (kind == SampleKind::Byte) {
            ramp_[x] = Fold<uint8_t>(folded);
        } else {
            Put16(&ramp_[2 * x], Fold<uint16_t>(folded), kind);
        }
    }
    cached_ = g;
}

void FrameRenderer::Begin(const FrameGeometry& g, uint64_t n,
                          std::vector<std::pair<uint32_t, uint32_t>> hot, FrameContent content) {
    const uint8_t id = g.ColourId();
    direct_ = false;
    if (id == kCount) {
        whole_.assign({static_cast<uint8_t>(n), static_cast<uint8_t>(n >> 8),
                       static_cast<uint8_t>(n >> 16), static_cast<uint8_t>(n >> 24)});
        return;
    }
    if (id == kPointList) {
        RenderPoints(g, n, hot, whole_);
        return;
    }
    size_ = FrameBytes(g);
    Prepare(g);
    const SampleKind kind = KindOf(id);
    sampleBytes_ = kind == SampleKind::Byte ? 1 : 2;
    period_ = kind == SampleKind::Byte ? 512 : 131072;
    rowSamples_ = RowSamples(g);
    add_ = static_cast<uint32_t>(n);
    samples_ = std::min<size_t>(size_t{rowSamples_} * rowStarts_.size(), size_ / sampleBytes_);
    hot_ = std::move(hot);
    if (content == FrameContent::Pattern) {
        direct_ = true;  // drawn piece by piece into the caller's buffers
        return;
    }
    // Eight grey bars and a bright block that crosses the picture.
    whole_.assign(size_, 0);
    const uint32_t block = std::max<uint32_t>(rowSamples_ / 16, 1);
    const uint32_t blockX = static_cast<uint32_t>(n * 4 % std::max<uint32_t>(rowSamples_, 1));
    for (size_t i = 0; i < samples_; ++i) {
        const uint32_t c = static_cast<uint32_t>(i % rowSamples_);
        const uint32_t r = static_cast<uint32_t>(i / rowSamples_);
        uint32_t level = c * 8 / rowSamples_ * 32 + 16;
        if (c >= blockX && c < blockX + block && r % 64 < 32) {
            level = 240;
        }
        if (kind == SampleKind::Byte) {
            whole_[i] = static_cast<uint8_t>(level);
        } else {
            Put16(&whole_[2 * i], static_cast<uint16_t>(level << 8), kind);
        }
    }
    DrawHot(0, whole_);
}

size_t FrameRenderer::Size() const {
    return direct_ ? size_ : whole_.size();
}

void FrameRenderer::CopyOut(size_t offset, std::span<uint8_t> dst) {
    if (!direct_) {
        const size_t n = offset < whole_.size() ? std::min(dst.size(), whole_.size() - offset) : 0;
        std::memcpy(dst.data(), whole_.data() + offset, n);
        return;
    }
    // Sample (c, r) of frame n is Fold(c + r + n): a stored row is a slice of
    // the ramp, so a piece is drawn at the speed of a copy.
    const size_t storedBytes = samples_ * sampleBytes_;
    const size_t rowBytes = size_t{rowSamples_} * sampleBytes_;
    size_t at = offset;
    const size_t end = offset + dst.size();
    while (at < end && at < storedBytes) {
        const size_t row = at / rowBytes;
        const size_t inRow = at - row * rowBytes;
        const size_t chunk = std::min({end, (row + 1) * rowBytes, storedBytes}) - at;
        const uint32_t x0 = (rowStarts_[row] + add_) % period_;
        std::memcpy(dst.data() + (at - offset), ramp_.data() + size_t{x0} * sampleBytes_ + inRow,
                    chunk);
        at += chunk;
    }
    if (at < end) {
        std::memset(dst.data() + (at - offset), 0, end - at);  // bytes past the last stored row
    }
    DrawHot(offset, dst);
}

// Hot samples are full scale: all ones in either byte order, so a sample
// that straddles two pieces is drawn byte by byte.
void FrameRenderer::DrawHot(size_t offset, std::span<uint8_t> dst) const {
    for (auto [c, r] : hot_) {
        const size_t i = size_t{r} * rowSamples_ + c;
        if (i >= samples_) {
            continue;
        }
        for (size_t b = i * sampleBytes_; b < (i + 1) * sampleBytes_; ++b) {
            if (b >= offset && b - offset < dst.size()) {
                dst[b - offset] = 0xFF;
            }
        }
    }
}

void FrameRenderer::Render(const FrameGeometry& g, uint64_t n,
                           std::span<const std::pair<uint32_t, uint32_t>> hot, FrameContent content,
                           std::vector<uint8_t>& out) {
    Begin(g, n, {hot.begin(), hot.end()}, content);
    out.resize(Size());
    CopyOut(0, out);
}

std::optional<uint64_t> RecoverFrameNumber(const FrameGeometry& g, std::span<const uint8_t> frame,
                                           std::span<const std::pair<uint32_t, uint32_t>> hot) {
    const uint8_t id = g.ColourId();
    if (id == kCount) {
        if (frame.size() < 4) {
            return std::nullopt;
        }
        return uint64_t{frame[0]} | uint64_t{frame[1]} << 8 | uint64_t{frame[2]} << 16 |
               uint64_t{frame[3]} << 24;
    }
    if (id == kPointList) {
        for (size_t i = 0; i + kPointRecord <= frame.size(); i += kPointRecord) {
            const uint16_t v = static_cast<uint16_t>(frame[i + 4] | frame[i + 5] << 8);
            if (v != 0xFFFF) {
                return v;
            }
        }
        return std::nullopt;
    }
    const SampleKind kind = KindOf(id);
    const uint32_t rowSamples = RowSamples(g), outH = g.OutHeight();
    const uint32_t width = kind == SampleKind::Byte ? 1 : 2;
    const uint32_t bits = 8 * width;
    const uint64_t modulus = uint64_t{1} << (bits + 1);
    const auto isHot = [&](uint32_t c, uint32_t s) {
        return std::find(hot.begin(), hot.end(), std::pair{c, s}) != hot.end();
    };
    const auto sample = [&](uint32_t c, uint32_t s) -> uint32_t {
        const uint8_t* p = &frame[(size_t{s} * rowSamples + c) * width];
        return kind == SampleKind::Byte ? *p : Get16(p, kind);
    };
    if (rowSamples < 2 || frame.size() < size_t{rowSamples} * outH * width) {
        return std::nullopt;
    }
    const uint32_t full = (1u << bits) - 1;
    for (uint32_t s = 0; s < outH; ++s) {
        if (isHot(0, s) || isHot(1, s)) {
            continue;
        }
        // Two neighbours tell which way the fold runs at the row's start.
        const uint32_t v0 = sample(0, s), v1 = sample(1, s);
        uint64_t x = 0;
        if (v1 > v0 || (v1 == v0 && v0 == full)) {
            x = v0;
        } else {
            x = modulus - 1 - v0;
        }
        const uint64_t base = uint64_t{PictureRow(g, s)} * Step(kind);
        return (x + modulus - base % modulus) % modulus;
    }
    return std::nullopt;
}

}  // namespace ornixcam
