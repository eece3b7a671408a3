// Turning the bytes of one delivered frame into a picture: samples read in
// the byte order of the colour id, rows put back into picture order
// (interlaced fields, bottom-up frames), mosaics demosaiced, YUV converted.
// Colour ids 128 and 129 carry no picture and become text.
//
// Pure functions on memory, so that each step can be checked on its own.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace ornixctl {

// The colour value as the camera reads it back: bits 0-7 the colour id,
// bit 24 interlaced, bit 25 bottom-up.
constexpr uint32_t kColourIdMask = 0xFF;
constexpr uint32_t kColourInterlaced = 1u << 24;
constexpr uint32_t kColourBottomUp = 1u << 25;

constexpr uint8_t kColourIdCount = 128;   // one 32-bit count, not a picture
constexpr uint8_t kColourIdPoints = 129;  // 6-byte point records, not a picture

// A picture ready to be written: `channels` (1 grey, 3 RGB) samples per
// pixel, row by row from the top, each sample `bitDepth` (8 or 16) bits wide.
struct Image {
    uint32_t width = 0, height = 0;
    unsigned channels = 1;
    unsigned bitDepth = 8;
    std::vector<uint16_t> samples;

    uint16_t At(uint32_t x, uint32_t y, unsigned channel = 0) const {
        return samples[(static_cast<size_t>(y) * width + x) * channels + channel];
    }
};

// What kind of picture a colour id holds.
enum class PixelLayout {
    Mono8,          // 0
    Mono12,         // 1: two pixels in three bytes
    Yuv422,         // 2
    Mono16,         // 5, 6
    Rgb24,          // 3, 4, 7: blue, green, red bytes as in a 24-bit bitmap
    Bayer,          // 8 to 15, 24 to 27
    Complementary,  // 16 to 23, 28 to 31: cyan, yellow, magenta
    Text,           // 128, 129
    Unknown,
};
PixelLayout LayoutOf(uint8_t colourId);

// Bits of one sample on the bus: 8, 12, 16 or 24 (0 when unknown).
unsigned BitsPerPixel(uint8_t colourId);
// 16-bit samples of colour ids 6 and 24 to 31 are little-endian; the other
// 16-bit ones (2, 5, 12 to 15, 20 to 23) big-endian.
bool LittleEndianSamples(uint8_t colourId);

// The 2x2 mosaic tile of a Bayer or complementary colour id, top row first:
// "RGGB", "CYYM", ...; empty for other ids.
std::string MosaicTile(uint8_t colourId);

// The frame's samples in stored order: one value per pixel (16-bit samples
// in the colour id's byte order, 12-bit ones unpacked, 24-bit ones packed
// into nothing: use ReadRgb24). Nothing when `bytes` is shorter than
// width x height pixels.
std::optional<std::vector<uint16_t>> ReadSamples(uint8_t colourId, std::span<const uint8_t> bytes,
                                                 uint32_t width, uint32_t height);

// Stored rows to picture rows. An interlaced frame holds the even picture
// rows first and the odd ones after them (picture row r at r / 2 when even,
// (height + 1) / 2 + r / 2 when odd); a bottom-up frame holds the last row
// first.
// `values` holds `valuesPerRow` values per row.
std::vector<uint16_t> ToPictureOrder(std::span<const uint16_t> values, uint32_t valuesPerRow,
                                     uint32_t height, bool interlaced, bool bottomUp);

// Bilinear demosaicing of a 2x2 tile of `tile` letters (R, G, B or C, Y, M):
// each missing colour is the mean of the pixels of that colour around it.
// Complementary tiles are converted to RGB (R = (Y + M - C) / 2 ...), clamped.
Image Demosaic(std::span<const uint16_t> mosaic, uint32_t width, uint32_t height,
               const std::string& tile, unsigned bitDepth);

// 4:2:2 YUV, each pixel pair stored as Y0 U Y1 V (BT.601, full range), to
// 8-bit RGB.
Image YuvToRgb(std::span<const uint8_t> bytes, uint32_t width, uint32_t height);

// The whole road for a picture colour id. Nothing, with a reason in `error`,
// when the id holds no picture or the bytes are too few.
std::optional<Image> DecodeFrame(uint32_t colourValue, std::span<const uint8_t> bytes,
                                 uint32_t width, uint32_t height, std::string* error);

// Colour id 128: "count N" (the 32-bit little-endian count); colour id 129:
// one "x y value" line per 6-byte point record, and a note on trailing
// bytes that make no whole record.
std::string FrameText(uint8_t colourId, std::span<const uint8_t> bytes);

}  // namespace ornixctl
