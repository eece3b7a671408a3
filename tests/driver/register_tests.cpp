// Camera register access: what each operation puts on the wire, how short
// answers are judged, messages split into pieces, and the debugger lines.
#include <algorithm>
#include <array>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;
using usbsim::TransferResult;

using RegisterTest = DriverTest;

constexpr uint8_t kIn = 0xC0;
constexpr uint8_t kOut = 0x40;
constexpr USHORT kRecord = ORNIX_PROPERTY_BLOCK;

std::vector<uint8_t> Bytes(std::initializer_list<uint8_t> bytes) {
    return bytes;
}

std::vector<uint8_t> Sequence(size_t count, uint8_t first = 0) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

// Pass-through requests answered like a device that moves `answered` bytes
// at most, reading from or writing to `store`.
void AnswerPassThrough(ornixcam::Camera& camera, std::vector<uint8_t>& store, size_t answered) {
    camera.SetPassThroughHandler(
        [&store, answered](const usbsim::SetupPacket& setup, std::span<uint8_t> data) {
            const size_t n = std::min(data.size(), answered);
            if (setup.DeviceToHost()) {
                std::copy_n(store.begin(), n, data.begin());
            } else {
                store.assign(data.begin(), data.begin() + n);
            }
            return TransferResult::Ack(static_cast<uint32_t>(n));
        });
}

TEST_F(RegisterTest, EachOperationIsOneVendorRequestOfItsShape) {
    std::vector<uint8_t> eeprom = Sequence(8, 0xE0);
    AnswerPassThrough(Camera(), eeprom, 8);
    Camera().PokeRegister(kRecord, 0x04030201);
    Camera().PokeRegister(kRecord + 4, 0);
    ULONG value = 0;
    std::array<uint8_t, 8> block{};
    std::array<uint8_t, 8> newBlock{9, 8, 7, 6, 5, 4, 3, 2};
    std::array<uint8_t, 8> sgl{};
    std::array<uint8_t, 3> sglOut{0xA1, 0xA2, 0xA3};

    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, block.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, newBlock.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglRead(Ext(), 0x50, 0xA0, 8, sgl.data()), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglWrite(Ext(), 0x51, 0xB0, 3, sglOut.data()), STATUS_SUCCESS);
    EXPECT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, 0xFFFFFFFF), STATUS_SUCCESS);

    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    {kIn, 0x12, 0, 0x0010, 4, Bytes({0x01, 0x00, 0x00, 0x00})},
                                    {kIn, 0x12, 0, kRecord, 8, Bytes({1, 2, 3, 4, 0, 0, 0, 0})},
                                    {kOut, 0x12, 0, kRecord, 8, Bytes({9, 8, 7, 6, 5, 4, 3, 2})},
                                    {kIn, 0x13, 0xA0, 0x50, 8, Sequence(8, 0xE0)},
                                    {kOut, 0x13, 0xB0, 0x51, 3, Bytes({0xA1, 0xA2, 0xA3})},
                                    {kOut, 0x12, 0, 0x0008, 4, Bytes({0xFF, 0xFF, 0xFF, 0xFF})},
                                }));
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(block, (std::array<uint8_t, 8>{1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(sgl[7], 0xE7);
}

TEST_F(RegisterTest, ShortRegisterReadIsAcceptedShortBlockReadIsNot) {
    Camera().PokeRegister(ORNIX_SPEC_VERSION, 0x00000201);
    Camera().PokeRegister(kRecord, 0x44332211);
    Camera().SetShortRead(ORNIX_SPEC_VERSION, 2);
    Camera().SetShortRead(kRecord, 2);
    ULONG value = 0xAAAAAAAA;
    std::array<uint8_t, 4> block{0xAA, 0xAA, 0xAA, 0xAA};

    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, block.data(), 4), STATUS_INVALID_PARAMETER);

    EXPECT_EQ(value, 0xAAAA0201u);
    EXPECT_EQ(block, (std::array<uint8_t, 4>{0x11, 0x22, 0xAA, 0xAA}));
    EXPECT_TRUE(Logged("ORNIX: OrnixBlockRead: partial transfer only"));
}

TEST_F(RegisterTest, ShortPassThroughIsAnErrorBothWays) {
    std::vector<uint8_t> eeprom = Sequence(8);
    AnswerPassThrough(Camera(), eeprom, 5);
    std::array<uint8_t, 8> buffer{};

    EXPECT_EQ(OrnixSglRead(Ext(), 0x1A, 0x2B, 8, buffer.data()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OrnixSglWrite(Ext(), 0x1A, 0x2B, 8, buffer.data()), STATUS_INVALID_PARAMETER);

    EXPECT_TRUE(Logged("ORNIX: OrnixSglRead: partial transfer only (index:0x001a,val:0x002b)"));
    EXPECT_TRUE(Logged("ORNIX: OrnixSglWritew: partial transfer only"));
}

TEST_F(RegisterTest, ShortWritesAreNotChecked) {
    Stack().AddFault({.kind = RequestKind::VendorDevice,
                      .occurrence = 0,
                      .action = FaultAction::ShortData,
                      .shortLength = 2});
    std::array<uint8_t, 8> block{};

    EXPECT_EQ(OrnixRegWrite(Ext(), kRecord, 0x12345678), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, block.data(), 8), STATUS_SUCCESS);
}

TEST_F(RegisterTest, FailedOperationsReportAndLeaveTheValueAlone) {
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 0, .action = FaultAction::Stall});
    ULONG value = 0x5555AAAA;
    std::array<uint8_t, 4> block{};

    EXPECT_FALSE(NT_SUCCESS(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value)));
    EXPECT_FALSE(NT_SUCCESS(OrnixRegWrite(Ext(), ORNIX_EVENT_ENABLE, 7)));
    EXPECT_FALSE(NT_SUCCESS(OrnixBlockWrite(Ext(), kRecord, block.data(), 4)));

    EXPECT_EQ(value, 0x5555AAAAu);
    EXPECT_TRUE(Logged("ORNIX: OrnixRegRead: index:0x0010 FAIOLED"));
    EXPECT_TRUE(Logged("ORNIX:  OrnixRegWrite fialed"));
    EXPECT_TRUE(Logged("ORNIX:  OrnixBlockWrite fialed"));
    EXPECT_FALSE(Logged("ORNIX: OrnixRegWrite, index:0x0224, value:0x00000007 successful"));
}

// The (index, length) of each piece of a message of the given size.
struct MessageCase {
    ULONG length;
    std::vector<std::pair<uint16_t, uint16_t>> pieces;
};

void PrintTo(const MessageCase& c, std::ostream* out) {
    *out << c.length << " bytes";
}

class MessageWriteTest : public DriverTest, public ::testing::WithParamInterface<MessageCase> {};

TEST_P(MessageWriteTest, HeaderThenPiecesOfAtMost64Bytes) {
    const MessageCase& c = GetParam();
    std::vector<uint8_t> body = Sequence(c.length);

    EXPECT_EQ(OrnixMessageWrite(Ext(), 0xC0DE0001, body.data(), c.length), STATUS_SUCCESS);

    std::vector<WireRequest> expected{{kOut, 0x12, 0, 0x4FFC, 4, Bytes({0x01, 0x00, 0xDE, 0xC0})}};
    size_t offset = 0;
    for (auto [index, length] : c.pieces) {
        expected.push_back(
            {kOut, 0x12, 0, index, length,
             std::vector<uint8_t>(body.begin() + offset, body.begin() + offset + length)});
        offset += length;
    }
    EXPECT_EQ(VendorRequests(), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, MessageWriteTest,
    ::testing::Values(MessageCase{0, {{0x5000, 0}}}, MessageCase{64, {{0x5000, 64}}},
                      MessageCase{65, {{0x5000, 64}, {0x5040, 1}}},
                      MessageCase{150, {{0x5000, 64}, {0x5040, 64}, {0x5080, 22}}}),
    [](const ::testing::TestParamInfo<MessageCase>& info) {
        return "Bytes" + std::to_string(info.param.length);
    });

TEST_F(RegisterTest, MessageWithFailingHeaderSendsNoPieces) {
    Stack().AddFault({.kind = RequestKind::VendorDevice, .action = FaultAction::Stall});
    std::vector<uint8_t> body = Sequence(100);

    EXPECT_FALSE(NT_SUCCESS(OrnixMessageWrite(Ext(), 1, body.data(), 100)));

    for (const WireRequest& request : VendorRequests()) {
        EXPECT_EQ(request.wIndex, 0x4FFC) << request;
    }
}

TEST_F(RegisterTest, MessageStopsAtTheFirstFailingPiece) {
    // Header, first piece, then the second piece fails.
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 3, .action = FaultAction::Stall});
    std::vector<uint8_t> body = Sequence(150);

    EXPECT_FALSE(NT_SUCCESS(OrnixMessageWrite(Ext(), 1, body.data(), 150)));

    for (const WireRequest& request : VendorRequests()) {
        EXPECT_NE(request.wIndex, 0x5080) << request;
    }
}

TEST_F(RegisterTest, TraceLinesOfSuccessfulOperations) {
    Camera().PokeRegister(kRecord, 0x11111111);
    Camera().PokeRegister(kRecord + 4, 0x22222222);
    Camera().PokeRegister(kRecord + 8, 0x33333333);
    Camera().PokeRegister(kRecord + 12, 0x44444444);
    ULONG value = 0;
    std::array<ULONG, 4> words{};
    std::array<ULONG, 2> pair{0xAB, 0xCDEF};

    OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value);
    OrnixRegWrite(Ext(), kRecord, 0x11111111);
    OrnixBlockRead(Ext(), kRecord, words.data(), 16);
    OrnixBlockRead(Ext(), kRecord, words.data(), 8);
    OrnixBlockRead(Ext(), kRecord, words.data(), 4);
    OrnixBlockWrite(Ext(), kRecord, pair.data(), 8);
    OrnixBlockWrite(Ext(), kRecord, words.data(), 12);

    EXPECT_EQ(Log(),
              (std::vector<std::string>{
                  "ORNIX: OrnixRegRead: index:0x0010, read:0x00000001",
                  "ORNIX: OrnixRegWrite, index:0x0400, value:0x11111111",
                  "ORNIX: OrnixRegWrite, index:0x0400, value:0x11111111 successful",
                  "ORNIX: OrnixBlockRead: 0x400",
                  "ORNIX: OrnixBlockRead of 0x400: 0x11111111 0x22222222 0x33333333 0x44444444",
                  "ORNIX: OrnixBlockRead: 0x400",
                  "ORNIX: OrnixBlockRead of 0x400: 0x11111111 0x22222222",
                  "ORNIX: OrnixBlockRead: 0x400",
                  "ORNIX: OrnixBlockWrite, index:0x0400, values:0xab 0x0000cdef",
                  "ORNIX: OrnixBlockWrite, index:0x0400, size:0xc",
              }));
}

}  // namespace
}  // namespace ornixtest
