// Handing out sections of the cached image: the size query, short buffers,
// and images whose headers do not fit them, which must never make the walk
// or the copy leave the image.
#include <array>
#include <cstdint>
#include <vector>

#include "vpd_fixture.h"

namespace ornixtest {
namespace {

using VpdSectionTest = VpdTest;

constexpr const char* kCorrupted = "ORNIX:  OrnixReturnVpdSection: VPD corrupted";

TEST_F(VpdSectionTest, ReturnAnswersSizeQueriesAndShortBuffersWithTheSize) {
    InstallImage(Concat({VpdSection(3, {7}), VpdSection(5, {1, 2, 3, 4, 5, 6}), VpdEnd()}));
    std::array<uint8_t, 8> buffer{};
    buffer.fill(0xEE);

    ULONG length = 0;
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

TEST_F(VpdSectionTest, WithoutAnImageNothingIsFound) {
    PUCHAR section = reinterpret_cast<PUCHAR>(1);
    ULONG length = 5;
    EXPECT_EQ(OrnixFindVpdSection(Ext(), &section, &length, 1), STATUS_NOT_FOUND);
    EXPECT_EQ(section, nullptr);
    EXPECT_EQ(length, 0u);
    length = 5;
    EXPECT_EQ(OrnixReturnVpdSection(Ext(), &section, &length, 1), STATUS_NOT_FOUND);
}

TEST_F(VpdSectionTest, LengthTakesBitsSixteenToNineteenFromByteThree) {
    struct Case {
        uint8_t byte3;
        ULONG length;
    } cases[] = {{0x02, 0x20010}, {0xFF, 0x10}, {0xF1, 0x10010}, {0x0F, 0xF0010}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.byte3);
        std::vector<uint8_t> image = VpdHeader(0x10, 1, c.byte3);
        image.resize(4 + c.length, 0x11);
        const std::vector<uint8_t> end = VpdEnd();
        image.insert(image.end(), end.begin(), end.end());
        InstallImage(image);

        PUCHAR section = nullptr;
        ULONG length = 0;
        EXPECT_EQ(OrnixFindVpdSection(Ext(), &section, &length, 1), STATUS_SUCCESS);
        EXPECT_EQ(section, Ext()->VpdImage + 4);
        EXPECT_EQ(length, c.length);
    }
}

// Each image below lies about its own size; the walk must stop inside it
// (the sanitizer builds would catch a read beyond) and report corruption.
TEST_F(VpdSectionTest, HeadersThatDoNotFitTheImageAreReportedCorrupt) {
    struct Case {
        const char* what;
        std::vector<uint8_t> image;
    } cases[] = {
        {"wanted payload past the end", Concat({VpdHeader(9, 1, 0), {1, 2, 3, 4}})},
        {"largest payload", Concat({VpdHeader(0xFFFF, 1, 0x0F), {1, 2, 3, 4}})},
        {"skipped payload past the end", Concat({VpdHeader(0xFFFF, 2, 0x0F), VpdSection(1, {1})})},
        {"no end header", Concat({VpdSection(2, {1, 2}), VpdSection(3, {3})})},
        {"a partial header at the end", Concat({VpdSection(2, {1, 2}), {0, 0}})},
    };
    for (const Case& c : cases) {
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
