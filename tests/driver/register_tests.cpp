// Camera register access and vendor requests: what each operation puts on
// the wire, how short answers are judged, messages split into pieces, the
// debugger lines, and the vendor transfer moved to a worker thread at
// DISPATCH_LEVEL.
#include <array>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

using RegisterTest = DriverTest;

constexpr uint8_t kIn = 0xC0;
constexpr uint8_t kOut = 0x40;
constexpr USHORT kRecord = ORNIX_PROPERTY_BLOCK;  // a 16-byte read/write record
constexpr uint8_t kUntouched = 0xAA;

std::vector<uint8_t> Sequence(size_t count, size_t first = 0) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(first + i);
    }
    return bytes;
}

void AnswerShort(usbsim::UsbStack& stack, uint32_t bytes) {
    stack.AddFault({.kind = RequestKind::VendorDevice,
                    .occurrence = 0,
                    .action = FaultAction::ShortData,
                    .shortLength = bytes});
}

// Pass-through requests go to the camera's two-wire bus: wIndex 0, the
// 7-bit address of EEPROM 0xA2 and the byte count in wValue.
TEST_F(RegisterTest, EachOperationIsOneVendorRequestOfItsShape) {
    Camera().PokeRegister(kRecord, 0x04030201);
    Camera().PokeRegister(kRecord + 4, 0);
    Camera().PokeEeprom(0xA2, 0x0130, Sequence(8, 0xE0));
    ULONG value = 0;
    std::array<uint8_t, 8> block{};
    std::array<uint8_t, 8> newBlock{9, 8, 7, 6, 5, 4, 3, 2};
    std::array<uint8_t, 8> sgl{};
    std::array<uint8_t, 2> pointer{0x01, 0x30};

    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, block.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, newBlock.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglWrite(Ext(), 0, 0x0251, 2, pointer.data()), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglRead(Ext(), 0, 0x0851, 8, sgl.data()), STATUS_SUCCESS);
    EXPECT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, 0xFFFFFFFF), STATUS_SUCCESS);

    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    {kIn, 0x12, 0, 0x0010, 4, {0x01, 0x00, 0x00, 0x00}},
                                    {kIn, 0x12, 0, kRecord, 8, {1, 2, 3, 4, 0, 0, 0, 0}},
                                    {kOut, 0x12, 0, kRecord, 8, {9, 8, 7, 6, 5, 4, 3, 2}},
                                    {kOut, 0x13, 0x0251, 0, 2, {0x01, 0x30}},
                                    {kIn, 0x13, 0x0851, 0, 8, Sequence(8, 0xE0)},
                                    {kOut, 0x12, 0, 0x0008, 4, {0xFF, 0xFF, 0xFF, 0xFF}},
                                }));
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(block, (std::array<uint8_t, 8>{1, 2, 3, 4, 0, 0, 0, 0}));
    EXPECT_EQ(sgl[7], 0xE7);
}

// Only the bytes that arrived are copied. A short register read is trusted
// and short writes go unchecked; a short block read or pass-through in either
// direction is an error.
TEST_F(RegisterTest, ShortAnswersAreErrorsOnlyForBlockReadsAndPassThrough) {
    Camera().PokeRegister(ORNIX_SPEC_VERSION, 0x00000201);
    Camera().PokeRegister(kRecord, 0x44332211);
    Camera().SetShortRead(ORNIX_SPEC_VERSION, 2);
    Camera().SetShortRead(kRecord, 2);
    ULONG value = 0xAAAAAAAA;
    std::array<uint8_t, 8> block{0xAA, 0xAA, 0xAA, 0xAA};

    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, block.data(), 4), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(value, 0xAAAA0201u);
    EXPECT_EQ(block, (std::array<uint8_t, 8>{0x11, 0x22, 0xAA, 0xAA}));
    EXPECT_TRUE(Logged("ORNIX: OrnixBlockRead: partial transfer only"));

    AnswerShort(Stack(), 2);
    EXPECT_EQ(OrnixRegWrite(Ext(), kRecord, 0x12345678), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, block.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglRead(Ext(), 0, 0x0851, 8, block.data()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OrnixSglWrite(Ext(), 0, 0x0851, 8, block.data()), STATUS_INVALID_PARAMETER);
    Stack().ClearFaults();
    EXPECT_TRUE(Logged("ORNIX: OrnixSglRead: partial transfer only (index:0x0000,val:0x0851)"));
    EXPECT_TRUE(Logged("ORNIX: OrnixSglWritew: partial transfer only"));
}

TEST_F(RegisterTest, FailedOperationsReportAndLeaveTheValueAlone) {
    Stack().AddFault(
        {.kind = RequestKind::VendorDevice, .occurrence = 0, .action = FaultAction::Stall});
    ULONG value = 0x5555AAAA;
    std::array<uint8_t, 4> block{};

    EXPECT_FALSE(NT_SUCCESS(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value)));
    EXPECT_FALSE(NT_SUCCESS(OrnixRegWrite(Ext(), ORNIX_EVENT_ENABLE, 7)));
    EXPECT_FALSE(NT_SUCCESS(OrnixBlockWrite(Ext(), kRecord, block.data(), 4)));
    Stack().ClearFaults();

    EXPECT_EQ(value, 0x5555AAAAu);
    EXPECT_TRUE(Logged("ORNIX: OrnixRegRead: index:0x0010 FAIOLED"));
    EXPECT_TRUE(Logged("ORNIX:  OrnixRegWrite fialed"));
    EXPECT_TRUE(Logged("ORNIX:  OrnixBlockWrite fialed"));
    EXPECT_EQ(CountLogged("ORNIX: OrnixControlVendorCommand Error 0xc0000001"), 3u);
    EXPECT_FALSE(Logged("ORNIX: OrnixRegWrite, index:0x0224, value:0x00000007 successful"));
}

TEST_F(RegisterTest, MessageIsAHeaderThenPiecesOfAtMost64Bytes) {
    const struct {
        ULONG length;
        std::vector<std::pair<uint16_t, uint16_t>> pieces;  // (index, length)
    } cases[] = {{0, {{0x5000, 0}}},
                 {64, {{0x5000, 64}}},
                 {65, {{0x5000, 64}, {0x5040, 1}}},
                 {150, {{0x5000, 64}, {0x5040, 64}, {0x5080, 22}}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.length);
        Camera().ClearRequests();
        std::vector<uint8_t> body = Sequence(c.length);

        EXPECT_EQ(OrnixMessageWrite(Ext(), 0xC0DE0001, body.data(), c.length), STATUS_SUCCESS);

        std::vector<WireRequest> expected{{kOut, 0x12, 0, 0x4FFC, 4, {0x01, 0x00, 0xDE, 0xC0}}};
        size_t offset = 0;
        for (auto [index, length] : c.pieces) {
            expected.push_back({kOut, 0x12, 0, index, length, Sequence(length, offset)});
            offset += length;
        }
        EXPECT_EQ(VendorRequests(), expected);
    }

    for (uint32_t failing : {1u, 3u}) {  // the header; the second piece
        SCOPED_TRACE(failing);
        Camera().ClearRequests();
        Stack().AddFault({.kind = RequestKind::VendorDevice,
                          .occurrence = failing,
                          .action = FaultAction::Stall});
        std::vector<uint8_t> body = Sequence(150);

        EXPECT_FALSE(NT_SUCCESS(OrnixMessageWrite(Ext(), 1, body.data(), 150)));
        EXPECT_EQ(VendorRequests().size(), failing - 1);  // nothing after the failure
    }
}

TEST_F(RegisterTest, TraceLinesOfSuccessfulOperations) {
    for (ULONG i = 0; i < 4; ++i) {
        Camera().PokeRegister(kRecord + 4 * i, 0x11111111 * (i + 1));
    }
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

TEST_F(RegisterTest, VendorReadWithoutLengthHasNoDataStage) {
    std::vector<uint8_t> buffer(4, kUntouched);
    ULONG zero = 0;

    EXPECT_EQ(OrnixControlVendorCommand(Ext(), 0x12, 0, kRecord, buffer.data(), &zero, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(OrnixControlVendorCommand(Ext(), 0x12, 0, kRecord, buffer.data(), nullptr, TRUE),
              STATUS_SUCCESS);

    const WireRequest noData{kIn, 0x12, 0, kRecord, 0, {}};
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{noData, noData}));
    EXPECT_EQ(zero, 0u);
    EXPECT_EQ(buffer, std::vector<uint8_t>(4, kUntouched));
}

// What a callback saw when the transfer reported back.
struct CallbackRecord {
    int calls = 0;
    NTSTATUS status = STATUS_PENDING;
    KIRQL irql = HIGH_LEVEL;
    std::thread::id thread;
};

NTSTATUS RecordCallback(PORNIX_DEVICE_CONTEXT, PVOID context, NTSTATUS status) {
    auto* record = static_cast<CallbackRecord*>(context);
    *record = {record->calls + 1, status, KeGetCurrentIrql(), std::this_thread::get_id()};
    return STATUS_SUCCESS;
}

NTSTATUS ReadVersionAtDispatchLevel(PORNIX_DEVICE_CONTEXT ext, ULONG& value, ULONG& length,
                                    CallbackRecord& record) {
    NTSTATUS status = STATUS_SUCCESS;
    winsim::RunAtIrql(DISPATCH_LEVEL, [&] {
        status = OrnixControlVendorCommand2(ext, 0x12, 0, ORNIX_SPEC_VERSION, &value, &length, TRUE,
                                            RecordCallback, &record);
    });
    winsim::DrainWorkQueue();
    return status;
}

TEST_F(RegisterTest, VendorCallbackRunsAtOnceBelowDispatchLevelAndOnAWorkerAtIt) {
    CallbackRecord atOnce;
    ULONG value = 0;
    ULONG length = sizeof(value);
    EXPECT_EQ(OrnixControlVendorCommand2(Ext(), 0x12, 0, ORNIX_SPEC_VERSION, &value, &length, TRUE,
                                         RecordCallback, &atOnce),
              STATUS_SUCCESS);
    EXPECT_EQ(atOnce.calls, 1);
    EXPECT_EQ(atOnce.thread, std::this_thread::get_id());

    CallbackRecord worker;
    value = 0;
    EXPECT_EQ(ReadVersionAtDispatchLevel(Ext(), value, length, worker), STATUS_PENDING);
    EXPECT_EQ(worker.calls, 1);
    EXPECT_EQ(worker.status, STATUS_SUCCESS);
    EXPECT_EQ(worker.irql, PASSIVE_LEVEL);
    EXPECT_NE(worker.thread, std::this_thread::get_id());
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(length, 4u);
}

TEST_F(RegisterTest, VendorRequestWithoutMemorySendsNothing) {
    ULONG value = 0;
    ULONG length = sizeof(value);
    CallbackRecord record;

    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixControlVendorCommand(Ext(), 0x12, 0, kRecord, &value, &length, TRUE),
              STATUS_INSUFFICIENT_RESOURCES);
    winsim::FailNthAllocation(1);
    EXPECT_EQ(ReadVersionAtDispatchLevel(Ext(), value, length, record),
              STATUS_INSUFFICIENT_RESOURCES);

    EXPECT_EQ(record.calls, 0);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixControlVendorCommand Error 0xc000009a"});
    EXPECT_TRUE(VendorRequests().empty());
}

}  // namespace
}  // namespace ornixtest
