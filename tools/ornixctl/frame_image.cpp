#include "ornixctl/frame_image.h"

#include <algorithm>
#include <cstdio>

namespace ornixctl {
namespace {

uint16_t Clamp(double value, unsigned bitDepth) {
    const double top = bitDepth == 16 ? 65535.0 : 255.0;
    return static_cast<uint16_t>(std::clamp(value + 0.5, 0.0, top));
}

// R, G, B or C, Y, M to a plane number 0..2.
int PlaneOf(char letter) {
    switch (letter) {
        case 'R':
        case 'C':
            return 0;
        case 'G':
        case 'Y':
            return 1;
        default:
            return 2;
    }
}

// The raster's byte size, in 64 bits so that no window size wraps.
uint64_t FrameBytes(uint8_t colourId, uint32_t width, uint32_t height) {
    return uint64_t{width} * height * BitsPerPixel(colourId) / 8;
}

}  // namespace

PixelLayout LayoutOf(uint8_t colourId) {
    switch (colourId) {
        case 0:
            return PixelLayout::Mono8;
        case 1:
            return PixelLayout::Mono12;
        case 2:
            return PixelLayout::Yuv422;
        case 3:
        case 4:
        case 7:
            return PixelLayout::Rgb24;
        case 5:
        case 6:
            return PixelLayout::Mono16;
        case kColourIdCount:
        case kColourIdPoints:
            return PixelLayout::Text;
        default:
            break;
    }
    if ((colourId >= 8 && colourId <= 15) || (colourId >= 24 && colourId <= 27)) {
        return PixelLayout::Bayer;
    }
    if ((colourId >= 16 && colourId <= 23) || (colourId >= 28 && colourId <= 31)) {
        return PixelLayout::Complementary;
    }
    return PixelLayout::Unknown;
}

unsigned BitsPerPixel(uint8_t colourId) {
    switch (colourId) {
        case 0:
        case 8:
        case 9:
        case 10:
        case 11:
        case 16:
        case 17:
        case 18:
        case 19:
        case kColourIdCount:
        case kColourIdPoints:
            return 8;
        case 1:
            return 12;
        case 3:
        case 4:
        case 7:
            return 24;
        default:
            break;
    }
    if (colourId == 2 || colourId == 5 || colourId == 6 || (colourId >= 12 && colourId <= 15) ||
        (colourId >= 20 && colourId <= 31)) {
        return 16;
    }
    return 0;
}

bool LittleEndianSamples(uint8_t colourId) {
    return colourId == 6 || (colourId >= 24 && colourId <= 31);
}

std::string MosaicTile(uint8_t colourId) {
    static const char* const kBayer[] = {"RGGB", "GRBG", "GBRG", "BGGR"};
    static const char* const kComplementary[] = {"CYYM", "YCMY", "YMCY", "MYYC"};
    switch (LayoutOf(colourId)) {
        case PixelLayout::Bayer:
            return kBayer[colourId % 4];
        case PixelLayout::Complementary:
            return kComplementary[colourId % 4];
        default:
            return {};
    }
}

std::optional<std::vector<uint16_t>> ReadSamples(uint8_t colourId, std::span<const uint8_t> bytes,
                                                 uint32_t width, uint32_t height) {
    const unsigned bits = BitsPerPixel(colourId);
    if (bits == 0 || bits == 24 || bytes.size() < FrameBytes(colourId, width, height)) {
        return std::nullopt;
    }
    const size_t count = size_t{width} * height;
    std::vector<uint16_t> samples(count);
    if (bits == 8) {
        std::copy_n(bytes.begin(), count, samples.begin());
    } else if (bits == 16) {
        const bool little = LittleEndianSamples(colourId);
        for (size_t i = 0; i < count; ++i) {
            const uint8_t first = bytes[2 * i], second = bytes[2 * i + 1];
            samples[i] = little ? static_cast<uint16_t>(first | second << 8)
                                : static_cast<uint16_t>(first << 8 | second);
        }
    } else {
        // 12 bits: each pair of pixels fills three bytes, first pixel's bits first.
        for (size_t i = 0; i < count; ++i) {
            const size_t bit = i * 12;
            const uint8_t a = bytes[bit / 8];
            const uint8_t b = bit / 8 + 1 < bytes.size() ? bytes[bit / 8 + 1] : 0;
            samples[i] = bit % 8 == 0 ? static_cast<uint16_t>(a << 4 | b >> 4)
                                      : static_cast<uint16_t>((a & 0x0F) << 8 | b);
        }
    }
    return samples;
}

std::vector<uint16_t> ToPictureOrder(std::span<const uint16_t> values, uint32_t valuesPerRow,
                                     uint32_t height, bool interlaced, bool bottomUp) {
    std::vector<uint16_t> picture(values.size());
    for (uint32_t row = 0; row < height; ++row) {
        const uint32_t fromTop = bottomUp ? height - 1 - row : row;
        const uint32_t stored =
            !interlaced ? fromTop
                        : (fromTop % 2 == 0 ? fromTop / 2 : (height + 1) / 2 + fromTop / 2);
        std::copy_n(values.begin() + size_t{stored} * valuesPerRow, valuesPerRow,
                    picture.begin() + size_t{row} * valuesPerRow);
    }
    return picture;
}

Image Demosaic(std::span<const uint16_t> mosaic, uint32_t width, uint32_t height,
               const std::string& tile, unsigned bitDepth) {
    const bool complementary = tile.find('C') != std::string::npos;
    auto planeAt = [&](uint32_t x, uint32_t y) { return PlaneOf(tile[(y % 2) * 2 + x % 2]); };
    Image image{width, height, 3, bitDepth, std::vector<uint16_t>(size_t{width} * height * 3)};
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            // The pixel keeps its own colour; each other colour is the mean
            // of that colour's pixels in the 3x3 neighbourhood, which is
            // bilinear interpolation for a 2x2 mosaic.
            double sum[3] = {0, 0, 0};
            int count[3] = {0, 0, 0};
            for (int64_t ny = int64_t{y} - 1; ny <= int64_t{y} + 1; ++ny) {
                for (int64_t nx = int64_t{x} - 1; nx <= int64_t{x} + 1; ++nx) {
                    if (ny < 0 || nx < 0 || ny >= height || nx >= width) {
                        continue;
                    }
                    const int plane = planeAt(static_cast<uint32_t>(nx), static_cast<uint32_t>(ny));
                    sum[plane] += mosaic[static_cast<size_t>(ny) * width + nx];
                    ++count[plane];
                }
            }
            const int own = planeAt(x, y);
            double value[3];
            for (int p = 0; p < 3; ++p) {
                value[p] = p == own ? mosaic[size_t{y} * width + x]
                                    : (count[p] > 0 ? sum[p] / count[p] : 0.0);
            }
            uint16_t* out = &image.samples[(size_t{y} * width + x) * 3];
            if (complementary) {
                // C = G + B, Y = R + G, M = R + B.
                const double c = value[0], ye = value[1], m = value[2];
                out[0] = Clamp((ye + m - c) / 2, bitDepth);
                out[1] = Clamp((ye + c - m) / 2, bitDepth);
                out[2] = Clamp((c + m - ye) / 2, bitDepth);
            } else {
                for (int p = 0; p < 3; ++p) {
                    out[p] = Clamp(value[p], bitDepth);
                }
            }
        }
    }
    return image;
}

Image YuvToRgb(std::span<const uint8_t> bytes, uint32_t width, uint32_t height) {
    Image image{width, height, 3, 8, std::vector<uint16_t>(size_t{width} * height * 3)};
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            const size_t pixel = size_t{y} * width + x;
            const size_t pair = pixel & ~size_t{1};
            const double luma = bytes[2 * pixel];
            const double u = bytes[2 * pair + 1] - 128.0;
            const double v = pair + 1 < size_t{width} * height ? bytes[2 * pair + 3] - 128.0 : 0.0;
            uint16_t* out = &image.samples[pixel * 3];
            out[0] = Clamp(luma + 1.402 * v, 8);
            out[1] = Clamp(luma - 0.344136 * u - 0.714136 * v, 8);
            out[2] = Clamp(luma + 1.772 * u, 8);
        }
    }
    return image;
}

std::optional<Image> DecodeFrame(uint32_t colourValue, std::span<const uint8_t> bytes,
                                 uint32_t width, uint32_t height, std::string* error) {
    const auto colourId = static_cast<uint8_t>(colourValue & kColourIdMask);
    const bool interlaced = (colourValue & kColourInterlaced) != 0;
    const bool bottomUp = (colourValue & kColourBottomUp) != 0;
    const PixelLayout layout = LayoutOf(colourId);
    auto fail = [&](const std::string& reason) -> std::optional<Image> {
        if (error != nullptr) {
            *error = reason;
        }
        return std::nullopt;
    };
    if (layout == PixelLayout::Text || layout == PixelLayout::Unknown) {
        return fail("colour id " + std::to_string(colourId) + " holds no picture");
    }
    const uint64_t needed = FrameBytes(colourId, width, height);
    if (bytes.size() < needed) {
        return fail(std::to_string(bytes.size()) + " bytes, a " + std::to_string(width) + "x" +
                    std::to_string(height) + " frame of colour id " + std::to_string(colourId) +
                    " needs " + std::to_string(needed));
    }

    if (layout == PixelLayout::Yuv422 || layout == PixelLayout::Rgb24) {
        // Reorder whole rows of bytes, then convert.
        const uint32_t rowBytes = width * BitsPerPixel(colourId) / 8;
        const std::vector<uint16_t> raw(bytes.begin(), bytes.begin() + static_cast<size_t>(needed));
        const std::vector<uint16_t> rows =
            ToPictureOrder(raw, rowBytes, height, interlaced, bottomUp);
        const std::vector<uint8_t> ordered(rows.begin(), rows.end());
        if (layout == PixelLayout::Yuv422) {
            return YuvToRgb(ordered, width, height);
        }
        Image image{width, height, 3, 8, std::vector<uint16_t>(size_t{width} * height * 3)};
        for (size_t pixel = 0; pixel < size_t{width} * height; ++pixel) {
            for (int c = 0; c < 3; ++c) {
                image.samples[pixel * 3 + c] = ordered[pixel * 3 + 2 - c];
            }
        }
        return image;
    }

    const std::vector<uint16_t> samples = ToPictureOrder(
        *ReadSamples(colourId, bytes, width, height), width, height, interlaced, bottomUp);
    const unsigned bitDepth = BitsPerPixel(colourId) == 8 ? 8 : 16;
    if (layout == PixelLayout::Bayer || layout == PixelLayout::Complementary) {
        return Demosaic(samples, width, height, MosaicTile(colourId), bitDepth);
    }
    Image image{width, height, 1, bitDepth, samples};
    if (layout == PixelLayout::Mono12) {
        // Spread 12 bits over the 16 of the picture so that white stays white.
        for (uint16_t& sample : image.samples) {
            sample = static_cast<uint16_t>(sample << 4 | sample >> 8);
        }
    }
    return image;
}

std::string FrameText(uint8_t colourId, std::span<const uint8_t> bytes) {
    std::string text;
    char line[64];
    if (colourId == kColourIdCount) {
        if (bytes.size() < 4) {
            return "count missing (" + std::to_string(bytes.size()) + " bytes)\n";
        }
        const uint32_t count = bytes[0] | bytes[1] << 8 | bytes[2] << 16 | uint32_t{bytes[3]} << 24;
        std::snprintf(line, sizeof line, "count %u\n", count);
        return line;
    }
    text = "# x y value\n";
    size_t at = 0;
    for (; at + 6 <= bytes.size(); at += 6) {
        auto word = [&](size_t offset) { return bytes[at + offset] | bytes[at + offset + 1] << 8; };
        std::snprintf(line, sizeof line, "%d %d %d\n", word(0), word(2), word(4));
        text += line;
    }
    if (at != bytes.size()) {
        text += "# " + std::to_string(bytes.size() - at) + " trailing bytes\n";
    }
    return text;
}

}  // namespace ornixctl
