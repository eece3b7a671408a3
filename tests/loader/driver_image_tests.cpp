// A driver binary loaded as the platform hosts it: bound to the platform's
// own routines, its symbols taken from the unstripped twin only when the twin
// really is the same image.
#include "loader/driver_image.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "image_builder.h"
#include "loader/kernel_exports.h"

namespace {

using ornixtest::ImageBuilder;
using winsim::loader::DriverImage;
using winsim::loader::LoadError;

class DriverImageTest : public testing::Test {
  protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() /
               ("driver-image-" + std::to_string(::getpid()) + "-" +
                testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string Write(const std::string& name, const ornixtest::Bytes& bytes) {
        const std::filesystem::path path = dir_ / name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path.string();
    }

    std::filesystem::path dir_;
};

TEST_F(DriverImageTest, ImportsBindToThePlatformsOwnRoutines) {
    ImageBuilder builder;
    const std::string path = Write("probe.sys", builder.Bytes_());
    const auto driver = DriverImage::Load(path);
    const uint8_t* base = driver->Image().Base();
    void* slots[2];
    std::memcpy(slots, base + 0x3060, sizeof slots);
    EXPECT_EQ(slots[0], winsim::loader::FindKernelExport("NTOSKRNL.EXE", "DbgPrint"));
    EXPECT_EQ(slots[1], reinterpret_cast<void*>(&IoFreeIrp));
    EXPECT_EQ(reinterpret_cast<const uint8_t*>(driver->Entry()), base + 0x1000);
    EXPECT_FALSE(driver->HasSymbols());
    // What the platform's headers leave to macros on x64 is not exported.
    EXPECT_EQ(winsim::loader::FindKernelExport("ntoskrnl.exe", "KeGetCurrentIrql"), nullptr);
    EXPECT_EQ(winsim::loader::FindKernelExport("hal.dll", "DbgPrint"), nullptr);
}

TEST_F(DriverImageTest, SymbolsComeFromATwinWithTheSameSectionsOnly) {
    ImageBuilder twin;
    twin.AddTextSymbol("Probe");
    ImageBuilder image;
    const std::string path = Write("probe.sys", image.Bytes_());
    Write("probe.unstripped.sys", twin.Bytes_());
    const auto driver = DriverImage::Load(path);
    ASSERT_TRUE(driver->HasSymbols());
    EXPECT_EQ(driver->Symbol("Probe"), driver->Image().Base() + 0x1000);
    EXPECT_EQ(driver->Symbol("Absent"), nullptr);

    // A twin from another build: one byte of code differs.
    twin.Bytes_()[0x200] = 0x90;
    Write("probe.unstripped.sys", twin.Bytes_());
    try {
        DriverImage::Load(path);
        FAIL() << "took symbols from a twin of another image";
    } catch (const LoadError& e) {
        EXPECT_NE(std::string(e.what()).find("is not the unstripped twin of the image: section "
                                             ".text differs"),
                  std::string::npos)
            << e.what();
    }
}

}  // namespace
