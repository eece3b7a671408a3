// Camera register access, vendor requests and messages on the wire; then the
// product data: EEPROM reads, the maps joining their regions, the cached image
// and the sections handed out of it whatever its headers claim.
#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
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

// `count` bytes counting up from `first`, modulo 256.
Bytes Sequence(size_t count, size_t first = 0) {
    Bytes bytes(count);
    std::iota(bytes.begin(), bytes.end(), static_cast<uint8_t>(first));
    return bytes;
}

// Fails the n-th vendor request from now (0: every one) before the camera sees it.
void FailVendorRequests(usbsim::UsbStack& stack, FaultAction action, uint32_t occurrence = 0,
                        uint32_t shortLength = 0) {
    stack.AddFault({RequestKind::VendorDevice, occurrence, action, USBD_STATUS_DEV_NOT_RESPONDING,
                    shortLength});
}

// wIndex is the register. Block reads trace the words of a record (16 bytes) or a
// pair (8 bytes) only. Short answers to block reads and pass-through and failures
// are errors.
TEST_F(RegisterTest, EachOperationIsOneVendorRequestOfItsShapeAndShortOrFailedAnswersAreErrors) {
    const std::array<ULONG, 4> record{0x11111111, 0x22222222, 0x33333333, 0x44444444};
    Bytes recordBytes;
    for (ULONG i = 0; i < 4; ++i) {
        Camera().PokeRegister(kRecord + 4 * i, record[i]);
        recordBytes.insert(recordBytes.end(), 4, static_cast<uint8_t>(record[i]));
    }
    ULONG value = 0;
    std::array<ULONG, 4> words{};
    Bytes pair{9, 8, 7, 6, 5, 4, 3, 2};
    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    for (ULONG length : {16, 8, 4}) {
        EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, words.data(), length), STATUS_SUCCESS);
    }
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, pair.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixRegWrite(Ext(), ORNIX_FPGA_MODE, 0xFFFFFFFF), STATUS_SUCCESS);
    EXPECT_EQ(VendorRequests(),
              (std::vector<WireRequest>{
                  {kIn, 0x12, 0, 0x0010, 4, {0x01, 0x00, 0x00, 0x00}},
                  {kIn, 0x12, 0, kRecord, 16, recordBytes},
                  {kIn, 0x12, 0, kRecord, 8, Bytes(&recordBytes[0], &recordBytes[8])},
                  {kIn, 0x12, 0, kRecord, 4, Bytes(&recordBytes[0], &recordBytes[4])},
                  {kOut, 0x12, 0, kRecord, 8, pair},
                  {kOut, 0x12, 0, 0x0008, 4, {0xFF, 0xFF, 0xFF, 0xFF}},
              }));
    EXPECT_EQ(value, 1u);
    EXPECT_EQ(words, record);
    EXPECT_TRUE(
        Logged("ORNIX: OrnixBlockRead of 0x400: 0x11111111 0x22222222 0x33333333 0x44444444"));
    EXPECT_TRUE(Logged("ORNIX: OrnixBlockRead of 0x400: 0x11111111 0x22222222"));
    EXPECT_TRUE(Logged("ORNIX: OrnixBlockWrite, index:0x0400, values:0x6070809 0x02030405"));
    EXPECT_EQ(Log().size(), 9u);  // no words traced for the 4-byte read

    // Only the bytes that arrived are copied; short register reads and writes pass.
    Camera().PokeRegister(ORNIX_SPEC_VERSION, 0x00000201);
    Camera().PokeRegister(kRecord, 0x44332211);
    Camera().SetShortRead(ORNIX_SPEC_VERSION, 2);
    Camera().SetShortRead(kRecord, 2);
    value = 0xAAAAAAAA;
    std::array<uint8_t, 8> block{0xAA, 0xAA, 0xAA, 0xAA};
    EXPECT_EQ(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockRead(Ext(), kRecord, block.data(), 4), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(value, 0xAAAA0201u);
    EXPECT_EQ(block, (std::array<uint8_t, 8>{0x11, 0x22, 0xAA, 0xAA}));
    EXPECT_TRUE(Logged("ORNIX: OrnixBlockRead: partial transfer only"));
    FailVendorRequests(Stack(), FaultAction::ShortData, 0, 2);
    EXPECT_EQ(OrnixRegWrite(Ext(), kRecord, 0x12345678), STATUS_SUCCESS);
    EXPECT_EQ(OrnixBlockWrite(Ext(), kRecord, block.data(), 8), STATUS_SUCCESS);
    EXPECT_EQ(OrnixSglRead(Ext(), 0, 0x0851, 8, block.data()), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(OrnixSglWrite(Ext(), 0, 0x0851, 8, block.data()), STATUS_INVALID_PARAMETER);
    Stack().ClearFaults();
    EXPECT_TRUE(Logged("ORNIX: OrnixSglRead: partial transfer only (index:0x0000,val:0x0851)"));
    EXPECT_TRUE(Logged("ORNIX: OrnixSglWritew: partial transfer only"));

    // A failed read reports (its own line: the next test) and leaves the value alone.
    FailVendorRequests(Stack(), FaultAction::Stall, 1);
    value = 0x5555AAAA;
    EXPECT_FALSE(NT_SUCCESS(OrnixRegRead(Ext(), ORNIX_SPEC_VERSION, &value)));
    EXPECT_EQ(value, 0x5555AAAAu);
    EXPECT_TRUE(Logged("ORNIX: OrnixControlVendorCommand Error 0xc0000001"));
}

// A header register, then the body through the message window in pieces of at most
// 64 bytes; an empty body is one write without data. A failure ends the message.
TEST_F(RegisterTest, MessageIsAHeaderThenPiecesOfAtMost64Bytes) {
    const WireRequest header{kOut, 0x12, 0, 0x4FFC, 4, {0x01, 0x00, 0xDE, 0xC0}};
    Bytes body = Sequence(150);
    for (ULONG length : {0, 64, 150}) {
        EXPECT_EQ(OrnixMessageWrite(Ext(), 0xC0DE0001, body.data(), length), STATUS_SUCCESS);
    }
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    header,
                                    {kOut, 0x12, 0, 0x5000, 0, {}},
                                    header,
                                    {kOut, 0x12, 0, 0x5000, 64, Sequence(64)},
                                    header,
                                    {kOut, 0x12, 0, 0x5000, 64, Sequence(64)},
                                    {kOut, 0x12, 0, 0x5040, 64, Sequence(64, 64)},
                                    {kOut, 0x12, 0, 0x5080, 22, Sequence(22, 128)},
                                }));
    for (uint32_t failing : {1u, 3u}) {  // the header; the second piece
        SCOPED_TRACE(failing);
        Camera().ClearRequests();
        FailVendorRequests(Stack(), FaultAction::Stall, failing);
        EXPECT_FALSE(NT_SUCCESS(OrnixMessageWrite(Ext(), 1, body.data(), 150)));
        EXPECT_EQ(VendorRequests().size(), failing - 1);  // nothing after the failure
    }
}

// Below DISPATCH_LEVEL the callback runs at once, at it on a worker.
TEST_F(RegisterTest, VendorRequestsInBothFormsCallBackOnceAndSendNothingWithoutMemory) {
    ULONG value = 0;
    ULONG length = sizeof(value);
    const auto readVersionAt = [&](KIRQL irql, CallbackRecord& record) {
        value = 0;
        NTSTATUS status = STATUS_SUCCESS;
        winsim::RunAtIrql(irql, [&] {
            status = OrnixControlVendorCommand2(Ext(), 0x12, 0, ORNIX_SPEC_VERSION, &value, &length,
                                                TRUE, RecordVendorDone, &record);
        });
        winsim::DrainWorkQueue();  // a deferred request is done
        return status;
    };
    for (KIRQL irql : {PASSIVE_LEVEL, DISPATCH_LEVEL}) {
        SCOPED_TRACE(int(irql));
        const bool deferred = irql == DISPATCH_LEVEL;
        CallbackRecord record;
        EXPECT_EQ(readVersionAt(irql, record), deferred ? STATUS_PENDING : STATUS_SUCCESS);
        EXPECT_EQ(record.calls, 1);
        EXPECT_EQ(record.status, STATUS_SUCCESS);
        EXPECT_EQ(record.thread.load() == std::this_thread::get_id(), !deferred);
        EXPECT_EQ(value, 1u);
        EXPECT_EQ(length, 4u);
    }

    // Without memory nothing is sent, and nothing calls back.
    winsim::ClearDebugLog();
    Camera().ClearRequests();
    winsim::FailNthAllocation(1);
    EXPECT_EQ(OrnixControlVendorCommand(Ext(), 0x12, 0, kRecord, &value, &length, TRUE),
              STATUS_INSUFFICIENT_RESOURCES);
    CallbackRecord record;
    winsim::FailNthAllocation(1);
    EXPECT_EQ(readVersionAt(DISPATCH_LEVEL, record), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(record.calls, 0);
    EXPECT_EQ(Log(), std::vector<std::string>{"ORNIX: OrnixControlVendorCommand Error 0xc000009a"});
    EXPECT_TRUE(VendorRequests().empty());
    // A read without length has no data stage.
    Bytes buffer(4, 0xAA);
    EXPECT_EQ(OrnixControlVendorCommand(Ext(), 0x12, 0, kRecord, buffer.data(), nullptr, TRUE),
              STATUS_SUCCESS);
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{{kIn, 0x12, 0, kRecord, 0, {}}}));
    EXPECT_EQ(buffer, Bytes(4, 0xAA));
}

constexpr uint8_t kMainEeprom = 0xA2;  // every map starts there at 0x3000
constexpr const char* kReadFailed = "ORNIX:  OrnixReadVpd:Failed to read VPD";
constexpr const char* kCorrupted = "ORNIX:  OrnixReturnVpdSection: VPD corrupted";

Bytes Concat(std::initializer_list<Bytes> parts) {
    Bytes bytes;
    for (const Bytes& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

// A section header: payload length bits 0-15, id, byte 3 as given.
Bytes VpdHeader(uint32_t length, uint8_t id, uint8_t byte3) {
    return {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8), id, byte3};
}

// A section with its header; payloads below 64 KiB only.
Bytes VpdSection(uint8_t id, const Bytes& payload) {
    return Concat({VpdHeader(static_cast<uint32_t>(payload.size()), id, 0), payload});
}

const Bytes kEnd = {0, 0, 0, 0};

// Blank EEPROMs; the mapping-type query answers `kMappingType`.
template <uint32_t kMappingType>
class VpdOn : public DriverTest {
  protected:
    ornixcam::Profile CameraProfile() const override {
        ornixcam::Profile profile = ornixcam::DefaultProfile();
        profile.productData.mappingType = kMappingType;
        profile.productData.sections.clear();
        profile.productData.end = false;
        return profile;
    }
    void SetUp() override {
        DriverTest::SetUp();
        OrnixInvalidateVpd(Ext());  // whatever start-up read
    }
    // Puts `bytes` at the start of the logical space.
    void StoreVpd(const Bytes& bytes) { Camera().PokeEeprom(kMainEeprom, 0x3000, bytes); }
    // A cached image as a read would leave it, whatever its content.
    void InstallImage(const Bytes& bytes) {
        OrnixInvalidateVpd(Ext());
        Ext()->VpdImage = static_cast<PUCHAR>(OrnixAllocatePool(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), Ext()->VpdImage);
        Ext()->VpdLength = static_cast<ULONG>(bytes.size());
    }
    // OrnixFindVpdSection's answer: status, offset into the image (-1: none), length.
    std::tuple<NTSTATUS, ptrdiff_t, ULONG> Find(UCHAR id) {
        PUCHAR section = reinterpret_cast<PUCHAR>(1);
        ULONG length = 7;
        const NTSTATUS status = OrnixFindVpdSection(Ext(), &section, &length, id);
        return {status, section ? section - Ext()->VpdImage : -1, length};
    }
    // No image, and no section pointing into one.
    bool NoImage() const {
        return !Ext()->VpdImage && !Ext()->VpdLength && !Ext()->DefectSection &&
               !Ext()->DefectSectionLength && !Ext()->Section4 && !Ext()->Section4Length;
    }
};

using VpdTest = VpdOn<0>;

// Pieces never cross a 64-byte page, even of a count beyond 16 bits (its low 16
// bits alone would make the first piece 0 bytes or the whole count).
TEST_F(VpdTest, EepromReadsNeverCrossAPageAndRangesFollowTheMap) {
    const Bytes memory = Sequence(100, 0x31);
    Camera().PokeEeprom(0xA2, 0x3030, memory);
    Bytes buffer(100);
    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030), STATUS_SUCCESS);
    // 7-bit bus address in the low byte of wValue, the count above it.
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    {kOut, 0x13, 0x0251, 0, 2, {0x30, 0x30}},
                                    {kIn, 0x13, 0x1051, 0, 16, Bytes(&memory[0], &memory[16])},
                                    {kIn, 0x13, 0x4051, 0, 64, Bytes(&memory[16], &memory[80])},
                                    {kIn, 0x13, 0x1451, 0, 20, Bytes(&memory[80], &memory[100])},
                                }));
    EXPECT_EQ(buffer, memory);
    Camera().ClearRequests();
    buffer.assign(0x10010, 0);
    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA0, buffer.data(), 0x10010, 0), STATUS_SUCCESS);
    const std::vector<WireRequest> requests = VendorRequests();
    ASSERT_EQ(requests.size(), 1 + 0x10000 / 64 + 1);
    EXPECT_EQ(requests.back(), (WireRequest{kIn, 0x13, 0x1050, 0, 0x10, Bytes(0x10, 0xFF)}));
    EXPECT_EQ(buffer, Bytes(0x10010, 0xFF));
    // A range of the product data follows the map across regions, and no further.
    const Bytes first = Sequence(0x80, 0x11);
    const Bytes second = Sequence(0x80, 0x77);
    Camera().PokeEeprom(kMainEeprom, 0x3680, first);
    Camera().PokeEeprom(kMainEeprom, 0x2400, second);
    buffer.assign(0x100, 0);
    ASSERT_EQ(OrnixReadVpdRange(Ext(), 1, buffer.data(), 0x100, 0x680), STATUS_SUCCESS);
    EXPECT_EQ(buffer, Concat({first, second}));
    // Beyond the map or with an unknown map nothing is read.
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 8, 0x6FC), STATUS_UNSUCCESSFUL);
    Camera().ClearRequests();
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 4, 0x700), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 4, 0xFFFFFFFF), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 3, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), -1, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(VendorRequests().empty());
}

TEST_F(VpdTest, ImageHoldsEverySectionThroughTheEndHeader) {
    // A byte 3 of 0xFF is a blank nibble, not 15 × 64 KiB.
    const Bytes vpd = Concat({VpdHeader(3, 7, 0xFF),
                              {0xA1, 0xA2, 0xA3},
                              VpdSection(1, {1, 0, 2, 0, 3, 0, 4, 0}),
                              VpdSection(4, {0x44, 0x45}),
                              VpdHeader(0, 0xFF, 0xFF)});
    StoreVpd(vpd);
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Bytes(Ext()->VpdImage, Ext()->VpdImage + Ext()->VpdLength), vpd);
    EXPECT_EQ(Ext()->DefectSection, Ext()->VpdImage + 11);
    EXPECT_EQ(Ext()->DefectSectionLength, 8u);
    EXPECT_EQ(Ext()->Section4, Ext()->VpdImage + 23);
    EXPECT_EQ(Ext()->Section4Length, 2u);
}

using VpdLargestMapTest = VpdOn<2>;

// The headers may claim any length up to 1 MiB; only the map bounds them. The
// mapping type is the query's answer, little-endian.
TEST_F(VpdLargestMapTest, TheImageMayFillTheMapButNotLeaveIt) {
    constexpr uint32_t kMapped = 0x13600;
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), 2);
    Camera().PokeEeprom(0xA8, 0x7FFC, kEnd);
    StoreVpd(VpdHeader(kMapped - 8, 1, 1));
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->VpdLength, kMapped);
    EXPECT_EQ(Ext()->DefectSectionLength, kMapped - 8);
    EXPECT_EQ(Ext()->VpdImage[kMapped - 1], 0);
    // One byte too long for the map; the largest length.
    for (auto [payload, byte3] : {std::pair<uint32_t, uint8_t>{kMapped - 7, 1}, {0xFFFF, 0x0F}}) {
        SCOPED_TRACE(payload);
        StoreVpd(VpdHeader(payload, 1, byte3));
        winsim::ClearDebugLog();
        EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
        EXPECT_TRUE(Logged(kReadFailed));
        EXPECT_TRUE(NoImage());
    }
}

// Without the query the probe decides: 0xC0 at 0xA0 offset 0 means no product data,
// any other byte the smallest map; a probe that fails means none either.
TEST_F(VpdTest, ProbeByteDecidesTheMapWhenTheQueryFails) {
    const struct {
        uint8_t byte;
        uint32_t failing;  // vendor request that stalls besides the query (0: none)
        LONG type;
    } cases[] = {{0xC0, 0, -1}, {0x00, 0, 0},  {0xC1, 0, 0}, {0xFF, 0, 0},
                 {0x40, 0, 0},  {0x00, 2, -1}, {0x00, 3, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.byte) + " " + std::to_string(c.failing));
        Camera().PokeEeprom(0xA0, 0, Bytes{c.byte});
        FailVendorRequests(Stack(), FaultAction::Stall, 1);
        if (c.failing != 0) {
            FailVendorRequests(Stack(), FaultAction::Stall, c.failing);
        }
        EXPECT_EQ(OrnixGetVpdMappingType(Ext()), c.type);
        Stack().ClearFaults();
    }
}

// A blank EEPROM reads FF FF FF FF: an end header and nothing before it.
TEST_F(VpdTest, BlankProductDataIsAnImageOfOnlyTheEndHeader) {
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    ASSERT_EQ(Ext()->VpdLength, 4u);
    EXPECT_EQ(Bytes(Ext()->VpdImage, Ext()->VpdImage + 4), Bytes(4, 0xFF));
    EXPECT_EQ(Ext()->DefectSection, nullptr);
    EXPECT_EQ(Ext()->Section4, nullptr);
    winsim::ClearDebugLog();
    for (UCHAR id : {1, 4, 254}) {
        SCOPED_TRACE(int(id));
        EXPECT_EQ(Find(id), std::make_tuple(STATUS_NOT_FOUND, -1, 0u));
        Bytes buffer(8);
        ULONG length = 8;
        EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer.data(), &length, id), STATUS_NOT_FOUND);
        length = 0;
        EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer.data(), &length, id), STATUS_NOT_FOUND);
    }
    EXPECT_TRUE(Log().empty());  // not found is no corruption
}

// Not even the previous image is kept. Requests of a read: mapping type, two headers
// (2 to 5), image; a walk that never meets the end header fails at the end of the map.
TEST_F(VpdTest, AFailedReadKeepsNoImage) {
    // Without the query: 0xC0 at 0xA0 means no product data (anything else map 0).
    Camera().PokeEeprom(0xA0, 0, Bytes{0xC0});
    FailVendorRequests(Stack(), FaultAction::Stall, 1);
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd: Failed to get mapping type"));
    EXPECT_TRUE(NoImage());
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{{kOut, 0x13, 0x0150, 0, 1, {0x00}},
                                                          {kIn, 0x13, 0x0150, 0, 1, {0xC0}}}));
    StoreVpd(Concat({VpdSection(1, Bytes(0x1F5, 1)), kEnd}));
    const auto readFails = [&](NTSTATUS status, const char* message) {
        EXPECT_EQ(OrnixReadVpd(Ext()), status);
        winsim::ClearAllocationFailures();
        Stack().ClearFaults();
        EXPECT_TRUE(Logged(message));
        EXPECT_TRUE(NoImage());
        ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);  // an image the next failure must drop
    };
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    FailVendorRequests(Stack(), FaultAction::ShortData, 5, 2);
    readFails(STATUS_INVALID_PARAMETER, kReadFailed);
    FailVendorRequests(Stack(), FaultAction::Stall, 7);
    readFails(STATUS_UNSUCCESSFUL, "ORNIX:  OrnixReadVpd:Failed to read huge VPD");
    winsim::FailAllocationsOfSize(0x1F5 + 8);
    readFails(STATUS_INSUFFICIENT_RESOURCES, "ORNIX:  OrnixReadVpd: No more memory");
    // Empty sections up to the end of the map and no end header.
    Bytes vpd(0x700, 0);
    for (size_t id = 2; id < vpd.size(); id += 4) {
        vpd[id] = 9;
    }
    StoreVpd(vpd);
    winsim::ClearDebugLog();
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged(kReadFailed));
    EXPECT_TRUE(NoImage());
}

// Sections are found with their whole length and returned only whole; headers that
// do not fit the image are reported corrupt.
TEST_F(VpdTest, SectionsAreFoundWholeAndHeadersThatDoNotFitTheImageAreCorrupt) {
    EXPECT_EQ(Find(1), std::make_tuple(STATUS_NOT_FOUND, -1, 0u));  // no image
    ULONG length = 0;
    InstallImage(Concat({VpdSection(3, {7}), VpdSection(5, {1, 2, 3, 4, 5, 6}), kEnd}));
    Bytes buffer(8, 0xEE);
    const auto returned = [&](ULONG offered, UCHAR id) {
        length = offered;
        return std::make_pair(OrnixReturnVpdSection(Ext(), buffer.data(), &length, id), length);
    };
    EXPECT_EQ(returned(0, 5), std::make_pair(STATUS_BUFFER_OVERFLOW, 6u));
    EXPECT_EQ(returned(1, 5), std::make_pair(STATUS_BUFFER_TOO_SMALL, 6u));
    EXPECT_EQ(buffer[0], 0xEE);
    EXPECT_EQ(returned(6, 5), std::make_pair(STATUS_SUCCESS, 6u));  // exactly its size
    EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 5, 6, 0xEE, 0xEE}));
    buffer.assign(8, 0xEE);
    EXPECT_EQ(returned(8, 5), std::make_pair(STATUS_SUCCESS, 6u));
    EXPECT_EQ(buffer, (Bytes{1, 2, 3, 4, 5, 6, 0xEE, 0xEE}));
    EXPECT_EQ(returned(8, 9).first, STATUS_NOT_FOUND);
    // Bits 16 to 19 of the length come from the low nibble of byte 3.
    for (auto [byte3, expected] : {std::pair<uint8_t, ULONG>{0xF1, 0x10010}, {0x0F, 0xF0010}}) {
        SCOPED_TRACE(byte3);
        Bytes image = VpdHeader(0x10, 1, byte3);
        image.resize(4 + expected, 0x11);
        InstallImage(Concat({image, kEnd}));
        EXPECT_EQ(Find(1), std::make_tuple(STATUS_SUCCESS, 4, expected));
    }
    // Each image lies about its size: the walk stays inside (sanitizers would tell).
    const std::pair<const char*, Bytes> cases[] = {
        {"wanted payload past the end", Concat({VpdHeader(9, 1, 0), {1, 2, 3, 4}})},
        {"largest payload", Concat({VpdHeader(0xFFFF, 1, 0x0F), {1, 2, 3, 4}})},
        {"skipped payload past the end", Concat({VpdHeader(0xFFFF, 2, 0x0F), VpdSection(1, {1})})},
        {"no end header", Concat({VpdSection(2, {1, 2}), VpdSection(3, {3})})},
        {"a partial header at the end", Concat({VpdSection(2, {1, 2}), {0, 0}})},
    };
    for (const auto& [what, image] : cases) {
        SCOPED_TRACE(what);
        InstallImage(image);
        winsim::ClearDebugLog();
        std::array<uint8_t, 16> buffer{};
        ULONG bufferLength = static_cast<ULONG>(buffer.size());
        EXPECT_EQ(Find(1), std::make_tuple(STATUS_UNSUCCESSFUL, -1, 0u));
        // A claim larger than the buffer is answered with its size first.
        const NTSTATUS status = OrnixReturnVpdSection(Ext(), buffer.data(), &bufferLength, 1);
        const bool claimTooBig = bufferLength > buffer.size();
        EXPECT_EQ(status, claimTooBig ? STATUS_BUFFER_TOO_SMALL : STATUS_UNSUCCESSFUL);
        EXPECT_EQ(buffer, (std::array<uint8_t, 16>{}));
        EXPECT_EQ(CountLogged(kCorrupted), claimTooBig ? 1u : 2u);
    }
}

}  // namespace
}  // namespace ornixtest
