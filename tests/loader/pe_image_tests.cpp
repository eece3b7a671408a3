// The image loader on a small x64 image built here byte by byte: sections at
// their addresses, relocations for where it landed, imports bound by name,
// protections per section, and clear refusals of broken images.
#include "loader/pe_image.h"

#include "image_builder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <string>

namespace {

using ornixtest::ImageBuilder;
using ornixtest::kPreferredBase;
using winsim::loader::LoadError;
using winsim::loader::PeImage;
using Bytes = std::vector<uint8_t>;

std::string Refusal(const Bytes& file) {
    try {
        PeImage::Map(file);
    } catch (const LoadError& e) {
        return e.what();
    }
    return "loaded";
}

// The protection /proc/self/maps gives the page at `address` ("r-xp" ...).
std::string Protection(const void* address) {
    std::ifstream maps("/proc/self/maps");
    const auto at = reinterpret_cast<uintptr_t>(address);
    for (std::string line; std::getline(maps, line);) {
        uintptr_t from = 0, to = 0;
        char perms[5] = {};
        if (std::sscanf(line.c_str(), "%lx-%lx %4s", &from, &to, perms) == 3 && from <= at &&
            at < to) {
            return perms;
        }
    }
    return "";
}

TEST(PeImageTest, SectionsLandAtTheirAddressesWithRelocationsApplied) {
    ImageBuilder builder;
    auto image = PeImage::Map(builder.Bytes_());
    ASSERT_NE(reinterpret_cast<uint64_t>(image->Base()), kPreferredBase);
    EXPECT_EQ(image->EntryPoint(), image->Base() + 0x1000);
    EXPECT_EQ(image->Base()[0x1000], 0xC3);
    uint64_t pointer;
    std::memcpy(&pointer, image->Base() + 0x2000, 8);
    EXPECT_EQ(pointer, reinterpret_cast<uint64_t>(image->Base() + 0x1000));
    ASSERT_EQ(image->Sections().size(), 3u);
    EXPECT_EQ(image->Sections()[2].name, ".idata");
}

TEST(PeImageTest, ImportsBindByModuleAndNameAndAMissingOneFailsTheLoadByName) {
    ImageBuilder builder;
    auto image = PeImage::Map(builder.Bytes_());
    ASSERT_EQ(image->Imports().size(), 2u);
    EXPECT_EQ(image->Imports()[0].module, "ntoskrnl.exe");
    EXPECT_EQ(image->Imports()[1].name, "IoFreeIrp");
    int dbgPrint = 0, ioFreeIrp = 0;
    image->BindImports([&](std::string_view, std::string_view name) -> void* {
        return name == "DbgPrint" ? static_cast<void*>(&dbgPrint) : &ioFreeIrp;
    });
    void* slot;
    std::memcpy(&slot, image->Base() + 0x3068, sizeof slot);
    EXPECT_EQ(slot, &ioFreeIrp);

    try {
        image->BindImports([&](std::string_view, std::string_view name) -> void* {
            return name == "DbgPrint" ? &dbgPrint : nullptr;
        });
        FAIL() << "bound an import nobody provides";
    } catch (const LoadError& e) {
        EXPECT_STREQ(e.what(), "imports the platform does not provide: ntoskrnl.exe!IoFreeIrp");
    }
}

TEST(PeImageTest, EachSectionGetsItsOwnProtection) {
    ImageBuilder builder;
    auto image = PeImage::Map(builder.Bytes_());
    image->Protect();
    EXPECT_EQ(Protection(image->Base()), "r--p");
    EXPECT_EQ(Protection(image->Base() + 0x1000), "r-xp");
    EXPECT_EQ(Protection(image->Base() + 0x2000), "rw-p");
}

TEST(PeImageTest, BrokenImagesAreRefusedSayingWhatIsWrong) {
    struct Case {
        const char* what;
        void (*breakIt)(ImageBuilder&);
        const char* says;
    };
    const Case cases[] = {
        {"no MZ", [](ImageBuilder& b) { b.Put16(0, 0); }, "not an image: no MZ signature"},
        {"x86", [](ImageBuilder& b) { b.Put16(0x44, 0x14C); }, "not an x64 image"},
        {"section past the file", [](ImageBuilder& b) { b.Put32(0x58 + 240 + 40 + 20, 0x700); },
         "the data of section .data lies past the end of the file"},
        {"section past the image", [](ImageBuilder& b) { b.Put32(0x58 + 240 + 80 + 12, 0x3F00); },
         "section .idata lies outside the image"},
        {"relocation type", [](ImageBuilder& b) { b.Put16(0x508, 0x3000); },
         "relocation type 3 is not supported"},
        {"relocation block", [](ImageBuilder& b) { b.Put32(0x504, 4); },
         "a relocation block has a bad size"},
        {"import by ordinal", [](ImageBuilder& b) { b.Put64(0x648, uint64_t{1} << 63 | 5); },
         "an import of ntoskrnl.exe is by ordinal"},
    };
    for (const Case& c : cases) {
        ImageBuilder builder;
        c.breakIt(builder);
        EXPECT_EQ(Refusal(builder.Bytes_()), c.says) << c.what;
    }
    ImageBuilder whole;
    Bytes truncated(whole.Bytes_().begin(), whole.Bytes_().begin() + 0x60);
    EXPECT_EQ(Refusal(truncated), "truncated image: the optional header lies past the end");
}

}  // namespace
