// The product data: the EEPROMs on the wire, the maps that join their
// regions into one logical space, the cached image read from it, and the
// sections handed out of that image whatever its headers claim.
#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "driver_harness.h"

namespace ornixtest {
namespace {

using usbsim::FaultAction;
using usbsim::RequestKind;

constexpr uint8_t kIn = 0xC0;
constexpr uint8_t kOut = 0x40;
constexpr uint8_t kMainEeprom = 0xA2;  // every map starts there at 0x3000
constexpr const char* kReadFailed = "ORNIX:  OrnixReadVpd:Failed to read VPD";
constexpr const char* kCorrupted = "ORNIX:  OrnixReturnVpdSection: VPD corrupted";

std::vector<uint8_t> Concat(std::initializer_list<std::vector<uint8_t>> parts) {
    std::vector<uint8_t> bytes;
    for (const std::vector<uint8_t>& part : parts) {
        bytes.insert(bytes.end(), part.begin(), part.end());
    }
    return bytes;
}

// A section header: payload length bits 0-15, id, byte 3 as given.
std::vector<uint8_t> VpdHeader(uint32_t length, uint8_t id, uint8_t byte3) {
    return {static_cast<uint8_t>(length), static_cast<uint8_t>(length >> 8), id, byte3};
}

// A section with its header; payloads below 1 MiB only.
std::vector<uint8_t> VpdSection(uint8_t id, const std::vector<uint8_t>& payload) {
    const auto size = static_cast<uint32_t>(payload.size());
    return Concat({VpdHeader(size, id, static_cast<uint8_t>((size >> 16) & 0x0F)), payload});
}

std::vector<uint8_t> VpdEnd() {
    return {0, 0, 0, 0};
}

// The driver with a camera whose EEPROMs start blank and whose mapping-type
// query answers `kMappingType`.
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
    void StoreVpd(const std::vector<uint8_t>& bytes) {
        Camera().PokeEeprom(kMainEeprom, 0x3000, bytes);
    }

    // Replaces the cached image by a copy of `bytes` in driver pool, as a
    // read would leave it, so that the section walk sees any content.
    void InstallImage(const std::vector<uint8_t>& bytes) {
        OrnixInvalidateVpd(Ext());
        auto* image = static_cast<PUCHAR>(OrnixAllocatePool(bytes.size()));
        ASSERT_NE(image, nullptr);
        std::copy(bytes.begin(), bytes.end(), image);
        Ext()->VpdImage = image;
        Ext()->VpdLength = static_cast<ULONG>(bytes.size());
    }

    std::vector<uint8_t> Image() const {
        PORNIX_DEVICE_CONTEXT ext = Ext();
        return ext->VpdImage ? std::vector<uint8_t>(ext->VpdImage, ext->VpdImage + ext->VpdLength)
                             : std::vector<uint8_t>{};
    }
};

using VpdTest = VpdOn<0>;

std::vector<uint8_t> Pattern(size_t count, uint8_t seed) {
    std::vector<uint8_t> bytes(count);
    for (size_t i = 0; i < count; ++i) {
        bytes[i] = static_cast<uint8_t>(seed + 7 * i + (i >> 8));
    }
    return bytes;
}

std::vector<uint8_t> Slice(const std::vector<uint8_t>& bytes, size_t first, size_t count) {
    return {bytes.begin() + first, bytes.begin() + first + count};
}

void ExpectNoImage(PORNIX_DEVICE_CONTEXT ext) {
    EXPECT_EQ(ext->VpdImage, nullptr);
    EXPECT_EQ(ext->VpdLength, 0u);
    EXPECT_EQ(ext->DefectSection, nullptr);
    EXPECT_EQ(ext->DefectSectionLength, 0u);
    EXPECT_EQ(ext->Section4, nullptr);
    EXPECT_EQ(ext->Section4Length, 0u);
}

// Fails the n-th vendor request from now (0: every one) before the camera sees it.
void StallVendorRequest(usbsim::UsbStack& stack, uint32_t occurrence) {
    stack.AddFault({.kind = RequestKind::VendorDevice,
                    .occurrence = occurrence,
                    .action = FaultAction::Stall});
}

TEST_F(VpdTest, EepromReadSetsThePointerOnceAndNeverCrossesAPage) {
    const std::vector<uint8_t> memory = Pattern(100, 0x31);
    Camera().PokeEeprom(0xA2, 0x3030, memory);
    std::vector<uint8_t> buffer(100);

    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030), STATUS_SUCCESS);

    // 7-bit bus address in the low byte of wValue, the count above it.
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{
                                    {kOut, 0x13, 0x0251, 0, 2, {0x30, 0x30}},
                                    {kIn, 0x13, 0x1051, 0, 16, Slice(memory, 0, 16)},
                                    {kIn, 0x13, 0x4051, 0, 64, Slice(memory, 16, 64)},
                                    {kIn, 0x13, 0x1451, 0, 20, Slice(memory, 80, 20)},
                                }));
    EXPECT_EQ(buffer, memory);
}

// A count of 64 KiB or more must still go in page pieces: its low 16 bits
// alone would make the first piece 0 bytes or the whole count.
TEST_F(VpdTest, EepromCountsBeyondSixteenBitsStillGoInPagePieces) {
    const size_t count = 0x10000 + 0x10;
    std::vector<uint8_t> buffer(count, 0);

    ASSERT_EQ(OrnixEepromRead(Ext(), 0xA0, buffer.data(), static_cast<ULONG>(count), 0),
              STATUS_SUCCESS);

    const std::vector<WireRequest> requests = VendorRequests();
    ASSERT_EQ(requests.size(), 1 + 0x10000 / 64 + 1);
    EXPECT_EQ(requests.back(),
              (WireRequest{kIn, 0x13, 0x1050, 0, 0x10, std::vector<uint8_t>(0x10, 0xFF)}));
    EXPECT_EQ(buffer, std::vector<uint8_t>(count, 0xFF));
}

TEST_F(VpdTest, AFailedEepromStepEndsTheReadWithItsStatus) {
    std::array<uint8_t, 100> buffer{};
    for (uint32_t failing : {1u, 3u}) {  // the pointer write; the 64-byte piece
        SCOPED_TRACE(failing);
        Camera().ClearRequests();
        StallVendorRequest(Stack(), failing);

        EXPECT_FALSE(NT_SUCCESS(OrnixEepromRead(Ext(), 0xA2, buffer.data(), 100, 0x3030)));
        EXPECT_EQ(VendorRequests().size(), failing - 1);  // nothing after the failed step
    }
}

// A mapping type without a map: the query answer is taken whole, little-endian.
using VpdUnknownMapTest = VpdOn<0x01020304>;

TEST_F(VpdUnknownMapTest, MappingTypeIsTheQueryAnswerAndItsMapIsUnknown) {
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), 0x01020304);
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{{kIn, 0x13, 0, 12, 4, {4, 3, 2, 1}}}));

    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(Logged(kReadFailed));
    ExpectNoImage(Ext());
}

// Without the query the probe decides: a part reading 0xC0 at 0xA0 holds no
// product data, any other answer means mapping type 0, and a probe whose
// address write fails reads nothing and leaves the type unknown.
TEST_F(VpdTest, WithoutTheQueryTheProbeDecides) {
    StoreVpd(Concat({VpdSection(1, {9, 9, 9, 9}), VpdEnd()}));
    Camera().PokeEeprom(0xA0, 0, std::vector<uint8_t>{0xC0});
    StallVendorRequest(Stack(), 1);
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged("ORNIX:  OrnixReadVpd: Failed to get mapping type"));
    ExpectNoImage(Ext());
    EXPECT_EQ(VendorRequests(), (std::vector<WireRequest>{{kOut, 0x13, 0x0150, 0, 1, {0x00}},
                                                          {kIn, 0x13, 0x0150, 0, 1, {0xC0}}}));

    Camera().PokeEeprom(0xA0, 0, std::vector<uint8_t>{0x12});
    StallVendorRequest(Stack(), 1);
    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
    EXPECT_EQ(Ext()->DefectSectionLength, 4u);

    Camera().ClearRequests();
    StallVendorRequest(Stack(), 1);
    StallVendorRequest(Stack(), 2);
    EXPECT_EQ(OrnixGetVpdMappingType(Ext()), -1);
    EXPECT_TRUE(VendorRequests().empty());
}

TEST_F(VpdTest, ARangeFollowsTheMapAcrossRegionsAndEepromsAndNoFurther) {
    const std::vector<uint8_t> first = Pattern(0x80, 0x11);
    const std::vector<uint8_t> second = Pattern(0x80, 0x77);
    Camera().PokeEeprom(kMainEeprom, 0x3680, first);
    Camera().PokeEeprom(kMainEeprom, 0x2400, second);
    std::vector<uint8_t> buffer(0x100);

    ASSERT_EQ(OrnixReadVpdRange(Ext(), 1, buffer.data(), 0x100, 0x680), STATUS_SUCCESS);

    EXPECT_EQ(buffer, Concat({first, second}));

    // Mapping type 2 ends with the whole of 0xA0 and then of 0xA8.
    Camera().PokeEeprom(0xA0, 0x7FFC, std::vector<uint8_t>{1, 2, 3, 4});
    Camera().PokeEeprom(0xA8, 0, std::vector<uint8_t>{9, 10});
    std::array<uint8_t, 6> tail{};
    ASSERT_EQ(OrnixReadVpdRange(Ext(), 2, tail.data(), 6, 0xB5FC), STATUS_SUCCESS);
    EXPECT_EQ(tail, (std::array<uint8_t, 6>{1, 2, 3, 4, 9, 10}));

    // Beyond the map or with an unknown map nothing is read.
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 8, 0x6FC), STATUS_UNSUCCESSFUL);
    Camera().ClearRequests();
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 0, buffer.data(), 4, 0x700), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 4, 0x13600), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 2, buffer.data(), 4, 0xFFFFFFFF), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), 3, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_EQ(OrnixReadVpdRange(Ext(), -1, buffer.data(), 4, 0), STATUS_NOT_SUPPORTED);
    EXPECT_TRUE(VendorRequests().empty());
}

TEST_F(VpdTest, ImageHoldsEverySectionThroughTheEndHeader) {
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);  // blank: the end header alone
    EXPECT_EQ(Image(), (std::vector<uint8_t>{0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(Ext()->DefectSection, nullptr);
    EXPECT_EQ(Ext()->Section4, nullptr);

    // A byte 3 of 0xFF is a blank nibble, not 15 × 64 KiB.
    const std::vector<uint8_t> vpd = Concat({VpdHeader(3, 7, 0xFF),
                                             {0xA1, 0xA2, 0xA3},
                                             VpdSection(1, {1, 0, 2, 0, 3, 0, 4, 0}),
                                             VpdSection(4, {0x44, 0x45}),
                                             VpdHeader(0, 0xFF, 0xFF)});
    StoreVpd(vpd);

    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);  // replacing the blank image

    EXPECT_EQ(Image(), vpd);
    EXPECT_EQ(Ext()->DefectSection, Ext()->VpdImage + 11);
    EXPECT_EQ(Ext()->DefectSectionLength, 8u);
    EXPECT_EQ(Ext()->Section4, Ext()->VpdImage + 23);
    EXPECT_EQ(Ext()->Section4Length, 2u);
}

using VpdLargestMapTest = VpdOn<2>;

// The headers may claim any length up to 1 MiB; only the map bounds them.
TEST_F(VpdLargestMapTest, TheImageMayFillTheMapButNotLeaveIt) {
    constexpr uint32_t kMapped = 0x13600;
    const struct {
        const char* what;
        uint32_t payload;
        uint8_t byte3;
    } cases[] = {
        {"filling the map exactly", kMapped - 8, (kMapped - 8) >> 16},
        {"one byte too long for the map", kMapped - 7, (kMapped - 7) >> 16},
        {"bits 16 to 19 set (0x20010 bytes)", 0x10, 0x02},
        {"the largest length", 0xFFFF, 0x0F},
    };
    Camera().PokeEeprom(0xA8, 0x7FFC, VpdEnd());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        StoreVpd(VpdHeader(c.payload, 1, c.byte3));
        winsim::ClearDebugLog();

        if (c.payload == kMapped - 8) {
            ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);
            EXPECT_EQ(Ext()->VpdLength, kMapped);
            EXPECT_EQ(Ext()->DefectSectionLength, c.payload);
            EXPECT_EQ(Image().back(), 0);
        } else {
            EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
            EXPECT_TRUE(Logged(kReadFailed));
            ExpectNoImage(Ext());
        }
    }
}

// Empty sections all the way to the end of the map and no end header: the
// walk stops where the map does.
TEST_F(VpdTest, NoEndHeaderFailsAtTheEndOfTheMap) {
    std::vector<uint8_t> vpd(0x700, 0);
    for (size_t id = 2; id < vpd.size(); id += 4) {
        vpd[id] = 9;
    }
    StoreVpd(vpd);

    EXPECT_EQ(OrnixReadVpd(Ext()), STATUS_UNSUCCESSFUL);
    EXPECT_TRUE(Logged(kReadFailed));
    ExpectNoImage(Ext());
}

// No failure leaves an image behind, not even the one read before. The size
// pass asks for the mapping type (request 1) and reads two headers (2 to 5);
// the image read follows.
TEST_F(VpdTest, AFailedReadKeepsNoImage) {
    StoreVpd(Concat({VpdSection(1, std::vector<uint8_t>(0x1F5, 1)), VpdEnd()}));
    const auto readFails = [&](NTSTATUS status, const char* message) {
        EXPECT_EQ(OrnixReadVpd(Ext()), status);
        winsim::ClearAllocationFailures();
        Stack().ClearFaults();
        EXPECT_TRUE(Logged(message));
        ExpectNoImage(Ext());
        ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);  // an image the next failure must drop
    };
    ASSERT_EQ(OrnixReadVpd(Ext()), STATUS_SUCCESS);

    Stack().AddFault({.kind = RequestKind::VendorDevice,
                      .occurrence = 5,
                      .action = FaultAction::ShortData,
                      .shortLength = 2});
    readFails(STATUS_INVALID_PARAMETER, kReadFailed);
    StallVendorRequest(Stack(), 7);
    readFails(STATUS_UNSUCCESSFUL, "ORNIX:  OrnixReadVpd:Failed to read huge VPD");
    winsim::FailAllocationsOfSize(0x1F5 + 8);
    readFails(STATUS_INSUFFICIENT_RESOURCES, "ORNIX:  OrnixReadVpd: No more memory");
}

TEST_F(VpdTest, ReturnAnswersSizeQueriesAndShortBuffersWithTheSize) {
    PUCHAR section = reinterpret_cast<PUCHAR>(1);
    ULONG length = 5;
    EXPECT_EQ(OrnixFindVpdSection(Ext(), &section, &length, 1), STATUS_NOT_FOUND);  // no image
    EXPECT_EQ(section, nullptr);
    EXPECT_EQ(length, 0u);
    length = 5;
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), &section, &length, 1), STATUS_NOT_FOUND);

    InstallImage(Concat({VpdSection(3, {7}), VpdSection(5, {1, 2, 3, 4, 5, 6}), VpdEnd()}));
    std::array<uint8_t, 8> buffer{};
    buffer.fill(0xEE);

    length = 0;
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), nullptr, &length, 5), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(length, 6u);

    length = 1;
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer.data(), &length, 5), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(buffer[0], 0xEE);

    length = static_cast<ULONG>(buffer.size());
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer.data(), &length, 5), STATUS_SUCCESS);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(buffer, (std::array<uint8_t, 8>{1, 2, 3, 4, 5, 6, 0xEE, 0xEE}));

    length = static_cast<ULONG>(buffer.size());
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), buffer.data(), &length, 9), STATUS_NOT_FOUND);
}

TEST_F(VpdTest, LengthTakesBitsSixteenToNineteenFromByteThree) {
    const struct {
        uint8_t byte3;
        ULONG length;
    } cases[] = {{0x02, 0x20010}, {0xFF, 0x10}, {0xF1, 0x10010}, {0x0F, 0xF0010}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.byte3);
        std::vector<uint8_t> image = VpdHeader(0x10, 1, c.byte3);
        image.resize(4 + c.length, 0x11);
        InstallImage(Concat({image, VpdEnd()}));

        PUCHAR section = nullptr;
        ULONG length = 0;
        EXPECT_EQ(OrnixFindVpdSection(Ext(), &section, &length, 1), STATUS_SUCCESS);
        EXPECT_EQ(section, Ext()->VpdImage + 4);
        EXPECT_EQ(length, c.length);
    }
}

// Each image below lies about its own size; the walk must stop inside it
// (the sanitizer builds would catch a read beyond) and report corruption.
TEST_F(VpdTest, HeadersThatDoNotFitTheImageAreReportedCorrupt) {
    const struct {
        const char* what;
        std::vector<uint8_t> image;
    } cases[] = {
        {"wanted payload past the end", Concat({VpdHeader(9, 1, 0), {1, 2, 3, 4}})},
        {"largest payload", Concat({VpdHeader(0xFFFF, 1, 0x0F), {1, 2, 3, 4}})},
        {"skipped payload past the end", Concat({VpdHeader(0xFFFF, 2, 0x0F), VpdSection(1, {1})})},
        {"no end header", Concat({VpdSection(2, {1, 2}), VpdSection(3, {3})})},
        {"a partial header at the end", Concat({VpdSection(2, {1, 2}), {0, 0}})},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        InstallImage(c.image);
        winsim::ClearDebugLog();
        PUCHAR section = reinterpret_cast<PUCHAR>(1);
        ULONG length = 7;
        std::array<uint8_t, 16> buffer{};
        ULONG bufferLength = static_cast<ULONG>(buffer.size());

        EXPECT_EQ(OrnixFindVpdSection(Ext(), &section, &length, 1), STATUS_UNSUCCESSFUL);
        EXPECT_EQ(section, nullptr);
        EXPECT_EQ(length, 0u);
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
