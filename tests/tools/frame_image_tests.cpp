// Frame conversion: each mosaic phase and byte order gives the colours put
// into a synthetic frame, rows come back in picture order, YUV becomes RGB,
// and the count and point-list frames become text.
#include "ornixctl/frame_image.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace ornixtest {
namespace {

using ornixctl::DecodeFrame;
using ornixctl::Image;

struct Rgb {
    double r, g, b;
};

// A width x height mosaic of `colourId` showing one flat colour, in the
// frame's byte order: each tile letter gets its plane's value (C, Y, M from
// R, G, B for complementary mosaics).
std::vector<uint8_t> FlatMosaic(uint8_t colourId, uint32_t width, uint32_t height, Rgb colour) {
    const std::string tile = ornixctl::MosaicTile(colourId);
    const unsigned bits = ornixctl::BitsPerPixel(colourId);
    const bool little = ornixctl::LittleEndianSamples(colourId);
    std::vector<uint8_t> bytes;
    for (uint32_t y = 0; y < height; ++y) {
        for (uint32_t x = 0; x < width; ++x) {
            double v = 0;
            switch (tile[(y % 2) * 2 + x % 2]) {
                case 'R':
                    v = colour.r;
                    break;
                case 'G':
                    v = colour.g;
                    break;
                case 'B':
                    v = colour.b;
                    break;
                case 'C':
                    v = colour.g + colour.b;
                    break;
                case 'Y':
                    v = colour.r + colour.g;
                    break;
                case 'M':
                    v = colour.r + colour.b;
                    break;
            }
            const auto value = static_cast<uint16_t>(v);
            if (bits == 8) {
                bytes.push_back(static_cast<uint8_t>(value));
            } else if (little) {
                bytes.insert(bytes.end(),
                             {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)});
            } else {
                bytes.insert(bytes.end(),
                             {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
            }
        }
    }
    return bytes;
}

TEST(FrameImage, EveryMosaicPhaseAndByteOrderGivesBackTheFlatColour) {
    // 8-bit ones stay below 256 as C, Y, M sums; 16-bit ones use both bytes.
    const Rgb eight{60, 40, 20}, sixteen{30000, 20000, 10000};
    for (uint8_t id = 8; id <= 31; ++id) {
        SCOPED_TRACE("colour id " + std::to_string(id));
        const bool wide = ornixctl::BitsPerPixel(id) == 16;
        const Rgb colour = wide ? sixteen : eight;
        std::string error;
        const auto image = DecodeFrame(id, FlatMosaic(id, 6, 4, colour), 6, 4, &error);
        ASSERT_TRUE(image) << error;
        EXPECT_EQ(image->channels, 3u);
        EXPECT_EQ(image->bitDepth, wide ? 16u : 8u);
        for (uint32_t y = 0; y < 4; ++y) {
            for (uint32_t x = 0; x < 6; ++x) {
                ASSERT_EQ(image->At(x, y, 0), colour.r) << x << "," << y;
                ASSERT_EQ(image->At(x, y, 1), colour.g) << x << "," << y;
                ASSERT_EQ(image->At(x, y, 2), colour.b) << x << "," << y;
            }
        }
    }
}

TEST(FrameImage, DemosaicingInterpolatesBetweenNeighbours) {
    // RGGB, red 100 at (0,0) and 200 at (2,0): the green pixel between them
    // takes their mean; the blue one at (1,1) the mean of its four diagonals.
    std::vector<uint16_t> mosaic(4 * 4, 0);
    mosaic[0] = 100;
    mosaic[2] = 200;
    mosaic[2 * 4 + 0] = 60;
    mosaic[2 * 4 + 2] = 20;
    const Image image = ornixctl::Demosaic(mosaic, 4, 4, "RGGB", 8);
    EXPECT_EQ(image.At(1, 0, 0), 150);
    EXPECT_EQ(image.At(1, 1, 0), (100 + 200 + 60 + 20) / 4);
}

TEST(FrameImage, SamplesFollowTheColourIdsByteOrder) {
    const std::vector<uint8_t> bytes = {0x12, 0x34, 0xAB, 0xCD, 0xEF, 0x01};
    const struct {
        uint8_t id;
        uint32_t width;
        std::vector<uint16_t> samples;
    } cases[] = {
        {0, 3, {0x12, 0x34, 0xAB}},
        {5, 3, {0x1234, 0xABCD, 0xEF01}},      // monochrome 16: big-endian
        {12, 3, {0x1234, 0xABCD, 0xEF01}},     // Bayer 16
        {6, 3, {0x3412, 0xCDAB, 0x01EF}},      // monochrome 16, second kind: little-endian
        {24, 3, {0x3412, 0xCDAB, 0x01EF}},     // Bayer 16, second kind
        {1, 4, {0x123, 0x4AB, 0xCDE, 0xF01}},  // 12 bits: two pixels in three bytes
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("colour id " + std::to_string(c.id));
        EXPECT_EQ(ornixctl::ReadSamples(c.id, bytes, c.width, 1), c.samples);
        EXPECT_FALSE(ornixctl::ReadSamples(c.id, bytes, c.width + 4, 1)) << "too few bytes";
    }
}

TEST(FrameImage, MonochromeKeepsItsDepthAndTwelveBitsFillSixteen) {
    const auto mono16 = DecodeFrame(5, std::vector<uint8_t>{0xFF, 0xFE, 0x00, 0x01}, 2, 1, nullptr);
    ASSERT_TRUE(mono16);
    EXPECT_EQ(mono16->channels, 1u);
    EXPECT_EQ(mono16->bitDepth, 16u);
    EXPECT_EQ(mono16->samples, (std::vector<uint16_t>{0xFFFE, 0x0001}));
    const auto mono12 = DecodeFrame(1, std::vector<uint8_t>{0xFF, 0xF0, 0x01}, 2, 1, nullptr);
    ASSERT_TRUE(mono12);
    EXPECT_EQ(mono12->samples, (std::vector<uint16_t>{0xFFFF, 0x0010}));
    // 24 bits: blue, green, red bytes.
    const auto rgb = DecodeFrame(3, std::vector<uint8_t>{1, 2, 3}, 1, 1, nullptr);
    ASSERT_TRUE(rgb);
    EXPECT_EQ(rgb->samples, (std::vector<uint16_t>{3, 2, 1}));
}

TEST(FrameImage, RowsComeBackInPictureOrder) {
    const struct {
        uint32_t height;
        bool interlaced, bottomUp;
        std::vector<uint16_t> storedRowOfPictureRow;
    } cases[] = {
        {4, false, false, {0, 1, 2, 3}},      {4, true, false, {0, 2, 1, 3}},
        {6, true, false, {0, 3, 1, 4, 2, 5}}, {5, true, false, {0, 3, 1, 4, 2}},
        {4, false, true, {3, 2, 1, 0}},       {6, true, true, {5, 2, 4, 1, 3, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.height << " rows, interlaced " << c.interlaced
                                        << ", bottom-up " << c.bottomUp);
        std::vector<uint16_t> stored;  // two values per row: its number twice
        for (uint16_t row = 0; row < c.height; ++row) {
            stored.insert(stored.end(), {row, row});
        }
        std::vector<uint16_t> expected;
        for (uint16_t row : c.storedRowOfPictureRow) {
            expected.insert(expected.end(), {row, row});
        }
        EXPECT_EQ(ornixctl::ToPictureOrder(stored, 2, c.height, c.interlaced, c.bottomUp),
                  expected);
    }
}

TEST(FrameImage, DecodingAppliesTheColourValuesRowBits) {
    // Monochrome, stored rows 10, 20, 30, 40; interlaced and bottom-up.
    const std::vector<uint8_t> bytes = {10, 20, 30, 40};
    const uint32_t value = 0 | ornixctl::kColourInterlaced | ornixctl::kColourBottomUp;
    const auto image = DecodeFrame(value, bytes, 1, 4, nullptr);
    ASSERT_TRUE(image);
    EXPECT_EQ(image->samples, (std::vector<uint16_t>{40, 20, 30, 10}));
}

TEST(FrameImage, YuvBecomesRgb) {
    // Grey pair (Y 50 and 200, no chroma), then a red pair.
    const std::vector<uint8_t> bytes = {50, 128, 200, 128, 76, 85, 76, 255};
    const auto image = DecodeFrame(2, bytes, 4, 1, nullptr);
    ASSERT_TRUE(image);
    const std::array<std::array<int, 3>, 4> expected = {
        {{50, 50, 50}, {200, 200, 200}, {254, 0, 0}, {254, 0, 0}}};
    for (uint32_t x = 0; x < 4; ++x) {
        for (unsigned c = 0; c < 3; ++c) {
            EXPECT_NEAR(image->At(x, 0, c), expected[x][c], 1) << x << "," << c;
        }
    }
}

TEST(FrameImage, CountAndPointFramesBecomeText) {
    EXPECT_EQ(ornixctl::FrameText(128, std::vector<uint8_t>{0x10, 0x27, 0, 0}), "count 10000\n");
    const std::vector<uint8_t> points = {10, 0, 2, 0, 7, 0, 0x2C, 0x01, 0, 0, 0xFF, 0xFF, 1, 2};
    EXPECT_EQ(ornixctl::FrameText(129, points),
              "# x y value\n10 2 7\n300 0 65535\n# 2 trailing bytes\n");
    std::string error;
    EXPECT_FALSE(DecodeFrame(129, points, 1, 1, &error));
    EXPECT_EQ(error, "colour id 129 holds no picture");
    EXPECT_FALSE(DecodeFrame(8, std::vector<uint8_t>(15), 4, 4, &error));
    EXPECT_EQ(error, "15 bytes, a 4x4 frame of colour id 8 needs 16");
}

}  // namespace
}  // namespace ornixtest
