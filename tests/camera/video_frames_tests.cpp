// Frame content and geometry: sample layouts of each colour-id family, the
// row orders, the count and point-list frames, where sensor defects land,
// the frame number carried by a frame, and the frame-time arithmetic.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <span>
#include <vector>

#include "camera/video_frames.h"

namespace ornixcam {
namespace {

using Samples = std::vector<std::pair<uint32_t, uint32_t>>;

FrameGeometry Geometry(uint32_t colourValue, uint32_t w, uint32_t h, uint32_t bx = 1,
                       uint32_t by = 1) {
    FrameGeometry g;
    g.colourValue = colourValue;
    g.width = w;
    g.height = h;
    g.binX = bx;
    g.binY = by;
    return g;
}

std::vector<uint8_t> Render(const FrameGeometry& g, uint64_t n, const Samples& hot = {}) {
    std::vector<uint8_t> out;
    FrameRenderer().Render(g, n, hot, FrameContent::Pattern, out);
    return out;
}

// Sample (c, r) of frame 5 is the ramp c + r + 5, stored in the id's byte order.
TEST(FrameContent, RasterSamplesFollowTheColourIdsWidthAndByteOrder) {
    struct Case {
        uint8_t id;
        size_t bytesPerSample;
        bool bigEndian;
    } cases[] = {{0, 1, false}, {8, 1, false}, {19, 1, false}, {2, 2, true},   {5, 2, true},
                 {12, 2, true}, {23, 2, true}, {6, 2, false},  {24, 2, false}, {31, 2, false}};
    for (const Case& c : cases) {
        SCOPED_TRACE(int{c.id});
        const auto frame = Render(Geometry(c.id, 8, 4), 300);
        ASSERT_EQ(frame.size(), 8 * 4 * c.bytesPerSample);
        for (uint32_t r = 0; r < 4; ++r) {
            for (uint32_t col = 0; col < 8; ++col) {
                const uint32_t v = col + r + 300;
                const size_t i = (r * 8 + col) * c.bytesPerSample;
                if (c.bytesPerSample == 1) {
                    // 8 bits fold at 255: 300 + k reads 511 - (300 + k).
                    EXPECT_EQ(frame[i], 511 - v);
                } else if (c.bigEndian) {
                    EXPECT_EQ(frame[i] << 8 | frame[i + 1], v);
                } else {
                    EXPECT_EQ(frame[i] | frame[i + 1] << 8, v);
                }
            }
        }
    }
}

TEST(FrameContent, SizesOfTheOddWidthsCountAndPointListIds) {
    EXPECT_EQ(Render(Geometry(1, 101, 3), 0).size(), 454u);  // 12 bits
    EXPECT_EQ(Render(Geometry(3, 10, 10), 0).size(), 300u);  // 24 bits
    EXPECT_EQ(Render(Geometry(8, 64, 32, 2, 2), 0).size(), 512u);
    const auto count = Render(Geometry(128, 640, 480), 0x01020304);
    EXPECT_EQ(count, (std::vector<uint8_t>{4, 3, 2, 1}));
}

TEST(FrameContent, InterlacedStoresEvenRowsFirstAndBottomUpReversesRows) {
    const auto plain = Render(Geometry(0, 4, 6), 0);
    const auto interlaced = Render(Geometry(0 | 1u << 24, 4, 6), 0);
    const auto bottomUp = Render(Geometry(0 | 1u << 25, 4, 6), 0);
    const uint32_t interlacedRowOf[6] = {0, 2, 4, 1, 3, 5};  // stored row -> picture row
    for (uint32_t s = 0; s < 6; ++s) {
        for (uint32_t c = 0; c < 4; ++c) {
            EXPECT_EQ(interlaced[s * 4 + c], plain[interlacedRowOf[s] * 4 + c]);
            EXPECT_EQ(bottomUp[s * 4 + c], plain[(5 - s) * 4 + c]);
        }
    }
}

TEST(FrameContent, PointListIsSortedShorterThanAFrameAndCarriesHotPoints) {
    const FrameGeometry g = Geometry(129, 64, 32);
    const Samples hot = {{3, 0}, {5, 9}};
    const auto frame = Render(g, 7, hot);
    ASSERT_EQ(frame.size() % 6, 0u);
    EXPECT_LT(frame.size(), FrameBytes(g));
    std::vector<std::pair<uint32_t, uint32_t>> order;
    Samples hotSeen;
    for (size_t i = 0; i < frame.size(); i += 6) {
        const uint32_t x = frame[i] | frame[i + 1] << 8, y = frame[i + 2] | frame[i + 3] << 8;
        const uint32_t v = frame[i + 4] | frame[i + 5] << 8;
        order.push_back({y, x});
        if (v == 0xFFFF) {
            hotSeen.push_back({x, y});
        } else {
            EXPECT_EQ(v, 7u);
        }
    }
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    EXPECT_EQ(std::adjacent_find(order.begin(), order.end()), order.end());
    EXPECT_EQ(hotSeen, hot);
}

// The mean of the same-colour neighbours two columns away is the sample's
// own value, within 2 counts where the ramp folds.
TEST(FrameContent, PatternIsSmoothWithinEachColourPlane) {
    for (uint8_t id : {uint8_t{8}, uint8_t{12}}) {
        const FrameGeometry g = Geometry(id, 600, 4);
        const size_t bytes = id == 8 ? 1 : 2;
        for (uint64_t n : {0ull, 250ull, 65530ull}) {
            const auto frame = Render(g, n);
            const auto at = [&](uint32_t c, uint32_t r) {
                const size_t i = (r * 600 + c) * bytes;
                return bytes == 1 ? int{frame[i]} : frame[i] << 8 | frame[i + 1];
            };
            for (uint32_t c = 2; c + 2 < 600; ++c) {
                EXPECT_LE(std::abs((at(c - 2, 1) + at(c + 2, 1)) / 2 - at(c, 1)), 2) << c;
            }
        }
    }
}

TEST(FrameContent, FrameNumberIsRecoveredModuloWhatThePatternHolds) {
    struct Case {
        uint32_t colourValue;
        uint64_t modulus;
    } cases[] = {{8, 512}, {8 | 1u << 24, 512},      {0 | 1u << 25, 512}, {12, 131072}, {6, 131072},
                 {1, 512}, {128, uint64_t{1} << 32}, {129, 65535}};
    const Samples hot = {{0, 0}, {1, 1}};
    for (const Case& c : cases) {
        const FrameGeometry g = Geometry(c.colourValue, 40, 16);
        for (uint64_t n :
             {0ull, 1ull, 254ull, 255ull, 256ull, 511ull, 512ull, 70000ull, 131071ull}) {
            SCOPED_TRACE(testing::Message() << c.colourValue << " frame " << n);
            const auto frame = Render(g, n, hot);
            EXPECT_EQ(RecoverFrameNumber(g, frame, hot), n % c.modulus);
        }
    }
}

// Where sensor pixels land: plain, colour pairs with binning and phase, and
// the interlaced row order.
TEST(DefectMapping, SensorPixelsMapLikeTheDriversCorrection) {
    using Place = std::optional<std::pair<uint32_t, uint32_t>>;
    const SensorMapping mono{true, 0, 0}, colour{false, 0, 0}, forcedPairs{true, 1, 0};
    struct Case {
        FrameGeometry g;
        SensorMapping m;
        uint32_t x, y;
        Place expected;
    } cases[] = {
        {Geometry(0, 64, 64), mono, 5, 7, Place{{5, 7}}},
        {Geometry(0, 64, 64, 2, 2), mono, 5, 7, std::nullopt},
        {Geometry(0, 64, 64, 2, 2), mono, 6, 8, Place{{3, 4}}},
        {Geometry(8, 64, 64, 2, 2), colour, 4, 0, Place{{2, 0}}},
        {Geometry(8, 64, 64, 2, 2), colour, 5, 1, Place{{3, 1}}},
        {Geometry(8, 64, 64, 2, 2), colour, 2, 0, std::nullopt},
        {Geometry(0, 64, 64, 2, 2), forcedPairs, 5, 1, Place{{3, 1}}},
        {Geometry(8, 64, 64, 2, 2), SensorMapping{false, 0, 1}, 5, 0, Place{{2, 0}}},
        {Geometry(0 | 1u << 24, 640, 480), mono, 10, 3, Place{{10, 241}}},
        {Geometry(0, 64, 64), mono, 64, 0, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.x << "," << c.y);
        EXPECT_EQ(MapSensorPixel(c.g, c.m, c.x, c.y), c.expected);
    }
    FrameGeometry windowed = Geometry(0, 32, 32);
    windowed.startX = 100;
    windowed.startY = 50;
    EXPECT_EQ(MapSensorPixel(windowed, mono, 101, 52), Place({1, 2}));
    EXPECT_EQ(MapSensorPixel(windowed, mono, 99, 52), std::nullopt);
}

TEST(DefectMapping, DefectListBecomesSortedHotSamplesDrawnFullScale) {
    const std::vector<uint8_t> list = {9, 0, 3, 0, 2, 0, 1, 0, 200, 0, 0, 0, 7};  // tail ignored
    const FrameGeometry g = Geometry(5, 16, 8);
    const Samples hot = MapDefects(g, SensorMapping{true, 0, 0}, list);
    EXPECT_EQ(hot, (Samples{{2, 1}, {9, 3}}));
    const auto frame = Render(g, 3, hot);
    EXPECT_EQ(frame[(1 * 16 + 2) * 2], 0xFF);
    EXPECT_EQ(frame[(1 * 16 + 2) * 2 + 1], 0xFF);
    EXPECT_EQ(frame[(3 * 16 + 9) * 2 + 1], 0xFF);
    EXPECT_NE(frame[(3 * 16 + 8) * 2 + 1], 0xFF);
}

// The pipe carries a frame in pieces that start and end anywhere, even
// inside a 16-bit sample or a hot one: drawn piece by piece, the frame is
// the same as drawn whole, for each row layout and frame content.
TEST(FrameContent, PiecesDrawnOneByOneMakeTheWholeFrame) {
    const FrameGeometry layouts[] = {Geometry(5, 600, 7), Geometry(0 | 1u << 24, 33, 6),
                                     Geometry(24 | 1u << 25, 70, 5), Geometry(1, 101, 3)};
    for (const FrameGeometry& g : layouts) {
        for (FrameContent content : {FrameContent::Pattern, FrameContent::Scene}) {
            SCOPED_TRACE(testing::Message() << g.colourValue << "/" << int(content));
            const Samples hot = {{0, 0}, {5, 1}, {32, 2}};
            std::vector<uint8_t> whole;
            FrameRenderer().Render(g, 131070, hot, content, whole);
            FrameRenderer renderer;
            renderer.Begin(g, 131070, hot, content);
            ASSERT_EQ(renderer.Size(), whole.size());
            std::vector<uint8_t> pieces(whole.size() + 1, 0xA5);
            for (size_t at = 0, piece = 1; at < whole.size(); piece = piece * 3 + 1) {
                const size_t length = std::min(piece, whole.size() - at);
                renderer.CopyOut(at, std::span(pieces).subspan(at, length));
                at += length;
            }
            EXPECT_EQ(pieces.back(), 0xA5);  // nothing written past the piece
            pieces.pop_back();
            EXPECT_EQ(pieces, whole);
        }
    }
}

TEST(FramePacing, FrameTakesItsBytesAtTheFrequencyButNoLessThanTheBusAllows) {
    struct Case {
        uint32_t bytes, frequency;
        int64_t expected100ns;
    } cases[] = {
        {1310720, 24000, 533334},    // 1280 x 1024 at 24000 KiB/s, rounded up
        {1310720, 1000000, 246250},  // bus: 197 microframes of 13 x 512 bytes
        {6656, 0, 1250},             // no frequency: the bus alone
        {6657, 0, 2500},
        {4, 12000, 1250},  // the count frame still takes a microframe
    };
    for (const Case& c : cases) {
        EXPECT_EQ(FrameDuration100ns(c.bytes, c.frequency), c.expected100ns)
            << c.bytes << "@" << c.frequency;
    }
}

}  // namespace
}  // namespace ornixcam
