#include <numeric>

#include <gtest/gtest.h>

#include "camera/camera.h"
#include "camera/register_map.h"
#include "camera_test_support.h"

namespace ornixcam {
namespace {

using test::WriteRegister;
using test::WriteRegisters;
using usbsim::Handshake;

std::vector<uint8_t> Counting(size_t count, uint8_t first = 0) {
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), first);
    return bytes;
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t from, size_t count) {
    return {bytes.begin() + from, bytes.begin() + from + count};
}

TEST(MessageWindow, AssemblesAHeaderAndItsPieces) {
    Camera camera;
    std::vector<size_t> bodySizesSeen;
    camera.SetMessageHandler([&](const Message& m) { bodySizesSeen.push_back(m.body.size()); });

    const auto body = Counting(150);
    const uint32_t header = 0x00070000;
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, header), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Slice(body, 0, 64)), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5040, Slice(body, 64, 64)), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5080, Slice(body, 128, 22)), Handshake::Ack);

    EXPECT_EQ(camera.LastMessage(), (Message{header, body}));
    EXPECT_EQ(bodySizesSeen, (std::vector<size_t>{0, 64, 128, 150}));
}

TEST(MessageWindow, HeaderZeroCarriesABodyOfAnyLength) {
    // A look-up table travels with header 0: the header is no length.
    Camera camera;
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 0), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(64)), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5040, Counting(64, 64)), Handshake::Ack);
    EXPECT_EQ(camera.LastMessage(), (Message{0, Counting(128)}));

    // A zero-length write at the window start is a piece with no data.
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 9), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {}), Handshake::Ack);
    EXPECT_EQ(camera.LastMessage(), (Message{9, {}}));
}

TEST(MessageWindow, AcceptsHeaderAndBodyInOneWrite) {
    Camera camera;
    std::vector<uint8_t> write = test::Le32(5);
    for (uint8_t b : {9, 8, 7, 6, 5})
        write.push_back(b);
    ASSERT_EQ(WriteRegisters(camera, reg::kMessageHeader, write), Handshake::Ack);
    EXPECT_EQ(camera.LastMessage(), (Message{5, {9, 8, 7, 6, 5}}));
}

TEST(MessageWindow, RefusesBodyBytesThatDoNotFollowOn) {
    Camera camera;
    EXPECT_EQ(WriteRegisters(camera, 0x5000, {1, 2}), Handshake::Stall);  // no header yet

    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 100), Handshake::Ack);
    EXPECT_EQ(WriteRegisters(camera, 0x5040, Counting(64)), Handshake::Stall);  // skips a piece
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(64)), Handshake::Ack);
    EXPECT_EQ(WriteRegisters(camera, 0x5000, Counting(36)), Handshake::Stall);  // repeats a piece

    // A new header starts over.
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 2), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, {0xA, 0xB}), Handshake::Ack);
    EXPECT_EQ(camera.LastMessage(), (Message{2, {0xA, 0xB}}));
}

TEST(MessageWindow, IsWriteOnlyAndEndsAt0x53FF) {
    Camera camera;
    EXPECT_EQ(test::ReadRegisters(camera, 0x5000, 4).handshake(), Handshake::Stall);
    EXPECT_EQ(test::ReadRegisters(camera, reg::kMessageHeader, 4).handshake(), Handshake::Stall);
    ASSERT_EQ(WriteRegister(camera, reg::kMessageHeader, 0x400), Handshake::Ack);
    ASSERT_EQ(WriteRegisters(camera, 0x5000, Counting(0x400)), Handshake::Ack);
    EXPECT_EQ(camera.LastMessage()->body.size(), 0x400u);
    EXPECT_EQ(WriteRegister(camera, 0x5400, 0), Handshake::Stall);
}

}  // namespace
}  // namespace ornixcam
