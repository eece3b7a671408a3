// A routine's name in the x64 binary (Windows' 32-bit long) and in this
// host's build of the driver must meet in one portable spelling, and only
// when the two really declare the same routine.
#include <gtest/gtest.h>

#include "loader/coff_symbols.h"

namespace {

using winsim::loader::PortableName;

TEST(PortableNameTest, BothDataModelsMeetOnTheWidthOfEachType) {
    // OrnixRegRead(_CTX*, ULONG, ULONG*): ULONG is unsigned long on Windows,
    // unsigned int here.
    EXPECT_EQ(PortableName("_Z12OrnixRegReadP4_CTXmPm", true),
              PortableName("_Z12OrnixRegReadP4_CTXjPj", false));
    // SIZE_T: unsigned long long on Windows, unsigned long here.
    EXPECT_EQ(PortableName("_Z1fy", true), PortableName("_Z1fm", false));
    // LONGLONG is long long in both.
    EXPECT_EQ(PortableName("_Z1fx", true), PortableName("_Z1fx", false));
    // WCHAR: wchar_t (with -fshort-wchar) there, char16_t here.
    EXPECT_EQ(PortableName("_Z1fPKw", true), PortableName("_Z1fPKDs", false));
    // A callback parameter: the host spells out the Windows convention.
    EXPECT_EQ(PortableName("_Z1fPFvlE", true), PortableName("_Z1fPU6ms_abiFviE", false));
    // C names pass unchanged.
    EXPECT_EQ(PortableName("DriverEntry", true), "DriverEntry");
}

TEST(PortableNameTest, DifferentWidthsStayApart) {
    // A 64-bit parameter here against a 32-bit one there is another routine.
    EXPECT_NE(PortableName("_Z1fm", true), PortableName("_Z1fm", false));
    EXPECT_NE(PortableName("_Z1fj", true), PortableName("_Z1fy", false));
}

}  // namespace
